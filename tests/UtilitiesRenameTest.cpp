// Renaming, and what must never be lost by it.
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    std::shared_ptr<CRedirectedFile> Open(const std::string& sPath) {
        return m_Utilities.OpenRedirectedFile(&m_Param, sPath.c_str(), 10, false, 0, 0);
    }
    std::shared_ptr<CRedirectedFile> Find(const std::string& sPath) {
        return m_Utilities.GetRedirectedFile(sPath.c_str());
    }
    static std::string Describe(const Notification& notification) {
        return notification.sID + ": " + notification.sOperation + " " + notification.sPath +
               (notification.sPathTo.empty() ? "" : " " + notification.sPathTo);
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
        const std::string& sNow = iAnswer == 0 ? sTo : sFrom;
        EXPECT_EQ(m_Utilities.GetRedirectedFile(sNow.c_str()), pFile);
        EXPECT_EQ(m_Utilities.GetRedirectedFile((iAnswer == 0 ? sFrom : sTo).c_str()), nullptr);
        EXPECT_EQ(ReadWholeFile(sNow), "on disk");
        EXPECT_FALSE(Exists(iAnswer == 0 ? sFrom : sTo));
        EXPECT_EQ(PathOf(iID), sNow);
        EXPECT_EQ(GetID(sNow), iID);
        m_Utilities.CloseAllRedirectedFiles(&m_Param);
    }
}

/// Clients see no such file, so its host is told of the rename alone.
TEST_F(UtilitiesRenameTest, RedirectedFileTakesThePlaceOfOneThatIsOnlyInTheRegistry) {
    const std::string sFrom = MakeFile("virtual", "on disk");
    const std::string sTo = m_Folder / "moved";
    GetID(sFrom);
    const auto pFile = Open(sFrom);
    const auto pDropped = Open(sTo);
    m_Log.SetHost([](const Notification&) { return 0; });
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(m_Log.Notifications().size(), 1U);
    EXPECT_EQ(m_Log.Notifications().front().sOperation, "rename");
    EXPECT_EQ(Find(sTo), pFile);
    EXPECT_TRUE(pDropped->IsClosed());
}

/// Else clients would read what is on disk under the new paths.
TEST_F(UtilitiesRenameTest, RedirectedFilesBelowARenamedFolderFollowAndTheHostIsAskedForEach) {
    const std::string sFrom = m_Folder / "folder";
    const std::string sTo = m_Folder / "moved";
    std::filesystem::create_directories(sFrom + "/deep");
    const unsigned int iID = GetID(sFrom);
    const std::string sFirst = MakeFile("folder/deep/a", "on disk");
    const auto pFirst = Open(sFirst);
    const std::string sSecond = sFrom + "/not-on-disk";
    const auto pSecond = Open(sSecond);
    const std::string sNeighbour = sFrom + "-neighbour";
    const auto pNeighbour = Open(sNeighbour);
    Lines vsAsked;
    m_Log.SetHost([&](const Notification& notification) {
        EXPECT_EQ(Find(sTo + "/not-on-disk"), pSecond) << "all is renamed before anybody is asked";
        vsAsked.push_back(Describe(notification));
        return 0;
    });
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(vsAsked, (Lines{"data: rename " + sFirst + " " + sTo + "/deep/a",
                              "data: rename " + sSecond + " " + sTo + "/not-on-disk"}));
    EXPECT_EQ(Find(sFirst), nullptr);
    EXPECT_EQ(Find(sTo + "/deep/a"), pFirst);
    EXPECT_EQ(Find(sTo + "/not-on-disk"), pSecond);
    EXPECT_EQ(Find(sNeighbour), pNeighbour);
    EXPECT_EQ(PathOf(iID), sTo);
}

TEST_F(UtilitiesRenameTest, OneRefusalTakesAWholeFolderBackAndThoseWhoAgreedAreTold) {
    const std::string sFrom = m_Folder / "folder";
    const std::string sTo = m_Folder / "moved";
    std::filesystem::create_directories(sFrom);
    const unsigned int iFolder = GetID(sFrom);
    const unsigned int iInside = GetID(MakeFile("folder/b", "inside"));
    for (const char* pcName : {"a", "b", "c", "d"}) {
        Open(sFrom + "/" + pcName);
    }
    Lines vsAsked;
    m_Log.SetHost([&](const Notification& notification) {
        vsAsked.push_back(Describe(notification));
        return notification.sPath == sFrom + "/c" ? 1 : 0;
    });
    EXPECT_FALSE(Rename(sFrom, sTo));
    const auto describe = [](const std::string& sOld, const std::string& sNew, const std::string& sName) {
        return "data: rename " + sOld + "/" + sName + " " + sNew + "/" + sName;
    };
    EXPECT_EQ(vsAsked, (Lines{describe(sFrom, sTo, "a"), describe(sFrom, sTo, "b"), describe(sFrom, sTo, "c"),
                              describe(sTo, sFrom, "b"), describe(sTo, sFrom, "a")}))
        << "nobody is asked behind a refusal; what was agreed upon is taken back, the last first";
    EXPECT_EQ(ReadWholeFile(sFrom + "/b"), "inside");
    EXPECT_FALSE(Exists(sTo));
    for (const char* pcName : {"a", "b", "c", "d"}) {
        EXPECT_NE(Find(sFrom + "/" + pcName), nullptr) << pcName;
        EXPECT_EQ(Find(sTo + "/" + pcName), nullptr) << pcName;
    }
    EXPECT_EQ(PathOf(iFolder), sFrom);
    EXPECT_EQ(PathOf(iInside), sFrom + "/b");
}

/// What was replaced is gone. A program that cleans up behind the failure removes what it believes to be its temporary
/// file, and must not remove the only copy.
TEST_F(UtilitiesRenameTest, RefusedRenameThatReplacedAFileStaysUnderTheNewPathInEveryRespect) {
    const std::string sFrom = MakeFile("virtual", "on disk");
    const std::string sTo = MakeFile("target", "lost");
    const unsigned int iID = GetID(sFrom);
    const auto pFile = Open(sFrom);
    m_Log.SetHost([](const Notification&) { return 5; });
    EXPECT_FALSE(Rename(sFrom, sTo));
    EXPECT_EQ(m_Log.Notifications().size(), 1U);
    EXPECT_EQ(Find(sTo), pFile);
    EXPECT_EQ(Find(sFrom), nullptr);
    EXPECT_EQ(ReadWholeFile(sTo), "on disk");
    EXPECT_FALSE(Exists(sFrom));
    EXPECT_EQ(PathOf(iID), sTo) << "the handle names the file that it was given for";
}

/// Whoever is not heard before is told in the end: that is what came about.
TEST_F(UtilitiesRenameTest, RefusedRenameOfAFolderThatReplacedOneIsToldToAll) {
    const std::string sFrom = MakeFolder("folder");
    const std::string sTo = MakeFolder("empty");
    const unsigned int iID = GetID(sFrom);
    Open(sFrom + "/a");
    Open(sFrom + "/b");
    m_Log.SetHost([](const Notification& notification) { return notification.sPath.ends_with("/a") ? 1 : 0; });
    EXPECT_FALSE(Rename(sFrom, sTo));
    EXPECT_EQ(m_Log.Notifications().size(), 2U);
    EXPECT_NE(Find(sTo + "/a"), nullptr);
    EXPECT_NE(Find(sTo + "/b"), nullptr);
    EXPECT_EQ(PathOf(iID), sTo);
}

/// The host may use the registry and the disk while it is asked; nothing of what it puts there is overwritten.
TEST_F(UtilitiesRenameTest, RefusedRenameStaysWhereTheOldPathWasTakenMeanwhile) {
    for (const bool bOnDisk : {true, false}) {
        const std::string sFrom = MakeFile("virtual", "on disk");
        const std::string sTo = m_Folder / (bOnDisk ? "disk" : "registry");
        const unsigned int iID = GetID(sFrom);
        const auto pFile = Open(sFrom);
        std::shared_ptr<CRedirectedFile> pAnew;
        m_Log.SetHost([&](const Notification&) {
            if (bOnDisk) {
                WriteWholeFile(sFrom, "the host's");
            } else {
                pAnew = Open(sFrom);
            }
            return 5;
        });
        EXPECT_FALSE(Rename(sFrom, sTo));
        EXPECT_EQ(Find(sTo), pFile);
        EXPECT_EQ(ReadWholeFile(sTo), "on disk");
        EXPECT_EQ(PathOf(iID), sTo);
        EXPECT_EQ(Find(sFrom), pAnew);
        if (bOnDisk) {
            EXPECT_EQ(ReadWholeFile(sFrom), "the host's");
        }
        m_Utilities.CloseAllRedirectedFiles(&m_Param);
    }
}

TEST_F(UtilitiesRenameTest, InfoFileGoesBackWithARefusedRename) {
    const std::string sFrom = MakeFile("virtual", "");
    const std::string sTo = m_Folder / "moved";
    GetID(sFrom);
    m_Utilities.OpenRedirectedFile(&m_Param, sFrom.c_str(), 100, true, 0, 0);
    const auto add = [this](const std::string& sPath, long long iOffset) {
        return m_Utilities.AddRedirectedFileSegment(&m_Param, sPath.c_str(), nullptr, 0, iOffset, 10, nullptr);
    };
    EXPECT_TRUE(add(sFrom, 0));
    m_Log.SetHost([&](const Notification&) {
        EXPECT_TRUE(add(sTo, 10));
        return 5;
    });
    EXPECT_FALSE(Rename(sFrom, sTo));
    EXPECT_TRUE(add(sFrom, 20));
    EXPECT_EQ(ReadWholeFile(sFrom).size(), 96U) << "one record for each, whatever it was called at the time";
}

// ---- Two owners

class RenameOfTwoOwnersTest : public UtilitiesRenameTest {
protected:
    void SetUp() override {
        m_Param.SetLogControl(0);
        for (const char* pcName : {"a", "b", "c"}) {
            // The third export is the first one's owner's, too.
            const char* pcOwner = *pcName == 'b' ? "owner-b" : "owner-a";
            ASSERT_TRUE(
                m_Utilities.AddMountInfo(&m_Param, &m_Tag, MakeFolder(pcName).c_str(), pcName, pcOwner, nullptr));
        }
        // The call comes through the first export.
        m_Param.SetID("a");
        m_Param.SetIpcID("owner-a");
        m_Log.SetHost([this](const Notification& notification) {
            m_vsAsked.push_back(notification.sIpcID + " " + Describe(notification));
            return notification.sIpcID == m_sRefusing ? 1 : 0;
        });
    }

    Lines m_vsAsked;
    std::string m_sRefusing;
};

TEST_F(RenameOfTwoOwnersTest, BothAreAskedTheOldOwnerFirst) {
    const std::string sFrom = MakeFile("a/disk", "");
    const std::string sTo = m_Folder / "b/disk";
    GetID(sFrom);
    Open(sFrom);
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(m_vsAsked, (Lines{"owner-a a: rename " + sFrom + " " + sTo, "owner-b b: rename " + sFrom + " " + sTo}));
}

TEST_F(RenameOfTwoOwnersTest, EitherMayRefuse) {
    const std::string sFrom = MakeFile("a/disk", "on disk");
    const std::string sTo = m_Folder / "b/disk";
    const std::string sForth = "rename " + sFrom + " " + sTo;
    const unsigned int iID = GetID(sFrom);
    const auto pFile = Open(sFrom);
    for (const char* pcRefusing : {"owner-a", "owner-b"}) {
        m_vsAsked.clear();
        m_sRefusing = pcRefusing;
        EXPECT_FALSE(Rename(sFrom, sTo)) << pcRefusing;
        EXPECT_EQ(Find(sFrom), pFile) << pcRefusing;
        EXPECT_EQ(ReadWholeFile(sFrom), "on disk") << pcRefusing;
        EXPECT_EQ(PathOf(iID), sFrom) << pcRefusing;
        Lines vsExpected{"owner-a a: " + sForth};
        if (m_sRefusing == "owner-b") {
            vsExpected.push_back("owner-b b: " + sForth);
            vsExpected.push_back("owner-a a: rename " + sTo + " " + sFrom);
        }
        EXPECT_EQ(m_vsAsked, vsExpected) << "who agreed is told that nothing came of it";
    }
}

TEST_F(RenameOfTwoOwnersTest, AnOwnerIsAskedOnceHoweverManyExportsItHas) {
    const std::string sFrom = MakeFile("a/disk", "");
    GetID(sFrom);
    Open(sFrom);
    EXPECT_TRUE(Rename(sFrom, m_Folder / "c/disk"));
    EXPECT_EQ(m_vsAsked, Lines{"owner-a a: rename " + sFrom + " " + m_Folder / "c/disk"});
}

TEST_F(RenameOfTwoOwnersTest, OwnerOfAReplacedFileIsToldOfItsRemoval) {
    const std::string sFrom = MakeFile("a/plain", "plain");
    const std::string sTo = MakeFile("b/disk", "on disk");
    GetID(sFrom);
    Open(sTo);
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(m_vsAsked, Lines{"owner-b b: remove " + sTo});
    EXPECT_EQ(Find(sTo), nullptr);
    EXPECT_EQ(Read(sTo), "plain");
}

TEST_F(RenameOfTwoOwnersTest, OwnerOfAReplacedFileThatIsOnlyInTheRegistryIsToldToo) {
    const std::string sFrom = MakeFile("a/plain", "plain");
    const std::string sTo = m_Folder / "b/disk";
    GetID(sFrom);
    Open(sTo);
    EXPECT_TRUE(Rename(sFrom, sTo));
    EXPECT_EQ(m_vsAsked, Lines{"owner-b b: remove " + sTo});
    EXPECT_EQ(Find(sTo), nullptr);
    EXPECT_EQ(Read(sTo), "plain") << "not hidden behind a redirected file that is no more";
}

TEST_F(RenameOfTwoOwnersTest, RemovalThatItsOwnerRefusesLeavesTheSourceUntouched) {
    const std::string sFrom = MakeFile("a/disk", "source");
    const std::string sTo = MakeFile("b/disk", "target");
    GetID(sFrom);
    const auto pFile = Open(sFrom);
    Open(sTo);
    m_sRefusing = "owner-b";
    EXPECT_FALSE(Rename(sFrom, sTo));
    EXPECT_EQ(m_vsAsked, Lines{"owner-b b: remove " + sTo});
    EXPECT_EQ(Find(sFrom), pFile);
    EXPECT_EQ(ReadWholeFile(sFrom), "source");
}

TEST_F(RenameOfTwoOwnersTest, FilesBelowAFolderAreToldToBoth) {
    const std::string sFrom = m_Folder / "a/folder";
    const std::string sTo = m_Folder / "b/folder";
    MakeFolder("a/folder");
    GetID(sFrom);
    Open(sFrom + "/x");
    Open(sFrom + "/y");
    EXPECT_TRUE(Rename(sFrom, sTo));
    Lines vsExpected;
    for (const std::string sName : {"/x", "/y"}) {
        const std::string sRenamed = "rename " + sFrom + sName + " " + sTo + sName;
        vsExpected.push_back("owner-a a: " + sRenamed);
        vsExpected.push_back("owner-b b: " + sRenamed);
    }
    EXPECT_EQ(m_vsAsked, vsExpected);
}

/// The call's parameter is that of another export: whose it is goes by the file.
TEST_F(RenameOfTwoOwnersTest, EveryChangeIsToldToTheOwnerOfTheFilesExport) {
    const std::string sPath = MakeFile("b/disk", "");
    Open(sPath);
    m_Utilities.WriteFile(&m_Param, &m_Tag, sPath.c_str(), 0, SEEK_SET, "x", 1);
    m_Utilities.UpdateFileAttributes(&m_Param, &m_Tag, sPath.c_str(), false, 0, false, 0, false, 0, true, 7, false, 0,
                                     0, false, 0, 0);
    EXPECT_TRUE(m_Utilities.RemoveFile(&m_Param, &m_Tag, sPath.c_str()));
    EXPECT_EQ(m_vsAsked,
              (Lines{"owner-b b: write " + sPath, "owner-b b: update " + sPath, "owner-b b: remove " + sPath}));
    EXPECT_STREQ(m_Param.GetIpcID(), "owner-a") << "the call's log lines stay with the export that it came through";
}

TEST_F(RenameOfTwoOwnersTest, FileInNoExportIsToldToWhomTheCallIsFor) {
    Open("/nowhere/disk");
    m_Utilities.WriteFile(&m_Param, &m_Tag, "/nowhere/disk", 0, SEEK_SET, "x", 1);
    EXPECT_EQ(m_vsAsked, Lines{"owner-a a: write /nowhere/disk"});
}

// ---- The entry itself, never what a link leads to

TEST_F(UtilitiesRenameTest, LinkIsRenamedAndNotItsTarget) {
    const std::string sTarget = MakeFile("target", "kept");
    ASSERT_EQ(::symlink(sTarget.c_str(), (m_Folder / "link").c_str()), 0);
    const unsigned int iID = GetID(sTarget);
    EXPECT_TRUE(Rename(m_Folder / "link", m_Folder / "other")) << "a link has no handle of its own";
    EXPECT_EQ(std::filesystem::read_symlink(m_Folder / "other"), sTarget);
    EXPECT_FALSE(std::filesystem::is_symlink(m_Folder / "link"));
    EXPECT_EQ(ReadWholeFile(sTarget), "kept");
    EXPECT_EQ(PathOf(iID), sTarget);
}

TEST_F(UtilitiesRenameTest, DanglingLinkIsRenamed) {
    ASSERT_EQ(::symlink("nothing", (m_Folder / "link").c_str()), 0);
    EXPECT_TRUE(Rename(m_Folder / "link", m_Folder / "other"));
    EXPECT_EQ(std::filesystem::read_symlink(m_Folder / "other"), "nothing");
}

TEST_F(UtilitiesRenameTest, LinkAtTheTargetIsReplacedAndWhatItLeadsToIsKept) {
    MakeFile("kept", "kept");
    MakeFolder("folder");
    for (const char* pcLeadsTo : {"kept", "nothing", "folder"}) {
        const std::string sFrom = MakeFile("f", "content");
        const std::string sTo = m_Folder / "link";
        ASSERT_EQ(::symlink(pcLeadsTo, sTo.c_str()), 0);
        GetID(sFrom);
        m_Log.Clear();
        EXPECT_TRUE(Rename(sFrom, sTo)) << pcLeadsTo;
        EXPECT_TRUE(m_Log.Has("[Test] OS remove file \"" + sTo + "\"")) << "the link is what was there";
        EXPECT_FALSE(std::filesystem::is_symlink(sTo)) << pcLeadsTo;
        EXPECT_EQ(ReadWholeFile(sTo), "content") << pcLeadsTo;
        EXPECT_EQ(::unlink(sTo.c_str()), 0);
    }
    EXPECT_EQ(ReadWholeFile(m_Folder / "kept"), "kept");
    EXPECT_TRUE(Exists(m_Folder / "folder"));
    EXPECT_FALSE(Exists(m_Folder / "nothing"));
}

/// stat says that nothing is there.
TEST_F(UtilitiesRenameTest, MissingSourceCostsADanglingLinkNothing) {
    ASSERT_EQ(::symlink("nothing", (m_Folder / "link").c_str()), 0);
    GetID(m_Folder / "none");
    EXPECT_FALSE(Rename(m_Folder / "none", m_Folder / "link"));
    EXPECT_TRUE(std::filesystem::is_symlink(m_Folder / "link"));
}

TEST_F(UtilitiesRenameTest, RemovedLinkLeavesItsTarget) {
    const std::string sTarget = MakeFile("target", "kept");
    for (const std::string& sLeadsTo : {sTarget, std::string("nothing"), m_Folder.Path()}) {
        ASSERT_EQ(::symlink(sLeadsTo.c_str(), (m_Folder / "link").c_str()), 0);
        EXPECT_TRUE(m_Utilities.RemoveFile(&m_Param, &m_Tag, (m_Folder / "link").c_str()));
        EXPECT_FALSE(std::filesystem::is_symlink(m_Folder / "link"));
    }
    EXPECT_EQ(ReadWholeFile(sTarget), "kept");
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
