// Texts in fixed fields and caller's buffers, always bounded.
#pragma once

#include <cstddef>
#include <string>

/// Copies a text (null counts as empty) into a buffer; one that does not fit is cut. A null buffer is left alone.
void CopyIpcText(char* pcOut, std::size_t iSize, const char* pcText);

/// Fills a text field of a record.
template <std::size_t n>
void SetIpcText(char (&cField)[n], const char* pcText) {
    CopyIpcText(cField, n, pcText);
}

/// The text of a field that may lack its terminator: it ends with the field at the latest.
std::string GetIpcText(const char* pcField, std::size_t iSize);

template <std::size_t n>
std::string GetIpcText(const char (&cField)[n]) {
    return GetIpcText(cField, n);
}
