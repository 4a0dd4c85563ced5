// Texts as callers give them, possibly none, their pieces, and buffers of a fixed size to copy them into.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

/// The text itself; the empty text for null.
inline const char* OrEmpty(const char* pcText) {
    return pcText != nullptr ? pcText : "";
}

/// Copies a text (null counts as empty) into a buffer of so many characters, terminator included; one that does not
/// fit is cut. A null buffer is left alone.
inline void CopyText(char* pcOut, std::size_t iSize, const char* pcText) {
    if (pcOut == nullptr || iSize == 0) {
        return;
    }
    const std::size_t iLength = ::strnlen(OrEmpty(pcText), iSize - 1);
    std::copy_n(OrEmpty(pcText), iLength, pcOut);
    pcOut[iLength] = '\0';
}

/// The same, filling an array.
template <std::size_t n>
void CopyText(char (&vcOut)[n], const char* pcText) {
    CopyText(vcOut, n, pcText);
}

/// Appends the pieces between separators; leading and inner empty ones are kept, a trailing empty one is not. Null
/// counts as empty.
void AppendPieces(const char* pcText, char cSeparator, std::vector<std::string>& vOut);
