// Shell commands: what they start with, and how they are ended.
#include "ShellCommand.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "EndWatch.h"
#include "RunningCommands.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// Commands that are to be ended would take this many seconds.
constexpr const char* kForever = "sleep 1000";
/// Far less than that, and far more than the end of a command takes.
constexpr seconds kSoon{30};

/// The next piece of output; nothing when there is no more.
std::optional<std::string> Next(CShellCommand& command) {
    char vcPiece[CShellCommand::kPieceSize];
    return command.ReadPiece(vcPiece) ? std::optional<std::string>(vcPiece) : std::nullopt;
}

/// All of the output that is left.
std::string Rest(CShellCommand& command) {
    std::string sAll;
    while (const auto sPiece = Next(command)) {
        sAll += *sPiece;
    }
    return sAll;
}

std::string OutputOf(const std::string& sLine) {
    CShellCommand command;
    EXPECT_TRUE(command.Start(sLine.c_str()));
    const std::string sOutput = Rest(command);
    EXPECT_TRUE(command.IsComplete());
    EXPECT_EQ(command.Wait(), 0);
    return sOutput;
}

/// Gone, or a zombie that its new parent has not noticed yet.
bool HasEnded(const std::string& sPid) {
    std::ifstream stat("/proc/" + sPid + "/stat");
    std::string sStat;
    return !std::getline(stat, sStat) || sStat.find(") Z") != std::string::npos;
}

/// Expects a command that has said "ready" to end when something is done to it.
class ShellCommandEnd : public testing::Test {
protected:
    ~ShellCommandEnd() override { EXPECT_LT(steady_clock::now() - m_Start, kSoon); }

    void StartReady(const std::string& sLine) {
        ASSERT_TRUE(m_Command.Start(sLine.c_str()));
        ASSERT_EQ(Next(m_Command).value_or(""), "ready\n");
    }
    /// The number of a process that the command tells.
    std::string ReadPid() {
        const std::string sLine = Next(m_Command).value_or("");
        return sLine.substr(0, sLine.find('\n'));
    }

    const steady_clock::time_point m_Start = steady_clock::now();
    CShellCommand m_Command;
};

}  // namespace

TEST(ShellCommandStart, LeadsAProcessGroupOfItsOwn) {
    EXPECT_EQ(OutputOf("test `cut -d' ' -f5 /proc/$$/stat` = $$ && echo leads"), "leads\n");
}

TEST(ShellCommandStart, HasTheNullDeviceAsInput) {
    EXPECT_EQ(OutputOf("readlink /proc/$$/fd/0; cat; echo end"), "/dev/null\nend\n");
}

TEST(ShellCommandStart, InheritsNeitherBlockedNorIgnoredSignals) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
    const auto pfnBefore = std::signal(SIGUSR2, SIG_IGN);
    const std::string sBlocked = OutputOf("grep SigBlk /proc/$$/status | cut -f2");
    const std::string sIgnored = OutputOf("grep SigIgn /proc/$$/status | cut -f2");
    std::signal(SIGUSR2, pfnBefore);
    ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    EXPECT_EQ(sBlocked, "0000000000000000\n");
    const std::uint64_t iOfTheCLibrary = std::uint64_t{3} << (32 - 1);  // 32 and 33: no program sees them
    EXPECT_EQ(std::stoull(sIgnored, nullptr, 16) & ~iOfTheCLibrary, 0U) << sIgnored;
}

TEST(ShellCommandStart, GetsNoDescriptorOfOurs) {
    const CDescriptor inherited(::open("/", O_RDONLY));  // not close-on-exec, as those of many a host
    ASSERT_TRUE(inherited.IsOpen());
    EXPECT_EQ(OutputOf("test -e /proc/$$/fd/" + std::to_string(inherited.Get()) + " || echo closed"), "closed\n");
}

TEST(ShellCommandStart, OutputIsReadForAsLongAsABackgroundProcessHoldsIt) {
    EXPECT_EQ(OutputOf("(sleep 0.3; echo late) & echo early"), "early\nlate\n");
}

TEST(ShellCommandStart, ExitIsWaitedForWhenTheOutputIsClosedBefore) {
    CShellCommand command;
    ASSERT_TRUE(command.Start("exec >&-; sleep 0.3; exit 5"));
    EXPECT_EQ(Rest(command), "");
    EXPECT_TRUE(command.IsComplete());
    EXPECT_EQ(command.Wait(), 5 << 8);
}

// ---- The end

TEST_F(ShellCommandEnd, TakesEveryProcessOfTheCommand) {
    StartReady(std::string("echo ready; ") + kForever + " & echo $!; " + kForever);
    const std::string sBackground = ReadPid();
    ASSERT_FALSE(HasEnded(sBackground));
    std::thread other([this] { m_Command.End(); });
    EXPECT_EQ(Rest(m_Command), "");
    EXPECT_FALSE(m_Command.IsComplete());
    EXPECT_EQ(m_Command.Wait(), SIGTERM);
    EXPECT_TRUE(WaitUntil([&] { return HasEnded(sBackground); }));
    other.join();
}

TEST_F(ShellCommandEnd, TakesABackgroundProcessWhoseShellHasExited) {
    StartReady(std::string("echo ready; ") + kForever + " & echo $!; echo $$");
    const std::string sBackground = ReadPid();
    const std::string sShell = ReadPid();
    ASSERT_TRUE(WaitUntil([&] { return HasEnded(sShell); }));
    m_Command.End();
    EXPECT_EQ(Rest(m_Command), "");
    EXPECT_EQ(m_Command.Wait(), 0) << "the shell's own";
    EXPECT_TRUE(WaitUntil([&] { return HasEnded(sBackground); }));
}

TEST_F(ShellCommandEnd, LetsTheCommandCleanUp) {
    const TempFolder folder;
    const std::string sDone = folder / "done";
    // The shell itself dies at once, and what it started has closed the output.
    StartReady("(trap 'sleep 0.2; touch " + sDone +
               "; exit' TERM; echo ready; exec >&-; while :; do sleep 0.05; done) & " + kForever);
    m_Command.End();
    Rest(m_Command);
    m_Command.Wait();
    EXPECT_EQ(::access(sDone.c_str(), F_OK), 0);
}

TEST_F(ShellCommandEnd, IsByForceForOneThatDoesNotWantTo) {
    StartReady(std::string("trap '' TERM; echo ready; ") + kForever + "; " + kForever);
    const auto start = steady_clock::now();
    m_Command.End();
    Rest(m_Command);
    EXPECT_EQ(m_Command.Wait(), SIGKILL);
    EXPECT_GE(steady_clock::now() - start, CShellCommand::kGrace);
}

TEST_F(ShellCommandEnd, ReachesOneThatHasClosedItsOutput) {
    StartReady(std::string("echo ready; exec >&-; exec ") + kForever);
    EXPECT_EQ(Rest(m_Command), "");
    EXPECT_TRUE(m_Command.IsComplete());
    std::thread other([this] { m_Command.End(); });
    EXPECT_EQ(m_Command.Wait(), SIGTERM);
    other.join();
}

TEST_F(ShellCommandEnd, ComesWithTheHangUpOfTheRequester) {
    int viEnds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, viEnds), 0);
    const CDescriptor own(viEnds[0]);
    CDescriptor requester(viEnds[1]);
    const CEndWatch watch(own.Get(), -1);
    StartReady(std::string("echo ready; ") + kForever);
    std::thread other([&] { requester.Close(); });
    EXPECT_EQ(Rest(m_Command), "");
    EXPECT_FALSE(m_Command.IsComplete());
    EXPECT_EQ(m_Command.Wait(), SIGTERM);
    other.join();
}

/// It has no more to say, and waits for the reply.
TEST_F(ShellCommandEnd, DoesNotComeWithTheEndOfTheRequest) {
    int viEnds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, viEnds), 0);
    const CDescriptor own(viEnds[0]);
    const CDescriptor requester(viEnds[1]);
    ASSERT_EQ(::shutdown(requester.Get(), SHUT_WR), 0);
    const CEndWatch watch(own.Get(), -1);
    EXPECT_EQ(OutputOf("echo one; sleep 0.2; echo two"), "one\ntwo\n");
}

TEST_F(ShellCommandEnd, ComesWithTheInnermostWatch) {
    CWake outer;
    CWake inner;
    outer.Set();
    const CEndWatch watchOuter(-1, outer.GetDescriptor());
    {
        const CEndWatch watchInner(-1, inner.GetDescriptor());
        EXPECT_EQ(OutputOf("echo one"), "one\n");
    }
    ASSERT_TRUE(m_Command.Start(kForever));
    EXPECT_EQ(Rest(m_Command), "");
    EXPECT_EQ(m_Command.Wait(), SIGTERM);
}

TEST_F(ShellCommandEnd, ComesWithTheObjects) {
    std::string sPid;
    {
        CShellCommand command;
        ASSERT_TRUE(command.Start((std::string("echo $$; exec ") + kForever).c_str()));
        sPid = Next(command).value_or("");
        sPid.pop_back();
        EXPECT_FALSE(HasEnded(sPid));
    }
    EXPECT_TRUE(HasEnded(sPid));
}

// ---- All commands of a controller

TEST_F(ShellCommandEnd, OfAllThatRunComesWithAStopAndForThoseThatBeginMeanwhile) {
    CRunningCommands all;
    const CRunningCommands::Entry entry(all, m_Command);
    StartReady(std::string("echo ready; ") + kForever);
    {
        const CRunningCommands::Stop stop(all);
        EXPECT_EQ(Rest(m_Command), "");
        EXPECT_EQ(m_Command.Wait(), SIGTERM);
        CShellCommand late;
        const CRunningCommands::Entry lateEntry(all, late);
        ASSERT_TRUE(late.Start(kForever));
        EXPECT_EQ(late.Wait(), SIGTERM);
    }
    CShellCommand next;
    const CRunningCommands::Entry nextEntry(all, next);
    ASSERT_TRUE(next.Start("echo next"));
    EXPECT_EQ(Rest(next), "next\n");
    EXPECT_EQ(next.Wait(), 0);
}
