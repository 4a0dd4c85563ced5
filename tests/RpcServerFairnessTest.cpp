// That nobody waits for somebody else: when replies leave, who is served next, and when a batch of calls ends.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "BeforeAsking.h"
#include "RpcServerFixture.h"
#include "SocketDoubles.h"
#include "WaitUntil.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Answers its opaque argument to procedure 1, zeros of the number of its argument to procedure 2, and does to any
/// other what the test says.
class ScriptedProgram : public CRpcProg {
public:
    explicit ScriptedProgram(std::function<void(unsigned int iProcedure)> action)
        : CRpcProg(nullptr), m_Action(std::move(action)) {}

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override {
        if (pParam->iProc == 2) {
            unsigned int nBytes = 0;
            pInput->Read(&nBytes);
            pOutput->Write(nullptr, nBytes);
        } else if (pParam->iProc != 0) {
            m_Action(pParam->iProc);
        }
        return kProgHandled;
    }

private:
    std::function<void(unsigned int)> m_Action;
};

class RpcServerFairnessTest : public RpcServerFixture {
protected:
    static constexpr unsigned int kScripted = 7;

    /// A program whose scripted calls last until they are let go.
    struct HoldingProgram {
        std::atomic<int> nCalls{0};
        std::atomic<bool> bGo{false};
        ScriptedProgram program{[this](unsigned int) {
            ++nCalls;
            EXPECT_TRUE(WaitUntil([this] { return bGo.load(); }));
        }};
    };

    std::string Calls(unsigned int nCalls, unsigned int iProcedure) {
        std::string sCalls;
        for (unsigned int iXid = 1; iXid <= nCalls; ++iXid) {
            sCalls += Call(iProcedure, "", iXid).Bytes(Transport::kTcp);
        }
        return sCalls;
    }
    static std::string Replies(unsigned int nReplies) {
        std::string sReplies;
        for (unsigned int iXid = 1; iXid <= nReplies; ++iXid) {
            sReplies += Record(Reply(0, "", iXid));
        }
        return sReplies;
    }
};

// ---- When replies leave

TEST_F(RpcServerFairnessTest, RepliesToCallsOfOneReceiveLeaveTogether) {
    CapturingSocket socket(CSocket::kStream, 100003);
    socket.Receive(&m_Server, Calls(16, 0));
    EXPECT_EQ(Hex(socket.Sent()), Hex(Replies(16)));
    // One, were it not for a pause of the machine in between.
    EXPECT_LT(socket.Sendings().size(), 8U);
}

TEST_F(RpcServerFairnessTest, WithRpcLoggingEachReplyLeavesByItself) {
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    CapturingSocket socket(CSocket::kStream, 100003);
    socket.Receive(&m_Server, Calls(16, 0));
    EXPECT_EQ(Hex(socket.Sent()), Hex(Replies(16)));
    EXPECT_EQ(socket.Sendings(), std::vector<std::size_t>(16, Record(Reply(0)).size()));
}

TEST_F(RpcServerFairnessTest, RepliesOfALongBatchDoNotWaitForItsEnd) {
    CapturingSocket socket(CSocket::kStream, 100003);
    std::size_t nSentAtTheEnd = 0;
    int nCalls = 0;
    ScriptedProgram program([&](unsigned int) {
        nSentAtTheEnd = socket.Sent().size();
        ++nCalls;
        const Clock::time_point until = Clock::now() + 1ms;
        while (Clock::now() < until) {
        }
    });
    m_Server.Set(100003, &program);
    socket.Receive(&m_Server, Calls(5, kScripted));
    EXPECT_EQ(nCalls, 5);
    EXPECT_EQ(nSentAtTheEnd, 4 * Record(Reply(0)).size()) << "each call lasts as long as a reply may wait";
    EXPECT_EQ(Hex(socket.Sent()), Hex(Replies(5)));
}

TEST_F(RpcServerFairnessTest, WhatIsPendingLeavesBeforeAHostIsAsked) {
    CapturingSocket socket(CSocket::kStream, 100003);
    std::string sSentWhenAsked;
    ScriptedProgram program([&](unsigned int) {
        CBeforeAsking::Run();
        sSentWhenAsked = socket.Sent();
    });
    m_Server.Set(100003, &program);
    socket.Receive(&m_Server, Calls(2, 0) + Call(kScripted, "", 3).Bytes(Transport::kTcp));
    EXPECT_EQ(Hex(sSentWhenAsked), Hex(Replies(2)));
    EXPECT_EQ(Hex(socket.Sent()), Hex(Replies(3))) << "nothing twice, and nothing of a reply that is being made";
}

TEST_F(RpcServerFairnessTest, LargeAndSmallRepliesLeaveWholeAndInOrder) {
    CapturingSocket socket(CSocket::kStream, 100003);
    ScriptedProgram program([](unsigned int) {});
    m_Server.Set(100003, &program);
    std::string sCalls;
    std::string sReplies;
    unsigned int iXid = 0;
    for (const unsigned int nBytes : {4U, 65536U, 8U, 16384U, 16000U, 1000000U, 4U}) {
        ++iXid;
        sCalls += Call(2, XdrBuilder().U32(nBytes).Bytes(), iXid).Bytes(Transport::kTcp);
        sReplies += Record(Reply(0, std::string(nBytes, '\0'), iXid));
    }
    socket.Receive(&m_Server, sCalls);
    EXPECT_TRUE(socket.Sent() == sReplies);
}

TEST_F(RpcServerFairnessTest, ACallThatRunsShortDropsNothingOfTheRepliesBeforeIt) {
    CapturingSocket socket(CSocket::kStream, 100003);
    const std::string sLast = Call(1, Opaque("whole at last"), 3).Bytes(Transport::kTcp);
    socket.Receive(&m_Server, Calls(2, 0) + sLast.substr(0, sLast.size() - 5));
    EXPECT_EQ(Hex(socket.Sent()), Hex(Replies(2)));
    socket.Receive(&m_Server, sLast.substr(sLast.size() - 5));
    EXPECT_EQ(Hex(socket.Sent()), Hex(Replies(2) + Record(Reply(0, Opaque("whole at last"), 3))));
}

// ---- Who is served next

TEST_F(RpcServerFairnessTest, AnotherClientIsServedInTheMiddleOfALongBatch) {
    constexpr int kCalls = 400;
    std::atomic<int> nCalls{0};
    ScriptedProgram program([&](unsigned int) {
        std::this_thread::sleep_for(5ms);
        ++nCalls;
    });
    m_Server.Set(100003, &program);
    Open();
    m_pTcp->Send(Calls(kCalls, kScripted));
    ASSERT_TRUE(WaitUntil([&] { return nCalls > 0; }));
    RpcClient other(Transport::kTcp, m_Tcp.GetPort());
    for (unsigned int iXid = 1; iXid <= 10; ++iXid) {
        EXPECT_EQ(other.Call(Call(0, "", iXid)).iXid, iXid);
    }
    EXPECT_LT(nCalls.load(), kCalls) << "the whole batch came first";
    EXPECT_EQ(Hex(TcpReceive(Replies(kCalls).size())), Hex(Replies(kCalls)));
}

TEST_F(RpcServerFairnessTest, AClientThatTakesNoRepliesDelaysNobodyElse) {
    ScriptedProgram program([](unsigned int) {});
    m_Server.Set(100003, &program);
    Open();
    std::string sCalls;
    for (unsigned int iXid = 1; iXid <= 100; ++iXid) {
        sCalls += Call(2, XdrBuilder().U32(1000000).Bytes(), iXid).Bytes(Transport::kTcp);
    }
    m_pTcp->Send(sCalls);
    m_pTcp->ReceiveBytes(4);  // the first reply is under way, far more than the sockets hold
    RpcClient other(Transport::kTcp, m_Tcp.GetPort());
    const Clock::time_point begin = Clock::now();
    for (unsigned int iXid = 1; iXid <= 20; ++iXid) {
        EXPECT_EQ(other.Call(Call(0, "", iXid)).iXid, iXid);
        EXPECT_EQ(m_pUdp->Call(Call(0, "", iXid)).iXid, iXid);
    }
    EXPECT_LT(Clock::now() - begin, 4s) << "less than a send without progress may last";
    m_Tcp.Close();
    EXPECT_LT(Clock::now() - begin, 8s) << "nor does it delay the end";
}

// ---- When a batch ends

TEST_F(RpcServerFairnessTest, ABatchEndsWhenItsSocketIsToldToStop) {
    CapturingSocket socket(CSocket::kStream, 100003);
    int nCalls = 0;
    ScriptedProgram program([&](unsigned int) {
        if (++nCalls == 3) {
            socket.Shutdown();
        }
    });
    m_Server.Set(100003, &program);
    EXPECT_FALSE(socket.Receive(&m_Server, Calls(100, kScripted)));
    EXPECT_EQ(nCalls, 3);
}

TEST_F(RpcServerFairnessTest, ABatchEndsWhenItsRepliesArriveNowhere) {
    CapturingSocket socket(CSocket::kStream, 100003);
    socket.Break();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);  // each reply leaves by itself
    int nCalls = 0;
    ScriptedProgram program([&](unsigned int) { ++nCalls; });
    m_Server.Set(100003, &program);
    socket.Receive(&m_Server, Calls(100, kScripted));
    EXPECT_EQ(nCalls, 1);
}

TEST_F(RpcServerFairnessTest, ABatchOfAPeerThatIsGoneEndsBehindTheCallThatLasted) {
    HoldingProgram holding;
    m_Server.Set(100003, &holding.program);
    Open();
    m_pTcp->Send(Calls(3, kScripted));
    ASSERT_TRUE(WaitUntil([&] { return holding.nCalls == 1; }));
    m_pTcp->Close();
    std::this_thread::sleep_for(200ms);  // a batch that lasts is looked after
    holding.bGo = true;
    std::vector<std::unique_ptr<RpcClient>> vOthers;
    for (unsigned int iXid = 1; iXid <= 3; ++iXid) {  // the third needs the place of the one that is gone
        vOthers.push_back(std::make_unique<RpcClient>(Transport::kTcp, m_Tcp.GetPort()));
        EXPECT_EQ(vOthers.back()->Call(Call(0, "", iXid)).iXid, iXid);
    }
    EXPECT_EQ(holding.nCalls.load(), 1);
}

TEST_F(RpcServerFairnessTest, APeerThatSendsNoMoreGetsAllItsRepliesHoweverLongTheyTake) {
    constexpr unsigned int kCalls = 100;
    ScriptedProgram program([](unsigned int) { std::this_thread::sleep_for(5ms); });
    m_Server.Set(100003, &program);
    Open();
    m_pTcp->Send(Calls(kCalls, kScripted));
    ::shutdown(m_pTcp->GetSocket(), SHUT_WR);
    EXPECT_EQ(Hex(TcpReceive(Replies(kCalls).size())), Hex(Replies(kCalls)));
    EXPECT_TRUE(m_pTcp->IsClosedByPeer());
}

TEST_F(RpcServerFairnessTest, NothingIsExecutedForASocketThatIsToldToStopWhileItWaits) {
    HoldingProgram holding;
    m_Server.Set(100003, &holding.program);
    CapturingSocket first(CSocket::kStream, 100003);
    CapturingSocket second(CSocket::kStream, 100003);
    WaitingThread firstThread([&] { first.Receive(&m_Server, Calls(1, kScripted)); });
    ASSERT_TRUE(WaitUntil([&] { return holding.nCalls == 1; }));
    WaitingThread secondThread([&] { second.Receive(&m_Server, Calls(1, kScripted)); });
    EXPECT_TRUE(secondThread.WaitUntilWaiting());
    second.Shutdown();
    holding.bGo = true;
    firstThread.Join();
    secondThread.Join();
    EXPECT_EQ(holding.nCalls.load(), 1);
    EXPECT_EQ(second.Sent(), "");
}

}  // namespace
