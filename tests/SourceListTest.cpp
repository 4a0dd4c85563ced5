// The numbered source paths of a redirected file.
#include "SourceList.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(SourceListTest, EqualPathsShareTheNumberOfTheFirst) {
    CSourceList list;
    EXPECT_EQ(list.Refer("/a"), 0);
    EXPECT_EQ(list.Refer("/b"), 1);
    EXPECT_EQ(list.Refer("/a"), 0);
    EXPECT_EQ(list.Refer("/a/"), 2) << "paths are compared as given";
    EXPECT_EQ(list.GetCount(), 3U);
}

TEST(SourceListTest, NumbersThatWereNotGivenOutHaveNoPath) {
    CSourceList list;
    list.Refer("/a");
    EXPECT_EQ(list.Get(-1), nullptr);
    EXPECT_EQ(list.Get(1), nullptr);
    ASSERT_NE(list.Get(0), nullptr);
    EXPECT_EQ(*list.Get(0), "/a");
}

TEST(SourceListTest, PathsKeepTheirPlaceWhileTheListGrows) {
    CSourceList list;
    list.Refer("/first");
    const std::string* psFirst = list.Get(0);
    for (int i = 0; i < 10000; ++i) {
        list.Refer("/source/" + std::to_string(i));
    }
    EXPECT_EQ(list.Get(0), psFirst);
    EXPECT_EQ(*psFirst, "/first");
    EXPECT_EQ(list.Refer("/source/9999"), 10000);
}

}  // namespace
