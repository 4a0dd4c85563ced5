// Clients that send too little, too much, or nothing that makes sense: each harms nobody but itself.
#include <filesystem>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

using std::chrono::milliseconds;

/// Long enough for a reply that should not come, were it sent.
constexpr milliseconds kNoReply{150};

class BadInputTest : public ServerFixture {
protected:
    /// An ordinary client is served as if nothing had happened.
    void ExpectHealthy() {
        NfsClient client(Transport::kTcp, "127.0.0.9");
        const std::optional<std::string> sRoot = client.Mnt(kExportName);
        ASSERT_TRUE(sRoot.has_value()) << m_Log.Dump();
        Fattr3 attributes;
        EXPECT_EQ(client.Getattr(*sRoot, attributes), 0U);
        EXPECT_EQ(attributes.iType, 2U);
        client.Umnt(kExportName);
    }

    static RpcCall MakeCall(std::uint32_t iProgram, std::uint32_t iProcedure, std::string sArguments) {
        RpcCall call;
        call.iProgram = iProgram;
        call.iProcedure = iProcedure;
        call.sArguments = std::move(sArguments);
        return call;
    }
};

TEST_F(BadInputTest, CallCutAnywhereWaitsAndIsAnsweredOnceWhenTheRestComes) {
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    const std::string sCall =
        MakeCall(kNfsProgram, kNfsGetattr, XdrBuilder().Opaque(sRoot).Bytes()).Bytes(Transport::kTcp);
    for (std::size_t iCut = 1; iCut < sCall.size(); iCut += 7) {
        RpcClient connection(Transport::kTcp, 2049);
        connection.Send(std::string_view(sCall).substr(0, iCut));
        EXPECT_TRUE(connection.StaysSilent(milliseconds(10))) << "answered after " << iCut << " bytes";
        connection.Send(std::string_view(sCall).substr(iCut));
        const RpcReply reply = connection.ReceiveReply();
        EXPECT_EQ(reply.iAcceptStatus, kAcceptSuccess) << "cut at " << iCut;
        EXPECT_EQ(WordAt(reply.sBody, 0), 0U) << "cut at " << iCut;
        EXPECT_TRUE(connection.StaysSilent(milliseconds(5))) << "answered twice, cut at " << iCut;
        connection.Close();
    }
}

TEST_F(BadInputTest, ConnectionThatEndsInTheMiddleOfACallLeavesNothingBehind) {
    for (int i = 0; i < 30; ++i) {
        RpcClient connection(Transport::kTcp, 2049);
        connection.Send(MakeCall(kNfsProgram, kNfsWrite, std::string(200, '\0')).Bytes(Transport::kTcp).substr(0, 100));
        connection.Close();
    }
    ExpectHealthy();
}

TEST_F(BadInputTest, GarbageOnEveryPortIsIgnored) {
    std::mt19937 random(1);
    std::string sGarbage(20000, '\0');
    for (char& cByte : sGarbage) {
        cByte = static_cast<char>(random());
    }
    for (const int iPort : {111, 2049, 1058}) {
        RpcClient stream(Transport::kTcp, iPort);
        stream.Send(sGarbage);
        RpcClient datagram(Transport::kUdp, iPort);
        datagram.Send("");
        datagram.Send(sGarbage);
        datagram.Send(std::string_view(sGarbage).substr(0, 39));
        EXPECT_TRUE(stream.StaysSilent(milliseconds(20)));
        EXPECT_TRUE(datagram.StaysSilent(milliseconds(20)));
    }
    ExpectHealthy();
}

TEST_F(BadInputTest, ConnectionFullOfGarbageIsEndedAndItsSlotServesTheNext) {
    // 1 MiB that is no call: nothing more can be received, and the peer learns it.
    for (int i = 0; i < 4; ++i) {  // one more than MOUNT's connections
        RpcClient connection(Transport::kTcp, 1058);
        try {
            connection.Send(std::string(3U << 20U, '\xff'));
        } catch (const std::runtime_error&) {
            // the server has ended the connection already
        }
        EXPECT_TRUE(connection.IsClosedByPeer());
    }
    ExpectHealthy();
}

TEST_F(BadInputTest, GarbageBeforeACallIsSkipped) {
    RpcClient connection(Transport::kTcp, 2049);
    connection.Send("garbage" + MakeCall(kNfsProgram, kNfsNull, "").Bytes(Transport::kTcp));
    EXPECT_EQ(connection.ReceiveReply().iAcceptStatus, kAcceptSuccess);
}

TEST_F(BadInputTest, UnknownProcedureIsAnsweredUnavailableUntilThePrograms22AreKnown) {
    RpcClient client(Transport::kTcp, 2049);
    EXPECT_EQ(client.Call(kNfsProgram, 3, 22, "").iAcceptStatus, kAcceptProcUnavail) << "the first call of all";
    client.Send(MakeCall(kNfsProgram, 22, "").Bytes(Transport::kTcp));
    EXPECT_TRUE(client.StaysSilent(kNoReply)) << "from now on no start of a call";
    EXPECT_EQ(client.Call(kNfsProgram, 3, kNfsNull, "").iAcceptStatus, kAcceptSuccess) << "skipped for the next one";
}

TEST_F(BadInputTest, CallForAnotherProgramIsPassedOver) {
    // A MOUNT call on the NFS port is no start of a call there.
    RpcClient client(Transport::kTcp, 2049);
    client.Send(MakeCall(kMountProgram, kMountNull, "").Bytes(Transport::kTcp));
    EXPECT_TRUE(client.StaysSilent(kNoReply));
    EXPECT_EQ(client.Call(kNfsProgram, 3, kNfsNull, "").iAcceptStatus, kAcceptSuccess);
}

TEST_F(BadInputTest, ForgedAndStaleHandlesAreRefusedByEveryProcedure) {
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sStale;
    ASSERT_EQ(client.Create(sRoot, "file", sStale), 0U);
    ASSERT_EQ(client.Remove(sRoot, "file"), 0U);
    std::string sOut;
    bool bEof = false;
    std::uint32_t iCount = 0;
    Fattr3 attributes;
    for (const std::string& sHandle : {sStale, std::string(56, '\xff'), std::string(64, '\x7e'), std::string(3, '\1'),
                                       std::string(), std::string("\x05\x10\0\0", 4)}) {
        EXPECT_NE(client.Getattr(sHandle, attributes), 0U) << Hex(sHandle);
        EXPECT_NE(client.Read(sHandle, 0, 10, sOut, bEof), 0U) << Hex(sHandle);
        EXPECT_NE(client.Lookup(sHandle, "x", sOut), 0U) << Hex(sHandle);
        EXPECT_NE(client.Create(sHandle, "x", sOut), 0U) << Hex(sHandle);
        EXPECT_NE(client.Remove(sHandle, "x"), 0U) << Hex(sHandle);
    }
    EXPECT_EQ(client.Write(std::string(56, '\xff'), 0, "data", iCount), 5U);
    EXPECT_TRUE(std::filesystem::is_empty(Folder().Path()));
}

TEST_F(BadInputTest, EndlessLengthWaitsForeverAndHarmsNobody) {
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    RpcClient connection(Transport::kTcp, 2049);
    // A handle of 4 GiB: the rest never comes.
    connection.Send(
        MakeCall(kNfsProgram, kNfsGetattr, XdrBuilder().U32(0xFFFFFFFFU).Raw(sRoot).Bytes()).Bytes(Transport::kTcp));
    // A name of 4 GiB.
    RpcClient other(Transport::kTcp, 2049);
    other.Send(MakeCall(kNfsProgram, kNfsLookup, XdrBuilder().Opaque(sRoot).U32(0xFFFFFFFCU).Raw("abcd").Bytes())
                   .Bytes(Transport::kTcp));
    EXPECT_TRUE(connection.StaysSilent(kNoReply));
    EXPECT_TRUE(other.StaysSilent(kNoReply));
    Fattr3 attributes;
    EXPECT_EQ(client.Getattr(sRoot, attributes), 0U);
}

TEST_F(BadInputTest, NameOf4096BytesIsConsumedAndTakenAsEmpty) {
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sHandle;
    for (const std::size_t iSize : {4096U, 5000U, 60000U}) {
        EXPECT_EQ(client.Lookup(sRoot, std::string(iSize, 'n'), sHandle), 0U) << "the directory itself, " << iSize;
        Fattr3 attributes;
        EXPECT_EQ(client.Getattr(sRoot, attributes), 0U) << "the next call is found, " << iSize;
    }
    for (const std::size_t iSize : {256U, 4000U, 4095U}) {
        EXPECT_NE(client.Lookup(sRoot, std::string(iSize, 'n'), sHandle), 0U) << iSize;
        EXPECT_NE(client.Create(sRoot, std::string(iSize, 'n'), sHandle), 0U) << iSize;
        EXPECT_NE(client.Mkdir(sRoot, std::string(iSize, 'n'), sHandle), 0U) << iSize;
    }
    EXPECT_TRUE(std::filesystem::is_empty(Folder().Path()));
}

TEST_F(BadInputTest, MountOfAnExportNameTooLongIsRefused) {
    NfsClient client;
    EXPECT_FALSE(client.Mnt("nothing").has_value());
    EXPECT_EQ(client.GetMountStatus(), 13U);
    EXPECT_FALSE(client.Mnt("").has_value());
    EXPECT_EQ(client.GetMountStatus(), 13U);
    EXPECT_FALSE(client.Mnt(std::string(4095, 'e')).has_value());
    EXPECT_EQ(client.GetMountStatus(), 13U);
    EXPECT_FALSE(client.Mnt(std::string(4096, 'e')).has_value());
    EXPECT_EQ(client.GetMountStatus(), 13U);
    EXPECT_TRUE(client.Mnt(kExportName).has_value()) << "the call behind the unread name is found";
}

TEST_F(BadInputTest, HugeReadCountsNeverOverrunAndStayWithinTheFile) {
    WriteWholeFile(Folder() / "file", std::string(200000, 'x'));
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sHandle;
    ASSERT_EQ(client.Lookup(sRoot, "file", sHandle), 0U);
    std::string sData;
    bool bEof = false;
    for (const std::uint32_t iCount : {65536U, 65537U, 1000000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        const std::uint32_t iStatus = client.Read(sHandle, 0, iCount, sData, bEof);
        EXPECT_LE(sData.size(), 200000U) << iCount;
        if (iStatus == 0) {
            EXPECT_EQ(sData, std::string(sData.size(), 'x')) << iCount;
        }
        EXPECT_EQ(client.Read(sHandle, 0xFFFFFFFFFFFFFFF0U, iCount, sData, bEof) == 0 && !sData.empty(), false);
    }
    Fattr3 attributes;
    EXPECT_EQ(client.Getattr(sRoot, attributes), 0U);
}

TEST_F(BadInputTest, ManyCallsInOneSendAreAllAnsweredInOrder) {
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sBatch;
    constexpr std::uint32_t kCalls = 500;
    for (std::uint32_t i = 0; i < kCalls; ++i) {
        RpcCall call = MakeCall(kNfsProgram, kNfsGetattr, XdrBuilder().Opaque(sRoot).Bytes());
        call.iXid = 1000 + i;
        sBatch += call.Bytes(Transport::kTcp);
    }
    client.Nfs().Send(sBatch);
    for (std::uint32_t i = 0; i < kCalls; ++i) {
        const RpcReply reply = client.Nfs().ReceiveReply();
        ASSERT_EQ(reply.iXid, 1000 + i);
        ASSERT_EQ(WordAt(reply.sBody, 0), 0U);
    }
}

TEST_F(BadInputTest, ClientThatNeverReadsItsRepliesDoesNotHoldUpTheOthers) {
    WriteWholeFile(Folder() / "file", std::string(65536, 'x'));
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sHandle;
    ASSERT_EQ(client.Lookup(sRoot, "file", sHandle), 0U);
    const std::string sRead =
        MakeCall(kNfsProgram, kNfsRead, XdrBuilder().Opaque(sHandle).U64(0).U32(65536).Bytes()).Bytes(Transport::kTcp);
    RpcClient deaf(Transport::kTcp, 2049);
    std::string sBatch;
    for (int i = 0; i < 500; ++i) {  // 32 MiB of replies, more than any socket buffer takes
        sBatch += sRead;
    }
    deaf.Send(sBatch);
    Fattr3 attributes;
    EXPECT_EQ(client.Getattr(sRoot, attributes), 0U) << "served at the latest when the deaf one has been given up";
}

}  // namespace
