// A console that steers a server, whose own transfers over the local sockets fail or are cut short: what is cut short
// comes whole all the same, what fails is said, and the next command works.
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Faults.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "ServerHoldings.h"
#include "TempFolder.h"

namespace {

using testing::HasSubstr;

class RemoteControlFaultsTest : public testing::TestWithParam<SweptFault> {
protected:
    static constexpr int kMostCalls = 200;

    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_pFaults = std::make_unique<Faults>(*m_pFolder / "faults");
        m_pServer = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "svr", "-id", "srv"});
        ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
        m_pConsole = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "cli", "-id", "far"},
                                                      m_pFaults->Surroundings());
        ASSERT_TRUE(m_pConsole->WaitForPrompt()) << m_pConsole->Output();
        m_pConsole->Command("debug");
        m_pConsole->Command("start");
        m_pConsole->Command("mount " + m_pFolder->Path() + "=exp");
    }
    void TearDown() override {
        m_pConsole.reset();
        if (m_pServer && m_pServer->IsRunning()) {
            EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
        }
        m_pServer.reset();
        m_pFaults.reset();
        m_pFolder.reset();
    }

private:
    LeakGuard m_Leaks;

protected:
    std::unique_ptr<TempFolder> m_pFolder;
    std::unique_ptr<Faults> m_pFaults;
    std::unique_ptr<ConsoleProcess> m_pServer;
    std::unique_ptr<ConsoleProcess> m_pConsole;
};

TEST_P(RemoteControlFaultsTest, CommandIsAnsweredWholeOrRefusedAndTheNextOneWorks) {
    const SweptFault& transfer = GetParam();
    const std::string sAnswer = m_pConsole->Command("status");
    ASSERT_THAT(sAnswer, HasSubstr(m_pFolder->Path() + " : exp"));
    const Holdings serverBefore = ReadHoldings(m_pServer->GetPid());
    const Holdings consoleBefore = ReadHoldings(m_pConsole->GetPid());
    bool bFired = true;
    int n = 1;
    for (; bFired && n < kMostCalls; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        m_pFaults->Arm(transfer.call, transfer.kind, transfer.iError, n);
        const std::string sDisturbed = m_pConsole->Command("status");
        bFired = m_pFaults->Disarm();
        ASSERT_TRUE(m_pConsole->IsRunning()) << m_pConsole->Output();
        if (transfer.kind == FaultKind::kShort) {
            EXPECT_EQ(sDisturbed, sAnswer);
        }
        ASSERT_EQ(m_pConsole->Command("status"), sAnswer);
    }
    EXPECT_GT(n, 2) << "nothing went wrong at all";
    EXPECT_FALSE(bFired) << "not all calls were reached";
    ExpectHoldingsWithin(m_pServer->GetPid(), serverBefore);
    ExpectHoldingsWithin(m_pConsole->GetPid(), consoleBefore);
    EXPECT_EQ(m_pConsole->Quit(), 0) << m_pConsole->Output();
}

INSTANTIATE_TEST_SUITE_P(EachCall, RemoteControlFaultsTest,
                         testing::Values(SweptFault{"ShortSend", FaultyCall::kSend, FaultKind::kShort, 0},
                                         SweptFault{"ShortReceive", FaultyCall::kReceive, FaultKind::kShort, 0},
                                         SweptFault{"Send", FaultyCall::kSend, FaultKind::kError, EPIPE},
                                         SweptFault{"Receive", FaultyCall::kReceive, FaultKind::kError, ECONNRESET}),
                         [](const auto& transfer) { return std::string(transfer.param.pcName); });

}  // namespace
