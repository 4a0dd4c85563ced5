// Two servers that are started in the same moment for the same ports, in one process and in two: at most one serves,
// the other says why not and leaves nothing open, and afterwards each of them can be started by itself.
#include <barrier>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Isolation.h"
#include "NfsIpcServerMain.h"
#include "ServerFixture.h"

namespace {

constexpr int kRounds = 20;

class TwoServersAtOnceTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

private:
    LeakGuard m_Leaks;
};

bool IsServed() {
    try {
        return RpcClient(Transport::kTcp, 2049).Call(kNfsProgram, 3, kNfsNull, "").iAcceptStatus == kAcceptSuccess;
    } catch (const std::runtime_error&) {
        return false;
    }
}

TEST_F(TwoServersAtOnceTest, InOneProcessAtMostOneServesAndTheOtherHarmsItNot) {
    LogCapture log;
    CapturingNfsMain vServers[] = {{"one", CRuntimeParam::kLogError, &log}, {"two", CRuntimeParam::kLogError, &log}};
    bool vbStarted[2] = {};
    char vcReasons[2][kReasonBufferSize] = {};
    for (CapturingNfsMain& server : vServers) {
        ASSERT_TRUE(server.Initial(vcReasons[0]));
    }
    int nServed = 0;
    for (int iRound = 0; iRound < kRounds; ++iRound) {
        std::barrier together(2);
        const auto start = [&](int i) {
            together.arrive_and_wait();
            vbStarted[i] = vServers[i].StartServer(0, 0, 0, 0, false, vcReasons[i]);
        };
        std::thread other(start, 1);
        start(0);
        other.join();
        ASSERT_FALSE(vbStarted[0] && vbStarted[1]);
        EXPECT_EQ(IsServed(), vbStarted[0] || vbStarted[1]) << vcReasons[0] << "\n" << vcReasons[1];
        for (int i = 0; i < 2; ++i) {
            nServed += vbStarted[i] ? 1 : 0;
            EXPECT_EQ(vServers[i].IsServerRunning(), vbStarted[i]);
            EXPECT_TRUE(vbStarted[i] || vcReasons[i][0] != '\0' || !vServers[i].GetStartFailure().empty());
            vServers[i].StopServer();
        }
        EXPECT_FALSE(IsServed());
    }
    EXPECT_GT(nServed, 0);
    for (CapturingNfsMain& server : vServers) {
        EXPECT_TRUE(server.StartServer(0, 0, 0, 0, false, vcReasons[0])) << vcReasons[0];
        EXPECT_TRUE(IsServed());
        server.StopServer();
        server.Terminate();
    }
}

TEST_F(TwoServersAtOnceTest, InTwoProcessesAtMostOneServes) {
    ConsoleProcess one({"-md", "int", "-id", "one"});
    ConsoleProcess two({"-md", "int", "-id", "two"});
    ConsoleProcess* vpConsoles[] = {&one, &two};
    for (ConsoleProcess* pConsole : vpConsoles) {
        ASSERT_TRUE(pConsole->WaitForPrompt()) << pConsole->Output();
        pConsole->Command("debug");
    }
    for (ConsoleProcess* pConsole : vpConsoles) {
        pConsole->Send("start\n");
    }
    int nStarted = 0;
    for (ConsoleProcess* pConsole : vpConsoles) {
        ASSERT_TRUE(pConsole->WaitFor("tart NFS")) << pConsole->Output();  // it failed to, or it says success
        ASSERT_TRUE(pConsole->WaitForPrompt()) << pConsole->Output();
        nStarted += pConsole->Output().find("Start NFS success") != std::string::npos ? 1 : 0;
    }
    EXPECT_LE(nStarted, 1) << one.Output() << two.Output();
    EXPECT_EQ(IsServed(), nStarted == 1);
    EXPECT_EQ(one.Quit(), 0);
    EXPECT_EQ(two.IsRunning(), true);
    two.Send("start\n");  // refused if it runs already
    ASSERT_TRUE(two.WaitForPrompt()) << two.Output();
    EXPECT_TRUE(IsServed()) << two.Output();
    EXPECT_EQ(two.Quit(), 0);
    EXPECT_FALSE(IsServed());
}

// The socket file of the first is not replaced by that of the second.
TEST_F(TwoServersAtOnceTest, OfTwoThatTakeTheControlSocketOneHasIt) {
    CNfsIpcServerMain vServers[] = {{"one", 0}, {"two", 0}};
    char vcReasons[2][kReasonBufferSize] = {};
    for (CNfsIpcServerMain& server : vServers) {
        ASSERT_TRUE(server.Initial(vcReasons[0]));
    }
    for (int iRound = 0; iRound < 10 * kRounds; ++iRound) {
        bool vbStarted[2] = {};
        std::barrier together(2);
        const auto start = [&](int i) {
            together.arrive_and_wait();
            vbStarted[i] = vServers[i].StartRemoteController(vcReasons[i]);
        };
        std::thread other(start, 1);
        start(0);
        other.join();
        ASSERT_NE(vbStarted[0], vbStarted[1]) << "round " << iRound;
        EXPECT_STREQ(vcReasons[vbStarted[0] ? 1 : 0], "Ipc channel is already created by others.");
        for (CNfsIpcServerMain& server : vServers) {
            server.StopRemoteController();
        }
    }
    for (CNfsIpcServerMain& server : vServers) {
        server.Terminate();
    }
}

// With the control socket there is one who decides: the first. The second ends, and says so.
TEST_F(TwoServersAtOnceTest, OfTwoExternalServersOneIsThere) {
    for (int iRound = 0; iRound < 3; ++iRound) {
        ConsoleProcess one({"-md", "svr", "-id", "one"});
        ConsoleProcess two({"-md", "svr", "-id", "two"});
        const bool bOne = one.WaitForPrompt();
        const bool bTwo = two.WaitForPrompt();
        EXPECT_NE(bOne, bTwo) << one.Output() << two.Output();
        ConsoleProcess& winner = bOne ? one : two;
        ConsoleProcess& loser = bOne ? two : one;
        EXPECT_TRUE(loser.Wait().value_or(0) != 0) << loser.Output();
        const RunResult query = RunProgram({ConsoleProcess::ProgramPath(), "-query", "-id", "asker"});
        EXPECT_EQ(query.iStatus, 0) << query.sOutput;
        EXPECT_THAT(query.sOutput, testing::HasSubstr("Server"));
        EXPECT_EQ(winner.Quit(), 0);
    }
}

}  // namespace
