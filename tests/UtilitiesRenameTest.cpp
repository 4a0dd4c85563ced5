// Renaming, and what must never be lost by it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "RedirectedFile.h"
#include "UtilitiesFixture.h"

namespace {

class UtilitiesRenameTest : public UtilitiesFixture {
protected:
    using Lines = std::vector<std::string>;

    void SetUp() override {
        m_Param.SetLogControl(0);
        ExportFolder();
        m_Param.SetLogControl(CRuntimeParam::kLogError | CRuntimeParam::kLogFileAccess);
    }

    bool Rename(const std::string& sFrom, const std::string& sTo) {
        return m_Utilities.RenameFile(&m_Param, &m_Tag, sFrom.c_str(), sTo.c_str());
    }
    unsigned int GetID(const std::string& sPath) { return m_Utilities.GetFileID(&m_Param, &m_Tag, sPath.c_str()); }
    /// The path that an ID stands for now.
    std::string PathOf(unsigned int iID) {
        char vcHandle[kNfs3HandleSize] = {};
        std::memcpy(vcHandle, &iID, sizeof(iID));
        char vcPath[kPathBufferSize] = "";
        m_Utilities.GetFilePath(&m_Param, vcHandle, vcPath, sizeof(vcPath));
        return vcPath;
    }
    bool Exists(const std::string& sPath) { return m_Utilities.OS_IsFileExists(sPath.c_str(), nullptr); }
    std::string MakeFolder(const std::string& sName) {
        EXPECT_EQ(::mkdir((m_Folder / sName).c_str(), 0755), 0);
        return m_Folder / sName;
    }
    /// Up to 20 characters through the descriptor cache; "-" for a failure.
    std::string Read(const std::string& sPath) {
        char vcBuffer[20];
        bool bEof = false;
        const int iRead = m_Utilities.ReadFile(&m_Param, &m_Tag, sPath.c_str(), 0, SEEK_SET, vcBuffer, 20, &bEof);
        return iRead < 0 ? "-" : std::string(vcBuffer, static_cast<std::size_t>(iRead));
    }
};

TEST_F(UtilitiesRenameTest, RenamedFileKeepsItsHandle) {
    const std::string sFrom = MakeFile("f", "content");
    const std::string sTo = m_Folder / "g";
    const unsigned int iID = GetID(sFrom);
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Rename file, pathFrom=" + sFrom + ", pathTo=" + sTo,
                                "[Test] OS rename file from \"" + sFrom + "\" to \"" + sTo + "\""}));
    EXPECT_EQ(PathOf(iID), sTo);
    EXPECT_EQ(GetID(sTo), iID);
    EXPECT_EQ(ReadWholeFile(sTo), "content");
    EXPECT_FALSE(Exists(sFrom));
}

TEST_F(UtilitiesRenameTest, HandleFollowsHoweverThePathsAreSpelled) {
    const std::string sFrom = MakeFile("f", "content");
    MakeFolder("d");
    const unsigned int iID = GetID(sFrom);
    EXPECT_TRUE(Rename(m_Folder.Path() + "/./f", m_Folder / "d/../g"));
    EXPECT_EQ(PathOf(iID), m_Folder / "g");
    EXPECT_TRUE(Rename(m_Folder / "g", m_Folder / "d/../h"));
    EXPECT_EQ(PathOf(iID), m_Folder / "h");
    EXPECT_EQ(GetID(m_Folder / "h"), iID);
}

TEST_F(UtilitiesRenameTest, FileWithoutHandleIsRenamedButReportedFalse) {
    const std::string sFrom = MakeFile("f", "content");
    EXPECT_FALSE(Rename(sFrom, m_Folder / "g"));
    EXPECT_EQ(ReadWholeFile(m_Folder / "g"), "content");
}

TEST_F(UtilitiesRenameTest, ExistingTargetIsRemovedFirst) {
    const std::string sFrom = MakeFile("f", "new");
    const std::string sTo = MakeFile("g", "old");
    const unsigned int iID = GetID(sFrom);
    EXPECT_EQ(Read(sFrom), "new");
    EXPECT_EQ(Read(sTo), "old");
    m_Log.Clear();
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Rename file, pathFrom=" + sFrom + ", pathTo=" + sTo,
                                "[Test] Remove file, path=" + sTo, "[Test] OS close file \"" + sTo + "\"",
                                "[Test] OS remove file \"" + sTo + "\"", "[Test] OS close file \"" + sFrom + "\"",
                                "[Test] OS rename file from \"" + sFrom + "\" to \"" + sTo + "\""}));
    EXPECT_EQ(Read(sTo), "new");
    EXPECT_EQ(PathOf(iID), sTo);
    MakeFile("f", "another");
    EXPECT_EQ(Read(sFrom), "another");
}

TEST_F(UtilitiesRenameTest, TargetThatCannotBeRemovedLeavesTheSourceUntouched) {
    const std::string sFrom = MakeFile("f", "new");
    const std::string sTo = MakeFolder("full");
    MakeFile("full/x", "kept");
    GetID(sFrom);
    EXPECT_FALSE(Rename(sFrom, sTo));
    EXPECT_EQ(TakeLog('e'), Lines{"[Test] OS remove file \"" + sTo + "\". Error=Directory not empty (39)"});
    EXPECT_EQ(ReadWholeFile(sFrom), "new");
    EXPECT_EQ(ReadWholeFile(sTo + "/x"), "kept");
}

TEST_F(UtilitiesRenameTest, EmptyFolderIsReplacedByAFolder) {
    const std::string sFrom = MakeFolder("d");
    const std::string sTo = MakeFolder("e");
    MakeFile("d/x", "kept");
    GetID(sFrom);
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(ReadWholeFile(sTo + "/x"), "kept");
}

TEST_F(UtilitiesRenameTest, RenameOntoItselfSucceedsAndChangesNothing) {
    const std::string sFile = MakeFile("f", "content");
    const unsigned int iID = GetID(sFile);
    MakeFolder("d");
    ASSERT_EQ(::symlink(m_Folder.Path().c_str(), (m_Folder / "link").c_str()), 0);
    for (const std::string& sSame :
         {sFile, m_Folder.Path() + "//f", m_Folder.Path() + "/./f", m_Folder / "d/../f", m_Folder / "link/f"}) {
        EXPECT_TRUE(Rename(sFile, sSame)) << sSame;
        EXPECT_TRUE(Rename(sSame, sFile)) << sSame;
        EXPECT_EQ(ReadWholeFile(sFile), "content") << sSame;
    }
    EXPECT_EQ(PathOf(iID), sFile);
    const std::string sFolder = m_Folder / "d";
    EXPECT_TRUE(Rename(sFolder, sFolder + "/"));
    EXPECT_TRUE(Exists(sFolder));
}

TEST_F(UtilitiesRenameTest, FolderIsNotMovedIntoItselfAndNothingInItIsLost) {
    const std::string sFolder = MakeFolder("d");
    const std::string sFile = MakeFile("d/x", "kept");
    GetID(sFolder);
    m_Log.Clear();
    EXPECT_FALSE(Rename(sFolder, sFile));
    EXPECT_FALSE(Rename(sFolder, sFolder + "/new"));
    const std::string sFailure = "[Test] OS rename file from \"" + sFolder + "\" to \"";
    EXPECT_EQ(TakeLog('e'), (Lines{sFailure + sFile + "\". Error=Invalid argument (22)",
                                   sFailure + sFolder + "/new\". Error=Invalid argument (22)"}));
    EXPECT_EQ(ReadWholeFile(sFile), "kept");
}

TEST_F(UtilitiesRenameTest, FileIsNotMovedOntoTheFolderThatHoldsIt) {
    const std::string sFolder = MakeFolder("d");
    const std::string sFile = MakeFile("d/x", "kept");
    EXPECT_FALSE(Rename(sFile, sFolder));
    EXPECT_EQ(ReadWholeFile(sFile), "kept");
}

TEST_F(UtilitiesRenameTest, MissingSourceCostsTheTargetNothing) {
    const std::string sTo = MakeFile("g", "kept");
    GetID(m_Folder / "none");
    EXPECT_FALSE(Rename(m_Folder / "none", sTo));
    EXPECT_EQ(ReadWholeFile(sTo), "kept");
}

TEST_F(UtilitiesRenameTest, PathWithoutFileStillCarriesItsHandleAlong) {
    const unsigned int iID = GetID(m_Folder / "none");
    EXPECT_TRUE(Rename(m_Folder / "none", m_Folder / "other"));
    EXPECT_EQ(PathOf(iID), m_Folder / "other");
}

TEST_F(UtilitiesRenameTest, RenameAcrossFileSystemsLosesNothing) {
    const std::string sFrom = MakeFile("f", "source");
    const std::string sTo = "/dev/shm/nfslib-rename-test-" + std::to_string(::getpid());
    struct stat here {};
    struct stat there {};
    if (::stat(m_Folder.Path().c_str(), &here) != 0 || ::stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev) {
        GTEST_SKIP() << "needs /dev/shm on another file system than /tmp";
    }
    WriteWholeFile(sTo, "kept");
    EXPECT_FALSE(Rename(sFrom, sTo));
    EXPECT_EQ(TakeLog('e'), Lines{"[Test] OS rename file from \"" + sFrom + "\" to \"" + sTo +
                                  "\". Error=Invalid cross-device link (18)"});
    EXPECT_EQ(ReadWholeFile(sFrom), "source");
    EXPECT_EQ(ReadWholeFile(sTo), "kept");
    EXPECT_EQ(::unlink(sTo.c_str()), 0);
}

TEST_F(UtilitiesRenameTest, HardLinkTakesTheOtherNamesPlace) {
    const std::string sFrom = MakeFile("f", "content");
    const std::string sTo = m_Folder / "g";
    ASSERT_EQ(::link(sFrom.c_str(), sTo.c_str()), 0);
    GetID(sFrom);
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_FALSE(Exists(sFrom));
    EXPECT_EQ(ReadWholeFile(sTo), "content");
}

TEST_F(UtilitiesRenameTest, WhatLiesBelowARenamedFolderFollows) {
    const std::string sFrom = MakeFolder("d");
    const std::string sTo = m_Folder / "e";
    const std::string sInside = MakeFile("d/x", "inside");
    const std::string sBeside = MakeFile("d.x", "beside");
    const unsigned int iFolder = GetID(sFrom);
    const unsigned int iInside = GetID(sInside);
    const unsigned int iBeside = GetID(sBeside);
    EXPECT_EQ(Read(sInside), "inside");
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(PathOf(iFolder), sTo);
    EXPECT_EQ(PathOf(iInside), sTo + "/x");
    EXPECT_EQ(PathOf(iBeside), sBeside);
    MakeFolder("d");
    MakeFile("d/x", "another");
    EXPECT_EQ(Read(sInside), "another") << "no descriptor of the moved file goes by its old path";
    EXPECT_EQ(Read(sTo + "/x"), "inside");
}

TEST_F(UtilitiesRenameTest, DescriptorInUseStaysTheSameFile) {
    const std::string sFrom = MakeFile("f", "content");
    const CCachedFile user = m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, sFrom.c_str(), false);
    Rename(sFrom, m_Folder / "g");
    MakeFile("f", "another");
    char vcBuffer[20] = "";
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, user, 0, vcBuffer, 19, nullptr), 7);
    EXPECT_STREQ(vcBuffer, "content");
}

TEST_F(UtilitiesRenameTest, RedirectedFileIsRenamedInItsRegistryAndTheHostAsked) {
    for (const int iAnswer : {0, 5}) {
        const std::string sFrom = MakeFile("virtual", "on disk");
        const std::string sTo = m_Folder / "moved";
        ::unlink(sTo.c_str());
        const unsigned int iID = GetID(sFrom);
        const auto pFile = m_Utilities.OpenRedirectedFile(&m_Param, sFrom.c_str(), 10, false, 0, 0);
        m_Log.SetHost([&](const Notification& notification) {
            EXPECT_EQ(notification.sOperation, "rename");
            EXPECT_EQ(notification.sPath, sFrom);
            EXPECT_EQ(notification.sPathTo, sTo);
            EXPECT_EQ(m_Utilities.GetRedirectedFile(sTo.c_str()), pFile) << "renamed before the host is asked";
            return iAnswer;
        });
        EXPECT_EQ(Rename(sFrom, sTo), iAnswer == 0);
        EXPECT_EQ(m_Utilities.GetRedirectedFile(sFrom.c_str()), nullptr);
        EXPECT_EQ(ReadWholeFile(sTo), "on disk");
        EXPECT_EQ(PathOf(iID), iAnswer == 0 ? sTo : sFrom);
    }
}

/// Else clients would read what is on disk under the new paths.
TEST_F(UtilitiesRenameTest, RedirectedFilesBelowARenamedFolderFollowAndTheHostIsAskedForEach) {
    const std::string sFrom = m_Folder / "folder";
    const std::string sTo = m_Folder / "moved";
    for (const int iRefused : {-1, 0, 1}) {
        std::filesystem::create_directories(sFrom + "/deep");
        const unsigned int iID = GetID(sFrom);
        const std::string sFirst = MakeFile("folder/deep/a", "on disk");
        const auto pFirst = m_Utilities.OpenRedirectedFile(&m_Param, sFirst.c_str(), 10, false, 0, 0);
        const std::string sSecond = sFrom + "/not-on-disk";
        const auto pSecond = m_Utilities.OpenRedirectedFile(&m_Param, sSecond.c_str(), 10, false, 0, 0);
        const std::string sNeighbour = sFrom + "-neighbour";
        const auto pNeighbour = m_Utilities.OpenRedirectedFile(&m_Param, sNeighbour.c_str(), 10, false, 0, 0);
        Lines vsAsked;
        m_Log.SetHost([&](const Notification& notification) {
            vsAsked.push_back(notification.sOperation + " " + notification.sPath + " " + notification.sPathTo);
            return static_cast<int>(vsAsked.size()) - 1 == iRefused ? 5 : 0;
        });
        EXPECT_EQ(Rename(sFrom, sTo), iRefused == -1);
        EXPECT_EQ(vsAsked, (Lines{"rename " + sFirst + " " + sTo + "/deep/a",
                                  "rename " + sSecond + " " + sTo + "/not-on-disk"}));
        EXPECT_EQ(m_Utilities.GetRedirectedFile(sFirst.c_str()), nullptr);
        EXPECT_EQ(m_Utilities.GetRedirectedFile((sTo + "/deep/a").c_str()), pFirst);
        EXPECT_EQ(m_Utilities.GetRedirectedFile((sTo + "/not-on-disk").c_str()), pSecond);
        EXPECT_EQ(m_Utilities.GetRedirectedFile(sNeighbour.c_str()), pNeighbour);
        EXPECT_EQ(PathOf(iID), sTo) << "handles follow what has happened on disk, whatever the host says";
        std::filesystem::remove_all(sTo);
    }
}

TEST_F(UtilitiesRenameTest, RedirectedFileWithoutAFileOnDiskIsRenamed) {
    const std::string sFrom = m_Folder / "virtual";
    const std::string sTo = m_Folder / "moved";
    GetID(sFrom);
    m_Utilities.OpenRedirectedFile(&m_Param, sFrom.c_str(), 10, false, 0, 0);
    m_Log.SetHost([](const Notification&) { return 0; });
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_NE(m_Utilities.GetRedirectedFile(sTo.c_str()), nullptr);
    EXPECT_FALSE(Exists(sTo));
}

TEST_F(UtilitiesRenameTest, RedirectedTargetIsRemovedWithTheHostsGrant) {
    const std::string sFrom = MakeFile("f", "new");
    const std::string sTo = MakeFile("virtual", "on disk");
    GetID(sFrom);
    m_Utilities.OpenRedirectedFile(&m_Param, sTo.c_str(), 10, false, 0, 0);
    EXPECT_FALSE(Rename(sFrom, sTo)) << "no host grants it";
    EXPECT_EQ(ReadWholeFile(sFrom), "new");
    MakeFile("virtual", "on disk");
    m_Utilities.OpenRedirectedFile(&m_Param, sTo.c_str(), 10, false, 0, 0);
    m_Log.SetHost([](const Notification& notification) { return notification.sOperation == "remove" ? 0 : 1; });
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(m_Utilities.GetRedirectedFile(sTo.c_str()), nullptr);
    EXPECT_EQ(Read(sTo), "new");
}

}  // namespace
