// Where a call begins among bytes that are none.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "RpcServerFixture.h"

namespace {

using namespace std::chrono_literals;

class RpcServerSearchTest : public RpcServerFixture {};

// ---- The scanner

TEST_F(RpcServerSearchTest, GarbageInFrontOfACallIsSkipped) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    m_pTcp->Send("garbage" + Call(0).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0)));
    EXPECT_TRUE(m_Log.Has("[RpcServer.SocketReceived] Skipped 7 data for next vaild header", 'i')) << m_Log.Dump();
    m_pUdp->Send("rubbish" + Call(0).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0)));
}

TEST_F(RpcServerSearchTest, ACallForAnotherProgramIsSkippedAndMentioned) {
    FakeProgram mount;
    m_Server.Set(100005, &mount);
    Open(100005);
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    RpcCall own = Call(0, "", 2);
    own.iProgram = 100005;
    m_pTcp->Send(Call(99, "", 1).Bytes(Transport::kTcp) + own.Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, "", 2)));
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
    EXPECT_EQ(m_Program.nCalls.load(), 0);
    EXPECT_TRUE(
        m_Log.Has("[RpcServer.SocketReceived] A possible valid header may be skipped, ProcId=100003, ProcId=99"))
        << m_Log.Dump();
    EXPECT_TRUE(m_Log.Has("[RpcServer.SocketReceived] Skipped 44 data for next vaild header")) << m_Log.Dump();
}

TEST_F(RpcServerSearchTest, ImplausibleProgramsAreSkippedWithoutMention) {
    Open(100005);
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    RpcCall below = Call(0);
    below.iProgram = 99999;
    RpcCall above = Call(0);
    above.iProgram = 200000;
    const RpcCall procedure = Call(100);
    m_pUdp->Send(below.Bytes(Transport::kUdp) + above.Bytes(Transport::kUdp) + procedure.Bytes(Transport::kUdp));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Cannot find valid header!!")) << m_Log.Dump();
    const std::string sMention = "[RpcServer.SocketReceived] A possible valid header may be skipped, ";
    EXPECT_FALSE(m_Log.Has(sMention + "ProcId=99999, ProcId=0")) << m_Log.Dump();
    EXPECT_FALSE(m_Log.Has(sMention + "ProcId=200000, ProcId=0")) << m_Log.Dump();
    EXPECT_FALSE(m_Log.Has(sMention + "ProcId=100003, ProcId=100")) << m_Log.Dump();
    RpcCall first = Call(0);
    first.iProgram = 100000;
    m_pUdp->Send(first.Bytes(Transport::kUdp));
    EXPECT_TRUE(
        m_Log.WaitFor("[RpcServer.SocketReceived] A possible valid header may be skipped, ProcId=100000, ProcId=0"));
    RpcCall last = Call(1);
    last.iProgram = 199999;
    m_pUdp->Send(last.Bytes(Transport::kUdp));
    EXPECT_TRUE(
        m_Log.WaitFor("[RpcServer.SocketReceived] A possible valid header may be skipped, ProcId=199999, ProcId=1"));
}

TEST_F(RpcServerSearchTest, OnlyTheProgramsOwnVersionStartsACall) {
    FakeProgram third(3);
    m_Server.Set(100003, &third);
    Open();
    RpcCall second = Call(0, "", 1);
    second.iVersion = 2;
    m_pUdp->Send(second.Bytes(Transport::kUdp));
    m_pTcp->Send(second.Bytes(Transport::kTcp) + Call(0, "", 2).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, "", 2)));
    EXPECT_TRUE(m_pUdp->StaysSilent(kSilence));
    EXPECT_EQ(third.nCalls.load(), 1);
}

TEST_F(RpcServerSearchTest, OnlyAProcedureOfTheProgramStartsACall) {
    FakeProgram two(0xFFFFFFFFU, 2);
    m_Server.Set(100003, &two);
    Open();
    m_pTcp->Send(Call(2, "", 1).Bytes(Transport::kTcp) + Call(1, Opaque("x"), 2).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, Opaque("x"), 2)));
    EXPECT_EQ(two.nCalls.load(), 1);
}

TEST_F(RpcServerSearchTest, NumbersOfTheProgramThatStartNoCallAreSkippedWithAndWithoutLogging) {
    FakeProgram third(3, 2);
    m_Server.Set(100003, &third);
    Open();
    std::string sGarbage;
    for (int i = 0; i < 200; ++i) {
        sGarbage += XdrBuilder().U32(100003).Raw(std::string(static_cast<std::size_t>(i % 7), '\xA3')).Bytes();
    }
    for (const int iLogControl : {0, static_cast<int>(CRuntimeParam::kLogRpc)}) {
        m_Server.SetLogControl(iLogControl);
        m_pTcp->Send(sGarbage + Call(1, Opaque("x")).Bytes(Transport::kTcp));
        ExpectTcp(Record(Reply(0, Opaque("x"))));
        m_pUdp->Send(sGarbage + Call(1, Opaque("y")).Bytes(Transport::kUdp));
        EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, Opaque("y"))));
    }
    EXPECT_EQ(third.nCalls.load(), 4);
}

// What was searched before is not searched again; what could not be judged yet must be.
TEST_F(RpcServerSearchTest, ACallBehindGarbageThatArrivesByteByByteIsFoundAtItsFirstByte) {
    const std::string sCall = Call(1, Opaque("abc")).Bytes(Transport::kTcp);
    for (const int iLogControl : {0, static_cast<int>(CRuntimeParam::kLogRpc)}) {
        m_Server.SetLogControl(iLogControl);
        for (std::size_t nGarbage = 0; nGarbage < 50; ++nGarbage) {
            CSocket socket(CSocket::kStream, 100003);
            for (const char cByte : std::string(nGarbage, '\xA3') + sCall) {
                socket.GetInputStream()->ConsolidateBuffer(0);
                Receive(socket, {&cByte, 1});
            }
            EXPECT_EQ(Hex(Left(socket)), Hex(Record(Reply(0, Opaque("abc"))))) << nGarbage << " bytes in front";
        }
    }
}

TEST_F(RpcServerSearchTest, FewerBytesThanAHeaderWaitForMore) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    const std::string sCall = Call(0).Bytes(Transport::kTcp);
    ASSERT_EQ(sCall.size(), 44U);
    m_pTcp->Send(sCall.substr(0, 43));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Cannot find valid header!!"));
    m_pTcp->Send(sCall.substr(43));
    ExpectTcp(Record(Reply(0)));
}

TEST_F(RpcServerSearchTest, ABufferFullOfGarbageEndsTheConnection) {
    Open();
    try {
        m_pTcp->Send(std::string(CSocketStream::GetMaxBufferSize() + 1, '\0'));
    } catch (const std::runtime_error&) {
        // the server may have closed before the last byte was sent
    }
    EXPECT_TRUE(m_pTcp->IsClosedByPeer());
    RpcClient next(Transport::kTcp, m_Tcp.GetPort());
    next.Send(Call(0).Bytes(Transport::kTcp));
    EXPECT_EQ(Hex(next.Receive()), Hex(Record(Reply(0))));
}

TEST_F(RpcServerSearchTest, GarbageInSmallPiecesCostsNoMoreThanInOne) {
    Open();
    const std::string sPiece(16, '\x01');
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 50000; ++i) {  // 800 KB; searched from the start for each piece it would be 20 GB
        m_pTcp->Send(sPiece);
    }
    m_pTcp->Send(Call(0).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
}

}  // namespace
