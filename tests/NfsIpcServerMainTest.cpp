// The external server's channel: who may open it, what is said about it, and client and server together.
#include "NfsIpcServerMain.h"

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "FileLogger.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "LogCapture.h"
#include "NfsIpcClientMain.h"
#include "TempFolder.h"
#include "UtilitiesIpcServer.h"
#include "WaitUntil.h"

namespace {

using Lines = std::vector<std::string>;

constexpr char kServerChannel[] = "/tmp/nfs-server";

bool Exists(const std::string& sPath) {
    struct stat info {};
    return ::lstat(sPath.c_str(), &info) == 0;
}

class NfsIpcServerMainTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    LeakGuard m_Leaks;
    char m_vcReason[kReasonBufferSize] = "";
};

// ---- IDs

template <typename Controller>
std::string InitialReason(const char* pcID) {
    Controller controller(pcID, 0);
    char vcReason[kReasonBufferSize] = "";
    if (controller.Initial(vcReason)) {
        controller.Terminate();
        return "(no failure)";
    }
    return vcReason;
}

TEST_F(NfsIpcServerMainTest, IDsThatCannotNameAChannelAreRefusedByBothControllers) {
    const std::vector<std::pair<const char*, std::string>> vCases = {
        {"server", "Cannot use \"server\" as ID"},
        {"a/b", "Invalid char \"/\" inside ID"},
        {"a b", "Invalid char \" \" inside ID"},
        {" ", "Invalid char \" \" inside ID"},
        {"", "ID is not defined"},
        {nullptr, "ID is not defined"},
        {"Server", "(no failure)"},
        {"servers", "(no failure)"},
        {"a.b-c", "(no failure)"},
    };
    for (const auto& [pcID, sReason] : vCases) {
        EXPECT_EQ(InitialReason<CNfsIpcServerMain>(pcID), sReason);
        EXPECT_EQ(InitialReason<CNfsIpcClientMain>(pcID), sReason);
    }
}

// ---- The channel

TEST_F(NfsIpcServerMainTest, TellsWhatItIs) {
    CNfsIpcServerMain server("srv", 0);
    char cText[256];
    EXPECT_EQ(server.GetAccessMode(), 1);
    server.GetVersion(cText);
    EXPECT_STREQ(cText, "1.4");
    server.GetDescription(cText);
    EXPECT_STREQ(cText, "External NFS Server");
    server.GetIpcServerThreadChannel(cText);
    EXPECT_STREQ(cText, kServerChannel);
}

TEST_F(NfsIpcServerMainTest, ListensFromStartToStop) {
    CNfsIpcServerMain server("srv", 0);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(server.StartRemoteController(m_vcReason)) << m_vcReason;
        EXPECT_TRUE(server.StartRemoteController(m_vcReason)) << "a second start is no failure";
        EXPECT_EQ(IpcExchange(kServerChannel, RawRequest(2, 16).Bytes()), RawTextReply(5, "External NFS Server"));
        server.StopRemoteController();
        EXPECT_FALSE(Exists(kServerChannel));
        server.StopRemoteController();
    }
}

TEST_F(NfsIpcServerMainTest, DestructionStopsListening) {
    {
        CNfsIpcServerMain server("srv", 0);
        CNfsIpcClientMain client("cli", 0);
        ASSERT_TRUE(server.StartRemoteController(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(client.StartRemoteController(m_vcReason)) << m_vcReason;
    }
    EXPECT_FALSE(Exists(kServerChannel));
    EXPECT_FALSE(Exists("/tmp/nfs-cli"));
}

TEST_F(NfsIpcServerMainTest, ASecondServerIsRefusedWhileTheFirstServes) {
    CNfsIpcServerMain first("one", 0);
    CNfsIpcServerMain second("two", CRuntimeParam::kLogError);
    ASSERT_TRUE(first.StartRemoteController(m_vcReason)) << m_vcReason;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(second.StartRemoteController(m_vcReason));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_STREQ(m_vcReason, "Ipc channel is already created by others.");
    EXPECT_EQ(IpcExchange(kServerChannel, RawRequest(3, 16).Bytes()), RawBoolReply(false)) << "the first goes on";
    first.StopRemoteController();
    EXPECT_TRUE(second.StartRemoteController(m_vcReason)) << m_vcReason;
}

TEST_F(NfsIpcServerMainTest, ASecondClientWithTheSameIDIsRefused) {
    CNfsIpcServerMain server("srv", 0);
    CNfsIpcClientMain first("cli", 0);
    CNfsIpcClientMain second("cli", 0);
    ASSERT_TRUE(server.StartRemoteController(m_vcReason)) << m_vcReason;
    ASSERT_TRUE(first.StartRemoteController(m_vcReason)) << m_vcReason;
    EXPECT_FALSE(second.StartRemoteController(m_vcReason));
    EXPECT_STREQ(m_vcReason, "Ipc channel is already created by others.");
}

TEST_F(NfsIpcServerMainTest, AClientWithoutAServerHoldsItsChannelAllTheSame) {
    CNfsIpcClientMain first("cli", 0);
    CNfsIpcClientMain second("cli", 0);
    ASSERT_TRUE(first.StartRemoteController(m_vcReason)) << m_vcReason;
    EXPECT_FALSE(second.StartRemoteController(m_vcReason));
}

TEST_F(NfsIpcServerMainTest, TheChannelOfADeadServerIsTakenOver) {
    WriteWholeFile(kServerChannel, "");
    CNfsIpcServerMain server("srv", 0);
    ASSERT_TRUE(server.StartRemoteController(m_vcReason)) << m_vcReason;
    EXPECT_EQ(IpcExchange(kServerChannel, RawRequest(1, 16).Bytes()), RawTextReply(5, "1.4"));
}

TEST_F(NfsIpcServerMainTest, OnlyAMessageReplyTellsThatTheChannelIsHeld) {
    auto pOther = std::make_unique<FakeIpcServer>(kServerChannel, [](const std::string&) { return RawIntReply(1); });
    CNfsIpcServerMain server("srv", 0);
    EXPECT_TRUE(server.StartRemoteController(m_vcReason)) << m_vcReason;
    EXPECT_EQ(pOther->Messages(), Lines{RawRequest(1, 16).Bytes()}) << "one question, for the version";
    EXPECT_EQ(IpcExchange(kServerChannel, RawRequest(1, 16).Bytes()), RawTextReply(5, "1.4"));
}

TEST_F(NfsIpcServerMainTest, AFailedOpeningIsReportedAndLogged) {
    ASSERT_EQ(::mkdir(kServerChannel, 0755), 0);
    CNfsIpcServerMain server("srv", CRuntimeParam::kLogError);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(server.StartRemoteController(m_vcReason));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[erro] (srv) [NfsIpcServerMain.StartRemoteController] Fail to start ipc server thread. Reason=Fail to "
              "bind ipc server socket. Address already in use (98)\n");
    EXPECT_STREQ(m_vcReason, "Fail to bind ipc server socket. Address already in use (98)");
    ASSERT_EQ(::rmdir(kServerChannel), 0);
}

TEST_F(NfsIpcServerMainTest, AnIDThatIsTooLongForAChannelFailsCleanly) {
    CNfsIpcClientMain client(std::string(254, 'x').c_str(), 0);
    EXPECT_TRUE(client.Initial(m_vcReason)) << m_vcReason;
    EXPECT_FALSE(client.StartRemoteController(m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to bind ipc server socket. File name too long (36)");
    client.Terminate();
}

TEST_F(NfsIpcServerMainTest, StartAndStopAreNotedWhileAFileLoggerIsSetWhateverTheLogBits) {
    TempFolder folder;
    const std::string sLog = folder / "log";
    CFileLogger logger(sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    CNfsIpcServerMain server("srv", 0);
    server.SetFileLogger(&logger);
    EXPECT_TRUE(server.StartRemoteController(m_vcReason)) << m_vcReason;
    EXPECT_TRUE(server.StartRemoteController(m_vcReason)) << "it runs already";
    server.StopRemoteController();
    server.StopRemoteController();
    server.SetFileLogger(nullptr);
    logger.Close();
    std::vector<std::string> vsMessages;
    std::istringstream lines(ReadWholeFile(sLog));
    for (std::string sLine; std::getline(lines, sLine);) {
        vsMessages.push_back(sLine.substr(sLine.find("][")));
    }
    EXPECT_EQ(vsMessages, (Lines{"][info] Start Remote Controller", "][info] Start Remote Controller",
                                 "][info] Stop Remote Controller", "][info] Stop Remote Controller"}));
}

TEST_F(NfsIpcServerMainTest, ARefusedIDIsRefusedBeforeAnythingIsInitialised) {
    TempFolder folder;
    const std::string sLog = folder / "log";
    CFileLogger logger(sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    CNfsIpcServerMain server("a b/c", 0);
    server.SetFileLogger(&logger);
    EXPECT_FALSE(server.Initial(m_vcReason));
    EXPECT_STREQ(m_vcReason, "Invalid char \" \" inside ID") << "the first one";
    server.SetFileLogger(nullptr);
    logger.Close();
    EXPECT_EQ(ReadWholeFile(sLog), "");
}

// ---- Client and server together

class IpcPairTest : public NfsIpcServerMainTest {
protected:
    void SetUp() override {
        NfsIpcServerMainTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        m_pServer = std::make_unique<CNfsIpcServerMain>("srv", 0);
        m_pClient = std::make_unique<CNfsIpcClientMain>("cli", 0);
        m_pClient->SetCallback(m_Host.Callback());
        ASSERT_TRUE(m_pServer->Initial(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pServer->StartRemoteController(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pClient->Initial(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pClient->StartRemoteController(m_vcReason)) << m_vcReason;
        // Its own lines would end up among the test's output.
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        if (m_pClient) {
            m_pClient->StopRemoteController();
            m_pClient->SetCallback(nullptr);
            m_pServer->StopServer();
            m_pServer->StopRemoteController();
            testing::internal::GetCapturedStdout();
        }
    }

    FakeHost m_Host;
    std::unique_ptr<CNfsIpcServerMain> m_pServer;
    std::unique_ptr<CNfsIpcClientMain> m_pClient;
};

TEST_F(IpcPairTest, AListingsLinesComeToTheClientThatAsked) {
    TempFolder folder;
    ASSERT_TRUE(m_pClient->AddMountPoint(folder.Path().c_str(), "exp", m_vcReason)) << m_vcReason;
    m_Host.Log().Clear();
    EXPECT_EQ(m_pClient->GetMountInfo(false, true), 1);
    const std::vector<LogLine> vLines = m_Host.Log().Lines();
    ASSERT_EQ(vLines.size(), 1U) << m_Host.Log().Dump();
    EXPECT_EQ(vLines[0].cKind, 'r');
    EXPECT_EQ(vLines[0].sID, "srv") << "the server's own ID";
    EXPECT_NE(vLines[0].sText.find("exp"), std::string::npos);
    m_Host.Log().Clear();
    EXPECT_EQ(m_pServer->GetMountInfo(false, true), 1);
    EXPECT_TRUE(m_Host.Log().Lines().empty()) << "not what the server lists for itself";
}

TEST_F(IpcPairTest, ARefusalComesBackWithItsReason) {
    TempFolder folder;
    ASSERT_TRUE(m_pClient->AddMountPoint(folder.Path().c_str(), "exp", m_vcReason)) << m_vcReason;
    char vcServerReason[kReasonBufferSize] = "";
    EXPECT_FALSE(m_pServer->AddMountPoint(folder.Path().c_str(), "exp", vcServerReason));
    EXPECT_FALSE(m_pClient->AddMountPoint(folder.Path().c_str(), "exp", m_vcReason));
    EXPECT_STREQ(m_vcReason, vcServerReason);
    EXPECT_STRNE(m_vcReason, "");
}

TEST_F(IpcPairTest, ACommandsOutputComesToTheClientThatAsked) {
    EXPECT_EQ(m_pClient->ExecuteSystemCmd("echo from-the-server; exit 3", true), 3 << 8);
    EXPECT_NE(m_Host.Log().Dump().find("from-the-server"), std::string::npos) << m_Host.Log().Dump();
}

TEST_F(IpcPairTest, TheClientsLogControlIsTheServers) {
    m_pClient->SetLogControl(3);
    EXPECT_EQ(m_pServer->GetRuntimeParam()->GetLogControl(), 3);
    EXPECT_EQ(m_pClient->GetRuntimeParam()->GetLogControl(), 0);
}

TEST_F(IpcPairTest, SessionsAndStatusAreTheServers) {
    m_pClient->AddSessionInfo("s1", "/folder");
    EXPECT_TRUE(m_pClient->IsSessionExists("s1"));
    EXPECT_TRUE(m_pServer->IsSessionExists("s1"));
    EXPECT_FALSE(m_pClient->IsLocalSessionExists("s1")) << "not this process's";
    m_pClient->RemoveSessionInfo("s1");
    EXPECT_FALSE(m_pClient->IsSessionExists("s1"));
    EXPECT_EQ(m_pClient->GetServerStatus(), 1);
    EXPECT_TRUE(m_pClient->SetDebugActionEnabled(true));
    EXPECT_EQ(m_pClient->GetServerStatus(), 5);
}

TEST_F(IpcPairTest, AnAutoShutdownReachesTheServerOnlyIfItsOwnerAllowsIt) {
    EXPECT_FALSE(m_pClient->RequestAutoShutdown());
    EXPECT_FALSE(m_pServer->IsAutoShutdownRequested());
    m_pServer->EnableAutoShutdown(true);
    EXPECT_TRUE(m_pClient->RequestAutoShutdown());
    EXPECT_TRUE(WaitUntil([&] { return m_pServer->IsAutoShutdownRequested(); })) << "told just after the reply";
}

TEST_F(IpcPairTest, ManyClientThreadsListAtOnceWithoutADeadlock) {
    TempFolder folder;
    ASSERT_TRUE(m_pClient->AddMountPoint(folder.Path().c_str(), "exp", m_vcReason)) << m_vcReason;
    m_Host.Log().Clear();
    constexpr int kThreads = 20;
    std::atomic<int> nDone{0};
    std::vector<std::thread> vThreads;
    for (int i = 0; i < kThreads; ++i) {
        vThreads.emplace_back([&] { nDone += m_pClient->GetMountInfo(false, true); });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(nDone, kThreads);
    EXPECT_EQ(m_Host.Log().Lines().size(), static_cast<std::size_t>(kThreads)) << "a line for each";
}

TEST_F(IpcPairTest, AClientThatIsGoneDoesNotStopAListing) {
    TempFolder folder;
    ASSERT_TRUE(m_pClient->AddMountPoint(folder.Path().c_str(), "exp", m_vcReason)) << m_vcReason;
    m_pClient->StopRemoteController();  // it asks, but no longer listens
    EXPECT_EQ(m_pClient->GetMountInfo(false, true), 1);
    EXPECT_EQ(m_Host.Log().Lines().size(), 0U);
}

TEST_F(IpcPairTest, AHostileIDCostsOnlyItsOwnLines) {
    TempFolder folder;
    ASSERT_TRUE(m_pClient->AddMountPoint(folder.Path().c_str(), "exp", m_vcReason)) << m_vcReason;
    for (const std::string& sID : {std::string("server"), std::string("../x"), std::string(256, 'y')}) {
        EXPECT_EQ(IpcExchange(kServerChannel, RawRequest(19, 276).Text(16, sID).Byte(273, 1).Bytes()), RawIntReply(1))
            << sID;
    }
    EXPECT_EQ(m_pClient->GetMountInfo(false, true), 1);
}

}  // namespace
