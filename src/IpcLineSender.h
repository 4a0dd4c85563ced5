// CIpcLineSender: the thread that sends log lines to remote processes.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "IpcReceivers.h"
#include "ThreadAnnotations.h"

class CUtilities;

/// Sends the lines that wait in CIpcReceivers, to as many receivers at a time as have lines, one to each: who hangs
/// holds up no lines but its own. The thread begins with the first line and ends with the object.
///
/// Any thread may call; registries, receivers and time limit outlive the object. Lines about a line go out through the
/// registries, under a runtime parameter without IPC ID.
class CIpcLineSender {
public:
    /// How long the end waits for lines that are still to be sent; what has not been taken by then is dropped.
    static constexpr std::chrono::milliseconds kEndTimeout{1000};
    /// The pause between two attempts to reach a receiver whose queue is full.
    static constexpr std::chrono::milliseconds kFullPause{20};
    /// Lines that are begun before answers are looked at again: those to a receiver that is gone fail at once, and
    /// could keep the thread from all others for as long as more come.
    static constexpr int kLinesAtOnce = 64;

    /// The time limit is that of a callback, read when a line is sent.
    CIpcLineSender(CUtilities* pUtilities, CIpcReceivers* pReceivers, const std::chrono::milliseconds* pTimeout);
    ~CIpcLineSender();
    CIpcLineSender(const CIpcLineSender&) = delete;
    CIpcLineSender& operator=(const CIpcLineSender&) = delete;

    /// Queues a line; it counts as dropped if there is no thread to be had for it.
    void Send(const std::string& sIpcID, IpcLine line);

private:
    using Clock = CIpcReceivers::Clock;
    struct Sending;
    using Sendings = std::vector<std::unique_ptr<Sending>>;

    bool Start();
    void Run();
    void BeginLines(Sendings& sendings);
    bool Begin(Sending& sending);
    void WaitForAnswers(Sendings& sendings);
    bool IsOver(Sending& sending);
    void GiveUp(Sending& sending);

    CUtilities* const m_pUtilities;
    CIpcReceivers* const m_pReceivers;
    const std::chrono::milliseconds* const m_pTimeout;

    Mutex m_hMutexThread;
    std::thread m_hThread GUARDED_BY(m_hMutexThread);
    std::atomic<bool> m_bStarted{false};
    std::atomic<bool> m_bStop{false};
    Clock::time_point m_StopEnd;  ///< written before m_bStop
};
