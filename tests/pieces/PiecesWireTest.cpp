// Wherever the stream is cut, replies and effects are those of calls that come whole: over TCP, to a whole server.
#include <algorithm>
#include <functional>

#include <gtest/gtest.h>

#include "PiecesCalls.h"
#include "PiecesWorld.h"
#include "ServerFixture.h"
#include "SocketDoubles.h"

namespace {

constexpr std::size_t kSegment = 1460;  // of TCP over Ethernet
constexpr std::size_t kPipelined = 64;  // calls that a client has under way
constexpr std::size_t kHeadSize = 44;   // mark and head, without the bodies of credential and verifier

struct Port {
    std::uint32_t iProgram;
    int iNumber;
};
constexpr Port kPorts[] = {{kPortmapProgram, 111}, {kMountProgram, 1058}, {kNfsProgram, 2049}};

class PiecesWireTest : public ServerFixture {
protected:
    struct Sent {
        std::string sRecord;
        const PiecesCall* pCall;
    };
    /// Sends calls over a connection and returns as many reply records.
    using Exchange = std::function<std::vector<std::string>(RpcClient&, const std::vector<Sent>&)>;

    /// Each call of a program that is answered, so often that it meets several credentials.
    static std::vector<Sent> MakeCalls(std::uint32_t iProgram, std::size_t nRounds) {
        const std::vector<RpcCall> vCredentials = AllCredentials();
        std::vector<Sent> vCalls;
        for (std::size_t iRound = 0; iRound < nRounds; ++iRound) {
            for (const PiecesCall& call : AllCalls()) {
                // The refused ones are known as calls only until NFS version 3 has been spoken.
                if (call.iProgram == iProgram && (iProgram != kNfsProgram || call.iAcceptStatus == kAcceptSuccess)) {
                    const RpcCall& credential = vCredentials[(iRound * 11 + vCalls.size()) % vCredentials.size()];
                    vCalls.push_back({call.Record(credential, static_cast<std::uint32_t>(vCalls.size())), &call});
                }
            }
        }
        return vCalls;
    }

    /// Starts the server anew, with the content and the file IDs that the calls are made for.
    void Restart() {
        Server().StopServer();
        MakePiecesContent(Folder().Path());
        Start();
        NfsClient client;
        const std::string sRoot = MountRoot(client);
        std::string sHandle;
        std::string sDir;
        ASSERT_EQ(client.Lookup(sRoot, "file", sHandle), 0U);
        ASSERT_EQ(client.Lookup(sRoot, "dir", sDir), 0U);
        ASSERT_EQ(client.Lookup(sDir, "entry", sHandle), 0U);
        ASSERT_EQ(Hex(XdrBuilder().Opaque(sHandle).Bytes()), Hex(HandleArgument(PiecesWorld::kEntry)));
    }
    /// The normalised replies of a run on all ports and, as the last, what is in the folder afterwards.
    std::vector<std::string> Run(std::size_t nRounds, const Exchange& exchange) {
        Restart();
        std::vector<std::string> vsOutcome;
        for (const Port& port : kPorts) {
            const std::vector<Sent> vCalls = MakeCalls(port.iProgram, nRounds);
            RpcClient client(Transport::kTcp, port.iNumber);
            const std::vector<std::string> vsReplies = exchange(client, vCalls);
            EXPECT_EQ(vsReplies.size(), vCalls.size());
            for (std::size_t i = 0; i < std::min(vsReplies.size(), vCalls.size()); ++i) {
                EXPECT_EQ(WordAt(vsReplies[i], 4), i) << "the XID of another call";
                vsOutcome.push_back(Normalised(port.iProgram, vCalls[i].pCall->iProcedure, vsReplies[i]));
            }
            EXPECT_TRUE(client.StaysSilent(std::chrono::milliseconds(1))) << "more replies than calls";
        }
        vsOutcome.push_back(FolderState(Folder().Path()));
        return vsOutcome;
    }

    static std::vector<std::string> SendOneByOne(RpcClient& client, const std::vector<Sent>& vCalls) {
        std::vector<std::string> vsReplies;
        for (const Sent& sent : vCalls) {
            client.Send(sent.sRecord);
            vsReplies.push_back(client.Receive());
        }
        return vsReplies;
    }
    /// 64 calls at a time, in pieces of a size.
    static std::vector<std::string> SendPipelined(RpcClient& client, const std::vector<Sent>& vCalls,
                                                  std::size_t nPiece) {
        std::vector<std::string> vsReplies;
        for (std::size_t iFirst = 0; iFirst < vCalls.size(); iFirst += kPipelined) {
            std::string sStream;
            const std::size_t iEnd = std::min(iFirst + kPipelined, vCalls.size());
            for (std::size_t i = iFirst; i < iEnd; ++i) {
                sStream += vCalls[i].sRecord;
            }
            for (std::size_t i = 0; i < sStream.size(); i += nPiece) {
                client.Send(std::string_view(sStream).substr(i, nPiece));
            }
            for (std::size_t i = iFirst; i < iEnd; ++i) {
                vsReplies.push_back(client.Receive());
            }
        }
        return vsReplies;
    }
    /// Each call in two pieces. The second one is sent when the server's own log tells that it has taken in the first.
    std::vector<std::string> SendInTwo(RpcClient& client, const std::vector<Sent>& vCalls, std::size_t iSeed) {
        std::vector<std::string> vsReplies;
        for (std::size_t i = 0; i < vCalls.size(); ++i) {
            const std::string& sRecord = vCalls[i].sRecord;
            // One call at its first byte, the next at its second...: all places in turn, those around the head's end
            // more often.
            const std::size_t iCut =
                1 + (i % 2 == 0 ? iSeed * 5 + i * 17 : kHeadSize - 4 + (iSeed + i) % 8) % (sRecord.size() - 1);
            m_Log.Clear();
            client.Send(std::string_view(sRecord).substr(0, iCut));
            EXPECT_TRUE(WaitForInput(iCut)) << m_Log.Dump();
            client.Send(std::string_view(sRecord).substr(iCut));
            vsReplies.push_back(client.Receive());
        }
        return vsReplies;
    }
    /// True as soon as the server has logged that so many bytes wait to be worked on.
    bool WaitForInput(std::size_t nBytes) {
        return m_Log.WaitForBeginning("[RpcServer.SocketReceived] Input buf size(" + std::to_string(nBytes) + ") pos(");
    }
    void LogRpc(bool bOn) {
        Server().SetLogControl(CRuntimeParam::kLogError | (bOn ? static_cast<int>(CRuntimeParam::kLogRpc) : 0));
    }
};

TEST_F(PiecesWireTest, CallsInTwoPiecesAreAnsweredAsWholeOnes) {
    constexpr std::size_t kRounds = 2;
    const std::vector<std::string> vsWhole = Run(kRounds, SendOneByOne);
    LogRpc(true);
    for (const std::size_t iSeed : {0U, 1U, 2U, 3U}) {
        EXPECT_EQ(Run(kRounds, [&](RpcClient& client,
                                   const std::vector<Sent>& vCalls) { return SendInTwo(client, vCalls, iSeed); }),
                  vsWhole)
            << "seed " << iSeed;
    }
    LogRpc(false);
}

TEST_F(PiecesWireTest, SixtyFourPipelinedCallsInAnyPiecesAreAnsweredAsSingleOnes) {
    constexpr std::size_t kRounds = 5;
    const std::vector<std::string> vsWhole = Run(kRounds, SendOneByOne);
    for (const std::size_t nPiece : {std::size_t{1}, std::size_t{100}, kSegment, std::size_t{1} << 20U}) {
        EXPECT_EQ(Run(kRounds, [&](RpcClient& client,
                                   const std::vector<Sent>& vCalls) { return SendPipelined(client, vCalls, nPiece); }),
                  vsWhole)
            << "in pieces of " << nPiece;
    }
}

TEST_F(PiecesWireTest, RefusedCallsInTwoPiecesAreRefusedAndNothingInThemIsExecuted) {
    for (const char* pcName : {"NfsVersion2", "NfsVersion4", "NfsProcedure22"}) {
        const PiecesCall& call = CallNamed(pcName);
        const std::string sRecord = call.Record(RpcCall(), 1);
        LogRpc(true);
        for (std::size_t iCut = 1; iCut < sRecord.size(); iCut += 9) {
            Server().StopServer();
            MakePiecesContent(Folder().Path());
            Start();
            m_Log.Clear();
            RpcClient client(Transport::kTcp, 2049);
            client.Send(std::string_view(sRecord).substr(0, iCut));
            ASSERT_TRUE(WaitForInput(iCut)) << m_Log.Dump();
            client.Send(std::string_view(sRecord).substr(iCut));
            client.Send(CallNamed("NfsNull").Record(RpcCall(), 2));
            const RpcReply refusal = client.ReceiveReply();
            EXPECT_EQ(refusal.iXid, 1U) << pcName << ", cut at " << iCut;
            EXPECT_EQ(refusal.iAcceptStatus, kAcceptProcUnavail) << pcName << ", cut at " << iCut;
            EXPECT_EQ(client.ReceiveReply().iXid, 2U) << pcName << ", cut at " << iCut;
        }
        EXPECT_EQ(ReadWholeFile(Folder() / "file").size(), 40U);
    }
}

TEST_F(PiecesWireTest, CallsInTheDataOfAWriteAreNeverExecuted) {
    Restart();
    RpcCall remove;
    remove.iProgram = kNfsProgram;
    remove.iProcedure = kNfsRemove;
    remove.sArguments = XdrBuilder().Raw(HandleArgument(PiecesWorld::kDir)).Opaque("entry").Bytes();
    std::string sData;
    while (sData.size() < 16384) {
        sData += "x" + remove.Bytes(Transport::kTcp) + "yz" + remove.Bytes(Transport::kUdp);
    }
    sData.resize(16384);
    RpcCall write;
    write.iProgram = kNfsProgram;
    write.iProcedure = kNfsWrite;
    write.sArguments =
        XdrBuilder().Raw(HandleArgument(PiecesWorld::kFile)).U64(0).U32(16384).U32(0).Opaque(sData).Bytes();
    const std::string sRecord = write.Bytes(Transport::kTcp);
    LogRpc(true);
    RpcClient client(Transport::kTcp, 2049);
    for (std::size_t iCut = 1; iCut < sRecord.size(); iCut += 331) {
        m_Log.Clear();
        client.Send(std::string_view(sRecord).substr(0, iCut));
        ASSERT_TRUE(WaitForInput(iCut)) << m_Log.Dump();
        client.Send(std::string_view(sRecord).substr(iCut));
        const RpcReply reply = client.ReceiveReply();
        ASSERT_EQ(WordAt(reply.sBody, 0), 0U) << "cut at " << iCut;
        ASSERT_EQ(WordAt(reply.sBody, 12), 16384U) << "cut at " << iCut;
    }
    for (std::size_t i = 0; i < sRecord.size(); i += kSegment) {
        client.Send(std::string_view(sRecord).substr(i, kSegment));
    }
    EXPECT_EQ(WordAt(client.ReceiveReply().sBody, 12), 16384U);
    EXPECT_TRUE(client.StaysSilent(std::chrono::milliseconds(1)));
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == sData);
    EXPECT_EQ(ReadWholeFile(Folder() / "dir/entry"), "entry");
}

TEST_F(PiecesWireTest, AWriteInSeveralFragmentsEndsItsConnectionAndStoresNothing) {
    Restart();
    const std::string sBefore = FolderState(Folder().Path());
    RpcCall write;
    write.iProgram = kNfsProgram;
    write.iProcedure = kNfsWrite;
    write.sArguments = XdrBuilder()
                           .Raw(HandleArgument(PiecesWorld::kFile))
                           .U64(0)
                           .U32(12000)
                           .U32(0)
                           .Opaque(std::string(12000, 'd'))
                           .Bytes();
    const std::string sBody = write.Bytes(Transport::kUdp);
    std::string sStream;
    for (std::size_t i = 0; i < sBody.size(); i += 4000) {
        const std::string sPart = sBody.substr(i, 4000);
        const std::uint32_t iLast = i + 4000 < sBody.size() ? 0 : 0x80000000U;
        sStream += XdrBuilder().U32(iLast | static_cast<std::uint32_t>(sPart.size())).Raw(sPart).Bytes();
    }
    RpcClient client(Transport::kTcp, 2049);
    client.Send(sStream);
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_EQ(FolderState(Folder().Path()), sBefore);
}

}  // namespace
