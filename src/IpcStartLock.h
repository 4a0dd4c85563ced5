// CIpcStartLock: starts of servers and clients on one machine, one at a time.
#pragma once

#include "Descriptor.h"

/// Held while a channel is looked at and taken: of two that are started in the same moment, the second finds what the
/// first has put there. The lock (flock) is on the folder that the socket files are in, so that it needs no file of its
/// own, counts for exactly those who share the folder, and ends with a process that is killed.
///
/// Who waits for longer than two seconds goes on without it, as does who may not open the folder: any user may lock it,
/// and nobody is to keep a server from starting so. One thread.
class CIpcStartLock {
public:
    /// Waits for its turn. The path is that of a socket file.
    explicit CIpcStartLock(const char* pcChannel);
    CIpcStartLock(const CIpcStartLock&) = delete;
    CIpcStartLock& operator=(const CIpcStartLock&) = delete;

private:
    CDescriptor m_Folder;  ///< the lock goes with it
};
