// CIpcServerThread: runs a CIpcServer on a thread of its own.
#pragma once

#include <atomic>
#include <memory>
#include <thread>

class CIpcServer;
class CNfsMain;

/// Owns the server and the thread, which serves message after message until the channel is closed. One owner opens and
/// closes it, on a thread other than its own; IsActive may be asked by anyone. Between calls it either serves a channel
/// or has neither server nor thread.
class CIpcServerThread {
public:
    CIpcServerThread();
    ~CIpcServerThread();
    CIpcServerThread(const CIpcServerThread&) = delete;
    CIpcServerThread& operator=(const CIpcServerThread&) = delete;

    /// Closes what was open, then serves the channel for the controller, which outlives this object. False with a
    /// reason.
    bool Open(const char* pcChannel, CNfsMain* pController, char* pcReason);
    /// Ends serving and waits for the thread, which first finishes the message in hand.
    void Close();
    /// True while the thread serves.
    bool IsActive() const { return m_bActive; }
    /// The body of the thread.
    void Run();
    void ServeNext();

private:
    static void* ThreadProc(void* pvThis);

    std::unique_ptr<CIpcServer> m_pServer;
    std::atomic<bool> m_bActive{false};
    std::thread m_hThread;  ///< joinable exactly while a thread was created and not yet joined
};
