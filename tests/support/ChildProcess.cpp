// A child process on pipes or on a terminal of its own.
#include "ChildProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "Trees.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kExecFailed = 127;  // as a shell reports it
constexpr std::chrono::milliseconds kPoll{5};

std::chrono::milliseconds LeftUntil(Clock::time_point end) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
}

[[noreturn]] void Fail(const std::string& sWhat) {
    throw std::runtime_error(sWhat + ": " + std::strerror(errno));
}

/// The two ends that parent and child keep of their streams.
struct Streams {
    int iParentInput = -1;   ///< the parent writes here
    int iParentOutput = -1;  ///< the parent reads here
    int iChildInput = -1;
    int iChildOutput = -1;
};

Streams OpenTerminal() {
    Streams streams;
    termios attributes{};
    cfmakeraw(&attributes);
    attributes.c_iflag |= ICRNL;
    attributes.c_lflag |= ICANON;
    attributes.c_cc[VMIN] = 1;
    attributes.c_cc[VEOF] = 4;
    if (::openpty(&streams.iParentOutput, &streams.iChildInput, nullptr, &attributes, nullptr) != 0) {
        Fail("openpty");
    }
    ::fcntl(streams.iParentOutput, F_SETFD, FD_CLOEXEC);
    ::fcntl(streams.iChildInput, F_SETFD, FD_CLOEXEC);
    streams.iParentInput = ::fcntl(streams.iParentOutput, F_DUPFD_CLOEXEC, 0);
    streams.iChildOutput = ::fcntl(streams.iChildInput, F_DUPFD_CLOEXEC, 0);
    return streams;
}

Streams OpenPipes() {
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    if (::pipe2(input.data(), O_CLOEXEC) != 0 || ::pipe2(output.data(), O_CLOEXEC) != 0) {
        Fail("pipe");
    }
    return {input[1], output[0], input[0], output[1]};
}

/// What the child does between fork and exec: async-signal-safe calls only.
[[noreturn]] void RunChild(const Streams& streams, const ChildOptions& options, char* const* ppcArguments,
                           char* const* ppcEnvironment, pid_t iParent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != iParent) {
        ::_exit(kExecFailed);
    }
    ::setsid();
    if (options.bTerminal) {
        ::ioctl(streams.iChildInput, TIOCSCTTY, 0);
    }
    ::dup2(streams.iChildInput, STDIN_FILENO);
    ::dup2(streams.iChildOutput, STDOUT_FILENO);
    ::dup2(streams.iChildOutput, STDERR_FILENO);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP}) {
        ::signal(iSignal, SIG_DFL);  // whoever runs the tests may have them ignored, as nohup does
    }
    for (const int iCapability : options.viDroppedCapabilities) {
        ::prctl(PR_CAPBSET_DROP, iCapability, 0, 0, 0);
    }
    if (!options.sFolder.empty() && ::chdir(options.sFolder.c_str()) != 0) {
        ::_exit(kExecFailed);
    }
    execvpe(ppcArguments[0], ppcArguments, ppcEnvironment);
    ::_exit(kExecFailed);
}

std::vector<char*> Pointers(std::vector<std::string>& vsTexts) {
    std::vector<char*> vpTexts;
    for (std::string& sText : vsTexts) {
        vpTexts.push_back(sText.data());
    }
    vpTexts.push_back(nullptr);
    return vpTexts;
}

std::vector<std::string> MakeEnvironment(const ChildOptions& options) {
    std::vector<std::string> vsEnvironment;
    for (const auto& [sName, sValue] : options.vEnvironment) {
        vsEnvironment.push_back(sName + "=" + sValue);
    }
    for (char** ppcEntry = environ; *ppcEntry != nullptr; ++ppcEntry) {
        const std::string sEntry = *ppcEntry;
        bool bReplaced = false;
        for (const auto& [sName, sValue] : options.vEnvironment) {
            bReplaced = bReplaced || sEntry.rfind(sName + "=", 0) == 0;
        }
        if (!bReplaced) {
            vsEnvironment.push_back(sEntry);
        }
    }
    return vsEnvironment;
}

}  // namespace

// ---- ChildProcess

ChildProcess::ChildProcess(const std::vector<std::string>& vsArguments, const ChildOptions& options) {
    const Streams streams = options.bTerminal ? OpenTerminal() : OpenPipes();
    std::vector<std::string> vsTexts = vsArguments;
    std::vector<std::string> vsEnvironment = MakeEnvironment(options);
    const std::vector<char*> vpArguments = Pointers(vsTexts);
    const std::vector<char*> vpEnvironment = Pointers(vsEnvironment);
    const pid_t iParent = ::getpid();
    m_iPid = ::fork();
    if (m_iPid == 0) {
        RunChild(streams, options, vpArguments.data(), vpEnvironment.data(), iParent);
    }
    ::close(streams.iChildInput);
    ::close(streams.iChildOutput);
    m_iInput = streams.iParentInput;
    m_iOutput = streams.iParentOutput;
    if (m_iPid < 0) {
        ::close(m_iInput);
        ::close(m_iOutput);
        Fail("fork");
    }
    ::fcntl(m_iOutput, F_SETFL, ::fcntl(m_iOutput, F_GETFL) | O_NONBLOCK);
    if (options.bClosedInput) {
        CloseInput();
    }
}

ChildProcess::~ChildProcess() {
    if (!Reap(false)) {
        ::kill(m_iPid, SIGKILL);
        Reap(true);
    }
    CloseInput();
    ::close(m_iOutput);
}

void ChildProcess::CloseInput() {
    if (m_iInput >= 0) {
        ::close(m_iInput);
        m_iInput = -1;
    }
}

void ChildProcess::Send(std::string_view sText) {
    const auto end = Clock::now() + kLimit;
    while (!sText.empty()) {
        const ssize_t iWritten = ::write(m_iInput, sText.data(), sText.size());
        if (iWritten > 0) {
            sText.remove_prefix(static_cast<std::size_t>(iWritten));
        } else if (errno != EAGAIN || Clock::now() > end) {
            Fail("write to the child");
        }
    }
}

bool ChildProcess::ReadMore(std::chrono::milliseconds limit) {
    pollfd entry{m_iOutput, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(limit.count())) <= 0) {
        return false;
    }
    std::array<char, 4096> vcPart{};
    const ssize_t iGot = ::read(m_iOutput, vcPart.data(), vcPart.size());
    if (iGot <= 0) {
        return false;  // the end of a pipe, or a terminal that nobody has open any more
    }
    m_sOutput.append(vcPart.data(), static_cast<std::size_t>(iGot));
    return true;
}

bool ChildProcess::WaitFor(std::string_view sText, std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    for (;;) {
        const std::size_t iFound = m_sOutput.find(sText, m_iPassed);
        if (iFound != std::string::npos) {
            m_iPassed = iFound + sText.size();
            return true;
        }
        if (LeftUntil(end).count() <= 0) {
            return false;
        }
        if (!ReadMore(kPoll) && Reap(false) && !ReadMore(kPoll)) {
            return false;
        }
    }
}

const std::string& ChildProcess::Output() {
    while (ReadMore(std::chrono::milliseconds(0))) {
    }
    return m_sOutput;
}

std::string ChildProcess::Unread() {
    return Output().substr(m_iPassed);
}

int ChildProcess::Pending() const {
    int nBytes = 0;
    return ::ioctl(m_iOutput, FIONREAD, &nBytes) == 0 ? nBytes : 0;
}

void ChildProcess::Signal(int iSignal) {
    if (!Reap(false)) {
        ::kill(m_iPid, iSignal);
    }
}

bool ChildProcess::Reap(bool bBlock) {
    if (m_iStatus) {
        return true;
    }
    int iStatus = 0;
    if (::waitpid(m_iPid, &iStatus, bBlock ? 0 : WNOHANG) != m_iPid) {
        return false;
    }
    m_iStatus = WIFSIGNALED(iStatus) ? 128 + WTERMSIG(iStatus) : WEXITSTATUS(iStatus);
    return true;
}

bool ChildProcess::IsRunning() {
    return !Reap(false);
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (!Reap(false)) {
        if (LeftUntil(end).count() <= 0) {
            return std::nullopt;
        }
        // Keeps the child's pipe from filling; at the end of its output there is only its end to wait for.
        if (!ReadMore(kPoll)) {
            ::poll(nullptr, 0, static_cast<int>(kPoll.count()));
        }
    }
    Output();
    return m_iStatus;
}

RunResult RunProgram(const std::vector<std::string>& vsArguments, const ChildOptions& options,
                     std::chrono::milliseconds limit) {
    ChildProcess child(vsArguments, options);
    const std::optional<int> iStatus = child.Wait(limit);
    return {iStatus.value_or(-1), child.Output()};
}

// ---- ConsoleProcess

namespace {

std::vector<std::string> ConsoleArguments(const std::vector<std::string>& vsOptions) {
    std::vector<std::string> vsArguments{ConsoleProcess::ProgramPath()};
    vsArguments.insert(vsArguments.end(), vsOptions.begin(), vsOptions.end());
    return vsArguments;
}

}  // namespace

ConsoleProcess::ConsoleProcess(const std::vector<std::string>& vsOptions, const ChildOptions& options)
    : ChildProcess(ConsoleArguments(vsOptions), options) {}

std::string ConsoleProcess::ProgramPath() {
    return BuildTree() + "/bin/nfsconsole";
}

bool ConsoleProcess::WaitForPrompt(std::chrono::milliseconds limit) {
    return WaitFor("\nCommand: ", limit);
}

std::string ConsoleProcess::Command(std::string_view sLine) {
    const std::size_t iBefore = Output().size();
    Send(std::string(sLine) + "\n");
    WaitForPrompt();
    const std::string sPrinted = Output().substr(iBefore);
    return sPrinted.substr(0, sPrinted.rfind("\nCommand: "));
}

std::optional<int> ConsoleProcess::Quit() {
    Send("quit\n");
    return Wait();
}
