// Shell commands by remote control: whoever asks for one that never ends keeps nobody waiting once he is gone, or the
// server stops.
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include "IpcPeer.h"
#include "IpcProcesses.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// Tells its process number in a file, and takes for ever then. (What tails nothing waits for no input.)
std::string NeverEnding(const std::string& sPidFile) {
    return "echo $$ > " + sPidFile + ".new; mv " + sPidFile + ".new " + sPidFile + "; exec tail -f /dev/null";
}

/// Limits are loose for a loaded machine, and far below what waiting for the command would be.
constexpr seconds kSoon{20};

class ShellCommandsTest : public IpcProcesses {
protected:
    std::string PidFile() const { return *m_pFolder / "pid"; }
    /// The process of the command, once it runs; "" if it never does.
    std::string WaitForPid() const {
        std::string sPid;
        WaitUntil([&] { return static_cast<bool>(std::getline(std::ifstream(PidFile()), sPid)); });
        return sPid;
    }
    static bool WaitForEnd(const std::string& sPid) {
        struct stat info {};
        return !sPid.empty() && WaitUntil([&] { return ::stat(("/proc/" + sPid).c_str(), &info) != 0; }, kSoon);
    }
    std::string RawExec(const std::string& sCommand) const {
        return RawRequest(29, 1300).Text(16, kClientID).Text(272, sCommand).Byte(1296, 1).Bytes();
    }
    /// A console in client mode in the middle of such a command.
    std::unique_ptr<ConsoleProcess> MakeConsoleInCommand() const {
        auto pConsole = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "cli", "-id", "other"});
        EXPECT_TRUE(pConsole->WaitForPrompt()) << pConsole->Output();
        pConsole->Command("debug");
        pConsole->Send("exec " + NeverEnding(PidFile()) + "\n");
        return pConsole;
    }
};

TEST_F(ShellCommandsTest, ARequesterThatIsKilledTakesItsCommandWithIt) {
    const auto pOther = MakeConsoleInCommand();
    const std::string sPid = WaitForPid();
    NfsClient nfs;
    const std::string sRoot = nfs.Mnt("exp").value_or("");
    Fattr3 attributes;
    for (int i = 0; i < 10; ++i) {
        const auto start = steady_clock::now();
        EXPECT_EQ(nfs.Getattr(sRoot, attributes), 0U);
        EXPECT_LT(steady_clock::now() - start, seconds(5)) << "no NFS client waits for a command";
    }
    const auto start = steady_clock::now();
    pOther->Signal(SIGKILL);
    EXPECT_EQ(pOther->Wait(), 128 + SIGKILL);
    EXPECT_EQ(::unlink("/tmp/nfs-other"), 0) << "nobody was left to do it";
    EXPECT_TRUE(m_pClient->IsServerRunning());
    EXPECT_LT(steady_clock::now() - start, kSoon);
    EXPECT_TRUE(WaitForEnd(sPid));
}

TEST_F(ShellCommandsTest, ARequesterThatHangsUpTakesItsCommandWithIt) {
    {
        IpcConnection request(kServerChannel);
        ASSERT_TRUE(request.Send(RawExec(NeverEnding(PidFile()))));
        ASSERT_NE(WaitForPid(), "");
    }
    EXPECT_TRUE(WaitForEnd(WaitForPid()));
    EXPECT_TRUE(m_pClient->IsServerRunning());
}

/// It has sent all it has to say, and waits for the reply.
TEST_F(ShellCommandsTest, ARequesterThatSendsNoMoreGetsItsReply) {
    IpcConnection request(kServerChannel);
    ASSERT_TRUE(request.Send(RawExec("sleep 0.3; exit 3")));
    request.ShutdownSend();
    EXPECT_EQ(request.ReceiveAll(), RawIntReply(3 << 8));
}

TEST_F(ShellCommandsTest, AClientThatIsToEndLeavesItsCommand) {
    const auto pOther = MakeConsoleInCommand();
    const std::string sPid = WaitForPid();
    const auto start = steady_clock::now();
    pOther->Signal(SIGTERM);
    EXPECT_EQ(pOther->Wait(), 0);
    EXPECT_LT(steady_clock::now() - start, kSoon);
    EXPECT_TRUE(WaitForEnd(sPid));
}

TEST_F(ShellCommandsTest, ASignalEndsTheServerInTheMiddleOfARequestersCommand) {
    const auto pOther = MakeConsoleInCommand();
    const std::string sPid = WaitForPid();
    const auto start = steady_clock::now();
    m_pServer->Signal(SIGTERM);
    EXPECT_EQ(m_pServer->Wait(), 0);
    EXPECT_LT(steady_clock::now() - start, kSoon);
    EXPECT_TRUE(WaitForEnd(sPid));
    EXPECT_TRUE(pOther->WaitFor("Return code: -1\n")) << pOther->Output();
    EXPECT_EQ(pOther->Quit(), 0);
}

TEST_F(ShellCommandsTest, QuitEndsTheServerInTheMiddleOfARequestersCommand) {
    const auto pOther = MakeConsoleInCommand();
    const std::string sPid = WaitForPid();
    const auto start = steady_clock::now();
    EXPECT_EQ(m_pServer->Quit(), 0);
    EXPECT_LT(steady_clock::now() - start, kSoon);
    EXPECT_TRUE(WaitForEnd(sPid));
    EXPECT_TRUE(pOther->WaitFor("Return code: -1\n")) << pOther->Output();
    EXPECT_EQ(pOther->Quit(), 0);
}

TEST_F(ShellCommandsTest, AShutdownByRequestEndsTheCommandOfTheServersOwnConsole) {
    m_pServer->Command("debug");
    m_pServer->Send("exec " + NeverEnding(PidFile()) + "\n");
    const std::string sPid = WaitForPid();
    ASSERT_NE(sPid, "");
    EXPECT_TRUE(m_pClient->RequestAutoShutdown());
    EXPECT_EQ(m_pServer->Wait(), 0) << m_pServer->Output();
    EXPECT_TRUE(WaitForEnd(sPid));
}

TEST_F(ShellCommandsTest, CommandsReadNothingOfTheConsolesInput) {
    m_pServer->Command("debug");
    m_pServer->Send("exec echo begun; head -n 1; echo over\nnfs\n");
    ASSERT_TRUE(m_pServer->WaitFor("begun\nover\n")) << m_pServer->Output();
    // Typed while a client's command reads its input.
    m_pServer->Send("status\n");
    EXPECT_EQ(IpcExchange(kServerChannel, RawExec("head -n 1; exit 2")), RawIntReply(2 << 8));
    EXPECT_TRUE(m_pServer->WaitFor("Server Status: Started")) << m_pServer->Output();
}

}  // namespace
