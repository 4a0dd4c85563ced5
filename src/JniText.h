// Texts between the library (UTF-8) and the host (UTF-16).
//
// The interface's own conversions speak modified UTF-8: characters of four bytes in a path would name another file, and
// malformed bytes, which any client can put into a path, may bring the virtual machine down. So both directions are
// done here, and only UTF-16 crosses the border: standard UTF-8 on the library's side, and for what it cannot hold the
// modified form, so that every text of the host comes back as it went.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "jni.h"

/// Decodes UTF-8, standard (RFC 3629) and modified: C0 80 is U+0000, and a surrogate of three bytes is itself, so that
/// what Utf8FromUtf16 made comes back as it was. Every malformed sequence becomes one U+FFFD for its longest
/// well-formed beginning.
std::vector<jchar> Utf16FromUtf8(std::string_view sText);

/// Encodes as UTF-8. What UTF-8 has no room for is kept as modified UTF-8 has it, so that no two texts become equal
/// and none is cut short: U+0000 as C0 80, an unpaired surrogate as three bytes.
std::string Utf8FromUtf16(const std::vector<jchar>& vText);

/// A host string for a text; null for null. Null with an exception pending when the host is out of memory.
jstring NewHostString(JNIEnv* pEnv, const char* pcText);

/// The text of a String argument, for the length of a call.
class CJniText {
public:
    CJniText(JNIEnv* pEnv, jstring jText);

    /// Null for a null String.
    const char* Get() const { return m_sText ? m_sText->c_str() : nullptr; }

private:
    std::optional<std::string> m_sText;
};
