// Registration with a real portmapper, started for the test in the test's own network.
#include "Portmap.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "LogCapture.h"
#include "OpenDescriptors.h"
#include "PortmapPing.h"
#include "RpcClient.h"
#include "ServerSocket.h"
#include "SocketDoubles.h"
#include "SoftLimit.h"
#include "WaitUntil.h"

namespace {

constexpr const char* kRpcbind = "/usr/sbin/rpcbind";
constexpr const char* kRpcinfo = "/usr/sbin/rpcinfo";

class PortmapTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    /// What the portmapper lists; empty while it does not answer.
    static std::string Rpcinfo() {
        const RunResult result = RunProgram({kRpcinfo, "-p", "127.0.0.1"});
        return result.iStatus == 0 ? result.sOutput : "";
    }

    /// The lines that name a program, with single blanks: "100003 3 tcp 2050 nfs".
    static std::vector<std::string> Registered(const std::string& sProgram) {
        std::vector<std::string> vLines;
        std::istringstream lines(Rpcinfo());
        for (std::string sLine; std::getline(lines, sLine);) {
            std::istringstream words(sLine);
            std::string sProgramRead;
            std::string sVersion;
            std::string sProtocol;
            std::string sPort;
            words >> sProgramRead >> sVersion >> sProtocol >> sPort;
            if (sProgramRead == sProgram) {
                vLines.push_back(sVersion + " " + sProtocol + " " + sPort);
            }
        }
        std::sort(vLines.begin(), vLines.end());
        return vLines;
    }

    static std::vector<std::string> TcpAndUdp(int iPort) {
        return {"3 tcp " + std::to_string(iPort), "3 udp " + std::to_string(iPort)};
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"test", CRuntimeParam::kLogPortmap};
    char m_vcReason[kReasonBufferSize] = "";
};

/// The same with the system's portmapper running.
class PortmapAndRpcbindTest : public PortmapTest {
protected:
    void SetUp() override {
        PortmapTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (::access(kRpcbind, X_OK) != 0 || ::access(kRpcinfo, X_OK) != 0) {
            GTEST_SKIP() << "needs the package rpcbind";
        }
        if (!HasEveryUser()) {
            GTEST_SKIP() << "needs root: rpcbind changes to a user of its own";
        }
        ::mkdir("/run/rpcbind", 0755);
        m_pRpcbind = std::make_unique<ChildProcess>(std::vector<std::string>{kRpcbind, "-f"});
        ASSERT_TRUE(WaitUntil([] { return !Rpcinfo().empty(); })) << m_pRpcbind->Output();
    }

    void TearDown() override {
        m_pRpcbind.reset();
        ::unlink("/run/rpcbind.sock");
        ::unlink("/run/rpcbind.lock");
        ::unlink("/run/rpcbind/rpcbind.xdr");
        ::unlink("/run/rpcbind/portmap.xdr");
        ::rmdir("/run/rpcbind");
    }

    std::unique_ptr<ChildProcess> m_pRpcbind;

private:
    /// A user namespace of the test's own maps one user only, and rpcbind needs two.
    static bool HasEveryUser() {
        std::ifstream map("/proc/self/uid_map");
        unsigned long iInside = 0;
        unsigned long iOutside = 0;
        unsigned long nUsers = 0;
        return (map >> iInside >> iOutside >> nUsers) && nUsers > 1;
    }
};

}  // namespace

// ---- Without a portmapper

TEST_F(PortmapTest, WithPort111FreeNoneRunsAndNothingIsLeftOpen) {
    CPortmap portmap(&m_Utilities, &m_Param);
    EXPECT_FALSE(portmap.IsRunning());
    EXPECT_FALSE(portmap.IsRunning(false));
    EXPECT_FALSE(portmap.IsRunning(true));
    m_Leaks.Check();
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(PortmapTest, WithoutAPortmapperRegisteringAndUnregisteringSaySo) {
    CPortmap portmap(&m_Utilities, &m_Param);
    EXPECT_FALSE(portmap.Register(100003, 3, 5, 2050, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Portmapper is not running.");
    CServerSocket closed;
    m_vcReason[0] = '\0';
    EXPECT_FALSE(portmap.Register(100003, 3, &closed, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Portmapper is not running.");
    m_vcReason[0] = '\0';
    portmap.Unregister(100003, 3, m_vcReason);
    EXPECT_STREQ(m_vcReason, "Portmapper is not running.");
    portmap.Unregister(100003, 3, nullptr);
}

TEST_F(PortmapTest, AnybodyOnPort111CountsAsAPortmapperFoundOnceAtConstruction) {
    CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 111;
    ASSERT_TRUE(holder.BindToPort(&iPort));
    CPortmap portmap(&m_Utilities, &m_Param);
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_EQ(m_Log.Texts('i'), std::vector<std::string>{"[Portmap.IsRunning] Port 111 is already in used"});
    holder.Close();
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_TRUE(portmap.IsRunning(false));
    EXPECT_FALSE(portmap.IsRunning(true)) << "a forced check looks again";
    EXPECT_TRUE(portmap.IsRunning()) << "and leaves the answer alone";
}

TEST_F(PortmapTest, AServerOnOneAddressLooksForAPortmapperOnThatAddress) {
    constexpr std::uint32_t kOne = 0x7F000001;
    constexpr std::uint32_t kTwo = 0x7F000002;
    CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 111;
    ASSERT_TRUE(holder.BindToPort(&iPort, kOne));
    EXPECT_TRUE(CPortmap(&m_Utilities, &m_Param).IsRunning());
    EXPECT_EQ(CPortmap(&m_Utilities, &m_Param).GetProbeError(), EADDRINUSE);
    EXPECT_TRUE(CPortmap(&m_Utilities, &m_Param, kOne).IsRunning());
    EXPECT_FALSE(CPortmap(&m_Utilities, &m_Param, kTwo).IsRunning());
    EXPECT_EQ(CPortmap(&m_Utilities, &m_Param, kTwo).GetProbeError(), 0);
}

TEST_F(PortmapTest, APortmapperThatDoesNotAnswerFailsTheRegistration) {
    CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 111;
    ASSERT_TRUE(holder.BindToPort(&iPort));
    CPortmap portmap(&m_Utilities, &m_Param);
    CServerSocket server;
    ASSERT_TRUE(server.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    EXPECT_FALSE(portmap.Register(100003, 3, &server, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to register socket for port 2050. Reason=Unable to register UDP for 100003 ver=3");
    portmap.Unregister(100003, 3, m_vcReason);
}

TEST_F(PortmapTest, WithoutThePortmapBitNothingIsLogged) {
    m_Param.SetLogControl(~CRuntimeParam::kLogPortmap);
    CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 111;
    ASSERT_TRUE(holder.BindToPort(&iPort));
    const CPortmap portmap(&m_Utilities, &m_Param);
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(PortmapTest, WithoutDescriptorsNoneCountsAsRunning) {
    CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 111;
    ASSERT_TRUE(holder.BindToPort(&iPort));
    const auto pPortmap = WithoutDescriptors([&] { return std::make_unique<CPortmap>(&m_Utilities, &m_Param); });
    EXPECT_FALSE(pPortmap->IsRunning()) << "the port could not be tried";
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(PortmapTest, WithSocketZeroAndNoDescriptorTheRegistrationFailsWithItsReason) {
    CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 111;
    ASSERT_TRUE(holder.BindToPort(&iPort));
    CPortmap portmap(&m_Utilities, &m_Param);
    const bool bRegistered = WithoutDescriptors([&] { return portmap.Register(100003, 3, 0, 2050, m_vcReason); });
    EXPECT_FALSE(bRegistered);
    EXPECT_STREQ(m_vcReason,
                 "Fail to opening register socket for port 2050. Reason=Error opening socket for port 2050");
}

// ---- With the system's portmapper

TEST_F(PortmapAndRpcbindTest, ProgramsAreListedForTcpAndUdpUntilTheyAreUnregistered) {
    CPortmap portmap(&m_Utilities, &m_Param);
    ASSERT_TRUE(portmap.IsRunning());
    CServerSocket nfs;
    CServerSocket mount;
    ASSERT_TRUE(nfs.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    ASSERT_TRUE(mount.Open(100005, 1059, 1, nullptr, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(portmap.Register(100003, 3, &nfs, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(portmap.Register(100005, 3, &mount, m_vcReason)) << m_vcReason;
    EXPECT_EQ(Registered("100003"), TcpAndUdp(2050));
    EXPECT_EQ(Registered("100005"), TcpAndUdp(1059));

    portmap.Unregister(100003, 3, m_vcReason);
    EXPECT_EQ(Registered("100003"), std::vector<std::string>{});
    EXPECT_EQ(Registered("100005"), TcpAndUdp(1059));
    portmap.Unregister(100005, 3, m_vcReason);
    EXPECT_EQ(Registered("100005"), std::vector<std::string>{});
    EXPECT_STREQ(m_vcReason, "");
}

TEST_F(PortmapAndRpcbindTest, EveryStepIsLogged) {
    CPortmap portmap(&m_Utilities, &m_Param);
    CServerSocket server;
    ASSERT_TRUE(server.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(portmap.Register(100003, 3, &server, m_vcReason)) << m_vcReason;
    portmap.Unregister(100003, 3, m_vcReason);
    const std::vector<std::string> expected{
        "[Portmap.IsRunning] Port 111 is already in used",
        "[Portmap.RegisterSvc] Creating UDP for 100003 ver=3",
        "[Portmap.RegisterSvc] Registering UDP for 100003 ver=3",
        "[Portmap.RegisterSvc] Registered UDP for 100003 ver=3",
        "[Portmap.RegisterSvc] Creating TCP for 100003 ver=3",
        "[Portmap.RegisterSvc] Registering TCP for 100003 ver=3",
        "[Portmap.RegisterSvc] Registered TCP for 100003 ver=3",
        "[Portmap.Unregister] Unregistered the program 100003 ver=3",
    };
    EXPECT_EQ(m_Log.Texts('i'), expected) << m_Log.Dump();
    EXPECT_EQ(m_Log.Lines()[0].sID, "test");
}

TEST_F(PortmapAndRpcbindTest, RegisteringMovesAProgramToItsNewPort) {
    CPortmap portmap(&m_Utilities, &m_Param);
    CServerSocket first;
    CServerSocket second;
    ASSERT_TRUE(first.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    ASSERT_TRUE(second.Open(100003, 2051, 1, nullptr, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(portmap.Register(100003, 3, &first, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(portmap.Register(100003, 3, &first, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(portmap.Register(100003, 3, &second, m_vcReason)) << m_vcReason;
    EXPECT_EQ(Registered("100003"), TcpAndUdp(2051));
    portmap.Unregister(100003, 3, m_vcReason);
    portmap.Unregister(100003, 3, m_vcReason);
    EXPECT_EQ(Registered("100003"), std::vector<std::string>{});
}

TEST_F(PortmapAndRpcbindTest, StartingAndStoppingAgainAndAgainLeaksNothingAndHarmsNoListener) {
    FunctionListener echo(Echo);
    CServerSocket server;
    server.SetListener(&echo);
    ASSERT_TRUE(server.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    const int iSocket = server.GetSocket();
    std::size_t nDescriptors = 0;
    for (int i = 0; i < 20; ++i) {
        CPortmap portmap(&m_Utilities, &m_Param);
        ASSERT_TRUE(portmap.Register(100003, 3, &server, m_vcReason)) << m_vcReason;
        portmap.Unregister(100003, 3, m_vcReason);
        const std::size_t nNow = CountDescriptors();
        // From the second connection on the slot holds the descriptor of the one before.
        EXPECT_TRUE(i < 2 || nNow == nDescriptors) << nNow << " descriptors after " << nDescriptors;
        nDescriptors = nNow;
        RpcClient client(Transport::kTcp, 2050);
        client.Send("hello");
        EXPECT_EQ(client.ReceiveBytes(5), "hello");
    }
    EXPECT_EQ(server.GetSocket(), iSocket);
}

TEST_F(PortmapAndRpcbindTest, WithSocketZeroOneIsMadeAndHeldUntilTheProgramIsUnregistered) {
    CPortmap portmap(&m_Utilities, &m_Param);
    EXPECT_TRUE(portmap.Register(100003, 3, 0, 2050, m_vcReason)) << m_vcReason;
    EXPECT_EQ(Registered("100003"), TcpAndUdp(2050));
    const CDescriptor other = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 2050;
    EXPECT_FALSE(other.BindToPort(&iPort)) << "the port is held";
    portmap.Unregister(100003, 3, nullptr);
    EXPECT_TRUE(other.BindToPort(&iPort)) << "and free again";
}

TEST_F(PortmapAndRpcbindTest, WithSocketZeroAPortInUseFailsWithItsReason) {
    CPortmap portmap(&m_Utilities, &m_Param);
    CServerSocket server;
    ASSERT_TRUE(server.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    EXPECT_FALSE(portmap.Register(100003, 3, 0, 2050, m_vcReason));
    EXPECT_STREQ(m_vcReason,
                 "Fail to opening register socket for port 2050. Reason=Error binding socket with port 2050");
}

TEST_F(PortmapAndRpcbindTest, ADescriptorThatIsNoSocketFailsWithItsReason) {
    CPortmap portmap(&m_Utilities, &m_Param);
    EXPECT_FALSE(portmap.Register(100003, 3, -1, 2050, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to register socket for port 2050. Reason=Cannot create UDP for 100003 ver=3");
    EXPECT_EQ(Registered("100003"), std::vector<std::string>{});
}

TEST_F(PortmapAndRpcbindTest, OneThatTakesItsTimeIsAwaitedByARegistration) {
    CPortmap portmap(&m_Utilities, &m_Param);
    CServerSocket server;
    ASSERT_TRUE(server.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    m_pRpcbind->Signal(SIGSTOP);
    std::thread waker([&] {
        std::this_thread::sleep_for(CPortmapPing::kStopLimit + std::chrono::milliseconds(500));
        m_pRpcbind->Signal(SIGCONT);
    });
    EXPECT_TRUE(portmap.Register(100003, 3, &server, m_vcReason)) << m_vcReason;
    waker.join();
    EXPECT_EQ(Registered("100003"), TcpAndUdp(2050));
    portmap.Unregister(100003, 3, nullptr);
}

TEST_F(PortmapAndRpcbindTest, OneThatIsStoppedIsWaitedForOnceAndWhatItLastHeardStays) {
    CPortmap portmap(&m_Utilities, &m_Param);
    CServerSocket server;
    ASSERT_TRUE(server.Open(100003, 2050, 1, nullptr, m_vcReason)) << m_vcReason;
    ASSERT_TRUE(portmap.Register(100003, 3, &server, m_vcReason)) << m_vcReason;
    m_Log.Clear();
    m_pRpcbind->Signal(SIGSTOP);
    const auto begin = std::chrono::steady_clock::now();
    portmap.Unregister(100003, 3, m_vcReason);
    EXPECT_STREQ(m_vcReason, "Portmapper does not answer.");
    m_vcReason[0] = '\0';
    EXPECT_FALSE(portmap.Register(100003, 3, &server, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Portmapper does not answer.");
    portmap.Unregister(100003, 3, nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2 * CPortmapPing::kStopLimit) << "one wait, not three";
    EXPECT_EQ(m_Log.Texts('i'), std::vector<std::string>{"[Portmap.Unregister] Portmapper does not answer"});

    m_pRpcbind->Signal(SIGCONT);
    EXPECT_EQ(Registered("100003"), TcpAndUdp(2050));
    CPortmap next(&m_Utilities, &m_Param);
    next.Unregister(100003, 3, m_vcReason);
    EXPECT_EQ(Registered("100003"), std::vector<std::string>{});
}
