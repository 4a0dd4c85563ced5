// A child process on pipes or on a terminal of its own, and the console as one.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

/// How a child is started.
struct ChildOptions {
    bool bTerminal = false;                                         ///< a pty for all three streams, else pipes
    bool bClosedInput = false;                                      ///< end of file on standard input at once
    std::string sFolder;                                            ///< working directory, empty: the test's
    std::vector<std::pair<std::string, std::string>> vEnvironment;  ///< variables to add
    std::vector<int> viDroppedCapabilities;                         ///< CAP_* numbers that the child never has
};

/// Runs a program; its standard output and error are collected as one text. The destructor ends it by its PID, and it
/// dies with the test. Operations throw std::runtime_error if the child cannot be started or written to.
class ChildProcess {
public:
    static constexpr std::chrono::milliseconds kLimit{30000};

    explicit ChildProcess(const std::vector<std::string>& vsArguments, const ChildOptions& options = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t GetPid() const { return m_iPid; }
    /// Writes to its standard input.
    void Send(std::string_view sText);
    void CloseInput();
    /// Waits until the text has come behind what earlier waits have passed, and passes it. False when the limit is
    /// over or the child's output ends first.
    bool WaitFor(std::string_view sText, std::chrono::milliseconds limit = kLimit);
    /// Everything that has come so far.
    const std::string& Output();
    /// What has come behind the text last waited for.
    std::string Unread();
    /// Bytes of its output that wait in the pipe.
    int Pending() const;
    void Signal(int iSignal);
    /// Waits for the end: the exit status, or 128 plus the signal; nothing when the limit is over.
    std::optional<int> Wait(std::chrono::milliseconds limit = kLimit);
    bool IsRunning();

private:
    bool ReadMore(std::chrono::milliseconds limit);
    bool Reap(bool bBlock);

    pid_t m_iPid = -1;
    int m_iInput = -1;
    int m_iOutput = -1;
    std::string m_sOutput;
    std::size_t m_iPassed = 0;
    std::optional<int> m_iStatus;
};

/// Runs a program to its end: exit status (or 128 plus the signal, or -1 when it had to be ended) and output.
struct RunResult {
    int iStatus;
    std::string sOutput;
};
RunResult RunProgram(const std::vector<std::string>& vsArguments, const ChildOptions& options = {},
                     std::chrono::milliseconds limit = ChildProcess::kLimit);

/// The console of this build.
class ConsoleProcess : public ChildProcess {
public:
    /// Starts it with the options behind its name.
    explicit ConsoleProcess(const std::vector<std::string>& vsOptions, const ChildOptions& options = {});

    static std::string ProgramPath();
    /// Waits for the prompt, so that everything printed before it has come.
    bool WaitForPrompt(std::chrono::milliseconds limit = kLimit);
    /// Types a line and waits for the next prompt; returns what was printed in between.
    std::string Command(std::string_view sLine);
    /// Types "quit" and waits for the end; the exit status.
    std::optional<int> Quit();
};
