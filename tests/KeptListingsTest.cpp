// The listings in progress: who goes on where, for how long, and within which memory.
#include "KeptListings.h"

#include <algorithm>
#include <map>
#include <random>
#include <thread>

#include <gmock/gmock.h>

#include "ListedFolder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Outcome = CKeptListings::Outcome;
using Names = std::vector<std::string>;

constexpr std::size_t kMost = 10;

class KeptListingsTest : public testing::Test {
protected:
    /// One call as the server makes it: the directory is read where that is asked for.
    std::vector<ListedEntry> Call(unsigned long lCookie, const CKeptListings::Key& key, const ListedFolder& folder) {
        std::vector<ListedEntry> vEntries;
        m_Outcome = Outcome::kReadFirst;
        m_bKept = false;
        if (lCookie != 0) {
            m_Outcome = m_Listings.Show(key, lCookie, nullptr, kMost, folder.Look(), m_Now, &vEntries);
            m_bKept = m_Outcome != Outcome::kReadFirst || !vEntries.empty();
        }
        if (m_Outcome == Outcome::kReadFirst) {
            CNameList names = folder.Read();
            m_Outcome = m_Listings.Show(key, lCookie, &names, kMost, folder.Look(), m_Now, &vEntries);
            EXPECT_NE(m_Outcome, Outcome::kReadFirst);
        }
        EXPECT_EQ(m_Outcome == Outcome::kMore, vEntries.size() == kMost);
        EXPECT_LE(m_Listings.GetMemory(), m_Listings.GetMaxMemory());
        return vEntries;
    }
    std::vector<ListedEntry> Call(unsigned long lCookie) { return Call(lCookie, m_Key, m_Folder); }
    /// Goes on to the end; the names.
    std::vector<std::string> CallToTheEnd(unsigned long lCookie) {
        std::vector<std::string> vsNames;
        do {
            for (const ListedEntry& entry : Call(lCookie)) {
                vsNames.push_back(entry.sName);
                lCookie = entry.lCookie;
            }
        } while (m_Outcome == Outcome::kMore);
        return vsNames;
    }
    static CKeptListings::Key KeyOf(const std::string& sClient, const std::string& sPath = "/d") {
        return {sClient, sPath, 1, 2};
    }

    CKeptListings m_Listings{200000};
    CKeptListings::Time m_Now{std::chrono::hours(1)};
    CKeptListings::Key m_Key = KeyOf("10.0.0.1");
    ListedFolder m_Folder{35};
    Outcome m_Outcome = Outcome::kEnd;
    bool m_bKept = false;  ///< did the last call go on in what was kept?
};

TEST_F(KeptListingsTest, WalkReadsTheDirectoryAtItsBeginningAndAtItsEnd) {
    Call(0);
    for (const unsigned long lCookie : {10UL, 20UL}) {
        Call(lCookie);
        EXPECT_TRUE(m_bKept);
    }
    EXPECT_EQ(CookiesOf(Call(30)).back(), 35U);
    EXPECT_EQ(m_Outcome, Outcome::kEnd);
}

TEST_F(KeptListingsTest, NothingIsKeptOfWhatEndsWithItsFirstReply) {
    m_Folder = ListedFolder(9);
    Call(0);
    EXPECT_EQ(m_Outcome, Outcome::kEnd);
    EXPECT_EQ(m_Listings.GetCount(), 0U);
    EXPECT_EQ(m_Listings.GetMemory(), 0U);
}

TEST_F(KeptListingsTest, ClientsAndDirectoriesAreKeptApart) {
    Call(0);
    for (const auto& key : {KeyOf("10.0.0.2"), KeyOf("10.0.0.1", "/e"), CKeptListings::Key{"10.0.0.1", "/d", 1, 3},
                            CKeptListings::Key{"10.0.0.1", "/d", 2, 2}}) {
        Call(10, key, m_Folder);
        EXPECT_FALSE(m_bKept);
    }
    Call(10);
    EXPECT_TRUE(m_bKept);
}

TEST_F(KeptListingsTest, RemovingWhatIsListedRemovesEverything) {
    m_Folder = ListedFolder(2000);
    unsigned long lCookie = 0;
    do {
        for (const ListedEntry& entry : Call(lCookie)) {
            m_Folder.Remove(entry.sName);
            lCookie = entry.lCookie;
        }
    } while (m_Outcome == Outcome::kMore);
    EXPECT_THAT(m_Folder.GetNames(), IsEmpty());
}

TEST_F(KeptListingsTest, WhatCameMeanwhileFollowsAtTheEnd) {
    Call(0);
    m_Folder.Insert("new", 0);
    const auto vsRest = CallToTheEnd(10);
    ASSERT_EQ(vsRest.size(), 26U);
    EXPECT_EQ(vsRest.front(), "n10");
    EXPECT_EQ(vsRest.back(), "new");
}

// The next listing is a new one: in the host's order, from 1, without gaps.
TEST_F(KeptListingsTest, ListingAfterAnEndedOneBeginsAnew) {
    CallToTheEnd(0);
    m_Folder.Remove("n3");
    m_Folder.Insert("new", 0);
    const auto vFirst = Call(0);
    EXPECT_EQ(NamesOf(vFirst), (Names{"new", "n0", "n1", "n2", "n4", "n5", "n6", "n7", "n8", "n9"}));
    EXPECT_THAT(CookiesOf(vFirst), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
}

TEST_F(KeptListingsTest, LastReplyOfAnEndedWalkCanBeAskedForAgain) {
    CallToTheEnd(0);
    const auto vLast = Call(30);
    EXPECT_TRUE(m_bKept);
    EXPECT_EQ(NamesOf(vLast), (Names{"n30", "n31", "n32", "n33", "n34"}));
    EXPECT_EQ(m_Outcome, Outcome::kEnd);
}

// A client may have listed to the end ahead of its user, who removes what was shown so far; then another listing begins
// and has fewer entries than the first one's position.
TEST_F(KeptListingsTest, WalkGoesOnBehindANewerListingThatDidNotComeThatFar) {
    CallToTheEnd(0);
    for (int i = 0; i < 30; ++i) {
        m_Folder.Remove("n" + std::to_string(i));
    }
    EXPECT_EQ(NamesOf(Call(0)), (Names{"n30", "n31", "n32", "n33", "n34"}));
    EXPECT_EQ(NamesOf(Call(30)), (Names{"n30", "n31", "n32", "n33", "n34"}));
}

// The kernel's client may begin again with cookie 0 in the middle of a walk, and looks for the position it was at.
TEST_F(KeptListingsTest, BeginningAgainInTheMiddleOfAWalkKeepsItsPositions) {
    Call(0);
    Call(10);
    for (int i = 0; i < 20; i += 2) {
        m_Folder.Remove("n" + std::to_string(i));
    }
    m_Folder.Insert("new", 0);
    const auto vAgain = Call(0);
    EXPECT_EQ(NamesOf(vAgain), (Names{"n1", "n3", "n5", "n7", "n9", "n11", "n13", "n15", "n17", "n19"}));
    EXPECT_THAT(CookiesOf(vAgain), ElementsAre(2, 4, 6, 8, 10, 12, 14, 16, 18, 20));
    const auto vsRest = CallToTheEnd(20);
    EXPECT_EQ(vsRest.size(), 16U);
    EXPECT_EQ(std::ranges::count(vsRest, "new"), 1);
}

TEST_F(KeptListingsTest, ShiftedCookieGoesOnAsIfTheDirectoryWereReadAnew) {
    Call(20);
    EXPECT_FALSE(m_bKept);
    EXPECT_EQ(NamesOf(Call(30)), (Names{"n30", "n31", "n32", "n33", "n34"}));
    EXPECT_THAT(Call(35), IsEmpty());
    EXPECT_THAT(Call(~0UL), IsEmpty());
    EXPECT_EQ(m_Outcome, Outcome::kEnd);
}

// ---- Several walks at the same time

/// One of several walks over one directory by one client.
struct Walk {
    unsigned long lCookie = 0;
    bool bEnd = false;
    std::map<std::string, int> mSeen;
};

// Walks begin, go on, pause and begin again in random order; files are removed and made by anybody.
TEST_F(KeptListingsTest, OverlappingWalksShowWhatStaysExactlyOnce) {
    for (unsigned int iSeed = 1; iSeed <= 50; ++iSeed) {
        m_Now += CKeptListings::kWalkIdle;  // nothing is left of the seed before
        std::mt19937 random(iSeed);
        const CKeptListings::Key key = KeyOf("client" + std::to_string(iSeed));
        ListedFolder folder(120);
        std::vector<Walk> vWalks(3);
        int nMade = 0;
        for (int iStep = 0; iStep < 400; ++iStep) {
            Walk& walk = vWalks[random() % vWalks.size()];
            if (walk.bEnd || random() % 100 == 0) {
                // Names that were there all the time are those numbered below 60.
                for (int i = 0; walk.bEnd && i < 60; ++i) {
                    ASSERT_EQ(walk.mSeen["n" + std::to_string(i)], 1) << "seed " << iSeed << ", name " << i;
                }
                walk = Walk();
            }
            for (const ListedEntry& entry : Call(walk.lCookie, key, folder)) {
                ASSERT_GT(entry.lCookie, walk.lCookie);
                ASSERT_TRUE(folder.Contains(entry.sName));
                walk.lCookie = entry.lCookie;
                ++walk.mSeen[entry.sName];
            }
            walk.bEnd = m_Outcome == Outcome::kEnd;
            folder.Remove("n" + std::to_string(60 + random() % 60));
            if (random() % 3 == 0) {
                folder.Insert("new" + std::to_string(nMade++), random() % (folder.GetNames().size() + 1));
            }
        }
    }
}

TEST_F(KeptListingsTest, WalksSideBySideBothRemoveAndNothingIsLeft) {
    m_Folder = ListedFolder(500);
    unsigned long vlCookies[2] = {0, 0};
    bool vbEnd[2] = {false, false};
    for (int i = 0; !vbEnd[0] || !vbEnd[1]; i = 1 - i) {
        for (const ListedEntry& entry : Call(vlCookies[i])) {
            m_Folder.Remove(entry.sName);
            vlCookies[i] = entry.lCookie;
        }
        vbEnd[i] = m_Outcome == Outcome::kEnd;
    }
    EXPECT_THAT(m_Folder.GetNames(), IsEmpty());
}

// ---- Time and memory

TEST_F(KeptListingsTest, WalkThatWaitsTooLongIsForgotten) {
    Call(0);
    m_Now += CKeptListings::kWalkIdle - std::chrono::seconds(1);
    Call(10);
    EXPECT_TRUE(m_bKept);
    m_Now += CKeptListings::kWalkIdle;
    Call(20);
    EXPECT_FALSE(m_bKept);
}

TEST_F(KeptListingsTest, IdleListingsAreFreedByAnyCall) {
    Call(0);
    Call(0, KeyOf("10.0.0.2"), m_Folder);
    CallToTheEnd(10);
    EXPECT_EQ(m_Listings.GetCount(), 2U);
    m_Now += CKeptListings::kEndedIdle;
    Call(0, KeyOf("10.0.0.3"), ListedFolder(3));
    EXPECT_EQ(m_Listings.GetCount(), 1U);
    m_Now += CKeptListings::kWalkIdle;
    Call(0, KeyOf("10.0.0.3"), ListedFolder(3));
    EXPECT_EQ(m_Listings.GetCount(), 0U);
    EXPECT_EQ(m_Listings.GetMemory(), 0U);
}

TEST_F(KeptListingsTest, AbandonedWalkHoldsPositionsForItsTimeOnly) {
    Call(0);
    m_Folder.Remove("n0");
    m_Now += CKeptListings::kWalkIdle;
    EXPECT_EQ(Call(0).front().lCookie, 1U);
}

// Whoever lists a folder again and again does not keep alive what another walk left behind: each change would make the
// listing longer, for good.
TEST_F(KeptListingsTest, AbandonedWalkIsForgottenAlsoWhereOthersPassItsPosition) {
    Call(0);
    for (int i = 34; i < 74; ++i) {
        m_Folder.Remove("n" + std::to_string(i));
        m_Folder.Insert("n" + std::to_string(i + 1), m_Folder.GetNames().size());
        m_Now += CKeptListings::kWalkIdle / 10;
        CallToTheEnd(0);
    }
    Call(30);
    EXPECT_EQ(Call(30).back().lCookie, 35U);
}

// Clients that begin again and never come to the end keep a listing alive while the host replaces every file. What a
// call costs is what the directory holds, and not what it ever held.
TEST_F(KeptListingsTest, NamesThatAreGoneCostNothingHoweverManyThereWere) {
    m_Folder = ListedFolder(20);
    const auto replaceAll = [this](int iRound) {
        std::vector<std::string> vsNames;
        for (int i = 0; i < 20; ++i) {
            vsNames.push_back(std::to_string(iRound) + "-" + std::to_string(i));
        }
        vsNames[11] = "stays";
        m_Folder = ListedFolder(std::move(vsNames));
    };
    replaceAll(0);
    const unsigned long lWaiting = Call(0).back().lCookie;  // behind it comes what stays
    std::size_t nMemory = 0;
    for (int iRound = 1; iRound <= 2000; ++iRound) {
        replaceAll(iRound);
        const auto vFirst = Call(0);
        ASSERT_EQ(vFirst.size(), kMost);
        ASSERT_TRUE(std::ranges::all_of(vFirst, [&](const auto& entry) { return m_Folder.Contains(entry.sName); }));
        ASSERT_EQ(m_Listings.GetCount(), 1U);
        if (iRound == 1000) {
            nMemory = m_Listings.GetMemory();
        }
    }
    EXPECT_EQ(m_Listings.GetMemory(), nMemory);
    const auto vsRest = CallToTheEnd(lWaiting);
    EXPECT_EQ(vsRest.size(), 20U);
    EXPECT_EQ(std::ranges::count(vsRest, "stays"), 1);
}

// Ten clients list more than there is memory for: some are kept, the others read the directory for every reply, and
// all see everything.
TEST_F(KeptListingsTest, EverythingIsListedAlsoWhenMemoryRunsOut) {
    const ListedFolder folder(2500);
    std::vector<Walk> vWalks(10);
    int nKept = 0;
    for (int nEnded = 0; nEnded < 10;) {
        for (std::size_t i = 0; i < vWalks.size(); ++i) {
            Walk& walk = vWalks[i];
            if (walk.bEnd) {
                continue;
            }
            for (const ListedEntry& entry : Call(walk.lCookie, KeyOf(std::to_string(i)), folder)) {
                walk.lCookie = entry.lCookie;
                ++walk.mSeen[entry.sName];
            }
            nKept += m_bKept ? 1 : 0;
            walk.bEnd = m_Outcome == Outcome::kEnd;
            nEnded += walk.bEnd ? 1 : 0;
        }
    }
    EXPECT_GT(nKept, 1000);
    for (const Walk& walk : vWalks) {
        EXPECT_EQ(walk.mSeen.size(), 2500U);
        EXPECT_TRUE(std::ranges::all_of(walk.mSeen, [](const auto& seen) { return seen.second == 1; }));
    }
}

TEST_F(KeptListingsTest, DirectoryLargerThanTheBoundIsNotKeptAndListedWhole) {
    m_Folder = ListedFolder(40000);
    std::vector<std::string> vsNames = NamesOf(Call(0));
    EXPECT_EQ(m_Listings.GetCount(), 0U);
    EXPECT_EQ(NamesOf(Call(20000)).front(), "n20000");
    EXPECT_EQ(NamesOf(Call(39995)), (Names{"n39995", "n39996", "n39997", "n39998", "n39999"}));
    EXPECT_EQ(m_Listings.GetMemory(), 0U);
}

TEST_F(KeptListingsTest, WhatEndedMakesRoomBeforeWhatIsInProgress) {
    const ListedFolder folder(5500);
    m_Folder = folder;
    CallToTheEnd(0);
    Call(0, KeyOf("10.0.0.2"), folder);
    Call(0, KeyOf("10.0.0.3"), folder);
    const std::size_t nEach = m_Listings.GetMemory() / 3;
    ASSERT_EQ(m_Listings.GetCount(), 3U);
    ASSERT_LT(m_Listings.GetMaxMemory(), nEach * 4) << "another one must not fit";
    Call(0, KeyOf("10.0.0.4"), folder);
    EXPECT_EQ(m_Listings.GetCount(), 3U);
    for (const char* pcClient : {"10.0.0.2", "10.0.0.3", "10.0.0.4"}) {
        Call(10, KeyOf(pcClient), folder);
        EXPECT_TRUE(m_bKept) << pcClient;
    }
}

TEST_F(KeptListingsTest, LongestUnusedGoesButNotWhatIsInUse) {
    const ListedFolder folder(5500);
    for (const char* pcClient : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
        Call(0, KeyOf(pcClient), folder);
    }
    ASSERT_EQ(m_Listings.GetCount(), 3U);
    Call(0, KeyOf("10.0.0.4"), folder);
    EXPECT_EQ(m_Listings.GetCount(), 3U) << "a listing in use was dropped for a new one";
    Call(10, KeyOf("10.0.0.4"), folder);
    EXPECT_FALSE(m_bKept);
    m_Now += CKeptListings::kInUse;
    Call(10, KeyOf("10.0.0.1"), folder);
    EXPECT_TRUE(m_bKept);
    Call(20, KeyOf("10.0.0.4"), folder);
    Call(30, KeyOf("10.0.0.4"), folder);
    EXPECT_TRUE(m_bKept);
    Call(10, KeyOf("10.0.0.2"), folder);
    EXPECT_FALSE(m_bKept);
}

// ---- Threads

TEST_F(KeptListingsTest, CallsOfSeveralThreadsDoNotDisturbEachOther) {
    const ListedFolder folder(3500);  // three fit, the others come and go
    const auto walk = [&](const std::string& sClient) {
        std::vector<ListedEntry> vEntries;
        unsigned long lCookie = 0;
        for (Outcome outcome = Outcome::kMore; outcome == Outcome::kMore;) {
            outcome = m_Listings.Show(KeyOf(sClient), lCookie, nullptr, kMost, folder.Look(), m_Now, &vEntries);
            if (outcome == Outcome::kReadFirst) {
                CNameList names = folder.Read();
                outcome = m_Listings.Show(KeyOf(sClient), lCookie, &names, kMost, folder.Look(), m_Now, &vEntries);
            }
            for (const ListedEntry& entry : vEntries) {
                EXPECT_EQ(entry.sName, folder.GetNames()[lCookie]);
                EXPECT_EQ(entry.lCookie, ++lCookie);
            }
        }
        EXPECT_EQ(lCookie, 3500U);
    };
    std::vector<std::thread> vThreads;
    for (int i = 0; i < 4; ++i) {
        vThreads.emplace_back(walk, std::to_string(i));
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_LE(m_Listings.GetMemory(), m_Listings.GetMaxMemory());
}

}  // namespace
