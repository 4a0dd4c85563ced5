// Shell commands and network-device credentials.
#include "Utilities.h"

#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "LogCapture.h"
#include "PathGuard.h"
#include "SoftLimit.h"
#include "TempFolder.h"

namespace {

using Lines = std::vector<std::string>;

class ShellCommand : public testing::Test {
protected:
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"tester", 0};
    CRuntimeParam m_Talkative{"tester", CRuntimeParam::kLogGeneralInfo};
};

/// The pipes that this process holds, by their descriptors.
std::set<int> OpenPipes() {
    std::set<int> viPipes;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error).string().starts_with("pipe:")) {
            viPipes.insert(std::stoi(entry.path().filename()));
        }
    }
    return viPipes;
}

/// Breaks the pipe of a command whose first line of output has come: reading on fails, as from a directory.
class PipeBreakingUtilities : public CaptureUtilities {
public:
    explicit PipeBreakingUtilities(LogCapture* pCapture) : CaptureUtilities(pCapture), m_viBefore(OpenPipes()) {}

    void LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogRaw(pRuntimeParam, pcMessage);
        if (std::string(pcMessage) != "one\n") {
            return;
        }
        for (const int iPipe : OpenPipes()) {
            if (!m_viBefore.contains(iPipe)) {
                const CDescriptor folder(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
                EXPECT_EQ(::dup3(folder.Get(), iPipe, O_CLOEXEC), iPipe);
                ++m_nBroken;
            }
        }
    }
    int m_nBroken = 0;

private:
    std::set<int> m_viBefore;
};

}  // namespace

TEST_F(ShellCommand, OutputStandsBetweenRules) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "echo one; echo two", true), 0);
    EXPECT_EQ(m_Log.Lines(), (std::vector<LogLine>{{'i', "tester", "echo one; echo two"},
                                                   {'r', "tester", "\n------\n"},
                                                   {'r', "tester", "one\n"},
                                                   {'r', "tester", "two\n"},
                                                   {'r', "tester", "\n------\n"},
                                                   {'r', "tester", "Process returned 0\n"}}));
}

TEST_F(ShellCommand, ResultIsTheRawWaitStatus) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "exit 1", true), 256);
    EXPECT_TRUE(m_Log.Has("Process returned 256\n", 'r'));
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "kill -9 $$", false), 9);
}

TEST_F(ShellCommand, IsSilentUnlessAskedFor) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "echo hidden", false), 0);
    EXPECT_EQ(m_Log.Texts(), Lines{});
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Talkative, "echo shown", false), 0);
    EXPECT_TRUE(m_Log.Has("shown\n", 'r'));
}

TEST_F(ShellCommand, LongLinesComeInPiecesOf127) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "printf '%0300d\\n' 0", true), 0);
    EXPECT_EQ(m_Log.Texts('r'), (Lines{"\n------\n", std::string(127, '0'), std::string(127, '0'),
                                       std::string(46, '0') + "\n", "\n------\n", "Process returned 0\n"}));
}

TEST_F(ShellCommand, FormatCharactersAreNotInterpreted) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "echo '%s%n%d 100%'", true), 0);
    EXPECT_TRUE(m_Log.Has("%s%n%d 100%\n", 'r')) << m_Log.Dump();
    EXPECT_TRUE(m_Log.Has("echo '%s%n%d 100%'", 'i')) << m_Log.Dump();
}

TEST_F(ShellCommand, OutputWithoutLineEndIsShown) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "printf abc", true), 0);
    EXPECT_EQ(m_Log.Texts('r'), (Lines{"\n------\n", "abc", "\n------\n", "Process returned 0\n"}));
}

TEST_F(ShellCommand, EmptyCommandDoesNothing) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "", true), 0);
    EXPECT_EQ(m_Log.Texts('r'), (Lines{"\n------\n", "\n------\n", "Process returned 0\n"}));
}

TEST_F(ShellCommand, ShellThatCannotBeStartedIsReportedWithoutRules) {
    const auto execute = [&](bool bShown) { return m_Utilities.ExecuteSystemCmd(&m_Param, "echo one", bShown); };
    const int iShown = WithoutDescriptors([&] { return execute(true); });  // no pipe can be made
    const std::vector<LogLine> vShown = m_Log.Lines();
    m_Log.Clear();
    const int iSilent = WithoutDescriptors([&] { return execute(false); });
    EXPECT_EQ(iShown, -1);
    EXPECT_EQ(vShown, (std::vector<LogLine>{{'i', "tester", "echo one"},
                                            {'i', "tester", "Fail to execute cmd (popen() failed)"}}));
    EXPECT_EQ(iSilent, -1);
    EXPECT_EQ(m_Log.Texts(), Lines{});
}

TEST_F(ShellCommand, UnknownCommandReturnsTheShellsStatus) {
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "no-such-command-here 2>/dev/null", true), 127 << 8);
}

TEST_F(ShellCommand, OutputThatCannotBeReadToItsEndIsReported) {
    PipeBreakingUtilities utilities(&m_Log);
    EXPECT_EQ(utilities.ExecuteSystemCmd(&m_Param, "echo one; exit 3", true), -1) << "not the command's status";
    ASSERT_EQ(utilities.m_nBroken, 1);
    EXPECT_EQ(m_Log.Lines(), (std::vector<LogLine>{{'i', "tester", "echo one; exit 3"},
                                                   {'r', "tester", "\n------\n"},
                                                   {'r', "tester", "one\n"},
                                                   {'r', "tester", "\n------\n"},
                                                   {'r', "tester", "Error: Failed to read the pipe to the end\n"}}));
}

TEST_F(ShellCommand, OneThatIsEndedCountsAsNotReadToItsEnd) {
    std::thread other([this] {
        EXPECT_TRUE(m_Log.WaitFor("one\n"));
        m_Utilities.GetRunningCommands().EndAll();
    });
    EXPECT_EQ(m_Utilities.ExecuteSystemCmd(&m_Param, "echo one; sleep 1000", true), -1);
    other.join();
    EXPECT_EQ(m_Log.Lines(), (std::vector<LogLine>{{'i', "tester", "echo one; sleep 1000"},
                                                   {'r', "tester", "\n------\n"},
                                                   {'r', "tester", "one\n"},
                                                   {'r', "tester", "\n------\n"},
                                                   {'r', "tester", "Error: Failed to read the pipe to the end\n"}}));
}

// ---- Network-device credentials

namespace {

class NetDeviceCredential : public ShellCommand {
protected:
    Lines Details() {
        m_Log.Clear();
        m_Utilities.GetNetDeviceCredential(&m_Param, true);
        return m_Log.Texts('i');
    }
};

}  // namespace

TEST_F(NetDeviceCredential, AddingFailsAndRecordsNothingWhileTheCommandIsNotInstalled) {
    EXPECT_FALSE(m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/share", "user", "secret"));
    EXPECT_FALSE(m_Utilities.RemoveNetDeviceCredential(&m_Param, "//nas/share"));
    EXPECT_EQ(m_Utilities.GetNetDeviceCredential(&m_Param, true), 0);
    EXPECT_EQ(m_Log.Texts(), Lines{});
}

TEST_F(NetDeviceCredential, AddedPathsAreListedOnceInOrder) {
    const TempFolder folder;
    const PathGuard path(folder.Path());
    InstallCommand(folder / kAddCredentialCommand, "exit 0");
    EXPECT_TRUE(m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/b", "user", "secret"));
    EXPECT_TRUE(m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/a", "user", "secret"));
    EXPECT_TRUE(m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/b", "other", "secret"));
    EXPECT_EQ(m_Utilities.GetNetDeviceCredential(&m_Param, false), 2);
    EXPECT_EQ(Details(), (Lines{" Net device path 1 - //nas/b", " Net device path 2 - //nas/a"}));
}

TEST_F(NetDeviceCredential, RemovingErasesOnlyWhenItsCommandSucceeds) {
    const TempFolder folder;
    const PathGuard path(folder.Path());
    InstallCommand(folder / kAddCredentialCommand, "exit 0");
    InstallCommand(folder / kRemoveCredentialCommand, "exit 3");
    ASSERT_TRUE(m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/a", "user", "secret"));
    EXPECT_FALSE(m_Utilities.RemoveNetDeviceCredential(&m_Param, "//nas/a"));
    EXPECT_EQ(m_Utilities.GetNetDeviceCredential(&m_Param, false), 1);
    InstallCommand(folder / kRemoveCredentialCommand, "exit 0");
    EXPECT_TRUE(m_Utilities.RemoveNetDeviceCredential(&m_Param, "//nas/unknown"));
    EXPECT_EQ(m_Utilities.GetNetDeviceCredential(&m_Param, false), 1);
    EXPECT_TRUE(m_Utilities.RemoveNetDeviceCredential(&m_Param, "//nas/a"));
    EXPECT_EQ(m_Utilities.GetNetDeviceCredential(&m_Param, false), 0);
}

TEST_F(NetDeviceCredential, RemoveAllEmptiesTheListWithoutRunningACommand) {
    const TempFolder folder;
    const PathGuard path(folder.Path());
    InstallCommand(folder / kAddCredentialCommand, "exit 0");
    InstallCommand(folder / kRemoveCredentialCommand, "touch " + (folder / "ran"));
    ASSERT_TRUE(m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/a", "user", "secret"));
    m_Utilities.RemoveAllNetDeviceCredential(&m_Param);
    EXPECT_EQ(m_Utilities.GetNetDeviceCredential(&m_Param, false), 0);
    struct stat info {};
    EXPECT_NE(::stat((folder / "ran").c_str(), &info), 0);
}

// Two at a time would record their begins before their ends.
TEST_F(NetDeviceCredential, CommandsRunOneAtATime) {
    const TempFolder folder;
    const PathGuard path(folder.Path());
    const std::string sRecord = folder / "record";
    const std::string sBody = "echo begin >> '" + sRecord + "'; sleep 0.05; echo end >> '" + sRecord + "'";
    InstallCommand(folder / kAddCredentialCommand, sBody);
    InstallCommand(folder / kRemoveCredentialCommand, sBody);
    std::vector<std::thread> vThreads;
    for (int i = 0; i < 2; ++i) {
        vThreads.emplace_back([&] { m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/a", "user", "secret"); });
        vThreads.emplace_back([&] { m_Utilities.RemoveNetDeviceCredential(&m_Param, "//nas/a"); });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(ReadWholeFile(sRecord), "begin\nend\nbegin\nend\nbegin\nend\nbegin\nend\n");
}
