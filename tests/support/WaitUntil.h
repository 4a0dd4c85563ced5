// Waiting for what other threads and processes do.
#pragma once

#include <chrono>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

#include <sys/types.h>

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

/// Ends as the clock comes to a new second: what happens afterwards has other whole-second times.
inline void WaitForTheNextSecond() {
    const std::time_t iNow = std::time(nullptr);
    WaitUntil([&] { return std::time(nullptr) != iNow; });
}
