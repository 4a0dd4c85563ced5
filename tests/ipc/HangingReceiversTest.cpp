// Remote parties that hang, stop, go on or begin again: what the NFS clients of others notice of it, and how long.
//
// The server runs in the test's process, so that its time limit can be short. Limits are loose for a loaded machine,
// but tell waiting from not waiting: each is well below what it would be with a wait more.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FakeHost.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "TempFolder.h"
#include "UtilitiesIpcServer.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kInvalid = 22;
constexpr char kOwnerChannel[] = "/tmp/nfs-owner";
constexpr seconds kTimeout{5};
constexpr int kAllLogBits = 1023;

milliseconds Elapsed(steady_clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

/// A server with an export of the remote party "owner", in which a redirected file lies, and an export of its own.
class HangingReceiversTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pOwned = std::make_unique<TempFolder>();
        m_pFree = std::make_unique<TempFolder>();
        m_pServer = std::make_unique<CNfsIpcServerMain>("srv", 0);
        m_pServer->SetCallback(m_Host.Callback());
        SetTimeout(kTimeout);
        char vcReason[kReasonBufferSize] = "";
        ASSERT_TRUE(m_pServer->Initial(vcReason)) << vcReason;
        ASSERT_TRUE(m_pServer->StartRemoteController(vcReason)) << vcReason;
        ASSERT_TRUE(m_pServer->StartServer(0, 0, 0, 0, false, vcReason)) << vcReason;
        ASSERT_TRUE(m_pServer->AddMountPoint(m_pOwned->Path().c_str(), "owned", "owner", vcReason)) << vcReason;
        ASSERT_TRUE(m_pServer->AddMountPoint(m_pFree->Path().c_str(), "free", vcReason)) << vcReason;
        WriteWholeFile(*m_pOwned / "disk", "");
        m_pServer->OpenRedirectedFile((*m_pOwned / "disk").c_str(), 1000, false, 0, 0);
        m_pOwnersClient = std::make_unique<NfsClient>();
        ASSERT_EQ(m_pOwnersClient->Lookup(m_pOwnersClient->Mnt("owned").value_or(""), "disk", m_sDisk), kOk);
        m_pOther = std::make_unique<NfsClient>();
        m_sFree = m_pOther->Mnt("free").value_or("");
    }

    void TearDown() override {
        m_pOwnersClient.reset();
        m_pOther.reset();
        if (m_pServer) {
            m_pServer->StopServer();
            m_pServer->StopRemoteController();
            m_pServer->Terminate();
            m_pServer->SetCallback(nullptr);
            m_pServer.reset();
        }
        m_pFree.reset();
        m_pOwned.reset();
    }

    void SetTimeout(milliseconds timeout) {
        dynamic_cast<CUtilitiesIpcServer&>(*m_pServer->GetUtilities()).SetCallbackTimeout(timeout);
    }
    static std::unique_ptr<FakeIpcServer> MakeOwner() {
        return std::make_unique<FakeIpcServer>(kOwnerChannel, [](const std::string& sMessage) {
            return I32At(sMessage, 4) == 1 ? RawBoolReply(true) : RawIntReply(1);
        });
    }
    std::uint32_t Write() {
        std::uint32_t iCount = 0;
        return m_pOwnersClient->Write(m_sDisk, 0, "x", iCount);
    }
    /// As one segment, so that they are one batch to the server.
    void SendWrites(int nCalls) {
        std::string sCalls;
        for (int i = 0; i < nCalls; ++i) {
            RpcCall call;
            call.iXid = 0x7000U + static_cast<std::uint32_t>(i);
            call.iProgram = kNfsProgram;
            call.iProcedure = kNfsWrite;
            call.sArguments = XdrBuilder().Opaque(m_sDisk).U64(0).U32(1).U32(2).Opaque("x").Bytes();
            sCalls += call.Bytes(Transport::kTcp);
        }
        m_pOwnersClient->Nfs().Send(sCalls);
    }
    milliseconds TimeOfGetattr() {
        const auto start = steady_clock::now();
        Fattr3 attributes;
        EXPECT_EQ(m_pOther->Getattr(m_sFree, attributes), kOk);
        return Elapsed(start);
    }
    /// How often a console that logs what it is sent has been asked about a write.
    static std::size_t TimesAsked(ConsoleProcess& console) {
        console.Unread();
        const std::string& sOutput = console.Output();
        std::size_t nAsked = 0;
        for (std::size_t i = sOutput.find(kAsked); i != std::string::npos; i = sOutput.find(kAsked, i + 1)) {
            ++nAsked;
        }
        return nAsked;
    }
    static std::unique_ptr<ConsoleProcess> MakeOwningConsole() {
        auto pConsole = std::make_unique<ConsoleProcess>(
            std::vector<std::string>{"-md", "cli", "-id", "owner", "-log", std::to_string(CRuntimeParam::kLogIpc)});
        EXPECT_TRUE(pConsole->WaitForPrompt()) << pConsole->Output();
        return pConsole;
    }
    /// Stops a process, and waits until all of it has stopped.
    static void Stop(ConsoleProcess& console) {
        console.Signal(SIGSTOP);
        siginfo_t info{};
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(console.GetPid()), &info, WSTOPPED | WNOWAIT), 0);
    }
    static constexpr const char* kAsked = "Callback action group (type = 5";

private:
    LeakGuard m_Leaks;

protected:
    FakeHost m_Host;
    std::unique_ptr<TempFolder> m_pOwned, m_pFree;
    std::unique_ptr<CNfsIpcServerMain> m_pServer;
    std::unique_ptr<NfsClient> m_pOwnersClient, m_pOther;
    std::string m_sDisk, m_sFree;
};

TEST_F(HangingReceiversTest, PipelinedCallsToOneThatHangsHoldUpOthersOnce) {
    const auto pOwner = MakeOwner();
    pOwner->Hang();
    SendWrites(3);
    ASSERT_TRUE(pOwner->WaitForMessages(1));
    EXPECT_LT(TimeOfGetattr(), 2 * kTimeout) << "three calls would be three times the limit";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(WordAt(m_pOwnersClient->Nfs().ReceiveReply(seconds(60)).sBody, 0), kInvalid);
    }
    const auto start = steady_clock::now();
    SendWrites(50);
    EXPECT_LT(TimeOfGetattr(), kTimeout) << "known to be silent";
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(WordAt(m_pOwnersClient->Nfs().ReceiveReply(seconds(60)).sBody, 0), kInvalid);
    }
    EXPECT_LT(Elapsed(start), 2 * kTimeout);
    EXPECT_EQ(pOwner->Messages().size(), 1U);
}

TEST_F(HangingReceiversTest, LogLinesForOneThatHangsHoldUpNobody) {
    const auto pOwner = MakeOwner();
    pOwner->Hang();
    SetTimeout(CUtilitiesIpcServer::kCallbackTimeout);
    m_pServer->SetLogControl(kAllLogBits);
    Fattr3 attributes;
    const auto start = steady_clock::now();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(m_pOwnersClient->Getattr(m_sDisk, attributes), kOk);
        EXPECT_LT(TimeOfGetattr(), seconds(10)) << "the first line alone would be 30 s";
    }
    EXPECT_LT(Elapsed(start), seconds(25));
    EXPECT_TRUE(pOwner->WaitForMessages(1));
    m_pServer->SetLogControl(0);
}

/// An export may outlive the process that added it for as long as it likes.
TEST_F(HangingReceiversTest, LinesForOneThatIsGoneAreCountedAndItIsToldWhenItIsBack) {
    constexpr int kCalls = 50;
    m_pServer->SetLogControl(kAllLogBits);
    Fattr3 attributes;
    for (int i = 0; i < kCalls; ++i) {
        EXPECT_EQ(m_pOwnersClient->Getattr(m_sDisk, attributes), kOk);
    }
    EXPECT_EQ(Write(), kInvalid) << "the question is tried, and fails at once";
    const auto countFailures = [this] {
        const std::vector<std::string> vsTexts = m_Host.Log().Texts('e');
        return std::count_if(vsTexts.begin(), vsTexts.end(), [](const std::string& sText) {
            return sText.find("Fail to connect ipc client socket.") != std::string::npos;
        });
    };
    EXPECT_TRUE(WaitUntil([&] { return countFailures() >= 2; }));
    EXPECT_EQ(countFailures(), 2) << "of the first line, and of the question";
    const auto pOwner = MakeOwner();
    EXPECT_EQ(m_pOwnersClient->Getattr(m_sDisk, attributes), kOk);
    ASSERT_TRUE(pOwner->WaitForMessages(1));
    const std::string sFirst = TextAt(pOwner->Messages().front(), 272, 2048);
    const std::string sBeginning = "[UtilitiesIpcServer.SendLogMessage] Dropped ";
    ASSERT_TRUE(sFirst.starts_with(sBeginning)) << sFirst;
    EXPECT_GT(std::stoi(sFirst.substr(sBeginning.size())), kCalls);
    m_pServer->SetLogControl(0);
}

TEST_F(HangingReceiversTest, AProcessThatWasStoppedAndGoesOnIsAskedAgain) {
    const auto pConsole = MakeOwningConsole();
    EXPECT_EQ(Write(), kInvalid) << "a console has no host that could agree";
    ASSERT_TRUE(pConsole->WaitFor(kAsked));
    SetTimeout(seconds(2));
    Stop(*pConsole);
    const auto start = steady_clock::now();
    EXPECT_EQ(Write(), kInvalid);
    EXPECT_GE(Elapsed(start), seconds(2));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(Write(), kInvalid);
    }
    EXPECT_LT(Elapsed(start), seconds(30)) << "twenty waits would be 40 s";
    pConsole->Signal(SIGCONT);
    ASSERT_TRUE(pConsole->WaitFor(kAsked)) << "the one that was under way";
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_EQ(Write(), kInvalid);
        return TimesAsked(*pConsole) >= 3;
    }));
    EXPECT_EQ(pConsole->Quit(), 0);
}

TEST_F(HangingReceiversTest, AProcessThatWasStartedAgainIsAskedAtOnce) {
    auto pConsole = MakeOwningConsole();
    SetTimeout(seconds(2));
    Stop(*pConsole);
    EXPECT_EQ(Write(), kInvalid);
    pConsole->Signal(SIGKILL);
    ASSERT_TRUE(pConsole->Wait());
    pConsole = MakeOwningConsole();
    EXPECT_EQ(Write(), kInvalid);
    EXPECT_TRUE(pConsole->WaitFor(kAsked)) << pConsole->Output();
    EXPECT_EQ(pConsole->Quit(), 0);
}

/// They are gone, though the threads that serve them wait for the call in progress and cannot leave.
TEST_F(HangingReceiversTest, PeersThatGiveUpDuringAStallDoNotCountTowardsTheLimit) {
    const auto pOwner = MakeOwner();
    pOwner->Hang();
    SetTimeout(CUtilitiesIpcServer::kCallbackTimeout);
    SendWrites(1);
    ASSERT_TRUE(pOwner->WaitForMessages(1));
    RpcCall call;
    for (int i = 0; i < 2 * CNfsMain::kMaxMountConnections; ++i) {
        call.iProgram = kMountProgram;
        call.iProcedure = kMountMnt;
        call.sArguments = XdrBuilder().Opaque("free").Bytes();
        RpcClient(Transport::kTcp, 1058).Send(call.Bytes(Transport::kTcp));
    }
    for (int i = 0; i < 2 * CNfsMain::kMaxNfsConnections; ++i) {
        call.iProgram = kNfsProgram;
        call.iProcedure = kNfsGetattr;
        call.sArguments = XdrBuilder().Opaque(m_sFree).Bytes();
        RpcClient(Transport::kTcp, 2049).Send(call.Bytes(Transport::kTcp));
    }
    pOwner->Recover();
    EXPECT_EQ(WordAt(m_pOwnersClient->Nfs().ReceiveReply().sBody, 0), kOk);
    NfsClient late;
    EXPECT_EQ(late.Mount().Call(kMountProgram, 3, kMountNull, "").iReplyStatus, 0U);
    Fattr3 attributes;
    EXPECT_EQ(late.Getattr(m_sFree, attributes), kOk);
}

TEST_F(HangingReceiversTest, ReadersThatAreSlowOrStandStillDelayNeitherOthersNorAStop) {
    constexpr std::uint32_t kBlock = 65536;
    WriteWholeFile(*m_pFree / "big", std::string(kBlock, 'b'));
    RpcCall call;
    call.iProgram = kNfsProgram;
    call.iProcedure = kNfsRead;
    std::string sBig;
    ASSERT_EQ(m_pOther->Lookup(m_sFree, "big", sBig), kOk);
    call.sArguments = XdrBuilder().Opaque(sBig).U64(0).U32(kBlock).Bytes();
    std::string sCalls;
    for (int i = 0; i < 256; ++i) {
        sCalls += call.Bytes(Transport::kTcp);
    }
    RpcClient still(Transport::kTcp, 2049);
    still.Send(sCalls);
    RpcClient slow(Transport::kTcp, 2049);
    slow.Send(sCalls);
    std::atomic<bool> bStopped{false};
    std::thread reading([&] {
        try {
            while (!bStopped) {
                slow.ReceiveBytes(kBlock / 2);
                std::this_thread::sleep_for(milliseconds(100));
            }
        } catch (const std::runtime_error&) {
            // the stop may reset the connection
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_LT(TimeOfGetattr(), seconds(2)) << "what is sent takes a minute, and five seconds without progress";
    }
    const auto start = steady_clock::now();
    m_pServer->StopServer();
    EXPECT_LT(Elapsed(start), seconds(4));
    bStopped = true;
    reading.join();
}

TEST_F(HangingReceiversTest, StoppingDoesNotWaitForOneThatHangs) {
    const auto pOwner = MakeOwner();
    pOwner->Hang();
    SetTimeout(CUtilitiesIpcServer::kCallbackTimeout);
    SendWrites(3);
    ASSERT_TRUE(pOwner->WaitForMessages(1));
    const auto start = steady_clock::now();
    m_pServer->StopServer();
    EXPECT_LT(Elapsed(start), seconds(15)) << "the answer would be waited for 30 s";
}

TEST_F(HangingReceiversTest, StoppingDoesNotWaitForARequesterThatTakesNoLines) {
    const auto pOwner = MakeOwner();
    pOwner->Hang();
    SetTimeout(CUtilitiesIpcServer::kCallbackTimeout);
    IpcConnection request("/tmp/nfs-server");
    ASSERT_TRUE(request.Send(RawRequest(19, 276).Text(16, "owner").Byte(273, 1).Bytes()));
    ASSERT_TRUE(pOwner->WaitForMessages(1));
    const auto start = steady_clock::now();
    m_pServer->StopRemoteController();
    EXPECT_LT(Elapsed(start), seconds(15));
    EXPECT_EQ(request.ReceiveAll(), RawIntReply(2)) << "a request under way is answered";
}

/// More lines than the queue holds, to one that is slow in taking them.
TEST_F(HangingReceiversTest, ARequesterGetsAllItsLinesBeforeTheReply) {
    constexpr int kLines = 6000;
    CNfsIpcClientMain client("client", 0);
    FakeHost host;
    client.SetCallback(host.Callback());
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(client.StartRemoteController(vcReason)) << vcReason;
    CRuntimeParam param("client", 0);
    const std::string sCommand = "seq 1 " + std::to_string(kLines);
    EXPECT_EQ(client.ExecuteSystemCmd(&param, sCommand.c_str(), true), 0);
    const std::vector<std::string> vsTexts = host.Log().Texts('r');
    std::string sAll;
    for (const std::string& sText : vsTexts) {
        sAll += sText;
    }
    std::string sExpected;
    for (int i = 1; i <= kLines; ++i) {
        sExpected += std::to_string(i) + "\n";
    }
    EXPECT_NE(sAll.find(sExpected), std::string::npos) << vsTexts.size() << " lines";
    client.StopRemoteController();
    client.SetCallback(nullptr);
}

/// A host that has a listing made before it answers takes the lines afterwards.
TEST_F(HangingReceiversTest, AListingFromWithinANotificationHoldsUpTheAnswerShortly) {
    SetTimeout(CUtilitiesIpcServer::kCallbackTimeout);
    CNfsIpcClientMain owner("owner", 0);
    FakeHost host;
    host.Log().SetHost([&owner](const Notification&) { return owner.GetMountInfo(false, true) == 2 ? 1 : -1; });
    owner.SetCallback(host.Callback());
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(owner.StartRemoteController(vcReason)) << vcReason;
    const auto start = steady_clock::now();
    EXPECT_EQ(Write(), kOk);
    EXPECT_LT(Elapsed(start), seconds(20)) << "the lines could only come after 30 s";
    EXPECT_TRUE(WaitUntil([&] { return host.Log().Texts('r').size() == 2; })) << host.Log().Dump();
    owner.StopRemoteController();
    owner.SetCallback(nullptr);
}

}  // namespace
