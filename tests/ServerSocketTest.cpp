// The TCP listener: accepting, the connection limit, closing.
#include "ServerSocket.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "LogCapture.h"
#include "RpcClient.h"
#include "SocketDoubles.h"
#include "SoftLimit.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

using namespace std::chrono_literals;

class ServerSocketTest : public testing::Test {
protected:
    ServerSocketTest() { m_Server.SetListener(&m_Echo); }

    void Open(int nMaxNum) { ASSERT_TRUE(m_Server.Open(100003, 0, nMaxNum, nullptr, m_vcReason)) << m_vcReason; }
    std::unique_ptr<RpcClient> Connect() { return std::make_unique<RpcClient>(Transport::kTcp, m_Server.GetPort()); }
    static void ExpectServed(RpcClient& client) {
        client.Send("hello");
        EXPECT_EQ(client.ReceiveBytes(5), "hello");
    }

    /// Connects a socket that exists already; false if its bytes do not come back.
    bool IsServed(int iSocket) {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        server.sin_port = htons(static_cast<in_port_t>(m_Server.GetPort()));
        char cBytes[5];
        return ::connect(iSocket, reinterpret_cast<sockaddr*>(&server), sizeof(server)) == 0 &&
               ::send(iSocket, "hello", 5, MSG_NOSIGNAL) == 5 && ::recv(iSocket, cBytes, 5, MSG_WAITALL) == 5 &&
               std::memcmp(cBytes, "hello", 5) == 0;
    }

    /// In a process of its own: two connections are allowed, a third follows.
    void ConnectOnceTooOften() {
        const SoftLimit noCore(RLIMIT_CORE, 0);
        Open(2);
        const auto pFirst = Connect();
        const auto pSecond = Connect();
        ExpectServed(*pFirst);
        ExpectServed(*pSecond);
        const auto pThird = Connect();
        std::this_thread::sleep_for(30s);  // the assertion ends the process meanwhile
    }

    /// The server's end of a client's connection.
    static int FindServerEnd(const RpcClient& client) {
        sockaddr_in own{};
        socklen_t nLength = sizeof(own);
        ::getsockname(client.GetSocket(), reinterpret_cast<sockaddr*>(&own), &nLength);
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            const int iSocket = std::stoi(entry.path().filename().string());
            sockaddr_in peer{};
            nLength = sizeof(peer);
            if (::getpeername(iSocket, reinterpret_cast<sockaddr*>(&peer), &nLength) == 0 &&
                peer.sin_port == own.sin_port && iSocket != client.GetSocket()) {
                return iSocket;
            }
        }
        return -1;
    }

    /// Does the server's end of a connection between two ports of this machine know of no end yet?
    static bool IsEstablished(int iServerPort, int iClientPort) {
        char vcServer[8];
        char vcClient[8];
        std::snprintf(vcServer, sizeof(vcServer), ":%04X", static_cast<unsigned>(iServerPort));
        std::snprintf(vcClient, sizeof(vcClient), ":%04X", static_cast<unsigned>(iClientPort));
        std::ifstream table("/proc/net/tcp");
        for (std::string sSlot, sLocal, sRemote, sState, sRest;
             table >> sSlot >> sLocal >> sRemote >> sState && std::getline(table, sRest);) {
            if (sLocal.ends_with(vcServer) && sRemote.ends_with(vcClient)) {
                return sState == "01";
            }
        }
        return false;
    }
    /// A connection that is closed, or reset, and known to the system as closed when this returns.
    void ConnectAndClose(bool bReset) {
        RpcClient client(Transport::kTcp, m_Server.GetPort());
        sockaddr_in own{};
        socklen_t nLength = sizeof(own);
        ASSERT_EQ(::getsockname(client.GetSocket(), reinterpret_cast<sockaddr*>(&own), &nLength), 0);
        const int iPort = ntohs(own.sin_port);
        ASSERT_TRUE(WaitUntil([&] { return IsEstablished(m_Server.GetPort(), iPort); }));
        const linger reset{bReset ? 1 : 0, 0};
        ASSERT_EQ(::setsockopt(client.GetSocket(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
        client.Close();
        ASSERT_TRUE(WaitUntil([&] { return !IsEstablished(m_Server.GetPort(), iPort); }));
    }

    static int Option(int iSocket, int iLevel, int iOption) {
        int iValue = -1;
        socklen_t nLength = sizeof(iValue);
        ::getsockopt(iSocket, iLevel, iOption, &iValue, &nLength);
        return iValue;
    }

    LeakGuard m_Leaks;
    FunctionListener m_Echo{Echo};
    CServerSocket m_Server;
    char m_vcReason[kReasonBufferSize] = "";
};

using ServerSocketDeathTest = ServerSocketTest;

}  // namespace

TEST_F(ServerSocketTest, ANewListenerIsClosed) {
    EXPECT_EQ(m_Server.GetSocket(), -1);
    m_Server.Close();
}

TEST_F(ServerSocketTest, AsManyConnectionsAsAllowedAreServedAtTheSameTime) {
    Open(3);
    std::vector<std::unique_ptr<RpcClient>> vpClients;
    for (int i = 0; i < 3; ++i) {
        vpClients.push_back(Connect());
    }
    for (const auto& pClient : vpClients) {
        ExpectServed(*pClient);
    }
}

TEST_F(ServerSocketDeathTest, OneConnectionMoreAbortsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ConnectOnceTooOften(),
                 "src/ServerSocket.cpp:[0-9]+: .*CServerSocket::Run\\(\\).*Assertion `i < m_nMaxNum' failed");
}

TEST_F(ServerSocketTest, AConnectionThatClosesFreesItsSlotForTheNextOne) {
    Open(1);
    for (int i = 0; i < 50; ++i) {
        const auto pClient = Connect();
        ExpectServed(*pClient);
    }
}

/// Calls that begin, and go on when they are let go.
struct HeldCalls {
    std::atomic<bool> bRunning{false};
    std::atomic<bool> bGo{false};
    FunctionListener listener{[this](CSocket* pSocket) {
        bRunning = true;
        EXPECT_TRUE(WaitUntil([this] { return bGo.load(); }));
        Echo(pSocket);
    }};

    /// A client's call begins, and the client goes.
    void BeginAndGo(RpcClient& client) {
        client.Send("a call");
        ASSERT_TRUE(WaitUntil([this] { return bRunning.load(); }));
        client.Close();
    }
};

TEST_F(ServerSocketTest, AConnectionWhosePeerHasClosedDoesNotCountHoweverLongItsLastCallRuns) {
    HeldCalls held;
    m_Server.SetListener(&held.listener);
    Open(1);
    held.BeginAndGo(*Connect());
    const auto pNext = Connect();
    EXPECT_TRUE(pNext->StaysSilent(1500ms)) << "longer than a slot is likely to need";
    held.bGo = true;
    ExpectServed(*pNext);
}

// A client's last call keeps its slot after it has gone, and the accept thread waits for that slot with the connection
// that came next. Those that come and go meanwhile have certainly gone when they are accepted, with the slot taken.
TEST_F(ServerSocketTest, ANewConnectionWhosePeerHasAlreadyClosedDoesNotCount) {
    HeldCalls held;
    for (const bool bReset : {false, true}) {
        held.bRunning = false;
        held.bGo = false;
        m_Server.SetListener(&held.listener);
        Open(1);
        held.BeginAndGo(*Connect());
        auto pNext = Connect();
        ConnectAndClose(bReset);
        held.bGo = true;
        ExpectServed(*pNext);
        pNext.reset();
        ExpectServed(*Connect());
    }
}

// The end of a connection is sent before the next one is opened, but may be lost on the way and come later.
TEST_F(ServerSocketTest, AConnectionWhoseEndComesLateDoesNotCount) {
    Open(2);
    const auto pOther = Connect();
    auto pLast = Connect();
    ExpectServed(*pOther);
    for (int i = 0; i < 3; ++i) {
        ExpectServed(*pLast);
        auto pNext = Connect();
        std::this_thread::sleep_for(600ms);  // the end was lost twice
        pLast = std::move(pNext);
        ExpectServed(*pLast);
    }
}

// So it is with a client that starts anew, or one whose firewall does: it does not say so by itself.
TEST_F(ServerSocketTest, ConnectionsThatTheirPeersHaveForgottenDoNotCount) {
    Open(3);
    for (int i = 0; i < 3; ++i) {
        const auto pClient = Connect();
        ExpectServed(*pClient);
        const int iForget = 1;  // what is closed in this state tells its peer nothing
        ASSERT_EQ(::setsockopt(pClient->GetSocket(), IPPROTO_TCP, TCP_REPAIR, &iForget, sizeof(iForget)), 0) << errno;
    }
    std::this_thread::sleep_for(1500ms);
    std::vector<std::unique_ptr<RpcClient>> vpClients;
    for (int i = 0; i < 3; ++i) {
        vpClients.push_back(Connect());
        ExpectServed(*vpClients.back());
    }
    EXPECT_EQ(Option(FindServerEnd(*vpClients[0]), IPPROTO_TCP, TCP_KEEPIDLE), 60) << "as it was";
}

// A port check's end comes right behind its beginning, but not always before the server has looked.
TEST_F(ServerSocketTest, PortChecksBesideAllTheConnectionsAllowedDoNotCount) {
    Open(2);
    const auto pFirst = Connect();
    const auto pSecond = Connect();
    ExpectServed(*pFirst);
    ExpectServed(*pSecond);
    for (int i = 0; i < 200; ++i) {
        RpcClient check(Transport::kTcp, m_Server.GetPort());
        check.Close();
        ExpectServed(*pFirst);
        std::this_thread::sleep_for(3ms);  // no more of them wait to be accepted than the system lets
    }
    ExpectServed(*pSecond);
}

TEST_F(ServerSocketTest, ClosingEndsAllConnectionsFirst) {
    Open(3);
    const auto pFirst = Connect();
    const auto pSecond = Connect();
    ExpectServed(*pFirst);
    ExpectServed(*pSecond);
    m_Server.Close();
    EXPECT_EQ(m_Server.GetSocket(), -1);
    EXPECT_TRUE(pFirst->IsClosedByPeer());
    EXPECT_TRUE(pSecond->IsClosedByPeer());
    pFirst->Close();
    pSecond->Close();
    m_Leaks.Check();  // no thread and no descriptor is left
}

TEST_F(ServerSocketTest, ClosingEndsAConnectionWhoseCallWaitsForAnothers) {
    Mutex mutex;
    FunctionListener oneAtATime([&](CSocket* pSocket) {
        const MutexLock lock(mutex);
        TakeInput(pSocket);
        pSocket->GetOutputStream()->Write(nullptr, CSocketStream::GetMaxBufferSize());
        pSocket->Send();
        pSocket->GetOutputStream()->Write(nullptr, CSocketStream::GetMaxBufferSize());
        pSocket->Send();
        pSocket->GetOutputStream()->Write(nullptr, CSocketStream::GetMaxBufferSize());
        pSocket->Send();
    });
    m_Server.SetListener(&oneAtATime);
    Open(2);
    const auto pFirst = Connect();
    const auto pSecond = Connect();
    pFirst->Send("x");
    pSecond->Send("x");
    pFirst->ReceiveBytes(1);  // its reply is under way and will not be read
    const auto start = std::chrono::steady_clock::now();
    m_Server.Close();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
}

TEST_F(ServerSocketTest, APortInUseFailsWithTheSystemsReason) {
    Open(1);
    CServerSocket second;
    EXPECT_FALSE(second.Open(100003, m_Server.GetPort(), 1, nullptr, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to bind server socket. Address already in use (98)");
    EXPECT_EQ(second.GetSocket(), -1);
    EXPECT_FALSE(second.Open(100003, m_Server.GetPort(), 1, nullptr, nullptr)) << "no buffer, no text";
}

TEST_F(ServerSocketTest, WithoutDescriptorsOpeningFailsWithTheSystemsReason) {
    const bool bOpen = WithoutDescriptors([&] { return m_Server.Open(100003, 0, 1, nullptr, m_vcReason); });
    EXPECT_FALSE(bOpen);
    EXPECT_STREQ(m_vcReason, "Fail to create server socket. Too many open files (24)");
}

TEST_F(ServerSocketTest, APortIsFreeAgainAtOnceAfterConnectionsWereClosed) {
    Open(2);
    const int iPort = m_Server.GetPort();
    const auto pClient = Connect();
    ExpectServed(*pClient);
    m_Server.Close();  // the closing side: its connection stays in TIME_WAIT
    ASSERT_TRUE(m_Server.Open(100003, iPort, 2, nullptr, m_vcReason)) << m_vcReason;
    EXPECT_EQ(m_Server.GetPort(), iPort);
    ExpectServed(*Connect());
}

TEST_F(ServerSocketTest, OpeningAnewClosesWhatWasOpen) {
    Open(1);
    const auto pClient = Connect();
    ExpectServed(*pClient);
    Open(1);
    EXPECT_TRUE(pClient->IsClosedByPeer());
    ExpectServed(*Connect());
}

TEST_F(ServerSocketTest, ConnectionsSendAtOnceAndNoticeAVanishedPeer) {
    Open(1);
    const auto pClient = Connect();
    ExpectServed(*pClient);
    const int iSocket = FindServerEnd(*pClient);
    ASSERT_NE(iSocket, -1);
    EXPECT_NE(Option(iSocket, IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_NE(Option(iSocket, SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(Option(iSocket, IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(Option(iSocket, IPPROTO_TCP, TCP_KEEPCNT), 5);
    EXPECT_EQ(Option(iSocket, IPPROTO_TCP, TCP_KEEPINTVL), 10);
    EXPECT_TRUE(::fcntl(iSocket, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(::fcntl(m_Server.GetSocket(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(ServerSocketTest, TheListenerIsToldThePeerAndTheProgram) {
    FunctionListener tell([](CSocket* pSocket) {
        TakeInput(pSocket);
        const std::string sText = std::string(pSocket->GetRemoteAddress()) + " " +
                                  std::to_string(pSocket->GetRemotePort()) + " " +
                                  std::to_string(pSocket->GetProgId()) + " " + std::to_string(pSocket->GetType());
        pSocket->GetOutputStream()->Write(sText.data(), static_cast<unsigned int>(sText.size()));
        pSocket->Send();
    });
    m_Server.SetListener(&tell);
    Open(1);
    RpcClient client(Transport::kTcp, m_Server.GetPort(), "127.0.0.7");
    sockaddr_in own{};
    socklen_t nLength = sizeof(own);
    ::getsockname(client.GetSocket(), reinterpret_cast<sockaddr*>(&own), &nLength);
    client.Send("x");
    const std::string sExpected = "127.0.0.7 " + std::to_string(ntohs(own.sin_port)) + " 100003 1";
    EXPECT_EQ(client.ReceiveBytes(sExpected.size()), sExpected);
}

// ---- A process without standard input

TEST_F(ServerSocketTest, WithStandardInputClosedBeforeOpeningEveryConnectionIsServed) {
    const CDescriptor saved(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100));
    ::close(STDIN_FILENO);
    Open(1);
    EXPECT_GE(m_Server.GetSocket(), 3);
    {
        RpcClient client(Transport::kTcp, m_Server.GetPort());
        ExpectServed(client);
    }
    m_Server.Close();
    EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1) << "the number is given back";
    ::dup2(saved.Get(), STDIN_FILENO);
}

TEST_F(ServerSocketTest, AConnectionAcceptedAsDescriptorZeroIsNoneAndTheNextOneIsServed) {
    Open(2);
    // The clients' own sockets must not take number 0: they are made before it is free.
    const CDescriptor before = CDescriptor::OpenSocket(SOCK_STREAM);
    const CDescriptor zero = CDescriptor::OpenSocket(SOCK_STREAM);
    const CDescriptor next = CDescriptor::OpenSocket(SOCK_STREAM);
    const CDescriptor saved(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100));
    ::close(STDIN_FILENO);
    // The system may have given the waiting accept its number already; then the one after it gets 0.
    const bool bFirst = IsServed(before.Get());
    const bool bSecond = IsServed(zero.Get());
    EXPECT_NE(bFirst, bSecond) << "one of them is not served and learns it";
    EXPECT_NE(::fcntl(STDIN_FILENO, F_GETFD), -1) << "the descriptor is not closed meanwhile";
    EXPECT_TRUE(IsServed(next.Get()));
    m_Server.Close();
    EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1) << "and does not leak";
    ::dup2(saved.Get(), STDIN_FILENO);
}

TEST_F(ServerSocketTest, ConnectionsNeverTakeStandardOutputsNumber) {
    Open(2);
    const CDescriptor before = CDescriptor::OpenSocket(SOCK_STREAM);
    const CDescriptor client = CDescriptor::OpenSocket(SOCK_STREAM);
    const CDescriptor saved(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100));
    ::close(STDOUT_FILENO);
    const bool bFirst = IsServed(before.Get());
    const bool bSecond = IsServed(client.Get());
    m_Server.Close();
    const bool bFree = ::fcntl(STDOUT_FILENO, F_GETFD) == -1;
    ::dup2(saved.Get(), STDOUT_FILENO);
    EXPECT_TRUE(bFirst);
    EXPECT_TRUE(bSecond);
    EXPECT_TRUE(bFree);
}

// ---- A process without descriptors

TEST_F(ServerSocketTest, AcceptingOutOfDescriptorsFreesCachedFiles) {
    TempFolder folder;
    LogCapture log;
    CaptureUtilities utilities(&log);
    CRuntimeParam param("test", 0);
    LogArgu tag{"test"};
    ASSERT_TRUE(m_Server.Open(100003, 0, 2, &utilities, m_vcReason)) << m_vcReason;
    const CDescriptor client = CDescriptor::OpenSocket(SOCK_STREAM);
    const CDescriptor second = CDescriptor::OpenSocket(SOCK_STREAM);
    for (int i = 0; i < 5; ++i) {
        const std::string sPath = folder / std::to_string(i);
        WriteWholeFile(sPath, "x");
        ASSERT_TRUE(utilities.GetCachedFileHandle(&param, &tag, sPath.c_str(), false).IsOpen());
    }
    const CDescriptor next(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));  // the lowest free number
    std::optional<SoftLimit> exhausted(std::in_place, RLIMIT_NOFILE, static_cast<rlim_t>(next.Get()) + 1);
    const bool bFirst = IsServed(client.Get());  // the system gave the waiting accept its number before
    const bool bSecond = IsServed(second.Get());
    exhausted.reset();
    EXPECT_TRUE(bFirst);
    EXPECT_TRUE(bSecond);
    m_Server.Close();
}

TEST_F(ServerSocketTest, AcceptingOutOfDescriptorsCostsNoProcessor) {
    Open(2);
    const CDescriptor first = CDescriptor::OpenSocket(SOCK_STREAM);
    const CDescriptor second = CDescriptor::OpenSocket(SOCK_STREAM);
    std::optional<SoftLimit> none(std::in_place, RLIMIT_NOFILE, 0);
    // The system may have given the waiting accept its number already: one of the two has to wait.
    std::thread client([&] { EXPECT_TRUE(IsServed(first.Get())); });
    std::thread other([&] { EXPECT_TRUE(IsServed(second.Get())); });
    const std::clock_t iUsedBefore = std::clock();
    std::this_thread::sleep_for(1s);  // the time that is measured
    const double fUsed = static_cast<double>(std::clock() - iUsedBefore) / CLOCKS_PER_SEC;
    none.reset();
    client.join();
    other.join();
    EXPECT_LT(fUsed, 0.1) << "seconds of processor time in one second";
    m_Server.Close();
}
