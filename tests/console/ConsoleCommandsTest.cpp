// Every command of the loop: what it prints, and which ones print a new prompt.
#include <optional>

#include <sys/stat.h>
#include <unistd.h>

#include "ConsoleSupport.h"
#include "NfsClient.h"
#include "PathGuard.h"

namespace {

constexpr const char* kHint = "Type 'help' to see help\n";

/// An internal-mode console at its first prompt.
class ConsoleCommands : public ConsoleTest {
protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        m_pConsole = std::make_unique<ConsoleProcess>(Options());
        ASSERT_TRUE(m_pConsole->WaitForPrompt()) << m_pConsole->Output();
    }
    void TearDown() override {
        if (m_pConsole) {
            EXPECT_EQ(m_pConsole->Quit(), 0) << m_pConsole->Output();
            m_pConsole.reset();
        }
    }
    virtual std::vector<std::string> Options() { return {"-md", "int"}; }
    std::string Command(const std::string& sLine) { return m_pConsole->Command(sLine); }
    /// What an unknown line is answered.
    static std::string Unknown(const std::string& sLine) { return "Unknown command: '" + sLine + "'\n" + kHint; }

    std::unique_ptr<ConsoleProcess> m_pConsole;
};

/// The same in debug mode.
class DebugCommands : public ConsoleCommands {
protected:
    void SetUp() override {
        ConsoleCommands::SetUp();
        if (m_pConsole) {
            EXPECT_EQ(Command("debug"), "");
        }
    }
    std::string MakeFolder(const std::string& sName) {
        std::string sPath = m_Folder / sName;
        EXPECT_EQ(::mkdir(sPath.c_str(), 0755), 0);
        return sPath;
    }
};

constexpr const char* kBasicHelp =
    "==========================\n"
    "Command:\n"
    "  help: display help\n"
    "  quit: quit this program\n"
    "  log <num>: display log messages or not\n"
    "  status: show status\n";

}  // namespace

// ---- Basic commands

TEST_F(ConsoleCommands, HelpListsTheBasicCommands) {
    EXPECT_EQ(Command("help"), std::string(kBasicHelp) + "==========================\n");
}

TEST_F(ConsoleCommands, StatusPrintsAnEmptyLineAndTheReport) {
    EXPECT_EQ(Command("status"), "\n" + EmptyStatus("Stopped"));
}

TEST_F(ConsoleCommands, EmptyLinePrintsThePromptAgain) {
    EXPECT_EQ(Command(""), "");
}

TEST_F(ConsoleCommands, UnknownLineIsQuotedAsTyped) {
    for (const char* pcLine : {"nonsense", " help", "help ", "HELP", "quit now", "statusx", "log", "log ", "logx 1",
                               "debug 1", "%s%n%d", "a 'quoted' line"}) {
        EXPECT_EQ(Command(pcLine), Unknown(pcLine));
    }
}

TEST_F(ConsoleCommands, CarriageReturnBelongsToTheLine) {
    EXPECT_EQ(Command("help\r"), Unknown("help\r"));
}

TEST_F(ConsoleCommands, ExtendedCommandsAreUnknownBeforeDebug) {
    for (const char* pcLine : {"start", "start 1058=2049", "mount /tmp=x", "umount /tmp", "test /tmp=1",
                               "logfilesize 1", "print x", "debugaction 1", "addvsphereinfo a b c d e",
                               "removevsphereinfo a", "qtest /tmp 0", "exec true", "addnet a b c", "removenet a"}) {
        EXPECT_EQ(Command(pcLine), Unknown(pcLine));
    }
}

TEST_F(ConsoleCommands, DebugSwitchesTheExtendedCommandsOnForGood) {
    EXPECT_EQ(Command("debug"), "");
    EXPECT_EQ(Command("debug"), "") << "a second time changes nothing";
    EXPECT_EQ(Command("print x"), "[info] (cRun) x\n");
}

TEST_F(ConsoleCommands, LogSetsTheLogControl) {
    EXPECT_EQ(Command("debug"), "");
    const std::string sQuickTest = "qtest /missing 0";
    EXPECT_EQ(Command(sQuickTest), "Quick test FAIL. ErrCode=2\n");
    EXPECT_EQ(Command("log 2"), "");
    EXPECT_NE(Command(sQuickTest).find("[info] (cRun) Quick exist test failed. Error=\"/missing\"\n"),
              std::string::npos);
    EXPECT_EQ(Command("log 0"), "");
    EXPECT_EQ(Command(sQuickTest), "Quick test FAIL. ErrCode=2\n");
}

TEST_F(ConsoleCommands, QuitEndsTheLoopAndWhatFollowsIsNotRead) {
    m_pConsole->Send("quit\nhelp\n");
    EXPECT_EQ(m_pConsole->Wait(), 0);
    EXPECT_EQ(m_pConsole->Output(), InternalBanner() + kIntro + "\nExit\n");
    m_pConsole.reset();
}

// ---- Server and exports

TEST_F(DebugCommands, HelpListsEverything) {
    EXPECT_EQ(Command("help"), std::string(kBasicHelp) +
                                   "  start<mount_port=nfs_port]: start server\n"
                                   "  mount <path=exportName>: add mount point\n"
                                   "  umount <path>: remove mount point\n"
                                   "  test <dirPath=fileSizeInByte>: run platform test on target path\n"
                                   "  logfilesize <size>: set max log file size\n"
                                   "  print <message>: print message to log\n"
                                   "  debugaction <num>: turn on/off debug action control in QMS\n"
                                   "  addvsphereinfo <datastore MOID> <host> <port> <user> <password>: "
                                   "add VSphere info\n"
                                   "  removevsphereinfo <datastore MOID>: remove VSphere info\n"
                                   "  qtest <path> <mode>: run quick test on target path / file\n"
                                   "  exec <cmd>: run system command\n"
                                   "  addnet <path> <user> <password>: add net device credential\n"
                                   "  removenet <path>: remove net device credential\n"
                                   "==========================\n");
}

TEST_F(DebugCommands, ArgumentCommandsWithoutArgumentAreUnknown) {
    for (const char* pcKeyword :
         {"start ", "mount ", "umount ", "test ", "logfilesize ", "print ", "debugaction ", "addvsphereinfo ",
          "removevsphereinfo ", "qtest ", "exec ", "addnet ", "removenet "}) {
        EXPECT_EQ(Command(pcKeyword), Unknown(pcKeyword));
    }
    EXPECT_EQ(Command("umount"), Unknown("umount"));
    EXPECT_EQ(Command("startx"), Unknown("startx"));
}

TEST_F(DebugCommands, StartServesOnTheDefaultPorts) {
    EXPECT_EQ(Command("start"), "Start NFS success");
    EXPECT_EQ(Command("start"), "NFS already running");
    EXPECT_EQ(Command("start 3058=3049"), "NFS already running");
    EXPECT_EQ(Command("status"), "\n" + EmptyStatus("Started"));
    NfsClient client;
    EXPECT_FALSE(client.Mnt("nothing"));
}

TEST_F(DebugCommands, StartTakesMountPortAndNfsPort) {
    EXPECT_EQ(Command("start 3058=3049"), "Start NFS success");
    const std::string sPath = MakeFolder("data");
    EXPECT_EQ(Command("mount " + sPath + "=data"), "");
    NfsClient client(Transport::kTcp, "127.0.0.1", 3049, 3058);
    EXPECT_TRUE(client.Mnt("data"));
}

TEST_F(DebugCommands, PortsThatAreNoNumbersAreTheDefaults) {
    EXPECT_EQ(Command("start mount=nfs"), "Start NFS success");
    const std::string sPath = MakeFolder("data");
    EXPECT_EQ(Command("mount " + sPath + "=data"), "");
    NfsClient client;
    EXPECT_TRUE(client.Mnt("data"));
}

TEST_F(DebugCommands, StartWithABadArgumentPrintsNoPrompt) {
    m_pConsole->Send("start 2049\n");
    EXPECT_TRUE(m_pConsole->WaitFor("Fail to start NFS. Reason=In-valid input value: 2049\n"));
    m_pConsole->Send("nonsense\n");
    EXPECT_TRUE(m_pConsole->WaitForPrompt());
    EXPECT_TRUE(m_pConsole->Output().ends_with("Fail to start NFS. Reason=In-valid input value: 2049\n" +
                                               Unknown("nonsense") + "\nCommand: "))
        << m_pConsole->Output();
}

TEST_F(DebugCommands, StartOnAPortInUseTellsWhichAndStaysStopped) {
    const CDescriptor taken = TakeUdpPort(2049);
    EXPECT_EQ(Command("start"), "Fail to start NFS. NFS daemon failed to open port 2049\n");
    EXPECT_EQ(Command("status"), "\n" + EmptyStatus("Stopped"));
    EXPECT_EQ(Command("start 1058=3049"), "Start NFS success") << "nothing was left open";
}

TEST_F(DebugCommands, MountAddsAnExportThatStatusLists) {
    const std::string sPath = MakeFolder("data");
    EXPECT_EQ(Command("mount " + sPath + "=data"), "");
    EXPECT_EQ(Command("status"), "\nServer Status: Stopped\n" + std::string(kRule) + "Number of Mount Point: 1\n" +
                                     " Mount 1 - " + sPath + " : data () []\n" + kRule + "Number of Session: 0\n" +
                                     kRule + "Number of mounted NFS datastore: 0\n" + kRule +
                                     "Number of Net Device info: 0\n" + kRule);
    EXPECT_EQ(Command("umount " + sPath), "");
    EXPECT_EQ(Command("status"), "\n" + EmptyStatus("Stopped"));
}

TEST_F(DebugCommands, MountTellsWhyItRefuses) {
    const std::string sPath = MakeFolder("data");
    EXPECT_EQ(Command("mount " + sPath + "=data"), "");
    EXPECT_EQ(Command("mount /tmp=data"),
              "Fail to add mount point to NFS. Reason=Export name \"data\" already defined\n");
    EXPECT_EQ(Command("mount " + sPath + "/=other"),
              "Fail to add mount point to NFS. Reason=Local mount path \"" + sPath + "\" already defined\n");
    EXPECT_EQ(Command("mount /tmp=a b"),
              "Fail to add mount point to NFS. Reason=Invalid char \" \" inside export name\n");
    EXPECT_EQ(Command("mount /tmp=a/b"),
              "Fail to add mount point to NFS. Reason=Invalid char \"/\" inside export name\n");
    for (const char* pcArgument : {"/tmp", "/tmp=", "="}) {
        EXPECT_EQ(Command(std::string("mount ") + pcArgument),
                  std::string("Fail to add mount point to NFS. Reason=In-valid input value: ") + pcArgument + "\n");
    }
}

TEST_F(DebugCommands, UmountOfWhatIsNotExportedIsSilent) {
    EXPECT_EQ(Command("umount /nowhere"), "");
}

TEST_F(DebugCommands, ClientWorksOnAnExportUntilQuit) {
    const std::string sPath = MakeFolder("data");
    EXPECT_EQ(Command("mount " + sPath + "=data"), "");
    EXPECT_EQ(Command("start"), "Start NFS success");
    NfsClient client;
    const std::optional<std::string> sRoot = client.Mnt("data");
    ASSERT_TRUE(sRoot);
    std::string sHandle;
    EXPECT_EQ(client.Create(*sRoot, "file", sHandle), 0U);
    std::uint32_t nWritten = 0;
    EXPECT_EQ(client.Write(sHandle, 0, "content", nWritten), 0U);
    EXPECT_EQ(ReadWholeFile(sPath + "/file"), "content");
    EXPECT_NE(Command("status").find(" Mount 1 - " + sPath + " : data (127.0.0.1) []\n"), std::string::npos);
    EXPECT_EQ(m_pConsole->Quit(), 0);
    EXPECT_TRUE(client.Nfs().IsClosedByPeer());
    m_pConsole.reset();
}

// ---- Tests and logging

TEST_F(DebugCommands, TestRunsThePlatformTest) {
    const std::string sPath = MakeFolder("target");
    const std::string sPrinted = Command("test " + sPath + "=100");
    EXPECT_TRUE(sPrinted.starts_with(
        "[info] (cRun) =============================== START TEST ===============================\n"
        "[info] (cRun)  >> Directory : \"" +
        sPath + "/_test\"\n"))
        << sPrinted;
    EXPECT_TRUE(sPrinted.ends_with(
        "[info] (cRun) ================================ END TEST ================================\n"))
        << sPrinted;
    EXPECT_EQ(Command("test " + sPath + "=0"), "[info] (cRun) Cannot start platrorm test. Error=File size is ZERO\n");
    EXPECT_EQ(Command("test =10"), "[info] (cRun) Cannot start platrorm test. Error=Target directory is NULL\n");
}

TEST_F(DebugCommands, TestWithABadArgumentPrintsNoPrompt) {
    m_pConsole->Send("test /tmp\nnonsense\n");
    EXPECT_TRUE(m_pConsole->WaitForPrompt());
    EXPECT_TRUE(m_pConsole->Output().ends_with("\nCommand: Fail to run test. Reason=In-valid input value: /tmp\n" +
                                               Unknown("nonsense") + "\nCommand: "))
        << m_pConsole->Output();
}

TEST_F(DebugCommands, LogFileSizeWithoutALogFileSaysSo) {
    EXPECT_EQ(Command("logfilesize 100"), "[info] (cRun) No file logger is defined\n");
}

TEST_F(DebugCommands, PrintNeedsNoLogBitAndInterpretsNothing) {
    EXPECT_EQ(Command("print hello world"), "[info] (cRun) hello world\n");
    EXPECT_EQ(Command("print %s%n%d 100%"), "[info] (cRun) %s%n%d 100%\n");
    EXPECT_EQ(Command("print  two blanks"), "[info] (cRun)  two blanks\n");
}

TEST_F(DebugCommands, DebugActionShowsInTheServerStatus) {
    EXPECT_EQ(Command("debugaction 1"), "Current Server Status=5\n");
    EXPECT_EQ(Command("debugaction 0"), "Current Server Status=1\n");
    EXPECT_EQ(Command("debugaction x"), "Current Server Status=1\n");
    EXPECT_EQ(Command("start"), "Start NFS success");
    EXPECT_EQ(Command("debugaction 7"), "Current Server Status=7\n");
}

TEST_F(DebugCommands, QuickTestTellsItsResult) {
    EXPECT_EQ(Command("qtest /tmp 0"), "Quick test OK\n");
    EXPECT_EQ(Command("qtest /tmp x"), "Quick test OK\n") << "what is no number is mode 0";
    EXPECT_EQ(Command("qtest /missing 0"), "Quick test FAIL. ErrCode=2\n");
    EXPECT_EQ(Command("qtest /tmp 3"), "Quick test FAIL. Unknown mode (3)\n");
    EXPECT_EQ(Command("qtest  0"), "Quick test FAIL. Invalid argument\n") << "two blanks: an empty path";
    EXPECT_EQ(Command("qtest /tmp 0 more"), "Quick test OK\n");
    EXPECT_EQ(Command("qtest /tmp"), "Fail to run quick test. Reason=In-valid input value: /tmp\n");
}

TEST_F(DebugCommands, ExecShowsOutputAndRawStatus) {
    EXPECT_EQ(Command("exec echo one; echo two; exit 1"),
              "[info] (cRun) echo one; echo two; exit 1\n"
              "\n------\n"
              "one\ntwo\n"
              "\n------\n"
              "Process returned 256\n"
              "Return code: 256\n");
}

TEST_F(DebugCommands, ExecPassesFormatCharactersThrough) {
    EXPECT_EQ(Command("exec echo '%s%n'"),
              "[info] (cRun) echo '%s%n'\n\n------\n%s%n\n\n------\nProcess returned 0\nReturn code: 0\n");
}

TEST_F(DebugCommands, CommandsRunWithAWorkingSigpipe) {
    // 141 is a shell's status for a process that SIGPIPE ended: "yes" must end so and not complain.
    const std::string sPrinted = Command("exec (yes; echo $? >&2) 2>&1 | head -n 1; true");
    EXPECT_EQ(sPrinted.find("Broken pipe"), std::string::npos) << sPrinted;
}

// ---- Datastores and network devices

TEST_F(DebugCommands, DatastoresAreListedInTheStatus) {
    EXPECT_EQ(Command("addvsphereinfo ds-1 esx1 443 root secret"), "");
    EXPECT_NE(Command("status").find("Number of mounted NFS datastore: 1\n NFS datastore 1 - ds-1 (esx1:443)\n" +
                                     std::string(kRule)),
              std::string::npos);
    EXPECT_EQ(Command("addvsphereinfo ds-1 esx1 443 root"),
              "Fail to add VSphere info to NFS. Reason=In-valid input value: ds-1 esx1 443 root\n");
    EXPECT_EQ(Command("removevsphereinfo ds-1"), "");
    EXPECT_EQ(Command("status"), "\n" + EmptyStatus("Stopped"));
}

TEST_F(DebugCommands, NetworkDeviceCredentialsFailAsShipped) {
    const std::string sAdded = Command("addnet //nas/share user secret");
    EXPECT_TRUE(sAdded.ends_with("Failed")) << sAdded;  // behind the shell's own complaint on standard error
    const std::string sRemoved = Command("removenet //nas/share");
    EXPECT_TRUE(sRemoved.ends_with("Failed")) << sRemoved;
    EXPECT_EQ(Command("addnet //nas/share user"),
              "Fail to add net device credential to NFS. Reason=In-valid input value: //nas/share user\n");
    EXPECT_EQ(Command("status"), "\n" + EmptyStatus("Stopped"));
}

namespace {

/// With the commands behind the credentials installed; the one for removing refuses a second time.
class NetDeviceCommands : public DebugCommands {
protected:
    void SetUp() override {
        InstallCommand(m_Folder / kAddCredentialCommand, "exit 0");
        InstallCommand(m_Folder / kRemoveCredentialCommand, "mkdir '" + (m_Folder / "removed") + "' 2>/dev/null");
        m_Path.emplace(m_Folder.Path());
        DebugCommands::SetUp();
    }

private:
    std::optional<PathGuard> m_Path;
};

}  // namespace

TEST_F(NetDeviceCommands, TellThatTheyAreDoneWithoutALineEnd) {
    EXPECT_EQ(Command("addnet //nas/share user secret and more"), "Done");
    EXPECT_TRUE(
        Command("status").ends_with("Number of Net Device info: 1\n"
                                    "[info] (cRun)  Net device path 1 - //nas/share\n\n" +
                                    std::string(kRule)));
    EXPECT_EQ(Command("removenet //nas/share"), "Done");
    EXPECT_EQ(Command("status"), "\n" + EmptyStatus("Stopped"));
    EXPECT_EQ(Command("removenet //nas/share"), "Failed");
}

// ---- With a log file

namespace {

class LogFileCommands : public DebugCommands {
protected:
    std::vector<std::string> Options() override { return {"-md", "int", "-logfile", m_Folder / "nfs.log"}; }
};

}  // namespace

TEST_F(LogFileCommands, LogFileSizeShowsOldAndNewLimit) {
    EXPECT_EQ(Command("logfilesize 4096"), "Current max log file size: 33554432\nUpdated max log file size: 4096\n");
    EXPECT_EQ(Command("logfilesize -5"), "Current max log file size: 4096\nUpdated max log file size: 4096\n");
    EXPECT_EQ(Command("logfilesize abc"), "Current max log file size: 4096\nUpdated max log file size: 4096\n");
}

TEST_F(LogFileCommands, ListedRecordsGoToTheLogFileAndTheEmptyLineToTheConsole) {
    const std::string sPath = MakeFolder("data");
    EXPECT_EQ(Command("mount " + sPath + "=data"), "");
    EXPECT_TRUE(Command("status").starts_with("\nServer Status: Stopped\n" + std::string(kRule) +
                                              "Number of Mount Point: 1\n\n" + kRule));
    EXPECT_NE(ReadWholeFile(m_Folder / "nfs.log").find("]  Mount 1 - " + sPath + " : data () []\n"), std::string::npos);
}

TEST_F(LogFileCommands, LogFileRotatesAtItsLimit) {
    Command("logfilesize 100");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Command("print " + std::string(120, 'x')), "");
    }
    EXPECT_TRUE(Exists(m_Folder / "nfs.log.1"));
    EXPECT_TRUE(Exists(m_Folder / "nfs.log.2"));
}
