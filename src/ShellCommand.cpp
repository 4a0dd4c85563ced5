// Starting a shell, reading its output, and ending it with all it has started.
#include "ShellCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "EndWatch.h"

namespace {

using Clock = std::chrono::steady_clock;

/// How often is looked where nothing tells that processes have ended.
constexpr std::chrono::milliseconds kPause{5};

/// What a shell is started with. Its functions fail for lack of memory only, which the spawning meets again.
class CSpawnSetup {
public:
    explicit CSpawnSetup(int iOutput) {
        ::posix_spawn_file_actions_init(&m_Files);
        if (iOutput != -1) {
            ::posix_spawn_file_actions_adddup2(&m_Files, iOutput, STDOUT_FILENO);
        }
        ::posix_spawn_file_actions_addopen(&m_Files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)
        // A host opens descriptors that are not close-on-exec.
        ::posix_spawn_file_actions_addclosefrom_np(&m_Files, STDERR_FILENO + 1);
#endif
        ::posix_spawnattr_init(&m_Attributes);
        ::posix_spawnattr_setflags(&m_Attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        sigset_t signals;
        ::sigfillset(&signals);
        ::posix_spawnattr_setsigdefault(&m_Attributes, &signals);
        ::sigemptyset(&signals);
        ::posix_spawnattr_setsigmask(&m_Attributes, &signals);
    }
    ~CSpawnSetup() {
        ::posix_spawnattr_destroy(&m_Attributes);
        ::posix_spawn_file_actions_destroy(&m_Files);
    }
    CSpawnSetup(const CSpawnSetup&) = delete;
    CSpawnSetup& operator=(const CSpawnSetup&) = delete;

    const posix_spawn_file_actions_t* GetFiles() const {
        return &m_Files;
    }
    const posix_spawnattr_t* GetAttributes() const {
        return &m_Attributes;
    }

private:
    posix_spawn_file_actions_t m_Files;
    posix_spawnattr_t m_Attributes;
};

/// Readable once the process has ended; empty where the system has no such descriptor, or none left.
CDescriptor OpenExitOf(pid_t iPid) {
    return CDescriptor::AboveStandard(CDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, iPid, 0))));
}

}  // namespace

pid_t CShellCommand::Spawn(const char* pcCommandLine, int iOutput) {
    const CSpawnSetup setup(iOutput);
    std::string sShell = "sh";
    std::string sOption = "-c";
    std::string sLine = pcCommandLine;
    char* const vpcArguments[] = {sShell.data(), sOption.data(), sLine.data(), nullptr};
    pid_t iPid = -1;
    const int iError = ::posix_spawn(&iPid, "/bin/sh", setup.GetFiles(), setup.GetAttributes(), vpcArguments, environ);
    return iError == 0 ? iPid : -1;
}

CShellCommand::~CShellCommand() {
    if (m_iPid != -1) {
        m_bEnded = true;
        Wait();
    }
}

bool CShellCommand::Start(const char* pcCommandLine) {
    int viEnds[2];
    if (::pipe2(viEnds, O_CLOEXEC) != 0) {
        return false;
    }
    m_Output = CDescriptor::AboveStandard(CDescriptor(viEnds[0]));
    const CDescriptor input = CDescriptor::AboveStandard(CDescriptor(viEnds[1]));
    if (m_Output.IsOpen() && input.IsOpen()) {
        m_iPid = Spawn(pcCommandLine, input.Get());
    }
    return m_iPid != -1;
}

// ---- Output

bool CShellCommand::HasPiece() const {
    return m_nRead >= kPieceSize - 1 || std::memchr(m_vcRead + m_iFirst, '\n', m_nRead) != nullptr;
}

bool CShellCommand::ReadPiece(char (&vcPiece)[kPieceSize]) {
    while (!HasPiece() && ReadMore()) {
    }
    if (m_nRead == 0 || (!HasPiece() && !m_bAtEnd)) {
        return false;
    }
    const char* pcFirst = m_vcRead + m_iFirst;
    const std::size_t nMost = std::min(m_nRead, kPieceSize - 1);
    const auto* pcFeed = static_cast<const char*>(std::memchr(pcFirst, '\n', nMost));
    const std::size_t nPiece = pcFeed != nullptr ? static_cast<std::size_t>(pcFeed - pcFirst) + 1 : nMost;
    std::memcpy(vcPiece, pcFirst, nPiece);
    vcPiece[nPiece] = '\0';
    m_iFirst += nPiece;
    m_nRead -= nPiece;
    return true;
}

/// False at the end of the output, when reading failed, and when the command is to end.
bool CShellCommand::ReadMore() {
    if (m_bAtEnd || !WaitReadable(m_Output.Get(), -1)) {
        return false;
    }
    std::memmove(m_vcRead, m_vcRead + m_iFirst, m_nRead);
    m_iFirst = 0;
    const ssize_t nMore = ::read(m_Output.Get(), m_vcRead + m_nRead, sizeof(m_vcRead) - m_nRead);
    if (nMore <= 0) {
        m_bAtEnd = nMore == 0;
        return nMore < 0 && errno == EINTR;
    }
    m_nRead += static_cast<std::size_t>(nMore);
    return true;
}

/// Waits until a descriptor has something, or for the time (-1: for ever). False when the command is to end.
bool CShellCommand::WaitReadable(int iDescriptor, int iLimitMs) {
    for (;;) {
        pollfd polled[] = {{iDescriptor, POLLIN, 0},
                           {m_End.GetDescriptor(), POLLIN, 0},
                           {CEndWatch::GetStop(), POLLIN, 0},
                           {CEndWatch::GetConnection(), 0, 0}};
        if (::poll(polled, std::size(polled), iLimitMs) < 0) {
            if (errno == EINTR) {
                continue;
            }
            m_bEnded = true;  // what cannot be watched is not left running
            return false;
        }
        m_bEnded = m_bEnded || polled[1].revents != 0 || polled[2].revents != 0 || polled[3].revents != 0;
        return !m_bEnded;
    }
}

// ---- The end

int CShellCommand::Wait() {
    m_Output.Close();
    WaitForExit();
    if (m_bEnded) {
        EndGroup();
    }
    while (!m_bEnded && !TryReap()) {
    }
    return m_iStatus;
}

/// Looks without reaping: as long as the shell is there, no other group can have its number.
bool CShellCommand::HasExited() const {
    siginfo_t info{};
    const int iResult = ::waitid(P_PID, static_cast<id_t>(m_iPid), &info, WEXITED | WNOHANG | WNOWAIT);
    return iResult != 0 || info.si_pid != 0;
}

/// Until the shell has exited, or is to end.
void CShellCommand::WaitForExit() {
    const CDescriptor exited = OpenExitOf(m_iPid);
    const int iLimitMs = exited.IsOpen() ? -1 : static_cast<int>(kPause.count());
    while (!m_bEnded && !HasExited()) {
        WaitReadable(exited.Get(), iLimitMs);
    }
}

/// True once the shell is reaped, or turns out to be nobody that could be.
bool CShellCommand::TryReap() {
    int iStatus = 0;
    const pid_t iReaped = ::waitpid(m_iPid, &iStatus, WNOHANG);
    if (iReaped == 0 || (iReaped == -1 && errno == EINTR)) {
        return false;
    }
    m_iStatus = iReaped == m_iPid ? iStatus : -1;  // where the process ignores SIGCHLD nobody learns it
    m_iPid = -1;
    return true;
}

bool CShellCommand::ReapUntil(Clock::time_point end) {
    while (!TryReap()) {
        if (Clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

/// A process that SIGKILL does not end, since a disk does not answer it, is not waited for.
void CShellCommand::EndGroup() {
    const pid_t iGroup = m_iPid;
    const auto isThere = [iGroup] { return ::kill(-iGroup, 0) == 0; };
    ::kill(-iGroup, SIGTERM);
    const auto end = Clock::now() + kGrace;
    const bool bReaped = ReapUntil(end);
    while (isThere() && Clock::now() < end) {
        std::this_thread::sleep_for(kPause);
    }
    if (isThere()) {
        ::kill(-iGroup, SIGKILL);
    }
    if (!bReaped) {
        ReapUntil(Clock::now() + kGrace);
        m_iPid = -1;
    }
}
