// Numbers found by hashes, held against a map.
#include "HashIndex.h"

#include <cstdint>
#include <map>
#include <random>

#include <gtest/gtest.h>

namespace {

/// Asks about nothing but this number.
std::uint32_t FindNumber(const CHashIndex& index, std::uint32_t iHash, std::uint32_t iNumber) {
    return index.Find(iHash, [iNumber](std::uint32_t i) { return i == iNumber; });
}

TEST(HashIndexTest, EmptyOneFindsNothing) {
    const CHashIndex index;
    EXPECT_EQ(index.Find(0, [](std::uint32_t) { return true; }), CHashIndex::kNone);
    EXPECT_EQ(index.Find(0xFFFFFFFFU, [](std::uint32_t) { return true; }), CHashIndex::kNone);
}

TEST(HashIndexTest, NumbersOfOneHashAreToldApartByTheCaller) {
    CHashIndex index;
    for (std::uint32_t iNumber = 0; iNumber < 100; ++iNumber) {
        index.Add(7, iNumber);
    }
    for (std::uint32_t iNumber = 0; iNumber < 100; ++iNumber) {
        EXPECT_EQ(FindNumber(index, 7, iNumber), iNumber);
    }
    EXPECT_EQ(FindNumber(index, 7, 100), CHashIndex::kNone);
    EXPECT_EQ(FindNumber(index, 8, 5), CHashIndex::kNone) << "the caller is not asked about another hash's";
}

TEST(HashIndexTest, ClearedOneIsEmpty) {
    CHashIndex index;
    index.Add(7, 1);
    index.Clear();
    EXPECT_EQ(FindNumber(index, 7, 1), CHashIndex::kNone);
}

/// Random additions and removals; whatever is there is found, and nothing else.
void CompareWithMap(std::uint32_t iSeed, std::uint32_t iHashMask) {
    CHashIndex index;
    std::map<std::uint32_t, std::uint32_t> mHashes;  // by number
    std::mt19937 random(iSeed);
    for (int iOperation = 0; iOperation < 20000; ++iOperation) {
        const auto iNumber = static_cast<std::uint32_t>(random() % 600);
        const auto itKnown = mHashes.find(iNumber);
        if (itKnown == mHashes.end()) {
            const auto iHash = static_cast<std::uint32_t>(random()) & iHashMask;
            ASSERT_EQ(FindNumber(index, iHash, iNumber), CHashIndex::kNone) << iOperation;
            index.Add(iHash, iNumber);
            mHashes[iNumber] = iHash;
        } else {
            ASSERT_EQ(FindNumber(index, itKnown->second, iNumber), iNumber) << iOperation;
            index.Remove(itKnown->second, iNumber);
            mHashes.erase(itKnown);
        }
        if (iOperation % 500 == 0) {
            for (const auto& [iKnown, iHash] : mHashes) {
                ASSERT_EQ(FindNumber(index, iHash, iKnown), iKnown) << iOperation;
            }
        }
    }
}

TEST(HashIndexTest, ScatteredHashesBehaveAsAMapDoes) {
    CompareWithMap(1, 0xFFFFFFFFU);
}

TEST(HashIndexTest, HashesOfOnePartBehaveAsAMapDoes) {
    CompareWithMap(2, 0x00FFFFFFU);
}

// Long runs of slots in use, around the end of the part.
TEST(HashIndexTest, CrowdedHashesBehaveAsAMapDoes) {
    CompareWithMap(3, 0x000003FFU);
    CompareWithMap(4, 0x00000007U);
}

}  // namespace
