// Texts that are made of values: above all the one-line reasons that failing operations leave for their callers.
#pragma once

#include <string>

#include "Limits.h"

/// Formats into a reason buffer of kReasonBufferSize characters, cutting what does not fit. A null buffer is left
/// alone.
void WriteReason(char* pcStatus, const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));

/// A text of whatever length.
std::string FormatText(const char* pcFormat, ...) __attribute__((format(printf, 1, 2)));

/// The system's text for an error number, as "%s (%d)", for use in a reason.
class CSystemErrorText {
public:
    explicit CSystemErrorText(int iError);
    const char* Get() const { return m_cText; }

private:
    char m_cText[kReasonBufferSize];
};
