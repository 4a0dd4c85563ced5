// Signals end the console as "quit" does.
#include <csignal>

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ConsoleSupport.h"
#include "NfsClient.h"
#include "WaitUntil.h"

namespace {

/// A signal, on a pipe or on a terminal.
struct Case {
    int iSignal;
    bool bTerminal;
};

class ConsoleSignals : public ConsoleTest, public testing::WithParamInterface<Case> {};

std::string NameOf(const testing::TestParamInfo<Case>& info) {
    return std::string(sigabbrev_np(info.param.iSignal)) + (info.param.bTerminal ? "OnATerminal" : "OnAPipe");
}

}  // namespace

TEST_P(ConsoleSignals, EndsAsQuitDoes) {
    ChildOptions options;
    options.bTerminal = GetParam().bTerminal;
    const std::string sPid = m_Folder / "pid";
    ConsoleProcess console({"-md", "svr", "-pidfile", sPid}, options);
    ASSERT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    console.Command("mount " + m_Folder.Path() + "=data");
    ASSERT_EQ(console.Command("start"), "Start NFS success");
    NfsClient client;
    ASSERT_TRUE(client.Mnt("data"));
    std::unique_ptr<TerminalOf> pTerminal;
    std::string sAttributes;
    if (GetParam().bTerminal) {
        pTerminal = std::make_unique<TerminalOf>(console.GetPid());
        sAttributes = Describe(pTerminal->Get());
    }
    console.Signal(GetParam().iSignal);
    EXPECT_EQ(console.Wait(), 0);
    EXPECT_TRUE(console.Output().ends_with("\nExit\n")) << console.Output();
    EXPECT_TRUE(client.Nfs().IsClosedByPeer()) << "the server was stopped";
    EXPECT_FALSE(Exists(sPid));
    EXPECT_FALSE(Exists("/tmp/nfs-server"));
    if (pTerminal) {
        EXPECT_EQ(Describe(pTerminal->Get()), sAttributes);
    }
}

INSTANTIATE_TEST_SUITE_P(EachSignal, ConsoleSignals,
                         testing::Values(Case{SIGINT, false}, Case{SIGINT, true}, Case{SIGTERM, false},
                                         Case{SIGTERM, true}, Case{SIGHUP, false}, Case{SIGHUP, true}),
                         NameOf);

namespace {

class ConsoleSignal : public ConsoleTest {};

/// Before a signal that is sent at the first prompt: under ThreadSanitizer, and only there, waits until the command
/// loop has read a line.
///
/// The program needs no such help: once the handlers stand, long before that prompt, no signal is lost. But the
/// sanitizer's runtime loses one that arrives while it makes a thread's record of signals, which is at the thread's
/// first blocking call, here the loop's first look at the keyboard. The kernel's events of such a run show it: the
/// signal is delivered to the runtime's own handler between the mapping of that record and its use; the handler maps a
/// second record and notes the signal there; then the first one takes the second one's place, and the program's handler
/// is never called. Seen in 6 of 1600 such runs, and in none of 3000 of the plain build.
void PassTheSanitizersGap([[maybe_unused]] ConsoleProcess& console) {
#if defined(__SANITIZE_THREAD__)
    console.Command("");
#endif
}

}  // namespace

TEST_F(ConsoleSignal, InterruptKeyOfTheTerminalEndsTheProgram) {
    ChildOptions options;
    options.bTerminal = true;
    ConsoleProcess console({"-md", "int"}, options);
    ASSERT_TRUE(console.WaitForPrompt());
    PassTheSanitizersGap(console);
    const TerminalOf terminal(console.GetPid());
    termios attributes = terminal.Get();
    attributes.c_lflag |= ISIG;
    attributes.c_cc[VINTR] = 3;
    terminal.Set(attributes);
    console.Send("\x03");
    EXPECT_EQ(console.Wait(), 0);
    EXPECT_TRUE(console.Output().ends_with("\nExit\n")) << console.Output();
}

TEST_F(ConsoleSignal, KilledConsoleLeavesItsTerminalAsItWas) {
    ChildOptions options;
    options.bTerminal = true;
    ConsoleProcess console({"-md", "int"}, options);
    ASSERT_TRUE(console.WaitForPrompt());
    const TerminalOf terminal(console.GetPid());
    const std::string sAttributes = Describe(terminal.Get());
    console.Signal(SIGKILL);
    EXPECT_EQ(console.Wait(), 128 + SIGKILL);
    EXPECT_EQ(Describe(terminal.Get()), sAttributes);
}

TEST_F(ConsoleSignal, ClosedTerminalEndsTheProgramInOrder) {
    const std::string sPid = m_Folder / "pid";
    const std::string sProgram = ConsoleProcess::ProgramPath();
    int iMaster = -1;
    const pid_t iConsole = ::forkpty(&iMaster, nullptr, nullptr, nullptr);
    if (iConsole == 0) {
        ::execl(sProgram.c_str(), "nfsconsole", "-md", "svr", "-pidfile", sPid.c_str(), nullptr);
        ::_exit(127);
    }
    ASSERT_GT(iConsole, 0);
    CDescriptor master(iMaster);
    EXPECT_TRUE(WaitUntil([] { return Exists("/tmp/nfs-server"); }));
    master.Close();
    int iStatus = 0;
    EXPECT_EQ(::waitpid(iConsole, &iStatus, 0), iConsole);
    EXPECT_EQ(iStatus, 0);
    EXPECT_FALSE(Exists(sPid));
    EXPECT_FALSE(Exists("/tmp/nfs-server"));
}

TEST_F(ConsoleSignal, EndsTheShellCommandInProgressFirst) {
    ConsoleProcess console({"-md", "int"});
    ASSERT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    const std::string sEnded = m_Folder / "ended";
    console.Send("exec exec 2>/dev/null; trap 'touch " + sEnded +
                 "; exit' TERM; echo begun; while :; do sleep 0.05; done\n");
    ASSERT_TRUE(console.WaitFor("begun\n"));
    console.Signal(SIGTERM);
    EXPECT_EQ(console.Wait(), 0);
    EXPECT_TRUE(Exists(sEnded));
    EXPECT_TRUE(
        console.Output().ends_with("begun\n\n------\nError: Failed to read the pipe to the end\n"
                                   "Return code: -1\n\nCommand: \nExit\n"))
        << console.Output();
}

TEST_F(ConsoleSignal, RepeatedSignalsDoNotDisturbTheEnd) {
    const std::string sPid = m_Folder / "pid";
    ConsoleProcess console({"-md", "svr", "-pidfile", sPid});
    ASSERT_TRUE(console.WaitForPrompt());
    PassTheSanitizersGap(console);
    for (const int iSignal : {SIGTERM, SIGINT, SIGHUP, SIGTERM, SIGTERM}) {
        console.Signal(iSignal);
    }
    EXPECT_EQ(console.Wait(), 0);
    EXPECT_FALSE(Exists(sPid));
    EXPECT_FALSE(Exists("/tmp/nfs-server"));
}

TEST_F(ConsoleSignal, IgnoredOrBlockedByTheParentTheyStillEndTheProgram) {
    ChildProcess console(
        {"/bin/bash", "-c", "trap '' INT TERM HUP CHLD PIPE; exec \"$0\" -md int", ConsoleProcess::ProgramPath()});
    ASSERT_TRUE(console.WaitFor("Command: "));
    console.Send("debug\nexec exit 3\n");
    EXPECT_TRUE(console.WaitFor("Return code: 768\n")) << console.Output();
    console.Signal(SIGHUP);
    EXPECT_EQ(console.Wait(), 0);
}

TEST_F(ConsoleSignal, TestRunIsFinishedFirst) {
    const std::string sPid = m_Folder / "pid";
    ConsoleProcess console({"-md", "int", "-test", m_Folder.Path() + "=2000", "-pidfile", sPid});
    ASSERT_TRUE(console.WaitFor("START TEST"));
    console.Signal(SIGTERM);
    EXPECT_EQ(console.Wait(), 0);
    EXPECT_TRUE(console.Output().ends_with("END TEST ================================\n")) << console.Output();
    EXPECT_FALSE(Exists(m_Folder / "_test"));
    EXPECT_FALSE(Exists(sPid));
}
