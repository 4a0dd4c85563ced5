// What the code under test logs and tells its host, kept for the test to look at.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Utilities.h"

/// One emitted line.
struct LogLine {
    char cKind;  ///< 'i' info, 'e' error, 'r' raw
    std::string sID;
    std::string sText;

    bool operator==(const LogLine&) const = default;
};

/// One notification about a redirected file.
struct Notification {
    std::string sOperation;  ///< "update", "remove", "rename", "write"
    std::string sID;
    std::string sIpcID;
    std::string sPath;
    std::string sPathTo;
    bool bSize = false;
    unsigned long long iSize = 0;
    bool bAccessTime = false;
    unsigned long lAccessTimeSec = 0;
    bool bLastModifiedTime = false;
    unsigned long lLastModifiedTimeSec = 0;
    unsigned long long iSeek = 0;
    int iSeekType = 0;
    unsigned int iLen = 0;
};

/// Lines and notifications of one CaptureUtilities; outlives it, so that a test can look at them after the end.
/// Any thread may use it.
class LogCapture {
public:
    void Add(LogLine line);
    void Add(Notification notification);

    std::vector<LogLine> Lines() const;
    /// The texts alone, of one kind or ('\0') of all.
    std::vector<std::string> Texts(char cKind = '\0') const;
    bool Has(const std::string& sText, char cKind = '\0') const;
    /// The lines that contain a text, each with its end.
    std::string LinesWith(const std::string& sPart) const;
    /// True as soon as a line with exactly that text has come.
    bool WaitFor(const std::string& sText, std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    /// The same for a line that begins with the text.
    bool WaitForBeginning(const std::string& sText, std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    /// Everything as lines, for failure texts.
    std::string Dump() const;
    void Clear();

    std::vector<Notification> Notifications() const;
    /// Answers the notifications; without it each is answered -1, as without a host.
    void SetHost(std::function<int(const Notification&)> host);
    int Ask(const Notification& notification);

private:
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    std::vector<LogLine> m_vLines;
    std::vector<Notification> m_vNotifications;
    std::function<int(const Notification&)> m_Host;
};

/// CUtilities whose log lines and host notifications go to a LogCapture. Lines go on to a file logger, if one is set.
class CaptureUtilities : public CUtilities {
public:
    explicit CaptureUtilities(LogCapture* pCapture) : m_pCapture(pCapture) {}

    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;
    using CUtilities::LogRemoveRedirectedFile;
    using CUtilities::LogRenameRedirectedFile;
    using CUtilities::LogUpdateRedirectedFileAttributes;
    using CUtilities::LogWriteRedirectedFile;

    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override;
    void LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) override;
    void LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) override;
    int LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize,
                                          unsigned long long iSize, bool bAccessTime, unsigned long lAccessTimeSec,
                                          bool bLastModifiedTime, unsigned long lLastModifiedTimeSec) override;
    int LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) override;
    int LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo) override;
    int LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, unsigned long long iSeek,
                               int iSeekType, unsigned int iLen) override;

private:
    LogCapture* m_pCapture;
};
