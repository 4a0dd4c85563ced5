// Beside a real rpcbind the server takes the next ports and registers them; at its end nothing of them remains.
#include <filesystem>
#include <sstream>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Isolation.h"
#include "LibnfsClient.h"
#include "ServerFixture.h"
#include "Trees.h"
#include "WaitUntil.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using Lines = std::vector<std::string>;

/// A program that Debian keeps outside an ordinary user's search path.
std::string FindProgram(const std::string& sName) {
    for (const char* pcFolder : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
        if (::access((pcFolder + sName).c_str(), X_OK) == 0) {
            return pcFolder + sName;
        }
    }
    return "";
}

/// False in the user namespace that an ordinary user's test process lives in.
bool HasEveryUser() {
    std::istringstream map(ReadWholeFile("/proc/self/uid_map"));
    unsigned long iInside = 0, iOutside = 0, nUsers = 0;
    map >> iInside >> iOutside >> nUsers;
    return nUsers > 1;
}

class RpcbindTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        if (FindProgram("rpcbind").empty() || FindProgram("rpcinfo").empty()) {
            GTEST_SKIP() << "needs the package rpcbind";
        }
        if (!HasEveryUser()) {
            GTEST_SKIP() << "needs root: rpcbind changes to a user of its own";
        }
        std::filesystem::create_directories("/run/rpcbind");
        m_pRpcbind = std::make_unique<ChildProcess>(std::vector<std::string>{FindProgram("rpcbind"), "-f"});
        ASSERT_TRUE(WaitForRpcbind()) << m_pRpcbind->Output();
        m_pMain =
            std::make_unique<CapturingNfsMain>("test", CRuntimeParam::kLogError | CRuntimeParam::kLogPortmap, &m_Log);
    }

    void TearDown() override {
        m_pMain.reset();
        m_pRpcbind.reset();
        std::error_code ignored;  // with /run at the latest
        std::filesystem::remove_all("/run/rpcbind", ignored);
        std::filesystem::remove("/run/rpcbind.sock", ignored);
        std::filesystem::remove("/run/rpcbind.lock", ignored);
    }

    /// What rpcinfo lists, as "program version protocol port" lines.
    static std::string Registrations() {
        std::istringstream output(RunProgram({FindProgram("rpcinfo"), "-p", "127.0.0.1"}).sOutput);
        std::string sText;
        for (std::string sLine; std::getline(output, sLine);) {
            std::istringstream words(sLine);
            std::string sProgram, sVersion, sProtocol, sPort;
            words >> sProgram >> sVersion >> sProtocol >> sPort;
            sText += sProgram + " " + sVersion + " " + sProtocol + " " + sPort + "\n";
        }
        return sText;
    }

    bool WaitForRpcbind() {
        return WaitUntil([this] {
                   return !m_pRpcbind->IsRunning() || Registrations().find("100000 2 tcp 111") != std::string::npos;
               }) &&
               m_pRpcbind->IsRunning();
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    std::unique_ptr<ChildProcess> m_pRpcbind;
    std::unique_ptr<CNfsMain> m_pMain;
    char m_vcReason[kReasonBufferSize] = "";
};

TEST_F(RpcbindTest, ServerTakesTheNextPortsAndRegistersThemUntilItStops) {
    const std::string sBefore = Registrations();
    ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason << m_Log.Dump();
    const std::string sDuring = Registrations();
    EXPECT_THAT(sDuring, HasSubstr("100003 3 tcp 2050\n"));
    EXPECT_THAT(sDuring, HasSubstr("100003 3 udp 2050\n"));
    EXPECT_THAT(sDuring, HasSubstr("100005 3 tcp 1059\n"));
    EXPECT_THAT(sDuring, HasSubstr("100005 3 udp 1059\n"));
    m_pMain->StopServer();
    EXPECT_EQ(Registrations(), sBefore);
}

TEST_F(RpcbindTest, NfsIsRegisteredAndUnregisteredBeforeMount) {
    ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason << m_Log.Dump();
    EXPECT_EQ(m_Log.Texts(), (Lines{"[Portmap.IsRunning] Port 111 is already in used",
                                    "[Portmap.RegisterSvc] Creating UDP for 100003 ver=3",
                                    "[Portmap.RegisterSvc] Registering UDP for 100003 ver=3",
                                    "[Portmap.RegisterSvc] Registered UDP for 100003 ver=3",
                                    "[Portmap.RegisterSvc] Creating TCP for 100003 ver=3",
                                    "[Portmap.RegisterSvc] Registering TCP for 100003 ver=3",
                                    "[Portmap.RegisterSvc] Registered TCP for 100003 ver=3",
                                    "[Portmap.RegisterSvc] Creating UDP for 100005 ver=3",
                                    "[Portmap.RegisterSvc] Registering UDP for 100005 ver=3",
                                    "[Portmap.RegisterSvc] Registered UDP for 100005 ver=3",
                                    "[Portmap.RegisterSvc] Creating TCP for 100005 ver=3",
                                    "[Portmap.RegisterSvc] Registering TCP for 100005 ver=3",
                                    "[Portmap.RegisterSvc] Registered TCP for 100005 ver=3"}));
    m_Log.Clear();
    m_pMain->StopServer();
    EXPECT_EQ(m_Log.Texts(), (Lines{"[Portmap.Unregister] Unregistered the program 100003 ver=3",
                                    "[Portmap.Unregister] Unregistered the program 100005 ver=3"}));
}

TEST_F(RpcbindTest, RealClientFindsThePortsThroughRpcbind) {
    const TempFolder folder;
    WriteWholeFile(folder / "file", "content");
    ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason << m_Log.Dump();
    ASSERT_TRUE(m_pMain->AddMountPoint(folder.Path().c_str(), "data", m_vcReason)) << m_vcReason;
    {
        LibnfsClient client;
        ASSERT_EQ(client.Mount("data", 0, 0), 0) << client.Error();
        std::string sContent;
        EXPECT_EQ(client.ReadFile("/file", sContent), 0) << client.Error();
        EXPECT_EQ(sContent, "content");
        EXPECT_EQ(client.Umount(), 0) << client.Error();
    }
    m_pMain->StopServer();
}

TEST_F(RpcbindTest, NfsgetFindsThePortsThroughRpcbind) {
    const std::string sProgram = BuildTree() + "/bin/nfsget";
    if (::access(sProgram.c_str(), X_OK) != 0) {
        GTEST_SKIP() << "nfsget is not built";
    }
    const TempFolder folder;
    WriteWholeFile(folder / "file", "content");
    ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason << m_Log.Dump();
    ASSERT_TRUE(m_pMain->AddMountPoint(folder.Path().c_str(), "data", m_vcReason)) << m_vcReason;
    const RunResult result = RunProgram({sProgram, "get", "127.0.0.1:data/file", "-"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "content");
    m_pMain->StopServer();
}

TEST_F(RpcbindTest, GivenPortsAreRegisteredAndARestartReplacesThem) {
    ASSERT_TRUE(m_pMain->StartServer(4058, 4049, 0, 0, false, m_vcReason)) << m_vcReason << m_Log.Dump();
    EXPECT_THAT(Registrations(), HasSubstr("100003 3 tcp 4049\n"));
    EXPECT_THAT(Registrations(), HasSubstr("100005 3 udp 4058\n"));
    m_pMain->StopServer();
    ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason << m_Log.Dump();
    EXPECT_THAT(Registrations(), HasSubstr("100003 3 tcp 2050\n"));
    EXPECT_THAT(Registrations(), Not(HasSubstr("4049")));
}

TEST_F(RpcbindTest, DestructionOfARunningServerUnregistersToo) {
    const std::string sBefore = Registrations();
    ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason << m_Log.Dump();
    m_pMain.reset();
    EXPECT_EQ(Registrations(), sBefore);
}

TEST_F(RpcbindTest, PortThatIsTakenFailsTheStartAndRegistersNothing) {
    const std::string sBefore = Registrations();
    CapturingNfsMain first("first", 0, &m_Log);
    ASSERT_TRUE(first.StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason;
    EXPECT_FALSE(m_pMain->StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_STREQ(m_vcReason, "NFS daemon failed to open port 2050");
    first.StopServer();
    EXPECT_EQ(Registrations(), sBefore);
}

}  // namespace
