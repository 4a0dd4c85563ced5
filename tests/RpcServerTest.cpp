// Calls in, replies out: byte for byte through real sockets.
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "RpcServerFixture.h"

namespace {

using namespace std::chrono_literals;

class RpcServerTest : public RpcServerFixture {};

// ---- Replies

TEST_F(RpcServerTest, AReplyCarriesXidVerifierAndStatusAndInAStreamItsMark) {
    Open();
    m_pTcp->Send(Call(0).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0)));
    m_pUdp->Send(Call(0, "", 0xDEADBEEF).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, "", 0xDEADBEEF)));
}

TEST_F(RpcServerTest, ResultsFollowTheStatusWithTheirPadding) {
    Open();
    m_pTcp->Send(Call(1, Opaque("abcde")).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, Opaque("abcde"))));
    m_pUdp->Send(Call(1, Opaque("abcde")).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, Opaque("abcde"))));
}

TEST_F(RpcServerTest, TheVerifierIsEchoedWithoutItsBody) {
    Open();
    RpcCall call = Call(0);
    call.iVerfFlavor = 6;
    call.sVerf = "12345678";
    const std::string sReply = XdrBuilder().U32(0x01020304).U32(1).U32(0).U32(6).U32(8).U32(0).Bytes();
    m_pTcp->Send(call.Bytes(Transport::kTcp));
    ExpectTcp(Record(sReply));
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
    m_pUdp->Send(call.Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(sReply));
}

TEST_F(RpcServerTest, CredentialsAreSkipped) {
    Open();
    RpcCall call = Call(1, Opaque("x"));
    call.iCredFlavor = 1;
    call.sCred = std::string(400, 'c');
    m_pTcp->Send(call.Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, Opaque("x"))));
}

// Whoever pads a body must count the padding: the bytes behind the length said are the next field.
TEST_F(RpcServerTest, NoPaddingIsSkippedBehindCredentialAndVerifier) {
    const std::string sHead = XdrBuilder().U32(9).U32(0).U32(2).U32(100003).U32(3).U32(1).Bytes();
    const std::string sCall =
        XdrBuilder().Raw(sHead).U32(1).U32(5).Raw("creds").U32(6).U32(3).Raw("ver").Raw(Opaque("arguments")).Bytes();
    const std::string sReply = XdrBuilder().U32(9).U32(1).U32(0).U32(6).U32(3).U32(0).Raw(Opaque("arguments")).Bytes();
    CSocket datagram(CSocket::kDatagram, 100003);
    Receive(datagram, sCall);
    EXPECT_EQ(Hex(Left(datagram)), Hex(sReply));
    CSocket stream(CSocket::kStream, 100003);
    Receive(stream, "mark" + sCall);
    EXPECT_EQ(Hex(Left(stream)), Hex(Record(sReply)));
    EXPECT_EQ(stream.GetInputStream()->GetFilledBufferSize(), 0U);
}

TEST_F(RpcServerTest, NeitherMessageTypeNorRpcVersionNorTheMarkIsChecked) {
    Open();
    std::string sCall = Call(0).Bytes(Transport::kTcp);
    sCall[0] = 0;              // not the last fragment
    sCall[3] = 1;              // of another length
    sCall[4 + 4 + 3] = 1;      // a reply
    sCall[4 + 4 + 4 + 3] = 9;  // RPC version 9
    m_pTcp->Send(sCall);
    ExpectTcp(Record(Reply(0)));
}

TEST_F(RpcServerTest, AProgramIsToldVersionAndClient) {
    Open();
    RpcCall call = Call(5);
    call.iVersion = 7;
    RpcClient other(Transport::kUdp, m_Udp.GetPort(), "127.0.0.5");
    other.Send(call.Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(other.Receive()), Hex(Reply(0, XdrBuilder().U32(7).Raw("127.0.0.5127.0.0.5").Bytes())));
}

TEST_F(RpcServerTest, ProcUnavailOverwritesTheStatusAndWhatWasWrittenBehindItIsSent) {
    Open();
    const std::string sMarked = Reply(3);
    m_pTcp->Send(Call(2).Bytes(Transport::kTcp));
    ExpectTcp(Record(sMarked) + "left over");
    m_pUdp->Send(Call(2).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(sMarked + "left over"));
}

TEST_F(RpcServerTest, GarbageArgsOverwritesTheStatusAndWhatWasWrittenBehindItIsSent) {
    Open();
    m_pTcp->Send(Call(3).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(4)) + "rest");
}

TEST_F(RpcServerTest, AnythingElseThatAProgramThrowsIsGarbageArgs) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogError);
    m_pTcp->Send(Call(4).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(4)));
    EXPECT_EQ(m_Log.Texts('e'), std::vector<std::string>{"[RpcServer.Process] Unknown exception"}) << m_Log.Dump();
}

TEST_F(RpcServerTest, CallsBehindARefusedOneAreAnsweredAtOnce) {
    Open();
    m_pTcp->Send(Call(3).Bytes(Transport::kTcp) + Call(2, "", 2).Bytes(Transport::kTcp) +
                 Call(4, "", 3).Bytes(Transport::kTcp) + Call(0, "", 4).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(4)) + "rest" + Record(Reply(3, "", 2)) + "left over" + Record(Reply(4, "", 3)) +
              Record(Reply(0, "", 4)));
}

TEST_F(RpcServerTest, AnUnregisteredProgramIsProgUnavail) {
    for (const unsigned int iProgram : {100001U, 300000U, 99999U, 100010U}) {
        Open(iProgram);
        RpcCall call = Call(0);
        call.iProgram = iProgram;
        m_pTcp->Send(call.Bytes(Transport::kTcp));
        ExpectTcp(Record(Reply(1)));
        m_pUdp->Send(call.Bytes(Transport::kUdp));
        EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(1))) << iProgram;
    }
}

// The answer is whole: the next call of the buffer follows at once.
TEST_F(RpcServerTest, CallsBehindOneForAnUnregisteredProgramAreAnsweredToo) {
    Open(100001);
    std::string sCalls;
    std::string sReplies;
    for (const unsigned int iXid : {1U, 2U, 3U}) {
        RpcCall call = Call(0, "", iXid);
        call.iProgram = 100001;
        sCalls += call.Bytes(Transport::kTcp);
        sReplies += Record(Reply(1, "", iXid));
    }
    m_pTcp->Send(sCalls);
    ExpectTcp(sReplies);
}

TEST_F(RpcServerTest, ATruncatedHeaderForAnUnregisteredProgramWaitsForTheRest) {
    for (const int iType : {static_cast<int>(CSocket::kStream), static_cast<int>(CSocket::kDatagram)}) {
        RpcCall call = Call(0);
        call.iProgram = 100001;
        call.sCred = "12345678";
        const std::string sCall = call.Bytes(iType == CSocket::kStream ? Transport::kTcp : Transport::kUdp);
        CSocket socket(iType, 100001);
        Receive(socket, sCall.substr(0, sCall.size() - 1));
        EXPECT_EQ(Hex(Left(socket)), "");
        EXPECT_EQ(socket.GetInputStream()->GetFilledBufferSize(), sCall.size() - 1);
        Receive(socket, sCall.substr(sCall.size() - 1));
        EXPECT_EQ(Hex(Left(socket)), Hex(iType == CSocket::kStream ? Record(Reply(1)) : Reply(1)));
    }
}

TEST_F(RpcServerTest, ProgramsOutsideTheTableAreNotRegistered) {
    FakeProgram other;
    m_Server.Set(99999, &other);
    m_Server.Set(100010, &other);
    m_Server.Set(-1, &other);
    Open(100010);
    RpcCall call = Call(0);
    call.iProgram = 100010;
    m_pUdp->Send(call.Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(1)));
    EXPECT_EQ(other.nCalls.load(), 0);
}

// ---- Calls in pieces and calls together

TEST_F(RpcServerTest, TwoCallsInOneReceiveGetTwoRepliesInOrder) {
    Open();
    m_pTcp->Send(Call(1, Opaque("first"), 1).Bytes(Transport::kTcp) +
                 Call(1, Opaque("second"), 2).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, Opaque("first"), 1)) + Record(Reply(0, Opaque("second"), 2)));
}

TEST_F(RpcServerTest, AHundredCallsInOneReceiveAreAllAnswered) {
    Open();
    std::string sCalls;
    std::string sReplies;
    for (unsigned int i = 0; i < 100; ++i) {
        sCalls += Call(1, Opaque(std::to_string(i)), i).Bytes(Transport::kTcp);
        sReplies += Record(Reply(0, Opaque(std::to_string(i)), i));
    }
    m_pTcp->Send(sCalls);
    ExpectTcp(sReplies);
}

TEST_F(RpcServerTest, ACallSplitAnywhereBehindItsHeaderIsAnsweredOnce) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);  // tells what has been received
    const std::string sCall = Call(1, Opaque("0123456789")).Bytes(Transport::kTcp);
    for (std::size_t nFirst = 1; nFirst < sCall.size(); ++nFirst) {
        m_Log.Clear();
        m_pTcp->Send(sCall.substr(0, nFirst));
        ASSERT_TRUE(
            m_Log.WaitForBeginning("[RpcServer.SocketReceived] Input buf size(" + std::to_string(nFirst) + ") "))
            << m_Log.Dump();
        m_pTcp->Send(sCall.substr(nFirst));
        ExpectTcp(Record(Reply(0, Opaque("0123456789"))));
    }
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
}

TEST_F(RpcServerTest, ACallThatArrivesByteByByteIsAnsweredOnce) {
    Open();
    for (const char cByte : Call(1, Opaque("abc")).Bytes(Transport::kTcp)) {
        m_pTcp->Send({&cByte, 1});
    }
    ExpectTcp(Record(Reply(0, Opaque("abc"))));
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
}

TEST_F(RpcServerTest, ATruncatedCallWaitsAndIsDecodedFromItsStart) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    const std::string sCall = Call(1, Opaque("0123456789")).Bytes(Transport::kTcp);
    m_pTcp->Send(sCall.substr(0, 48));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)")) << m_Log.Dump();
    EXPECT_TRUE(m_Log.Has("[RpcServer.SocketReceived] Reset input buffer postion")) << m_Log.Dump();
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
    m_pTcp->Send(sCall.substr(48));
    ExpectTcp(Record(Reply(0, Opaque("0123456789"))));
    EXPECT_EQ(m_Program.nCalls.load(), 2) << "once in vain, once for the reply";
}

TEST_F(RpcServerTest, ACallThatItsRecordCannotHoldIsGivenUpForALaterOneAndNothingOfItsReplyIsSent) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    // The second call stands where the first one's opaque data should: its length reaches beyond all that came.
    const std::string sFirst = Call(1, XdrBuilder().U32(5000).Bytes(), 1).Bytes(Transport::kTcp);
    const std::string sSecond = Call(1, Opaque("ok"), 2).Bytes(Transport::kTcp);
    m_pTcp->Send(sFirst + "xyz" + sSecond);
    EXPECT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Skipped 3 data for next vaild header")) << m_Log.Dump();
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence)) << "the rest waits for the next receive";
    m_pTcp->Send(Call(0, "", 3).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, Opaque("ok"), 2)) + Record(Reply(0, "", 3)));
}

// A socket without a descriptor sends nothing: what the server leaves in the output can be looked at.
TEST_F(RpcServerTest, AReplyIsLeftWholeWithThePositionBehindItsMark) {
    CSocket socket(CSocket::kStream, 100003);
    Receive(socket, Call(1, Opaque("abcde"), 7).Bytes(Transport::kTcp));
    EXPECT_EQ(Hex(Left(socket)), Hex(Record(Reply(0, Opaque("abcde"), 7))));
    EXPECT_EQ(socket.GetOutputStream()->GetBufferIndex(), 4U);

    CSocket datagram(CSocket::kDatagram, 100003);
    Receive(datagram, Call(1, Opaque("abcde"), 7).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(Left(datagram)), Hex(Reply(0, Opaque("abcde"), 7)));
    EXPECT_EQ(datagram.GetOutputStream()->GetBufferIndex(), 36U);
}

TEST_F(RpcServerTest, AReplyBehindOneThatWasNotSentHasItsOwnMarkAndStatus) {
    for (const unsigned int iProcedure : {0U, 2U, 3U}) {
        CSocket socket(CSocket::kStream, 100003);
        Receive(socket, Call(0, "", 1).Bytes(Transport::kTcp) + Call(iProcedure, "", 2).Bytes(Transport::kTcp));
        const unsigned int iStatus = iProcedure == 0 ? 0 : iProcedure + 1;
        const std::string sBehind = iProcedure == 0 ? "" : iProcedure == 2 ? "left over" : "rest";
        EXPECT_EQ(Hex(Left(socket)),
                  Hex(XdrBuilder().U32(0x80000018U).Raw(Record(Reply(iStatus, "", 2)) + sBehind).Bytes()))
            << iProcedure;
    }
}

TEST_F(RpcServerTest, ATruncatedCallLeavesNothingInTheOutputAndAllOfItselfInTheInput) {
    for (const int iType : {static_cast<int>(CSocket::kStream), static_cast<int>(CSocket::kDatagram)}) {
        CSocket socket(iType, 100003);
        const std::string sCall =
            Call(1, Opaque("abcde")).Bytes(iType == CSocket::kStream ? Transport::kTcp : Transport::kUdp);
        Receive(socket, "xyz" + sCall.substr(0, sCall.size() - 1));
        EXPECT_EQ(Hex(Left(socket)), "");
        EXPECT_EQ(socket.GetOutputStream()->GetBufferIndex(), 0U);
        EXPECT_EQ(socket.GetInputStream()->GetBufferIndex(), 3U) << "where the call begins";
        EXPECT_EQ(socket.GetInputStream()->GetFilledBufferSize(), sCall.size() - 1);
    }
}

TEST_F(RpcServerTest, ADatagramWithTwoCallsGetsOneReply) {
    Open();
    m_pUdp->Send(Call(0, "", 1).Bytes(Transport::kUdp) + Call(0, "", 2).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, "", 1)));
    m_pUdp->Send(Call(0, "", 3).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, "", 3)));
    EXPECT_EQ(m_Program.nCalls.load(), 2);
}

TEST_F(RpcServerTest, ATruncatedDatagramIsNeverAnsweredAndHarmsNothing) {
    Open();
    const std::string sCall = Call(1, Opaque("abcdefgh")).Bytes(Transport::kUdp);
    for (std::size_t nSize = 1; nSize < sCall.size(); ++nSize) {
        m_pUdp->Send(sCall.substr(0, nSize));
    }
    m_pUdp->Send(sCall);
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, Opaque("abcdefgh"))));
    EXPECT_TRUE(m_pUdp->StaysSilent(kSilence));
}

// ---- Repeated datagrams

TEST_F(RpcServerTest, ARepeatedDatagramOfAModifyingProcedureGetsTheEarlierReplyAgain) {
    Open();
    const std::string sCall = Call(7, Opaque("once"), 1).Bytes(Transport::kUdp);
    const std::string sFirst = Reply(0, XdrBuilder().Opaque("once").U32(1).Bytes(), 1);
    m_pUdp->Send(sCall);
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(sFirst));
    m_pUdp->Send(Call(7, Opaque("twice"), 1).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, XdrBuilder().Opaque("twice").U32(2).Bytes(), 1)))
        << "other bytes under the same XID are another call";
    m_pUdp->Send(sCall);
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(sFirst));
    m_pUdp->Send(Call(7, Opaque("once"), 2).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, XdrBuilder().Opaque("once").U32(3).Bytes(), 2))) << "another XID";
    RpcClient other(Transport::kUdp, m_Udp.GetPort());
    other.Send(sCall);
    EXPECT_EQ(Hex(other.Receive()), Hex(Reply(0, XdrBuilder().Opaque("once").U32(4).Bytes(), 1))) << "another port";
}

TEST_F(RpcServerTest, OtherProceduresAndCallsOverTcpAreExecutedEachTime) {
    Open();
    for (int i = 1; i <= 3; ++i) {
        m_pUdp->Send(Call(0).Bytes(Transport::kUdp));
        EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0)));
        EXPECT_EQ(m_Program.nCalls.load(), i);
    }
    m_Program.nCalls = 0;
    for (unsigned int i = 1; i <= 3; ++i) {
        m_pTcp->Send(Call(7, Opaque("")).Bytes(Transport::kTcp));
        ExpectTcp(Record(Reply(0, XdrBuilder().U32(0).U32(i).Bytes())));
    }
}

TEST_F(RpcServerTest, ATruncatedDatagramLeavesNoReplyToRepeat) {
    Open();
    const std::string sCall = Call(7, Opaque("abcd"), 1).Bytes(Transport::kUdp);
    for (int i = 0; i < 2; ++i) {
        m_pUdp->Send(sCall.substr(0, sCall.size() - 1));
    }
    m_pUdp->Send(sCall);
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0, XdrBuilder().Opaque("abcd").U32(3).Bytes(), 1)));
}

// ---- Logging

TEST_F(RpcServerTest, RpcLoggingTellsBufferHeaderAndReply) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    m_pTcp->Send(Call(1, Opaque("abcd"), 77).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, Opaque("abcd"), 77)));
    m_Tcp.Close();
    const std::vector<std::string> expected{
        "[RpcServer.SocketReceived] Input buf size(52) pos(0)",
        "[RpcServer.Process] request header",
        " --- header=2147483696",
        " --- nXID=77",
        " --- nmsg=0",
        " --- nrpcvers=2",
        " --- nprog=100003",
        " --- nvers=3",
        " --- nproc=1",
        "[RpcServer.SocketReceived] Output buf size(36)",
    };
    EXPECT_EQ(m_Log.Texts('i'), expected) << m_Log.Dump();
    EXPECT_TRUE(m_Log.Texts('e').empty());
    EXPECT_EQ(m_Log.Lines()[0].sID, "127.0.0.1");
}

// Each call begins under the client's address and without an IPC ID, whatever a program put in their place before.
TEST_F(RpcServerTest, LinesCarryTheAddressUntilAProgramNamesTheExportAndItsOwner) {
    class Naming : public CRpcProg {
    public:
        Naming() : CRpcProg(nullptr) {}
        int Process(CInputStream*, COutputStream*, ProcessParam* pParam) override {
            vsAtStart.push_back(pParam->pRuntimeParam->GetID() +
                                ("/" + std::string(pParam->pRuntimeParam->GetIpcID())));
            pParam->pRuntimeParam->SetID("export");
            pParam->pRuntimeParam->SetIpcID("owner");
            return kProgHandled;
        }
        std::vector<std::string> vsAtStart;
    };
    Naming naming;
    m_Server.Set(100003, &naming);
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    CSocket socket(CSocket::kStream, 100003);
    for (int i = 0; i < 2; ++i) {
        m_Log.Clear();
        Receive(socket, Call(0, "", 1).Bytes(Transport::kTcp) + Call(0, "", 2).Bytes(Transport::kTcp));
        std::vector<std::string> vsIDs;
        for (const LogLine& line : m_Log.Lines()) {
            if (vsIDs.empty() || vsIDs.back() != line.sID) {
                vsIDs.push_back(line.sID);
            }
        }
        EXPECT_EQ(vsIDs, (std::vector<std::string>{"0.0.0.0", "export", "0.0.0.0", "export"})) << m_Log.Dump();
        EXPECT_EQ(m_Log.Lines()[8].sText, " --- nproc=0");
        EXPECT_EQ(m_Log.Lines()[8].sID, "0.0.0.0");
    }
    EXPECT_EQ(naming.vsAtStart, std::vector<std::string>(4, "0.0.0.0/"));
}

TEST_F(RpcServerTest, ADatagramsHeaderHasNoMark) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    m_pUdp->Send(Call(0).Bytes(Transport::kUdp));
    m_pUdp->Receive();
    m_Udp.Close();
    ASSERT_GE(m_Log.Texts().size(), 3U) << m_Log.Dump();
    EXPECT_EQ(m_Log.Texts()[1], "[RpcServer.Process] request header");
    EXPECT_EQ(m_Log.Texts()[2], " --- nXID=16909060");
}

TEST_F(RpcServerTest, ATruncatedCallLogsItsWholeCourse) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc | CRuntimeParam::kLogError);
    std::string sCall = Call(1).Bytes(Transport::kUdp);
    m_pUdp->Send(sCall);
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    m_Udp.Close();
    const std::vector<std::string> expected{
        "[RpcServer.SocketReceived] Input buf size(40) pos(0)",
        "[RpcServer.Process] request header",
        " --- nXID=16909060",
        " --- nmsg=0",
        " --- nrpcvers=2",
        " --- nprog=100003",
        " --- nvers=3",
        " --- nproc=1",
        "[RpcServer.Process] Data is truncated.Missing 4 data",
        "[RpcServer.SocketReceived] Reset input buffer postion",
        "[RpcServer.SocketReceived] Output buf size(0)",
    };
    EXPECT_EQ(m_Log.Texts(), expected) << m_Log.Dump();
}

TEST_F(RpcServerTest, WithoutLogBitsNothingIsLogged) {
    Open();
    m_pTcp->Send("garbage" + Call(0).Bytes(Transport::kTcp) + Call(4).Bytes(Transport::kTcp));
    TcpReceive(Record(Reply(0)).size() + Record(Reply(4)).size());
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(RpcServerTest, TheLogControlIsTakenFromTheController) {
    CRuntimeParam controller("controller", CRuntimeParam::kLogRpc);
    CRpcServer server(&m_Utilities, &controller);
    server.Set(100003, &m_Program);
    m_Udp.SetListener(&server);
    Open();
    m_pUdp->Send(Call(0).Bytes(Transport::kUdp));
    m_pUdp->Receive();
    EXPECT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(24)")) << m_Log.Dump();
    m_Udp.Close();
}

// ---- Several clients

TEST_F(RpcServerTest, CallsOfAllClientsRunOneAtATime) {
    std::atomic<int> nRunning{0};
    std::atomic<int> nMost{0};
    class Slow : public CRpcProg {
    public:
        Slow(std::atomic<int>* pRunning, std::atomic<int>* pMost)
            : CRpcProg(nullptr), m_pRunning(pRunning), m_pMost(pMost) {}
        int Process(CInputStream*, COutputStream*, ProcessParam*) override {
            const int nNow = ++*m_pRunning;
            if (nNow > *m_pMost) {
                *m_pMost = nNow;
            }
            std::this_thread::sleep_for(1ms);  // long enough for another call to come in, were it let in
            --*m_pRunning;
            return kProgHandled;
        }

    private:
        std::atomic<int>* m_pRunning;
        std::atomic<int>* m_pMost;
    };
    Slow slow(&nRunning, &nMost);
    m_Server.Set(100003, &slow);
    Open();
    std::vector<std::thread> vClients;
    for (int i = 0; i < 2; ++i) {
        vClients.emplace_back([&] {
            RpcClient client(Transport::kTcp, m_Tcp.GetPort());
            for (unsigned int iXid = 1; iXid <= 30; ++iXid) {
                EXPECT_EQ(client.Call(Call(0, "", iXid)).iXid, iXid);
            }
        });
    }
    for (unsigned int iXid = 1; iXid <= 30; ++iXid) {
        EXPECT_EQ(m_pUdp->Call(Call(0, "", iXid)).iXid, iXid);
    }
    for (std::thread& client : vClients) {
        client.join();
    }
    EXPECT_EQ(nMost.load(), 1);
}

}  // namespace
