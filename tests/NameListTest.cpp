// The names of a directory: kept compactly, found by hash.
#include "NameList.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(NameListTest, NamesComeBackByTheirPlaces) {
    CNameList names;
    EXPECT_EQ(names.GetSize(), 0U);
    for (const char* pcName : {"one", "", "\xff\n%s", "three"}) {
        names.Append(pcName);
    }
    names.ShrinkToFit();
    ASSERT_EQ(names.GetSize(), 4U);
    EXPECT_STREQ(names.GetName(0), "one");
    EXPECT_STREQ(names.GetName(1), "");
    EXPECT_STREQ(names.GetName(2), "\xff\n%s");
    names.Copy(1, 3);
    EXPECT_STREQ(names.GetName(1), "three");
    EXPECT_STREQ(names.GetName(3), "three");
}

TEST(NameListTest, TextAndFourBytesAreAllThatANameCosts) {
    CNameList names;
    for (int i = 0; i < 100000; ++i) {
        names.Append("0123456789012345678");
    }
    names.ShrinkToFit();
    EXPECT_LE(names.GetMemory(), 100000U * (20 + 4) + 64);
}

TEST(NameListTest, IndexFindsEveryNameAndNoOther) {
    CNameList names;
    for (int i = 0; i < 5000; ++i) {
        names.Append("name" + std::to_string(i));
    }
    const CNameIndex index(names);
    for (std::size_t i = 0; i < 5000; ++i) {
        EXPECT_EQ(index.Find("name" + std::to_string(i)), i);
        EXPECT_EQ(index.Find("other" + std::to_string(i)), CNameIndex::kNowhere);
    }
    EXPECT_EQ(CNameIndex(CNameList()).Find("name"), CNameIndex::kNowhere);
}

TEST(NameListTest, IndexFindsTheFirstOfEqualNames) {
    CNameList names;
    for (const char* pcName : {"a", "b", "a"}) {
        names.Append(pcName);
    }
    EXPECT_EQ(CNameIndex(names).Find("a"), 0U);
}

}  // namespace
