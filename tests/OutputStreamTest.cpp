// Encoding and buffer management of COutputStream.
#include "OutputStream.h"

#include <climits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

constexpr unsigned int kBufferSize = 1048576;

std::string Sent(COutputStream& output) {
    return {output.GetBuffer(), output.GetBufferSize()};
}

}  // namespace

TEST(OutputStream, WordsAreBigEndian) {
    COutputStream output;
    EXPECT_EQ(output.Write(0x01020304U), 4U);
    EXPECT_EQ(output.Write8(0x8899AABBCCDDEEFFUL), 8U);
    EXPECT_EQ(Sent(output), "\x01\x02\x03\x04\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF");
    EXPECT_EQ(output.GetBufferIndex(), 12U);
    EXPECT_EQ(output.GetFreeBufferSize(), kBufferSize - 12);
}

TEST(OutputStream, WordsInARowAreCutAsSingleOnesAre) {
    COutputStream together;
    COutputStream singly;
    for (COutputStream* pOutput : {&together, &singly}) {
        pOutput->Write(nullptr, kBufferSize - 10);
    }
    EXPECT_EQ(together.WriteWords(0x01020304U, 0x05060708U, 0x090A0B0CU, 0U), 10U);
    for (const unsigned int iWord : {0x01020304U, 0x05060708U, 0x090A0B0CU, 0U}) {
        singly.Write(iWord);
    }
    EXPECT_EQ(Sent(together).substr(kBufferSize - 10), "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A");
    EXPECT_TRUE(Sent(together) == Sent(singly));
}

TEST(OutputStream, NullDataReservesRoomAndKeepsWhatTheBufferHeld) {
    COutputStream output;
    output.Write("abcdef", 6);
    output.Seek(1, 0);
    EXPECT_EQ(output.Write(nullptr, 3), 3U);
    EXPECT_EQ(output.GetBufferIndex(), 4U);
    EXPECT_EQ(output.Write(nullptr, 4), 4U);
    EXPECT_EQ(Sent(output), std::string("abcdef\0\0", 8));
}

TEST(OutputStream, WritingTenBytesWithRoomForFourWritesFour) {
    COutputStream output;
    output.Write(nullptr, kBufferSize - 4);
    EXPECT_EQ(output.Write("0123456789", 10), 4U);
    EXPECT_EQ(output.GetBufferSize(), kBufferSize);
    EXPECT_EQ(output.GetFreeBufferSize(), 0U);
    EXPECT_EQ(std::string(output.GetBuffer() + kBufferSize - 4, 4), "0123");
    EXPECT_EQ(output.Write(1U), 0U);
    EXPECT_EQ(output.Write8(1UL), 0U);
    EXPECT_EQ(output.WriteRemainOpaque(1), 3U);
    EXPECT_EQ(output.GetBufferSize(), kBufferSize);
}

TEST(OutputStream, AHugeSizeIsCutToTheRoom) {
    COutputStream output;
    output.Write(1U);
    EXPECT_EQ(output.Write(nullptr, UINT_MAX), kBufferSize - 4);
    EXPECT_EQ(output.GetBufferSize(), kBufferSize);
}

TEST(OutputStream, WritingOverEarlierDataKeepsTheHighWaterMark) {
    COutputStream output;
    output.Write("abcdefgh", 8);
    output.Seek(0, 0);
    output.Write(0x30303030U);
    EXPECT_EQ(output.GetBufferIndex(), 4U);
    EXPECT_EQ(Sent(output), "0000efgh");
}

TEST(OutputStream, SeekCountsFromTheStartThePositionOrTheEnd) {
    COutputStream output;
    output.Write("abcdefgh", 8);
    output.Seek(3, 0);
    EXPECT_EQ(output.GetBufferIndex(), 3U);
    output.Seek(2, 1);
    EXPECT_EQ(output.GetBufferIndex(), 5U);
    output.Seek(-4, 1);
    EXPECT_EQ(output.GetBufferIndex(), 1U);
    output.Seek(-2, 2);
    EXPECT_EQ(output.GetBufferIndex(), 6U);
    output.Seek(1, 3);
    output.Seek(1, -1);
    EXPECT_EQ(output.GetBufferIndex(), 6U) << "an unknown type moves nothing";
    EXPECT_EQ(output.GetBufferSize(), 8U);
}

TEST(OutputStream, SeekingPastTheEndRaisesTheSizeOnlyWithTheNextWrite) {
    COutputStream output;
    output.Write("ab", 2);
    output.Seek(6, 0);
    EXPECT_EQ(output.GetBufferSize(), 2U);
    output.Write("x", 1);
    EXPECT_EQ(output.GetBufferSize(), 7U);
}

TEST(OutputStream, ThePositionNeverLeavesTheBuffer) {
    COutputStream output;
    output.Write("abcd", 4);
    for (const int iType : {0, 1, 2}) {
        output.Seek(INT_MIN, iType);
        EXPECT_EQ(output.GetBufferIndex(), 0U) << "type " << iType;
        output.Seek(INT_MAX, iType);
        EXPECT_EQ(output.GetBufferIndex(), kBufferSize) << "type " << iType;
        EXPECT_EQ(output.GetFreeBufferSize(), 0U) << "type " << iType;
    }
}

TEST(OutputStream, PaddingIsZeroAndPartOfTheReply) {
    COutputStream output;
    output.Write("xxxxxxxxxxxx", 12);
    output.ResetBuffer();  // the old bytes stay in the buffer
    output.Write("abcde", 5);
    EXPECT_EQ(output.WriteRemainOpaque(5), 3U);
    EXPECT_EQ(Sent(output), std::string("abcde\0\0\0", 8));
    EXPECT_EQ(output.GetBufferIndex(), 8U);
}

TEST(OutputStream, AMultipleOfFourNeedsNoPadding) {
    COutputStream output;
    EXPECT_EQ(output.WriteRemainOpaque(0), 0U);
    EXPECT_EQ(output.WriteRemainOpaque(8), 0U);
    EXPECT_EQ(output.WriteRemainOpaque(6), 2U);
    EXPECT_EQ(output.WriteRemainOpaque(7), 1U);
    EXPECT_EQ(output.GetBufferSize(), 3U);
}

TEST(OutputStream, FreeingAllEmptiesTheStream) {
    COutputStream output;
    output.Write("abcdefgh", 8);
    output.FreeBuffer(9);
    EXPECT_EQ(output.GetBufferSize(), 0U);
    EXPECT_EQ(output.GetBufferIndex(), 0U);
}

TEST(OutputStream, FreeingAPartMovesTheRestToTheFrontAndLeavesALaterPosition) {
    COutputStream output;
    output.Write("abcdefgh", 8);
    output.Seek(5, 0);
    output.FreeBuffer(3);
    EXPECT_EQ(Sent(output), "defgh");
    EXPECT_EQ(output.GetBufferIndex(), 5U);
}

TEST(OutputStream, FreeingAPartPutsAPositionWithinItToTheStart) {
    COutputStream output;
    output.Write("abcdefgh", 8);
    output.Seek(3, 0);
    output.FreeBuffer(3);
    EXPECT_EQ(Sent(output), "defgh");
    EXPECT_EQ(output.GetBufferIndex(), 0U);
}

TEST(OutputStream, ResetForgetsEverything) {
    COutputStream output;
    output.Write("abc", 3);
    output.ResetBuffer();
    EXPECT_EQ(output.GetBufferSize(), 0U);
    EXPECT_EQ(output.GetBufferIndex(), 0U);
    EXPECT_EQ(output.GetCurrentBuffer(), output.GetBuffer());
}
