// The console's standard input: pipes, files, terminals, and none at all.
#include <csignal>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ConsoleSupport.h"
#include "WaitUntil.h"

namespace {

class ConsoleInputProcess : public ConsoleTest {
protected:
    /// Runs the console by a shell, which arranges its standard input. "$0" is the console, "$1" a pid file.
    std::unique_ptr<ChildProcess> Shell(const std::string& sScript) {
        return std::make_unique<ChildProcess>(
            std::vector<std::string>{"/bin/sh", "-c", sScript, ConsoleProcess::ProgramPath(), m_Folder / "pid"});
    }
};

/// Processor time a process has used, in clock ticks.
long TicksOf(pid_t iPid) {
    std::ifstream stat("/proc/" + std::to_string(iPid) + "/stat");
    std::string sText;
    std::getline(stat, sText);
    std::istringstream fields(sText.substr(sText.rfind(')') + 2));
    std::string sSkipped;
    for (int i = 3; i < 14; ++i) {
        fields >> sSkipped;
    }
    long iUser = 0;
    long iSystem = 0;
    fields >> iUser >> iSystem;
    return iUser + iSystem;
}

char StateOf(pid_t iPid) {
    std::ifstream stat("/proc/" + std::to_string(iPid) + "/stat");
    std::string sText;
    std::getline(stat, sText);
    return sText.at(sText.rfind(')') + 2);
}

}  // namespace

TEST_F(ConsoleInputProcess, SeveralLinesOfOneWriteAreAllCarriedOut) {
    ConsoleProcess console({"-md", "int"});
    console.Send("debug\nprint one\n\nprint two\nquit\n");
    EXPECT_EQ(console.Wait(), 0);
    EXPECT_EQ(console.Output(), InternalBanner() + kIntro + "\nCommand: [info] (cRun) one\n\nCommand: " +
                                    "\nCommand: [info] (cRun) two\n\nCommand: \nExit\n");
}

TEST_F(ConsoleInputProcess, LineMayComeInPieces) {
    ConsoleProcess console({"-md", "int"});
    EXPECT_TRUE(console.WaitForPrompt());
    for (const char* pcPiece : {"st", "at", "us"}) {
        console.Send(pcPiece);
        EXPECT_FALSE(console.WaitForPrompt(std::chrono::milliseconds(250))) << "half a line is no command";
    }
    EXPECT_EQ(console.Command(""), "\n" + EmptyStatus("Stopped"));
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleInputProcess, LastLineNeedsNoLineFeed) {
    ConsoleProcess console({"-md", "int"});
    console.Send("quit");
    console.CloseInput();
    EXPECT_EQ(console.Wait(), 0);
}

TEST_F(ConsoleInputProcess, CommandsMayStandInAFile) {
    WriteWholeFile(m_Folder / "commands", "debug\nprint from a file\nquit\n");
    const auto pShell = Shell("exec \"$0\" -md int < " + (m_Folder / "commands"));
    EXPECT_EQ(pShell->Wait(), 0);
    EXPECT_EQ(pShell->Output(),
              InternalBanner() + kIntro + "\nCommand: [info] (cRun) from a file\n\nCommand: \nExit\n");
}

TEST_F(ConsoleInputProcess, LineLongerThan4095CharactersComesInPieces) {
    ConsoleProcess console({"-md", "int"});
    EXPECT_TRUE(console.WaitForPrompt());
    console.Send(std::string(4095, 'x') + "help\n");
    EXPECT_TRUE(console.WaitFor("Unknown command: '" + std::string(4095, 'x') + "'\n"));
    EXPECT_TRUE(console.WaitFor("Command:\n  help: display help\n"));
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleInputProcess, EndOfInputIsNoEndOfTheProgram) {
    for (const char* pcInput : {"< /dev/null", "<&-", "< /dev/null > \"$1.out\" 2>&1"}) {
        const auto pShell = Shell(std::string("exec \"$0\" -md svr -pidfile \"$1\" ") + pcInput);
        ASSERT_TRUE(WaitUntil([&] { return Exists("/tmp/nfs-server"); })) << pcInput;
        const long iTicks = TicksOf(pShell->GetPid());
        ::poll(nullptr, 0, 1000);  // the second that is measured
        EXPECT_TRUE(pShell->IsRunning()) << pcInput;
        EXPECT_LT(TicksOf(pShell->GetPid()) - iTicks, 30) << pcInput << ": busy while idle (ticks in a second)";
        EXPECT_EQ(RunConsole({"-shutdown"}).iStatus, 0);
        EXPECT_EQ(pShell->Wait(), 0) << pcInput;
        EXPECT_FALSE(Exists(m_Folder / "pid"));
    }
}

TEST_F(ConsoleInputProcess, ClosedStandardStreamsAreNotTakenByOtherFiles) {
    const std::string sLog = m_Folder / "nfs.log";
    const auto pShell = Shell("exec \"$0\" -md svr -logfile " + sLog + " <&- >&- 2>&-");
    ASSERT_TRUE(WaitUntil([&] { return Exists("/tmp/nfs-server"); }));
    const RunResult query = RunConsole({"-query"});
    EXPECT_EQ(query.sOutput, Banner("1.4", "External NFS Server") + EmptyStatus("Stopped"));
    EXPECT_EQ(RunConsole({"-shutdown"}).iStatus, 0);
    EXPECT_EQ(pShell->Wait(), 0);
    EXPECT_EQ(ReadWholeFile(sLog).find("Command:"), std::string::npos) << "the prompt went into the log file";
}

TEST_F(ConsoleInputProcess, HalfALineDoesNotHoldUpAShutdown) {
    for (const bool bTerminal : {false, true}) {
        ChildOptions options;
        options.bTerminal = bTerminal;
        ConsoleProcess server({"-md", "svr"}, options);
        EXPECT_TRUE(server.WaitFor("Command: "));
        server.Send("sta");
        EXPECT_EQ(RunConsole({"-shutdown"}).iStatus, 0);
        EXPECT_EQ(server.Wait(), 0);
        EXPECT_NE(server.Output().find("Exit by request"), std::string::npos) << server.Output();
    }
}

TEST_F(ConsoleInputProcess, ReaderThatGoesAwayEndsNothing) {
    const auto pShell = Shell("\"$0\" -md svr -pidfile \"$1\" < /dev/null | head -n 1");
    ASSERT_TRUE(WaitUntil([&] { return Exists("/tmp/nfs-server"); }));
    const RunResult query = RunConsole({"-query"});
    EXPECT_EQ(query.sOutput, Banner("1.4", "External NFS Server") + EmptyStatus("Stopped"));
    EXPECT_EQ(::kill(std::stoi(ReadWholeFile(m_Folder / "pid")), SIGTERM), 0);
    EXPECT_TRUE(pShell->Wait());
    EXPECT_TRUE(WaitUntil([&] { return !Exists(m_Folder / "pid"); }));
}

// ---- Terminals

namespace {

class ConsoleTerminal : public ConsoleTest {
protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ChildOptions options;
        options.bTerminal = true;
        m_pConsole = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "int"}, options);
        ASSERT_TRUE(m_pConsole->WaitForPrompt());
    }

    std::unique_ptr<ConsoleProcess> m_pConsole;
};

}  // namespace

TEST_F(ConsoleTerminal, TypedLinesAreCarriedOut) {
    EXPECT_EQ(m_pConsole->Command("debug"), "");
    EXPECT_EQ(m_pConsole->Command("print hello"), "[info] (cRun) hello\n");
    EXPECT_EQ(m_pConsole->Quit(), 0);
}

TEST_F(ConsoleTerminal, LineIsEditedUntilItIsSent) {
    EXPECT_EQ(m_pConsole->Command("debug"), "");
    termios attributes = TerminalOf(m_pConsole->GetPid()).Get();
    const char cErase = 0x7f;
    attributes.c_cc[VERASE] = static_cast<cc_t>(cErase);
    TerminalOf(m_pConsole->GetPid()).Set(attributes);
    m_pConsole->Send("print oops");
    EXPECT_FALSE(m_pConsole->WaitForPrompt(std::chrono::milliseconds(300))) << "three polls see half a line";
    m_pConsole->Send(std::string(4, cErase));
    EXPECT_EQ(m_pConsole->Command("fine"), "[info] (cRun) fine\n");
    EXPECT_EQ(m_pConsole->Quit(), 0);
}

TEST_F(ConsoleTerminal, EndOfFileKeyEndsNothing) {
    m_pConsole->Send("\x04");
    EXPECT_EQ(m_pConsole->Command("help").substr(0, 27), "==========================\n");
    EXPECT_EQ(m_pConsole->Quit(), 0);
}

TEST_F(ConsoleTerminal, AttributesAreNeverChanged) {
    const TerminalOf terminal(m_pConsole->GetPid());
    termios attributes = terminal.Get();
    attributes.c_lflag |= ECHO | ECHOE | ISIG;
    terminal.Set(attributes);
    const std::string sBefore = Describe(terminal.Get());
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(Describe(terminal.Get()), sBefore);
        ::poll(nullptr, 0, 1);  // for the length of three of its looks at the keyboard
    }
    m_pConsole->Send("quit\n");
    EXPECT_EQ(m_pConsole->Wait(), 0);
    EXPECT_EQ(Describe(terminal.Get()), sBefore);
}

TEST_F(ConsoleTerminal, BackgroundJobServesOnAndLeavesTheKeyboardToTheShell) {
    EXPECT_EQ(m_pConsole->Quit(), 0);
    ChildOptions options;
    options.bTerminal = true;
    ChildProcess shell({"/bin/bash", "--norc", "--noprofile", "-i"}, options);
    shell.Send("PS1='shell$ '\n");
    shell.Send(ConsoleProcess::ProgramPath() + " -md svr -pidfile " + (m_Folder / "pid") + " &\n");
    ASSERT_TRUE(shell.WaitFor("Command: ")) << shell.Output();
    const pid_t iConsole = std::stoi(ReadWholeFile(m_Folder / "pid"));
    shell.Send("echo typed-$((40+2))\n");
    EXPECT_TRUE(shell.WaitFor("typed-42")) << shell.Output();
    ::poll(nullptr, 0, 300);  // the length of three of its looks at the keyboard
    EXPECT_NE(StateOf(iConsole), 'T') << "stopped by reading or setting the terminal";
    EXPECT_EQ(RunConsole({"-shutdown"}).iStatus, 0);
    EXPECT_TRUE(shell.WaitFor("Exit by request")) << shell.Output();
    EXPECT_TRUE(WaitUntil([&] { return !Exists("/tmp/nfs-server") && !Exists(m_Folder / "pid"); })) << "it cleans up";
    shell.Send("exit\n");
    EXPECT_TRUE(shell.Wait());
}
