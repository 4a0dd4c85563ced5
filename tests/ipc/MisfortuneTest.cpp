// Processes that die, hang or swarm: the server goes on, and a client's wait ends.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>

#include <gtest/gtest.h>

#include "IpcPeer.h"
#include "IpcProcesses.h"
#include "WaitUntil.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class MisfortuneTest : public IpcProcesses {
protected:
    /// Exists while the endless command runs; with it the command ends.
    std::string Begun() const { return *m_pFolder / "begun"; }
    std::string EndlessCommand() const {
        return "touch " + Begun() + "; while [ -e " + Begun() + " ]; do sleep 0.05; done; echo late";
    }
    bool ServerAnswers() { return IpcExchange(kServerChannel, RawRequest(1, 16).Bytes()) == RawTextReply(5, "1.4"); }
};

TEST_F(MisfortuneTest, TheServersDeathEndsTheWaitOfARequest) {
    std::atomic<int> iResult{99};
    std::thread waiting([&] { iResult = m_pClient->ExecuteSystemCmd(EndlessCommand().c_str(), true); });
    EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(Begun()); })) << "the request is under way";
    m_pServer->Signal(SIGKILL);
    const auto start = steady_clock::now();
    waiting.join();
    EXPECT_EQ(iResult, -1);
    EXPECT_LT(steady_clock::now() - start, seconds(20));
    EXPECT_TRUE(m_pServer->Wait().has_value());
    char vcVersion[256];
    m_pClient->GetVersion(vcVersion);
    EXPECT_STREQ(vcVersion, "Unknown");

    // The next server takes the stale channel over, and the client goes on with it.
    m_pServer = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "svr", "-id", "srv"});
    ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
    m_pClient->GetVersion(vcVersion);
    EXPECT_STREQ(vcVersion, "1.4");
}

TEST_F(MisfortuneTest, AClientProcessThatIsKilledDuringItsRequestIsNobodysLoss) {
    {
        ConsoleProcess victim({"-md", "cli", "-id", "victim"});
        ASSERT_TRUE(victim.WaitForPrompt()) << victim.Output();
        victim.Command("debug");
        victim.Send("exec " + EndlessCommand() + "\n");
        EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(Begun()); })) << "the request is under way";
        victim.Signal(SIGKILL);
        EXPECT_TRUE(victim.Wait().has_value());
        std::filesystem::remove(Begun());
    }
    EXPECT_TRUE(ServerAnswers());
    EXPECT_EQ(m_pClient->GetMountInfo(false, false), 1);
    ::unlink("/tmp/nfs-victim");  // what a killed process leaves
}

TEST_F(MisfortuneTest, AHundredClientsAtOnceAllGetTheirLines) {
    constexpr int kClients = 100;
    struct Client {
        FakeHost host;
        std::unique_ptr<CNfsIpcClientMain> pMain;
        int nMounts = -1;
    };
    std::vector<std::unique_ptr<Client>> vClients;
    for (int i = 0; i < kClients; ++i) {
        vClients.push_back(std::make_unique<Client>());
        vClients.back()->pMain = std::make_unique<CNfsIpcClientMain>(("c" + std::to_string(i)).c_str(), 0);
        vClients.back()->pMain->SetCallback(vClients.back()->host.Callback());
        ASSERT_TRUE(vClients.back()->pMain->StartRemoteController(m_vcReason)) << m_vcReason;
    }
    std::vector<std::thread> vThreads;
    for (const auto& pClient : vClients) {
        vThreads.emplace_back([&pClient] { pClient->nMounts = pClient->pMain->GetMountInfo(false, true); });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    for (const auto& pClient : vClients) {
        EXPECT_EQ(pClient->nMounts, 1);
        EXPECT_EQ(pClient->host.Log().Lines().size(), 1U) << pClient->host.Log().Dump();
        pClient->pMain->StopRemoteController();
        pClient->pMain->SetCallback(nullptr);
    }
}

TEST_F(MisfortuneTest, HostileRecordsDoNotStopTheServer) {
    for (int iType = -1; iType <= 33; ++iType) {
        if (iType == 18 || iType == 22) {
            continue;  // would have everything logged, or end the server as it should
        }
        const std::string sRecord = RawRequest(iType, 4096).Text(16, std::string(4080, '\xff')).Bytes();
        EXPECT_GE(IpcExchange(kServerChannel, sRecord).size(), 20U) << "type " << iType;
    }
    EXPECT_TRUE(ServerAnswers());
    EXPECT_EQ(m_pClient->GetMountInfo(false, false), 1) << "the hostile one came and went";
}

/// The stated limit, in real time: a receiver that took the notification and never answers.
TEST_F(MisfortuneTest, AReceiverThatHangsHoldsAWriteForThirtySecondsAndNoLonger) {
    TempFolder folder;
    const std::string sPath = folder / "file";
    WriteWholeFile(sPath, "");
    FakeIpcServer hanging("/tmp/nfs-hanging", [](const std::string&) { return RawIntReply(5); });
    hanging.Hang();
    ASSERT_EQ(IpcExchange(kServerChannel,
                          RawRequest(5, 1552).Text(16, folder.Path()).Text(1040, "hung").Text(1296, "hanging").Bytes()),
              RawBoolReply(true));
    m_pClient->OpenRedirectedFile(sPath.c_str(), 1000, false, 0, 0);
    NfsClient nfs;
    const std::string sRoot = nfs.Mnt("hung").value_or("");
    std::string sHandle;
    ASSERT_EQ(nfs.Lookup(sRoot, "file", sHandle), 0U);

    const std::string sArguments = XdrBuilder().Opaque(sHandle).U64(0).U32(5).U32(2).Opaque("hello").Bytes();
    RpcCall call;
    call.iProgram = kNfsProgram;
    call.iProcedure = kNfsWrite;
    call.sArguments = sArguments;
    const auto start = steady_clock::now();
    nfs.Nfs().Send(call.Bytes(nfs.Nfs().GetTransport()));
    ASSERT_TRUE(hanging.WaitForMessages(1));
    EXPECT_EQ(I32At(hanging.Messages()[0], 4), 5) << "a write notification";
    EXPECT_TRUE(ServerAnswers()) << "the remote control does not wait for it";
    EXPECT_LT(steady_clock::now() - start, seconds(20));
    const RpcReply reply = nfs.Nfs().ReceiveReply(seconds(90));
    const auto waited = steady_clock::now() - start;
    EXPECT_EQ(WordAt(reply.sBody, 0), 22U) << "the write failed";
    EXPECT_GE(waited, seconds(30));
    EXPECT_LT(waited, seconds(60));
}

}  // namespace
