// A system portmapper registers some of what the server asks it to, refuses the rest, or hangs.
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FakeRpcbind.h"
#include "Faults.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "OpenDescriptors.h"
#include "TempFolder.h"

namespace {

using testing::HasSubstr;
using Service = FakeRpcbind::Service;

constexpr int kNfsPort = 2050;  // beside a system portmapper the next ones are taken
constexpr int kMountPort = 1059;
/// Far above the limit on the wait, for a loaded machine; far below the minute that the library waits for each reply.
constexpr std::chrono::seconds kSoon{15};
const std::set<Service> kAll = {
    {kNfsProgram, "udp"}, {kNfsProgram, "tcp"}, {kMountProgram, "udp"}, {kMountProgram, "tcp"}};

class RegistrationTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_pPortmapper = std::make_unique<FakeRpcbind>();
    }
    void TearDown() override {
        m_pServer.reset();
        m_pPortmapper.reset();
        m_pFolder.reset();
    }

    void StartConsole() {
        m_pServer = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "int", "-id", "srv"});
        ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
        m_pServer->Command("debug");
    }
    std::size_t CountDescriptors() const { return ::CountDescriptors(m_pServer->GetPid()); }
    void ExpectServed() {
        m_pServer->Command("mount " + m_pFolder->Path() + "=exp");
        NfsClient client(Transport::kTcp, "127.0.0.1", kNfsPort, kMountPort);
        EXPECT_TRUE(client.Mnt("exp").has_value());
        client.Umnt("exp");
    }

private:
    LeakGuard m_Leaks;

protected:
    std::unique_ptr<TempFolder> m_pFolder;
    std::unique_ptr<FakeRpcbind> m_pPortmapper;
    std::unique_ptr<ConsoleProcess> m_pServer;
};

TEST_F(RegistrationTest, StartThatIsRefusedOneOfThemKeepsNoneAndTheNextOneServes) {
    for (const Service& refused : kAll) {
        SCOPED_TRACE(std::to_string(refused.first) + " " + refused.second);
        StartConsole();
        const std::size_t nIdle = CountDescriptors();
        m_pPortmapper->Refuse(refused);
        EXPECT_THAT(m_pServer->Command("start"), HasSubstr("Fail to start NFS. "));
        EXPECT_EQ(m_pPortmapper->GetRegistered(), std::set<Service>{});
        EXPECT_EQ(CountDescriptors(), nIdle);
        EXPECT_THROW(RpcClient(Transport::kTcp, kNfsPort), std::runtime_error);
        EXPECT_THROW(RpcClient(Transport::kTcp, kMountPort), std::runtime_error);

        m_pPortmapper->Refuse(std::nullopt);
        EXPECT_THAT(m_pServer->Command("start"), HasSubstr("Start NFS success"));
        EXPECT_EQ(m_pPortmapper->GetRegistered(), kAll);
        ExpectServed();
        EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
        EXPECT_EQ(m_pPortmapper->GetRegistered(), std::set<Service>{});
    }
}

TEST_F(RegistrationTest, StartWithOneThatHangsFailsSoonAndKeepsNothing) {
    StartConsole();
    const std::size_t nIdle = CountDescriptors();
    m_pPortmapper->Hang(true);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(m_pServer->Command("start"), HasSubstr("Fail to start NFS. "));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSoon);
    EXPECT_EQ(CountDescriptors(), nIdle);
    EXPECT_THROW(RpcClient(Transport::kTcp, kNfsPort), std::runtime_error);

    m_pPortmapper->Hang(false);
    EXPECT_THAT(m_pServer->Command("start"), HasSubstr("Start NFS success"));
    EXPECT_EQ(m_pPortmapper->GetRegistered(), kAll);
    ExpectServed();
    EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
}

TEST_F(RegistrationTest, EndWithOneThatHangsComesSoonAndTheNextStartReplacesWhatStayed) {
    StartConsole();
    EXPECT_THAT(m_pServer->Command("start"), HasSubstr("Start NFS success"));
    m_pPortmapper->Hang(true);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSoon);
    EXPECT_EQ(m_pPortmapper->GetRegistered(), kAll) << "what cannot be told stays";

    m_pPortmapper->Hang(false);
    StartConsole();
    EXPECT_THAT(m_pServer->Command("start"), HasSubstr("Start NFS success"));
    EXPECT_EQ(m_pPortmapper->GetRegistered(), kAll);
    ExpectServed();
    EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
    EXPECT_EQ(m_pPortmapper->GetRegistered(), std::set<Service>{});
}

}  // namespace
