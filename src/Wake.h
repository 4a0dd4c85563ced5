// CWake: a descriptor that is readable while something is to be noticed.
#pragma once

#include "Descriptor.h"

/// For threads that wait in poll for sockets and for a word from another thread as well. Any thread may set and clear
/// it. Without a descriptor to be had it is never readable: who waits then waits until its own limit.
class CWake {
public:
    CWake();
    CWake(const CWake&) = delete;
    CWake& operator=(const CWake&) = delete;

    void Set();
    void Clear();
    /// What to poll for POLLIN; -1, which poll passes over, where there is none.
    int GetDescriptor() const { return m_Event.Get(); }

private:
    CDescriptor m_Event;  ///< an eventfd, close-on-exec
};
