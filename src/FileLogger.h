// CFileLogger: a log file that is moved aside when it reaches a size limit.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "RuntimeParam.h"
#include "ThreadAnnotations.h"

class COsFiles;

/// Appends time-stamped lines to one file. When the file has reached the limit, it is renamed to the first free name
/// of path.1, path.2, ... and a new one begun; rotated files are never deleted.
///
/// Any thread may call: lines are whole and in the order in which the threads came. Failures of the logger itself are
/// reported on standard output. It works through a COsFiles of its own, so that no line of it comes back to it.
class CFileLogger {
public:
    /// 32 MiB.
    static constexpr long long kDefaultMaxLogSize = 33554432;

    /// The file is opened by Open.
    explicit CFileLogger(const char* pcPath);
    virtual ~CFileLogger();
    CFileLogger(const CFileLogger&) = delete;
    CFileLogger& operator=(const CFileLogger&) = delete;

    /// Opens the file for appending; creates it, and the folders above it, where they are missing. True if the file
    /// is open, now or already. The log control is added to the logger's own (errors only) while it opens, so that
    /// the caller can see the steps.
    bool Open(int iLogControl);
    void Close();

    /// Write one line. False when it was not written, for the caller to put it elsewhere.
    bool LogInfo(const char* pcMessage);
    bool LogError(const char* pcMessage);
    bool LogRaw(const char* pcMessage);

    long long GetMaxLogSize() const { return m_iMaxLogSize.load(); }
    /// In bytes; ignored unless greater than 0.
    void SetMaxLogSize(long long iSize);

private:
    bool LogMessage(const char* pcType, const char* pcMsg);
    bool Rotate(const LogArgu* pLogArgu) REQUIRES(m_hMutex);

    const std::string m_LogFile;
    std::atomic<long long> m_iMaxLogSize{kDefaultMaxLogSize};

    /// Guards the file: opening, closing, rotation and every write.
    Mutex m_hMutex;
    int m_iLogFile GUARDED_BY(m_hMutex) = -1;
    int m_iLastLogIndex GUARDED_BY(m_hMutex) = 1;  ///< the next number to try for a rotated file's name
    const std::unique_ptr<COsFiles> m_pUtilities;
    const std::unique_ptr<CRuntimeParam> m_pRuntimeParam;
};
