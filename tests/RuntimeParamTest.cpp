// The requester's identity and log categories.
#include "RuntimeParam.h"

#include <climits>
#include <string>

#include <gtest/gtest.h>

namespace {

struct Category {
    int iBit;
    bool (CRuntimeParam::*pIsLog)() const;
};

constexpr Category kCategories[] = {
    {1, &CRuntimeParam::IsLogError},         {2, &CRuntimeParam::IsLogGeneralInfo},
    {4, &CRuntimeParam::IsLogRpc},           {8, &CRuntimeParam::IsLogProcFuncName},
    {16, &CRuntimeParam::IsLogProcFuncArgu}, {32, &CRuntimeParam::IsLogRedirectFile},
    {64, &CRuntimeParam::IsLogIpc},          {128, &CRuntimeParam::IsLogIpcState},
    {256, &CRuntimeParam::IsLogFileAccess},  {512, &CRuntimeParam::IsLogPortmap},
};

TEST(RuntimeParamTest, EachBitSwitchesItsOwnCategoryOnly) {
    for (const Category& set : kCategories) {
        const CRuntimeParam param("me", set.iBit);
        for (const Category& asked : kCategories) {
            EXPECT_EQ((param.*asked.pIsLog)(), asked.iBit == set.iBit) << "set " << set.iBit << " asked " << asked.iBit;
        }
    }
}

TEST(RuntimeParamTest, ControlWordOfZeroSwitchesEverythingOff) {
    const CRuntimeParam param("me", 0);
    for (const Category& asked : kCategories) {
        EXPECT_FALSE((param.*asked.pIsLog)()) << asked.iBit;
    }
}

TEST(RuntimeParamTest, ControlWordWithTheTopBitStillAnswersEachBit) {
    const CRuntimeParam all("me", -1);
    const CRuntimeParam top("me", INT_MIN);
    for (const Category& asked : kCategories) {
        EXPECT_TRUE((all.*asked.pIsLog)()) << asked.iBit;
        EXPECT_FALSE((top.*asked.pIsLog)()) << asked.iBit;
    }
}

TEST(RuntimeParamTest, StartsWithItsIdAndWithoutIpcId) {
    const CRuntimeParam param("NfsMain", 3);
    EXPECT_STREQ(param.GetID(), "NfsMain");
    EXPECT_STREQ(param.GetIpcID(), "");
    EXPECT_EQ(param.GetLogControl(), 3);
}

TEST(RuntimeParamTest, NullTextsAreEmptyOnes) {
    CRuntimeParam param(nullptr, 0);
    EXPECT_STREQ(param.GetID(), "");
    param.SetID("10.0.0.5");
    param.SetIpcID("4711");
    EXPECT_STREQ(param.GetID(), "10.0.0.5");
    EXPECT_STREQ(param.GetIpcID(), "4711");
    param.SetID(nullptr);
    param.SetIpcID(nullptr);
    EXPECT_STREQ(param.GetID(), "");
    EXPECT_STREQ(param.GetIpcID(), "");
}

TEST(RuntimeParamTest, LogControlCanBeChanged) {
    CRuntimeParam param("me", 1);
    param.SetLogControl(512);
    EXPECT_EQ(param.GetLogControl(), 512);
    EXPECT_FALSE(param.IsLogError());
    EXPECT_TRUE(param.IsLogPortmap());
}

}  // namespace
