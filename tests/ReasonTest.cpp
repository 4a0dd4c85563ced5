// Reasons in the buffers of callers.
#include "Reason.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

TEST(Reason, IsFormattedIntoTheBuffer) {
    char vcReason[kReasonBufferSize] = "";
    WriteReason(vcReason, "Error binding socket with port %lu", 111UL);
    EXPECT_STREQ(vcReason, "Error binding socket with port 111");
}

TEST(Reason, WithoutABufferThereIsNone) {
    WriteReason(nullptr, "Portmapper is not running.");
}

TEST(Reason, ALongReasonIsCutAtTheBuffersEnd) {
    char vcReason[kReasonBufferSize + 1];
    std::memset(vcReason, '#', sizeof(vcReason));
    WriteReason(vcReason, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(std::strlen(vcReason), kReasonBufferSize - 1);
    EXPECT_EQ(vcReason[kReasonBufferSize], '#');
}

TEST(Reason, ATextOfValuesIsWholeHoweverLong) {
    EXPECT_EQ(FormatText("%s=%d", "x", 7), "x=7");
    EXPECT_EQ(FormatText("%s", ""), "");
    for (const std::size_t nLength : {kReasonBufferSize - 1, kReasonBufferSize, std::size_t{50000}}) {
        const std::string sLong(nLength, 'x');
        EXPECT_EQ(FormatText("%s", sLong.c_str()), sLong) << nLength;
        EXPECT_EQ(FormatText("%s%d", sLong.c_str(), 42), sLong + "42") << nLength;
    }
}

TEST(Reason, ASystemErrorIsItsTextAndNumber) {
    EXPECT_STREQ(CSystemErrorText(EADDRINUSE).Get(), "Address already in use (98)");
}
