// The clean-up of datastores at stop, with a tool beside the console that records how it is called.
#include <csignal>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "ConsoleSupport.h"
#include "Trees.h"

namespace {

constexpr const char* kToolName = "VcDatastoreCtlLinX64";

class DatastoreTool : public ConsoleTest {
protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        if (!IsSkipped()) {
            Install("plain");
        }
    }
    /// A copy of the console in a folder of its own, with a tool beside it that records its arguments.
    void Install(const std::string& sFolderName) {
        m_sBin = m_Folder / (sFolderName + "/bin");
        std::filesystem::create_directories(m_sBin);
        std::filesystem::copy_file(ConsoleProcess::ProgramPath(), m_sBin + "/nfsconsole");
        std::filesystem::create_directory_symlink(BuildTree() + "/lib", m_Folder / (sFolderName + "/lib"));
        InstallTool("exit 0");
    }
    void InstallTool(const std::string& sEnd) {
        const std::string sTool = m_sBin + "/" + kToolName;
        WriteWholeFile(sTool, "#!/bin/sh\n{ printf '<%s>' \"$@\"; echo; } >> '" + Record() + "'\n" + sEnd + "\n");
        ASSERT_EQ(::chmod(sTool.c_str(), 0755), 0);
    }
    std::string Record() const { return m_Folder / "record"; }
    std::string Recorded() const { return Exists(Record()) ? ReadWholeFile(Record()) : ""; }
    /// What a console prints that is told about datastores and ends.
    std::string Run(const std::vector<std::string>& vsRecords, const std::vector<std::string>& vsOptions = {}) {
        std::vector<std::string> vsArguments{m_sBin + "/nfsconsole", "-md", "int"};
        vsArguments.insert(vsArguments.end(), vsOptions.begin(), vsOptions.end());
        ChildProcess console(vsArguments);
        console.Send("debug\n");
        for (const std::string& sRecord : vsRecords) {
            console.Send("addvsphereinfo " + sRecord + "\n");
        }
        console.Send("quit\n");
        EXPECT_EQ(console.Wait(), 0);
        return console.Output();
    }

    std::string m_sBin;
};

/// What the tool gets for a record.
std::string Call(const std::string& sMoid, const std::string& sHost, const std::string& sPort, const std::string& sUser,
                 const std::string& sPwd) {
    return "<-host><" + sHost + "><-port><" + sPort + "><-user><" + sUser + "><-pwd><" + sPwd +
           "><-method><removeDatastore><-argu><" + sMoid + ">\n";
}

}  // namespace

TEST_F(DatastoreTool, IsCalledForEachRecordInTheOrderOfTheMoids) {
    const std::string sPrinted = Run({"ds-2 esx2 443 root@vsphere.local pass-2", "ds-1 esx1 8443 admin pass_1"});
    EXPECT_EQ(Recorded(), Call("ds-1", "esx1", "8443", "admin", "pass_1") +
                              Call("ds-2", "esx2", "443", "root@vsphere.local", "pass-2"));
    EXPECT_TRUE(
        sPrinted.ends_with("\nExit\n"
                           "[info] (cRun) Start cleanup mounted NFS datastores\n"
                           "[info] (cRun) Unmount NFS datastore with MOID \"ds-1\" on host \"esx1:8443\"\n"
                           "[info] (cRun) Unmount NFS datastore with MOID \"ds-2\" on host \"esx2:443\"\n"))
        << sPrinted;
}

TEST_F(DatastoreTool, EmptyValueRunsNothing) {
    // Two blanks, or one in front: nothing stands between them.
    for (const char* pcRecord : {" esx1 443 root secret", "ds-1  443 root secret", "ds-1 esx1  root secret",
                                 "ds-1 esx1 443  secret", "ds-1 esx1 443 root  more"}) {
        const std::string sPrinted = Run({pcRecord});
        EXPECT_EQ(Recorded(), "") << pcRecord;
        EXPECT_NE(sPrinted.find("[info] (cRun) Unmount NFS datastore with MOID \""), std::string::npos) << sPrinted;
    }
}

TEST_F(DatastoreTool, NothingIsRunWithoutRecords) {
    EXPECT_TRUE(Run({}).ends_with("\nExit\n"));
    EXPECT_EQ(Recorded(), "");
}

TEST_F(DatastoreTool, ValuesAreNeverRunAsCommands) {
    const std::string sBait = m_Folder / "bait";
    const std::vector<std::string> vsHostile{"$(touch${IFS}" + sBait + ")",
                                             "`touch${IFS}" + sBait + "`",
                                             "x;touch${IFS}" + sBait,
                                             "x|touch${IFS}" + sBait,
                                             "'\"$HOME\"'",
                                             "a&b",
                                             "p*?[x]",
                                             "back\\slash",
                                             "#hash",
                                             "~"};
    for (const std::string& sValue : vsHostile) {
        ::unlink(Record().c_str());
        Run({"ds-1 esx1 443 root " + sValue});
        EXPECT_EQ(Recorded(), Call("ds-1", "esx1", "443", "root", sValue));
        EXPECT_FALSE(Exists(sBait)) << sValue;
    }
}

TEST_F(DatastoreTool, FailureOfTheToolIsIgnored) {
    InstallTool("exit 9");
    Run({"ds-1 esx1 443 root secret", "ds-2 esx2 443 root secret"});
    EXPECT_EQ(Recorded(),
              Call("ds-1", "esx1", "443", "root", "secret") + Call("ds-2", "esx2", "443", "root", "secret"));
}

TEST_F(DatastoreTool, MissingToolKeepsNobodyFromEnding) {
    ASSERT_EQ(::unlink((m_sBin + "/" + kToolName).c_str()), 0);
    Run({"ds-1 esx1 443 root secret"});
    EXPECT_EQ(Recorded(), "");
}

TEST_F(DatastoreTool, FolderMayHaveAnyName) {
    Install("odd $HOME `x` \"name\" \\");
    Run({"ds-1 esx1 443 root secret"});
    EXPECT_EQ(Recorded(), Call("ds-1", "esx1", "443", "root", "secret"));
}

TEST_F(DatastoreTool, RunsWhenASignalEndsTheProgram) {
    ChildProcess console({m_sBin + "/nfsconsole", "-md", "int"});
    console.Send("debug\naddvsphereinfo ds-1 esx1 443 root secret\nprint ready\n");
    ASSERT_TRUE(console.WaitFor("ready"));
    console.Signal(SIGTERM);
    EXPECT_EQ(console.Wait(), 0);
    EXPECT_EQ(Recorded(), Call("ds-1", "esx1", "443", "root", "secret"));
}

TEST_F(DatastoreTool, CleanUpLinesGoToTheLogFile) {
    const std::string sLog = m_Folder / "nfs.log";
    Run({"ds-1 esx1 443 root secret"}, {"-logfile", sLog});
    const std::string sText = ReadWholeFile(sLog);
    EXPECT_NE(sText.find("[info] Start cleanup mounted NFS datastores\n"), std::string::npos) << sText;
    EXPECT_EQ(sText.find("secret"), std::string::npos) << "no password in the log";
}
