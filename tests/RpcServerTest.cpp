// Calls in, replies out: byte for byte through real sockets.
#include "RpcServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "DatagramSocket.h"
#include "InputStream.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "LogCapture.h"
#include "OutputStream.h"
#include "RpcClient.h"
#include "RpcProg.h"
#include "ServerSocket.h"
#include "Socket.h"
#include "SocketDoubles.h"

namespace {

using namespace std::chrono_literals;

/// How long "no reply" is waited for: what is to come first has been ruled out by other means where it matters.
constexpr auto kSilence = 100ms;

/// A program for tests: procedure 0 answers nothing, 1 answers its opaque argument, 2 is not implemented but has
/// written by then, 3 calls its arguments garbage after having written, 4 fails otherwise, 5 answers what it was told,
/// 6 answers at once and leaves its arguments unread, 7 is modifying and answers how often it was called.
class FakeProgram : public CRpcProg {
public:
    explicit FakeProgram(unsigned int iVersion = 0xFFFFFFFFU, unsigned int nProcedures = 0xFFFFFFFFU)
        : CRpcProg(nullptr), m_iVersion(iVersion), m_nProcedures(nProcedures) {}

    unsigned int GetVersion() override { return m_iVersion; }
    unsigned int GetMaxSupportProc() override { return m_nProcedures; }
    bool IsModifying(unsigned int, unsigned int iProc) override { return iProc == 7; }

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override {
        ++nCalls;
        switch (pParam->iProc) {
            case 0:
                return kProgHandled;
            case 1:
                return EchoOpaque(pInput, pOutput);
            case 2:
                pOutput->Write("left over", 9);
                return kProgNotImplemented;
            case 3:
                pOutput->Write("rest", 4);
                return kProgGarbageArgs;
            case 4:
                throw std::runtime_error("unforeseen");
            case 6:
                pParam->bArgumentsLeft = true;
                return kProgHandled;
            case 7:
                EchoOpaque(pInput, pOutput);
                pOutput->Write(static_cast<unsigned int>(nCalls));
                return kProgHandled;
            default:
                pOutput->Write(pParam->iVersion);
                pOutput->Write(pParam->sRemoteAddr.data(), static_cast<unsigned int>(pParam->sRemoteAddr.size()));
                pOutput->Write(pParam->pRuntimeParam->GetID(),
                               static_cast<unsigned int>(std::string(pParam->pRuntimeParam->GetID()).size()));
                return kProgHandled;
        }
    }

    std::atomic<int> nCalls{0};

private:
    static int EchoOpaque(CInputStream* pInput, COutputStream* pOutput) {
        unsigned int nLength = 0;
        pInput->Read(&nLength);
        pOutput->Write(nLength);
        const char* pcData = pInput->GetCurrentBuffer();
        pInput->Skip(nLength);
        pOutput->Write(pcData, nLength);
        pInput->SkipRemainOpaque(nLength);
        pOutput->WriteRemainOpaque(static_cast<int>(nLength));
        return kProgHandled;
    }

    unsigned int m_iVersion;
    unsigned int m_nProcedures;
};

class RpcServerTest : public testing::Test {
protected:
    RpcServerTest() {
        m_Tcp.SetListener(&m_Server);
        m_Udp.SetListener(&m_Server);
        m_Server.Set(100003, &m_Program);
    }
    ~RpcServerTest() override {
        m_Tcp.Close();
        m_Udp.Close();
    }

    /// Opens a TCP and a UDP port for the program and connects to both.
    void Open(unsigned long lProgram = 100003) {
        char cStatus[kReasonBufferSize] = "";
        ASSERT_TRUE(m_Tcp.Open(lProgram, 0, 3, nullptr, cStatus)) << cStatus;
        ASSERT_TRUE(m_Udp.Open(lProgram, 0, nullptr, cStatus)) << cStatus;
        m_pTcp = std::make_unique<RpcClient>(Transport::kTcp, m_Tcp.GetPort());
        m_pUdp = std::make_unique<RpcClient>(Transport::kUdp, m_Udp.GetPort());
    }

    static RpcCall Call(unsigned int iProcedure, std::string sArguments = "", unsigned int iXid = 0x01020304) {
        RpcCall call;
        call.iXid = iXid;
        call.iProgram = 100003;
        call.iProcedure = iProcedure;
        call.sArguments = std::move(sArguments);
        return call;
    }
    static std::string Opaque(std::string_view sBytes) { return XdrBuilder().Opaque(sBytes).Bytes(); }
    /// A reply as it goes over a datagram.
    static std::string Reply(unsigned int iAccept, const std::string& sBody = "", unsigned int iXid = 0x01020304) {
        return XdrBuilder().U32(iXid).U32(1).U32(0).U32(0).U32(0).U32(iAccept).Raw(sBody).Bytes();
    }
    /// The same with the record mark of a stream.
    static std::string Record(const std::string& sReply) {
        return XdrBuilder().U32(0x80000000U + static_cast<unsigned int>(sReply.size())).Raw(sReply).Bytes();
    }
    std::string TcpReceive(std::size_t nBytes) { return m_pTcp->ReceiveBytes(nBytes); }
    void ExpectTcp(const std::string& sExpected) { EXPECT_EQ(Hex(TcpReceive(sExpected.size())), Hex(sExpected)); }

    /// Hands bytes to the server as a socket's thread does.
    void Receive(CSocket& socket, const std::string& sBytes) {
        CInputStream* pInput = socket.GetInputStream();
        std::copy(sBytes.begin(), sBytes.end(), pInput->GetFreeBuffer());
        pInput->AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
        m_Server.SocketReceived(&socket);
    }
    static std::string Left(CSocket& socket) {
        return {socket.GetOutputStream()->GetBuffer(), socket.GetOutputStream()->GetBufferSize()};
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_RuntimeParam{"controller", 0};
    FakeProgram m_Program;
    CRpcServer m_Server{&m_Utilities, &m_RuntimeParam};
    CServerSocket m_Tcp;
    CDatagramSocket m_Udp;
    std::unique_ptr<RpcClient> m_pTcp;
    std::unique_ptr<RpcClient> m_pUdp;
};

}  // namespace

// ==== Replies ====================================================================================================

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

// ==== Calls in pieces and calls together =========================================================================

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
    const std::string sCall = Call(1, Opaque("0123456789")).Bytes(Transport::kTcp);
    for (std::size_t nFirst = 1; nFirst < sCall.size(); ++nFirst) {
        m_pTcp->Send(sCall.substr(0, nFirst));
        std::this_thread::sleep_for(1ms);  // two receives, most often
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

// ---- Calls in the data of a call

// The data of the outer call is made of whole calls. Wherever the stream is cut, they are data.
TEST_F(RpcServerTest, CallsInTheDataOfACallAreNeverExecutedWhereverItIsCut) {
    const std::string sInner = Call(5, "", 66).Bytes(Transport::kTcp);
    const std::string sData = sInner + "x" + sInner.substr(4) + sInner;
    const std::string sStream =
        Call(1, Opaque(sData), 1).Bytes(Transport::kTcp) + Call(0, "", 2).Bytes(Transport::kTcp);
    const std::string sReplies = Record(Reply(0, Opaque(sData), 1)) + Record(Reply(0, "", 2));
    for (const int iLogControl : {0, static_cast<int>(CRuntimeParam::kLogRpc)}) {
        m_Server.SetLogControl(iLogControl);
        for (std::size_t nFirst = 1; nFirst < sStream.size(); ++nFirst) {
            CapturingSocket socket(CSocket::kStream, 100003);
            socket.Receive(&m_Server, sStream.substr(0, nFirst));
            socket.Receive(&m_Server, sStream.substr(nFirst));
            ASSERT_EQ(Hex(socket.Sent()), Hex(sReplies)) << "cut at " << nFirst;
        }
    }
    CapturingSocket socket(CSocket::kStream, 100003);
    for (const char cByte : sStream) {
        socket.Receive(&m_Server, {&cByte, 1});
    }
    EXPECT_EQ(Hex(socket.Sent()), Hex(sReplies)) << "byte by byte";
}

TEST_F(RpcServerTest, ACallThatWaitsForItsRecordLogsEachTryAndSearchesNothing) {
    m_Server.SetLogControl(CRuntimeParam::kLogRpc | CRuntimeParam::kLogError);
    const std::string sCall = Call(1, Opaque(Call(0).Bytes(Transport::kTcp))).Bytes(Transport::kTcp);
    CapturingSocket socket(CSocket::kStream, 100003);
    socket.Receive(&m_Server, sCall.substr(0, sCall.size() - 2));
    m_Log.Clear();
    socket.Receive(&m_Server, sCall.substr(sCall.size() - 2, 1));
    const std::vector<std::string> expected{
        "[RpcServer.SocketReceived] Input buf size(91) pos(0)",
        "[RpcServer.Process] request header",
        " --- header=2147483736",
        " --- nXID=16909060",
        " --- nmsg=0",
        " --- nrpcvers=2",
        " --- nprog=100003",
        " --- nvers=3",
        " --- nproc=1",
        "[RpcServer.Process] Data is truncated.Missing 1 data",
        "[RpcServer.SocketReceived] Reset input buffer postion",
        "[RpcServer.SocketReceived] Output buf size(0)",
    };
    EXPECT_EQ(m_Log.Texts(), expected) << m_Log.Dump();
    EXPECT_EQ(socket.Sent(), "");
}

// Neither a mark that is too small nor one that no buffer could hold says that more is to come.
TEST_F(RpcServerTest, WithAnImplausibleMarkALaterHeaderIsLookedForAndNothingOfTheFirstReplyIsSent) {
    for (const unsigned int iMark :
         {0U, 0x80000000U, 0x80000010U, 0x80000030U, 0x80100000U, 0xFFFFFFFFU, 0x7FFFFFFFU}) {
        std::string sFirst = Call(1, XdrBuilder().U32(5000).Bytes(), 1).Bytes(Transport::kTcp);
        sFirst.replace(0, 4, XdrBuilder().U32(iMark).Bytes());
        CapturingSocket socket(CSocket::kStream, 100003);
        socket.Receive(&m_Server, sFirst + "xyz" + Call(0, "", 2).Bytes(Transport::kTcp));
        EXPECT_EQ(Hex(socket.TakeSent()), "") << std::hex << iMark;
        socket.Receive(&m_Server, Call(0, "", 3).Bytes(Transport::kTcp));
        EXPECT_EQ(Hex(socket.Sent()), Hex(Record(Reply(0, "", 2)) + Record(Reply(0, "", 3)))) << std::hex << iMark;
    }
}

TEST_F(RpcServerTest, AWholeCallIsAnsweredWhateverItsMarkSays) {
    for (const unsigned int iMark : {0U, 0x80000000U, 0x80000001U, 0x80000028U, 0x80000FFFU, 0x800FFFFCU, 0x80100000U,
                                     0xFFFFFFFFU, 0x7FFFFFFFU, 0x00000001U, 0x00000034U, 0x00001000U}) {
        std::string sCalls = Call(1, Opaque("abcde"), 1).Bytes(Transport::kTcp);
        sCalls.replace(0, 4, XdrBuilder().U32(iMark).Bytes());
        CapturingSocket socket(CSocket::kStream, 100003);
        socket.Receive(&m_Server, sCalls + Call(0, "", 2).Bytes(Transport::kTcp));
        EXPECT_EQ(Hex(socket.Sent()), Hex(Record(Reply(0, Opaque("abcde"), 1)) + Record(Reply(0, "", 2))))
            << std::hex << iMark;
        EXPECT_FALSE(socket.IsStopping()) << std::hex << iMark;
    }
}

// What a refused call brings along is nobody's call, whether it is here already or comes later.
TEST_F(RpcServerTest, UnreadArgumentsOfARefusedCallAreNotSearched) {
    const std::string sInner = Call(5, "", 66).Bytes(Transport::kTcp);
    for (const unsigned int iProcedure : {2U, 3U, 4U, 6U}) {
        const std::string sStream = Call(iProcedure, "y" + sInner + sInner + "z", 1).Bytes(Transport::kTcp) +
                                    Call(0, "", 2).Bytes(Transport::kTcp);
        const unsigned int iAccept = iProcedure == 2 ? 3 : iProcedure == 6 ? 0 : 4;
        const std::string sBehind = iProcedure == 2 ? "left over" : iProcedure == 3 ? "rest" : "";
        const std::string sReplies = Record(Reply(iAccept, "", 1)) + sBehind + Record(Reply(0, "", 2));
        for (std::size_t nFirst = 1; nFirst <= sStream.size(); ++nFirst) {
            CapturingSocket socket(CSocket::kStream, 100003);
            socket.Receive(&m_Server, sStream.substr(0, nFirst));
            socket.Receive(&m_Server, sStream.substr(nFirst));
            ASSERT_EQ(Hex(socket.Sent()), Hex(sReplies)) << "procedure " << iProcedure << ", cut at " << nFirst;
        }
    }
}

TEST_F(RpcServerTest, UnreadArgumentsForAnUnregisteredProgramAreNotSearched) {
    RpcCall inner = Call(0, "", 66);
    inner.iProgram = 100001;
    RpcCall outer = Call(0, inner.Bytes(Transport::kTcp), 1);
    outer.iProgram = 100001;
    CapturingSocket socket(CSocket::kStream, 100001);
    socket.Receive(&m_Server, outer.Bytes(Transport::kTcp) + inner.Bytes(Transport::kTcp));
    EXPECT_EQ(Hex(socket.Sent()), Hex(Record(Reply(1, "", 1)) + Record(Reply(1, "", 66))));
}

TEST_F(RpcServerTest, BehindARefusedCallWithAnImplausibleMarkTheSearchGoesOnAtItsArguments) {
    const std::string sInner = Call(0, "", 66).Bytes(Transport::kTcp);
    for (const unsigned int iMark : {0x80000010U, 0x80100000U, 0U}) {
        std::string sCall = Call(2, "y" + sInner, 1).Bytes(Transport::kTcp);
        sCall.replace(0, 4, XdrBuilder().U32(iMark).Bytes());
        CapturingSocket socket(CSocket::kStream, 100003);
        socket.Receive(&m_Server, sCall);
        EXPECT_EQ(Hex(socket.Sent()), Hex(Record(Reply(3, "", 1)) + "left over" + Record(Reply(0, "", 66)))) << iMark;
    }
}

// ---- Records in several fragments

TEST_F(RpcServerTest, AFragmentThatHoldsAWholeCallIsServed) {
    std::string sCall = Call(1, Opaque("abcde"), 1).Bytes(Transport::kTcp);
    sCall[0] = 0;  // not the last
    for (std::size_t nFirst = 1; nFirst <= sCall.size(); ++nFirst) {
        CapturingSocket socket(CSocket::kStream, 100003);
        socket.Receive(&m_Server, sCall.substr(0, nFirst));
        socket.Receive(&m_Server, sCall.substr(nFirst) + Call(0, "", 2).Bytes(Transport::kTcp));
        ASSERT_EQ(Hex(socket.Sent()), Hex(Record(Reply(0, Opaque("abcde"), 1)) + Record(Reply(0, "", 2)))) << nFirst;
    }
}

TEST_F(RpcServerTest, ArgumentsThatRunPastAFragmentEndTheConnectionWherever) {
    const std::string sInner = Call(5, "", 66).Bytes(Transport::kTcp);
    const std::string sBody = Call(1, Opaque("data" + sInner + sInner), 1).Bytes(Transport::kUdp);
    for (const std::size_t nFragment : {40U, 41U, 44U, 60U, 100U, static_cast<unsigned int>(sBody.size() - 1)}) {
        std::string sStream;
        for (std::size_t i = 0; i < sBody.size(); i += nFragment) {
            const std::string sPart = sBody.substr(i, nFragment);
            const unsigned int iLast = i + nFragment < sBody.size() ? 0 : 0x80000000U;
            sStream += XdrBuilder().U32(iLast | static_cast<unsigned int>(sPart.size())).Raw(sPart).Bytes();
        }
        sStream += Call(0, "", 2).Bytes(Transport::kTcp);
        for (std::size_t nFirst = 1; nFirst <= sStream.size(); ++nFirst) {
            CapturingSocket socket(CSocket::kStream, 100003);
            socket.Receive(&m_Server, sStream.substr(0, nFirst));
            socket.Receive(&m_Server, sStream.substr(nFirst));
            ASSERT_TRUE(socket.IsStopping()) << nFragment << ", cut at " << nFirst;
            ASSERT_EQ(Hex(socket.Sent()), "") << nFragment << ", cut at " << nFirst;
        }
    }
}

TEST_F(RpcServerTest, AConnectionEndsAtARecordInSeveralFragments) {
    Open();
    std::string sCall = Call(1, Opaque("0123456789")).Bytes(Transport::kTcp);
    sCall.replace(0, 4, XdrBuilder().U32(48).Bytes());
    m_pTcp->Send(Call(0).Bytes(Transport::kTcp) + sCall);
    ExpectTcp(Record(Reply(0)));
    EXPECT_TRUE(m_pTcp->IsClosedByPeer());
}

// The refusal is sent; how far the rest of the record reaches, nobody can tell.
TEST_F(RpcServerTest, ARefusedCallInSeveralFragmentsEndsTheConnectionBehindItsReply) {
    std::string sCall = Call(2, Call(5, "", 66).Bytes(Transport::kTcp), 1).Bytes(Transport::kTcp);
    sCall[0] = 0;
    CapturingSocket socket(CSocket::kStream, 100003);
    socket.Receive(&m_Server, sCall);
    EXPECT_EQ(Hex(socket.Sent()), Hex(Record(Reply(3, "", 1)) + "left over"));
    EXPECT_TRUE(socket.IsStopping());
}

// ---- Cost

TEST_F(RpcServerTest, ACallOfAMegabyteInSmallPiecesCostsNoMoreThanInOne) {
    // As much as the buffer holds: mark, head, length and data.
    const std::string sData((CSocketStream::GetMaxBufferSize() - 48) / 4 * 4, 'd');
    const std::string sCall = Call(1, Opaque(sData)).Bytes(Transport::kTcp);
    ASSERT_EQ(sCall.size(), CSocketStream::GetMaxBufferSize());
    const auto start = std::chrono::steady_clock::now();
    CapturingSocket socket(CSocket::kStream, 100003);
    for (std::size_t i = 0; i < sCall.size(); i += 8) {  // 131,072 receives; copied each time it would be 70 GB
        socket.Receive(&m_Server, std::string_view(sCall).substr(i, 8));
    }
    EXPECT_TRUE(socket.Sent() == Record(Reply(0, Opaque(sData))));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
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

// ==== Hostile headers ============================================================================================

// Who is called with what is known when the credential and the verifier have come to their ends.
TEST_F(RpcServerTest, ACallReachesItsProgramWhenAllOfItsHeadHasComeAndNotBefore) {
    RpcCall call = Call(0, "", 1);
    call.iCredFlavor = 1;
    call.sCred = "twelve bytes";
    call.iVerfFlavor = 6;
    call.sVerf = "8 bytes.";
    const std::string sReply = XdrBuilder().U32(1).U32(1).U32(0).U32(6).U32(8).U32(0).Bytes();
    const std::string sCall = call.Bytes(Transport::kTcp);
    for (std::size_t nFirst = 1; nFirst < sCall.size(); ++nFirst) {
        CapturingSocket socket(CSocket::kStream, 100003);
        socket.Receive(&m_Server, sCall.substr(0, nFirst));
        EXPECT_EQ(m_Program.nCalls.exchange(0), 0) << nFirst;
        EXPECT_EQ(socket.TakeSent(), "") << nFirst;
        socket.Receive(&m_Server, sCall.substr(nFirst));
        EXPECT_EQ(m_Program.nCalls.exchange(0), 1) << nFirst;
        EXPECT_EQ(Hex(socket.Sent()), Hex(Record(sReply))) << nFirst;
    }
    const std::string sDatagram = call.Bytes(Transport::kUdp);
    for (std::size_t nSize = 1; nSize < sDatagram.size(); ++nSize) {
        CapturingSocket socket(CSocket::kDatagram, 100003);
        socket.Receive(&m_Server, sDatagram.substr(0, nSize));
        EXPECT_EQ(m_Program.nCalls.load(), 0) << nSize;
        EXPECT_EQ(socket.Sent(), "") << nSize;
    }
}

TEST_F(RpcServerTest, AHeadCutShortLogsWhatIsMissingAndWaits) {
    m_Server.SetLogControl(CRuntimeParam::kLogRpc | CRuntimeParam::kLogError);
    RpcCall call = Call(0, "", 77);
    call.sCred = "eight by";
    CapturingSocket socket(CSocket::kStream, 100003);
    socket.Receive(&m_Server, call.Bytes(Transport::kTcp).substr(0, 47));
    const std::vector<std::string> expected{
        "[RpcServer.SocketReceived] Input buf size(47) pos(0)",
        "[RpcServer.Process] Data is truncated.Missing 1 data",
        "[RpcServer.Process] request header",
        " --- header=2147483696",
        " --- nXID=77",
        " --- nmsg=0",
        " --- nrpcvers=2",
        " --- nprog=100003",
        " --- nvers=3",
        " --- nproc=0",
        "[RpcServer.SocketReceived] Reset input buffer postion",
        "[RpcServer.SocketReceived] Output buf size(0)",
    };
    EXPECT_EQ(m_Log.Texts(), expected) << m_Log.Dump();
    EXPECT_EQ(socket.GetInputStream()->GetBufferIndex(), 0U);
}

TEST_F(RpcServerTest, ACredentialLengthBeyondTheInputIsNeverAnswered) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogError);
    std::string sCall = Call(1, Opaque("abc")).Bytes(Transport::kTcp);
    const std::string sHuge = XdrBuilder().U32(0xFFFFFFFFU).Bytes();
    sCall.replace(32, 4, sHuge);  // mark 4, six words, the flavor
    m_pTcp->Send(sCall);
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.Process] Data is truncated.Missing 4294967279 data")) << m_Log.Dump();
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
    EXPECT_EQ(m_Program.nCalls.load(), 0);
}

TEST_F(RpcServerTest, AVerifierLengthBeyondTheInputIsNeverAnswered) {
    Open();
    std::string sCall = Call(1, "").Bytes(Transport::kTcp);
    sCall.replace(40, 4, XdrBuilder().U32(0x80000000U).Bytes());
    m_pTcp->Send(sCall);
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
    EXPECT_EQ(m_Program.nCalls.load(), 0);
}

// ==== Repeated datagrams =========================================================================================

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

// ==== The scanner ================================================================================================

TEST_F(RpcServerTest, GarbageInFrontOfACallIsSkipped) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    m_pTcp->Send("garbage" + Call(0).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0)));
    EXPECT_TRUE(m_Log.Has("[RpcServer.SocketReceived] Skipped 7 data for next vaild header", 'i')) << m_Log.Dump();
    m_pUdp->Send("rubbish" + Call(0).Bytes(Transport::kUdp));
    EXPECT_EQ(Hex(m_pUdp->Receive()), Hex(Reply(0)));
}

TEST_F(RpcServerTest, ACallForAnotherProgramIsSkippedAndMentioned) {
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

TEST_F(RpcServerTest, ImplausibleProgramsAreSkippedWithoutMention) {
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

TEST_F(RpcServerTest, OnlyTheProgramsOwnVersionStartsACall) {
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

TEST_F(RpcServerTest, OnlyAProcedureOfTheProgramStartsACall) {
    FakeProgram two(0xFFFFFFFFU, 2);
    m_Server.Set(100003, &two);
    Open();
    m_pTcp->Send(Call(2, "", 1).Bytes(Transport::kTcp) + Call(1, Opaque("x"), 2).Bytes(Transport::kTcp));
    ExpectTcp(Record(Reply(0, Opaque("x"), 2)));
    EXPECT_EQ(two.nCalls.load(), 1);
}

TEST_F(RpcServerTest, NumbersOfTheProgramThatStartNoCallAreSkippedWithAndWithoutLogging) {
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
TEST_F(RpcServerTest, ACallBehindGarbageThatArrivesByteByByteIsFoundAtItsFirstByte) {
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

TEST_F(RpcServerTest, FewerBytesThanAHeaderWaitForMore) {
    Open();
    m_Server.SetLogControl(CRuntimeParam::kLogRpc);
    const std::string sCall = Call(0).Bytes(Transport::kTcp);
    ASSERT_EQ(sCall.size(), 44U);
    m_pTcp->Send(sCall.substr(0, 43));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Cannot find valid header!!"));
    m_pTcp->Send(sCall.substr(43));
    ExpectTcp(Record(Reply(0)));
}

TEST_F(RpcServerTest, ABufferFullOfGarbageEndsTheConnection) {
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

TEST_F(RpcServerTest, GarbageInSmallPiecesCostsNoMoreThanInOne) {
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

// ==== Logging ====================================================================================================

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

// ==== Several clients ============================================================================================

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
            std::this_thread::sleep_for(1ms);
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
