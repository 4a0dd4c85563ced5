// What record marks tell.
#include "RecordMark.h"

#include <gtest/gtest.h>

TEST(RecordMark, AMarkTellsLengthAndWhetherTheRecordEndsThere) {
    const CRecordMark last(0x80000064U);
    EXPECT_TRUE(last.IsPlausible());
    EXPECT_TRUE(last.IsLast());
    EXPECT_EQ(last.GetSize(), 104U);
    const CRecordMark first(0x00000064U);
    EXPECT_TRUE(first.IsPlausible());
    EXPECT_FALSE(first.IsLast());
    EXPECT_EQ(first.GetSize(), 104U);
}

TEST(RecordMark, AFragmentHoldsAHeadAtLeastAndFitsIntoTheInputBufferWithItsMark) {
    for (const unsigned int iBit : {0U, 0x80000000U}) {
        EXPECT_FALSE(CRecordMark(iBit).IsPlausible());
        EXPECT_FALSE(CRecordMark(iBit + 39).IsPlausible());
        EXPECT_TRUE(CRecordMark(iBit + 40).IsPlausible());
        EXPECT_TRUE(CRecordMark(iBit + 1048572).IsPlausible());
        EXPECT_EQ(CRecordMark(iBit + 1048572).GetSize(), 1048576U);
        EXPECT_FALSE(CRecordMark(iBit + 1048573).IsPlausible());
        EXPECT_FALSE(CRecordMark(iBit + 0x7FFFFFFFU).IsPlausible());
    }
}

TEST(RecordMark, ADatagramHasNone) {
    EXPECT_FALSE(CRecordMark().IsPlausible());
}
