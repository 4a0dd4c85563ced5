// The one-line texts that failing operations leave for their callers.
#pragma once

#include "Limits.h"

/// Formats into a reason buffer of kReasonBufferSize characters, cutting what does not fit. A null buffer is left
/// alone.
void WriteReason(char* pcStatus, const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));

/// The system's text for an error number, as "%s (%d)", for use in a reason.
class CSystemErrorText {
public:
    explicit CSystemErrorText(int iError);
    const char* Get() const { return m_cText; }

private:
    char m_cText[kReasonBufferSize];
};
