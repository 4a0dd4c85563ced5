// Texts between UTF-8 and UTF-16: exact where the text is well formed, harmless where it is not.
#include "JniText.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "FakeJvm.h"
#include "Xdr.h"

namespace {

std::u16string Decode(std::string_view sText) {
    const std::vector<jchar> vUnits = Utf16FromUtf8(sText);
    return {vUnits.begin(), vUnits.end()};
}

std::string Encode(const std::u16string& sText) {
    return Utf8FromUtf16({sText.begin(), sText.end()});
}

TEST(JniTextTest, CharactersOfEveryLengthGoBothWays) {
    const std::pair<const char*, const char16_t*> vPairs[] = {
        {"", u""},
        {"/data/disk.vmdk", u"/data/disk.vmdk"},
        {"\x7F", u"\x7F"},
        {"\xC2\x80", u"\u0080"},
        {"Gr\xC3\xB6\xC3\x9F"
         "e",
         u"Gr\u00F6\u00DFe"},
        {"\xDF\xBF", u"\u07FF"},
        {"\xE0\xA0\x80", u"\u0800"},
        {"\xE6\x97\xA5\xE6\x9C\xAC", u"\u65E5\u672C"},
        {"\xED\x9F\xBF", u"\uD7FF"},
        {"\xEE\x80\x80", u"\uE000"},
        {"\xEF\xBF\xBF", u"\uFFFF"},
        {"\xF0\x90\x80\x80", u"\U00010000"},
        {"\xF0\x9F\x98\x80.img", u"\U0001F600.img"},
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
    };
    for (const auto& [pcUtf8, pcUtf16] : vPairs) {
        EXPECT_EQ(Decode(pcUtf8), pcUtf16) << Hex(pcUtf8);
        EXPECT_EQ(Encode(pcUtf16), pcUtf8) << Hex(pcUtf8);
    }
}

TEST(JniTextTest, EveryMalformedSequenceBecomesOneReplacementCharacter) {
    const std::pair<std::string, std::u16string> vPairs[] = {
        {"a\x80z", u"a\uFFFDz"},                            // a stray continuation
        {"\xFF\xFE", u"\uFFFD\uFFFD"},                      // never bytes of UTF-8
        {"\xC3(", u"\uFFFD("},                              // the continuation is missing
        {"\xC0\x80", u"\uFFFD\uFFFD"},                      // overlong
        {"\xC1\xBF", u"\uFFFD\uFFFD"},                      // overlong
        {"\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"},            // overlong
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // a surrogate
        {"\xF0\x80\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // overlong
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // beyond U+10FFFF
        {"\xF5z", u"\uFFFDz"},                              // beyond U+10FFFF
        {"\xE6\x97", u"\uFFFD"},                            // cut short at the end
        {"\xF0\x9F\x98", u"\uFFFD"},                        // cut short at the end
        {"\xF0\x9F\x98/", u"\uFFFD/"},                      // cut short before a slash
        {"\xE6\x97\xE6\x9C\xAC", u"\uFFFD\u672C"},          // cut short before a whole one
    };
    for (const auto& [sUtf8, sUtf16] : vPairs) {
        EXPECT_EQ(Decode(sUtf8), sUtf16) << Hex(sUtf8);
    }
}

TEST(JniTextTest, DecodingAnyBytesGivesWellFormedUtf16) {
    std::mt19937 random(20240607);
    for (int iRound = 0; iRound < 20000; ++iRound) {
        std::string sBytes(random() % 12, '\0');
        for (char& c : sBytes) {
            c = static_cast<char>(random() % 3 != 0 ? 0x80U + random() % 0x80 : 1 + random() % 0x7F);
        }
        const std::u16string sText = Decode(sBytes);
        ASSERT_LE(sText.size(), sBytes.size()) << Hex(sBytes);
        for (std::size_t i = 0; i < sText.size(); ++i) {
            const bool bHigh = sText[i] >= 0xD800 && sText[i] <= 0xDBFF;
            const bool bLow = sText[i] >= 0xDC00 && sText[i] <= 0xDFFF;
            ASSERT_FALSE(bLow) << "unpaired low surrogate from " << Hex(sBytes);
            if (bHigh) {
                ASSERT_TRUE(i + 1 < sText.size() && sText[i + 1] >= 0xDC00 && sText[i + 1] <= 0xDFFF) << Hex(sBytes);
                ++i;
            }
        }
        ASSERT_EQ(Decode(Encode(sText)), sText) << Hex(sBytes);
    }
}

TEST(JniTextTest, ZeroAndUnpairedSurrogatesKeepTheirPlace) {
    EXPECT_EQ(Hex(Encode(std::u16string(u"a\0b", 3))), Hex("a\xC0\x80"
                                                           "b"))
        << "a zero must not cut the text";
    const char16_t vHigh[] = {u'a', 0xD800, u'b', 0};
    EXPECT_EQ(Hex(Encode(vHigh)), Hex("a\xED\xA0\x80"
                                      "b"));
    const char16_t vReversed[] = {0xDC00, 0xD800, 0};
    EXPECT_EQ(Hex(Encode(vReversed)), Hex("\xED\xB0\x80\xED\xA0\x80"));
}

TEST(JniTextTest, NullIsNullInBothDirections) {
    FakeJvm jvm;
    const JavaFrame java(jvm);
    EXPECT_EQ(NewHostString(java.Env(), nullptr), nullptr);
    EXPECT_EQ(CJniText(java.Env(), nullptr).Get(), nullptr);
    jstring jEmpty = NewHostString(java.Env(), "");
    ASSERT_NE(jEmpty, nullptr);
    EXPECT_EQ(jvm.TextOf(jEmpty), u"");
    EXPECT_STREQ(CJniText(java.Env(), jEmpty).Get(), "");
}

TEST(JniTextTest, StringArgumentsArriveAsUtf8) {
    FakeJvm jvm;
    const JavaFrame java(jvm);
    const CJniText text(java.Env(), jvm.NewText(u"/\u00E9/\u65E5/\U0001F600"));
    EXPECT_STREQ(text.Get(), "/\xC3\xA9/\xE6\x97\xA5/\xF0\x9F\x98\x80");
}

}  // namespace
