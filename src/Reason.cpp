// Formatting of reasons and other texts.
#include "Reason.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

void WriteReason(char* pcStatus, const char* pcFormat, ...) {
    if (pcStatus == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, pcFormat);
    // The analyzer takes the list for uninitialized behind the early return.
    std::vsnprintf(pcStatus, kReasonBufferSize, pcFormat, arguments);  // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);
}

std::string FormatText(const char* pcFormat, ...) {
    char vcText[kReasonBufferSize];
    va_list arguments;
    va_list again;
    va_start(arguments, pcFormat);
    va_copy(again, arguments);
    const int iLength = std::vsnprintf(vcText, sizeof(vcText), pcFormat, arguments);
    va_end(arguments);
    std::string sText;
    if (iLength >= 0) {  // it fails for what no int can count, or for characters the locale does not have
        const auto nLength = static_cast<std::size_t>(iLength);
        if (nLength < sizeof(vcText)) {
            sText.assign(vcText, nLength);
        } else {
            sText.resize(nLength);
            std::vsnprintf(sText.data(), nLength + 1, pcFormat, again);
        }
    }
    va_end(again);
    return sText;
}

CSystemErrorText::CSystemErrorText(int iError) : m_cText{} {
    char vcScratch[128];  // for numbers without a text of their own
    const char* pcText = ::strerror_r(iError, vcScratch, sizeof(vcScratch));
    if (pcText != nullptr) {
        WriteReason(m_cText, "%s (%d)", pcText, iError);
    }
}
