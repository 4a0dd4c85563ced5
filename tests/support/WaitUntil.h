// Waiting for what other threads and processes do.
#pragma once

#include <atomic>
#include <chrono>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

#include <sys/types.h>
#include <unistd.h>

/// True as soon as the condition holds, which is looked at every millisecond; false when the limit is over.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Whether a thread of this process waits in a system call (or for a lock).
inline bool IsAsleep(pid_t iThread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(iThread) + "/stat");
    std::string sState;
    std::getline(stat, sState);
    return sState.find(") S") != std::string::npos;
}

/// A thread that is to wait for something, which a test awaits before it goes on. Joined at the latest at its end.
class WaitingThread {
public:
    template <typename Action>
    explicit WaitingThread(Action action)
        : m_Thread([this, own = std::move(action)] {
              m_iThread = ::gettid();
              own();
          }) {}
    ~WaitingThread() { Join(); }
    WaitingThread(const WaitingThread&) = delete;
    WaitingThread& operator=(const WaitingThread&) = delete;

    bool IsWaiting() const { return m_iThread != 0 && IsAsleep(m_iThread); }
    /// True as soon as it waits; false if it never does.
    bool WaitUntilWaiting() const {
        return WaitUntil([this] { return IsWaiting(); });
    }
    void Join() {
        if (m_Thread.joinable()) {
            m_Thread.join();
        }
    }

private:
    std::atomic<pid_t> m_iThread{0};
    std::thread m_Thread;  // last: it begins when all else is there
};

/// Ends as the clock comes to a new second: what happens afterwards has other whole-second times.
inline void WaitForTheNextSecond() {
    const std::time_t iNow = std::time(nullptr);
    WaitUntil([&] { return std::time(nullptr) != iNow; });
}
