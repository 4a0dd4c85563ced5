// Our jni.h against the JDK's.
#include <set>

#include <gtest/gtest.h>

#include "JniLayout.h"

namespace {

TEST(JniHeaderTest, TypesConstantsOffsetsAndSignaturesAreTheJdks) {
#ifdef NFSLIB_JDK_HEADER
    const std::vector<std::string> vsOurs = DescribeOurHeader();
    const std::vector<std::string> vsJdks = DescribeJdkHeader();
    ASSERT_EQ(vsOurs.size(), vsJdks.size());
    for (std::size_t i = 0; i < vsOurs.size(); ++i) {
        EXPECT_EQ(vsOurs[i], vsJdks[i]);
    }
#else
    GTEST_SKIP() << "no JDK headers: jni.h of a JDK is missing (package default-jdk-headless)";
#endif
}

/// The list that both headers are described by must itself be whole: every slot of the tables, 8 bytes apart.
TEST(JniHeaderTest, EverySlotUpToVersion14IsCompared) {
    std::set<std::string> sSeen;
    int nSlots = 0;
    for (const std::string& sLine : DescribeOurHeader()) {
        if (sLine.starts_with("JNINativeInterface_.")) {
            EXPECT_TRUE(sSeen.insert(sLine).second) << sLine;
            EXPECT_NE(sLine.find(" at " + std::to_string(8 * nSlots) + " "), std::string::npos) << sLine;
            ++nSlots;
        }
    }
    EXPECT_EQ(nSlots, 232) << "GetDirectBufferCapacity, the last of version 1.4, has index 231";
}

}  // namespace
