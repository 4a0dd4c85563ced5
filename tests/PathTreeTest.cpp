// Paths kept as a tree.
#include "PathTree.h"

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Place = CPathTree::Place;
using Tenant = CPathTree::Tenant;

constexpr Place kNowhere = CPathTree::kNowhere;
constexpr Tenant kNobody = CPathTree::kNobody;

void Let(CPathTree& tree, const std::string& sPath, Tenant iTenant) {
    tree.SetTenant(tree.FindOrAdd(sPath), iTenant);
}

/// The tenant of a path, kNobody for none.
Tenant At(const CPathTree& tree, const std::string& sPath) {
    return tree.GetTenant(tree.Find(sPath));
}

/// Moves, and lets the tenants that have to settle have their new places, which are to be free.
void MoveToFreePlaces(CPathTree& tree, const std::string& sOld, const std::string& sNew) {
    tree.MoveBelow(sOld, sNew, [&tree](Tenant iTenant, Place iPlace) {
        ASSERT_EQ(tree.GetTenant(iPlace), kNobody);
        tree.SetTenant(iPlace, iTenant);
    });
}

TEST(PathTreeTest, TextsThatDifferHavePlacesThatDiffer) {
    CPathTree tree;
    const std::vector<std::string> vPaths{"", "/", "//", "a", "/a", "/a/", "/a//b", "/a/b", "a/b", "/a/b/c", "/A"};
    std::vector<Place> vPlaces;
    for (const std::string& sPath : vPaths) {
        vPlaces.push_back(tree.FindOrAdd(sPath));
        tree.SetTenant(vPlaces.back(), 1);
    }
    for (std::size_t i = 0; i < vPaths.size(); ++i) {
        EXPECT_EQ(tree.Find(vPaths[i]), vPlaces[i]) << vPaths[i];
        EXPECT_EQ(tree.FindOrAdd(vPaths[i]), vPlaces[i]) << vPaths[i];
        EXPECT_EQ(tree.GetPath(vPlaces[i]), vPaths[i]);
        EXPECT_EQ(std::ranges::count(vPlaces, vPlaces[i]), 1) << vPaths[i];
    }
    EXPECT_EQ(tree.Find("/b"), kNowhere);
    EXPECT_EQ(tree.Find("/a/b/c/d"), kNowhere);
}

TEST(PathTreeTest, FolderOfAKnownPathHasNoTenant) {
    CPathTree tree;
    Let(tree, "/a/b", 1);
    EXPECT_NE(tree.Find("/a"), kNowhere);
    EXPECT_EQ(At(tree, "/a"), kNobody);
    EXPECT_EQ(tree.GetTenant(kNowhere), kNobody);
}

// A search that follows another one in the same folder goes by what that one found.
TEST(PathTreeTest, FolderThatWasJustSearchedIsNotFoundWhereItNoLongerIs) {
    CPathTree tree;
    Let(tree, "/top/folder/a", 1);
    Let(tree, "/top/folder/b", 2);
    EXPECT_EQ(At(tree, "/top/folder/a"), 1U);
    MoveToFreePlaces(tree, "/top", "/other");
    EXPECT_EQ(At(tree, "/top/folder/b"), kNobody) << "moved with what holds it";
    EXPECT_EQ(At(tree, "/other/folder/b"), 2U);
    EXPECT_EQ(At(tree, "/other/folder/a"), 1U);

    const Place iFolder = tree.Find("/other/folder");
    EXPECT_EQ(tree.TakeTenant("/other/folder/a"), 1U);
    EXPECT_EQ(tree.TakeTenant("/other/folder/b"), 2U);
    Let(tree, "/x/y", 3);
    EXPECT_NE(tree.Find("/x/y"), kNowhere);
    EXPECT_LE(tree.Find("/x"), iFolder) << "the given up numbers are in use again";
    EXPECT_EQ(At(tree, "/other/folder/y"), kNobody);

    Let(tree, "/top/folder/c", 4);
    EXPECT_EQ(At(tree, "/top/folder/c"), 4U);
    tree.Clear();
    EXPECT_EQ(At(tree, "/top/folder/c"), kNobody);
    Let(tree, "/new/folder/c", 5);
    EXPECT_EQ(At(tree, "/top/folder/c"), kNobody);
}

TEST(PathTreeTest, FolderThatWasMissingIsFoundOnceItIsThere) {
    CPathTree tree;
    EXPECT_EQ(At(tree, "/folder/a"), kNobody);
    Let(tree, "/folder/b", 1);
    EXPECT_EQ(At(tree, "/folder/a"), kNobody);
    EXPECT_EQ(At(tree, "/folder/b"), 1U);
}

TEST(PathTreeTest, PathIsCopiedOnlyWhereItFitsWithItsTerminator) {
    CPathTree tree;
    for (const std::string sPath : {"/abc/d", "", "/", "abc", "/abc/d/"}) {
        const Place iPlace = tree.FindOrAdd(sPath);
        tree.SetTenant(iPlace, 1);
        std::string sBuffer(16, '#');
        EXPECT_FALSE(tree.CopyPath(iPlace, sBuffer.data(), sPath.size()));
        EXPECT_EQ(sBuffer, std::string(16, '#')) << sPath;
        EXPECT_TRUE(tree.CopyPath(iPlace, sBuffer.data(), sPath.size() + 1));
        EXPECT_EQ(sBuffer.substr(0, sPath.size() + 2), sPath + '\0' + '#');
    }
}

TEST(PathTreeTest, LongComponentsAndDeepPathsAreKept) {
    CPathTree tree;
    std::string sDeep;
    for (int i = 0; i < 2047; ++i) {
        sDeep += "/d";
    }
    const std::string sLong = "/" + std::string(100000, 'x');
    Let(tree, sDeep, 1);
    Let(tree, sLong, 2);
    EXPECT_EQ(tree.GetPath(tree.Find(sDeep)), sDeep);
    EXPECT_EQ(tree.GetPath(tree.Find(sLong)), sLong);
    MoveToFreePlaces(tree, "/d", "/e");
    EXPECT_EQ(At(tree, "/e" + sDeep.substr(2)), 1U);
}

// Also where there are more components than lengths are kept for while copying.
TEST(PathTreeTest, PathOfManyComponentsOfDifferentLengthsIsCopiedWhole) {
    CPathTree tree;
    std::string sPath;
    for (int i = 1; i <= 80; ++i) {
        sPath += "/" + std::string(static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
        const Place iPlace = tree.FindOrAdd(sPath);
        tree.SetTenant(iPlace, 1);
        std::string sBuffer(sPath.size() + 2, '#');
        EXPECT_FALSE(tree.CopyPath(iPlace, sBuffer.data(), sPath.size()));
        EXPECT_TRUE(tree.CopyPath(iPlace, sBuffer.data(), sPath.size() + 1));
        EXPECT_EQ(sBuffer, sPath + '\0' + '#') << i;
    }
}

TEST(PathTreeTest, PlacesThatNobodyNeedsAreUsedAgain) {
    CPathTree tree;
    Let(tree, "/a/b/c", 1);
    const Place iHighest = std::max({tree.Find("/a"), tree.Find("/a/b"), tree.Find("/a/b/c")});
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(tree.TakeTenant("/a/b/c"), 1U);
        EXPECT_EQ(tree.Find("/a"), kNowhere) << "its folders are gone with it";
        Let(tree, "/a/b/c", 1);
        MoveToFreePlaces(tree, "/a", "/m");
        MoveToFreePlaces(tree, "/m", "/a");
    }
    EXPECT_LE(tree.FindOrAdd("/new"), iHighest + 2);
}

TEST(PathTreeTest, PlaceStaysAsLongAsItHasATenantOrPlacesBelow) {
    CPathTree tree;
    Let(tree, "/a", 1);
    Let(tree, "/a/b", 2);
    EXPECT_EQ(tree.TakeTenant("/a"), 1U);
    EXPECT_EQ(tree.TakeTenant("/a"), kNobody);
    EXPECT_EQ(At(tree, "/a/b"), 2U);
    EXPECT_EQ(tree.TakeTenant("/a/b"), 2U);
    EXPECT_EQ(tree.Find("/a"), kNowhere);
    EXPECT_EQ(tree.TakeTenant("/a/b"), kNobody);
}

TEST(PathTreeTest, WhatLiesBelowMovesAndTheFolderStays) {
    CPathTree tree;
    Let(tree, "/a", 1);
    Let(tree, "/a/x", 2);
    Let(tree, "/a/sub/y", 3);
    Let(tree, "/ab", 4);
    MoveToFreePlaces(tree, "/a", "/c/d");
    EXPECT_EQ(At(tree, "/a"), 1U);
    EXPECT_EQ(tree.Find("/a/x"), kNowhere);
    EXPECT_EQ(At(tree, "/c/d/x"), 2U);
    EXPECT_EQ(At(tree, "/c/d/sub/y"), 3U);
    EXPECT_EQ(At(tree, "/c/d"), kNobody);
    EXPECT_EQ(At(tree, "/ab"), 4U);
}

TEST(PathTreeTest, NothingIsMadeWhereNothingMoves) {
    CPathTree tree;
    Let(tree, "/a", 1);
    for (const char* pcOld : {"/a", "/unknown", ""}) {
        MoveToFreePlaces(tree, pcOld, "/b");
    }
    EXPECT_EQ(tree.Find("/b"), kNowhere);
    EXPECT_EQ(At(tree, "/a"), 1U);
}

TEST(PathTreeTest, TreeMovesBelowItself) {
    CPathTree tree;
    Let(tree, "/a/x", 1);
    MoveToFreePlaces(tree, "/a", "/a/x/y");
    EXPECT_EQ(At(tree, "/a/x/y/x"), 1U);
    EXPECT_EQ(At(tree, "/a/x"), kNobody);
    MoveToFreePlaces(tree, "/a/x/y", "/a");
    EXPECT_EQ(At(tree, "/a/x"), 1U);
    EXPECT_EQ(tree.Find("/a/x/y"), kNowhere);
}

// Whichever of the two is kept, the one that was there or the one that came.
TEST(PathTreeTest, WhereTwoTreesMeetTheirTenantsMeet) {
    for (const bool bComesWithMore : {false, true}) {
        CPathTree tree;
        Let(tree, "/from/both", 1);
        Let(tree, "/from/mine", 2);
        Let(tree, "/to/both", 3);
        Let(tree, "/to/yours", 4);
        Let(tree, bComesWithMore ? "/from/more" : "/to/more", 5);
        Let(tree, "/to", 6);
        std::vector<Tenant> vMet;
        tree.MoveBelow("/from", "/to", [&](Tenant iTenant, Place iPlace) {
            if (iTenant == 6U) {
                EXPECT_EQ(iPlace, tree.Find("/to"));
            } else {
                EXPECT_EQ(iPlace, tree.Find("/to/both"));
                vMet.push_back(iTenant);
            }
        });
        vMet.push_back(At(tree, "/to/both"));
        std::ranges::sort(vMet);
        EXPECT_EQ(vMet, (std::vector<Tenant>{1, 3}));
        EXPECT_EQ(At(tree, "/to/mine"), 2U);
        EXPECT_EQ(At(tree, "/to/yours"), 4U);
        EXPECT_EQ(At(tree, "/to/more"), 5U);
        EXPECT_EQ(tree.Find("/from"), kNowhere);
    }
}

// As happens when memory runs out.
TEST(PathTreeTest, WhatIsLostOnTheWayHasNoPath) {
    CPathTree tree;
    Let(tree, "/from/sub/both", 1);
    Let(tree, "/from/sub/mine", 2);
    Let(tree, "/to/sub/both", 3);
    Let(tree, "/to/sub/yours", 4);
    const Place iLost = tree.Find("/from/sub/both");
    const auto fail = [](Tenant, Place) { throw std::bad_alloc(); };
    EXPECT_THROW(tree.MoveBelow("/from", "/to", fail), std::bad_alloc);
    char vcPath[64];
    EXPECT_TRUE(!tree.CopyPath(iLost, vcPath, sizeof(vcPath)) || At(tree, vcPath) == 1U);
    Let(tree, "/new", 5);
    EXPECT_NE(tree.Find("/new"), iLost) << "its number is not given to another path";
    EXPECT_FALSE(tree.CopyPath(CPathTree::kTop, vcPath, sizeof(vcPath)));
}

TEST(PathTreeTest, ClearedTreeIsEmpty) {
    CPathTree tree;
    Let(tree, "/a/b", 1);
    const Place iFirst = tree.Find("/a");
    tree.Clear();
    EXPECT_EQ(tree.Find("/a"), kNowhere);
    EXPECT_EQ(tree.FindOrAdd("/c"), iFirst);
}

}  // namespace
