// Calls that come in pieces, what stands in their data, records and fragments, and heads that lie.
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "RpcServerFixture.h"
#include "SocketDoubles.h"

namespace {

using namespace std::chrono_literals;

class RpcServerRecordTest : public RpcServerFixture {};

// ---- Calls in the data of a call

// The data of the outer call is made of whole calls. Wherever the stream is cut, they are data.
TEST_F(RpcServerRecordTest, CallsInTheDataOfACallAreNeverExecutedWhereverItIsCut) {
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

TEST_F(RpcServerRecordTest, ACallThatWaitsForItsRecordLogsEachTryAndSearchesNothing) {
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
TEST_F(RpcServerRecordTest, WithAnImplausibleMarkALaterHeaderIsLookedForAndNothingOfTheFirstReplyIsSent) {
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

TEST_F(RpcServerRecordTest, AWholeCallIsAnsweredWhateverItsMarkSays) {
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
TEST_F(RpcServerRecordTest, UnreadArgumentsOfARefusedCallAreNotSearched) {
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

TEST_F(RpcServerRecordTest, UnreadArgumentsForAnUnregisteredProgramAreNotSearched) {
    RpcCall inner = Call(0, "", 66);
    inner.iProgram = 100001;
    RpcCall outer = Call(0, inner.Bytes(Transport::kTcp), 1);
    outer.iProgram = 100001;
    CapturingSocket socket(CSocket::kStream, 100001);
    socket.Receive(&m_Server, outer.Bytes(Transport::kTcp) + inner.Bytes(Transport::kTcp));
    EXPECT_EQ(Hex(socket.Sent()), Hex(Record(Reply(1, "", 1)) + Record(Reply(1, "", 66))));
}

TEST_F(RpcServerRecordTest, BehindARefusedCallWithAnImplausibleMarkTheSearchGoesOnAtItsArguments) {
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

TEST_F(RpcServerRecordTest, AFragmentThatHoldsAWholeCallIsServed) {
    std::string sCall = Call(1, Opaque("abcde"), 1).Bytes(Transport::kTcp);
    sCall[0] = 0;  // not the last
    for (std::size_t nFirst = 1; nFirst <= sCall.size(); ++nFirst) {
        CapturingSocket socket(CSocket::kStream, 100003);
        socket.Receive(&m_Server, sCall.substr(0, nFirst));
        socket.Receive(&m_Server, sCall.substr(nFirst) + Call(0, "", 2).Bytes(Transport::kTcp));
        ASSERT_EQ(Hex(socket.Sent()), Hex(Record(Reply(0, Opaque("abcde"), 1)) + Record(Reply(0, "", 2)))) << nFirst;
    }
}

TEST_F(RpcServerRecordTest, ArgumentsThatRunPastAFragmentEndTheConnectionWherever) {
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

TEST_F(RpcServerRecordTest, AConnectionEndsAtARecordInSeveralFragments) {
    Open();
    std::string sCall = Call(1, Opaque("0123456789")).Bytes(Transport::kTcp);
    sCall.replace(0, 4, XdrBuilder().U32(48).Bytes());
    m_pTcp->Send(Call(0).Bytes(Transport::kTcp) + sCall);
    ExpectTcp(Record(Reply(0)));
    EXPECT_TRUE(m_pTcp->IsClosedByPeer());
}

// The refusal is sent; how far the rest of the record reaches, nobody can tell.
TEST_F(RpcServerRecordTest, ARefusedCallInSeveralFragmentsEndsTheConnectionBehindItsReply) {
    std::string sCall = Call(2, Call(5, "", 66).Bytes(Transport::kTcp), 1).Bytes(Transport::kTcp);
    sCall[0] = 0;
    CapturingSocket socket(CSocket::kStream, 100003);
    socket.Receive(&m_Server, sCall);
    EXPECT_EQ(Hex(socket.Sent()), Hex(Record(Reply(3, "", 1)) + "left over"));
    EXPECT_TRUE(socket.IsStopping());
}

// ---- Cost

TEST_F(RpcServerRecordTest, ACallOfAMegabyteInSmallPiecesCostsNoMoreThanInOne) {
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

// ---- Hostile headers

// Who is called with what is known when the credential and the verifier have come to their ends.
TEST_F(RpcServerRecordTest, ACallReachesItsProgramWhenAllOfItsHeadHasComeAndNotBefore) {
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

TEST_F(RpcServerRecordTest, AHeadCutShortLogsWhatIsMissingAndWaits) {
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

TEST_F(RpcServerRecordTest, ACredentialLengthBeyondTheInputIsNeverAnswered) {
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

TEST_F(RpcServerRecordTest, AVerifierLengthBeyondTheInputIsNeverAnswered) {
    Open();
    std::string sCall = Call(1, "").Bytes(Transport::kTcp);
    sCall.replace(40, 4, XdrBuilder().U32(0x80000000U).Bytes());
    m_pTcp->Send(sCall);
    EXPECT_TRUE(m_pTcp->StaysSilent(kSilence));
    EXPECT_EQ(m_Program.nCalls.load(), 0);
}

}  // namespace
