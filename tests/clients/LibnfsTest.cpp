// A real client, libnfs, against a whole server.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nfsc/libnfs.h>

#include "LibnfsClient.h"
#include "ServerFixture.h"

namespace {

class LibnfsTest : public ServerFixture {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_EQ(m_Client.Mount(kExportName), 0) << m_Client.Error() << "\n" << m_Log.Dump();
    }

    LibnfsClient m_Client;
};

/// Bytes that no other file of the test has.
std::string RandomContent(std::size_t iSize, unsigned int iSeed) {
    std::mt19937_64 random(iSeed);
    std::string sContent(iSize, '\0');
    for (std::size_t i = 0; i < iSize; i += sizeof(std::uint64_t)) {
        const std::uint64_t iValue = random();
        std::memcpy(sContent.data() + i, &iValue, std::min(sizeof(iValue), iSize - i));
    }
    return sContent;
}

/// Says where two contents differ instead of printing them.
testing::AssertionResult Same(const std::string& sExpected, const std::string& sSeen) {
    if (sExpected == sSeen) {
        return testing::AssertionSuccess();
    }
    std::size_t i = 0;
    while (i < sExpected.size() && i < sSeen.size() && sExpected[i] == sSeen[i]) {
        ++i;
    }
    return testing::AssertionFailure() << "sizes " << sExpected.size() << " and " << sSeen.size()
                                       << ", first difference at " << i;
}

// ---- Mounting

TEST_F(LibnfsTest, UnmountFreesTheExportForTheNextClient) {
    LibnfsClient second;
    EXPECT_EQ(second.Mount(kExportName), -EACCES) << "bound to the first";
    EXPECT_EQ(Server().GetMountInfo(true, false), 1);
    EXPECT_EQ(m_Client.Umount(), 0) << m_Client.Error();
    EXPECT_EQ(Server().GetMountInfo(true, false), 0);
    LibnfsClient third;
    EXPECT_EQ(third.Mount(kExportName), 0) << third.Error();
}

TEST_F(LibnfsTest, UnknownExportIsRefused) {
    LibnfsClient other;
    EXPECT_EQ(other.Mount("nothing"), -EACCES) << other.Error();
    EXPECT_EQ(other.Mount("/data"), -EACCES) << "an export's name has no slash";
}

TEST_F(LibnfsTest, TwoClientsWorkOnTwoExportsAtTheSameTime) {
    const TempFolder folder;
    Export(folder.Path(), "second");
    LibnfsClient second;
    ASSERT_EQ(second.Mount("second"), 0) << second.Error();
    const auto work = [](LibnfsClient& client, unsigned int iSeed) {
        for (unsigned int i = 0; i < 20; ++i) {
            const std::string sPath = "/file" + std::to_string(i);
            const std::string sContent = RandomContent(100000 + i, iSeed + i);
            std::string sSeen;
            ASSERT_EQ(client.WriteFile(sPath, sContent), 0) << client.Error();
            ASSERT_EQ(client.ReadFile(sPath, sSeen), 0) << client.Error();
            ASSERT_TRUE(Same(sContent, sSeen));
        }
    };
    std::thread thread([&] { work(second, 1000); });
    work(m_Client, 1);
    thread.join();
    EXPECT_TRUE(Same(RandomContent(100003, 4), ReadWholeFile(Folder() / "file3")));
    EXPECT_TRUE(Same(RandomContent(100003, 1003), ReadWholeFile(folder / "file3")));
    EXPECT_EQ(Server().GetMountInfo(true, false), 2);
}

// ---- Files

class LibnfsFileSizeTest : public LibnfsTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(LibnfsFileSizeTest, FileIsWrittenAndReadBackIdentical) {
    const std::string sContent = RandomContent(GetParam(), 7);
    ASSERT_EQ(m_Client.WriteFile("/file", sContent), 0) << m_Client.Error();
    EXPECT_TRUE(Same(sContent, ReadWholeFile(Folder() / "file"))) << "on disk";
    nfs_stat_64 state{};
    ASSERT_EQ(m_Client.Stat("/file", state), 0) << m_Client.Error();
    EXPECT_EQ(state.nfs_size, sContent.size());
    std::string sSeen;
    ASSERT_EQ(m_Client.ReadFile("/file", sSeen), 0) << m_Client.Error();
    EXPECT_TRUE(Same(sContent, sSeen)) << "read back";
}

INSTANTIATE_TEST_SUITE_P(Sizes, LibnfsFileSizeTest, testing::Values(0, 1, 16384, 16385, 65536, 65537, 64U << 20U),
                         [](const testing::TestParamInfo<std::size_t>& param) {
                             return "Bytes" + std::to_string(param.param);
                         });

TEST_F(LibnfsTest, OddPiecesArriveAtTheirPlaces) {
    const std::string sContent = RandomContent(200001, 3);
    ASSERT_EQ(m_Client.WriteFile("/file", sContent, 3001), 0) << m_Client.Error();
    std::string sSeen;
    ASSERT_EQ(m_Client.ReadFile("/file", sSeen, 777), 0) << m_Client.Error();
    EXPECT_TRUE(Same(sContent, sSeen));
}

TEST_F(LibnfsTest, WritingAnExistingFileReplacesIt) {
    ASSERT_EQ(m_Client.WriteFile("/file", RandomContent(5000, 1)), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.WriteFile("/file", "short"), 0) << m_Client.Error();
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "short");
}

TEST_F(LibnfsTest, TruncateCutsAndExtends) {
    ASSERT_EQ(m_Client.WriteFile("/file", "0123456789"), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.Truncate("/file", 4), 0) << m_Client.Error();
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "0123");
    ASSERT_EQ(m_Client.Truncate("/file", 6), 0) << m_Client.Error();
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), std::string("0123\0\0", 6));
}

TEST_F(LibnfsTest, ChmodChangesThePermissionsOnDisk) {
    ASSERT_EQ(m_Client.WriteFile("/file", "x"), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.Chmod("/file", 0640), 0) << m_Client.Error();
    EXPECT_EQ(std::filesystem::status(Folder() / "file").permissions(), std::filesystem::perms(0640));
    nfs_stat_64 state{};
    ASSERT_EQ(m_Client.Stat("/file", state), 0) << m_Client.Error();
    EXPECT_EQ(state.nfs_mode & 07777, 0640U);
}

TEST_F(LibnfsTest, RenameMovesAFileAndItsContent) {
    ASSERT_EQ(m_Client.Mkdir("/folder"), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.WriteFile("/old", "content"), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.Rename("/old", "/folder/new"), 0) << m_Client.Error();
    EXPECT_FALSE(std::filesystem::exists(Folder() / "old"));
    EXPECT_EQ(ReadWholeFile(Folder() / "folder/new"), "content");
    nfs_stat_64 state{};
    EXPECT_EQ(m_Client.Stat("/old", state), -ENOENT);
}

TEST_F(LibnfsTest, UnlinkAndRmdirRemove) {
    ASSERT_EQ(m_Client.Mkdir("/folder"), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.WriteFile("/folder/file", "x"), 0) << m_Client.Error();
    EXPECT_EQ(m_Client.Rmdir("/folder"), -EIO) << "not empty";
    EXPECT_TRUE(std::filesystem::exists(Folder() / "folder/file"));
    ASSERT_EQ(m_Client.Unlink("/folder/file"), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.Rmdir("/folder"), 0) << m_Client.Error();
    EXPECT_TRUE(std::filesystem::is_empty(Folder().Path()));
    EXPECT_EQ(m_Client.Unlink("/folder/file"), -ENOENT);
}

TEST_F(LibnfsTest, FileThatDoesNotExistCannotBeOpened) {
    std::string sContent;
    EXPECT_EQ(m_Client.ReadFile("/nothing", sContent), -ENOENT);
}

TEST_F(LibnfsTest, StatvfsTellsTheFileSystemsFigures) {
    struct statvfs seen {};
    struct statvfs expected {};
    ASSERT_EQ(m_Client.Statvfs("/", seen), 0) << m_Client.Error();
    ASSERT_EQ(::statvfs(Folder().Path().c_str(), &expected), 0);
    EXPECT_EQ(static_cast<unsigned long long>(seen.f_blocks) * seen.f_frsize,
              static_cast<unsigned long long>(expected.f_blocks) * expected.f_frsize / seen.f_frsize * seen.f_frsize);
    EXPECT_EQ(seen.f_files, expected.f_files);
    EXPECT_GT(seen.f_bfree, 0U);
    EXPECT_LE(seen.f_bfree, seen.f_blocks);
}

// ---- Directories

class LibnfsDirectoryTest : public LibnfsTest, public testing::WithParamInterface<int> {};

TEST_P(LibnfsDirectoryTest, IsListedWholeByReaddirAndReaddirplus) {
    std::multiset<std::string> expected;
    for (int i = 0; i < GetParam(); ++i) {
        const std::string sName = "entry-" + std::to_string(i);
        WriteWholeFile(Folder() / sName, "");
        expected.insert(sName);
    }
    std::multiset<std::string> seen;
    ASSERT_EQ(m_Client.ListPlus("/", seen), 0) << m_Client.Error();
    EXPECT_EQ(seen, expected) << "READDIRPLUS";
    ASSERT_EQ(m_Client.Umount(), 0) << m_Client.Error();
    ASSERT_EQ(LibnfsClient::ListPlain(kExportName, 8192, seen), 0);
    EXPECT_EQ(seen, expected) << "READDIR";
    ASSERT_EQ(LibnfsClient::ListPlain(kExportName, 600, seen), 0);
    EXPECT_EQ(seen, expected) << "READDIR in small pieces";
}

INSTANTIATE_TEST_SUITE_P(Entries, LibnfsDirectoryTest, testing::Values(0, 9, 10, 11, 25, 1000),
                         testing::PrintToStringParamName());

TEST_F(LibnfsTest, DirectoryBelowTheRootIsListedToo) {
    ASSERT_EQ(m_Client.Mkdir("/folder"), 0) << m_Client.Error();
    ASSERT_EQ(m_Client.WriteFile("/folder/a file with blanks", "x"), 0) << m_Client.Error();
    std::multiset<std::string> seen;
    ASSERT_EQ(m_Client.ListPlus("/folder", seen), 0) << m_Client.Error();
    EXPECT_EQ(seen, (std::multiset<std::string>{"a file with blanks"}));
}

// ---- A read-only server

TEST_F(LibnfsTest, ReadOnlyServerGivesContentAndTakesNone) {
    WriteWholeFile(Folder() / "file", "content");
    EXPECT_EQ(m_Client.Umount(), 0) << m_Client.Error();
    Server().StopServer();
    Start(true);
    LibnfsClient client;
    ASSERT_EQ(client.Mount(kExportName), 0) << client.Error();
    std::string sSeen;
    EXPECT_EQ(client.ReadFile("/file", sSeen), 0) << client.Error();
    EXPECT_EQ(sSeen, "content");
    EXPECT_EQ(client.WriteFile("/new", "x"), -EACCES);
    EXPECT_EQ(client.Unlink("/file"), -EACCES);
    EXPECT_EQ(client.Mkdir("/folder"), -EACCES);
    EXPECT_EQ(client.Rename("/file", "/other"), -EACCES);
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "content");
}

}  // namespace
