// One system call goes wrong while a server starts to serve: it says so, keeps nothing, and starts at the next try; or
// it serves all the same.
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Faults.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "OpenDescriptors.h"

namespace {

using testing::HasSubstr;

class StartFaultsTest : public testing::TestWithParam<SweptFault> {
protected:
    /// No call comes as often in one start.
    static constexpr int kMostCalls = 2000;

    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_pFaults = std::make_unique<Faults>(*m_pFolder / "faults");
        std::filesystem::create_directory(*m_pFolder / "export");
    }
    void TearDown() override {
        m_pServer.reset();
        m_pFaults.reset();
        m_pFolder.reset();
    }

    void StartConsole() {
        m_pServer = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "int", "-id", "srv"},
                                                     m_pFaults->Surroundings());
        ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
        m_pServer->Command("debug");
    }
    std::size_t CountDescriptors() const { return ::CountDescriptors(m_pServer->GetPid()); }
    /// A client can mount and list.
    void ExpectServed() {
        m_pServer->Command("mount " + (*m_pFolder / "export") + "=exp");
        NfsClient client;
        const std::string sRoot = client.Mnt("exp").value_or("");
        EXPECT_NE(sRoot, "");
        std::vector<std::string> vsNames;
        EXPECT_EQ(client.Readdir(sRoot, vsNames), 0U);
        client.Umnt("exp");
    }

private:
    LeakGuard m_Leaks;

protected:
    std::unique_ptr<TempFolder> m_pFolder;
    std::unique_ptr<Faults> m_pFaults;
    std::unique_ptr<ConsoleProcess> m_pServer;
};

TEST_P(StartFaultsTest, AServerThatCannotStartSaysSoAndStartsLater) {
    const SweptFault& start = GetParam();
    StartConsole();
    std::size_t nIdle = CountDescriptors();
    int nFailed = 0;
    bool bFired = true;
    for (int n = 1; bFired && n < kMostCalls; n += start.iStep) {
        SCOPED_TRACE("call " + std::to_string(n));
        m_pFaults->Arm(start.call, FaultKind::kError, start.iError, n);
        const std::string sAnswer = m_pServer->Command("start");
        bFired = m_pFaults->Disarm();
        ASSERT_TRUE(m_pServer->IsRunning()) << m_pServer->Output();
        if (sAnswer.find("Start NFS success") == std::string::npos) {
            EXPECT_THAT(sAnswer, HasSubstr("Fail to start NFS. "));
            ASSERT_TRUE(bFired) << "it failed, and nothing had gone wrong: " << sAnswer;
            EXPECT_EQ(CountDescriptors(), nIdle) << "a start that failed keeps something open";
            ++nFailed;
            continue;  // the next start is the second try, and goes further
        }
        ExpectServed();
        EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
        if (HasFailure()) {
            return;
        }
        StartConsole();
        nIdle = CountDescriptors();
    }
    EXPECT_GT(nFailed, 0) << "nothing kept it from starting";
    EXPECT_FALSE(bFired) << "not all calls were reached";
    EXPECT_THAT(m_pServer->Command("start"), HasSubstr("Start NFS success"));
    ExpectServed();
    EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
}

INSTANTIATE_TEST_SUITE_P(EachCall, StartFaultsTest,
                         testing::Values(SweptFault{"Sockets", FaultyCall::kConnect, FaultKind::kError, EADDRNOTAVAIL,
                                                    1},
                                         SweptFault{"Threads", FaultyCall::kThread, FaultKind::kError, EAGAIN, 1},
                                         SweptFault{"Buffers", FaultyCall::kMap, FaultKind::kError, ENOMEM, 7}),
                         [](const auto& start) { return std::string(start.param.pcName); });

}  // namespace
