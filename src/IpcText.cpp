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

std::string GetIpcText(const char* pcField, std::size_t iSize) {
    return std::string(pcField, strnlen(pcField, iSize));
}
