// The registry of exports.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "UtilitiesFixture.h"

namespace {

class UtilitiesMountTest : public UtilitiesFixture {
protected:
    void SetUp() override { m_Param.SetLogControl(0); }

    bool Add(const std::string& sPath, const std::string& sName, const char* pcIpcID = "") {
        m_vcReason[0] = '\0';
        return m_Utilities.AddMountInfo(&m_Param, &m_Tag, sPath.c_str(), sName.c_str(), pcIpcID, m_vcReason);
    }
    bool Mount(const char* pcName, const char* pcClient, MountInfo* pInfo = nullptr) {
        m_vcReason[0] = '\0';
        return m_Utilities.UpdateMountClientIpAddrByExportName(pcName, pcClient, pInfo, m_vcReason);
    }
    /// The name of the export that holds a path, "-" for none.
    std::string Find(const std::string& sPath) {
        MountInfo info;
        return m_Utilities.GetMountInfoByPath(&m_Param, &m_Tag, sPath.c_str(), &info) ? info.sExportName : "-";
    }
    /// The same for a client's call: "NAME held by ADDRESS" if another client has it mounted.
    std::string Access(const std::string& sPath, const char* pcClient) {
        MountInfo info;
        switch (m_Utilities.GetMountAccess(&m_Param, &m_Tag, sPath.c_str(), pcClient, &info)) {
            case MountAccess::kServed:
                return info.sExportName;
            case MountAccess::kHeld:
                return info.sExportName + " held by " + info.sRemoteIpAddr;
            case MountAccess::kDenied:
                return info.sExportName + " denied";
            case MountAccess::kNone:
                break;
        }
        return "-";
    }
    std::string MakeFolder(const std::string& sName) {
        EXPECT_EQ(::mkdir((m_Folder / sName).c_str(), 0755), 0) << sName;
        return m_Folder / sName;
    }
    /// A handle that resolves until the file handle table is emptied.
    void TakeHandle() {
        EXPECT_TRUE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, "/tmp", m_vcHandle, sizeof(m_vcHandle)));
    }
    bool HandleResolves() {
        char vcPath[kPathBufferSize];
        return m_Utilities.GetFilePath(&m_Param, m_vcHandle, vcPath, sizeof(vcPath));
    }

    char m_vcHandle[kNfs3HandleSize] = {};
};

TEST_F(UtilitiesMountTest, AddedExportIsFoundWithAllItsFields) {
    const std::string sFolder = MakeFolder("a");
    ASSERT_TRUE(Add(sFolder + "/.", "x", "4711"));
    MountInfo info;
    ASSERT_TRUE(m_Utilities.GetMountInfoByPath(&m_Param, &m_Tag, sFolder.c_str(), &info));
    EXPECT_EQ(info.sLocalMountPath, sFolder);
    EXPECT_EQ(info.sExportName, "x");
    EXPECT_EQ(info.sIcpID, "4711");
    EXPECT_EQ(info.sRemoteIpAddr, "");
}

TEST_F(UtilitiesMountTest, ExportWithAnEmptyPathHoldsNothing) {
    ASSERT_TRUE(Add("", "x"));
    EXPECT_EQ(Find("/"), "-");
    EXPECT_EQ(Find("/etc/passwd"), "-");
    EXPECT_EQ(Find(""), "-");
}

TEST_F(UtilitiesMountTest, SameFolderUnderAnotherNameIsRefusedHoweverItIsSpelled) {
    const std::string sFolder = MakeFolder("a");
    ASSERT_TRUE(Add(sFolder, "x"));
    EXPECT_FALSE(Add(sFolder + "/", "y"));
    EXPECT_STREQ(m_vcReason, ("Local mount path \"" + sFolder + "\" already defined").c_str());
}

TEST_F(UtilitiesMountTest, InvalidCharactersAreReportedByTheFirst) {
    EXPECT_FALSE(Add(m_Folder.Path(), "a b"));
    EXPECT_STREQ(m_vcReason, "Invalid char \" \" inside export name");
    EXPECT_FALSE(Add(m_Folder.Path(), "a/b"));
    EXPECT_STREQ(m_vcReason, "Invalid char \"/\" inside export name");
    EXPECT_FALSE(Add(m_Folder.Path(), "/a b"));
    EXPECT_STREQ(m_vcReason, "Invalid char \"/\" inside export name");
    EXPECT_EQ(m_Utilities.GetMountInfo(&m_Param, false, false), 0);
    EXPECT_TRUE(Add(m_Folder.Path(), "tab\tand\\more")) << "no other character is refused";
}

TEST_F(UtilitiesMountTest, EmptyNamePasses) {
    EXPECT_TRUE(Add(m_Folder.Path(), ""));
    EXPECT_EQ(Find(m_Folder.Path()), "");
}

TEST_F(UtilitiesMountTest, DuplicatesAreReportedInTheOrderNamePathCharacter) {
    const std::string sFolder = MakeFolder("a");
    const std::string sOther = MakeFolder("b");
    ASSERT_TRUE(Add(sFolder, "x"));
    EXPECT_FALSE(Add(sFolder, "x"));
    EXPECT_STREQ(m_vcReason, "Export name \"x\" already defined");
    EXPECT_FALSE(Add(sFolder, "a b"));
    EXPECT_STREQ(m_vcReason, ("Local mount path \"" + sFolder + "\" already defined").c_str());
    EXPECT_FALSE(Add(sOther, "x"));
    EXPECT_STREQ(m_vcReason, "Export name \"x\" already defined");
}

// The path is made canonical for the export, and again for the test whether it is taken; that one asks for the name
// first.
TEST_F(UtilitiesMountTest, AddingLogsEachTimeThePathIsMadeCanonical) {
    const std::string sFolder = MakeFolder("a");
    const std::string sOther = MakeFolder("b");
    m_Param.SetLogControl(CRuntimeParam::kLogGeneralInfo);
    const std::string sLine = "[Test] Get canonical path successfully: ";
    ASSERT_TRUE(Add(sFolder + "/.", "x"));
    EXPECT_EQ(TakeLog(), (std::vector<std::string>{sLine + sFolder, sLine + sFolder}));
    EXPECT_FALSE(Add(sOther, "x"));
    EXPECT_EQ(TakeLog(), std::vector<std::string>{sLine + sOther});
    EXPECT_FALSE(Add(sFolder, "y"));
    EXPECT_EQ(TakeLog(), (std::vector<std::string>{sLine + sFolder, sLine + sFolder}));
}

TEST_F(UtilitiesMountTest, ExistenceIsAskedByNameOrPathOrBoth) {
    ASSERT_TRUE(Add(m_Folder.Path(), "x"));
    const auto exists = [this](const char* pcPath, const char* pcName) {
        return m_Utilities.IsMountInfoExists(&m_Param, &m_Tag, pcPath, pcName, m_vcReason);
    };
    EXPECT_TRUE(exists(nullptr, "x"));
    EXPECT_STREQ(m_vcReason, "Export name \"x\" already defined");
    EXPECT_TRUE(exists((m_Folder.Path() + "/.").c_str(), nullptr));
    EXPECT_STREQ(m_vcReason, ("Local mount path \"" + m_Folder.Path() + "\" already defined").c_str());
    EXPECT_FALSE(exists(nullptr, "y"));
    EXPECT_FALSE(exists(nullptr, nullptr));
    EXPECT_FALSE(exists("/", "y"));
    EXPECT_TRUE(m_Utilities.IsMountInfoExists(&m_Param, &m_Tag, nullptr, "x", nullptr)) << "a reason is not needed";
}

TEST_F(UtilitiesMountTest, ReasonsAreBounded) {
    const std::string sName(5000, 'n');
    ASSERT_TRUE(Add(m_Folder.Path(), sName));
    EXPECT_FALSE(Add(m_Folder.Path(), sName));
    EXPECT_EQ(std::string(m_vcReason).size(), kReasonBufferSize - 1);
}

TEST_F(UtilitiesMountTest, SecondMountOfTheSameExportIsRefusedEvenForItsOwnClient) {
    ASSERT_TRUE(Add(m_Folder.Path(), "x"));
    MountInfo info;
    EXPECT_TRUE(Mount("x", "10.0.0.5", &info));
    EXPECT_EQ(info.sRemoteIpAddr, "10.0.0.5");
    EXPECT_FALSE(Mount("x", "10.0.0.5"));
    EXPECT_STREQ(m_vcReason, "This mount point \"x\" already mounted by 10.0.0.5");
    EXPECT_FALSE(Mount("x", "10.0.0.6"));
    EXPECT_STREQ(m_vcReason, "This mount point \"x\" already mounted by 10.0.0.5");
    EXPECT_TRUE(Mount("x", nullptr, &info));
    EXPECT_EQ(info.sRemoteIpAddr, "");
    EXPECT_TRUE(Mount("x", "10.0.0.6"));
}

TEST_F(UtilitiesMountTest, ReleasingAnExportThatNobodyMountedSucceeds) {
    ASSERT_TRUE(Add(m_Folder.Path(), "x"));
    EXPECT_TRUE(Mount("x", nullptr));
}

TEST_F(UtilitiesMountTest, UnknownExportIsNeitherMountedNorReleased) {
    EXPECT_FALSE(Mount("x", "10.0.0.5"));
    EXPECT_STREQ(m_vcReason, "Undefined export name \"x\"");
    EXPECT_FALSE(Mount("x", nullptr));
    EXPECT_STREQ(m_vcReason, "Undefined export name \"x\"");
    EXPECT_FALSE(m_Utilities.UpdateMountClientIpAddrByExportName("x", nullptr, nullptr, nullptr));
}

TEST_F(UtilitiesMountTest, PathMatchesAtTheEndOfAComponentOnly) {
    const std::string sFolder = MakeFolder("a");
    ASSERT_TRUE(Add(sFolder, "x"));
    EXPECT_EQ(Find(sFolder), "x");
    EXPECT_EQ(Find(sFolder + "/"), "x");
    EXPECT_EQ(Find(sFolder + "/b/c"), "x");
    EXPECT_EQ(Find(sFolder + "b"), "-");
    EXPECT_EQ(Find(m_Folder.Path()), "-");
    EXPECT_EQ(Find(""), "-");
}

TEST_F(UtilitiesMountTest, NestedExportsAreResolvedByTheOrderOfTheirNames) {
    const std::string sOuter = MakeFolder("d");
    const std::string sInner = MakeFolder("d/e");
    ASSERT_TRUE(Add(sOuter, "b"));
    ASSERT_TRUE(Add(sInner, "a"));
    EXPECT_EQ(Find(sInner + "/f"), "a");
    m_Utilities.RemoveMountInfoByExportName("a");
    ASSERT_TRUE(Add(sInner, "c"));
    EXPECT_EQ(Find(sInner + "/f"), "b");
}

TEST_F(UtilitiesMountTest, RootExportHoldsEverything) {
    ASSERT_TRUE(Add("/", "root"));
    EXPECT_EQ(Find("/"), "root");
    EXPECT_EQ(Find("/etc/passwd"), "root");
    EXPECT_EQ(Find("etc/passwd"), "-");
}

TEST_F(UtilitiesMountTest, PathWithAParentComponentBelongsToNoExport) {
    const std::string sFolder = MakeFolder("a");
    ASSERT_TRUE(Add(sFolder, "x"));
    for (const char* pcTail : {"/..", "/../", "/../b", "/b/../../c", "/b/.."}) {
        EXPECT_EQ(Find(sFolder + pcTail), "-") << pcTail;
    }
    for (const char* pcTail : {"/..b", "/b..", "/...", "/a..b/c", "/..."}) {
        EXPECT_EQ(Find(sFolder + pcTail), "x") << pcTail;
    }
    ASSERT_TRUE(Add("/", "y"));
    EXPECT_EQ(Find(".."), "-");
    EXPECT_EQ(Find("/.."), "-");
}

TEST_F(UtilitiesMountTest, PathThatDoesNotFitBelongsToNoExport) {
    ASSERT_TRUE(Add("/", "root"));
    EXPECT_EQ(Find("/" + std::string(kPathBufferSize - 3, 'x')), "root");
    EXPECT_EQ(Find("/" + std::string(kPathBufferSize - 2, 'x')), "-");
    EXPECT_EQ(Find("/" + std::string(20000, 'x')), "-");
}

/// Not that of a directory above it, which its first part would name.
TEST_F(UtilitiesMountTest, ExportWhosePathDoesNotFitIsThatOfNoDirectory) {
    const std::string sFolder = MakeFolder("a");
    MakeFolder("a/private");
    std::string sLong = sFolder;
    sLong.resize(kPathBufferSize - 1, '/');
    sLong += "/private";
    ASSERT_TRUE(Add(sLong, "long"));
    EXPECT_EQ(Find(sFolder), "-");
    EXPECT_EQ(Find(sFolder + "/private"), "-");
    EXPECT_TRUE(Add(sFolder, "short")) << "the directory is free";
    EXPECT_EQ(Find(sFolder), "short");

    char vcReason[kReasonBufferSize] = "";
    EXPECT_FALSE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, sLong.c_str(), "again", "", vcReason));
    EXPECT_TRUE(std::string(vcReason).starts_with("Local mount path \"" + sFolder + "//")) << vcReason;
    std::string sOther = sLong;
    sOther.back() = 'f';
    EXPECT_TRUE(Add(sOther, "other")) << "another path";

    char vcHandle[kNfs3HandleSize];
    EXPECT_TRUE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, sLong.c_str(), vcHandle, sizeof(vcHandle)));
    char vcPath[kPathBufferSize];
    EXPECT_FALSE(m_Utilities.GetFilePath(&m_Param, vcHandle, vcPath, sizeof(vcPath))) << "it names nothing";

    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Param, &m_Tag, sLong.c_str());
    EXPECT_EQ(Find(sFolder), "short") << "only the one that was meant";
    EXPECT_TRUE(Add(sLong, "long")) << "it is gone";
}

TEST_F(UtilitiesMountTest, SearchIsLoggedStepByStep) {
    const std::string sA = MakeFolder("a");
    const std::string sAb = MakeFolder("ab");
    const std::string sC = MakeFolder("c");
    ASSERT_TRUE(Add(sA, "1"));
    ASSERT_TRUE(Add(sC, "2"));
    ASSERT_TRUE(Add(sAb, "3"));
    m_Param.SetLogControl(CRuntimeParam::kLogGeneralInfo);
    EXPECT_EQ(Find(sAb + "/x"), "3");
    const std::string sPath = sAb + "/x/";
    EXPECT_EQ(TakeLog('i'), (std::vector<std::string>{
                                "[Test] Path scan: \"" + sPath + "\" vs \"" + sA + "\"",
                                "[Test] Path compare: \"" + sPath + "\" vs \"" + sA + "/\"",
                                "[Test] Path scan: \"" + sPath + "\" vs \"" + sC + "\"",
                                "[Test] Path scan: \"" + sPath + "\" vs \"" + sAb + "\"",
                                "[Test] Path compare: \"" + sPath + "\" vs \"" + sAb + "/\"",
                                "[Test] Path match",
                            }));
}

TEST_F(UtilitiesMountTest, RemovalTakesPathOrName) {
    const std::string sA = MakeFolder("a");
    const std::string sB = MakeFolder("b");
    ASSERT_TRUE(Add(sA, "x"));
    ASSERT_TRUE(Add(sB, "y"));
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Param, &m_Tag, (sA + "/.").c_str());
    EXPECT_EQ(Find(sA), "-");
    EXPECT_EQ(Find(sB), "y");
    m_Utilities.RemoveMountInfoByExportName("y");
    EXPECT_EQ(Find(sB), "-");
    m_Utilities.RemoveMountInfoByExportName("y");
    m_Utilities.RemoveMountInfoByExportName(nullptr);
    EXPECT_EQ(m_Utilities.GetMountInfo(&m_Param, false, false), 0);
}

TEST_F(UtilitiesMountTest, RemovingTheLastExportByEitherKeyEmptiesTheFileHandleTable) {
    const std::string sA = MakeFolder("a");
    const std::string sB = MakeFolder("b");
    ASSERT_TRUE(Add(sA, "x"));
    ASSERT_TRUE(Add(sB, "y"));
    TakeHandle();
    m_Utilities.RemoveMountInfoByExportName("x");
    EXPECT_TRUE(HandleResolves()) << "one export is left";
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Param, &m_Tag, sB.c_str());
    EXPECT_FALSE(HandleResolves());
    EXPECT_EQ(m_Utilities.GetFileID(&m_Param, &m_Tag, "/tmp"), 0U) << "IDs start again";

    ASSERT_TRUE(Add(sA, "x"));
    TakeHandle();
    m_Utilities.RemoveMountInfoByExportName("x");
    EXPECT_FALSE(HandleResolves());
}

TEST_F(UtilitiesMountTest, RemovingAnUnknownExportFromAnEmptyTableEmptiesTheFileHandleTable) {
    TakeHandle();
    m_Utilities.RemoveMountInfoByExportName("unknown");
    EXPECT_FALSE(HandleResolves());
    TakeHandle();
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Param, &m_Tag, "/unknown");
    EXPECT_FALSE(HandleResolves());
    TakeHandle();
    m_Utilities.RemoveAllMountInfo();
    EXPECT_FALSE(HandleResolves());
}

TEST_F(UtilitiesMountTest, ListingCountsAndNumbersWhatItPrints) {
    const std::string sA = MakeFolder("a");
    const std::string sB = MakeFolder("b");
    const std::string sC = MakeFolder("c");
    ASSERT_TRUE(Add(sB, "y", "7"));
    ASSERT_TRUE(Add(sA, "z"));
    ASSERT_TRUE(Add(sC, "B"));  // upper case comes first
    ASSERT_TRUE(Mount("z", "10.0.0.5"));
    EXPECT_EQ(m_Utilities.GetMountInfo(&m_Param, false, true), 3);
    EXPECT_EQ(TakeLog('r'),
              (std::vector<std::string>{" Mount 1 - " + sC + " : B () []", " Mount 2 - " + sB + " : y () [7]",
                                        " Mount 3 - " + sA + " : z (10.0.0.5) []"}));
    EXPECT_EQ(m_Utilities.GetMountInfo(&m_Param, true, true), 1);
    EXPECT_EQ(TakeLog('r'), std::vector<std::string>{" Mount 1 - " + sA + " : z (10.0.0.5) []"});
    EXPECT_EQ(m_Utilities.GetMountInfo(&m_Param, true, false), 1);
    EXPECT_EQ(TakeLog(), std::vector<std::string>());
}

// ---- Whose calls an export serves

TEST_F(UtilitiesMountTest, MountedExportServesItsClientAlone) {
    ASSERT_TRUE(Add(m_Folder.Path(), "x"));
    EXPECT_EQ(Access(m_Folder / "f", "10.0.0.5"), "x") << "nobody has it mounted";
    ASSERT_TRUE(Mount("x", "10.0.0.5"));
    EXPECT_EQ(Access(m_Folder / "f", "10.0.0.5"), "x");
    EXPECT_EQ(Access(m_Folder / "f", "10.0.0.50"), "x held by 10.0.0.5");
    EXPECT_EQ(Access(m_Folder / "f", ""), "x held by 10.0.0.5");
    EXPECT_EQ(Access(m_Folder / "f", nullptr), "x") << "asked for nobody in particular";
    EXPECT_EQ(Access("/elsewhere", "10.0.0.50"), "-");
    ASSERT_TRUE(Mount("x", nullptr));
    EXPECT_EQ(Access(m_Folder / "f", "10.0.0.50"), "x");
}

TEST_F(UtilitiesMountTest, OfNestedExportsTheClientsOwnServesIt) {
    const std::string sOuter = MakeFolder("outer");
    const std::string sInner = MakeFolder("outer/inner");
    ASSERT_TRUE(Add(sOuter, "m"));
    ASSERT_TRUE(Add(sInner, "n"));
    ASSERT_TRUE(Mount("n", "10.0.0.5"));
    EXPECT_EQ(Access(sInner, "10.0.0.5"), "m") << "the first in name order, as ever";
    EXPECT_EQ(Access(sInner, "10.0.0.6"), "n held by 10.0.0.5") << "though nobody has the outer one";
    EXPECT_EQ(Access(sOuter, "10.0.0.6"), "m");
    ASSERT_TRUE(Mount("m", "10.0.0.6"));
    EXPECT_EQ(Access(sInner, "10.0.0.5"), "m");
    EXPECT_EQ(Access(sInner, "10.0.0.6"), "m");
    EXPECT_EQ(Access(sInner, "10.0.0.7"), "m held by 10.0.0.6");
    EXPECT_EQ(Access(sOuter, "10.0.0.5"), "m held by 10.0.0.6");
}

TEST_F(UtilitiesMountTest, SearchThatIsLoggedFindsTheSameClient) {
    const std::string sOuter = MakeFolder("outer");
    const std::string sInner = MakeFolder("outer/inner");
    ASSERT_TRUE(Add(sOuter, "m"));
    ASSERT_TRUE(Add(sInner, "n"));
    ASSERT_TRUE(Mount("n", "10.0.0.5"));
    m_Param.SetLogControl(CRuntimeParam::kLogGeneralInfo);
    EXPECT_EQ(Access(sInner, "10.0.0.6"), "n held by 10.0.0.5");
    EXPECT_EQ(TakeLog(),
              (std::vector<std::string>{
                  "[" + std::string(m_Tag.pcName) + "] Path scan: \"" + sInner + "/\" vs \"" + sOuter + "\"",
                  "[" + std::string(m_Tag.pcName) + "] Path compare: \"" + sInner + "/\" vs \"" + sOuter + "/\"",
                  "[" + std::string(m_Tag.pcName) + "] Path match"}))
        << "the search ends with the first export that holds the path";
}

// A walk through all exports would take a thousand times as long for the last one.
TEST_F(UtilitiesMountTest, LastOfManyExportsIsFoundAsFastAsTheFirst) {
    constexpr int kExports = 2000;
    const auto nameOf = [](int i) { return "e" + std::to_string(10000 + i); };
    for (int i = 0; i < kExports; ++i) {
        ASSERT_TRUE(Add("/missing/exports/" + nameOf(i), nameOf(i)));
    }
    const auto time = [&](int i) {
        const std::string sPath = "/missing/exports/" + nameOf(i) + "/folder/file";
        double fBest = 1e9;
        for (int iRound = 0; iRound < 5; ++iRound) {
            const auto start = std::chrono::steady_clock::now();
            for (int iLookup = 0; iLookup < 500; ++iLookup) {
                EXPECT_EQ(Access(sPath, "10.0.0.5"), nameOf(i));
            }
            fBest = std::min(fBest, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
        return fBest;
    };
    const double fFirst = time(0);
    const double fLast = time(kExports - 1);
    EXPECT_LT(fLast, fFirst * 4) << "first " << fFirst << " s, last " << fLast << " s";
}

TEST_F(UtilitiesMountTest, FoldersOnTheWayToAnExportAreKnown) {
    const std::string sOuter = MakeFolder("outer");
    const std::string sInner = MakeFolder("outer/inner");
    ASSERT_TRUE(Add(sInner, "n"));
    EXPECT_TRUE(m_Utilities.HoldsMountPoint(sInner.c_str()));
    EXPECT_TRUE(m_Utilities.HoldsMountPoint((sInner + "//").c_str()));
    EXPECT_TRUE(m_Utilities.HoldsMountPoint(sOuter.c_str()));
    EXPECT_TRUE(m_Utilities.HoldsMountPoint(m_Folder.Path().c_str()));
    EXPECT_FALSE(m_Utilities.HoldsMountPoint((sInner + "/below").c_str()));
    EXPECT_FALSE(m_Utilities.HoldsMountPoint((sOuter + "/inn").c_str()));
    EXPECT_FALSE(m_Utilities.HoldsMountPoint((sOuter + "/innermost").c_str()));
    EXPECT_FALSE(m_Utilities.HoldsMountPoint(""));
    EXPECT_FALSE(m_Utilities.HoldsMountPoint(nullptr));
}

TEST_F(UtilitiesMountTest, ClientAddressIsComparedExactly) {
    ASSERT_TRUE(Add(m_Folder.Path(), "x"));
    EXPECT_TRUE(m_Utilities.IsRemoteAddrExists("")) << "an export that nobody mounted carries the empty address";
    ASSERT_TRUE(Mount("x", "10.0.0.5"));
    EXPECT_TRUE(m_Utilities.IsRemoteAddrExists("10.0.0.5"));
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists("10.0.0.50"));
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists(""));
}

TEST_F(UtilitiesMountTest, OneFolderIsNeverExportedTwiceHoweverManyThreadsTry) {
    std::atomic<int> nAdded{0};
    std::vector<std::thread> vThreads;
    for (int iThread = 0; iThread < 4; ++iThread) {
        vThreads.emplace_back([&, iThread] {
            CRuntimeParam param("thread", 0);
            LogArgu tag{"Thread"};
            for (int iName = 0; iName < 50; ++iName) {
                const std::string sName = std::to_string(iThread) + "-" + std::to_string(iName);
                nAdded += m_Utilities.AddMountInfo(&param, &tag, m_Folder.Path().c_str(), sName.c_str(), "", nullptr);
                m_Utilities.GetMountInfoByPath(&param, &tag, m_Folder.Path().c_str(), nullptr);
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(nAdded, 1);
    EXPECT_EQ(m_Utilities.GetMountInfo(&m_Param, false, false), 1);
}

}  // namespace
