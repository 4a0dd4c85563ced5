// The base of every RPC program that the server dispatches to (RFC 5531).
#pragma once

#include <string>

#include "Log.h"
#include "RuntimeParam.h"

class CInputStream;
class COutputStream;
class CUtilities;

/// What a program is told of a call. The caller's credential is not passed on.
struct ProcessParam {
    unsigned int iVersion = 0;               ///< program version named in the call
    unsigned int iProc = 0;                  ///< procedure number
    std::string sRemoteAddr;                 ///< the client's IPv4 address, dotted
    CRuntimeParam* pRuntimeParam = nullptr;  ///< for logging; not owned
    LogArgu logArgu{""};                     ///< the procedure's tag, which the program's frame puts here
    unsigned int nStillToCome = 0;           ///< bytes of the call's record that, by its mark, have not come yet
    unsigned int nReplyLimit = 0xFFFFFFFFU;  ///< the most bytes, head included, that the reply may have
    bool bArgumentsLeft = false;  ///< set by a program that leaves arguments unread: nothing in them is a call
    bool bNotForClient = false;   ///< set by a program for a call on an export of others: held, or not open to it
    bool bReadOnly = false;       ///< set by a program for a call on an export that the client may only read
};

/// What a program answers to the RPC server.
enum ProgramStatus : int {
    kProgHandled = 0,         ///< the body written is the reply
    kProgGarbageArgs = 1,     ///< the arguments could not be decoded: GARBAGE_ARGS
    kProgNotImplemented = 2,  ///< no such procedure: PROC_UNAVAIL
    kProgTruncated = 3,       ///< the input ran short; the call is retried when more has come
};

/// One RPC program. Its operations run on the socket threads, one call at a time (the RPC server's mutex).
class CRpcProg {
public:
    /// The utilities are not owned and outlive the program.
    explicit CRpcProg(CUtilities* pUtilities);
    virtual ~CRpcProg() = default;
    CRpcProg(const CRpcProg&) = delete;
    CRpcProg& operator=(const CRpcProg&) = delete;

    /// Decodes the arguments from the input (just behind the call header) and writes the results to the output
    /// (just behind the accept status). Returns a ProgramStatus.
    virtual int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) = 0;
    /// The only version accepted as the start of a call, or kAnyNumber.
    virtual unsigned int GetVersion();
    /// Procedure numbers below this are valid; kAnyNumber: all are.
    virtual unsigned int GetMaxSupportProc();
    /// True for a procedure that changes something: the repetition of a datagram is not executed again.
    virtual bool IsModifying(unsigned int iVersion, unsigned int iProc);

protected:
    /// The log context of a call's procedure. Refers to the parameters.
    LogContext GetLog(const ProcessParam* pParam) const { return {m_pLog, pParam->pRuntimeParam, &pParam->logArgu}; }

    CUtilities* m_pUtilities;
    CLog* m_pLog;  ///< the same object, for programs that need no more of it
};
