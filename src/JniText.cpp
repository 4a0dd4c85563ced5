// UTF-8 and UTF-16; RFC 3629 and RFC 2781.
#include "JniText.h"

#include <cstdint>

namespace {

constexpr jchar kReplacement = 0xFFFD;
constexpr std::uint32_t kFirstSupplementary = 0x10000;

bool IsHighSurrogate(std::uint32_t iUnit) {
    return iUnit >= 0xD800 && iUnit <= 0xDBFF;
}

bool IsLowSurrogate(std::uint32_t iUnit) {
    return iUnit >= 0xDC00 && iUnit <= 0xDFFF;
}

/// What the first byte of a sequence allows: how many bytes follow, and the range of the first of them. The range
/// keeps out overlong forms and what lies beyond U+10FFFF (RFC 3629, 4), except for what modified UTF-8 has besides:
/// U+0000 as C0 80, and surrogates, each as three bytes.
struct Lead {
    int iFollowing = -1;  ///< -1: not a first byte
    unsigned char cLow = 0x80;
    unsigned char cHigh = 0xBF;
};

Lead LeadOf(unsigned char cFirst) {
    if (cFirst < 0x80) {
        return {0};
    }
    if (cFirst == 0xC0) {
        return {1, 0x80, 0x80};
    }
    if (cFirst >= 0xC2 && cFirst <= 0xDF) {
        return {1};
    }
    if (cFirst >= 0xE0 && cFirst <= 0xEF) {
        const unsigned char cLow = cFirst == 0xE0 ? 0xA0 : 0x80;
        return {2, cLow, 0xBF};
    }
    if (cFirst >= 0xF0 && cFirst <= 0xF4) {
        const unsigned char cLow = cFirst == 0xF0 ? 0x90 : 0x80;
        const unsigned char cHigh = cFirst == 0xF4 ? 0x8F : 0xBF;
        return {3, cLow, cHigh};
    }
    return {};
}

/// Takes one character off the front of a text that is not empty; U+FFFD for a malformed beginning.
std::uint32_t TakeCharacter(std::string_view& sText) {
    const auto cFirst = static_cast<unsigned char>(sText.front());
    sText.remove_prefix(1);
    Lead lead = LeadOf(cFirst);
    if (lead.iFollowing <= 0) {
        return lead.iFollowing == 0 ? cFirst : kReplacement;
    }
    std::uint32_t iCharacter = cFirst & (0x3FU >> lead.iFollowing);
    for (int i = 0; i < lead.iFollowing; ++i) {
        const auto cNext = sText.empty() ? static_cast<unsigned char>(0) : static_cast<unsigned char>(sText.front());
        if (cNext < lead.cLow || cNext > lead.cHigh) {
            return kReplacement;
        }
        iCharacter = iCharacter << 6 | (cNext & 0x3FU);
        sText.remove_prefix(1);
        lead.cLow = 0x80;
        lead.cHigh = 0xBF;
    }
    return iCharacter;
}

void AppendUtf8(std::string& sOut, std::uint32_t iCharacter) {
    const auto append = [&sOut](std::uint32_t iByte) { sOut.push_back(static_cast<char>(iByte)); };
    if (iCharacter >= 1 && iCharacter < 0x80) {
        append(iCharacter);
    } else if (iCharacter < 0x800) {
        append(0xC0U | iCharacter >> 6);
        append(0x80U | (iCharacter & 0x3FU));
    } else if (iCharacter < kFirstSupplementary) {
        append(0xE0U | iCharacter >> 12);
        append(0x80U | (iCharacter >> 6 & 0x3FU));
        append(0x80U | (iCharacter & 0x3FU));
    } else {
        append(0xF0U | iCharacter >> 18);
        append(0x80U | (iCharacter >> 12 & 0x3FU));
        append(0x80U | (iCharacter >> 6 & 0x3FU));
        append(0x80U | (iCharacter & 0x3FU));
    }
}

}  // namespace

std::vector<jchar> Utf16FromUtf8(std::string_view sText) {
    std::vector<jchar> vUnits;
    vUnits.reserve(sText.size());
    while (!sText.empty()) {
        const std::uint32_t iCharacter = TakeCharacter(sText);
        if (iCharacter < kFirstSupplementary) {
            vUnits.push_back(static_cast<jchar>(iCharacter));
        } else {
            const std::uint32_t iRest = iCharacter - kFirstSupplementary;
            vUnits.push_back(static_cast<jchar>(0xD800U | iRest >> 10));
            vUnits.push_back(static_cast<jchar>(0xDC00U | (iRest & 0x3FFU)));
        }
    }
    return vUnits;
}

std::string Utf8FromUtf16(const std::vector<jchar>& vText) {
    std::string sOut;
    sOut.reserve(vText.size());
    for (std::size_t i = 0; i < vText.size(); ++i) {
        std::uint32_t iCharacter = vText[i];
        if (IsHighSurrogate(iCharacter) && i + 1 < vText.size() && IsLowSurrogate(vText[i + 1])) {
            iCharacter = kFirstSupplementary + ((iCharacter & 0x3FFU) << 10 | (vText[i + 1] & 0x3FFU));
            ++i;
        }
        AppendUtf8(sOut, iCharacter);
    }
    return sOut;
}

jstring NewHostString(JNIEnv* pEnv, const char* pcText) {
    if (pcText == nullptr) {
        return nullptr;
    }
    const std::vector<jchar> vUnits = Utf16FromUtf8(pcText);
    constexpr jchar kNothing = 0;  // an empty vector has no data to point to
    return pEnv->NewString(vUnits.empty() ? &kNothing : vUnits.data(), static_cast<jsize>(vUnits.size()));
}

CJniText::CJniText(JNIEnv* pEnv, jstring jText) {
    if (jText == nullptr) {
        return;
    }
    std::vector<jchar> vUnits(static_cast<std::size_t>(pEnv->GetStringLength(jText)));
    if (!vUnits.empty()) {
        pEnv->GetStringRegion(jText, 0, static_cast<jsize>(vUnits.size()), vUnits.data());
    }
    m_sText = Utf8FromUtf16(vUnits);
}
