// CIpcListener: a listening local socket and the file by which it is found.
#pragma once

#include <chrono>

#include <sys/stat.h>
#include <sys/un.h>

#include "IpcSocket.h"
#include "IpcSocketAccess.h"

/// Listens on a channel from Open to Close; the socket file exists exactly as long.
///
/// One thread accepts; any other may call Close, which wakes it. The descriptors stay open until the object goes, so
/// that no thread ever waits on a number that was closed and given out anew.
class CIpcListener {
public:
    /// Connections that wait to be accepted; those beyond wait in connect.
    static constexpr int kBacklog = 5;

    CIpcListener() = default;
    ~CIpcListener() { Close(); }
    CIpcListener(const CIpcListener&) = delete;
    CIpcListener& operator=(const CIpcListener&) = delete;

    /// Replaces whatever file is at the path. Nobody may connect who may not for good. False with a reason.
    bool Open(const char* pcPath, char* pcReason, const IpcSocketAccess& access = {});
    /// Waits for a connection. ECANCELED after Close, else the error of accept.
    int Accept(CIpcSocket* pConnection);
    /// Waits for Close, at most so long.
    void WaitForClose(std::chrono::milliseconds limit) const;
    void WaitForClose() const;
    /// Wakes whoever waits here, refuses further connections and removes the socket file, unless another process has
    /// put its own in its place. The second call does nothing.
    void Close();

    /// The descriptor that becomes readable when the listener is closed.
    int GetWakeDescriptor() const { return m_Wake.Get(); }
    const sockaddr_un& GetAddress() const { return m_Address; }
    /// True if Close could not remove its socket file.
    bool IsFileLeft() const { return m_bFileLeft; }

private:
    bool Bind(const IpcSocketAccess& access, char* pcReason);
    bool Admit(const IpcSocketAccess& access, char* pcReason);
    void RemoveFile();

    CIpcSocket m_Socket;
    CDescriptor m_Wake;  ///< an eventfd
    sockaddr_un m_Address{};
    struct stat m_File {};  ///< the socket file as it was made
    bool m_bBound = false;
    bool m_bFileLeft = false;
};
