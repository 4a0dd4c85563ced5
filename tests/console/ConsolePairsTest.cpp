// A server process and the consoles that steer it.

#include <csignal>

#include <sys/stat.h>

#include "ConsoleSupport.h"
#include "NfsClient.h"

namespace {

constexpr const char* kServerSocket = "/tmp/nfs-server";

/// A server (-md svr) at its first prompt.
class ConsolePairs : public ConsoleTest {
protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        m_pServer = StartServer();
    }
    void TearDown() override {
        if (m_pServer) {
            EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
            EXPECT_FALSE(Exists(kServerSocket));
        }
    }
    std::unique_ptr<ConsoleProcess> StartServer(std::vector<std::string> vsOptions = {}) {
        vsOptions.insert(vsOptions.begin(), {"-md", "svr"});
        auto pServer = std::make_unique<ConsoleProcess>(vsOptions);
        EXPECT_TRUE(pServer->WaitForPrompt()) << pServer->Output();
        return pServer;
    }
    static std::unique_ptr<ConsoleProcess> StartClient(const std::string& sID = "cli1") {
        auto pClient = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "cli", "-id", sID});
        EXPECT_TRUE(pClient->WaitForPrompt()) << pClient->Output();
        pClient->Command("debug");
        return pClient;
    }

    std::unique_ptr<ConsoleProcess> m_pServer;
};

}  // namespace

TEST_F(ConsolePairs, ClientStartsWithTheServersBanner) {
    ConsoleProcess client({"-md", "cli"});
    EXPECT_EQ(client.Quit(), 0);
    EXPECT_EQ(client.Output(), Banner("1.4", "External NFS Server") + kIntro + "\nExit\n");
}

TEST_F(ConsolePairs, ClientLogsItsRequestsUnderTheLogControlOfTheRun) {
    ConsoleProcess client({"-md", "cli", "-id", "cli1", "-log", "64"});
    EXPECT_EQ(client.Quit(), 0);
    const std::string sTag = "[info] (cli1) [IpcClient.SendRequest] ";
    EXPECT_TRUE(client.Output().starts_with(sTag + "Request action group (type = 1, ver = 1.4, dataLen = 16)\n" + sTag +
                                            "Reply action group (type = 5, ver = 1.4, dataLen = 2064)\n"))
        << client.Output();
}

TEST_F(ConsolePairs, ClientStartsServesAndListsThroughTheServer) {
    const auto pClient = StartClient();
    EXPECT_EQ(pClient->Command("start"), "Start NFS success");
    EXPECT_EQ(pClient->Command("start"), "NFS already running");
    const std::string sPath = m_Folder.Path();
    EXPECT_EQ(pClient->Command("mount " + sPath + "=data"), "");
    EXPECT_EQ(pClient->Command("mount /tmp=data"),
              "Fail to add mount point to NFS. Reason=Export name \"data\" already defined\n");
    NfsClient nfs;
    const std::optional<std::string> sRoot = nfs.Mnt("data");
    ASSERT_TRUE(sRoot);
    std::string sHandle;
    EXPECT_EQ(nfs.Create(*sRoot, "file", sHandle), 0U);
    EXPECT_TRUE(Exists(sPath + "/file"));
    EXPECT_EQ(pClient->Command("status"),
              "\nServer Status: Started\n" + std::string(kRule) + "Number of Mount Point: 1\n Mount 1 - " + sPath +
                  " : data (127.0.0.1) [cli1]\n" + kRule + "Number of Session: 0\n" + kRule +
                  "Number of mounted NFS datastore: 0\n" + kRule + "Number of Net Device info: 0\n" + kRule);
    EXPECT_EQ(pClient->Command("umount " + sPath), "");
    EXPECT_EQ(pClient->Command("status"), "\n" + EmptyStatus("Started"));
    EXPECT_EQ(pClient->Quit(), 0);
    EXPECT_TRUE(m_pServer->IsRunning()) << "a client's quit stops no server";
    EXPECT_EQ(m_pServer->Command("debug"), "");
    EXPECT_EQ(m_pServer->Command("start"), "NFS already running");
}

TEST_F(ConsolePairs, StartFailureOfTheServerReachesTheClient) {
    const CDescriptor taken = TakeUdpPort(2049);
    const auto pClient = StartClient();
    EXPECT_EQ(pClient->Command("start"), "Fail to start NFS. NFS daemon failed to open port 2049\n");
    EXPECT_EQ(pClient->Command("start 1058=3049"), "Start NFS success");
    EXPECT_EQ(pClient->Quit(), 0);
}

/// The beginning of a path is another path, and the beginning of a command another command.
TEST_F(ConsolePairs, WhatDoesNotFitARequestIsRefusedAndNothingOfItDone) {
    ConsoleProcess client({"-md", "cli", "-id", "cli1", "-log", "1"});
    ASSERT_TRUE(client.WaitForPrompt());
    client.Command("debug");
    EXPECT_EQ(client.Command("start"), "Start NFS success");

    const std::string sError = "[erro] (cli1) [IpcClient.SendRequest] ";
    const std::string sFile = m_Folder / "backup";
    std::string sCommand = "touch " + sFile + "-of-today";
    sCommand.insert(0, 1023 + sizeof("-of-today") - 1 - sCommand.size(), ' ');
    const std::string sRefused = "Command is too long for the remote control (1032 bytes, at most 1023)\n";
    EXPECT_EQ(client.Command("exec " + sCommand), sError + sRefused + "Return code: -1\n");
    EXPECT_FALSE(Exists(sFile));
    EXPECT_FALSE(Exists(sFile + "-of-today"));

    // Cut at the field's end this would be the folder itself.
    const std::string sTail = "/private";
    std::string sPath = m_Folder.Path();
    while (sPath.size() + 2 <= 1023) {
        sPath += sPath.size() % 2 == 0 ? "/." : "//";
    }
    sPath.resize(1023, '/');
    sPath += sTail;
    ASSERT_EQ(::mkdir((m_Folder / "private").c_str(), 0700), 0);
    EXPECT_TRUE(Exists(sPath)) << "the folder below it";
    EXPECT_EQ(client.Command("mount " + sPath + "=data"),
              sError + "Local mount path is too long for the remote control (1031 bytes, at most 1023)\n" +
                  "Fail to add mount point to NFS. Reason=Local mount path is too long for the remote control "
                  "(1031 bytes, at most 1023)\n");
    EXPECT_NE(client.Command("status").find("Number of Mount Point: 0\n"), std::string::npos);
    EXPECT_EQ(client.Command("qtest " + sPath + " 0"),
              sError + "Path is too long for the remote control (1031 bytes, at most 1023)\n" +
                  "Quick test FAIL. Path is too long for the remote control (1031 bytes, at most 1023)\n");
    EXPECT_EQ(client.Quit(), 0);
}

TEST_F(ConsolePairs, AdministrativeOutputComesBackToTheClient) {
    const auto pClient = StartClient();
    const std::string sExec = pClient->Command("exec echo from the server; exit 2");
    EXPECT_NE(sExec.find("from the server\n"), std::string::npos) << sExec;
    EXPECT_TRUE(sExec.ends_with("Process returned 512\nReturn code: 512\n")) << sExec;
    const std::string sTest = pClient->Command("test " + m_Folder.Path() + "=10");
    EXPECT_NE(sTest.find("END TEST"), std::string::npos) << sTest;
    EXPECT_EQ(sTest.find("[FAIL]"), std::string::npos) << sTest;
    EXPECT_EQ(pClient->Command("qtest /tmp 0"), "Quick test OK\n");
    EXPECT_EQ(pClient->Command("qtest /missing 0"), "Quick test FAIL. ErrCode=2\n");
    EXPECT_EQ(pClient->Command("debugaction 1"), "Current Server Status=5\n");
    EXPECT_EQ(pClient->Command("addvsphereinfo ds-1 esx1 443 root secret"), "");
    EXPECT_NE(pClient->Command("status").find(" NFS datastore 1 - ds-1 (esx1:443)\n"), std::string::npos);
    EXPECT_EQ(pClient->Command("removevsphereinfo ds-1"), "");
    EXPECT_EQ(pClient->Command("addnet //nas/x user secret"), "Failed");
    EXPECT_EQ(pClient->Quit(), 0);
}

TEST_F(ConsolePairs, QueryPrintsTheServersStatusAndEnds) {
    const RunResult before = RunConsole({"-query"});
    EXPECT_EQ(before.iStatus, 0);
    EXPECT_EQ(before.sOutput, Banner("1.4", "External NFS Server") + EmptyStatus("Stopped"));
    m_pServer->Command("debug");
    m_pServer->Command("start");
    m_pServer->Command("mount " + m_Folder.Path() + "=data");
    const RunResult after = RunConsole({"-query"});
    EXPECT_EQ(after.sOutput, Banner("1.4", "External NFS Server") + "Server Status: Started\n" + kRule +
                                 "Number of Mount Point: 1\n Mount 1 - " + m_Folder.Path() + " : data () []\n" + kRule +
                                 "Number of Session: 0\n" + kRule + "Number of mounted NFS datastore: 0\n" + kRule +
                                 "Number of Net Device info: 0\n" + kRule);
    EXPECT_FALSE(Exists("/tmp/nfs-qyRun"));
}

TEST_F(ConsolePairs, ShutdownEndsTheServersLoop) {
    const std::string sPid = m_Folder / "pid";
    EXPECT_EQ(m_pServer->Quit(), 0);
    m_pServer = StartServer({"-pidfile", sPid});
    const RunResult result = RunConsole({"-shutdown"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, Banner("1.4", "External NFS Server"));
    EXPECT_EQ(m_pServer->Wait(), 0);
    EXPECT_TRUE(m_pServer->Output().ends_with("\nCommand: \nExit by request\n")) << m_pServer->Output();
    EXPECT_FALSE(Exists(sPid));
    EXPECT_FALSE(Exists(kServerSocket));
    m_pServer.reset();
    EXPECT_EQ(RunConsole({"-shutdown"}).iStatus, 1) << "nothing is left to shut down";
}

TEST_F(ConsolePairs, SecondServerIsRefusedAndTheFirstServesOn) {
    const RunResult second = RunConsole({"-md", "svr", "-id", "other"});
    EXPECT_EQ(second.iStatus, 1);
    EXPECT_EQ(second.sOutput,
              Banner("1.4", "External NFS Server") + "Terminated. Reason=Ipc channel is already created by others.\n");
    EXPECT_TRUE(Exists(kServerSocket));
    EXPECT_EQ(RunConsole({"-query"}).sOutput, Banner("1.4", "External NFS Server") + EmptyStatus("Stopped"));
}

TEST_F(ConsolePairs, SecondClientOfTheSameIDIsRefused) {
    const auto pClient = StartClient("same");
    const RunResult second = RunConsole({"-md", "cli", "-id", "same"});
    EXPECT_EQ(second.iStatus, 1);
    EXPECT_EQ(second.sOutput,
              Banner("1.4", "External NFS Server") + "Terminated. Reason=Ipc channel is already created by others.\n");
    EXPECT_EQ(pClient->Quit(), 0);
}

TEST_F(ConsolePairs, KilledServersSocketFileIsInNobodysWay) {
    m_pServer->Signal(SIGKILL);
    EXPECT_EQ(m_pServer->Wait(), 128 + SIGKILL);
    EXPECT_TRUE(Exists(kServerSocket)) << "stays behind";
    const RunResult query = RunConsole({"-query"});
    EXPECT_EQ(query.iStatus, 0);
    EXPECT_EQ(query.sOutput, Banner("Unknown", "Unknown") + "Server Status: NotAccessible\n" + kRule);
    m_pServer = StartServer();
    EXPECT_EQ(RunConsole({"-query"}).sOutput, Banner("1.4", "External NFS Server") + EmptyStatus("Stopped"));
}

TEST_F(ConsolePairs, SignalledClientLeavesNoSocketFile) {
    const auto pClient = StartClient("gone");
    EXPECT_TRUE(Exists("/tmp/nfs-gone"));
    pClient->Signal(SIGTERM);
    EXPECT_EQ(pClient->Wait(), 0);
    EXPECT_FALSE(Exists("/tmp/nfs-gone"));
    EXPECT_TRUE(m_pServer->IsRunning());
}

TEST_F(ConsolePairs, ClientOutlivesItsServer) {
    const auto pClient = StartClient();
    EXPECT_EQ(m_pServer->Quit(), 0);
    m_pServer.reset();
    EXPECT_EQ(pClient->Command("status"), "\n" + EmptyStatus("Stopped"));
    const std::string sStart = pClient->Command("start");
    EXPECT_TRUE(sStart.starts_with("Fail to start NFS. Fail to connect ipc client socket. ")) << sStart;
    EXPECT_EQ(pClient->Command("debugaction 1"), "Current Server Status=0\n");
    EXPECT_EQ(pClient->Quit(), 0);
}

TEST_F(ConsolePairs, ManyQueriesUnderTheirOwnIDsAreAllAnswered) {
    std::vector<std::unique_ptr<ConsoleProcess>> vpQueries;
    constexpr int kQueries = 8;
    vpQueries.reserve(kQueries);
    for (int i = 0; i < kQueries; ++i) {
        vpQueries.push_back(
            std::make_unique<ConsoleProcess>(std::vector<std::string>{"-query", "-id", "query" + std::to_string(i)}));
    }
    for (const auto& pQuery : vpQueries) {
        EXPECT_EQ(pQuery->Wait(), 0);
        EXPECT_EQ(pQuery->Output(), Banner("1.4", "External NFS Server") + EmptyStatus("Stopped"));
    }
}
