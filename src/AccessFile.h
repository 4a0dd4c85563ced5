// CAccessFile: an operator's access file, read again when it changes.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include <sys/stat.h>

#include "AccessRules.h"
#include "Log.h"

/// The rules that are in force, and the file they come from. They are those of the last reading that succeeded; before
/// the first one nobody is admitted.
///
/// Not locked: Load is called before there are clients, everything else from their calls, which come one at a time.
class CAccessFile {
public:
    /// A changed file is noticed after that time at the latest, when a call comes.
    static constexpr std::chrono::milliseconds kLookInterval = std::chrono::seconds(1);
    /// The largest file: some ten thousand rules, far more than an operator keeps by hand.
    static constexpr std::size_t kMaxSize = std::size_t{1} << 20;

    explicit CAccessFile(std::string sPath, std::chrono::milliseconds lookInterval = kLookInterval);
    CAccessFile(const CAccessFile&) = delete;
    CAccessFile& operator=(const CAccessFile&) = delete;

    /// Reads the file for the first time. False with a reason: it cannot be read, or a line (named) is wrong.
    bool Load(char* pcReason);
    /// Looks at the file, if the last look was a while ago, and reads it if it has changed or is another one. One that
    /// cannot be read or has become wrong leaves the rules as they are; the log says why, once for each such state.
    void Refresh(const LogContext& log) {
        if (Clock::now() >= m_NextLook) {
            LookAgain(log);
        }
    }
    /// The rules in force.
    const CAccessRules& GetRules() const { return m_Rules; }

private:
    using Clock = std::chrono::steady_clock;

    /// What tells one state of the file from another.
    struct Stamp {
        int iError = 0;  ///< of the look; the rest counts where that is 0
        struct stat status {};

        bool operator==(const Stamp& other) const;
        bool IsRecent() const;
    };

    Stamp Look() const;
    void LookAgain(const LogContext& log);
    void ReadAgain(const LogContext& log);
    bool Read(std::string* psText, std::string* psReason) const;
    bool ReadRules(std::string* psReason);

    const std::string m_sPath;
    const std::chrono::milliseconds m_LookInterval;
    CAccessRules m_Rules;
    Clock::time_point m_NextLook{};
    Stamp m_Stamp;
    bool m_bRecent = false;  ///< to be read again under the same stamp: when it was read it had just been changed, say
    std::string m_sText;     ///< what the last reading found, right or wrong
    std::string m_sReason;   ///< why the last reading failed; empty if it did not
};
