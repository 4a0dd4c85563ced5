// Clients on UDP: datagrams that come twice, and replies that have to fit into one.
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

/// The largest datagram that IPv4 carries, and what of it is data in the reply to a READ: the rest is the reply's head,
/// 24 bytes, the result in front of the data, 20 bytes, and what is no multiple of four.
constexpr std::size_t kLargestDatagram = 65507;
constexpr std::uint32_t kLargestRead = 65460;

constexpr int kMountPort = 1058;
constexpr int kNfsPort = 2049;

class DatagramTest : public ServerFixture {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (!IsSkipped()) {
            m_pClient = std::make_unique<NfsClient>(Transport::kUdp);
            m_sRoot = MountRoot(*m_pClient);
        }
    }
    void TearDown() override {
        m_pClient.reset();
        ServerFixture::TearDown();
    }

    static std::string Datagram(std::uint32_t iProgram, std::uint32_t iProc, const XdrBuilder& arguments,
                                std::uint32_t iXid) {
        RpcCall call;
        call.iXid = iXid;
        call.iProgram = iProgram;
        call.iProcedure = iProc;
        call.sArguments = arguments.Bytes();
        return call.Bytes(Transport::kUdp);
    }
    /// Sends the datagram twice from one port. Returns the first reply; the second must be equal.
    static std::string SendTwice(int iPort, const std::string& sDatagram) {
        RpcClient client(Transport::kUdp, iPort);
        client.Send(sDatagram);
        std::string sReply = client.Receive();
        client.Send(sDatagram);
        EXPECT_EQ(Hex(client.Receive()), Hex(sReply));
        return sReply;
    }
    /// The same for an NFS procedure; returns the NFS status.
    std::uint32_t StatusOfTwice(std::uint32_t iProc, const XdrBuilder& arguments) {
        return WordAt(SendTwice(kNfsPort, Datagram(kNfsProgram, iProc, arguments, m_iXid++)), 24);
    }
    XdrBuilder Entry(const std::string& sName) const { return XdrBuilder().Opaque(m_sRoot).Opaque(sName); }
    static bool IsSkipped() { return testing::Test::IsSkipped(); }

    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    const std::string m_sNothingSet = std::string(24, '\0');
    std::uint32_t m_iXid = 7000;
};

// ---- Repeated datagrams

TEST_F(DatagramTest, ARepeatedMountIsNotRefusedAsItsOwnRival) {
    const TempFolder folder;
    Export(folder.Path(), "second");
    const XdrBuilder name = XdrBuilder().Opaque("second");
    const std::string sReply = SendTwice(kMountPort, Datagram(kMountProgram, kMountMnt, name, 1));
    EXPECT_EQ(WordAt(sReply, 24), 0U);
    RpcClient another(Transport::kUdp, kMountPort);
    another.Send(Datagram(kMountProgram, kMountMnt, name, 1));
    EXPECT_EQ(WordAt(another.Receive(), 24), 13U) << "from another port it is another call";
}

TEST_F(DatagramTest, ARepeatedUmntReleasesNothingThatWasMountedMeanwhile) {
    m_pClient->Umnt(kExportName);
    RpcClient client(Transport::kUdp, kMountPort);
    const XdrBuilder name = XdrBuilder().Opaque(kExportName);
    const std::string sUmnt = Datagram(kMountProgram, kMountUmnt, name, 2);
    client.Send(sUmnt);
    const std::string sReply = client.Receive();
    EXPECT_TRUE(m_pClient->Mnt(kExportName).has_value());
    client.Send(sUmnt);
    EXPECT_EQ(Hex(client.Receive()), Hex(sReply));
    EXPECT_FALSE(m_pClient->Mnt(kExportName).has_value()) << "still mounted";
}

TEST_F(DatagramTest, RepeatedModifyingProceduresAreExecutedOnce) {
    WriteWholeFile(Folder() / "old", "content");
    std::string sHandle;
    ASSERT_EQ(m_pClient->Lookup(m_sRoot, "old", sHandle), 0U);
    EXPECT_EQ(StatusOfTwice(kNfsCreate, Entry("new").U32(1).Raw(m_sNothingSet)), 0U) << "GUARDED";
    EXPECT_EQ(StatusOfTwice(kNfsMkdir, Entry("dir").Raw(m_sNothingSet)), 0U);
    EXPECT_EQ(StatusOfTwice(kNfsRename, Entry("old").Raw(Entry("renamed").Bytes())), 0U);
    EXPECT_EQ(StatusOfTwice(kNfsRemove, Entry("new")), 0U);
    EXPECT_EQ(StatusOfTwice(kNfsRmdir, Entry("dir")), 0U);
    EXPECT_EQ(StatusOfTwice(kNfsRemove, Entry("missing")), 2U) << "a failure is a reply like any other";
    EXPECT_EQ(ReadWholeFile(Folder() / "renamed"), "content");
    EXPECT_FALSE(std::filesystem::exists(Folder() / "new"));
    EXPECT_FALSE(std::filesystem::exists(Folder() / "dir"));
}

// A delayed duplicate must not undo what came after it.
TEST_F(DatagramTest, ARepeatedWriteOrTruncationUndoesNothing) {
    WriteWholeFile(Folder() / "file", "");
    std::string sHandle;
    ASSERT_EQ(m_pClient->Lookup(m_sRoot, "file", sHandle), 0U);
    RpcClient client(Transport::kUdp, kNfsPort);
    const XdrBuilder file = XdrBuilder().Opaque(sHandle);
    const std::string sWrite =
        Datagram(kNfsProgram, kNfsWrite, XdrBuilder(file).U64(0).U32(3).U32(0).Opaque("one"), 10);
    const std::string sTruncate = Datagram(
        kNfsProgram, kNfsSetattr, XdrBuilder(file).U32(0).U32(0).U32(0).U32(1).U64(0).U32(0).U32(0).U32(0), 11);
    client.Send(sTruncate);
    const std::string sTruncated = client.Receive();
    EXPECT_EQ(WordAt(sTruncated, 24), 0U);
    client.Send(sWrite);
    const std::string sWritten = client.Receive();
    EXPECT_EQ(WordAt(sWritten, 24), 0U);
    std::uint32_t iCount = 0;
    ASSERT_EQ(m_pClient->Write(sHandle, 0, "two", iCount), 0U);
    client.Send(sWrite);
    EXPECT_EQ(Hex(client.Receive()), Hex(sWritten));
    client.Send(sTruncate);
    EXPECT_EQ(Hex(client.Receive()), Hex(sTruncated));
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "two");
}

TEST_F(DatagramTest, ARepeatedCallThatOnlyAsksIsAnsweredAnew) {
    RpcClient client(Transport::kUdp, kNfsPort);
    const std::string sLookup = Datagram(kNfsProgram, kNfsLookup, Entry("later"), 12);
    client.Send(sLookup);
    EXPECT_EQ(WordAt(client.Receive(), 24), 2U);
    WriteWholeFile(Folder() / "later", "");
    client.Send(sLookup);
    EXPECT_EQ(WordAt(client.Receive(), 24), 0U);
}

TEST_F(DatagramTest, OverTcpNothingIsARepetition) {
    RpcClient client(Transport::kTcp, kNfsPort);
    RpcCall call;
    call.iProgram = kNfsProgram;
    call.iProcedure = kNfsRemove;
    call.sArguments = Entry("file").Bytes();
    for (int i = 0; i < 2; ++i) {
        WriteWholeFile(Folder() / "file", "");
        EXPECT_EQ(WordAt(client.Call(call).sBody, 0), 0U);
        EXPECT_FALSE(std::filesystem::exists(Folder() / "file"));
    }
}

// ---- Replies that fit

TEST_F(DatagramTest, AReadIsCutToWhatItsDatagramHolds) {
    std::string sContent(kLargestRead + 100, '\0');
    for (std::size_t i = 0; i < sContent.size(); ++i) {
        sContent[i] = static_cast<char>(i % 251);
    }
    WriteWholeFile(Folder() / "file", sContent);
    std::string sHandle;
    ASSERT_EQ(m_pClient->Lookup(m_sRoot, "file", sHandle), 0U);
    std::string sData;
    bool bEof = true;
    for (const std::uint32_t iCount : {kLargestRead + 1, kLargestRead + 3, 65536U, 100000U}) {
        ASSERT_EQ(m_pClient->Read(sHandle, 0, iCount, sData, bEof), 0U) << iCount;
        EXPECT_TRUE(sData == sContent.substr(0, kLargestRead)) << iCount << ", got " << sData.size();
        EXPECT_FALSE(bEof) << iCount;
    }
    ASSERT_EQ(m_pClient->Read(sHandle, kLargestRead, 65536, sData, bEof), 0U);
    EXPECT_TRUE(sData == sContent.substr(kLargestRead));
    EXPECT_TRUE(bEof) << "the rest of the file";
    // A file that just fits is read to its end in one go; with one byte more it is not.
    std::filesystem::resize_file(Folder() / "file", kLargestRead);
    ASSERT_EQ(m_pClient->Read(sHandle, 0, 65536, sData, bEof), 0U);
    EXPECT_EQ(sData.size(), kLargestRead);
    EXPECT_TRUE(bEof);
    std::filesystem::resize_file(Folder() / "file", kLargestRead + 1);
    ASSERT_EQ(m_pClient->Read(sHandle, 0, 65536, sData, bEof), 0U);
    EXPECT_EQ(sData.size(), kLargestRead);
    EXPECT_FALSE(bEof);
    // Not one byte more would fit: data comes in units of four.
    m_pClient->Nfs().Send(Datagram(kNfsProgram, kNfsRead, XdrBuilder().Opaque(sHandle).U64(0).U32(65536), 1));
    const std::size_t nReply = m_pClient->Nfs().Receive().size();
    EXPECT_LE(nReply, kLargestDatagram);
    EXPECT_GT(nReply + 4, kLargestDatagram);
}

TEST_F(DatagramTest, OverTcpAReadIsNotCut) {
    WriteWholeFile(Folder() / "file", std::string(70000, 'x'));
    NfsClient client(Transport::kTcp);
    std::string sHandle;
    ASSERT_EQ(client.Lookup(m_sRoot, "file", sHandle), 0U);
    std::string sData;
    bool bEof = true;
    ASSERT_EQ(client.Read(sHandle, 0, 65536, sData, bEof), 0U);
    EXPECT_EQ(sData.size(), 65536U);
    EXPECT_FALSE(bEof);
}

// A read of a redirected file may deliver more than was asked for, zeros at its tail.
TEST_F(DatagramTest, AReadOfARedirectedFileThatDeliversMoreThanAskedIsCutToo) {
    const TempFolder sources;
    WriteWholeFile(sources / "source", std::string(1000, 's'));
    const std::string sPath = Folder() / "virtual";
    WriteWholeFile(sPath, "");
    Server().OpenRedirectedFile(sPath.c_str(), 300000, false, 0, 0);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(Server().AddRedirectedFileSegment(sPath.c_str(), (sources / "source").c_str(), 0, 0, 1000, vcReason))
        << vcReason;
    std::string sHandle;
    ASSERT_EQ(m_pClient->Lookup(m_sRoot, "virtual", sHandle), 0U);
    std::string sData;
    bool bEof = true;
    ASSERT_EQ(m_pClient->Read(sHandle, 0, 65536, sData, bEof), 0U);
    ASSERT_EQ(sData.size(), kLargestRead);
    EXPECT_TRUE(sData == std::string(1000, 's') + std::string(kLargestRead - 1000, '\0'));
    EXPECT_FALSE(bEof);
}

// ---- The identity that calls begin under

// Also for a call that comes together with one that does belong to an export.
TEST_F(DatagramTest, LinesAboutACallInNoExportCarryTheClientsAddress) {
    RpcCall call;
    call.iProgram = kNfsProgram;
    call.iProcedure = kNfsGetattr;
    call.sArguments = XdrBuilder().Opaque(m_sRoot).Bytes();
    std::string sCalls = call.Bytes(Transport::kTcp);
    call.sArguments = XdrBuilder().Opaque(std::string(56, '\x66')).Bytes();
    sCalls += call.Bytes(Transport::kTcp);
    m_Log.Clear();
    RpcClient client(Transport::kTcp, kNfsPort);
    client.Send(sCalls);
    client.Receive();
    EXPECT_EQ(WordAt(client.ReceiveReply().sBody, 0), 5U);
    ASSERT_FALSE(m_Log.Lines().empty());
    for (const LogLine& line : m_Log.Lines()) {
        EXPECT_EQ(line.sID, "127.0.0.1") << line.sText;
    }
}

}  // namespace
