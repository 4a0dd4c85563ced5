// Texts in the fixed fields of records, always bounded.
#include "IpcText.h"

#include <cstring>

#include "Texts.h"

void CIpcTextFields::Set(char* pcField, std::size_t iSize, const char* pcName, const char* pcText) {
    const std::size_t iLength = std::strlen(OrEmpty(pcText));
    if (iLength < iSize) {
        CopyText(pcField, iSize, pcText);
        return;
    }
    pcField[0] = '\0';
    if (m_sReason.empty()) {
        m_sReason = std::string(pcName) + " is too long for the remote control (" + std::to_string(iLength) +
                    " bytes, at most " + std::to_string(iSize - 1) + ")";
    }
}

std::string GetIpcText(const char* pcField, std::size_t iSize) {
    return std::string(pcField, ::strnlen(pcField, iSize));
}
