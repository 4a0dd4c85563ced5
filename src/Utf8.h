// The characters of UTF-8.
#pragma once

#include <cstddef>
#include <string_view>

/// The length in bytes of the well-formed character that a text begins with (RFC 3629, 4); 0 if there is none. The text
/// is not empty.
inline std::size_t GetUtf8Length(std::string_view sText) {
    const auto byteAt = [sText](std::size_t i) { return static_cast<unsigned char>(sText[i]); };
    const unsigned int iFirst = byteAt(0);
    if (iFirst < 0x80) {
        return 1;
    }
    const std::size_t nLength = iFirst >= 0xF0 ? 4 : (iFirst >= 0xE0 ? 3 : 2);
    if (iFirst < 0xC2 || iFirst > 0xF4 || sText.size() < nLength) {
        return 0;
    }
    for (std::size_t i = 1; i < nLength; ++i) {
        if ((byteAt(i) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    const unsigned int iSecond = byteAt(1);
    const bool bOverlong = (iFirst == 0xE0 && iSecond < 0xA0) || (iFirst == 0xF0 && iSecond < 0x90);
    const bool bNoCharacter = (iFirst == 0xED && iSecond >= 0xA0) || (iFirst == 0xF4 && iSecond >= 0x90);
    return bOverlong || bNoCharacter ? 0 : nLength;
}
