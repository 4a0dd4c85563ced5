// File IDs and paths, held against the walks that define them.
#include "FileTable.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <malloc.h>

#include <gtest/gtest.h>

#include "Limits.h"

namespace {

std::string MakePath(unsigned int iNumber) {
    return "/export/folder/file" + std::to_string(iNumber);
}

/// A table that knows MakePath(0) to MakePath(nPaths - 1).
void AddPaths(CFileTable& table, unsigned int nPaths) {
    for (unsigned int iPath = 0; iPath < nPaths; ++iPath) {
        table.AddItem(MakePath(iPath).c_str());
    }
}

/// The definition: items and recent hits, walked.
class WalkingTable {
public:
    unsigned int GetIDByPath(const std::string& sPath) {
        const int iFound = Find(sPath);
        if (iFound >= 0) {
            return static_cast<unsigned int>(iFound);
        }
        m_vPaths.push_back(sPath);
        return static_cast<unsigned int>(m_vPaths.size() - 1);
    }

    int Find(const std::string& sPath) {
        for (const unsigned int iID : m_vHits) {
            if (m_vPaths[iID] == sPath) {
                return static_cast<int>(iID);
            }
        }
        const auto itPath = std::find(m_vPaths.begin(), m_vPaths.end(), sPath);
        if (itPath == m_vPaths.end()) {
            return -1;
        }
        const auto iID = static_cast<unsigned int>(itPath - m_vPaths.begin());
        if (m_vHits.size() > 1023) {
            m_vHits.erase(m_vHits.begin(), m_vHits.begin() + static_cast<std::ptrdiff_t>(m_vHits.size() / 10));
        }
        m_vHits.push_back(iID);
        return static_cast<int>(iID);
    }

    void Add(const std::string& sPath) { m_vPaths.push_back(sPath); }

    bool Rename(const std::string& sOld, const std::string& sNew) {
        const bool bFound = Find(sOld) >= 0;
        const std::string sBelowOld = WithSlash(sOld);
        for (std::string& sPath : m_vPaths) {
            if (sPath == sOld) {
                sPath = sNew;
            } else if (!sOld.empty() && sPath.starts_with(sBelowOld)) {
                sPath = WithSlash(sNew) + sPath.substr(sBelowOld.size());
            }
        }
        return bFound;
    }

    void Clear() {
        m_vPaths.clear();
        m_vHits.clear();
    }

    std::vector<std::string> m_vPaths;
    std::vector<unsigned int> m_vHits;

private:
    static std::string WithSlash(const std::string& sPath) {
        return sPath.empty() || sPath.ends_with('/') ? sPath : sPath + "/";
    }
};

TEST(FileTableTest, IDsAreGivenOutInTheOrderOfFirstSight) {
    CFileTable table;
    for (unsigned int iPath = 0; iPath < 3000; ++iPath) {
        ASSERT_EQ(table.GetIDByPath(MakePath(iPath).c_str()), iPath);
    }
    EXPECT_EQ(table.GetIDByPath(MakePath(0).c_str()), 0U);
    EXPECT_EQ(table.GetIDByPath(MakePath(1023).c_str()), 1023U);
    EXPECT_EQ(table.GetIDByPath(MakePath(1024).c_str()), 1024U);
    EXPECT_EQ(table.GetItemByID(1024)->sPath, MakePath(1024));
}

TEST(FileTableTest, ItemsKeepIDAndPathAsTheTableGrows) {
    CFileTable table;
    EXPECT_EQ(table.AddItem("/first")->iID, 0U);
    AddPaths(table, 10000);
    EXPECT_EQ(table.GetItemByID(0)->sPath, "/first");
    EXPECT_EQ(table.GetItemByID(0)->iID, 0U);
    for (unsigned int iPath = 0; iPath < 10000; ++iPath) {
        ASSERT_EQ(table.GetItemByID(iPath + 1)->sPath, MakePath(iPath));
    }
}

TEST(FileTableTest, SecondLookupIsTheFirstRecentHit) {
    CFileTable table;
    table.GetIDByPath("/a");
    EXPECT_TRUE(table.GetRecentHits().empty()) << "a new path is no hit";
    EXPECT_EQ(table.GetIDByPath("/a"), 0U);
    EXPECT_EQ(table.GetRecentHits().size(), 1U);
    EXPECT_EQ(table.GetIDByPath("/a"), 0U);
    EXPECT_EQ(table.GetRecentHits().size(), 1U) << "served from the recent hits, which it does not change";
}

TEST(FileTableTest, FullListOfRecentHitsLosesATenth) {
    CFileTable table;
    AddPaths(table, 1025);
    for (unsigned int iPath = 0; iPath < 1024; ++iPath) {
        table.FindItemByPath(MakePath(iPath).c_str());
    }
    EXPECT_EQ(table.GetRecentHits().size(), 1024U);
    table.FindItemByPath(MakePath(1024).c_str());
    EXPECT_EQ(table.GetRecentHits().size(), 923U);
    EXPECT_EQ(table.GetRecentHits().front(), 102U);
    EXPECT_EQ(table.GetRecentHits().back(), 1024U);
}

TEST(FileTableTest, HitAmongTheRecentOnesKeepsItsAge) {
    CFileTable table;
    AddPaths(table, 3);
    for (const unsigned int iPath : {0U, 1U, 2U, 0U}) {
        table.FindItemByPath(MakePath(iPath).c_str());
    }
    EXPECT_EQ(table.GetRecentHits(), (std::deque<unsigned int>{0, 1, 2}));
}

TEST(FileTableTest, NullPathsAreRefused) {
    CFileTable table;
    EXPECT_FALSE(table.AddItem(nullptr));
    EXPECT_FALSE(table.FindItemByPath(nullptr));
    EXPECT_EQ(table.GetIDByPath(nullptr), kNoFileID);
    EXPECT_FALSE(table.UpdateItemPath(nullptr, "/b"));
    EXPECT_FALSE(table.UpdateItemPath("/a", nullptr));
    EXPECT_EQ(table.GetSize(), 0U);
}

TEST(FileTableTest, MatchAsksForLengthAndBytes) {
    const FileItem item{"/abc", 0};
    EXPECT_TRUE(CFileTable::IsMatchItem(&item, "/abc", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abd", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abcd", 5));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abc", 3));
    EXPECT_FALSE(CFileTable::IsMatchItem(nullptr, "/abc", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, nullptr, 4));
}

TEST(FileTableTest, UnknownIDsHaveNoItem) {
    CFileTable table;
    EXPECT_FALSE(table.GetItemByID(0));
    AddPaths(table, 1025);
    EXPECT_TRUE(table.GetItemByID(1024));
    for (const unsigned int iID : {1025U, 2048U, 0x7FFFFFFFU, 0x80000000U, 0x80000001U, 0xFFFFFFFFU}) {
        EXPECT_FALSE(table.GetItemByID(iID)) << iID;
    }
}

TEST(FileTableTest, PathIsCopiedOnlyWhereItFitsWithItsTerminator) {
    CFileTable table;
    table.AddItem("/abc");
    char vcPath[8];
    std::memset(vcPath, '#', sizeof(vcPath));
    EXPECT_FALSE(table.GetPathByID(0, vcPath, 4));
    EXPECT_EQ(vcPath[0], '#') << "nothing is copied";
    EXPECT_TRUE(table.GetPathByID(0, vcPath, 5));
    EXPECT_STREQ(vcPath, "/abc");
    EXPECT_TRUE(table.GetPathByID(0, nullptr, 0)) << "the existence test";
    EXPECT_FALSE(table.GetPathByID(1, nullptr, 0));
    EXPECT_FALSE(table.GetPathByID(1, vcPath, sizeof(vcPath)));
}

TEST(FileTableTest, RenamedPathKeepsItsID) {
    CFileTable table;
    AddPaths(table, 3);
    EXPECT_TRUE(table.UpdateItemPath(MakePath(1).c_str(), "/new"));
    EXPECT_EQ(table.GetItemByID(1)->sPath, "/new");
    EXPECT_EQ(table.GetIDByPath("/new"), 1U);
    EXPECT_EQ(table.GetIDByPath(MakePath(1).c_str()), 3U) << "the old path is a new one";
}

TEST(FileTableTest, UnknownPathIsNotRenamed) {
    CFileTable table;
    EXPECT_FALSE(table.UpdateItemPath("/a", "/b"));
    EXPECT_EQ(table.GetSize(), 0U);
}

TEST(FileTableTest, RenameOntoItselfChangesNothing) {
    CFileTable table;
    table.AddItem("/a");
    EXPECT_TRUE(table.UpdateItemPath("/a", "/a"));
    EXPECT_EQ(table.GetIDByPath("/a"), 0U);
}

TEST(FileTableTest, ItemsBelowARenamedFolderFollowIt) {
    CFileTable table;
    for (const char* pcPath : {"/d", "/d/x", "/d/sub/y", "/de", "/d.txt", "/d/sub"}) {
        table.AddItem(pcPath);
    }
    EXPECT_TRUE(table.UpdateItemPath("/d", "/moved/e"));
    const char* vpcExpected[] = {"/moved/e", "/moved/e/x", "/moved/e/sub/y", "/de", "/d.txt", "/moved/e/sub"};
    for (unsigned int iID = 0; iID < 6; ++iID) {
        EXPECT_EQ(table.GetItemByID(iID)->sPath, vpcExpected[iID]);
        EXPECT_EQ(table.FindItemByPath(vpcExpected[iID])->iID, iID);
    }
    EXPECT_FALSE(table.FindItemByPath("/d/x"));
}

TEST(FileTableTest, ItemsFollowAFolderThatHasNoItemItself) {
    CFileTable table;
    table.AddItem("/d/x");
    EXPECT_FALSE(table.UpdateItemPath("/d", "/e"));
    EXPECT_EQ(table.GetItemByID(0)->sPath, "/e/x");
}

TEST(FileTableTest, FolderRenamedIntoItsOwnNameSpaceKeepsItsItemsApart) {
    CFileTable table;
    for (const char* pcPath : {"/a", "/a/a", "/a/a/a"}) {
        table.AddItem(pcPath);
    }
    EXPECT_TRUE(table.UpdateItemPath("/a", "/a/a"));
    EXPECT_EQ(table.GetItemByID(0)->sPath, "/a/a");
    EXPECT_EQ(table.GetItemByID(1)->sPath, "/a/a/a");
    EXPECT_EQ(table.GetItemByID(2)->sPath, "/a/a/a/a");
}

TEST(FileTableTest, EveryItemOfARenamedPathFollows) {
    CFileTable table;
    table.AddItem("/a");
    table.AddItem("/b");
    EXPECT_TRUE(table.UpdateItemPath("/a", "/b"));  // both carry /b now
    EXPECT_TRUE(table.UpdateItemPath("/b", "/c"));
    EXPECT_EQ(table.GetItemByID(0)->sPath, "/c");
    EXPECT_EQ(table.GetItemByID(1)->sPath, "/c");
    EXPECT_FALSE(table.FindItemByPath("/b"));
}

TEST(FileTableTest, AmongEqualPathsTheOlderRecentHitWinsThenTheLowerID) {
    CFileTable table;
    table.AddItem("/a");
    table.AddItem("/b");
    table.FindItemByPath("/b");
    table.UpdateItemPath("/a", "/b");  // looks /a up, which makes it the younger hit
    EXPECT_EQ(table.FindItemByPath("/b")->iID, 1U);

    CFileTable forgetting;
    AddPaths(forgetting, 1030);
    forgetting.AddItem("/b");  // ID 1030
    forgetting.FindItemByPath("/b");
    forgetting.UpdateItemPath(MakePath(5).c_str(), "/b");
    EXPECT_EQ(forgetting.FindItemByPath("/b")->iID, 1030U);
    for (unsigned int iPath = 6; iPath < 1030; ++iPath) {
        forgetting.FindItemByPath(MakePath(iPath).c_str());  // pushes both out of the recent hits
    }
    EXPECT_EQ(forgetting.FindItemByPath("/b")->iID, 5U);
}

TEST(FileTableTest, ClearedTableStartsAgainFromZero) {
    CFileTable table;
    AddPaths(table, 2000);
    table.FindItemByPath(MakePath(7).c_str());
    table.Clear();
    EXPECT_FALSE(table.GetItemByID(0));
    EXPECT_TRUE(table.GetRecentHits().empty());
    EXPECT_EQ(table.GetIDByPath("/again"), 0U);
}

/// Thousands of random operations; everything visible equals what the walks give, after each of them.
void CompareWithWalks(unsigned int iSeed, unsigned int nOperations, const std::vector<std::string>& vPaths) {
    CFileTable table;
    WalkingTable walking;
    std::mt19937 random(iSeed);
    const auto pick = [&] { return vPaths[random() % vPaths.size()]; };
    for (unsigned int iOperation = 0; iOperation < nOperations; ++iOperation) {
        const std::string sPath = pick();
        const auto iKind = random() % 1000;
        if (iKind < 750) {
            ASSERT_EQ(table.GetIDByPath(sPath.c_str()), walking.GetIDByPath(sPath)) << iOperation << " " << sPath;
        } else if (iKind < 850) {
            const auto item = table.FindItemByPath(sPath.c_str());
            ASSERT_EQ(item ? static_cast<int>(item->iID) : -1, walking.Find(sPath)) << iOperation;
        } else if (iKind < 870) {
            table.AddItem(sPath.c_str());
            walking.Add(sPath);
        } else if (iKind < 999) {
            const std::string sNew = pick();
            ASSERT_EQ(table.UpdateItemPath(sPath.c_str(), sNew.c_str()),
                      sPath == sNew ? walking.Find(sPath) >= 0 : walking.Rename(sPath, sNew))
                << iOperation << " " << sPath << " to " << sNew;
        } else if (random() % 8 == 0) {
            table.Clear();
            walking.Clear();
        }
        ASSERT_TRUE(std::ranges::equal(table.GetRecentHits(), walking.m_vHits)) << iOperation;
        ASSERT_EQ(table.GetSize(), walking.m_vPaths.size());
        if (iOperation % 64 == 0) {
            for (unsigned int iID = 0; iID < walking.m_vPaths.size(); ++iID) {
                ASSERT_EQ(table.GetItemByID(iID)->sPath, walking.m_vPaths[iID]) << iOperation << " ID " << iID;
                ASSERT_EQ(table.GetItemByID(iID)->iID, iID);
            }
        }
    }
}

TEST(FileTableTest, FewPathsInDeepFoldersBehaveAsTheWalksDo) {
    std::vector<std::string> vPaths;
    for (const char* pcTop : {"/a", "/b", "/a.b", "/ab"}) {
        for (const char* pcBelow : {"", "/a", "/b", "/a/a", "/a/b", "/ab"}) {
            vPaths.push_back(std::string(pcTop) + pcBelow);
        }
    }
    for (unsigned int iSeed = 1; iSeed <= 5; ++iSeed) {
        ASSERT_NO_FATAL_FAILURE(CompareWithWalks(iSeed, 4000, vPaths)) << iSeed;
    }
}

// Texts that no file system has for a canonical path are told apart to the byte as well.
TEST(FileTableTest, OddPathsBehaveAsTheWalksDo) {
    const std::vector<std::string> vPaths{"",    "/",  "//",  "a",    "/a",    "/a/",   "/a//",   "//a", "a/",
                                          "a/b", "/b", "/b/", "/a/b", "/a//b", "/a/b/", "/a/b/c", ".",   "/a/.."};
    for (unsigned int iSeed = 1; iSeed <= 20; ++iSeed) {
        ASSERT_NO_FATAL_FAILURE(CompareWithWalks(iSeed, 1500, vPaths)) << iSeed;
    }
}

// Folders of many names, of which now this one and now the other one has more below it, become one.
TEST(FileTableTest, FoldersThatMeetBehaveAsTheWalksDo) {
    std::vector<std::string> vPaths;
    for (const char* pcFolder : {"/a", "/b", "/a/sub", "/b/sub", "/c/sub"}) {
        vPaths.push_back(pcFolder);
        for (unsigned int iName = 0; iName < 6; ++iName) {
            vPaths.push_back(std::string(pcFolder) + "/" + std::to_string(iName));
        }
    }
    for (unsigned int iSeed = 1; iSeed <= 5; ++iSeed) {
        ASSERT_NO_FATAL_FAILURE(CompareWithWalks(iSeed, 3000, vPaths)) << iSeed;
    }
}

// More paths than recent hits are kept, so that the list is trimmed again and again.
TEST(FileTableTest, ManyPathsBehaveAsTheWalksDo) {
    std::vector<std::string> vPaths;
    for (unsigned int iPath = 0; iPath < 3000; ++iPath) {
        vPaths.push_back("/d" + std::to_string(iPath % 7) + "/f" + std::to_string(iPath));
    }
    ASSERT_NO_FATAL_FAILURE(CompareWithWalks(11, 12000, vPaths));
}

/// Seconds that something takes, the best of five.
template <class Action>
double Time(Action action) {
    double fBest = 1e9;
    for (int iRound = 0; iRound < 5; ++iRound) {
        const auto start = std::chrono::steady_clock::now();
        action();
        fBest = std::min(fBest, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return fBest;
}

/// For a number of lookups of the first 1000 paths.
double TimeLookups(CFileTable& table) {
    return Time([&table] {
        for (unsigned int iLookup = 0; iLookup < 20000; ++iLookup) {
            EXPECT_EQ(table.GetIDByPath(MakePath(iLookup % 1000).c_str()), iLookup % 1000);
        }
    });
}

// A walk of the larger table would take two hundred times as long.
TEST(FileTableTest, LookupCostsTheSameAmongManyPaths) {
    CFileTable small;
    AddPaths(small, 1000);
    CFileTable large;
    AddPaths(large, 200000);
    const double fSmall = TimeLookups(small);
    const double fLarge = TimeLookups(large);
    EXPECT_LT(fLarge, fSmall * 10) << "small " << fSmall << " s, large " << fLarge << " s";
}

// A client that writes a temporary file and renames it to one name, over and over.
TEST(FileTableTest, ThousandsOfItemsMayShareAPath) {
    CFileTable table;
    table.GetIDByPath("/final");
    for (unsigned int iRound = 0; iRound < 20000; ++iRound) {
        table.GetIDByPath("/temporary");
        ASSERT_TRUE(table.UpdateItemPath("/temporary", "/final"));
        ASSERT_LE(table.GetIDByPath("/final"), iRound + 1);
    }
    EXPECT_EQ(table.GetSize(), 20001U);
    for (unsigned int iID = 0; iID <= 20000; ++iID) {
        ASSERT_EQ(table.GetItemByID(iID)->sPath, "/final");
    }
}

/// For renaming a path there and back, a number of times.
double TimeRenames(CFileTable& table, const char* pcPath) {
    return Time([&table, pcPath] {
        for (int iRename = 0; iRename < 20; ++iRename) {
            EXPECT_TRUE(table.UpdateItemPath(pcPath, "/elsewhere"));
            EXPECT_TRUE(table.UpdateItemPath("/elsewhere", pcPath));
        }
    });
}

// A rename that touched every item would take thousands of times as long.
TEST(FileTableTest, RenamingAFileCostsTheSameAfterManySaves) {
    CFileTable table;
    table.GetIDByPath("/final");
    const double fOnce = TimeRenames(table, "/final");
    for (unsigned int iRound = 0; iRound < 40000; ++iRound) {
        table.GetIDByPath("/temporary");
        table.UpdateItemPath("/temporary", "/final");
    }
    const double fOften = TimeRenames(table, "/final");
    EXPECT_LT(fOften, fOnce * 50) << "once " << fOnce << " s, often " << fOften << " s";
    EXPECT_EQ(table.GetItemByID(40000)->sPath, "/final");
}

TEST(FileTableTest, RenamingAFolderCostsTheSameWhateverIsKnownBelow) {
    CFileTable few;
    few.AddItem("/export/folder");
    AddPaths(few, 10);
    CFileTable many;
    many.AddItem("/export/folder");
    AddPaths(many, 100000);
    const double fFew = TimeRenames(few, "/export/folder");
    const double fMany = TimeRenames(many, "/export/folder");
    EXPECT_LT(fMany, fFew * 50) << "few " << fFew << " s, many " << fMany << " s";
    many.UpdateItemPath("/export/folder", "/moved");
    EXPECT_EQ(many.GetItemByID(100000)->sPath, "/moved/file99999");
}

/// Bytes that are allocated now; 0 where another allocator than the C library's is in use.
std::size_t GetAllocated() {
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

// A sanitizer's allocator takes more, and does not tell.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(FileTableTest, KnownPathOf40CharactersTakesAtMost120Bytes) {
    constexpr unsigned int kPaths = 200000;
    for (const unsigned int nInFolder : {100U, kPaths}) {
        const std::size_t nBefore = GetAllocated();
        CFileTable table;
        for (unsigned int iPath = 0; iPath < kPaths; ++iPath) {
            char vcPath[64];
            const int nLength =
                std::snprintf(vcPath, sizeof(vcPath), "/srv/export/folder-%08u/file%08u", iPath / nInFolder, iPath);
            ASSERT_EQ(nLength, 40);
            ASSERT_EQ(table.GetIDByPath(vcPath), iPath);
        }
        const std::size_t nTaken = GetAllocated() - nBefore;
        EXPECT_LE(nTaken / kPaths, 120U) << nInFolder << " in a folder";
        EXPECT_GE(nTaken / kPaths, 20U) << "measured at all";
    }
}
#endif

// Each rename brings a new name along, but no new file.
TEST(FileTableTest, RenamesTakeNoMemory) {
    CFileTable table;
    AddPaths(table, 1000);
    std::string sPath = MakePath(500);
    const std::size_t nBefore = GetAllocated();
    for (unsigned int iRename = 0; iRename < 100000; ++iRename) {
        const std::string sNew = "/export/other/name" + std::to_string(iRename);
        ASSERT_TRUE(table.UpdateItemPath(sPath.c_str(), sNew.c_str()));
        sPath = sNew;
    }
    EXPECT_LE(GetAllocated(), nBefore + 200000);
    EXPECT_EQ(table.GetItemByID(500)->sPath, sPath);
}

}  // namespace
