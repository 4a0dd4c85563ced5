// Texts in fixed fields and caller's buffers, always bounded.
#include "IpcText.h"

#include <cstring>

void CopyIpcText(char* pcOut, std::size_t iSize, const char* pcText) {
    if (pcOut == nullptr || iSize == 0) {
        return;
    }
    const std::size_t iLength = pcText != nullptr ? strnlen(pcText, iSize - 1) : 0;
    if (iLength > 0) {
        std::memcpy(pcOut, pcText, iLength);
    }
    pcOut[iLength] = '\0';
}

void CIpcTextFields::Set(char* pcField, std::size_t iSize, const char* pcName, const char* pcText) {
    const std::size_t iLength = pcText != nullptr ? std::strlen(pcText) : 0;
    if (iLength < iSize) {
        CopyIpcText(pcField, iSize, pcText);
        return;
    }
    pcField[0] = '\0';
    if (m_sReason.empty()) {
        m_sReason = std::string(pcName) + " is too long for the remote control (" + std::to_string(iLength) +
                    " bytes, at most " + std::to_string(iSize - 1) + ")";
    }
}

std::string GetIpcText(const char* pcField, std::size_t iSize) {
    return std::string(pcField, strnlen(pcField, iSize));
}
