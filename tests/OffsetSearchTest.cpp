// Finding a place among offsets: the result is that of counting, however the offsets lie.
#include "OffsetSearch.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Segment.h"

namespace {

std::vector<CheckPointSegment> ListOf(const std::vector<std::int64_t>& vOffsets) {
    std::vector<CheckPointSegment> vList;
    for (const std::int64_t iOffset : vOffsets) {
        vList.push_back({0, iOffset});
    }
    return vList;
}

std::size_t Count(const std::vector<CheckPointSegment>& vList, std::int64_t iOffset) {
    return CountUpTo(
        vList.size(), [&vList](std::size_t i) { return vList[i].iOffset; }, iOffset);
}

/// Compares at, before and behind each of the (ordered) offsets, and at the extremes.
void ExpectCounts(const std::vector<std::int64_t>& vOffsets) {
    const auto vList = ListOf(vOffsets);
    std::vector<std::int64_t> vAsked{INT64_MIN, -1, 0, 1, INT64_MAX};
    for (const std::int64_t iOffset : vOffsets) {
        vAsked.insert(vAsked.end(), {iOffset, AddSaturated(iOffset, -1), AddSaturated(iOffset, 1)});
    }
    for (const std::int64_t iAsked : vAsked) {
        const auto nExpected = std::count_if(vOffsets.begin(), vOffsets.end(),
                                             [iAsked](std::int64_t iOffset) { return iOffset <= iAsked; });
        ASSERT_EQ(static_cast<std::int64_t>(Count(vList, iAsked)), nExpected)
            << "offset " << iAsked << " among " << vOffsets.size();
    }
}

TEST(OffsetSearchTest, EmptyListHasNothingUpToAnyOffset) {
    EXPECT_EQ(Count({}, 0), 0U);
}

TEST(OffsetSearchTest, GuessIsTheElementItselfAmongEvenOffsetsAndAlwaysAnElement) {
    const auto offsetOf = [](std::size_t i) { return static_cast<std::int64_t>(i) * 1024; };
    for (std::int64_t iOffset = 0; iOffset < 300 * 1024; iOffset += 511) {
        EXPECT_EQ(GuessPlace(300, offsetOf, iOffset), static_cast<std::size_t>(iOffset / 1024)) << iOffset;
    }
    for (const std::int64_t iOffset : {INT64_MIN, std::int64_t{-1}, INT64_MAX}) {
        EXPECT_EQ(GuessPlace(300, offsetOf, iOffset), iOffset < 0 ? 0U : 299U);
        EXPECT_EQ(GuessPlace(0, offsetOf, iOffset), 0U);
        EXPECT_EQ(GuessPlace(1, offsetOf, iOffset), 0U);
    }
}

TEST(OffsetSearchTest, EvenOffsetsAreCounted) {
    std::vector<std::int64_t> vOffsets;
    for (std::int64_t i = 0; i < 300; ++i) {
        vOffsets.push_back(i * 1024);
        ExpectCounts(vOffsets);
    }
}

TEST(OffsetSearchTest, EqualOffsetsAreAllCounted) {
    ExpectCounts({5});
    ExpectCounts({5, 5, 5});
    ExpectCounts({0, 5, 5, 5, 5, 5, 5, 5, 9});
    ExpectCounts({0, 0, 0, 0, 0, 0, 0, 9, 9, 9});
}

TEST(OffsetSearchTest, ExtremeOffsetsDoNotOverflow) {
    ExpectCounts({INT64_MIN, INT64_MIN + 1, 0, INT64_MAX - 1, INT64_MAX});
    ExpectCounts({INT64_MIN, INT64_MAX});
    ExpectCounts({INT64_MAX - 3, INT64_MAX - 2, INT64_MAX - 1, INT64_MAX});
    ExpectCounts({INT64_MIN, INT64_MIN + 1, INT64_MIN + 2, INT64_MIN + 3});
}

TEST(OffsetSearchTest, OffsetsThatMisleadTheGuessAreCounted) {
    std::vector<std::int64_t> vGrowing;
    std::vector<std::int64_t> vCrowdedAtTheEnd;
    for (int i = 0; i < 62; ++i) {
        vGrowing.push_back(std::int64_t{1} << i);
        vCrowdedAtTheEnd.push_back(INT64_MAX - (std::int64_t{1} << (61 - i)));
    }
    ExpectCounts(vGrowing);
    ExpectCounts(vCrowdedAtTheEnd);
}

TEST(OffsetSearchTest, RandomOffsetsAreCounted) {
    std::mt19937_64 random(static_cast<unsigned int>(testing::GTEST_FLAG(random_seed)) + 1U);
    for (int iRound = 0; iRound < 200; ++iRound) {
        std::vector<std::int64_t> vOffsets(1 + random() % 60);
        const auto iShift = static_cast<unsigned int>(random() % 64);
        for (std::int64_t& iOffset : vOffsets) {
            iOffset = static_cast<std::int64_t>(random() >> iShift);
        }
        std::sort(vOffsets.begin(), vOffsets.end());
        ExpectCounts(vOffsets);
    }
}

}  // namespace
