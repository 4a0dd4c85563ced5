// Log lines and notifications, on their way to whoever takes them.
#include "Log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "BeforeAsking.h"
#include "Callback.h"
#include "DeferredLog.h"
#include "FileLogger.h"
#include "Limits.h"

namespace {

/// A formatted message, cut at its room.
class FormattedMessage {
public:
    FormattedMessage(const char* pcFormat, va_list arguments) __attribute__((format(printf, 2, 0))) {
        if (std::vsnprintf(m_vcText, sizeof(m_vcText), pcFormat, arguments) < 0) {
            m_vcText[0] = '\0';
        }
    }
    const char* Get() const { return m_vcText; }

private:
    char m_vcText[kMessageBufferSize];
};

}  // namespace

CLog::CLog() = default;

CLog::~CLog() = default;

// ---- Formatting

void CLog::LogInfo(Requester requester, const char* pcFormat, ...) {
    va_list arguments;
    va_start(arguments, pcFormat);
    LogInfoList(requester.pRuntimeParam, pcFormat, arguments);
    va_end(arguments);
}

void CLog::LogInfoList(CRuntimeParam* pRuntimeParam, const char* pcFormat, va_list arguments) {
    const FormattedMessage message(pcFormat, arguments);
    if (!CDeferredLog::Keep(this, CDeferredLog::kInfo, pRuntimeParam, message.Get())) {
        LogInfo(pRuntimeParam, message.Get());
    }
}

void CLog::LogError(Requester requester, const char* pcFormat, ...) {
    va_list arguments;
    va_start(arguments, pcFormat);
    LogErrorList(requester.pRuntimeParam, pcFormat, arguments);
    va_end(arguments);
}

void CLog::LogErrorList(CRuntimeParam* pRuntimeParam, const char* pcFormat, va_list arguments) {
    const FormattedMessage message(pcFormat, arguments);
    if (!CDeferredLog::Keep(this, CDeferredLog::kError, pRuntimeParam, message.Get())) {
        LogError(pRuntimeParam, message.Get());
    }
}

void CLog::LogRaw(Requester requester, const char* pcFormat, ...) {
    va_list arguments;
    va_start(arguments, pcFormat);
    LogRawList(requester.pRuntimeParam, pcFormat, arguments);
    va_end(arguments);
}

void CLog::LogRawList(CRuntimeParam* pRuntimeParam, const char* pcFormat, va_list arguments) {
    const FormattedMessage message(pcFormat, arguments);
    if (!CDeferredLog::Keep(this, CDeferredLog::kRaw, pRuntimeParam, message.Get())) {
        LogRaw(pRuntimeParam, message.Get());
    }
}

// ---- The virtual forms

void CLog::LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    LogInfo(pRuntimeParam->GetID(), pcMessage);
}

void CLog::LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    LogError(pRuntimeParam->GetID(), pcMessage);
}

void CLog::LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    LogRaw(pRuntimeParam->GetID(), pcMessage);
}

int CLog::LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize,
                                            unsigned long long iSize, bool bAccessTime, unsigned long lAccessTimeSec,
                                            bool bLastModifiedTime, unsigned long lLastModifiedTimeSec) {
    return LogUpdateRedirectedFileAttributes(pRuntimeParam->GetID(), pcPath, bSize, iSize, bAccessTime, lAccessTimeSec,
                                             bLastModifiedTime, lLastModifiedTimeSec);
}

int CLog::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    return LogRemoveRedirectedFile(pRuntimeParam->GetID(), pcPath);
}

int CLog::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo) {
    return LogRenameRedirectedFile(pRuntimeParam->GetID(), pcPathFrom, pcPathTo);
}

int CLog::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, unsigned long long iSeek,
                                 int iSeekType, unsigned int iLen) {
    return LogWriteRedirectedFile(pRuntimeParam->GetID(), pcPath, iSeek, iSeekType, iLen);
}

bool CLog::CanTellOf(CRuntimeParam* /*pRuntimeParam*/, const char* /*pcPath*/) {
    return true;
}

// ---- The router: callback, else file logger, else standard output.
// Each line goes to the stream in one call, which keeps lines of several threads apart, and is flushed at once for
// whoever reads the other end. Nobody is left to be told when that fails.

void CLog::LogInfo(const char* pcID, const char* pcMessage) {
    const auto pCallback = GetCallbackToAsk();
    if (pCallback && pCallback->LogInfo(pcID, pcMessage)) {
        return;
    }
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogInfo(pcMessage)) {
        return;
    }
    std::printf("[info] (%s) %s\n", pcID, pcMessage);
    std::fflush(stdout);
}

void CLog::LogError(const char* pcID, const char* pcMessage) {
    const auto pCallback = GetCallbackToAsk();
    if (pCallback && pCallback->LogError(pcID, pcMessage)) {
        return;
    }
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogError(pcMessage)) {
        return;
    }
    std::printf("[erro] (%s) %s\n", pcID, pcMessage);
    std::fflush(stdout);
}

void CLog::LogRaw(const char* pcID, const char* pcMessage) {
    const auto pCallback = GetCallbackToAsk();
    if (pCallback && pCallback->LogRaw(pcID, pcMessage)) {
        return;
    }
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogRaw(pcMessage)) {
        return;
    }
    std::printf("%s", pcMessage);
    std::fflush(stdout);
}

// ---- Notifications about redirected files

int CLog::LogUpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize, unsigned long long iSize,
                                            bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                            unsigned long lLastModifiedTimeSec) {
    const auto pCallback = GetCallbackToAsk();
    return pCallback
               ? pCallback->UpdateRedirectedFileAttributes(pcID, pcPath, bSize, iSize, bAccessTime, lAccessTimeSec,
                                                           bLastModifiedTime, lLastModifiedTimeSec)
               : -1;
}

int CLog::LogRemoveRedirectedFile(const char* pcID, const char* pcPath) {
    const auto pCallback = GetCallbackToAsk();
    return pCallback ? pCallback->RemoveRedirectedFile(pcID, pcPath) : -1;
}

int CLog::LogRenameRedirectedFile(const char* pcID, const char* pcPathFrom, const char* pcPathTo) {
    const auto pCallback = GetCallbackToAsk();
    return pCallback ? pCallback->RenameRedirectedFile(pcID, pcPathFrom, pcPathTo) : -1;
}

int CLog::LogWriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek, int iSeekType,
                                 unsigned int iLen) {
    const auto pCallback = GetCallbackToAsk();
    return pCallback ? pCallback->WriteRedirectedFile(pcID, pcPath, iSeek, iSeekType, iLen) : -1;
}

// ---- The host callback

void CLog::SetCallback(std::shared_ptr<CCallback> pCallback) {
    {
        const MutexLock lock(m_hMutexCallback);
        m_pCallback.swap(pCallback);
    }
    // The replaced one is released here, outside the lock: freeing it may call into the virtual machine.
}

/// The host's, for a call that is made at once.
std::shared_ptr<CCallback> CLog::GetCallbackToAsk() const {
    auto pCallback = GetCallback();
    if (pCallback) {
        CBeforeAsking::Run();
    }
    return pCallback;
}

std::shared_ptr<CCallback> CLog::GetCallback() const {
    const MutexLock lock(m_hMutexCallback);
    return m_pCallback;
}
