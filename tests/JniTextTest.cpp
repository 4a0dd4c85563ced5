// Texts between UTF-8 and UTF-16: exact where the text is well formed, harmless where it is not.
#include "JniText.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

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
        {"\xC0\x81", u"\uFFFD\uFFFD"},                      // overlong
        {"\xC0", u"\uFFFD"},                                // cut short
        {"\xC0/", u"\uFFFD/"},                              // cut short
        {"\xC1\xBF", u"\uFFFD\uFFFD"},                      // overlong
        {"\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"},            // overlong
        {"\xED\xA0", u"\uFFFD"},                            // a surrogate, cut short
        {"\xED/", u"\uFFFD/"},                              // a surrogate, cut short
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

TEST(JniTextTest, ModifiedUtf8IsUnderstoodToo) {
    const std::pair<std::string, std::u16string> vPairs[] = {
        {"a\xC0\x80"
         "b",
         std::u16string(u"a\0b", 3)},
        {"\xED\xA0\x80", {char16_t{0xD800}}},
        {"\xED\xAF\xBF.", {char16_t{0xDBFF}, u'.'}},
        {"\xED\xBF\xBF", {char16_t{0xDFFF}}},
        {"\xED\xA0\xBD\xED\xB8\x80", u"\U0001F600"},  // a pair, as the virtual machine's own functions write it
        {"\xED\xA0\xBD\xF0\x9F\x98\x80", {char16_t{0xD83D}, char16_t{0xD83D}, char16_t{0xDE00}}},
    };
    for (const auto& [sUtf8, sUtf16] : vPairs) {
        EXPECT_EQ(Decode(sUtf8), sUtf16) << Hex(sUtf8);
    }
}

/// Every text that the host can have comes back as it went, and goes without a zero byte, which would cut it.
void ExpectToComeBack(const std::u16string& sText) {
    const std::string sUtf8 = Encode(sText);
    ASSERT_EQ(sUtf8.find('\0'), std::string::npos) << Hex(sUtf8);
    ASSERT_EQ(Decode(sUtf8), sText) << Hex(sUtf8);
}

TEST(JniTextTest, EveryUnitComesBackAsItWent) {
    for (unsigned int iUnit = 0; iUnit <= 0xFFFF; ++iUnit) {
        ExpectToComeBack({static_cast<char16_t>(iUnit)});
    }
    for (unsigned int iFirst = 0xD7FF; iFirst <= 0xE000; iFirst += 3) {
        for (unsigned int iSecond = 0xD7FF; iSecond <= 0xE000; iSecond += 5) {
            ExpectToComeBack({static_cast<char16_t>(iFirst), static_cast<char16_t>(iSecond)});
        }
    }
}

TEST(JniTextTest, EveryTextComesBackAsItWent) {
    std::mt19937 random(20261122);
    for (int iRound = 0; iRound < 50000; ++iRound) {
        std::u16string sText(random() % 12, u'\0');
        for (char16_t& c : sText) {
            switch (random() % 6) {
                case 0:
                    c = 0;
                    break;
                case 1:
                    c = static_cast<char16_t>(0xD800 + random() % 0x400);
                    break;
                case 2:
                    c = static_cast<char16_t>(0xDC00 + random() % 0x400);
                    break;
                case 3:
                    c = static_cast<char16_t>(random() % 0x80);
                    break;
                default:
                    c = static_cast<char16_t>(random() % 0x10000);
            }
        }
        ExpectToComeBack(sText);
    }
}

/// A text whose characters standard UTF-8 can hold is written in nothing but standard UTF-8: what other programs make
/// of the same text, byte for byte.
TEST(JniTextTest, WellFormedTextIsStandardUtf8) {
    std::mt19937 random(7);
    for (int iRound = 0; iRound < 20000; ++iRound) {
        std::u32string sCharacters(1 + random() % 8, U'\0');
        std::u16string sText;
        for (char32_t& c : sCharacters) {
            do {
                c = static_cast<char32_t>(1 + random() % (random() % 2 == 0 ? 0x10FFFF : 0x7FF));
            } while (c >= 0xD800 && c <= 0xDFFF);
            if (c < 0x10000) {
                sText.push_back(static_cast<char16_t>(c));
            } else {
                sText.push_back(static_cast<char16_t>(0xD7C0 + (c >> 10)));
                sText.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
            }
        }
        std::string sExpected;
        for (const char32_t c : sCharacters) {
            const int nFollowing = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
            const unsigned int viLead[] = {0, 0xC0, 0xE0, 0xF0};
            sExpected += static_cast<char>(viLead[nFollowing] | c >> 6 * nFollowing);
            for (int i = nFollowing - 1; i >= 0; --i) {
                sExpected += static_cast<char>(0x80 | (c >> 6 * i & 0x3F));
            }
        }
        ASSERT_EQ(Hex(Encode(sText)), Hex(sExpected));
    }
}

TEST(JniTextTest, DecodingAnyBytesEndsAndGivesATextThatComesBack) {
    std::mt19937 random(20240607);
    for (int iRound = 0; iRound < 20000; ++iRound) {
        std::string sBytes(random() % 12, '\0');
        for (char& c : sBytes) {
            c = static_cast<char>(random() % 3 != 0 ? 0x80U + random() % 0x80 : 1 + random() % 0x7F);
        }
        const std::u16string sText = Decode(sBytes);
        ASSERT_LE(sText.size(), sBytes.size()) << Hex(sBytes);
        ExpectToComeBack(sText);
    }
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

TEST(JniTextTest, StringsComeBackThroughTheVirtualMachine) {
    FakeJvm jvm;
    const JavaFrame java(jvm);
    const std::u16string sText = {u'/', 0, 0xD83D, 0xDE00, 0xDC00, u'x', 0xD800};
    const CJniText text(java.Env(), jvm.NewText(sText));
    EXPECT_EQ(Hex(text.Get()), Hex("/\xC0\x80\xF0\x9F\x98\x80\xED\xB0\x80x\xED\xA0\x80"));
    EXPECT_EQ(jvm.TextOf(NewHostString(java.Env(), text.Get())), sText);
}

TEST(JniTextTest, StringArgumentsArriveAsUtf8) {
    FakeJvm jvm;
    const JavaFrame java(jvm);
    const CJniText text(java.Env(), jvm.NewText(u"/\u00E9/\u65E5/\U0001F600"));
    EXPECT_STREQ(text.Get(), "/\xC3\xA9/\xE6\x97\xA5/\xF0\x9F\x98\x80");
}

}  // namespace
