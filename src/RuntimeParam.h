// On whose behalf a piece of work is done, and what of it is logged.
#pragma once

#include <atomic>
#include <string>

/// The tag of the operation being performed, printed as "[%s]" at the start of messages and handed down
/// so that callees log under their caller's name. Lives on the stack of the operation.
struct LogArgu {
    const char* pcName;  ///< a constant text, for example "RpcServer.Process"
};

/// The identity printed in every log line of a piece of work, the IPC client it is done for, and its log categories.
///
/// A thread that does work owns its instance. Only the log control may be changed by another thread.
class CRuntimeParam {
public:
    /// Log categories: bits of the log control.
    enum LogBit : int {
        kLogError = 1,
        kLogGeneralInfo = 2,
        kLogRpc = 4,
        kLogProcFuncName = 8,
        kLogProcFuncArgu = 16,
        kLogRedirectFile = 32,
        kLogIpc = 64,
        kLogIpcState = 128,
        kLogFileAccess = 256,
        kLogPortmap = 512,
    };

    /// A null ID counts as empty; the IPC ID starts empty.
    CRuntimeParam(const char* pcID, int iLogControl);
    virtual ~CRuntimeParam() = default;
    CRuntimeParam(const CRuntimeParam&) = delete;
    CRuntimeParam& operator=(const CRuntimeParam&) = delete;

    /// The requester's identity. The pointer holds until the next SetID.
    const char* GetID() const { return m_sID.c_str(); }
    void SetID(const char* pcID);

    /// The IPC client on whose behalf the work runs; empty when there is none.
    const char* GetIpcID() const { return m_sIpcID.c_str(); }
    void SetIpcID(const char* pcIpcID);

    int GetLogControl() const { return m_iLogControl.load(std::memory_order_relaxed); }
    void SetLogControl(int iLogControl) { m_iLogControl.store(iLogControl, std::memory_order_relaxed); }

    bool IsLogEnabled(LogBit bit) const { return (GetLogControl() & bit) > 0; }
    bool IsLogError() const { return IsLogEnabled(kLogError); }
    bool IsLogGeneralInfo() const { return IsLogEnabled(kLogGeneralInfo); }
    bool IsLogRpc() const { return IsLogEnabled(kLogRpc); }
    bool IsLogProcFuncName() const { return IsLogEnabled(kLogProcFuncName); }
    bool IsLogProcFuncArgu() const { return IsLogEnabled(kLogProcFuncArgu); }
    bool IsLogRedirectFile() const { return IsLogEnabled(kLogRedirectFile); }
    bool IsLogIpc() const { return IsLogEnabled(kLogIpc); }
    bool IsLogIpcState() const { return IsLogEnabled(kLogIpcState); }
    bool IsLogFileAccess() const { return IsLogEnabled(kLogFileAccess); }
    bool IsLogPortmap() const { return IsLogEnabled(kLogPortmap); }

private:
    std::string m_sID;
    std::string m_sIpcID;
    std::atomic<int> m_iLogControl;
};

/// For work that leaves no line: in nobody's name, with no category logged.
class CSilentParam : public CRuntimeParam {
public:
    CSilentParam() : CRuntimeParam("", 0) {}
};
