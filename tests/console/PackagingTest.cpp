// The service unit and the list of exports, with real processes.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>

#include <sys/stat.h>

#include "AccessRules.h"
#include "ConsoleSupport.h"
#include "NfsClient.h"
#include "Trees.h"

namespace {

class Packaging : public ConsoleTest {
protected:
    static std::string Script() { return SourceTree() + "/packaging/nfs-exports"; }
    RunResult Apply(const std::string& sList, const std::vector<std::string>& vsMore = {}) {
        WriteWholeFile(m_Folder / "exports", sList);
        std::vector<std::string> vsArguments{Script(), m_Folder / "exports"};
        vsArguments.insert(vsArguments.end(), vsMore.begin(), vsMore.end());
        ChildOptions options;
        options.vEnvironment.emplace_back("NFSCONSOLE", ConsoleProcess::ProgramPath());
        return RunProgram(vsArguments, options);
    }
    std::string MakeFolder(const std::string& sName) {
        std::string sPath = m_Folder / sName;
        EXPECT_EQ(::mkdir(sPath.c_str(), 0755), 0);
        return sPath;
    }
    /// The exports that the status lists: "path : name" of each.
    static std::vector<std::string> Listed() {
        const std::string sOutput = RunConsole({"-query"}).sOutput;
        const std::string sEnd = " () [exports]";
        std::vector<std::string> vsExports;
        for (std::size_t iAt = 0;;) {
            const std::string sBegin = " Mount " + std::to_string(vsExports.size() + 1) + " - ";
            const std::size_t iBegin = sOutput.find(sBegin, iAt);
            iAt = sOutput.find(sEnd, iBegin);
            if (iAt == std::string::npos) {
                break;
            }
            vsExports.push_back(sOutput.substr(iBegin + sBegin.size(), iAt - iBegin - sBegin.size()));
        }
        return vsExports;
    }
    /// Puts another path in the place of each one that ends so, from its first slash or variable on.
    static void ReplacePaths(std::string& sText, const std::string& sEnd, const std::string& sPath) {
        for (std::size_t iEnd = sText.find(sEnd); iEnd != std::string::npos; iEnd = sText.find(sEnd, iEnd)) {
            const std::size_t iWord = sText.find_last_of(" \"", iEnd) + 1;  // 0 without one
            const std::size_t iBegin = sText.find_first_of("/@", iWord);
            sText.replace(iBegin, iEnd + sEnd.size() - iBegin, sPath);
            iEnd = iBegin + sPath.size();
        }
    }
    /// The value of a line of the installed unit, with its paths moved into this test's folder.
    std::string UnitLine(const std::string& sKey) {
        std::istringstream unit(ReadWholeFile(SourceTree() + "/packaging/nfsconsole.service.in"));
        for (std::string sLine; std::getline(unit, sLine);) {
            if (sLine.starts_with(sKey + "=")) {
                std::string sValue = sLine.substr(sKey.size() + 1);
                ReplacePaths(sValue, "_BIN_DIR@/nfsconsole", ConsoleProcess::ProgramPath());
                ReplacePaths(sValue, "_LIBEXEC_DIR@/nfs-exports", Script());
                for (const char* pcFolder : {"/var/log/nfslib", "/run/nfslib", "/etc/nfslib"}) {
                    ReplacePaths(sValue, pcFolder, m_Folder.Path());
                }
                return sValue;
            }
        }
        ADD_FAILURE() << "the unit has no " << sKey;
        return "";
    }
};

}  // namespace

TEST_F(Packaging, ListIsAppliedAndServed) {
    ConsoleProcess server({"-md", "svr"});
    ASSERT_TRUE(server.WaitForPrompt());
    const std::string sOne = MakeFolder("one");
    const std::string sTwo = MakeFolder("two words");
    const RunResult result =
        Apply("# comment\n\n  " + sOne + "=first  \n" + sTwo + "=second");  // no line end at the end
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(result.sOutput, "");
    EXPECT_EQ(Listed(), (std::vector<std::string>{sOne + " : first", sTwo + " : second"}));
    NfsClient client;
    EXPECT_TRUE(client.Mnt("second"));
    EXPECT_EQ(server.Quit(), 0);
}

TEST_F(Packaging, PortsMayBeGiven) {
    ConsoleProcess server({"-md", "svr"});
    ASSERT_TRUE(server.WaitForPrompt());
    EXPECT_EQ(Apply(m_Folder.Path() + "=data\n", {"3058=3049"}).iStatus, 0);
    NfsClient client(Transport::kTcp, "127.0.0.1", 3049, 3058);
    EXPECT_TRUE(client.Mnt("data"));
    EXPECT_EQ(server.Quit(), 0);
}

TEST_F(Packaging, RefusedEntriesAreReportedAndTheOthersServed) {
    ConsoleProcess server({"-md", "svr"});
    ASSERT_TRUE(server.WaitForPrompt());
    const std::string sPath = MakeFolder("good");
    const std::string sList = m_Folder / "exports";
    const RunResult result = Apply("nonsense\n/missing=gone\n" + m_Folder.Path() + "=a b\n" + sPath + "=good\n" +
                                   sPath + "=twice\n=x\n" + sPath + "=\n" + sPath + "=a=b\n");
    EXPECT_EQ(result.iStatus, 2);
    EXPECT_EQ(result.sOutput,
              "nfs-exports: " + sList + ", line 1: not of the form path=exportName: nonsense\n" +
                  "nfs-exports: " + sList + ", line 2: no such directory: /missing\n" + "nfs-exports: " + sList +
                  ", line 6: not of the form path=exportName: =x\n" + "nfs-exports: " + sList +
                  ", line 7: not of the form path=exportName: " + sPath + "=\n" + "nfs-exports: " + sList +
                  ", line 8: not of the form path=exportName: " + sPath + "=a=b\n" + "nfs-exports: " + sList +
                  ", line 3: Invalid char \" \" inside export name: " + m_Folder.Path() + "=a b\nnfs-exports: " +
                  sList + ", line 5: Local mount path \"" + sPath + "\" already defined: " + sPath + "=twice\n");
    EXPECT_EQ(Listed(), std::vector<std::string>{sPath + " : good"});
    EXPECT_EQ(server.Quit(), 0);
}

TEST_F(Packaging, ListIsAppliedAgainForWhatWasAdded) {
    ConsoleProcess server({"-md", "svr"});
    ASSERT_TRUE(server.WaitForPrompt());
    const std::string sOne = MakeFolder("one");
    const std::string sTwo = MakeFolder("two");
    ASSERT_EQ(::symlink(sOne.c_str(), (m_Folder / "link").c_str()), 0);
    EXPECT_EQ(Apply(sOne + "=first\n").iStatus, 0);
    RunResult result = Apply(sOne + "=first\n" + sTwo + " = second\n" + (m_Folder / "link") + "=first\n");
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "");
    EXPECT_EQ(Listed(), (std::vector<std::string>{sOne + " : first", sTwo + " : second"}));
    result = Apply(sOne + "=other\n");
    EXPECT_EQ(result.iStatus, 2);
    EXPECT_EQ(result.sOutput, "nfs-exports: " + (m_Folder / "exports") + ", line 1: Local mount path \"" + sOne +
                                  "\" already defined: " + sOne + "=other\n");
    EXPECT_EQ(server.Quit(), 0);
}

TEST_F(Packaging, ServerThatCannotServeIsReported) {
    const CDescriptor taken = TakeUdpPort(1058);
    ConsoleProcess server({"-md", "svr"});
    ASSERT_TRUE(server.WaitForPrompt());
    const RunResult result = Apply(m_Folder.Path() + "=data\n");
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfs-exports: Fail to start NFS. Mount daemon failed to open port 1058\n");
    EXPECT_EQ(server.Quit(), 0);
}

TEST_F(Packaging, UnreadableListIsReported) {
    const RunResult result = RunProgram({Script(), m_Folder / "missing"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfs-exports: " + (m_Folder / "missing") + " cannot be read\n");
}

TEST_F(Packaging, UnitStartsExportsAndStops) {
    WriteWholeFile(m_Folder / "exports", m_Folder.Path() + "=data\n");
    ChildOptions options;
    options.bClosedInput = true;  // as a service: nothing to read
    options.vEnvironment.emplace_back("NFSCONSOLE", ConsoleProcess::ProgramPath());
    ChildProcess service({"/bin/sh", "-c", "exec " + UnitLine("ExecStart")}, options);
    const RunResult post = RunProgram({"/bin/sh", "-c", UnitLine("ExecStartPost")}, options);
    EXPECT_EQ(post.iStatus, 0) << post.sOutput;
    EXPECT_EQ(ReadWholeFile(m_Folder / "nfsconsole.pid"), std::to_string(service.GetPid()) + "\n");
    NfsClient client;
    EXPECT_TRUE(client.Mnt("data"));
    EXPECT_EQ(RunProgram({"/bin/sh", "-c", UnitLine("ExecStop")}).iStatus, 0);
    EXPECT_EQ(service.Wait(), 0);
    EXPECT_FALSE(Exists(m_Folder / "nfsconsole.pid"));
    EXPECT_FALSE(Exists("/tmp/nfs-server"));
    const std::string sLog = ReadWholeFile(m_Folder / "nfs.log");
    EXPECT_NE(sLog.find("[info] Start NFS with internal portmapper: MountPort = 1058, NfsPort = 2049\n"),
              std::string::npos)
        << sLog;
    EXPECT_NE(sLog.find("[info] Stop NFS\n"), std::string::npos) << sLog;
}

TEST_F(Packaging, LogrotateSampleTakesTheLogAwayUnderARunningServer) {
    if (RunProgram({"logrotate", "--version"}).iStatus != 0) {
        GTEST_SKIP() << "needs logrotate";
    }
    const std::string sLog = m_Folder / "nfs.log";
    std::string sSample = ReadWholeFile(SourceTree() + "/packaging/logrotate.example");
    ReplacePaths(sSample, "/var/log/nfslib/nfs.log", sLog);
    const std::size_t iUser = sSample.find("su nfslib nfslib\n");
    ASSERT_NE(iUser, std::string::npos) << sSample;
    sSample.replace(iUser, 16, "su root root");  // the test's own user
    WriteWholeFile(m_Folder / "sample", sSample);
    ASSERT_EQ(::chmod((m_Folder / "sample").c_str(), 0644), 0);
    ConsoleProcess console({"-md", "int", "-logfile", sLog});
    ASSERT_TRUE(console.WaitForPrompt());
    console.Command("debug");
    console.Command("print before");
    const RunResult result = RunProgram({"logrotate", "--force", "--state", m_Folder / "state", m_Folder / "sample"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(ReadWholeFile(sLog), "");
    console.Command("print after");
    const std::string sRest = ReadWholeFile(sLog);
    EXPECT_TRUE(sRest.starts_with("[2") && sRest.ends_with("][info] after\n")) << sRest;
    EXPECT_EQ(std::count(sRest.begin(), sRest.end(), '\n'), 1);
    EXPECT_EQ(console.Quit(), 0);
    std::string sAside;
    for (const auto& entry : std::filesystem::directory_iterator(m_Folder.Path())) {
        if (entry.path().filename().string().starts_with("nfs.log-")) {
            sAside = entry.path();
        }
    }
    EXPECT_NE(RunProgram({"zcat", sAside}).sOutput.find("][info] before\n"), std::string::npos) << sAside;
}

TEST_F(Packaging, SampleOfAnAccessFileIsOneThatAdmitsNobodyUntilItIsEdited) {
    std::string sSample = ReadWholeFile(SourceTree() + "/packaging/access.example");
    std::string sReason;
    const auto rules = CAccessRules::Parse(sSample, &sReason);
    ASSERT_TRUE(rules) << sReason;
    EXPECT_EQ(rules->GetCount(), 0U);
    // Its rules, with the mark of the comment taken away.
    const std::size_t iRules = sSample.find("\n#\n") + 3;
    ASSERT_GE(iRules, 3U);
    std::string sRules = sSample.substr(iRules);
    std::replace(sRules.begin(), sRules.end(), '#', ' ');
    const auto edited = CAccessRules::Parse(sRules, &sReason);
    ASSERT_TRUE(edited) << sReason;
    EXPECT_EQ(edited->GetCount(), 4U);
    EXPECT_EQ(edited->Find("backup", "192.0.2.7").right, AccessRight::kReadWrite);
    EXPECT_EQ(edited->Find("backup", "192.0.2.8").right, AccessRight::kReadOnly);
}
