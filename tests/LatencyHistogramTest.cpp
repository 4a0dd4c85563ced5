// Buckets of times, and percentiles against a sorted list.
#include "LatencyHistogram.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Histogram = CLatencyHistogram;

TEST(LatencyHistogramTest, BucketsFollowOneAnotherWithoutAGapAndEndWhereTheNextBegins) {
    for (std::size_t i = 0; i + 1 < Histogram::kBuckets; ++i) {
        const std::uint64_t lEnd = Histogram::GetEnd(i);
        ASSERT_LT(lEnd, Histogram::GetEnd(i + 1)) << i;
        ASSERT_EQ(Histogram::GetBucket(lEnd), i) << "its end belongs to a bucket: " << lEnd;
        ASSERT_EQ(Histogram::GetBucket(lEnd + 1), i + 1) << lEnd;
    }
    EXPECT_EQ(Histogram::GetBucket(0), 0U);
    EXPECT_EQ(Histogram::GetBucket(1), 0U);
    EXPECT_EQ(Histogram::GetEnd(0), 16U);
}

TEST(LatencyHistogramTest, ABucketIsNoWiderThanASixteenthOfItsTimes) {
    for (std::size_t i = Histogram::kParts; i < Histogram::kBuckets; ++i) {
        const std::uint64_t lBegin = Histogram::GetEnd(i - 1);
        ASSERT_LE((Histogram::GetEnd(i) - lBegin) * Histogram::kParts, lBegin) << i;
    }
}

TEST(LatencyHistogramTest, EachPowerOfTwoIsTheEndOfABucket) {
    for (unsigned int i = 8; i < 40; ++i) {
        const std::uint64_t lPower = std::uint64_t{1} << i;
        EXPECT_EQ(Histogram::GetEnd(Histogram::GetBucket(lPower)), lPower) << i;
    }
}

TEST(LatencyHistogramTest, WhatIsTooLongForAnyBucketIsInTheLastOne) {
    Histogram histogram;
    const std::uint64_t lMost = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(Histogram::GetBucket(lMost), Histogram::kBuckets - 1);
    const std::uint64_t lLastEnd = Histogram::GetEnd(Histogram::kBuckets - 1);
    EXPECT_EQ(lLastEnd, std::uint64_t{1} << 40U) << "18 minutes";
    histogram.Add(lLastEnd * 4);
    const LatencyFigures figures = histogram.Read();
    EXPECT_EQ(figures.lMax, lLastEnd * 4);
    EXPECT_EQ(figures.GetPercentile(0.5), lLastEnd * 4) << "the longest, as nothing better is known";
    EXPECT_EQ(figures.CountUpTo(lLastEnd * 8), 0U) << "nobody knows how long it took";
}

TEST(LatencyHistogramTest, NothingIsKnownOfNoCalls) {
    const LatencyFigures figures = Histogram().Read();
    EXPECT_EQ(figures.nCalls, 0U);
    EXPECT_TRUE(figures.vnCalls.empty());
    EXPECT_EQ(figures.GetPercentile(0.5), 0U);
    EXPECT_EQ(figures.CountUpTo(1000), 0U);
}

TEST(LatencyHistogramTest, OneCallIsEveryPercentile) {
    Histogram histogram;
    histogram.Add(12345);
    const LatencyFigures figures = histogram.Read();
    for (const double dPart : {0.001, 0.5, 0.9, 0.99, 0.999, 1.0}) {
        EXPECT_EQ(figures.GetPercentile(dPart), 12345U) << dPart;
    }
    EXPECT_EQ(figures.nCalls, 1U);
    EXPECT_EQ(figures.lSum, 12345U);
    EXPECT_EQ(figures.lMax, 12345U);
}

/// Times as calls take them: most alike, some far longer.
std::vector<std::uint64_t> MakeTimes(unsigned int iSeed, std::size_t nTimes) {
    std::mt19937 random(iSeed);
    std::lognormal_distribution<double> distribution(10.0, 2.5);
    std::vector<std::uint64_t> vTimes;
    for (std::size_t i = 0; i < nTimes; ++i) {
        vTimes.push_back(static_cast<std::uint64_t>(distribution(random)));
    }
    return vTimes;
}

TEST(LatencyHistogramTest, PercentilesAreThoseOfTheSortedListButForABucketsWidth) {
    for (const std::size_t nTimes : {std::size_t{2}, std::size_t{10}, std::size_t{999}, std::size_t{20000}}) {
        Histogram histogram;
        std::vector<std::uint64_t> vTimes = MakeTimes(static_cast<unsigned int>(nTimes), nTimes);
        for (const std::uint64_t lTime : vTimes) {
            histogram.Add(lTime);
        }
        std::ranges::sort(vTimes);
        const LatencyFigures figures = histogram.Read();
        for (const double dPart : {0.01, 0.5, 0.9, 0.99, 0.999, 1.0}) {
            const auto nRank = static_cast<std::size_t>(std::ceil(dPart * static_cast<double>(nTimes)));
            const std::uint64_t lExact = vTimes[nRank - 1];
            EXPECT_GE(figures.GetPercentile(dPart), lExact) << dPart << " of " << nTimes;
            EXPECT_LE(figures.GetPercentile(dPart), lExact + lExact / 16 + 16) << dPart << " of " << nTimes;
        }
        EXPECT_EQ(figures.GetPercentile(1.0), vTimes.back());
        EXPECT_EQ(figures.nCalls, nTimes);
    }
}

TEST(LatencyHistogramTest, CountsUpToAPowerOfTwoAreExact) {
    Histogram histogram;
    const std::vector<std::uint64_t> vTimes = MakeTimes(7, 5000);
    for (const std::uint64_t lTime : vTimes) {
        histogram.Add(lTime);
    }
    const LatencyFigures figures = histogram.Read();
    for (unsigned int i = 8; i <= 40; ++i) {
        const std::uint64_t lPower = std::uint64_t{1} << i;
        const auto nExact = std::ranges::count_if(vTimes, [lPower](std::uint64_t lTime) { return lTime <= lPower; });
        EXPECT_EQ(figures.CountUpTo(lPower), static_cast<std::uint64_t>(nExact)) << i;
    }
}

}  // namespace
