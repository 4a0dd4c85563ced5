// Fails a test that leaves something behind.
#pragma once

#include <map>
#include <set>
#include <string>

/// Remembers the process's threads, descriptors and files (below /tmp and /run, when isolated) at construction;
/// its destructor fails the running test if there are more of them, naming each. Make it the first member of a
/// fixture, so that it goes last.
class LeakGuard {
public:
    LeakGuard();
    ~LeakGuard();
    LeakGuard(const LeakGuard&) = delete;
    LeakGuard& operator=(const LeakGuard&) = delete;

    /// Checks now, and takes the present state as the new base.
    void Check();

private:
    std::set<std::string> m_Threads;
    std::map<std::string, std::string> m_Descriptors;
    std::set<std::string> m_Files;
};
