// What an NFS client sees of a redirected file, and what the host's answers do to the replies.
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "RedirectedFile.h"
#include "ServerFixture.h"

namespace {

constexpr std::uint32_t kNfsOk = 0;
constexpr std::uint32_t kNfsIo = 5;
constexpr std::uint32_t kNfsInval = 22;

class RedirectedHostTest : public ServerFixture {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (int i = 0; i < 200000; ++i) {
            m_sContent += static_cast<char>(i * 31 + i / 255);
        }
        WriteWholeFile(Source(), m_sContent);
        WriteWholeFile(Disk(), "on disk");
        Server().OpenRedirectedFile(Disk().c_str(), 150000, false, 0, 0);
        char vcReason[kReasonBufferSize] = "";
        ASSERT_TRUE(Server().AddRedirectedFileSegment(Disk().c_str(), Source().c_str(), 1000, 0, 100000, vcReason))
            << vcReason;
        m_pClient = std::make_unique<NfsClient>();
        m_sRoot = MountRoot(*m_pClient);
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, "disk", m_sDisk), kNfsOk);
    }
    void TearDown() override {
        m_pClient.reset();
        ServerFixture::TearDown();
    }

    std::string Disk() const { return Folder() / "disk"; }
    std::string Source() const { return m_Sources / "source"; }

    TempFolder m_Sources;
    std::string m_sContent;
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    std::string m_sDisk;
};

TEST_F(RedirectedHostTest, ClientSeesTheVirtualSizeAndContent) {
    Fattr3 attributes;
    ASSERT_EQ(m_pClient->Getattr(m_sDisk, attributes), kNfsOk);
    EXPECT_EQ(attributes.iSize, 150000U);
    std::string sData;
    bool bEof = true;
    ASSERT_EQ(m_pClient->Read(m_sDisk, 500, 65536, sData, bEof), kNfsOk);
    EXPECT_TRUE(sData == m_sContent.substr(1500, 65536));
    EXPECT_FALSE(bEof);
}

TEST_F(RedirectedHostTest, ReadIntoTheTailGapBringsMoreThanWasAskedFor) {
    std::string sData;
    bool bEof = true;
    ASSERT_EQ(m_pClient->Read(m_sDisk, 60000, 65536, sData, bEof), kNfsOk);
    EXPECT_TRUE(sData == m_sContent.substr(61000, 40000) + std::string(50000, '\0'))
        << sData.size() << " bytes instead of 90000";
    EXPECT_TRUE(bEof);
    ASSERT_EQ(m_pClient->Read(m_sDisk, 99999, 4096, sData, bEof), kNfsOk);
    EXPECT_EQ(sData.size(), 1U) << "the end was reached: the gap is not filled";
}

TEST_F(RedirectedHostTest, ReadBeyondTheSizeFailsUntilTheEndWasReached) {
    std::string sData;
    bool bEof = true;
    EXPECT_EQ(m_pClient->Read(m_sDisk, 150000, 10, sData, bEof), kNfsInval);
    ASSERT_EQ(m_pClient->Read(m_sDisk, 149990, 10, sData, bEof), kNfsOk);
    EXPECT_EQ(sData, std::string(10, '\0'));
    EXPECT_TRUE(bEof);
    EXPECT_EQ(m_pClient->Read(m_sDisk, 150000, 10, sData, bEof), kNfsOk);
    EXPECT_EQ(sData, "");
    EXPECT_TRUE(bEof);
}

TEST_F(RedirectedHostTest, ClosedFileGivesWayToTheFileOnDisk) {
    Server().CloseRedirectedFile(Disk().c_str());
    std::string sData;
    bool bEof = false;
    ASSERT_EQ(m_pClient->Read(m_sDisk, 0, 100, sData, bEof), kNfsOk);
    EXPECT_EQ(sData, "on disk");
    EXPECT_TRUE(bEof);
}

TEST_F(RedirectedHostTest, WriteIsAnsweredWithTheHostsCountAndChangesNothing) {
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pClient->Write(m_sDisk, 10, "data", iCount), kNfsInval) << "no host";
    m_Log.SetHost([](const Notification&) { return 3; });
    EXPECT_EQ(m_pClient->Write(m_sDisk, 10, "data", iCount), kNfsOk);
    EXPECT_EQ(iCount, 3U);
    EXPECT_EQ(m_Log.Notifications().back().sPath, Disk());
    EXPECT_EQ(m_Log.Notifications().back().iSeek, 10U);
    EXPECT_EQ(m_Log.Notifications().back().iLen, 4U);
    EXPECT_EQ(m_Log.Notifications().back().sID, kExportName);
    m_Log.SetHost([](const Notification&) { return -7; });
    EXPECT_EQ(m_pClient->Write(m_sDisk, 10, "data", iCount), kNfsInval);
    EXPECT_EQ(ReadWholeFile(Disk()), "on disk");
    EXPECT_TRUE(ReadWholeFile(Source()) == m_sContent);
}

TEST_F(RedirectedHostTest, SetattrSucceedsOnlyIfTheHostGrantsIt) {
    Sattr3 attributes;
    attributes.iSize = 777;
    EXPECT_EQ(m_pClient->Setattr(m_sDisk, attributes), kNfsInval) << "no host";
    m_Log.SetHost([](const Notification&) { return 1; });
    EXPECT_EQ(m_pClient->Setattr(m_sDisk, attributes), kNfsInval);
    m_Log.SetHost([](const Notification&) { return 0; });
    attributes.mtime = {4711, 99};
    EXPECT_EQ(m_pClient->Setattr(m_sDisk, attributes), kNfsOk);
    const Notification asked = m_Log.Notifications().back();
    EXPECT_TRUE(asked.bSize);
    EXPECT_EQ(asked.iSize, 777U);
    EXPECT_FALSE(asked.bAccessTime);
    EXPECT_TRUE(asked.bLastModifiedTime);
    EXPECT_EQ(asked.lLastModifiedTimeSec, 4711U);
    Fattr3 seen;
    ASSERT_EQ(m_pClient->Getattr(m_sDisk, seen), kNfsOk);
    EXPECT_EQ(seen.iSize, 150000U) << "the host did not change the size yet";
}

TEST_F(RedirectedHostTest, RemoveTakesTheFileAwayAndTheHostDecidesTheReply) {
    m_Log.SetHost([](const Notification& asked) { return asked.sOperation == "remove" ? 9 : -1; });
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "disk"), kNfsIo);
    EXPECT_NE(::access(Disk().c_str(), F_OK), 0) << "gone all the same";
    EXPECT_EQ(Utilities().GetRedirectedFile(Disk().c_str()), nullptr);

    WriteWholeFile(Disk(), "on disk");
    Server().OpenRedirectedFile(Disk().c_str(), 5, false, 0, 0);
    m_Log.SetHost([](const Notification&) { return 0; });
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "disk"), kNfsOk);
}

TEST_F(RedirectedHostTest, RenameMovesTheFileAndTheHostDecidesTheReply) {
    m_Log.SetHost([](const Notification&) { return 0; });
    EXPECT_EQ(m_pClient->Rename(m_sRoot, "disk", m_sRoot, "moved"), kNfsOk);
    EXPECT_EQ(m_Log.Notifications().back().sPath, Disk());
    EXPECT_EQ(m_Log.Notifications().back().sPathTo, Folder() / "moved");
    std::string sData;
    bool bEof = false;
    ASSERT_EQ(m_pClient->Read(m_sDisk, 0, 10, sData, bEof), kNfsOk) << "the handle follows";
    EXPECT_EQ(sData, m_sContent.substr(1000, 10));

    m_Log.SetHost([](const Notification&) { return 1; });
    EXPECT_EQ(m_pClient->Rename(m_sRoot, "moved", m_sRoot, "again"), kNfsIo);
    EXPECT_NE(Utilities().GetRedirectedFile((Folder() / "moved").c_str()), nullptr) << "back where it was";
    std::string sHandle;
    EXPECT_EQ(m_pClient->Lookup(m_sRoot, "moved", sHandle), kNfsOk);
    EXPECT_EQ(sHandle, m_sDisk);
    ASSERT_EQ(m_pClient->Read(m_sDisk, 0, 10, sData, bEof), kNfsOk);
    EXPECT_EQ(sData, m_sContent.substr(1000, 10));
}

TEST_F(RedirectedHostTest, RenamedFileIsStillReadThroughItsInfoFile) {
    m_Log.SetHost([](const Notification&) { return 0; });
    WriteWholeFile(Disk(), "");
    Server().OpenRedirectedFile(Disk().c_str(), 2000, true, 0, 0);
    ASSERT_TRUE(Server().AddRedirectedFileSegment(Disk().c_str(), Source().c_str(), 0, 0, 1000, nullptr));
    ASSERT_EQ(m_pClient->Rename(m_sRoot, "disk", m_sRoot, "moved"), kNfsOk);
    const std::string sMoved = Folder() / "moved";
    ASSERT_TRUE(Server().AddRedirectedFileSegment(sMoved.c_str(), Source().c_str(), 5000, 1000, 1000, nullptr));
    EXPECT_EQ(ReadWholeFile(sMoved).size(), 64U) << "the info file went along";
    std::string sData;
    bool bEof = false;
    ASSERT_EQ(m_pClient->Read(m_sDisk, 0, 2000, sData, bEof), kNfsOk);
    EXPECT_TRUE(sData == m_sContent.substr(0, 1000) + m_sContent.substr(5000, 1000));
    Server().CloseRedirectedFile(sMoved.c_str());
}

}  // namespace
