// The console's pieces that need no server: options, texts, pid file. Whole runs are tested in tests/console.
#include "ConsoleUtilities.h"

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ConsoleOptions.h"
#include "NfsMain.h"
#include "PathGuard.h"
#include "TempFolder.h"
#include "Utilities.h"

namespace {

/// What is printed on standard output meanwhile.
std::string Printed(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/// Options of a command line of these arguments.
struct Parsed {
    ConsoleOptions options;
    std::optional<int> iStatus;
    std::string sPrinted;
};

Parsed Parse(const std::vector<std::string>& vsArguments) {
    std::string sCommandLine;
    for (const std::string& sArgument : vsArguments) {
        sCommandLine += sArgument + "\n";
    }
    Parsed parsed;
    CConsoleUtilities console;
    parsed.sPrinted = Printed([&] { parsed.iStatus = parsed.options.Parse(console, "prog", sCommandLine.c_str()); });
    return parsed;
}

constexpr const char* kUsage =
    "\n"
    "Usage: prog [-help]\n"
    "       [-shutdown]\n"
    "       [-query]\n"
    "       [-test <path=max_file_size>]\n"
    "       [-id <name>] [-log <num>] [-md <int|svr|cli>] [-logfile <path>] [-pidfile <path>]\n";

}  // namespace

// ---- Options

TEST(ConsoleOptions, NoArgumentsMeanTheDefaults) {
    const Parsed parsed = Parse({});
    EXPECT_EQ(parsed.iStatus, std::nullopt);
    EXPECT_EQ(parsed.options.sID, "cRun");
    EXPECT_EQ(parsed.options.iLogControl, 0);
    EXPECT_EQ(parsed.options.iAccessMode, 1);
    EXPECT_EQ(parsed.options.sLogFile, "");
    EXPECT_EQ(parsed.options.sPidFile, "");
    EXPECT_FALSE(parsed.options.bShutdownMode || parsed.options.bQueryMode || parsed.options.bTestMode);
    EXPECT_EQ(parsed.sPrinted, "");
}

TEST(ConsoleOptions, EveryOptionTakesItsValue) {
    const Parsed parsed = Parse({"-id", "me", "-log", "1023", "-md", "int", "-logfile", "/l", "-pidfile", "/p", "-test",
                                 "/data=4096", "-query", "-shutdown"});
    EXPECT_EQ(parsed.iStatus, std::nullopt);
    EXPECT_EQ(parsed.options.sID, "me");
    EXPECT_EQ(parsed.options.iLogControl, 1023);
    EXPECT_EQ(parsed.options.iAccessMode, 0);
    EXPECT_EQ(parsed.options.sLogFile, "/l");
    EXPECT_EQ(parsed.options.sPidFile, "/p");
    EXPECT_EQ(parsed.options.sTestPath, "/data");
    EXPECT_EQ(parsed.options.iTestSize, 4096);
    EXPECT_TRUE(parsed.options.bShutdownMode && parsed.options.bQueryMode && parsed.options.bTestMode);
}

TEST(ConsoleOptions, ModesAreNumberedAsTheControllersReportThem) {
    EXPECT_EQ(Parse({"-md", "int"}).options.iAccessMode, 0);
    EXPECT_EQ(Parse({"-md", "svr"}).options.iAccessMode, 1);
    EXPECT_EQ(Parse({"-md", "cli"}).options.iAccessMode, 2);
}

TEST(ConsoleOptions, WrongModeNamesTheOptionNotTheValue) {
    const Parsed parsed = Parse({"-md", "xyz"});
    EXPECT_EQ(parsed.iStatus, 1);
    EXPECT_EQ(parsed.sPrinted, "Un-supported mode: -md\n");
}

TEST(ConsoleOptions, HelpFirstWinsOverAWrongMode) {
    const Parsed parsed = Parse({"-help", "-md", "xyz"});
    EXPECT_EQ(parsed.iStatus, 0);
    EXPECT_EQ(parsed.sPrinted, kUsage);
}

TEST(ConsoleOptions, WrongModeBeforeHelpWinsOverIt) {
    const Parsed parsed = Parse({"-md", "xyz", "-help"});
    EXPECT_EQ(parsed.iStatus, 1);
    EXPECT_EQ(parsed.sPrinted, "Un-supported mode: -md\n");
}

TEST(ConsoleOptions, HelpBehindOtherOptionsPrintsTheUsage) {
    const Parsed parsed = Parse({"-id", "me", "-query", "-help"});
    EXPECT_EQ(parsed.iStatus, 0);
    EXPECT_EQ(parsed.sPrinted, kUsage);
}

TEST(ConsoleOptions, HelpAsAValueIsAValue) {
    const Parsed parsed = Parse({"-id", "-help"});
    EXPECT_EQ(parsed.iStatus, std::nullopt);
    EXPECT_EQ(parsed.options.sID, "-help");
}

TEST(ConsoleOptions, LoneOptionWithoutValueIsIgnored) {
    EXPECT_EQ(Parse({"-id"}).options.sID, "cRun");
    EXPECT_EQ(Parse({"-md"}).options.iAccessMode, 1);
    EXPECT_EQ(Parse({"-md"}).iStatus, std::nullopt);
    EXPECT_FALSE(Parse({"-test"}).options.bTestMode);
}

TEST(ConsoleOptions, UnknownOptionIsSkippedWithItsValue) {
    const Parsed parsed = Parse({"-unknown", "-shutdown", "-id", "me"});
    EXPECT_EQ(parsed.iStatus, std::nullopt);
    EXPECT_FALSE(parsed.options.bShutdownMode) << "was the unknown option's value";
    EXPECT_EQ(parsed.options.sID, "me");
    EXPECT_EQ(parsed.sPrinted, "");
}

TEST(ConsoleOptions, LastOfSeveralValuesCounts) {
    EXPECT_EQ(Parse({"-id", "a", "-id", "b"}).options.sID, "b");
}

TEST(ConsoleOptions, EmptyIDIsKept) {
    EXPECT_EQ(Parse({"-id", ""}).options.sID, "");
}

TEST(ConsoleOptions, LogControlIsTheNumberTheTextStartsWith) {
    EXPECT_EQ(Parse({"-log", "7x"}).options.iLogControl, 7);
    EXPECT_EQ(Parse({"-log", "abc"}).options.iLogControl, 0);
    EXPECT_EQ(Parse({"-log", "-1"}).options.iLogControl, -1);
}

TEST(ConsoleOptions, ShutdownAndQueryRunAsClientUnlessAModeIsGiven) {
    EXPECT_EQ(Parse({"-shutdown"}).options.iAccessMode, 2);
    EXPECT_EQ(Parse({"-query"}).options.iAccessMode, 2);
    EXPECT_EQ(Parse({"-test", "/d=1"}).options.iAccessMode, 1);
    EXPECT_EQ(Parse({"-shutdown", "-md", "svr"}).options.iAccessMode, 1);
}

TEST(ConsoleOptions, EachActionBringsItsIDTheLaterOverTheEarlier) {
    EXPECT_EQ(Parse({"-shutdown"}).options.sID, "shRun");
    EXPECT_EQ(Parse({"-query"}).options.sID, "qyRun");
    EXPECT_EQ(Parse({"-test", "/d=1"}).options.sID, "tmRun");
    EXPECT_EQ(Parse({"-query", "-shutdown"}).options.sID, "qyRun");
    EXPECT_EQ(Parse({"-test", "/d=1", "-query"}).options.sID, "tmRun");
    EXPECT_EQ(Parse({"-query", "-id", "me"}).options.sID, "me");
}

TEST(ConsoleOptions, TestValueWithoutSizeIsInvalid) {
    for (const char* pcValue : {"/data", "/data=", ""}) {
        const Parsed parsed = Parse({"-test", pcValue, "-query"});
        EXPECT_EQ(parsed.iStatus, 1) << pcValue;
        EXPECT_EQ(parsed.sPrinted, std::string("In-valid test mode value: ") + pcValue + "\n");
    }
}

TEST(ConsoleOptions, TestValueDropsWhatStandsBehindASecondEqualsSign) {
    const Parsed parsed = Parse({"-test", "/data=12=34"});
    EXPECT_EQ(parsed.options.sTestPath, "/data");
    EXPECT_EQ(parsed.options.iTestSize, 12);
}

TEST(ConsoleOptions, IDIsCutAt254) {
    EXPECT_EQ(Parse({"-id", std::string(254, 'a')}).options.sID, std::string(254, 'a'));
    EXPECT_EQ(Parse({"-id", std::string(255, 'a')}).options.sID, std::string(254, 'a'));
}

// ---- SplitValue

namespace {

/// "left|right", or "-" when the text is refused.
std::string Split(const char* pcText) {
    CConsoleUtilities console;
    CUtilities utilities;
    char vcLeft[kPathBufferSize] = "";
    char vcRight[kPathBufferSize] = "";
    return console.SplitValue(&utilities, pcText, vcLeft, vcRight) ? std::string(vcLeft) + "|" + vcRight : "-";
}

}  // namespace

TEST(SplitValue, TakesTheFirstTwoPieces) {
    EXPECT_EQ(Split("a=b"), "a|b");
    EXPECT_EQ(Split("a=b=c"), "a|b");
    EXPECT_EQ(Split("=b"), "|b");
    EXPECT_EQ(Split("a==b"), "a|");
}

TEST(SplitValue, RefusesTextWithoutTwoPieces) {
    EXPECT_EQ(Split(nullptr), "-");
    EXPECT_EQ(Split(""), "-");
    EXPECT_EQ(Split("a"), "-");
    EXPECT_EQ(Split("a="), "-");
    EXPECT_EQ(Split("="), "-");
}

TEST(SplitValue, CutsPiecesThatDoNotFit) {
    const std::string sLong(5000, 'x');
    EXPECT_EQ(Split((sLong + "=" + sLong).c_str()),
              std::string(kPathBufferSize - 1, 'x') + "|" + std::string(kPathBufferSize - 1, 'x'));
}

// ---- Help

TEST(ConsoleHelp, ListsTheBasicCommands) {
    CConsoleUtilities console;
    EXPECT_EQ(Printed([&] { console.PrintCommandHelp(false); }),
              "==========================\n"
              "Command:\n"
              "  help: display help\n"
              "  quit: quit this program\n"
              "  log <num>: display log messages or not\n"
              "  status: show status\n"
              "==========================\n");
}

TEST(ConsoleHelp, ListsEverythingInDebugMode) {
    CConsoleUtilities console;
    EXPECT_EQ(Printed([&] { console.PrintCommandHelp(true); }),
              "==========================\n"
              "Command:\n"
              "  help: display help\n"
              "  quit: quit this program\n"
              "  log <num>: display log messages or not\n"
              "  status: show status\n"
              "  start<mount_port=nfs_port]: start server\n"
              "  mount <path=exportName>: add mount point\n"
              "  umount <path>: remove mount point\n"
              "  test <dirPath=fileSizeInByte>: run platform test on target path\n"
              "  logfilesize <size>: set max log file size\n"
              "  print <message>: print message to log\n"
              "  debugaction <num>: turn on/off debug action control in QMS\n"
              "  addvsphereinfo <datastore MOID> <host> <port> <user> <password>: add VSphere info\n"
              "  removevsphereinfo <datastore MOID>: remove VSphere info\n"
              "  qtest <path> <mode>: run quick test on target path / file\n"
              "  exec <cmd>: run system command\n"
              "  addnet <path> <user> <password>: add net device credential\n"
              "  removenet <path>: remove net device credential\n"
              "==========================\n");
}

// ---- Status

TEST(ConsoleStatus, EachListStandsBetweenItsCountAndAnEmptyLine) {
    const TempFolder folder;
    const PathGuard path(folder.Path());
    InstallCommand(folder / kAddCredentialCommand, "exit 0");
    ASSERT_EQ(::mkdir((folder / "a").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((folder / "b").c_str(), 0755), 0);
    CNfsMain nfsMain("op", 0);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(nfsMain.AddMountPoint((folder / "a").c_str(), "y", vcReason)) << vcReason;
    ASSERT_TRUE(nfsMain.AddMountPoint((folder / "b").c_str(), "x", vcReason)) << vcReason;
    nfsMain.AddSessionInfo("s1", "/data");
    nfsMain.AddVSphereInfo("ds-1", "esx1", "443", "root", "secret");
    ASSERT_TRUE(nfsMain.AddNetDeviceCredential("//nas/share", "user", "secret"));
    const std::string sRule = "------------------------------------\n";
    CConsoleUtilities console;
    EXPECT_EQ(Printed([&] { console.PrintStatus(&nfsMain); }),
              "Server Status: Stopped\n" + sRule +  //
                  "Number of Mount Point: 2\n" + " Mount 1 - " + (folder / "b") + " : x () []" + " Mount 2 - " +
                  (folder / "a") + " : y () []" + "\n" + sRule + "Number of Session: 1\n Session 1 - s1 : /data\n" +
                  sRule + "Number of mounted NFS datastore: 1\n NFS datastore 1 - ds-1 (esx1:443)\n" + sRule +
                  "Number of Net Device info: 1\n[info] (op)  Net device path 1 - //nas/share\n\n" + sRule);
}

// ---- Pid file

namespace {

class PidFileTest : public testing::Test {
protected:
    bool Create(const std::string& sPath) {
        m_vcReason[0] = '\0';
        m_sPrinted = Printed([&] { m_bCreated = m_Console.CreatePidFile(sPath.c_str(), 0, m_vcReason); });
        return m_bCreated;
    }
    static std::string OwnPid() { return std::to_string(::getpid()) + "\n"; }
    /// A process ID that was somebody's and is nobody's.
    static std::string DeadPid() {
        const pid_t iChild = ::fork();
        if (iChild == 0) {
            ::_exit(0);
        }
        ::waitpid(iChild, nullptr, 0);
        return std::to_string(iChild);
    }

    TempFolder m_Folder;
    CConsoleUtilities m_Console;
    bool m_bCreated = false;
    char m_vcReason[kReasonBufferSize] = "";
    std::string m_sPrinted;
};

}  // namespace

TEST_F(PidFileTest, EmptyPathMeansNoFile) {
    EXPECT_TRUE(Create(""));
    EXPECT_EQ(m_sPrinted, "");
    m_Console.RemovePidFile("", 0);
}

TEST_F(PidFileTest, NewFileHoldsTheProcessIDAndALineFeed) {
    EXPECT_TRUE(Create(m_Folder / "pid")) << m_vcReason;
    EXPECT_EQ(ReadWholeFile(m_Folder / "pid"), OwnPid());
    EXPECT_EQ(m_sPrinted, "");
}

TEST_F(PidFileTest, MissingFoldersAreMade) {
    EXPECT_TRUE(Create(m_Folder / "a/b/pid")) << m_vcReason;
    EXPECT_EQ(ReadWholeFile(m_Folder / "a/b/pid"), OwnPid());
}

TEST_F(PidFileTest, LivingProcessStopsTheStartAndKeepsItsFile) {
    const std::string sLiving = std::to_string(::getppid());
    for (const char* pcEnd : {"", "\n", "\r\n"}) {
        WriteWholeFile(m_Folder / "pid", sLiving + pcEnd);
        EXPECT_FALSE(Create(m_Folder / "pid"));
        EXPECT_EQ(m_vcReason, "Process ID \"" + sLiving + "\" is still running");
        EXPECT_EQ(ReadWholeFile(m_Folder / "pid"), sLiving + pcEnd);
    }
}

TEST_F(PidFileTest, ProcessThatMayNotBeSignalledExists) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give up its rights in a child";
    }
    ASSERT_EQ(::chmod(m_Folder.Path().c_str(), 0777), 0);
    WriteWholeFile(m_Folder / "pid", "1\n");
    const pid_t iChild = ::fork();
    if (iChild == 0) {
        const bool bDropped = setgid(65534) == 0 && setuid(65534) == 0;
        const bool bCreated = m_Console.CreatePidFile((m_Folder / "pid").c_str(), 0, m_vcReason);
        ::_exit(!bDropped ? 2 : !bCreated && std::string(m_vcReason) == "Process ID \"1\" is still running" ? 0 : 1);
    }
    int iStatus = 0;
    ASSERT_EQ(::waitpid(iChild, &iStatus, 0), iChild);
    if (WEXITSTATUS(iStatus) == 2) {
        GTEST_SKIP() << "no second user to change to in this user namespace";
    }
    EXPECT_EQ(WEXITSTATUS(iStatus), 0);
}

TEST_F(PidFileTest, FileThatNamesNoLivingProcessIsReplaced) {
    const std::vector<std::string> vsTexts{DeadPid(),
                                           DeadPid() + "\n",
                                           "",
                                           "\n",
                                           "\r\n",
                                           "garbage",
                                           "0\n",
                                           "-1\n",
                                           "99999999999999999999\n",
                                           std::string(300, '9')};
    for (const std::string& sText : vsTexts) {
        WriteWholeFile(m_Folder / "pid", sText);
        EXPECT_TRUE(Create(m_Folder / "pid")) << sText << ": " << m_vcReason;
        EXPECT_EQ(ReadWholeFile(m_Folder / "pid"), OwnPid()) << sText;
    }
}

TEST_F(PidFileTest, OwnProcessIDIsThatOfALivingProcessToo) {
    ASSERT_TRUE(Create(m_Folder / "pid")) << m_vcReason;
    EXPECT_FALSE(Create(m_Folder / "pid")) << "the one that has the file lives";
    EXPECT_EQ(m_vcReason, "Process ID \"" + std::to_string(::getpid()) + "\" is still running");
    EXPECT_EQ(ReadWholeFile(m_Folder / "pid"), OwnPid());
}

TEST_F(PidFileTest, FileAccessIsLoggedStepByStep) {
    const std::string sPath = m_Folder / "pid";
    const std::string sTag = "[info] () [CConsoleUtilities.CreatePidFile] ";
    WriteWholeFile(sPath, DeadPid());
    const std::string sPrinted = Printed(
        [&] { m_bCreated = m_Console.CreatePidFile(sPath.c_str(), CRuntimeParam::kLogFileAccess, m_vcReason); });
    ASSERT_TRUE(m_bCreated) << m_vcReason;
    std::vector<std::string> vsSteps;
    std::istringstream lines(sPrinted);
    for (std::string sLine; std::getline(lines, sLine);) {
        ASSERT_TRUE(sLine.starts_with(sTag)) << sLine;
        const std::string sText = sLine.substr(sTag.size());
        if (sText.starts_with("OS ")) {
            vsSteps.push_back(sText.substr(0, sText.find_first_of("\"(")));
        }
    }
    EXPECT_EQ(vsSteps,
              (std::vector<std::string>{"OS open file ", "OS read file ", "OS close file ", "OS remove file ",
                                        "OS splited path ", "OS create file ", "OS write file ", "OS close file "}))
        << sPrinted;
    const std::string sRemoved =
        Printed([&] { m_Console.RemovePidFile(sPath.c_str(), CRuntimeParam::kLogFileAccess); });
    EXPECT_EQ(sRemoved, "[info] () [CConsoleUtilities.RemovePidFile] OS remove file \"" + sPath + "\"\n");
}

TEST_F(PidFileTest, WhatIsNoRegularFileIsLeftAlone) {
    ASSERT_EQ(::mkfifo((m_Folder / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(Create(m_Folder / "fifo"));
    EXPECT_STREQ(m_vcReason, "Not a regular file");
    EXPECT_FALSE(Create(m_Folder.Path()));
    EXPECT_STREQ(m_vcReason, "Not a regular file");
    EXPECT_EQ(::access((m_Folder / "fifo").c_str(), F_OK), 0);
}

TEST_F(PidFileTest, FileThatCannotBeMadeIsReported) {
    WriteWholeFile(m_Folder / "file", "x");
    EXPECT_FALSE(Create(m_Folder / "file/pid"));
    EXPECT_STREQ(m_vcReason, "Not a directory (20)");
    // Errors are logged whatever the log control.
    EXPECT_EQ(m_sPrinted, "[erro] () [CConsoleUtilities.CreatePidFile] OS create file \"" + (m_Folder / "file/pid") +
                              "\". Error=Not a directory (20)\n" + "[erro] () Fail to create pid file \"" +
                              (m_Folder / "file/pid") + "\". Reason=Not a directory (20)\n");
}

TEST_F(PidFileTest, FileThatMayNotBeReadOrRemovedIsReported) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give up its rights in a child";
    }
    ASSERT_EQ(::chmod(m_Folder.Path().c_str(), 0755), 0);
    WriteWholeFile(m_Folder / "unreadable", "");
    ASSERT_EQ(::chmod((m_Folder / "unreadable").c_str(), 0600), 0);
    WriteWholeFile(m_Folder / "unremovable", "");
    ASSERT_EQ(::chmod((m_Folder / "unremovable").c_str(), 0644), 0);
    for (const char* pcName : {"unreadable", "unremovable"}) {
        const pid_t iChild = ::fork();
        if (iChild == 0) {
            const bool bDropped = setgid(65534) == 0 && setuid(65534) == 0;
            const bool bCreated = m_Console.CreatePidFile((m_Folder / pcName).c_str(), 0, m_vcReason);
            ::_exit(!bDropped ? 2 : !bCreated && std::string(m_vcReason) == "Permission denied (13)" ? 0 : 1);
        }
        int iStatus = 0;
        ASSERT_EQ(::waitpid(iChild, &iStatus, 0), iChild);
        if (WEXITSTATUS(iStatus) == 2) {
            GTEST_SKIP() << "no second user to change to in this user namespace";
        }
        EXPECT_EQ(WEXITSTATUS(iStatus), 0) << pcName << ": another result or reason";
        EXPECT_EQ(::access((m_Folder / pcName).c_str(), F_OK), 0) << pcName;
    }
}

TEST_F(PidFileTest, RemovalRemovesTheFileAndIsSilentWithoutOne) {
    ASSERT_TRUE(Create(m_Folder / "pid"));
    EXPECT_EQ(Printed([&] {
                  m_Console.RemovePidFile((m_Folder / "pid").c_str(), 0);
                  m_Console.RemovePidFile((m_Folder / "pid").c_str(), 0);
              }),
              "");
    EXPECT_NE(::access((m_Folder / "pid").c_str(), F_OK), 0);
}

TEST_F(PidFileTest, OfManyThatStartTogetherOneGetsTheFile) {
    constexpr int kConsoles = 16;
    for (const char* pcBefore : {static_cast<const char*>(nullptr), "", "99999999\n"}) {
        ::unlink((m_Folder / "pid").c_str());
        if (pcBefore != nullptr) {
            WriteWholeFile(m_Folder / "pid", pcBefore);
        }
        int viGo[2];
        int viStay[2];
        ASSERT_EQ(::pipe2(viGo, O_CLOEXEC), 0);
        ASSERT_EQ(::pipe2(viStay, O_CLOEXEC), 0);
        std::vector<pid_t> viChildren;
        for (int i = 0; i < kConsoles; ++i) {
            const pid_t iChild = ::fork();
            if (iChild == 0) {
                char c = 0;
                ::close(viGo[1]);
                ::close(viStay[1]);
                [[maybe_unused]] ssize_t iIgnored = ::read(viGo[0], &c, 1);
                const bool bCreated = m_Console.CreatePidFile((m_Folder / "pid").c_str(), 0, m_vcReason);
                if (bCreated) {
                    iIgnored = ::read(viStay[0], &c, 1);  // lives until all have tried
                }
                ::_exit(bCreated ? 0 : 1);
            }
            viChildren.push_back(iChild);
        }
        ::close(viGo[0]);
        ::close(viStay[0]);
        ::close(viGo[1]);  // all at once
        int nEnded = 0;
        int nCreated = 0;
        for (int iStatus = 0; nEnded < kConsoles - 1 && wait(&iStatus) > 0; ++nEnded) {
            nCreated += WEXITSTATUS(iStatus) == 0 ? 1 : 0;
        }
        ::close(viStay[1]);
        int iStatus = 0;
        const pid_t iWinner = wait(&iStatus);
        EXPECT_EQ(nCreated, 0) << "more than one had the file";
        EXPECT_EQ(WEXITSTATUS(iStatus), 0);
        EXPECT_EQ(ReadWholeFile(m_Folder / "pid"), std::to_string(iWinner) + "\n");
    }
}
