// CLog: the way of a log line, and of a notification about a redirected file, out of the library.
#pragma once

#include <atomic>
#include <cstdarg>
#include <memory>

#include "RuntimeParam.h"
#include "ThreadAnnotations.h"

class CCallback;
class CFileLogger;

/// Routes lines and notifications to the host callback, lines else to the file logger, else to standard output.
///
/// Any thread may call. A runtime parameter serves routing only and is not kept. The lines of a thread that keeps its
/// lines back (CDeferredLog) go out later, in their order; notifications never wait.
class CLog {
public:
    CLog();
    virtual ~CLog();
    CLog(const CLog&) = delete;
    CLog& operator=(const CLog&) = delete;

    /// A runtime parameter, as the printf-style forms take it: the conversion lets a call without arguments choose
    /// the plain form, which prints its text as it is.
    struct Requester {
        Requester(CRuntimeParam* pParam) : pRuntimeParam(pParam) {}  // NOLINT: it stands for the parameter
        CRuntimeParam* pRuntimeParam;
    };

    // The virtual slots, in this order. The base forms route by the parameter's ID. What is told here arrives before
    // they return, so no lock of the registries is held.

    /// Emits a finished line: to the host callback, else the file logger, else standard output.
    virtual void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) EXCLUDES(kRegistryLocks);
    virtual void LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) EXCLUDES(kRegistryLocks);
    virtual void LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) EXCLUDES(kRegistryLocks);

    /// Tells the host that a client sets size or times (whole seconds since 1970) of a redirected file.
    /// The host's answer; 0 grants. -1 without a host.
    virtual int LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize,
                                                  unsigned long long iSize, bool bAccessTime,
                                                  unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                                  unsigned long lLastModifiedTimeSec) EXCLUDES(kRegistryLocks);
    /// Tells the host that a client removed a redirected file. 0 grants; -1 without a host.
    virtual int LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) EXCLUDES(kRegistryLocks);
    /// Tells the host that a client renamed a redirected file. 0 grants; -1 without a host.
    virtual int LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo)
        EXCLUDES(kRegistryLocks);
    /// Tells the host that a client wrote to a redirected file; the data is not kept. The answer is the byte count
    /// that the client is told; -1 without a host.
    virtual int LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, unsigned long long iSeek,
                                       int iSeekType, unsigned int iLen) EXCLUDES(kRegistryLocks);

    /// Would a notification about a path reach its receiver whole? Asked before something that the receiver must be
    /// told of is done to the disk. The base form has no limit. Stands behind the slots above.
    virtual bool CanTellOf(CRuntimeParam* pRuntimeParam, const char* pcPath);

    /// printf-style forms, also for a list of arguments. Messages are cut at kMessageBufferSize - 1 characters.
    void LogInfo(Requester requester, const char* pcFormat, ...) __attribute__((format(printf, 3, 4)));
    void LogError(Requester requester, const char* pcFormat, ...) __attribute__((format(printf, 3, 4)));
    void LogRaw(Requester requester, const char* pcFormat, ...) __attribute__((format(printf, 3, 4)));

    void LogInfoList(CRuntimeParam* pRuntimeParam, const char* pcFormat, va_list arguments)
        __attribute__((format(printf, 3, 0)));
    void LogErrorList(CRuntimeParam* pRuntimeParam, const char* pcFormat, va_list arguments)
        __attribute__((format(printf, 3, 0)));
    void LogRawList(CRuntimeParam* pRuntimeParam, const char* pcFormat, va_list arguments)
        __attribute__((format(printf, 3, 0)));

    /// The final router, by ID.
    void LogInfo(const char* pcID, const char* pcMessage) EXCLUDES(kRegistryLocks);
    void LogError(const char* pcID, const char* pcMessage) EXCLUDES(kRegistryLocks);
    void LogRaw(const char* pcID, const char* pcMessage) EXCLUDES(kRegistryLocks);

    int LogUpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize, unsigned long long iSize,
                                          bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                          unsigned long lLastModifiedTimeSec) EXCLUDES(kRegistryLocks);
    int LogRemoveRedirectedFile(const char* pcID, const char* pcPath) EXCLUDES(kRegistryLocks);
    int LogRenameRedirectedFile(const char* pcID, const char* pcPathFrom, const char* pcPathTo)
        EXCLUDES(kRegistryLocks);
    int LogWriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek, int iSeekType,
                               unsigned int iLen) EXCLUDES(kRegistryLocks);

    /// The host callback is shared with the calls in flight: replacing it while another thread is in a call into the
    /// host is safe, and the replaced one lives until that call ends.
    void SetCallback(std::shared_ptr<CCallback> pCallback);
    std::shared_ptr<CCallback> GetCallback() const;

    /// The file logger is not owned; it outlives its use here.
    void SetFileLogger(CFileLogger* pFileLogger) { m_pFileLogger.store(pFileLogger); }
    CFileLogger* GetFileLogger() const { return m_pFileLogger.load(); }

private:
    std::shared_ptr<CCallback> GetCallbackToAsk() const;

    mutable Mutex m_hMutexCallback;
    std::shared_ptr<CCallback> m_pCallback GUARDED_BY(m_hMutexCallback);
    std::atomic<CFileLogger*> m_pFileLogger{nullptr};
};

/// On whose behalf a step works, under which tag, and where its lines go: what steps hand on in one piece. Nothing of
/// it is owned; it lives on the stack of an operation.
struct LogContext {
    CLog* pLog;  ///< null: nobody takes lines
    CRuntimeParam* pRuntimeParam;
    const LogArgu* pLogArgu;

    bool IsWanted(CRuntimeParam::LogBit bit) const { return pLog != nullptr && pRuntimeParam->IsLogEnabled(bit); }
    const char* GetTag() const { return pLogArgu->pcName; }
};

// The gated forms, which most lines take. The format begins with "[%s]", for which they supply the tag. Where the line
// is not wanted, none of its values is computed.

/// A line of LogInfo under a category: NFS_LOG_INFO(log, kLogFileAccess, "[%s] OS open file \"%s\"", pcPath).
#define NFS_LOG_INFO(log, bit, format, ...) NFS_LOG_LINE(LogInfo, log, bit, format __VA_OPT__(, ) __VA_ARGS__)
/// A line of LogError: NFS_LOG_ERROR(log, "[%s] OS open file \"%s\". Error=%s", pcPath, pcError).
#define NFS_LOG_ERROR(log, format, ...) NFS_LOG_LINE(LogError, log, kLogError, format __VA_OPT__(, ) __VA_ARGS__)

#define NFS_LOG_LINE(form, log, bit, format, ...)                                        \
    do {                                                                                 \
        const LogContext& nfsLogContext = (log);                                         \
        if (nfsLogContext.IsWanted(CRuntimeParam::bit)) {                                \
            nfsLogContext.pLog->form(nfsLogContext.pRuntimeParam, format,                \
                                     nfsLogContext.GetTag() __VA_OPT__(, ) __VA_ARGS__); \
        }                                                                                \
    } while (false)
