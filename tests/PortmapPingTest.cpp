// Who listens where the portmapper is asked, and what he does with a call.
#include "PortmapPing.h"

#include <array>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "Isolation.h"
#include "LeakGuard.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kPath = "/run/rpcbind.sock";
constexpr int kPort = 111;
constexpr auto kShort = 200ms;
constexpr auto kLong = 60s;  // never waited for

class PortmapPingTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }
    void TearDown() override { ::unlink(kPath); }

    static CDescriptor ListenLocally(int nBacklog = 8) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, kPath, sizeof(address.sun_path) - 1);
        return Listen(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof(address), nBacklog);
    }
    static CDescriptor ListenOnPort111() {
        if (!CDescriptor(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)).IsOpen()) {
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            address.sin_port = htons(kPort);
            return Listen(AF_INET, reinterpret_cast<const sockaddr*>(&address), sizeof(address), 8);
        }
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
        address.sin6_port = htons(kPort);
        return Listen(AF_INET6, reinterpret_cast<const sockaddr*>(&address), sizeof(address), 8);
    }
    /// Takes one connection, and its call if there are bytes to answer with.
    static std::thread ServeOne(const CDescriptor& listener, const std::string& sAnswer, std::string* psCall) {
        return std::thread([iListener = listener.Get(), sAnswer, psCall] {
            const CDescriptor connection(::accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC));
            std::array<char, 44> call{};
            if (!sAnswer.empty()) {
                const ssize_t nCame = ::recv(connection.Get(), call.data(), call.size(), MSG_WAITALL);
                psCall->assign(call.data(), nCame > 0 ? static_cast<std::size_t>(nCame) : 0);
                EXPECT_GT(::send(connection.Get(), sAnswer.data(), sAnswer.size(), MSG_NOSIGNAL), 0);
            }
        });
    }

private:
    static CDescriptor Listen(int iFamily, const sockaddr* pAddress, socklen_t nSize, int nBacklog) {
        CDescriptor listener(::socket(iFamily, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::bind(listener.Get(), pAddress, nSize), 0) << errno;
        EXPECT_EQ(::listen(listener.Get(), nBacklog), 0) << errno;
        return listener;
    }

    LeakGuard m_Leaks;
};

TEST_F(PortmapPingTest, WhereNobodyListensNobodyIsSilent) {
    EXPECT_FALSE(CPortmapPing::IsSilent(kLong));
}

TEST_F(PortmapPingTest, AnyAnswerToProcedureNullIsOne) {
    const CDescriptor listener = ListenLocally();
    std::string sCall;
    std::thread server = ServeOne(listener, "?", &sCall);
    EXPECT_FALSE(CPortmapPing::IsSilent(kLong));
    server.join();
    const std::string sExpected(
        "\x80\0\0\x28\0\0\0\1\0\0\0\0\0\0\0\2\0\1\x86\xA0\0\0\0\3\0\0\0\0"
        "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0",
        44);
    EXPECT_EQ(sCall, sExpected);
}

TEST_F(PortmapPingTest, AConnectionThatIsClosedIsNotSilence) {
    const CDescriptor listener = ListenLocally();
    std::thread server = ServeOne(listener, "", nullptr);
    EXPECT_FALSE(CPortmapPing::IsSilent(kLong));
    server.join();
}

TEST_F(PortmapPingTest, OneThatTakesTheCallAndSaysNothingIsSilent) {
    const CDescriptor listener = ListenLocally();
    EXPECT_TRUE(CPortmapPing::IsSilent(kShort));
}

TEST_F(PortmapPingTest, OneWhoseBacklogIsTakenIsSilent) {
    const CDescriptor listener = ListenLocally(0);
    EXPECT_TRUE(CPortmapPing::IsSilent(kShort)) << "the first waits in the backlog";
    EXPECT_TRUE(CPortmapPing::IsSilent(kShort)) << "the second cannot connect";
}

TEST_F(PortmapPingTest, WithoutTheLocalSocketPort111IsAsked) {
    const CDescriptor listener = ListenOnPort111();
    EXPECT_TRUE(CPortmapPing::IsSilent(kShort));
    static_cast<void>(CDescriptor(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)));
    std::string sCall;
    std::thread server = ServeOne(listener, "?", &sCall);
    EXPECT_FALSE(CPortmapPing::IsSilent(kLong));
    server.join();
}

}  // namespace
