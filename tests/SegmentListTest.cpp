// The in-memory list of a redirected file's segments.
#include "SegmentList.h"

#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

Segment At(std::int64_t iOffset, std::int64_t iLength) {
    return {0, 0, iOffset, iLength};
}

/// What a walk from the first segment finds.
std::int64_t Walk(const std::vector<Segment>& vSegments, std::int64_t iOffset) {
    for (std::size_t i = 0; i < vSegments.size(); ++i) {
        if (vSegments[i].Covers(iOffset)) {
            return static_cast<std::int64_t>(i);
        }
    }
    return -1;
}

TEST(SegmentListTest, HoldsNothingAtFirstAndAfterClear) {
    CSegmentList list;
    EXPECT_EQ(list.Find(0), -1);
    list.Add(At(0, 10));
    EXPECT_EQ(list.Find(0), 0);
    list.Clear();
    EXPECT_EQ(list.Find(0), -1);
    EXPECT_EQ(list.GetCount(), 0U);
}

TEST(SegmentListTest, CopiesOnlySegmentsThatAreThere) {
    CSegmentList list;
    list.Add({3, 40, 500, 6});
    Segment segment;
    EXPECT_FALSE(list.Get(-1, &segment));
    EXPECT_FALSE(list.Get(1, &segment));
    ASSERT_TRUE(list.Get(0, &segment));
    EXPECT_EQ(segment.iSource, 3);
    EXPECT_EQ(segment.iFileOffset, 40);
    EXPECT_EQ(segment.iOffset, 500);
    EXPECT_EQ(segment.iLength, 6);
}

TEST(SegmentListTest, FirstOfOverlappingSegmentsWins) {
    CSegmentList list;
    list.Add(At(0, 100));
    list.Add(At(50, 100));
    EXPECT_EQ(list.Find(49), 0);
    EXPECT_EQ(list.Find(75), 0) << "the first added one, though the second covers it too";
    EXPECT_EQ(list.Find(100), 1);
    EXPECT_EQ(list.Find(150), -1);
}

TEST(SegmentListTest, EmptySegmentsCoverNothing) {
    CSegmentList list;
    list.Add(At(10, 0));
    list.Add(At(10, 10));
    list.Add(At(20, 0));
    EXPECT_EQ(list.Find(10), 1);
    EXPECT_EQ(list.Find(19), 1);
    EXPECT_EQ(list.Find(20), -1);
}

TEST(SegmentListTest, SegmentsAtTheEndOfTheNumbersAreFound) {
    CSegmentList list;
    list.Add(At(INT64_MAX - 5, INT64_MAX));
    EXPECT_EQ(list.Find(INT64_MAX - 6), -1);
    EXPECT_EQ(list.Find(INT64_MAX), 0);
}

TEST(SegmentListTest, FindsWhatAWalkFindsInOrderedAndUnorderedMaps) {
    std::mt19937_64 random(20);  // fixed: a failure comes again
    for (int iMap = 0; iMap < 200; ++iMap) {
        const bool bOrdered = iMap % 2 == 0;
        CSegmentList list;
        std::vector<Segment> vSegments;
        std::int64_t iEnd = 0;
        for (int i = 0; i < 40; ++i) {
            const auto iStep = static_cast<std::int64_t>(random() % 4);
            const auto iLength = static_cast<std::int64_t>(random() % 8);
            const std::int64_t iOffset = bOrdered ? iEnd + iStep : static_cast<std::int64_t>(random() % 150);
            vSegments.push_back(At(iOffset, iLength));
            list.Add(vSegments.back());
            iEnd = iOffset + iLength;
        }
        for (std::int64_t iOffset = -1; iOffset < 400; ++iOffset) {
            ASSERT_EQ(list.Find(iOffset), Walk(vSegments, iOffset)) << "map " << iMap << ", offset " << iOffset;
        }
    }
}

}  // namespace
