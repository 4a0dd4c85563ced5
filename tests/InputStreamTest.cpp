// Decoding and buffer management of CInputStream.
#include "InputStream.h"

#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "DataException.h"

namespace {

class InputStreamTest : public testing::Test {
protected:
    void Fill(std::string_view sBytes) {
        std::memcpy(m_Input.GetFreeBuffer(), sBytes.data(), sBytes.size());
        m_Input.AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
    }

    /// The text of the truncation that the operation ends with; empty if it does not.
    template <typename Operation>
    std::string Truncation(Operation operation) {
        try {
            operation();
        } catch (const CDataTruncatedExpt& truncated) {
            return truncated.what();
        }
        return "";
    }

    CInputStream m_Input;
};

}  // namespace

TEST_F(InputStreamTest, FillingMovesTheFreePointerAndTheUnreadCount) {
    char* pcFree = m_Input.GetFreeBuffer();
    Fill("hello");
    EXPECT_EQ(m_Input.GetFreeBuffer(), pcFree + 5);
    EXPECT_EQ(m_Input.GetFreeBufferSize(), 1048571U);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 5U);
    EXPECT_EQ(m_Input.GetBufferIndex(), 0U);
    EXPECT_EQ(m_Input.GetCurrentBuffer(), pcFree);
}

TEST_F(InputStreamTest, MoreCannotBeCountedAsFilledThanTheBufferHolds) {
    m_Input.AddFilledBufferSize(UINT_MAX);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 1048576U);
    EXPECT_EQ(m_Input.GetFreeBufferSize(), 0U);
    m_Input.AddFilledBufferSize(1);
    EXPECT_EQ(m_Input.GetFreeBufferSize(), 0U);
}

TEST_F(InputStreamTest, WordsAreBigEndian) {
    Fill(std::string_view("\x01\x02\x03\x04\x80\x00\x00\xff\x01\x23\x45\x67\x89\xab\xcd\xef", 16));
    unsigned int iValue = 0;
    EXPECT_EQ(m_Input.Read(&iValue), 4U);
    EXPECT_EQ(iValue, 0x01020304U);
    EXPECT_EQ(m_Input.Read(&iValue), 4U);
    EXPECT_EQ(iValue, 0x800000FFU);
    unsigned long lValue = 0;
    EXPECT_EQ(m_Input.Read8(&lValue), 8U);
    EXPECT_EQ(lValue, 0x0123456789ABCDEFUL);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U);
}

TEST_F(InputStreamTest, RawBytesAreCopiedAsTheyAre) {
    Fill("abcdef");
    char cBytes[4] = "";
    EXPECT_EQ(m_Input.Read(cBytes, 3), 3U);
    EXPECT_STREQ(cBytes, "abc");
    EXPECT_EQ(m_Input.GetBufferIndex(), 3U);
    EXPECT_EQ(m_Input.Read(cBytes, 0), 0U);
    EXPECT_EQ(m_Input.GetBufferIndex(), 3U);
}

TEST_F(InputStreamTest, AWordWithThreeBytesLeftIsTruncatedByOneAndMovesNothing) {
    Fill("xabc");
    m_Input.Skip(1);
    unsigned int iValue = 7;
    EXPECT_EQ(Truncation([&] { m_Input.Read(&iValue); }), "Data is truncated.Missing 1 data");
    EXPECT_EQ(m_Input.GetBufferIndex(), 1U);
    EXPECT_EQ(iValue, 7U);
}

TEST_F(InputStreamTest, EveryDecoderReportsItsShortfallAndMovesNothing) {
    Fill("ab");
    char cBytes[16];
    unsigned long lValue = 0;
    EXPECT_EQ(Truncation([&] { m_Input.Read(cBytes, 16); }), "Data is truncated.Missing 14 data");
    EXPECT_EQ(Truncation([&] { m_Input.Read8(&lValue); }), "Data is truncated.Missing 6 data");
    EXPECT_EQ(Truncation([&] { m_Input.Skip(3); }), "Data is truncated.Missing 1 data");
    EXPECT_EQ(Truncation([&] { m_Input.SkipRemainOpaque(1); }), "Data is truncated.Missing 1 data");
    EXPECT_EQ(m_Input.GetBufferIndex(), 0U);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 2U);
}

TEST_F(InputStreamTest, AHostileLengthIsTruncatedAndDoesNotWrap) {
    Fill("abcd");
    m_Input.Skip(2);
    EXPECT_EQ(Truncation([&] { m_Input.Skip(UINT_MAX); }), "Data is truncated.Missing 4294967293 data");
    EXPECT_EQ(m_Input.GetBufferIndex(), 2U);
}

TEST_F(InputStreamTest, PaddingIsWhatIsMissingToAMultipleOfFour) {
    Fill(std::string(16, 'x'));
    EXPECT_EQ(m_Input.SkipRemainOpaque(0), 0U);
    EXPECT_EQ(m_Input.SkipRemainOpaque(8), 0U);
    EXPECT_EQ(m_Input.SkipRemainOpaque(5), 3U);
    EXPECT_EQ(m_Input.SkipRemainOpaque(6), 2U);
    EXPECT_EQ(m_Input.SkipRemainOpaque(7), 1U);
    EXPECT_EQ(m_Input.SkipRemainOpaque(UINT_MAX), 1U);
    EXPECT_EQ(m_Input.GetBufferIndex(), 7U);
}

TEST_F(InputStreamTest, GetFilledBufferNeedsThatManyUnreadBytes) {
    Fill("12345");
    EXPECT_EQ(m_Input.GetFilledBuffer(2, 4), nullptr);
    Fill("6");
    EXPECT_EQ(m_Input.GetFilledBuffer(2, 4), m_Input.GetCurrentBuffer() + 2);
    EXPECT_EQ(m_Input.GetBufferIndex(), 0U);
    EXPECT_NE(m_Input.GetFilledBuffer(6, 0), nullptr);
    EXPECT_EQ(m_Input.GetFilledBuffer(7, 0), nullptr);
}

TEST_F(InputStreamTest, GetFilledBufferDoesNotWrapForHostileOffsets) {
    Fill("123456");
    EXPECT_EQ(m_Input.GetFilledBuffer(UINT_MAX, 2), nullptr);
    EXPECT_EQ(m_Input.GetFilledBuffer(2, UINT_MAX), nullptr);
    EXPECT_EQ(m_Input.GetFilledBuffer(UINT_MAX, UINT_MAX), nullptr);
}

TEST_F(InputStreamTest, ConsolidateBelowTheThresholdLeavesTheBufferAlone) {
    Fill("abcdef");
    m_Input.Skip(2);
    m_Input.ConsolidateBuffer(3);
    EXPECT_EQ(m_Input.GetBufferIndex(), 2U);
    EXPECT_EQ(m_Input.GetFreeBufferSize(), 1048570U);
}

TEST_F(InputStreamTest, ConsolidateMovesTheUnreadBytesToTheFront) {
    Fill("abcdef");
    m_Input.Skip(2);
    m_Input.ConsolidateBuffer(2);
    EXPECT_EQ(m_Input.GetBufferIndex(), 0U);
    ASSERT_EQ(m_Input.GetFilledBufferSize(), 4U);
    EXPECT_EQ(std::string(m_Input.GetCurrentBuffer(), 4), "cdef");
    EXPECT_EQ(m_Input.GetFreeBufferSize(), 1048572U);
}

TEST_F(InputStreamTest, ConsolidateOfAReadOutBufferEmptiesIt) {
    Fill("abc");
    m_Input.Skip(3);
    m_Input.ConsolidateBuffer(0);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U);
    EXPECT_EQ(m_Input.GetFreeBufferSize(), 1048576U);
}

TEST_F(InputStreamTest, TheReadPositionCanBeSetBackAndNeverLeavesTheReceivedBytes) {
    Fill("abcdef");
    m_Input.Skip(6);
    m_Input.SetBufferIndex(1);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 5U);
    m_Input.SetBufferIndex(UINT_MAX);
    EXPECT_EQ(m_Input.GetBufferIndex(), 6U);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U);
}

TEST_F(InputStreamTest, ResetForgetsEverything) {
    Fill("abcdef");
    m_Input.Skip(3);
    m_Input.ResetBuffer();
    EXPECT_EQ(m_Input.GetBufferIndex(), 0U);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U);
}

// ---- What was searched in vain is not searched again

TEST_F(InputStreamTest, ASearchGoesOnBehindWhatWasSearched) {
    EXPECT_EQ(m_Input.GetSearchStart(0), 0U);
    m_Input.NoteSearched(10, 20);
    EXPECT_EQ(m_Input.GetSearchStart(9), 9U);
    EXPECT_EQ(m_Input.GetSearchStart(10), 20U);
    EXPECT_EQ(m_Input.GetSearchStart(19), 20U);
    EXPECT_EQ(m_Input.GetSearchStart(20), 20U);
    m_Input.NoteSearched(20, 30);
    EXPECT_EQ(m_Input.GetSearchStart(10), 30U);
}

TEST_F(InputStreamTest, AnEmptySearchForgetsNothing) {
    m_Input.NoteSearched(10, 20);
    m_Input.NoteSearched(0, 0);
    EXPECT_EQ(m_Input.GetSearchStart(10), 20U);
}

TEST_F(InputStreamTest, AGapBetweenSearchesIsSearched) {
    m_Input.NoteSearched(10, 20);
    m_Input.NoteSearched(25, 30);
    EXPECT_EQ(m_Input.GetSearchStart(10), 10U);
    EXPECT_EQ(m_Input.GetSearchStart(22), 22U);
    EXPECT_EQ(m_Input.GetSearchStart(25), 30U);
}

TEST_F(InputStreamTest, ConsolidateTakesTheSearchedStretchAlong) {
    Fill(std::string(40, 'x'));
    m_Input.NoteSearched(10, 20);
    m_Input.SetBufferIndex(15);
    m_Input.ConsolidateBuffer(0);
    EXPECT_EQ(m_Input.GetSearchStart(0), 5U);
    m_Input.ResetBuffer();
    EXPECT_EQ(m_Input.GetSearchStart(0), 0U);
}

TEST_F(InputStreamTest, DiscardedBytesAreDroppedThoseStillToComeIncluded) {
    Fill("abcdef");
    m_Input.Discard(2);
    EXPECT_EQ(std::string(m_Input.GetCurrentBuffer(), m_Input.GetFilledBufferSize()), "cdef");
    m_Input.Discard(7);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U);
    m_Input.ConsolidateBuffer(0);
    Fill("gh");
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U);
    m_Input.ConsolidateBuffer(0);
    Fill("ijkl");
    EXPECT_EQ(std::string(m_Input.GetCurrentBuffer(), m_Input.GetFilledBufferSize()), "jkl");
    Fill("m");
    EXPECT_EQ(std::string(m_Input.GetCurrentBuffer(), m_Input.GetFilledBufferSize()), "jklm");
}

TEST_F(InputStreamTest, ResettingForgetsWhatWasToBeDiscarded) {
    m_Input.Discard(100);
    m_Input.ResetBuffer();
    Fill("abc");
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 3U);
}

TEST_F(InputStreamTest, HiddenBytesCannotBeReadUntilTheyAreShownAgain) {
    Fill("abcdefgh");
    m_Input.Skip(2);
    const unsigned int nHidden = m_Input.HideBehind(5);
    EXPECT_EQ(nHidden, 3U);
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 3U);
    EXPECT_EQ(Truncation([&] { m_Input.Skip(4); }), "Data is truncated.Missing 1 data");
    m_Input.Unhide(nHidden);
    EXPECT_EQ(m_Input.Skip(6), 6U);
    EXPECT_EQ(m_Input.HideBehind(100), 0U) << "behind all that was received there is nothing to hide";
    EXPECT_EQ(m_Input.HideBehind(0), 0U) << "what was read stays read";
    EXPECT_EQ(m_Input.GetBufferIndex(), 8U);
}
