// CIpcBasic: what both ends of the remote control share: building records and logging them.
#pragma once

#include <cstring>

#include "IpcMessages.h"
#include "IpcText.h"
#include "Log.h"
#include "RuntimeParam.h"

/// A record with every byte zero, padding included; the header is written when it goes into a buffer.
template <typename Record>
Record NewIpcRecord() {
    Record record;
    std::memset(&record, 0, sizeof(record));
    return record;
}

/// The record at the start of a message; bytes that did not come read as zero.
template <typename Record>
Record GetIpcRecord(const IpcDataBuf& data) {
    static_assert(sizeof(Record) <= kIpcDataBufSize);
    auto record = NewIpcRecord<Record>();
    const auto iHave = data.lDataLen > 0 ? static_cast<std::size_t>(data.lDataLen) : 0;
    std::memcpy(&record, data.cBuf, iHave < sizeof(record) ? iHave : sizeof(record));
    return record;
}

/// Puts a record's fields behind the header that a buffer has already.
template <typename Record>
void SetIpcBody(IpcDataBuf* pData, const Record& record) {
    static_assert(sizeof(Record) <= kIpcDataBufSize);
    std::memcpy(pData->cBuf + sizeof(Ipc_Header), reinterpret_cast<const char*>(&record) + sizeof(Ipc_Header),
                sizeof(record) - sizeof(Ipc_Header));
}

/// Base of CIpcClient and CIpcServer: writes the headers of records, and logs records and what happens to them.
///
/// Owns neither the log nor the runtime parameter under which it logs; both outlive it. It keeps nothing between calls:
/// the records are the derived classes'. Any thread may call the static operations and those that log a text; PrintData
/// is for the thread that the record belongs to.
class CIpcBasic {
public:
    CIpcBasic(CLog* pUtilities, CRuntimeParam* pRuntimeParam);
    virtual ~CIpcBasic() = default;
    CIpcBasic(const CIpcBasic&) = delete;
    CIpcBasic& operator=(const CIpcBasic&) = delete;

    // Each writes group, type and version, and sets the length of the record; the body stays as it is. A type that
    // the group does not have becomes type 0, the header alone.
    static void InitialRequestData(IpcDataBuf* pData, int iType);
    static void InitialReplyData(IpcDataBuf* pData, int iType);
    static void InitialCallbackData(IpcDataBuf* pData, int iType);

    /// Logs group, type, version and length, when IPC messages are logged.
    void PrintData(const LogArgu* pLogArgu, const IpcDataBuf* pData);

    void LogInfo(const char* pcMessage);
    void LogError(const char* pcMessage);
    /// printf-style; cut at kMessageBufferSize - 1 characters.
    void LogInfoFormat(const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));
    void LogErrorFormat(const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));

protected:
    /// What the steps of an operation log with, under its tag.
    LogContext GetLog(const LogArgu* pLogArgu) const { return {m_pUtilities, m_pRuntimeParam, pLogArgu}; }

    CLog* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;

private:
    char cLogBuf[sizeof(Ipc_Header::cVersion) + 1] = {};  ///< the version that PrintData prints, with an end of its own
};
