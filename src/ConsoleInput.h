// CConsoleInput: lines from standard input without ever waiting for them.
#pragma once

#include <cstddef>
#include <string>

/// Collects what arrives at a descriptor (a terminal, a pipe, a file, a device) and hands it out line by line.
///
/// A terminal is read as its user edits it, whole lines at a time, and its settings are never changed, so nothing is
/// left to restore however the program ends. Nothing is ever waited for: half a line stays here until its rest
/// arrives. The end of the input is no state: what stands without a line end becomes a line, and a later writer (of a
/// named pipe, of a growing file) is read on. Not for use by several threads.
class CConsoleInput {
public:
    /// The longest line; what is longer is handed out in pieces of this length.
    static constexpr std::size_t kMaxLine = 4095;

    explicit CConsoleInput(int iFile) : m_iFile(iFile) {}
    CConsoleInput(const CConsoleInput&) = delete;
    CConsoleInput& operator=(const CConsoleInput&) = delete;

    /// The program's standard input.
    static CConsoleInput& Standard();

    /// Takes in what has arrived. True if a line can be taken.
    bool IsLineReady();
    /// The next line without its line feed; empty when none is ready.
    std::string TakeLine();

private:
    /// Reads once if that does not wait. False at the end of the input, on error, and when there is nothing yet.
    bool ReadAvailable();
    bool IsReadable() const;
    bool HasLine() const;

    int m_iFile;
    std::string m_sPending;  ///< received and not yet handed out
    bool m_bAtEnd = false;   ///< the last read found the end: pending text is a line
};
