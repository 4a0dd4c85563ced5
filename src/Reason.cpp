// Formatting of reasons.
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

CSystemErrorText::CSystemErrorText(int iError) : m_cText{} {
    char vcScratch[128];  // for numbers without a text of their own
    const char* pcText = ::strerror_r(iError, vcScratch, sizeof(vcScratch));
    if (pcText != nullptr) {
        WriteReason(m_cText, "%s (%d)", pcText, iError);
    }
}
