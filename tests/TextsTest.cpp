// Texts that may be null, and their way into buffers.
#include "Texts.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

TEST(TextsTest, NullCountsAsEmptyAndEveryOtherTextAsItself) {
    const char* pcText = "text";
    EXPECT_EQ(OrEmpty(pcText), pcText);
    EXPECT_STREQ(OrEmpty(nullptr), "");
}

TEST(TextsTest, ATextThatDoesNotFitIsCutAtTheBuffersEnd) {
    char vcOut[8];
    CopyText(vcOut, "1234567");
    EXPECT_STREQ(vcOut, "1234567");
    CopyText(vcOut, "12345678");
    EXPECT_STREQ(vcOut, "1234567");
    CopyText(vcOut, nullptr);
    EXPECT_STREQ(vcOut, "");
}

TEST(TextsTest, NothingIsWrittenBehindTheTextsEnd) {
    char vcOut[8];
    std::fill(std::begin(vcOut), std::end(vcOut), '#');
    CopyText(vcOut, 4, "abcdef");
    EXPECT_EQ(std::string(vcOut, sizeof(vcOut)), std::string("abc\0####", 8));
    CopyText(vcOut, "x");
    EXPECT_EQ(std::string(vcOut, sizeof(vcOut)), std::string("x\0c\0####", 8));
}

TEST(TextsTest, WithoutABufferOrRoomNothingIsCopied) {
    CopyText(nullptr, 8, "text");
    char cOut = '#';
    CopyText(&cOut, 0, "text");
    EXPECT_EQ(cOut, '#');
}
