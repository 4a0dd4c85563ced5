// CDeferredLog: keeps a thread's log lines back until a lock is released.
#pragma once

#include <string>
#include <vector>

#include "ThreadAnnotations.h"

class CRuntimeParam;
class CLog;

/// Whoever takes a log line may be slow (a remote client that hangs) or call back into the registries (a host), so no
/// line goes out under a lock of theirs: from an object's construction to its end the lines of its thread are kept,
/// and then they go out in their order. Stands before the lock that it goes with, so that it ends after it.
///
/// A thread's objects nest; the outermost lets the lines go. Lines are kept with what routes them, as the runtime
/// parameter may be gone by then.
class CDeferredLog {
public:
    enum Kind { kInfo, kError, kRaw };

    CDeferredLog();
    ~CDeferredLog() EXCLUDES(kRegistryLocks);
    CDeferredLog(const CDeferredLog&) = delete;
    CDeferredLog& operator=(const CDeferredLog&) = delete;

    /// Keeps a line if the calling thread keeps its lines back just now; false otherwise.
    static bool Keep(CLog* pLog, Kind kind, const CRuntimeParam* pRuntimeParam, const char* pcMessage);

private:
    struct Line {
        CLog* pLog;
        Kind kind;
        std::string sID;
        std::string sIpcID;
        int iLogControl;
        std::string sMessage;
    };
    static void Emit(const Line& line);

    static thread_local CDeferredLog* t_pInnermost;

    CDeferredLog* m_pOuter;  ///< null for a thread's outermost
    std::vector<Line> m_vLines;
};
