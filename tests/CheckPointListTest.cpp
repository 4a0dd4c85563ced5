// The known places in an info file.
#include "CheckPointList.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace {

/// The record position of the last check point at or before an offset, -1 for none.
std::int64_t Find(const CCheckPointList& list, std::int64_t iOffset) {
    CheckPointSegment checkPoint;
    return list.FindLast(iOffset, &checkPoint) ? checkPoint.iFileOffset : -1;
}

TEST(CheckPointListTest, LastOneAtOrBeforeTheOffsetIsFound) {
    CCheckPointList list;
    EXPECT_EQ(Find(list, 1000), -1);
    list.Add({32, 100});
    list.Add({64, 200});
    EXPECT_EQ(Find(list, 99), -1);
    EXPECT_EQ(Find(list, 100), 32);
    EXPECT_EQ(Find(list, 199), 32);
    EXPECT_EQ(Find(list, 200), 64);
    EXPECT_EQ(Find(list, INT64_MAX), 64);
}

TEST(CheckPointListTest, LastAddedOneWinsWhereOffsetsDoNotIncrease) {
    CCheckPointList list;
    list.Add({32, 200});
    list.Add({64, 100});
    list.Add({96, 200});
    EXPECT_EQ(Find(list, 250), 96) << "the same offset twice: the later record";
    EXPECT_EQ(Find(list, 150), 64);
    list.Add({128, 100});
    EXPECT_EQ(Find(list, 250), 128) << "the last added at or before, not the nearest";
}

TEST(CheckPointListTest, ClearForgetsAll) {
    CCheckPointList list;
    list.Add({32, 200});
    list.Add({64, 100});
    list.Clear();
    EXPECT_EQ(Find(list, INT64_MAX), -1);
    list.Add({32, 100});
    EXPECT_EQ(Find(list, 100), 32);
    EXPECT_EQ(list.GetAll().size(), 1U);
}

}  // namespace
