// Texts in the fixed fields of records, always bounded.
//
// What is received is cut at its field's end. What is sent is sent whole or not at all, because the receiver acts on
// it: the first part of a path is another path. Only log lines may lose their end.
#pragma once

#include <cstddef>
#include <string>

/// Fills the text fields of a record that is to be sent. A text that does not fit leaves its field empty and a reason
/// here, and the record must not be sent.
class CIpcTextFields {
public:
    /// Fills a field, whose name the reason tells; null counts as empty.
    template <std::size_t n>
    void Set(char (&cField)[n], const char* pcName, const char* pcText) {
        Set(cField, n, pcName, pcText);
    }

    /// Why the record cannot be sent, by the first text that did not fit; null when all of them fit.
    const char* GetReason() const { return m_sReason.empty() ? nullptr : m_sReason.c_str(); }

private:
    void Set(char* pcField, std::size_t iSize, const char* pcName, const char* pcText);

    std::string m_sReason;
};

/// The text of a field that may lack its terminator: it ends with the field at the latest.
std::string GetIpcText(const char* pcField, std::size_t iSize);

template <std::size_t n>
std::string GetIpcText(const char (&cField)[n]) {
    return GetIpcText(cField, n);
}
