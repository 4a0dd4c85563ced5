// Reading, writing, creating, removing and changing files, ordinary and redirected ones.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RedirectedFile.h"
#include "UtilitiesFixture.h"

namespace {

class UtilitiesFileTest : public UtilitiesFixture {
protected:
    using Lines = std::vector<std::string>;

    void SetUp() override {
        m_Param.SetLogControl(0);
        ExportFolder();
        m_Param.SetLogControl(CRuntimeParam::kLogError | CRuntimeParam::kLogFileAccess);
    }

    /// What was read, or "-" for a failure; m_bEof tells of the end.
    std::string Read(const std::string& sPath, unsigned long long iSeek, unsigned int nLength, int iWhence = SEEK_SET) {
        std::string sBuffer(nLength, '#');
        m_bEof = false;
        const int iRead =
            m_Utilities.ReadFile(&m_Param, &m_Tag, sPath.c_str(), iSeek, iWhence, sBuffer.data(), nLength, &m_bEof);
        return iRead < 0 ? "-" : sBuffer.substr(0, static_cast<std::size_t>(iRead));
    }
    int Write(const std::string& sPath, unsigned long long iSeek, const std::string& sData, int iWhence = SEEK_SET) {
        return m_Utilities.WriteFile(&m_Param, &m_Tag, sPath.c_str(), iSeek, iWhence, sData.data(),
                                     static_cast<unsigned int>(sData.size()));
    }
    int GetDescriptor(const std::string& sPath) {
        return m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, sPath.c_str(), false).Get();
    }
    struct Attributes {
        bool bMode = false;
        unsigned int iMode = 0;
        bool bUid = false;
        bool bSize = false;
        unsigned long long iSize = 0;
        bool bTimes = false;
    };
    bool Update(const std::string& sPath, const Attributes& set) {
        return m_Utilities.UpdateFileAttributes(&m_Param, &m_Tag, sPath.c_str(), set.bMode, set.iMode, set.bUid, 1,
                                                false, 2, set.bSize, set.iSize, set.bTimes, 3, 4, set.bTimes, 5, 6);
    }
    /// A redirected file of 10 bytes whose content comes from another file; a file of that name stands on disk.
    std::string OpenRedirected() {
        std::string sPath = MakeFile("virtual", "on disk");
        const std::string sSource = MakeFile("source", "0123456789");
        m_Utilities.OpenRedirectedFile(&m_Param, sPath.c_str(), 10, false, 0, 0);
        EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, sPath.c_str(), sSource.c_str(), 0, 0, 10, nullptr));
        m_Log.Clear();
        return sPath;
    }

    bool m_bEof = false;
};

TEST_F(UtilitiesFileTest, ReadThatEndsAtTheEndReportsIt) {
    const std::string sFile = MakeFile("f", "0123456789");
    EXPECT_EQ(Read(sFile, 0, 4), "0123");
    EXPECT_FALSE(m_bEof);
    EXPECT_EQ(Read(sFile, 6, 3), "678");
    EXPECT_FALSE(m_bEof);
    EXPECT_EQ(Read(sFile, 6, 4), "6789");
    EXPECT_TRUE(m_bEof);
    EXPECT_EQ(Read(sFile, 6, 100), "6789");
    EXPECT_TRUE(m_bEof);
    EXPECT_EQ(Read(sFile, 10, 4), "");
    EXPECT_TRUE(m_bEof);
    EXPECT_EQ(Read(sFile, 1ULL << 40, 4), "");
    EXPECT_TRUE(m_bEof);
    EXPECT_EQ(Read(sFile, 0, 0), "");
    EXPECT_FALSE(m_bEof);
}

TEST_F(UtilitiesFileTest, ReadLogsItsSteps) {
    const std::string sFile = MakeFile("f", "0123456789");
    EXPECT_EQ(Read(sFile, 4, 2), "45");
    const std::string sNumber = "(" + std::to_string(GetDescriptor(sFile)) + ")";
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Read file, path=" + sFile + ", iSeek=4, iSeekType=0, length=2",
                                "[Test] open read/write mode " + sFile, "[Test] OS open file \"" + sFile + "\"",
                                "[Test] OS seek file " + sNumber, "[Test] OS read file " + sNumber,
                                "[Test] OS tell file " + sNumber, "[Test] OS seek file " + sNumber}));
}

TEST_F(UtilitiesFileTest, ReadLeavesTheDescriptorAtTheEnd) {
    const std::string sFile = MakeFile("f", "0123456789");
    Read(sFile, 2, 2);
    EXPECT_EQ(m_Utilities.OS_FileTell(&m_Param, &m_Tag, GetDescriptor(sFile), nullptr), 10);
}

TEST_F(UtilitiesFileTest, MissingFileIsNotRead) {
    EXPECT_EQ(Read(m_Folder / "none", 0, 4), "-");
    EXPECT_TRUE(m_bEof);
}

TEST_F(UtilitiesFileTest, OffsetsWithTheTopBitFailAsNegativeSeeks) {
    const std::string sFile = MakeFile("f", "0123456789");
    const std::string sNumber = "(" + std::to_string(GetDescriptor(sFile)) + ")";
    m_Log.Clear();
    EXPECT_EQ(Read(sFile, 1ULL << 63, 4), "-");
    EXPECT_EQ(Write(sFile, ~0ULL, "x"), -1);
    const std::string sFailure = "[Test] OS seek file " + sNumber + ". Error=Invalid argument (22)";
    EXPECT_EQ(
        TakeLog(),
        (Lines{"[Test] Read file, path=" + sFile + ", iSeek=9223372036854775808, iSeekType=0, length=4", sFailure,
               "[Test] Write file, path=" + sFile + ", iSeek=18446744073709551615, iSeekType=0, length=1", sFailure}));
    EXPECT_EQ(ReadWholeFile(sFile), "0123456789");
}

TEST_F(UtilitiesFileTest, WriteStoresItsBytesWhereTheyBelong) {
    const std::string sFile = MakeFile("f", "0123456789");
    EXPECT_EQ(Write(sFile, 4, "xy"), 2);
    EXPECT_EQ(Write(sFile, 12, "z"), 1);
    EXPECT_EQ(Write(sFile, 0, ""), 0);
    EXPECT_EQ(ReadWholeFile(sFile), std::string("0123xy6789\0\0z", 13));
}

TEST_F(UtilitiesFileTest, WriteLogsItsSteps) {
    const std::string sFile = MakeFile("f", "");
    const std::string sNumber = "(" + std::to_string(GetDescriptor(sFile)) + ")";
    m_Log.Clear();
    EXPECT_EQ(Write(sFile, 4, "xy"), 2);
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Write file, path=" + sFile + ", iSeek=4, iSeekType=0, length=2",
                                "[Test] OS seek file " + sNumber, "[Test] OS write file " + sNumber}));
}

TEST_F(UtilitiesFileTest, FileOutsideExportsIsReadButNotWritten) {
    m_Utilities.RemoveAllMountInfo();
    const std::string sFile = MakeFile("f", "abc");
    EXPECT_EQ(Read(sFile, 0, 3), "abc");
    EXPECT_EQ(Write(sFile, 0, "x"), -1);
    EXPECT_EQ(ReadWholeFile(sFile), "abc");
    EXPECT_EQ(Write(m_Folder / "none", 0, "x"), -1);
    EXPECT_FALSE(m_Utilities.OS_IsFileExists((m_Folder / "none").c_str(), nullptr));
}

TEST_F(UtilitiesFileTest, FailedReadStillLooksForTheEnd) {
    m_Utilities.RemoveAllMountInfo();
    const std::string sNumber = "(" + std::to_string(GetDescriptor(m_Folder.Path())) + ")";
    m_Log.Clear();
    EXPECT_EQ(Read(m_Folder.Path(), 0, 3), "-");
    const Lines vLines = TakeLog();
    ASSERT_EQ(vLines.size(), 5U);
    EXPECT_EQ(vLines[2], "[Test] OS read file " + sNumber + ". Error=Is a directory (21)");
    EXPECT_EQ(vLines[3], "[Test] OS tell file " + sNumber);
}

TEST_F(UtilitiesFileTest, SeekTypeIsTheSystems) {
    const std::string sFile = MakeFile("f", "0123456789");
    EXPECT_EQ(Read(sFile, static_cast<unsigned long long>(-3), 2, SEEK_END), "78");
    EXPECT_FALSE(m_bEof);
    EXPECT_EQ(Read(sFile, static_cast<unsigned long long>(-2), 5, SEEK_CUR), "89") << "from the end, where it was left";
    EXPECT_EQ(Write(sFile, 0, "ab", SEEK_END), 2);
    EXPECT_EQ(Write(sFile, 0, "cd", SEEK_CUR), 2);
    EXPECT_EQ(Write(sFile, 1, "X"), 1);
    EXPECT_EQ(Write(sFile, 1, "Y", SEEK_CUR), 1);
    EXPECT_EQ(ReadWholeFile(sFile), "0X2Y456789abcd");
    EXPECT_EQ(Read(sFile, static_cast<unsigned long long>(-100), 2, SEEK_END), "-");
    EXPECT_EQ(Write(sFile, 0, "X", 99), -1);
    EXPECT_EQ(ReadWholeFile(sFile), "0X2Y456789abcd");
}

TEST_F(UtilitiesFileTest, FileSizeIsTheEndOrTheDefault) {
    EXPECT_EQ(m_Utilities.GetFileSize(&m_Param, &m_Tag, MakeFile("f", "0123456789").c_str(), 77), 10U);
    EXPECT_EQ(m_Utilities.GetFileSize(&m_Param, &m_Tag, (m_Folder / "none").c_str(), 77), 77U);
    const std::string sPipe = m_Folder / "pipe";
    ASSERT_EQ(::mkfifo(sPipe.c_str(), 0600), 0);
    EXPECT_EQ(m_Utilities.GetFileSize(&m_Param, &m_Tag, sPipe.c_str(), 77), 77U);
}

TEST_F(UtilitiesFileTest, NewFileIsMadeAndNotCached) {
    const std::string sFile = m_Folder / "f";
    EXPECT_TRUE(m_Utilities.NewFile(&m_Param, &m_Tag, sFile.c_str()));
    EXPECT_EQ(TakeLog(), (Lines{"[Test] OS create file \"" + sFile + "\"", "[Test] OS close file \"" + sFile + "\""}));
    EXPECT_EQ(ReadWholeFile(sFile), "");
    m_Utilities.CloseCachedFileHandle(&m_Param, &m_Tag, sFile.c_str());
    EXPECT_EQ(TakeLog(), Lines());
    EXPECT_FALSE(m_Utilities.NewFile(&m_Param, &m_Tag, (m_Folder / "none/f").c_str()));
}

TEST_F(UtilitiesFileTest, RemoveClosesTheDescriptorFirst) {
    const std::string sFile = MakeFile("f", "x");
    Read(sFile, 0, 1);
    m_Log.Clear();
    EXPECT_TRUE(m_Utilities.RemoveFile(&m_Param, &m_Tag, sFile.c_str()));
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Remove file, path=" + sFile, "[Test] OS close file \"" + sFile + "\"",
                                "[Test] OS remove file \"" + sFile + "\""}));
    MakeFile("f", "another");
    EXPECT_EQ(Read(sFile, 0, 10), "another");
    EXPECT_FALSE(m_Utilities.RemoveFile(&m_Param, &m_Tag, (m_Folder / "none").c_str()));
}

TEST_F(UtilitiesFileTest, AttributesOfAnOrdinaryFileAreModeAndSize) {
    const std::string sFile = MakeFile("f", "0123456789");
    Read(sFile, 0, 1);
    m_Log.Clear();
    EXPECT_TRUE(Update(sFile, {.bMode = true, .iMode = 0604, .bSize = true, .iSize = 4}));
    EXPECT_EQ(TakeLog(),
              (Lines{"[Test] Update file attributes, path=" + sFile +
                         ", set_mode=1, mode=388, set_uid=0, uid=1, set_gid=0, gid=2, set_size=1, size=4, set_atime=0, "
                         "atime.sec=3, atime.nsec=4, set_mtime=0, mtime.sec=5, mtime.nsec=6",
                     "[Test] OS close file \"" + sFile + "\"", "[Test] OS set file mode \"" + sFile + "\" (mode = 388)",
                     "[Test] OS set file file \"" + sFile + "\""}));
    struct stat attributes {};
    ASSERT_EQ(::stat(sFile.c_str(), &attributes), 0);
    EXPECT_EQ(attributes.st_mode & 07777U, 0604U);
    EXPECT_EQ(ReadWholeFile(sFile), "0123");
}

TEST_F(UtilitiesFileTest, SettingEitherModeOrSizeClosesTheDescriptorFirst) {
    const std::string sFile = MakeFile("f", "0123456789");
    Read(sFile, 0, 1);
    m_Log.Clear();
    EXPECT_TRUE(Update(sFile, {.bMode = true, .iMode = 0600}));
    Lines vLines = TakeLog();
    ASSERT_EQ(vLines.size(), 3U);
    EXPECT_EQ(vLines[1], "[Test] OS close file \"" + sFile + "\"");
    EXPECT_EQ(vLines[2], "[Test] OS set file mode \"" + sFile + "\" (mode = 384)");
    Read(sFile, 0, 1);
    m_Log.Clear();
    EXPECT_TRUE(Update(sFile, {.bSize = true, .iSize = 4}));
    vLines = TakeLog();
    ASSERT_EQ(vLines.size(), 3U);
    EXPECT_EQ(vLines[1], "[Test] OS close file \"" + sFile + "\"");
    EXPECT_EQ(vLines[2], "[Test] OS set file file \"" + sFile + "\"");
}

TEST_F(UtilitiesFileTest, OwnerAndTimesOfAnOrdinaryFileAreAcceptedAndIgnored) {
    const std::string sFile = MakeFile("f", "0123456789");
    Read(sFile, 0, 1);
    struct stat before {};
    ASSERT_EQ(::stat(sFile.c_str(), &before), 0);
    m_Log.Clear();
    EXPECT_TRUE(Update(sFile, {.bUid = true, .bTimes = true}));
    EXPECT_EQ(TakeLog().size(), 1U) << "the descriptor stays cached";
    struct stat after {};
    ASSERT_EQ(::stat(sFile.c_str(), &after), 0);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_mtime, before.st_mtime);
    EXPECT_EQ(after.st_atime, before.st_atime);
    EXPECT_TRUE(Update(m_Folder / "none", {.bUid = true}));
    EXPECT_TRUE(Update(m_Folder / "none", {}));
}

TEST_F(UtilitiesFileTest, FailedModeSkipsTheSize) {
    const std::string sFile = m_Folder / "none";
    EXPECT_FALSE(Update(sFile, {.bMode = true, .iMode = 0600, .bSize = true, .iSize = 4}));
    EXPECT_FALSE(m_Utilities.OS_IsFileExists(sFile.c_str(), nullptr)) << "setting the size would have made it";
    EXPECT_TRUE(Update(sFile, {.bSize = true, .iSize = 4}));
    EXPECT_EQ(ReadWholeFile(sFile), std::string(4, '\0'));
}

TEST_F(UtilitiesFileTest, RedirectedFileIsReadFromItsSegments) {
    const std::string sFile = OpenRedirected();
    EXPECT_EQ(m_Utilities.GetFileSize(&m_Param, &m_Tag, sFile.c_str(), 77), 10U);
    std::string sBuffer(CRedirectedFile::GetReadRoom(4), '#');
    EXPECT_EQ(m_Utilities.ReadFile(&m_Param, &m_Tag, sFile.c_str(), 3, SEEK_SET, sBuffer.data(), 4, &m_bEof), 4);
    EXPECT_EQ(sBuffer.substr(0, 4), "3456");
    EXPECT_FALSE(m_bEof);
}

TEST_F(UtilitiesFileTest, WriteToARedirectedFileIsTheHostsAndChangesNothing) {
    const std::string sFile = OpenRedirected();
    EXPECT_EQ(Write(sFile, 5, "xyz"), -1) << "no host";
    m_Log.SetHost([](const Notification&) { return 2; });
    EXPECT_EQ(Write(sFile, 5, "xyz", SEEK_END), 2);
    ASSERT_EQ(m_Log.Notifications().size(), 2U);
    const Notification seen = m_Log.Notifications()[1];
    EXPECT_EQ(seen.sOperation, "write");
    EXPECT_EQ(seen.sPath, sFile);
    EXPECT_EQ(seen.iSeek, 5U);
    EXPECT_EQ(seen.iSeekType, SEEK_END);
    EXPECT_EQ(seen.iLen, 3U);
    EXPECT_EQ(ReadWholeFile(sFile), "on disk");
    EXPECT_EQ(ReadWholeFile(m_Folder / "source"), "0123456789");
}

TEST_F(UtilitiesFileTest, AttributesOfARedirectedFileAreTheHostsToGrant) {
    const std::string sFile = OpenRedirected();
    EXPECT_TRUE(Update(sFile, {})) << "nothing is to be set";
    EXPECT_EQ(m_Log.Notifications().size(), 0U);
    EXPECT_FALSE(Update(sFile, {.bUid = true})) << "no host";
    m_Log.SetHost([](const Notification& notification) { return notification.bSize ? 1 : 0; });
    EXPECT_TRUE(Update(sFile, {.bMode = true, .iMode = 0600, .bTimes = true}));
    EXPECT_FALSE(Update(sFile, {.bSize = true, .iSize = 4}));
    const std::vector<Notification> vSeen = m_Log.Notifications();
    ASSERT_EQ(vSeen.size(), 3U);
    EXPECT_FALSE(vSeen[0].bSize || vSeen[0].bAccessTime || vSeen[0].bLastModifiedTime) << "an owner alone";
    EXPECT_TRUE(vSeen[1].bAccessTime);
    EXPECT_EQ(vSeen[1].lAccessTimeSec, 3U);
    EXPECT_TRUE(vSeen[1].bLastModifiedTime);
    EXPECT_EQ(vSeen[1].lLastModifiedTimeSec, 5U);
    EXPECT_EQ(vSeen[2].iSize, 4U);
    EXPECT_EQ(ReadWholeFile(sFile), "on disk");
}

TEST_F(UtilitiesFileTest, RemovalOfARedirectedFileClosesItAndAsksTheHost) {
    for (const int iAnswer : {0, 1}) {
        const std::string sFile = OpenRedirected();
        m_Log.SetHost([&](const Notification& notification) {
            EXPECT_EQ(notification.sOperation, "remove");
            EXPECT_EQ(m_Utilities.GetRedirectedFile(sFile.c_str()), nullptr) << "closed before the host is asked";
            return iAnswer;
        });
        EXPECT_EQ(m_Utilities.RemoveFile(&m_Param, &m_Tag, sFile.c_str()), iAnswer == 0);
        EXPECT_FALSE(m_Utilities.OS_IsFileExists(sFile.c_str(), nullptr));
    }
}

TEST_F(UtilitiesFileTest, RedirectedFileWithoutAFileOnDiskIsNotRemoved) {
    m_Utilities.OpenRedirectedFile(&m_Param, (m_Folder / "virtual").c_str(), 10, false, 0, 0);
    EXPECT_FALSE(m_Utilities.RemoveFile(&m_Param, &m_Tag, (m_Folder / "virtual").c_str()));
    EXPECT_NE(m_Utilities.GetRedirectedFile((m_Folder / "virtual").c_str()), nullptr);
    EXPECT_EQ(m_Log.Notifications().size(), 0U);
}

// Every read returns its own offset's bytes while others read and write the same file.
TEST_F(UtilitiesFileTest, SeekAndTransferOfOneThreadAreOneStep) {
    constexpr unsigned int kBlock = 512;
    constexpr unsigned int kBlocks = 16;
    m_Param.SetLogControl(0);
    std::string sContent;
    for (unsigned int iBlock = 0; iBlock < kBlocks; ++iBlock) {
        sContent += std::string(kBlock, static_cast<char>('a' + iBlock));
    }
    const std::string sFile = MakeFile("f", sContent);
    std::vector<std::thread> vThreads;
    for (unsigned int iThread = 0; iThread < 4; ++iThread) {
        vThreads.emplace_back([&, iThread] {
            CRuntimeParam param("thread", 0);
            LogArgu tag{"Thread"};
            std::string sBuffer(kBlock, '#');
            for (unsigned int iRound = 0; iRound < 500; ++iRound) {
                const unsigned int iBlock = (iRound * 7 + iThread * 4) % kBlocks;
                const std::string sExpected(kBlock, static_cast<char>('a' + iBlock));
                bool bEof = false;
                ASSERT_EQ(m_Utilities.ReadFile(&param, &tag, sFile.c_str(), iBlock * kBlock, SEEK_SET, sBuffer.data(),
                                               kBlock, &bEof),
                          static_cast<int>(kBlock));
                ASSERT_EQ(sBuffer, sExpected);
                ASSERT_EQ(bEof, iBlock == kBlocks - 1);
                ASSERT_EQ(m_Utilities.WriteFile(&param, &tag, sFile.c_str(), iBlock * kBlock, SEEK_SET,
                                                sExpected.data(), kBlock),
                          static_cast<int>(kBlock));
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(ReadWholeFile(sFile), sContent);
}

}  // namespace
