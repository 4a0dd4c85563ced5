// What the tests of console processes share.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>
#include <termios.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "TempFolder.h"

inline constexpr const char* kRule = "------------------------------------\n";
inline constexpr const char* kIntro = "Type 'help' to see help\n\nCommand: ";

/// The lines a run starts with.
std::string Banner(const std::string& sVersion, const std::string& sDescription);
inline std::string InternalBanner() {
    return Banner("1.4", "Internal NFS Server");
}

/// The status report of a server with nothing in it.
std::string EmptyStatus(const std::string& sState);

bool Exists(const std::string& sPath);

/// Holds a UDP port, so that a server cannot have it.
CDescriptor TakeUdpPort(std::uint16_t iPort);

/// Runs the console to its end with standard input at its end.
RunResult RunConsole(const std::vector<std::string>& vsOptions);

/// The terminal that a process has as standard input, seen from outside.
class TerminalOf {
public:
    explicit TerminalOf(pid_t iPid);
    termios Get() const;
    void Set(const termios& attributes) const;

private:
    CDescriptor m_Terminal;
};
/// Every field of two terminals' attributes, for comparison in tests.
std::string Describe(const termios& attributes);

/// Consoles need ports and /tmp/nfs-* of their own; fails the test that leaves files or threads behind.
class ConsoleTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

private:
    LeakGuard m_Leaks;

protected:
    TempFolder m_Folder;
};
