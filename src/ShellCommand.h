// CShellCommand: one shell command, its output, and its end.
#pragma once

#include <chrono>
#include <cstddef>

#include <sys/types.h>

#include "Descriptor.h"
#include "Wake.h"

/// Runs a command line with the shell, in a session and so in a process group of its own, with the null device as
/// standard input, our standard error, and default signal dispositions; nothing else that we have open reaches it. Its
/// standard output is read piece by piece, to its end: as long as any process that the command started holds it.
///
/// The command is ended, whole group and all, when the thread's CEndWatch says so, or another thread calls End, whether
/// it still has output or only takes its time to exit: SIGTERM first, and SIGKILL for what is still there after kGrace.
/// A process that the command has put in a session of its own is not reached, nor waited for.
///
/// One thread starts, reads and waits; End alone may be called by any other.
class CShellCommand {
public:
    /// Output is handed out in pieces of at most this many characters, terminator included.
    static constexpr std::size_t kPieceSize = 128;
    /// How long a command that is ended may clean up. A stop of the server waits for it.
    static constexpr std::chrono::milliseconds kGrace{1000};

    CShellCommand() = default;
    /// Ends a command that nobody has waited for.
    ~CShellCommand();
    CShellCommand(const CShellCommand&) = delete;
    CShellCommand& operator=(const CShellCommand&) = delete;

    /// Starts a shell of that kind on a command line. Its output goes to a descriptor, or where ours goes for -1. The
    /// process ID, of a child that the caller waits for, or -1.
    static pid_t Spawn(const char* pcCommandLine, int iOutput);

    /// False if there is no pipe or no shell to be had. Once for each object.
    bool Start(const char* pcCommandLine);
    /// The next line of the output with its line feed, or a piece of a long one. False when there is no more:
    /// IsComplete tells why.
    bool ReadPiece(char (&vcPiece)[kPieceSize]);
    /// True if the output was read to its end: neither did reading fail, nor was the command ended before.
    bool IsComplete() const { return m_bAtEnd; }
    /// Waits until the command has exited; its wait status, or -1 if it cannot be told.
    int Wait();
    /// Has the command ended. Before Start: as soon as it is started.
    void End() { m_End.Set(); }

private:
    bool ReadMore();
    bool WaitReadable(int iDescriptor, int iLimitMs);
    bool HasPiece() const;
    bool HasExited() const;
    void WaitForExit();
    void EndGroup();
    bool TryReap();
    bool ReapUntil(std::chrono::steady_clock::time_point end);

    CWake m_End;
    pid_t m_iPid = -1;  ///< of the shell, and of its group; -1 once it is reaped
    int m_iStatus = -1;
    CDescriptor m_Output;
    bool m_bAtEnd = false;
    bool m_bEnded = false;  ///< the command is to end

    // Output that was read and not yet handed out. There is room for more whenever it is not a whole piece.
    char m_vcRead[4096];
    std::size_t m_iFirst = 0;
    std::size_t m_nRead = 0;
};
