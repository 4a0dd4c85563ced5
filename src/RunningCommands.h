// CRunningCommands: the shell commands under way, and their end when the server stops.
#pragma once

#include <set>

#include "ThreadAnnotations.h"

class CShellCommand;

/// Knows the commands that run on behalf of one controller, on whatever threads. Any thread may call.
class CRunningCommands {
public:
    CRunningCommands() = default;
    CRunningCommands(const CRunningCommands&) = delete;
    CRunningCommands& operator=(const CRunningCommands&) = delete;

    /// Has every command end that runs now.
    void EndAll();

    /// Makes a command known for as long as the object lives; the command outlives it.
    class Entry {
    public:
        Entry(CRunningCommands& all, CShellCommand& command);
        ~Entry();
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

    private:
        CRunningCommands& m_All;
        CShellCommand& m_Command;
    };

    /// While an object of this class lives, no command runs on: those that run are ended, and those that begin.
    class Stop {
    public:
        explicit Stop(CRunningCommands& all);
        ~Stop();
        Stop(const Stop&) = delete;
        Stop& operator=(const Stop&) = delete;

    private:
        CRunningCommands& m_All;
    };

private:
    void EndAllLocked() REQUIRES(m_hMutex);

    Mutex m_hMutex;
    std::set<CShellCommand*> m_Commands GUARDED_BY(m_hMutex);
    int m_nStops GUARDED_BY(m_hMutex) = 0;
};
