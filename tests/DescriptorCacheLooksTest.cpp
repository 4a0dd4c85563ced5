// The cache of open descriptors: which file a descriptor is, how it was opened, and when it has to go.
#include <ctime>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Isolation.h"
#include "PathProbe.h"
#include "UtilitiesFixture.h"
#include "WaitUntil.h"

namespace {

using testing::Contains;
using testing::Not;

class DescriptorCacheLooksTest : public UtilitiesFixture {
protected:
    using Lines = std::vector<std::string>;

    void SetUp() override { m_Param.SetLogControl(CRuntimeParam::kLogError | CRuntimeParam::kLogFileAccess); }
    void TearDown() override {
        if (!m_sMounted.empty()) {
            EXPECT_EQ(::umount(m_sMounted.c_str()), 0) << "something is still open below it";
        }
    }

    /// A file system of its own below the scratch folder; false if that cannot be had.
    bool MountAt(const std::string& sName) {
        const std::string sFolder = m_Folder / sName;
        if (!IsIsolated() || ::mkdir(sFolder.c_str(), 0755) != 0 ||
            ::mount("none", sFolder.c_str(), "tmpfs", 0, nullptr) != 0) {
            return false;
        }
        m_sMounted = sFolder;
        return true;
    }
    void Remount(unsigned long lFlags) const {
        ASSERT_EQ(::mount("none", m_sMounted.c_str(), nullptr, MS_REMOUNT | lFlags, nullptr), 0);
    }
    CCachedFile Get(const std::string& sPath, bool bReadWrite = false) {
        return m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, sPath.c_str(), bReadWrite);
    }
    static int ModeOf(const CCachedFile& file) { return ::fcntl(file.Get(), F_GETFL) & O_ACCMODE; }
    /// Reads as a call does that looked at its path.
    std::string Read(const std::string& sPath) {
        FoundStatus found;
        FindWithoutLinks(sPath.c_str(), &found);
        char vcBuffer[64];
        bool bEof = false;
        const int iRead = m_Utilities.ReadFile(&m_Param, &m_Tag, sPath.c_str(), 0, SEEK_SET, vcBuffer, sizeof(vcBuffer),
                                               &bEof, &found);
        return iRead < 0 ? "-" : std::string(vcBuffer, static_cast<std::size_t>(iRead));
    }
    int Write(const std::string& sPath, const std::string& sData) {
        FoundStatus found;
        FindWithoutLinks(sPath.c_str(), &found);
        return m_Utilities.WriteFile(&m_Param, &m_Tag, sPath.c_str(), 0, SEEK_SET, sData.data(),
                                     static_cast<unsigned int>(sData.size()), &found);
    }
    /// Puts a new file in the place of another.
    void Replace(const std::string& sPath, const std::string& sContent) {
        const std::string sNew = MakeFile("replacement", sContent);
        ASSERT_EQ(::rename(sNew.c_str(), sPath.c_str()), 0);
    }

    std::string m_sMounted;
};

TEST_F(DescriptorCacheLooksTest, ReplacedFileIsClosedAndOpenedAnew) {
    ExportFolder();
    const std::string sFile = MakeFile("f", "old");
    EXPECT_EQ(Read(sFile), "old");
    Replace(sFile, "new one");
    m_Log.Clear();
    EXPECT_EQ(Read(sFile), "new one");
    const Lines vLines = TakeLog();
    ASSERT_GE(vLines.size(), 4U);
    EXPECT_EQ(vLines[1], "[Test] OS close file \"" + sFile + "\"");
    EXPECT_EQ(vLines[2], "[Test] open read/write mode " + sFile);
    EXPECT_EQ(vLines[3], "[Test] OS open file \"" + sFile + "\"");
    EXPECT_EQ(Read(sFile), "new one");
    EXPECT_THAT(TakeLog(), Not(Contains("[Test] OS open file \"" + sFile + "\""))) << "it is cached now";
}

TEST_F(DescriptorCacheLooksTest, PathThatHoldsALinkIsLookedAtInEachCall) {
    ExportFolder();
    ASSERT_EQ(::mkdir((m_Folder / "dir").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("dir", (m_Folder / "link").c_str()), 0);
    MakeFile("dir/f", "old");
    const std::string sFile = m_Folder / "link/f";
    EXPECT_EQ(Read(sFile), "old");
    Replace(m_Folder / "dir/f", "new");
    EXPECT_EQ(Read(sFile), "new");
    EXPECT_EQ(Write(sFile, "wri"), 3);
    EXPECT_EQ(ReadWholeFile(m_Folder / "dir/f"), "wri");
}

TEST_F(DescriptorCacheLooksTest, SizeThatALookFoundOpensNothing) {
    ExportFolder();
    const std::string sFile = MakeFile("f", "0123456789");
    FoundStatus found;
    FindWithoutLinks(sFile.c_str(), &found);
    m_Param.SetLogControl(CRuntimeParam::kLogError);
    EXPECT_EQ(m_Utilities.GetFileSize(&m_Param, &m_Tag, sFile.c_str(), 77, &found), 10U);
    m_Param.SetLogControl(CRuntimeParam::kLogFileAccess);
    m_Log.Clear();
    m_Utilities.CloseCachedFileHandle(&m_Param, &m_Tag, sFile.c_str());
    EXPECT_EQ(TakeLog(), Lines()) << "nothing was open";
    EXPECT_EQ(m_Utilities.GetFileSize(&m_Param, &m_Tag, sFile.c_str(), 77, &found), 10U);
    const Lines vLines = TakeLog();
    ASSERT_EQ(vLines.size(), 3U) << "with lines about it, it is opened and its end sought";
    EXPECT_EQ(vLines[1], "[Test] OS open file \"" + sFile + "\"");
}

// A source or an info file is looked at once in each second of its use.
TEST_F(DescriptorCacheLooksTest, HostsFileIsLookedAtOnceASecond) {
    const std::string sFile = MakeFile("f", "old");
    const int iOld = Get(sFile).Get();
    Replace(sFile, "new");
    WaitForTheNextSecond();
    m_Log.Clear();
    char vcBuffer[4] = "";
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, Get(sFile), 0, vcBuffer, 3, nullptr), 3);
    EXPECT_STREQ(vcBuffer, "new");
    EXPECT_THAT(TakeLog(), Contains("[Test] OS close file \"" + sFile + "\""));
    struct stat status {};
    EXPECT_TRUE(::fstat(iOld, &status) != 0 || status.st_nlink > 0) << "the replaced file is still open";
}

TEST_F(DescriptorCacheLooksTest, HostsFileWhosePathNamesNothingStaysOpen) {
    const std::string sFile = MakeFile("f", "data");
    const int iFile = Get(sFile).Get();
    ASSERT_EQ(::unlink(sFile.c_str()), 0);
    WaitForTheNextSecond();
    EXPECT_EQ(Get(sFile).Get(), iFile);
    m_Utilities.DropMissingFile(&m_Param, &m_Tag, sFile.c_str());
    EXPECT_EQ(Get(sFile).Get(), iFile) << "a client that misses it does not close it";
}

TEST_F(DescriptorCacheLooksTest, ClientsFileThatIsMissingIsClosed) {
    ExportFolder();
    const std::string sFile = MakeFile("f", "data");
    EXPECT_EQ(Read(sFile), "data");
    m_Log.Clear();
    m_Utilities.DropMissingFile(&m_Param, &m_Tag, sFile.c_str());
    EXPECT_EQ(TakeLog(), Lines{"[Test] OS close file \"" + sFile + "\""});
    m_Utilities.DropMissingFile(&m_Param, &m_Tag, sFile.c_str());
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(DescriptorCacheLooksTest, FileThatRefusesWritersIsOpenedForReading) {
    if (!MountAt("fs")) {
        GTEST_SKIP() << "no file system can be mounted";
    }
    ExportFolder();
    const std::string sFile = MakeFile("fs/f", "data");
    Remount(MS_RDONLY);
    m_Log.Clear();
    EXPECT_EQ(Read(sFile), "data");
    Lines vLines = TakeLog();
    ASSERT_GE(vLines.size(), 5U);
    EXPECT_EQ(Lines(vLines.begin() + 1, vLines.begin() + 5),
              (Lines{"[Test] open read/write mode " + sFile,
                     "[Test] OS open file \"" + sFile + "\". Error=Read-only file system (30)",
                     "[Test] open read only mode " + sFile, "[Test] OS open file \"" + sFile + "\""}));
    EXPECT_EQ(Read(sFile), "data");
    EXPECT_EQ(TakeLog().size(), 5U) << "reads go on with the descriptor as it is";
    for (int iTry = 0; iTry < 2; ++iTry) {
        EXPECT_EQ(Write(sFile, "x"), -1);
        vLines = TakeLog();
        EXPECT_THAT(vLines, Contains("[Test] OS close file \"" + sFile + "\"")) << "each write tries anew";
        EXPECT_THAT(vLines, Contains("[Test] OS open file \"" + sFile + "\". Error=Read-only file system (30)"));
        EXPECT_THAT(vLines.back(), testing::EndsWith(". Error=Bad file descriptor (9)"));
    }
    EXPECT_EQ(Read(sFile), "data");
    EXPECT_FALSE(Get(sFile + "x", true).IsOpen());
    Remount(0);
    EXPECT_EQ(Write(sFile, "writ"), 4);
    EXPECT_EQ(Read(sFile), "writ");
    m_Utilities.RemoveAllMountInfo();
}

// A host that wants to write gets a descriptor it can write to, or none: it keeps its segments elsewhere then.
TEST_F(DescriptorCacheLooksTest, HostThatWantsToWriteIsNotGivenLess) {
    if (!MountAt("fs")) {
        GTEST_SKIP() << "no file system can be mounted";
    }
    const std::string sFile = MakeFile("fs/f", "data");
    Remount(MS_RDONLY);
    EXPECT_FALSE(Get(sFile, true).IsOpen());
    EXPECT_TRUE(Get(sFile).IsOpen());
    m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag);
}

TEST_F(DescriptorCacheLooksTest, ReadOnlyDescriptorDoesNotStaySoWhenItsFolderBecomesAnExport) {
    const std::string sFile = MakeFile("f", "data");
    ASSERT_EQ(::mkdir((m_Folder.Path() + "x").c_str(), 0755), 0);
    const std::string sBeside = m_Folder.Path() + "x/f";
    WriteWholeFile(sBeside, "beside");
    const int iBeside = Get(sBeside).Get();
    EXPECT_EQ(ModeOf(Get(sFile)), O_RDONLY);
    m_Log.Clear();
    ExportFolder();
    EXPECT_THAT(TakeLog(), Contains("[Test] OS close file \"" + sFile + "\""));
    EXPECT_EQ(Write(sFile, "DATA"), 4);
    EXPECT_EQ(ReadWholeFile(sFile), "DATA");
    EXPECT_EQ(ModeOf(Get(sFile)), O_RDWR);
    EXPECT_EQ(Get(sBeside).Get(), iBeside);
    ::unlink(sBeside.c_str());
    ::rmdir((m_Folder.Path() + "x").c_str());
}

TEST_F(DescriptorCacheLooksTest, RemovedExportLeavesNothingOpenByWhateverKeyItGoes) {
    const std::string sRoot = m_Folder / "root";
    const std::string sBeside = MakeFile("rooted", "beside");
    ASSERT_EQ(::mkdir(sRoot.c_str(), 0755), 0);
    const std::string sFile = MakeFile("root/f", "data");
    const int iBeside = Get(sBeside).Get();
    for (int iKey = 0; iKey < 3; ++iKey) {
        ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, sRoot.c_str(), "root", "", nullptr));
        EXPECT_EQ(Read(sFile), "data");
        const CCachedFile kept = Get(sFile);
        const std::string sLink = "/proc/self/fd/" + std::to_string(kept.Get());
        m_Log.Clear();
        switch (iKey) {
            case 0:
                m_Utilities.RemoveMountInfoByLocalMountPath(&m_Param, &m_Tag, sRoot.c_str());
                EXPECT_EQ(TakeLog(), Lines{"[Test] OS close file \"" + sFile + "\""});
                break;
            case 1:
                m_Utilities.RemoveMountInfoByExportName("root");
                break;
            default:
                m_Utilities.RemoveAllMountInfo();
        }
        EXPECT_NE(Get(sFile).Get(), kept.Get()) << "the cache had let go of it, key " << iKey;
        m_Utilities.CloseCachedFileHandle(&m_Param, &m_Tag, sFile.c_str());
    }
    EXPECT_EQ(Get(sBeside).Get(), iBeside);
}

TEST_F(DescriptorCacheLooksTest, ExportOfAnEmptyPathClosesNothingWhenItGoes) {
    const int iFile = Get(MakeFile("f", "data")).Get();
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, "", "nothing", "", nullptr));
    m_Utilities.RemoveMountInfoByExportName("nothing");
    EXPECT_EQ(Get(m_Folder / "f").Get(), iFile);
}

// The export may go between a call's check and its open: what the call opens then does not stay behind.
TEST_F(DescriptorCacheLooksTest, CallThatOutlivesItsExportLeavesNothingOpen) {
    if (!MountAt("fs")) {
        GTEST_SKIP() << "no file system can be mounted";
    }
    EXPECT_EQ(Read(MakeFile("fs/f", "data")), "data");
    EXPECT_EQ(::umount(m_sMounted.c_str()), 0);
    m_sMounted.clear();
}

TEST_F(DescriptorCacheLooksTest, HostsDescriptorOfADeviceIsNotLentToClients) {
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, "/dev", "dev", "", nullptr));
    const int iZero = Get("/dev/zero").Get();
    ASSERT_NE(iZero, -1);
    m_Log.Clear();
    EXPECT_EQ(Read("/dev/zero"), "-");
    EXPECT_EQ(Lines(m_Log.Texts()).back(), "[Test] OS open file \"/dev/zero\". Error=Operation not supported (95)");
    EXPECT_EQ(Get("/dev/zero").Get(), iZero) << "the host keeps it";
}

// Like every failed open: the next request tries anew, and the closing tells.
TEST_F(DescriptorCacheLooksTest, WhatIsNotOpenedForAClientLeavesAnEntryWithoutDescriptor) {
    ExportFolder();
    const std::string sFolder = m_Folder / "folder";
    const std::string sPipe = m_Folder / "pipe";
    ASSERT_EQ(::mkdir(sFolder.c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo(sPipe.c_str(), 0644), 0);
    for (const std::string& sPath : {sFolder, sPipe}) {
        for (int i = 0; i < 2; ++i) {
            m_Log.Clear();
            EXPECT_EQ(Read(sPath), "-");
            const std::string sError = sPath == sFolder ? "Is a directory (21)" : "Operation not supported (95)";
            const Lines vLines = m_Log.Texts();
            EXPECT_THAT(vLines, Contains("[Test] open read/write mode " + sPath));
            EXPECT_EQ(vLines.back(), "[Test] OS open file \"" + sPath + "\". Error=" + sError);
        }
        m_Log.Clear();
        m_Utilities.CloseCachedFileHandle(&m_Param, &m_Tag, sPath.c_str());
        EXPECT_EQ(Lines(m_Log.Texts()), Lines{"[Test] OS close file \"" + sPath + "\". Error=Bad file descriptor"});
    }
}

TEST_F(DescriptorCacheLooksTest, SynchronousWritesAreFlushed) {
    ExportFolder();
    const std::string sFile = MakeFile("f", "");
    const std::string sSync = "[Test] OS sync file (" + std::to_string(Get(sFile).Get()) + ")";
    EXPECT_FALSE(m_Utilities.IsSyncWrites());
    EXPECT_EQ(Write(sFile, "x"), 1);
    EXPECT_THAT(TakeLog(), Not(Contains(sSync)));
    m_Utilities.SetSyncWrites(true);
    EXPECT_EQ(Write(sFile, "y"), 1);
    EXPECT_EQ(TakeLog().back(), sSync);
    EXPECT_EQ(Read(sFile), "y");
    EXPECT_THAT(TakeLog(), Not(Contains(sSync)));
    EXPECT_EQ(m_Utilities.OS_FileSync(&m_Param, &m_Tag, -1, m_vcReason), -1);
    EXPECT_STREQ(m_vcReason, "Bad file descriptor");
    EXPECT_EQ(TakeLog(), Lines{"[Test] OS sync file (-1). Error=Bad file descriptor"});
}

}  // namespace
