// The console in surroundings that do not suit it: one line tells why, and nothing is left half open.
#include <csignal>
#include <filesystem>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "TempFolder.h"

namespace {

using testing::HasSubstr;

class BadSurroundingsTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    /// A console in internal mode, in debug mode at its prompt.
    static std::unique_ptr<ConsoleProcess> OpenConsole(std::vector<std::string> vsOptions = {},
                                                       const ChildOptions& options = {}) {
        vsOptions.insert(vsOptions.begin(), {"-md", "int", "-id", "test"});
        auto pConsole = std::make_unique<ConsoleProcess>(vsOptions, options);
        EXPECT_TRUE(pConsole->WaitForPrompt()) << pConsole->Output();
        pConsole->Command("debug");
        return pConsole;
    }

    static bool IsServed(int iPort) {
        try {
            const RpcClient client(Transport::kTcp, iPort);
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }

    LeakGuard m_Leaks;
};

/// Holds a TCP port.
class Listener {
public:
    explicit Listener(int iPort) : m_iSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int iOn = 1;
        ::setsockopt(m_iSocket, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));  // connections that ended do not count
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(iPort));
        EXPECT_EQ(::bind(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(m_iSocket, 1), 0);
    }
    ~Listener() { ::close(m_iSocket); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

private:
    int m_iSocket;
};

TEST_F(BadSurroundingsTest, PortInUseIsNamedAndTheOthersAreClosedAgain) {
    auto pConsole = OpenConsole();
    {
        const Listener listener(1058);
        EXPECT_THAT(pConsole->Command("start"),
                    HasSubstr("Fail to start NFS. Mount daemon failed to open port 1058\n"));
        EXPECT_FALSE(IsServed(111));
        EXPECT_FALSE(IsServed(2049));
    }
    EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success"));
    EXPECT_TRUE(IsServed(1058));
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
    EXPECT_FALSE(IsServed(1058));
}

TEST_F(BadSurroundingsTest, WithoutTheRightToBindLowPortsTheStartFails) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to give the right up";
    }
    WriteWholeFile("/proc/sys/net/ipv4/ip_unprivileged_port_start", "1024");
    ChildOptions options;
    options.viDroppedCapabilities = {CAP_NET_BIND_SERVICE};
    auto pConsole = OpenConsole({}, options);
    // A port 111 that cannot be bound counts as a system portmapper's, which then does not answer.
    EXPECT_THAT(pConsole->Command("start"), HasSubstr("Fail to start NFS. "));
    EXPECT_FALSE(IsServed(2050));
    EXPECT_FALSE(IsServed(1059));
    EXPECT_FALSE(IsServed(2049));
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
}

TEST_F(BadSurroundingsTest, LogFileThatCannotBeWrittenIsNamedAndTheConsoleGoesOn) {
    const TempFolder folder;
    auto pConsole = OpenConsole({"-logfile", folder.Path()});  // a directory
    EXPECT_THAT(pConsole->Output(), HasSubstr("Fail to create log file: " + folder.Path() + "\n"));
    EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success"));
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
}

TEST_F(BadSurroundingsTest, MissingDirectoryIsExportedNeitherNowNorLater) {
    const TempFolder folder;
    auto pConsole = OpenConsole();
    EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success"));
    EXPECT_THAT(pConsole->Command("mount " + folder.Path() + "=has/slash"),
                HasSubstr("Fail to add mount point to NFS. Reason="));
    pConsole->Command("mount " + folder.Path() + "=data");
    EXPECT_THAT(pConsole->Command("mount " + folder.Path() + "=other"),
                HasSubstr("Fail to add mount point to NFS. Reason="));
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
}

TEST_F(BadSurroundingsTest, SignalStopsTheServerInOrder) {
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP}) {
        const TempFolder folder;
        auto pConsole = OpenConsole({"-pidfile", folder / "pid"});
        EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success"));
        EXPECT_TRUE(IsServed(2049));
        pConsole->Signal(iSignal);
        EXPECT_EQ(pConsole->Wait(), 0) << "signal " << iSignal << "\n" << pConsole->Output();
        EXPECT_FALSE(IsServed(2049));
        EXPECT_FALSE(std::filesystem::exists(folder / "pid"));
    }
}

TEST_F(BadSurroundingsTest, ServerOutlivesTheEndOfItsInput) {
    ConsoleProcess console({"-md", "int", "-id", "test"});
    console.Send("debug\nstart\n");
    console.CloseInput();
    EXPECT_TRUE(console.WaitFor("Start NFS success")) << console.Output();
    EXPECT_TRUE(IsServed(2049));
    EXPECT_FALSE(console.Wait(std::chrono::milliseconds(500)).has_value()) << console.Output();
    EXPECT_TRUE(IsServed(2049));
    console.Signal(SIGTERM);
    EXPECT_EQ(console.Wait(), 0);
}

}  // namespace
