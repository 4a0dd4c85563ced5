// One listing: positions while entries go and come.
#include <gmock/gmock.h>

#include "ListedFolder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Names = std::vector<std::string>;

class ListingTest : public testing::Test {
protected:
    std::vector<ListedEntry> Show(CListing& listing, std::size_t iPosition, std::size_t nMost) {
        std::vector<ListedEntry> vEntries;
        m_bMore = listing.Show(iPosition, nMost, m_Folder.Look(), &vEntries);
        return vEntries;
    }
    std::vector<std::string> ShowNames(CListing& listing, std::size_t iPosition, std::size_t nMost) {
        return NamesOf(Show(listing, iPosition, nMost));
    }

    ListedFolder m_Folder{6};
    bool m_bMore = false;
    const CListing::Time m_Now{std::chrono::hours(1)};
};

TEST_F(ListingTest, EntriesComeInReadingOrderWithTheirCount) {
    CListing listing(m_Folder.Read());
    const auto vFirst = Show(listing, 0, 4);
    EXPECT_EQ(NamesOf(vFirst), (Names{"n0", "n1", "n2", "n3"}));
    EXPECT_THAT(CookiesOf(vFirst), ElementsAre(1, 2, 3, 4));
    EXPECT_TRUE(m_bMore);
    EXPECT_EQ(ShowNames(listing, 4, 4), (Names{"n4", "n5"}));
    EXPECT_FALSE(m_bMore);
}

TEST_F(ListingTest, FullReplyDoesNotLookWhetherMoreFollow) {
    CListing listing(m_Folder.Read());
    Show(listing, 0, 6);
    EXPECT_TRUE(m_bMore);
    EXPECT_THAT(Show(listing, 6, 4), IsEmpty());
    EXPECT_FALSE(m_bMore);
}

TEST_F(ListingTest, WhatIsGoneBeforeItIsShownHasNoPosition) {
    CListing listing(m_Folder.Read());
    Show(listing, 0, 1);
    m_Folder.Remove("n1");
    m_Folder.Remove("n3");
    const auto vRest = Show(listing, 1, 9);
    EXPECT_EQ(NamesOf(vRest), (Names{"n2", "n4", "n5"}));
    EXPECT_THAT(CookiesOf(vRest), ElementsAre(2, 3, 4));
}

TEST_F(ListingTest, WhatIsGoneAfterItWasShownKeepsThePositionsOfTheOthers) {
    CListing listing(m_Folder.Read());
    Show(listing, 0, 3);
    m_Folder.Remove("n0");
    m_Folder.Remove("n1");
    EXPECT_EQ(ShowNames(listing, 3, 9), (Names{"n3", "n4", "n5"}));
    const auto vAgain = Show(listing, 0, 2);
    EXPECT_EQ(NamesOf(vAgain), (Names{"n2", "n3"}));
    EXPECT_THAT(CookiesOf(vAgain), ElementsAre(3, 4));
}

TEST_F(ListingTest, AReplyAskedForAgainIsTheSame) {
    CListing listing(m_Folder.Read());
    Show(listing, 0, 2);
    const auto vsFirst = ShowNames(listing, 2, 2);
    Show(listing, 4, 2);
    EXPECT_EQ(ShowNames(listing, 2, 2), vsFirst);
}

TEST_F(ListingTest, NewReadingLetsWhatWasHandedOutStayAndBringsTheRestInItsOrder) {
    CListing listing(m_Folder.Read());
    Show(listing, 0, 2);
    m_Folder = ListedFolder({"new", "n5", "n1", "n3"});
    listing.Refresh(m_Folder.Read());
    const auto vAll = Show(listing, 0, 9);
    EXPECT_EQ(NamesOf(vAll), (Names{"n1", "new", "n5", "n3"}));
    EXPECT_THAT(CookiesOf(vAll), ElementsAre(2, 3, 4, 5));
}

TEST_F(ListingTest, WhatCameAgainUnderItsNameAfterAReadingWithoutItFollowsAtTheEnd) {
    CListing listing(m_Folder.Read());
    Show(listing, 0, 6);
    m_Folder.Remove("n2");
    listing.Refresh(m_Folder.Read());
    m_Folder.Insert("n2", 5);
    listing.Refresh(m_Folder.Read());
    const auto vRest = Show(listing, 6, 9);
    EXPECT_EQ(NamesOf(vRest), (Names{"n2"}));
    EXPECT_THAT(CookiesOf(vRest), ElementsAre(7));
}

// What has been left out of the places of its names leaves gaps in the positions, and every walk goes on behind its
// own.
TEST_F(ListingTest, PositionsBetweenThoseOfWhatIsLeftLeadToWhatFollows) {
    CListing listing(m_Folder.Read());
    Show(listing, 0, 5);
    m_Folder = ListedFolder({"n5", "n4", "n1"});
    listing.Refresh(m_Folder.Read());
    EXPECT_EQ(listing.GetHandedOut(), 5U);
    EXPECT_THAT(CookiesOf(Show(listing, 0, 2)), ElementsAre(2, 5));
    EXPECT_THAT(CookiesOf(Show(listing, 1, 2)), ElementsAre(2, 5));
    for (const std::size_t iPosition : {2U, 3U, 4U}) {
        EXPECT_THAT(CookiesOf(Show(listing, iPosition, 1)), ElementsAre(5)) << iPosition;
    }
    EXPECT_THAT(CookiesOf(Show(listing, 4, 9)), ElementsAre(5, 6));
    EXPECT_EQ(ShowNames(listing, 5, 9), (Names{"n5"}));
    m_Folder = ListedFolder({"new", "other"});
    listing.Refresh(m_Folder.Read());  // nothing of what was handed out is left
    EXPECT_EQ(listing.GetHandedOut(), 6U);
    for (const std::size_t iPosition : {0U, 3U, 6U}) {
        EXPECT_THAT(CookiesOf(Show(listing, iPosition, 9)), ElementsAre(7, 8)) << iPosition;
    }
    EXPECT_THAT(CookiesOf(Show(listing, 7, 9)), ElementsAre(8));
    EXPECT_THAT(Show(listing, 8, 9), IsEmpty());
}

// Positions of what is there no more take no room, and without such the positions take none either.
TEST_F(ListingTest, MemoryIsThatOfTheLastReading) {
    CListing listing(m_Folder.Read());
    const std::size_t nBefore = listing.GetMemory();
    Show(listing, 0, 6);
    listing.Refresh(m_Folder.Read());
    EXPECT_EQ(listing.GetMemory(), nBefore);
    for (int i = 0; i < 1000; ++i) {
        m_Folder = ListedFolder({"a" + std::to_string(i), "b" + std::to_string(i)});
        listing.Refresh(m_Folder.Read());
        EXPECT_EQ(Show(listing, 0, 2).size(), 2U);
    }
    EXPECT_LE(listing.GetMemory(), nBefore + 100);
    EXPECT_EQ(listing.GetHandedOut(), 2006U);
}

TEST_F(ListingTest, FirstNamesCanCountAsHandedOut) {
    CListing listing(m_Folder.Read(), 4);
    EXPECT_EQ(listing.GetHandedOut(), 4U);
    EXPECT_EQ(ShowNames(listing, 4, 9), (Names{"n4", "n5"}));
    EXPECT_EQ(ShowNames(listing, 2, 1), (Names{"n2"}));
}

TEST_F(ListingTest, WalksWaitWhereTheirRepliesEndedUntilTheyGoOnOrTimeIsUp) {
    const auto idle = std::chrono::seconds(60);
    CListing listing(m_Folder.Read());
    EXPECT_FALSE(listing.HasWalk(m_Now, idle));
    listing.NoteReply(0, 3, m_Now);
    listing.NoteReply(0, 3, m_Now);
    listing.NoteReply(3, 5, m_Now);
    EXPECT_TRUE(listing.HasWalkAt(3));
    EXPECT_TRUE(listing.HasWalkAt(5));
    listing.NoteReply(3, std::nullopt, m_Now);
    EXPECT_FALSE(listing.HasWalkAt(3));
    EXPECT_TRUE(listing.HasWalk(m_Now, idle));
    listing.NoteReply(5, 6, m_Now + idle / 2);
    EXPECT_TRUE(listing.HasWalk(m_Now + idle, idle));
    EXPECT_FALSE(listing.HasWalk(m_Now + idle * 2, idle));
    EXPECT_FALSE(listing.HasWalkAt(6));
}

TEST_F(ListingTest, WalksThatNobodyGoesOnWithDoNotPileUp) {
    CListing listing(m_Folder.Read());
    listing.NoteReply(0, 1, m_Now);
    const std::size_t nMemory = listing.GetMemory();
    for (int i = 0; i < 100000; ++i) {
        listing.NoteReply(0, 2, m_Now);
    }
    EXPECT_LT(listing.GetMemory(), nMemory + 16384);
    EXPECT_TRUE(listing.HasWalkAt(2));
}

}  // namespace
