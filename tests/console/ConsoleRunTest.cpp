// Whole runs of the console: what each mode prints, in order, and its exit status.
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ConsoleSupport.h"
#include "SoftLimit.h"

namespace {

class ConsoleRun : public ConsoleTest {
protected:
    /// A log file's lines without their time stamps.
    static std::vector<std::string> LinesOf(const std::string& sLog) {
        std::ifstream log(sLog);
        std::vector<std::string> vsTexts;
        for (std::string sLine; std::getline(log, sLine);) {
            EXPECT_GT(sLine.size(), 21U) << sLine;
            vsTexts.push_back(sLine.size() > 21 ? sLine.substr(21) : "");  // behind "[2025/01/02 03:04:05]"
        }
        return vsTexts;
    }
};

/// A file system without a free byte, for the scope.
class FullFileSystem {
public:
    explicit FullFileSystem(std::string sPath) : m_sPath(std::move(sPath)) {
        if (::mkdir(m_sPath.c_str(), 0755) != 0 || ::mount("none", m_sPath.c_str(), "tmpfs", 0, "size=16k") != 0) {
            throw std::runtime_error("no small file system");
        }
        std::ofstream filler(m_sPath + "/filler");
        filler << std::string(1 << 16, 'x') << std::flush;
    }
    ~FullFileSystem() { ::umount2(m_sPath.c_str(), MNT_DETACH); }
    FullFileSystem(const FullFileSystem&) = delete;
    FullFileSystem& operator=(const FullFileSystem&) = delete;

    const std::string& Path() const { return m_sPath; }

private:
    std::string m_sPath;
};

}  // namespace

TEST_F(ConsoleRun, InternalModeFromBannerToExit) {
    ConsoleProcess console({"-md", "int"});
    EXPECT_EQ(console.Quit(), 0);
    EXPECT_EQ(console.Output(), InternalBanner() + kIntro + "\nExit\n");
}

TEST_F(ConsoleRun, ExternalServerIsTheDefault) {
    ConsoleProcess console({});
    EXPECT_TRUE(console.WaitForPrompt());
    EXPECT_TRUE(Exists("/tmp/nfs-server"));
    EXPECT_EQ(console.Quit(), 0);
    EXPECT_EQ(console.Output(), Banner("1.4", "External NFS Server") + kIntro + "\nExit\n");
    EXPECT_FALSE(Exists("/tmp/nfs-server"));
}

TEST_F(ConsoleRun, HelpPrintsTheUsageAndNothingElse) {
    const std::string sPid = m_Folder / "pid";
    const RunResult result = RunConsole({"-pidfile", sPid, "-help"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "\nUsage: " + ConsoleProcess::ProgramPath() +
                                  " [-help]\n"
                                  "       [-shutdown]\n"
                                  "       [-query]\n"
                                  "       [-test <path=max_file_size>]\n"
                                  "       [-id <name>] [-log <num>] [-md <int|svr|cli>] [-logfile <path>] "
                                  "[-pidfile <path>]\n");
    EXPECT_FALSE(Exists(sPid));
}

TEST_F(ConsoleRun, ProgramNameIsWhatStandsBehindTheLastBackslash) {
    const std::string sLink = m_Folder / "C:\\dir\\prog.exe";
    ASSERT_EQ(::symlink(ConsoleProcess::ProgramPath().c_str(), sLink.c_str()), 0);
    const RunResult result = RunProgram({sLink, "-help"});
    EXPECT_EQ(result.sOutput.substr(0, 25), "\nUsage: prog.exe [-help]\n");
}

TEST_F(ConsoleRun, WrongModeEndsWithOne) {
    const RunResult result = RunConsole({"-md", "xyz"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "Un-supported mode: -md\n");
}

TEST_F(ConsoleRun, WrongTestValueEndsWithOne) {
    const RunResult result = RunConsole({"-test", "/tmp"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "In-valid test mode value: /tmp\n");
}

TEST_F(ConsoleRun, ShutdownOfAServerModeStartsNothing) {
    const std::string sPid = m_Folder / "pid";
    for (const char* pcMode : {"int", "svr"}) {
        const RunResult result = RunConsole({"-md", pcMode, "-shutdown", "-pidfile", sPid});
        EXPECT_EQ(result.iStatus, 0) << pcMode;
        EXPECT_EQ(result.sOutput, "Auto shutdown is activated, terminate now\n") << pcMode;
        EXPECT_FALSE(Exists(sPid)) << pcMode;
    }
}

TEST_F(ConsoleRun, QueryThatFindsNoServerEndsWithZero) {
    const RunResult result = RunConsole({"-query"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, Banner("Unknown", "Unknown") + "Server Status: NotAccessible\n" + kRule);
}

TEST_F(ConsoleRun, OfSeveralActionsOneIsDone) {
    const RunResult query = RunConsole({"-md", "int", "-test", m_Folder.Path() + "=10", "-query"});
    EXPECT_EQ(query.iStatus, 0);
    EXPECT_EQ(query.sOutput, InternalBanner() + EmptyStatus("Stopped")) << "a query runs no test";
    const RunResult shutdown = RunConsole({"-shutdown", "-query"});
    EXPECT_EQ(shutdown.iStatus, 0) << "no server for a query";
    EXPECT_EQ(shutdown.sOutput, Banner("Unknown", "Unknown") + "Server Status: NotAccessible\n" + kRule);

    ConsoleProcess server({"-md", "svr"});
    ASSERT_TRUE(server.WaitForPrompt());
    EXPECT_EQ(RunConsole({"-query", "-shutdown"}).sOutput, Banner("1.4", "External NFS Server")) << "no status";
    EXPECT_EQ(server.Wait(), 0);
}

TEST_F(ConsoleRun, ClientThatFindsNoServerEndsWithOne) {
    for (const std::vector<std::string>& vsOptions :
         {std::vector<std::string>{"-md", "cli"}, std::vector<std::string>{"-shutdown"}}) {
        const RunResult result = RunConsole(vsOptions);
        EXPECT_EQ(result.iStatus, 1) << vsOptions[0];
        EXPECT_EQ(result.sOutput, Banner("Unknown", "Unknown") + "Terminated. Reason=Fail to get server version\n")
            << vsOptions[0];
    }
}

TEST_F(ConsoleRun, EmptyIDIsRefused) {
    const RunResult result = RunConsole({"-md", "int", "-id", ""});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, InternalBanner() + "Terminated. Reason=ID is not defined\n");
}

TEST_F(ConsoleRun, IDsThatCannotNameASocketAreRefused) {
    const std::string sBanner = Banner("1.4", "External NFS Server");
    EXPECT_EQ(RunConsole({"-id", "server"}).sOutput, sBanner + "Terminated. Reason=Cannot use \"server\" as ID\n");
    EXPECT_EQ(RunConsole({"-id", "a/b"}).sOutput, sBanner + "Terminated. Reason=Invalid char \"/\" inside ID\n");
    EXPECT_EQ(RunConsole({"-id", "a b"}).sOutput, sBanner + "Terminated. Reason=Invalid char \" \" inside ID\n");
    EXPECT_EQ(RunConsole({"-id", "server"}).iStatus, 1);
}

TEST_F(ConsoleRun, LoneIDOptionRunsUnderTheDefaultID) {
    ConsoleProcess console({"-md", "int", "-id"});
    EXPECT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    EXPECT_EQ(console.Command("print hello"), "[info] (cRun) hello\n");
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleRun, LongIDIsCutAt254) {
    ConsoleProcess console({"-md", "int", "-id", std::string(300, 'i')});
    EXPECT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    EXPECT_EQ(console.Command("print hello"), "[info] (" + std::string(254, 'i') + ") hello\n");
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleRun, CommandLineIsCutAt4095Characters) {
    // "-md\nint\n-id\n" are 12 characters; what follows the cut is not seen.
    ConsoleProcess console({"-md", "int", "-id", std::string(4082, 'i'), "-md", "xyz"});
    EXPECT_EQ(console.Quit(), 0);
    EXPECT_EQ(console.Output(), InternalBanner() + kIntro + "\nExit\n");
}

TEST_F(ConsoleRun, TestModeRunsThePlatformTestUnderItsOwnID) {
    const RunResult result = RunConsole({"-md", "int", "-test", m_Folder.Path() + "=3000"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_TRUE(result.sOutput.starts_with(
        InternalBanner() +
        "[info] (tmRun) =============================== START TEST ===============================\n"))
        << result.sOutput;
    EXPECT_TRUE(result.sOutput.ends_with(
        "[info] (tmRun) [ OK ] Remove directory \"" + m_Folder.Path() +
        "/_test\".\n"
        "[info] (tmRun) ================================ END TEST ================================\n"))
        << result.sOutput;
    EXPECT_EQ(result.sOutput.find("[FAIL]"), std::string::npos) << result.sOutput;
}

TEST_F(ConsoleRun, LogFileTakesTheLinesOfTheRun) {
    const std::string sLog = m_Folder / "logs/nfs.log";
    const std::string sPid = m_Folder / "pid";
    ConsoleProcess console({"-md", "int", "-log", "1", "-logfile", sLog, "-pidfile", sPid});
    EXPECT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    EXPECT_EQ(console.Command("print hello"), "") << "goes to the file, not to the console";
    EXPECT_EQ(console.Quit(), 0);
    EXPECT_EQ(console.Output(), InternalBanner() + kIntro + "\nCommand: " + "\nCommand: " + "\nExit\n");
    EXPECT_EQ(LinesOf(sLog), (std::vector<std::string>{"[info] ID = cRun, LogControl = 1, AccessMode = 0",
                                                       "[info] Create pid file \"" + sPid + "\"", "[info] Initial NFS",
                                                       "[info] Start Remote Controller", "[info] hello",
                                                       "[info] Stop Remote Controller", "[info] Terminate NFS"}));
}

TEST_F(ConsoleRun, LogControlHoldsFromTheStart) {
    for (const char* pcMode : {"int", "svr"}) {
        ConsoleProcess console({"-md", pcMode, "-log", "2"});
        EXPECT_TRUE(console.WaitForPrompt());
        console.Command("debug");
        EXPECT_EQ(
            console.Command("qtest /missing 0"),
            "[info] (cRun) [Utilities.RunQuickTestMode] Fail to get canonical path from non-exist path: /missing\n"
            "[info] (cRun) Quick exist test failed. Error=\"/missing\"\n"
            "Quick test FAIL. ErrCode=2\n")
            << pcMode;
        EXPECT_EQ(console.Quit(), 0);
    }
}

TEST_F(ConsoleRun, PidFileIsMadeAndRemovedUnderTheLogControlOfTheRun) {
    const std::string sPid = m_Folder / "pid";
    const RunResult result = RunConsole({"-md", "int", "-log", "256", "-pidfile", sPid, "-query"});
    EXPECT_EQ(result.iStatus, 0);
    const std::string sTag = "[info] () [CConsoleUtilities.CreatePidFile] ";
    EXPECT_TRUE(result.sOutput.starts_with(sTag + "OS splited path \"" + sPid + "\" into ")) << result.sOutput;
    EXPECT_NE(result.sOutput.find(sTag + "OS close file \"" + sPid + "\"\n" + InternalBanner()), std::string::npos)
        << result.sOutput;
    EXPECT_TRUE(result.sOutput.ends_with(
        EmptyStatus("Stopped") + "[info] () [CConsoleUtilities.RemovePidFile] OS remove file \"" + sPid + "\"\n"))
        << result.sOutput;
}

TEST_F(ConsoleRun, LogFileIsOpenedUnderTheLogControlOfTheRun) {
    const std::string sLog = m_Folder / "nfs.log";
    const std::string sTag = "[info] () [CFileLogger.Open] ";
    const RunResult result = RunConsole({"-md", "int", "-log", "256", "-logfile", sLog, "-query"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_TRUE(result.sOutput.starts_with(sTag + "OS splited path \"" + sLog + "\" into ")) << result.sOutput;
    EXPECT_TRUE(result.sOutput.ends_with(sTag + "OS create file \"" + sLog + "\"\n" + InternalBanner() +
                                         EmptyStatus("Stopped")))
        << result.sOutput;
}

TEST_F(ConsoleRun, LogFileShowsStartAndStopInOrder) {
    const std::string sLog = m_Folder / "nfs.log";
    ConsoleProcess console({"-md", "int", "-logfile", sLog});
    EXPECT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    EXPECT_EQ(console.Command("start"), "Start NFS success");
    EXPECT_EQ(console.Quit(), 0);
    EXPECT_EQ(LinesOf(sLog),
              (std::vector<std::string>{"[info] ID = cRun, LogControl = 0, AccessMode = 0", "[info] Initial NFS",
                                        "[info] Start Remote Controller",
                                        "[info] Start NFS with internal portmapper: MountPort = 1058, NfsPort = 2049",
                                        "[info] Stop NFS", "[info] Stop Remote Controller", "[info] Terminate NFS"}));
}

TEST_F(ConsoleRun, LogFileThatCannotBeMadeIsReportedAndDoneWithout) {
    WriteWholeFile(m_Folder / "file", "x");
    const std::string sLog = m_Folder / "file/nfs.log";
    ConsoleProcess console({"-md", "int", "-logfile", sLog});
    EXPECT_TRUE(console.WaitForPrompt());
    EXPECT_NE(console.Output().find("Fail to create log file: " + sLog + "\n" + InternalBanner() + kIntro),
              std::string::npos)
        << console.Output();
    console.Command("debug");
    EXPECT_EQ(console.Command("print hello"), "[info] (cRun) hello\n");
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleRun, ControllerIsTerminatedOnlyAfterItWasInitialised) {
    const std::string sLog = m_Folder / "nfs.log";
    EXPECT_EQ(RunConsole({"-id", "", "-logfile", sLog}).iStatus, 1);
    EXPECT_EQ(ReadWholeFile(sLog).find("Terminate NFS"), std::string::npos) << ReadWholeFile(sLog);

    ConsoleProcess first({"-md", "svr"});
    ASSERT_TRUE(first.WaitForPrompt());
    EXPECT_EQ(RunConsole({"-md", "svr", "-logfile", sLog}).iStatus, 1);
    const std::string sText = ReadWholeFile(sLog);
    EXPECT_NE(sText.find("Terminate NFS"), std::string::npos) << sText;
    EXPECT_EQ(sText.find("Stop Remote Controller"), std::string::npos) << "none was started: " << sText;
    EXPECT_EQ(first.Quit(), 0);
}

TEST_F(ConsoleRun, PidFileStandsForTheTimeOfTheRun) {
    const std::string sPid = m_Folder / "pid";
    ConsoleProcess console({"-md", "int", "-pidfile", sPid});
    EXPECT_TRUE(console.WaitForPrompt());
    EXPECT_EQ(ReadWholeFile(sPid), std::to_string(console.GetPid()) + "\n");
    EXPECT_EQ(console.Quit(), 0);
    EXPECT_FALSE(Exists(sPid));
}

TEST_F(ConsoleRun, PidFileOfALivingConsoleStopsASecondOne) {
    const std::string sPid = m_Folder / "pid";
    ConsoleProcess console({"-md", "int", "-pidfile", sPid});
    EXPECT_TRUE(console.WaitForPrompt());
    const RunResult second = RunConsole({"-md", "int", "-pidfile", sPid});
    EXPECT_EQ(second.iStatus, 1);
    EXPECT_EQ(second.sOutput, "Fail to create pid file \"" + sPid + "\". Reason=Process ID \"" +
                                  std::to_string(console.GetPid()) + "\" is still running\n");
    EXPECT_TRUE(Exists(sPid)) << "the first one's file stays";
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleRun, PidFileOfAKilledConsoleIsReplaced) {
    const std::string sPid = m_Folder / "pid";
    {
        ConsoleProcess killed({"-md", "int", "-pidfile", sPid});
        EXPECT_TRUE(killed.WaitForPrompt());
        killed.Signal(SIGKILL);
        EXPECT_EQ(killed.Wait(), 128 + SIGKILL);
    }
    EXPECT_TRUE(Exists(sPid));
    ConsoleProcess console({"-md", "int", "-pidfile", sPid});
    EXPECT_TRUE(console.WaitForPrompt());
    EXPECT_EQ(ReadWholeFile(sPid), std::to_string(console.GetPid()) + "\n");
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleRun, PidFileIsRemovedAfterAFailedStartToo) {
    const std::string sPid = m_Folder / "pid";
    EXPECT_EQ(RunConsole({"-md", "int", "-id", "", "-pidfile", sPid}).iStatus, 1);
    EXPECT_FALSE(Exists(sPid));
    EXPECT_EQ(RunConsole({"-md", "cli", "-pidfile", sPid}).iStatus, 1);
    EXPECT_FALSE(Exists(sPid));
}

#if !defined(__SANITIZE_THREAD__)  // whose runtime sizes a file of its own before the program begins
TEST_F(ConsoleRun, FullDiskForThePidFileIsReported) {
    // A file-size limit of nothing makes every write fail as a full disk does; its signal ends nothing.
    const std::string sPid = m_Folder / "pid";
    const RunResult result = RunProgram({"/bin/sh", "-c", "ulimit -f 0; exec \"$0\" -md int -pidfile \"$1\" | cat",
                                         ConsoleProcess::ProgramPath(), sPid});
    EXPECT_NE(result.sOutput.find("Fail to create pid file \"" + sPid + "\". Reason=File too large (27)\n"),
              std::string::npos)
        << result.sOutput;
    EXPECT_FALSE(Exists(sPid)) << "nothing half written stays";
}
#endif

TEST_F(ConsoleRun, FullFileSystemIsReportedForPidFileAndLogFile) {
    const FullFileSystem full(m_Folder / "full");
    const std::string sPid = full.Path() + "/pid";
    const RunResult refused = RunConsole({"-md", "int", "-pidfile", sPid});
    EXPECT_EQ(refused.iStatus, 1);
    EXPECT_TRUE(
        refused.sOutput.ends_with("Fail to create pid file \"" + sPid + "\". Reason=No space left on device (28)\n"))
        << refused.sOutput;
    EXPECT_FALSE(Exists(sPid));

    ConsoleProcess console({"-md", "int", "-logfile", full.Path() + "/nfs.log"});
    ASSERT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    const std::string sPrinted = console.Command("print hello");
    EXPECT_TRUE(sPrinted.ends_with("[info] (cRun) hello\n")) << "a line that the file does not take: " << sPrinted;
    EXPECT_TRUE(console.Command("start").ends_with("Start NFS success"));
    EXPECT_EQ(console.Quit(), 0);
}

TEST_F(ConsoleRun, SoftLimitOfOpenFilesIsRaisedToTheHardLimit) {
    const RunResult result = RunProgram(
        {"/bin/sh", "-c", "ulimit -Sn 100; printf 'debug\\nexec ulimit -Sn; ulimit -Hn\\nquit\\n' | \"$0\" -md int",
         ConsoleProcess::ProgramPath()});
    const std::size_t iRule = result.sOutput.find("\n------\n");
    ASSERT_NE(iRule, std::string::npos) << result.sOutput;
    std::istringstream limits(result.sOutput.substr(iRule + 8));
    std::string sSoft;
    std::string sHard;
    limits >> sSoft >> sHard;
    EXPECT_EQ(sSoft, sHard);
    EXPECT_NE(sSoft, "100");
}
