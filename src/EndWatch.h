// CEndWatch: what tells a thread that nobody waits for its work any more.
#pragma once

/// Long work that a thread does for somebody (a shell command, a request to another process) is to end when that
/// somebody is gone or wants to stop. An object of this class, on the stack of whoever has the work done, says how this
/// is noticed; the work polls the two descriptors with its own. They outlive the object.
///
/// A thread's objects nest; the innermost one counts.
class CEndWatch {
public:
    /// The requester's connection, whose hang-up counts (poll for no events), and a descriptor that becomes readable
    /// when the work is to stop (poll for POLLIN). Either may be -1, which poll passes over.
    CEndWatch(int iConnection, int iStop);
    ~CEndWatch();
    CEndWatch(const CEndWatch&) = delete;
    CEndWatch& operator=(const CEndWatch&) = delete;

    /// Those of the calling thread; -1 where there is none.
    static int GetConnection();
    static int GetStop();

private:
    static thread_local const CEndWatch* t_pInnermost;

    const int m_iConnection;
    const int m_iStop;
    const CEndWatch* const m_pOuter;  ///< null for a thread's outermost
};
