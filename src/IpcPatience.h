// CIpcPatience: marks a thread whose log lines are waited for.
#pragma once

#include <set>
#include <string>
#include <utility>

class CIpcReceivers;

/// What a remote party asks for it wants to read to the last line, and before the reply. From an object's construction
/// to its end its thread waits for room in a full queue of lines instead of dropping one, and the end waits until the
/// lines that the thread queued meanwhile have been sent: as long as their receiver goes on taking them.
///
/// Threads that serve others as well never stand under one. A thread's objects nest; each waits for its own lines.
class CIpcPatience {
public:
    CIpcPatience();
    ~CIpcPatience();
    CIpcPatience(const CIpcPatience&) = delete;
    CIpcPatience& operator=(const CIpcPatience&) = delete;

    /// True while the calling thread stands under one, which then waits for the lines of this receiver too.
    static bool IsPatientWith(CIpcReceivers* pReceivers, const std::string& sIpcID);

private:
    static thread_local CIpcPatience* t_pInnermost;

    CIpcPatience* const m_pOuter;  ///< null for a thread's outermost
    std::set<std::pair<CIpcReceivers*, std::string>> m_WaitedFor;
};
