// The client controller: every operation as a request's bytes, every reply as its result, and the version gates.
#include "NfsIpcClientMain.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpcPeer.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "LogCapture.h"

namespace {

using Lines = std::vector<std::string>;

constexpr char kServerChannel[] = "/tmp/nfs-server";

/// The client whose log lines are kept.
class CapturingClient : public CNfsIpcClientMain {
public:
    CapturingClient(const char* pcID, int iLogControl, LogCapture* pCapture)
        : CNfsIpcClientMain(pcID, iLogControl), m_pCapture(pCapture) {
        m_pUtilities = std::make_unique<CaptureUtilities>(m_pCapture);
    }

private:
    LogCapture* m_pCapture;
};

class NfsIpcClientMainTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    /// A server of a version that gives every other request one reply.
    void Serve(const std::string& sVersion, const std::string& sReply) {
        m_sVersion = sVersion;
        m_sReply = sReply;
        if (!m_pServer) {
            m_pServer = std::make_unique<FakeIpcServer>(kServerChannel, [this](const std::string& sMessage) {
                return I32At(sMessage, 0) == 2 && I32At(sMessage, 4) == 1 ? RawTextReply(5, m_sVersion) : m_sReply;
            });
        }
    }

    /// Does something with a server, which gets exactly this request (questions for the version aside).
    void ExpectRequest(const RawRecord& expected, const std::function<void()>& action) {
        m_pServer->Clear();
        action();
        const Lines vsSeen = m_pServer->MessagesButVersion();
        ASSERT_EQ(vsSeen.size(), 1U) << "type " << I32At(expected.Bytes(), 4);
        EXPECT_EQ(Difference(expected.Bytes(), vsSeen[0]), "") << "type " << I32At(expected.Bytes(), 4);
    }

    /// Does something with a server, which must get nothing but questions for the version.
    void ExpectNoRequest(const std::function<void()>& action) {
        m_pServer->Clear();
        action();
        EXPECT_TRUE(m_pServer->MessagesButVersion().empty());
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    std::string m_sVersion, m_sReply;
    std::unique_ptr<FakeIpcServer> m_pServer;
    CapturingClient m_Client{"client", CRuntimeParam::kLogError, &m_Log};
    CRuntimeParam m_Other{"other", 0};
    char m_vcReason[kReasonBufferSize] = "";
};

// ---- Requests as bytes

TEST_F(NfsIpcClientMainTest, RequestsAboutTheServer) {
    Serve("1.4", RawBoolReply(true));
    ExpectRequest(RawRequest(2, 16), [&] {
        char cText[256];
        m_Client.GetDescription(cText);
    });
    ExpectRequest(RawRequest(3, 16), [&] { EXPECT_TRUE(m_Client.IsServerRunning()); });
    ExpectRequest(RawRequest(4, 36).I32(16, 1058).I32(20, -1).I32(24, 7).I32(28, -1).Byte(32, 1),
                  [&] { EXPECT_TRUE(m_Client.StartServer(1058, -1, 7, 0xffffffffU, true, m_vcReason)); });
    ExpectRequest(RawRequest(18, 20).I32(16, 1023), [&] { m_Client.SetLogControl(1023); });
    ExpectRequest(RawRequest(22, 16), [&] { EXPECT_TRUE(m_Client.RequestAutoShutdown()); });
    ExpectRequest(RawRequest(24, 20).Byte(16, 1), [&] { EXPECT_TRUE(m_Client.SetDebugActionEnabled(true)); });
    ExpectRequest(RawRequest(24, 20), [&] { EXPECT_TRUE(m_Client.SetDebugActionEnabled(false)); });
}

TEST_F(NfsIpcClientMainTest, AskingForTheVersionIsARequestOfAHeader) {
    Serve("7.7", "");
    char cText[256];
    m_Client.GetVersion(cText);
    EXPECT_STREQ(cText, "7.7");
    ASSERT_EQ(m_pServer->Messages().size(), 1U);
    EXPECT_EQ(m_pServer->Messages()[0], std::string("\2\0\0\0\1\0\0\0"
                                                    "1.4\0\0\0\0\0",
                                                    16));
}

TEST_F(NfsIpcClientMainTest, AnExportCarriesThisClientsIDWhateverIsGiven) {
    Serve("1.4", RawBoolReply(true));
    const RawRecord expected = RawRequest(5, 1552).Text(16, "/folder").Text(1040, "name").Text(1296, "client");
    ExpectRequest(expected, [&] { EXPECT_TRUE(m_Client.AddMountPoint("/folder", "name", m_vcReason)); });
    ExpectRequest(expected, [&] { EXPECT_TRUE(m_Client.AddMountPoint("/folder", "name", "x", m_vcReason)); });
}

TEST_F(NfsIpcClientMainTest, RequestsAboutExportsAndSessions) {
    Serve("1.4", RawBoolReply(true));
    ExpectRequest(RawRequest(6, 1040).Text(16, "/folder"), [&] { m_Client.RemoveMountPoint("/folder"); });
    ExpectRequest(RawRequest(7, 1296).Text(16, "s").Text(272, "/folder"),
                  [&] { m_Client.AddSessionInfo("s", "/folder"); });
    ExpectRequest(RawRequest(8, 272).Text(16, "s"), [&] { m_Client.RemoveSessionInfo("s"); });
    ExpectRequest(RawRequest(9, 272).Text(16, "s"), [&] { EXPECT_TRUE(m_Client.IsSessionExists("s")); });
}

TEST_F(NfsIpcClientMainTest, RequestsAboutRedirectedFilesAndDescriptors) {
    Serve("1.4", RawBoolReply(true));
    ExpectRequest(RawRequest(10, 1064).Text(16, "/f").U64(1040, 1ULL << 40).Byte(1048, 1).I32(1052, 3).I32(1056, -4),
                  [&] { m_Client.OpenRedirectedFile("/f", 1LL << 40, true, 3, -4); });
    ExpectRequest(RawRequest(11, 1040).Text(16, "/f"), [&] { m_Client.CloseRedirectedFile("/f"); });
    ExpectRequest(RawRequest(12, 1040).Text(16, "/f"), [&] { m_Client.CloseAllRedirectedFiles("/f"); });
    ExpectRequest(RawRequest(13, 2088).Text(16, "/f").Text(1040, "/s").U64(2064, 1).U64(2072, 2).U64(2080, ~0ULL),
                  [&] { EXPECT_TRUE(m_Client.AddRedirectedFileSegment("/f", "/s", 1, 2, -1, m_vcReason)); });
    ExpectRequest(RawRequest(14, 2064).Text(16, "/f").Text(1040, "/o"),
                  [&] { m_Client.ExportRedirectedFile("/f", "/o"); });
    ExpectRequest(RawRequest(15, 2068).Text(16, "/f").Text(1040, "/o").Byte(2064, 1),
                  [&] { m_Client.ExportRedirectedFileInfo("/f", "/o", true); });
    ExpectRequest(RawRequest(16, 1040).Text(16, "/f"), [&] { m_Client.CloseCachedFileHandle("/f"); });
    ExpectRequest(RawRequest(17, 1040).Text(16, "/f"), [&] { m_Client.CloseAllCachedFileHandles("/f"); });
}

TEST_F(NfsIpcClientMainTest, WorkForAParameterCarriesItsID) {
    m_Other.SetIpcID("not this one");
    Serve("1.4", RawIntReply(6));
    ExpectRequest(RawRequest(19, 276).Text(16, "other").Byte(272, 1),
                  [&] { EXPECT_EQ(m_Client.GetMountInfo(&m_Other, true, false), 6); });
    ExpectRequest(RawRequest(19, 276).Text(16, "client").Byte(273, 1),
                  [&] { EXPECT_EQ(m_Client.GetMountInfo(false, true), 6); });
    ExpectRequest(RawRequest(20, 276).Text(16, "other").Byte(272, 1),
                  [&] { EXPECT_EQ(m_Client.GetSessionInfo(&m_Other, true), 6); });
    ExpectRequest(RawRequest(25, 276).Text(16, "other"),
                  [&] { EXPECT_EQ(m_Client.GetVSphereInfo(&m_Other, false), 6); });
    ExpectRequest(RawRequest(30, 276).Text(16, "other").Byte(272, 1),
                  [&] { EXPECT_EQ(m_Client.GetNetDeviceCredential(&m_Other, true), 6); });
    ExpectRequest(RawRequest(29, 1300).Text(16, "other").Text(272, "ls").Byte(1296, 1),
                  [&] { EXPECT_EQ(m_Client.ExecuteSystemCmd(&m_Other, "ls", true), 6); });
    Serve("1.4", RawBoolReply(true));
    ExpectRequest(RawRequest(21, 3352).Text(16, "other").Text(272, "/d").U64(3344, 99),
                  [&] { m_Client.RunTestMode(&m_Other, "/d", 99); });
    ExpectRequest(RawRequest(28, 1300).Text(16, "other").Text(272, "/d").I32(1296, -1),
                  [&] { EXPECT_TRUE(m_Client.RunQuickTestMode(&m_Other, "/d", -1, m_vcReason)); });
}

TEST_F(NfsIpcClientMainTest, RequestsAboutDatastoresAndDevices) {
    Serve("1.4", RawBoolReply(true));
    ExpectRequest(RawRequest(26, 1296).Text(16, "m").Text(272, "h").Text(528, "443").Text(784, "u").Text(1040, "p"),
                  [&] { m_Client.AddVSphereInfo("m", "h", "443", "u", "p"); });
    ExpectRequest(RawRequest(27, 272).Text(16, "m"), [&] { m_Client.RemoveVSphereInfo("m"); });
    ExpectRequest(RawRequest(31, 1552).Text(16, "//d").Text(1040, "u").Text(1295, "p"),
                  [&] { EXPECT_TRUE(m_Client.AddNetDeviceCredential("//d", "u", "p")); });
    ExpectRequest(RawRequest(32, 1040).Text(16, "//d"),
                  [&] { EXPECT_TRUE(m_Client.RemoveNetDeviceCredential("//d")); });
}

TEST_F(NfsIpcClientMainTest, NullTextsAreEmpty) {
    Serve("1.4", RawBoolReply(true));
    ExpectRequest(RawRequest(7, 1296), [&] { m_Client.AddSessionInfo(nullptr, nullptr); });
}

// ---- Texts at the limits of their fields

/// One text of one request: what the field is called, where it is, how long its text may be, and the operation.
struct TextField {
    int iType;
    const char* pcName;
    std::size_t iOffset;
    std::size_t iLimit;
    std::function<void(CNfsIpcClientMain& client, const char* pcText)> call;
};

const std::vector<TextField>& GetTextFields() {
    static char vcReason[kReasonBufferSize];
    static const std::vector<TextField> vFields = {
        {5, "Local mount path", 16, 1023, [](auto& c, auto* pc) { c.AddMountPoint(pc, "n", vcReason); }},
        {5, "Export name", 1040, 255, [](auto& c, auto* pc) { c.AddMountPoint("/f", pc, vcReason); }},
        {6, "Path", 16, 1023, [](auto& c, auto* pc) { c.RemoveMountPoint(pc); }},
        {7, "Session ID", 16, 255, [](auto& c, auto* pc) { c.AddSessionInfo(pc, "/f"); }},
        {7, "Local mount path", 272, 1023, [](auto& c, auto* pc) { c.AddSessionInfo("s", pc); }},
        {8, "Session ID", 16, 255, [](auto& c, auto* pc) { c.RemoveSessionInfo(pc); }},
        {9, "Session ID", 16, 255, [](auto& c, auto* pc) { c.IsSessionExists(pc); }},
        {10, "Path", 16, 1023, [](auto& c, auto* pc) { c.OpenRedirectedFile(pc, 1, false, 0, 0); }},
        {11, "Path", 16, 1023, [](auto& c, auto* pc) { c.CloseRedirectedFile(pc); }},
        {12, "Path", 16, 1023, [](auto& c, auto* pc) { c.CloseAllRedirectedFiles(pc); }},
        {13, "Path", 16, 1023, [](auto& c, auto* pc) { c.AddRedirectedFileSegment(pc, "/s", 0, 0, 1, vcReason); }},
        {13, "Source path", 1040, 1023,
         [](auto& c, auto* pc) { c.AddRedirectedFileSegment("/f", pc, 0, 0, 1, vcReason); }},
        {14, "Path", 16, 1023, [](auto& c, auto* pc) { c.ExportRedirectedFile(pc, "/o"); }},
        {14, "Export path", 1040, 1023, [](auto& c, auto* pc) { c.ExportRedirectedFile("/f", pc); }},
        {15, "Path", 16, 1023, [](auto& c, auto* pc) { c.ExportRedirectedFileInfo(pc, "/o", false); }},
        {15, "Export path", 1040, 1023, [](auto& c, auto* pc) { c.ExportRedirectedFileInfo("/f", pc, false); }},
        {16, "Path", 16, 1023, [](auto& c, auto* pc) { c.CloseCachedFileHandle(pc); }},
        {17, "Path", 16, 1023, [](auto& c, auto* pc) { c.CloseAllCachedFileHandles(pc); }},
        {21, "Directory", 272, 3071, [](auto& c, auto* pc) { c.CNfsMain::RunTestMode(pc, 1); }},
        {26, "Datastore MOID", 16, 255, [](auto& c, auto* pc) { c.AddVSphereInfo(pc, "h", "p", "u", "w"); }},
        {26, "Host", 272, 255, [](auto& c, auto* pc) { c.AddVSphereInfo("m", pc, "p", "u", "w"); }},
        {26, "Port", 528, 255, [](auto& c, auto* pc) { c.AddVSphereInfo("m", "h", pc, "u", "w"); }},
        {26, "User", 784, 255, [](auto& c, auto* pc) { c.AddVSphereInfo("m", "h", "p", pc, "w"); }},
        {26, "Password", 1040, 255, [](auto& c, auto* pc) { c.AddVSphereInfo("m", "h", "p", "u", pc); }},
        {27, "Datastore MOID", 16, 255, [](auto& c, auto* pc) { c.RemoveVSphereInfo(pc); }},
        {28, "Path", 272, 1023, [](auto& c, auto* pc) { c.RunQuickTestMode(pc, 0, vcReason); }},
        {29, "Command", 272, 1023, [](auto& c, auto* pc) { c.ExecuteSystemCmd(pc, true); }},
        {31, "Path", 16, 1023, [](auto& c, auto* pc) { c.AddNetDeviceCredential(pc, "u", "w"); }},
        {31, "User", 1040, 254, [](auto& c, auto* pc) { c.AddNetDeviceCredential("/p", pc, "w"); }},
        {31, "Password", 1295, 254, [](auto& c, auto* pc) { c.AddNetDeviceCredential("/p", "u", pc); }},
        {32, "Path", 16, 1023, [](auto& c, auto* pc) { c.RemoveNetDeviceCredential(pc); }},
    };
    return vFields;
}

std::string TooLong(const std::string& sName, std::size_t iLimit) {
    return sName + " is too long for the remote control (" + std::to_string(iLimit + 1) + " bytes, at most " +
           std::to_string(iLimit) + ")";
}

TEST_F(NfsIpcClientMainTest, ATextThatJustFitsIsSentWhole) {
    Serve("1.4", RawBoolReply(true));
    for (const TextField& field : GetTextFields()) {
        SCOPED_TRACE(std::to_string(field.iType) + " " + field.pcName);
        m_pServer->Clear();
        const std::string sText(field.iLimit, 'x');
        field.call(m_Client, sText.c_str());
        const Lines vsSeen = m_pServer->MessagesButVersion();
        ASSERT_EQ(vsSeen.size(), 1U);
        EXPECT_EQ(I32At(vsSeen[0], 4), field.iType);
        EXPECT_EQ(TextAt(vsSeen[0], field.iOffset, field.iLimit + 1), sText);
        EXPECT_EQ(vsSeen[0][field.iOffset + field.iLimit], '\0');
    }
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(NfsIpcClientMainTest, ATextThatDoesNotFitIsNotSentAndTheLogNamesItsFieldAndLimit) {
    Serve("1.4", RawBoolReply(true));
    for (const TextField& field : GetTextFields()) {
        SCOPED_TRACE(std::to_string(field.iType) + " " + field.pcName);
        m_Log.Clear();
        ExpectNoRequest([&] { field.call(m_Client, std::string(field.iLimit + 1, 'x').c_str()); });
        EXPECT_EQ(m_Log.Texts(), Lines{"[IpcClient.SendRequest] " + TooLong(field.pcName, field.iLimit)});
    }
}

TEST_F(NfsIpcClientMainTest, ATextThatDoesNotFitGivesTheFailureValueAndTheReason) {
    Serve("1.4", RawBoolReply(true));
    m_Client.GetRuntimeParam()->SetLogControl(0);
    const std::string sLong(5000, 'x');
    const char* pcLong = sLong.c_str();
    const auto expectReason = [this](const std::string& sName, std::size_t iLimit) {
        EXPECT_EQ(std::string(m_vcReason),
                  sName + " is too long for the remote control (5000 bytes, at most " + std::to_string(iLimit) + ")");
        m_vcReason[0] = '\0';
    };
    EXPECT_FALSE(m_Client.AddMountPoint(pcLong, pcLong, m_vcReason));
    expectReason("Local mount path", 1023);  // the first of them
    EXPECT_FALSE(m_Client.AddMountPoint("/f", pcLong, "x", m_vcReason));
    expectReason("Export name", 255);
    EXPECT_FALSE(m_Client.AddRedirectedFileSegment("/f", pcLong, 0, 0, 1, m_vcReason));
    expectReason("Source path", 1023);
    EXPECT_FALSE(m_Client.RunQuickTestMode(pcLong, 0, m_vcReason));
    expectReason("Path", 1023);
    EXPECT_FALSE(m_Client.AddMountPoint(pcLong, "n", nullptr)) << "no room for a reason";
    EXPECT_FALSE(m_Client.IsSessionExists(pcLong));
    EXPECT_FALSE(m_Client.AddNetDeviceCredential("/p", "u", pcLong));
    EXPECT_FALSE(m_Client.RemoveNetDeviceCredential(pcLong));
    m_sReply = RawIntReply(6);
    EXPECT_EQ(m_Client.ExecuteSystemCmd(pcLong, true), -1);
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
    EXPECT_TRUE(m_pServer->MessagesButVersion().empty()) << "nothing was sent";
}

TEST_F(NfsIpcClientMainTest, AnIDThatDoesNotFitIsNoOtherPartysID) {
    Serve("1.4", RawIntReply(6));
    m_Other.SetID(std::string(255, 'i').c_str());
    EXPECT_EQ(m_Client.GetMountInfo(&m_Other, false, true), 6);
    m_Other.SetID(std::string(256, 'i').c_str());
    const auto expectRefused = [this](const std::function<void()>& action) {
        m_Log.Clear();
        ExpectNoRequest(action);
        EXPECT_EQ(m_Log.Texts('e'), Lines{"[IpcClient.SendRequest] " + TooLong("IPC ID", 255)});
    };
    expectRefused([&] { EXPECT_EQ(m_Client.GetMountInfo(&m_Other, false, true), 0); });
    expectRefused([&] { EXPECT_EQ(m_Client.GetSessionInfo(&m_Other, true), 0); });
    expectRefused([&] { EXPECT_EQ(m_Client.GetVSphereInfo(&m_Other, true), 0); });
    expectRefused([&] { EXPECT_EQ(m_Client.GetNetDeviceCredential(&m_Other, true), 0); });
    expectRefused([&] { m_Client.RunTestMode(&m_Other, "/d", 1); });
    expectRefused([&] { EXPECT_FALSE(m_Client.RunQuickTestMode(&m_Other, "/d", 0, m_vcReason)); });
    expectRefused([&] { EXPECT_EQ(m_Client.ExecuteSystemCmd(&m_Other, "ls", true), -1); });
    m_Client.GetRuntimeParam()->SetID(std::string(256, 'i').c_str());
    expectRefused([&] { EXPECT_FALSE(m_Client.AddMountPoint("/f", "n", m_vcReason)); });
}

// ---- Replies as results

TEST_F(NfsIpcClientMainTest, AnExceptionIsAFailureWithItsText) {
    Serve("1.4", RawTextReply(4, "because"));
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_STREQ(m_vcReason, "because");
    m_vcReason[0] = '\0';
    EXPECT_FALSE(m_Client.AddMountPoint("/f", "n", m_vcReason));
    EXPECT_STREQ(m_vcReason, "because");
    m_vcReason[0] = '\0';
    EXPECT_FALSE(m_Client.AddRedirectedFileSegment("/f", "/s", 0, 0, 0, m_vcReason));
    EXPECT_STREQ(m_vcReason, "because");
    m_vcReason[0] = '\0';
    EXPECT_FALSE(m_Client.RunQuickTestMode("/f", 0, m_vcReason));
    EXPECT_STREQ(m_vcReason, "because");
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, nullptr)) << "no room for a reason";
}

TEST_F(NfsIpcClientMainTest, ARefusalIsAResultWithoutReason) {
    Serve("1.4", RawBoolReply(false));
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_STREQ(m_vcReason, "");
    EXPECT_FALSE(m_Client.IsServerRunning());
    EXPECT_FALSE(m_Client.IsSessionExists("s"));
    EXPECT_FALSE(m_Client.RequestAutoShutdown());
    EXPECT_FALSE(m_Client.AddNetDeviceCredential("p", "u", "w"));
    EXPECT_FALSE(m_Client.RemoveNetDeviceCredential("p"));
}

TEST_F(NfsIpcClientMainTest, RepliesOfTheWrongKindAreFailures) {
    Serve("1.4", RawTextReply(5, "a text"));
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_FALSE(m_Client.IsServerRunning());
    EXPECT_EQ(m_Client.GetMountInfo(false, false), -1);
    EXPECT_EQ(m_Client.ExecuteSystemCmd("ls", false), -1);
    Serve("1.4", RawIntReply(1));
    char cText[256];
    m_Client.GetDescription(cText);
    EXPECT_STREQ(cText, "Unknown");
}

TEST_F(NfsIpcClientMainTest, ATextOfTheServerNeverOverrunsTheCallersBuffer) {
    Serve(std::string(2048, 'v'), RawTextReply(5, std::string(2048, 'd')));
    struct {
        char cText[256];
        char cGuard = 'g';
    } buffer;
    m_Client.GetVersion(buffer.cText);
    EXPECT_EQ(std::string(buffer.cText), std::string(255, 'v'));
    m_Client.GetDescription(buffer.cText);
    EXPECT_EQ(std::string(buffer.cText), std::string(255, 'd'));
    EXPECT_EQ(buffer.cGuard, 'g');
}

// ---- No server

TEST_F(NfsIpcClientMainTest, WithoutAServerEveryOperationGivesItsFailureValue) {
    constexpr char kReason[] = "Fail to connect ipc client socket. No such file or directory (2)";
    char cText[256];
    m_Client.GetVersion(cText);
    EXPECT_STREQ(cText, "Unknown");
    m_Client.GetDescription(cText);
    EXPECT_STREQ(cText, "Unknown");
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_STREQ(m_vcReason, kReason);
    m_vcReason[0] = '\0';
    EXPECT_FALSE(m_Client.AddMountPoint("/f", "n", m_vcReason));
    EXPECT_STREQ(m_vcReason, kReason);
    m_vcReason[0] = '\0';
    EXPECT_FALSE(m_Client.AddRedirectedFileSegment("/f", "/s", 0, 0, 0, m_vcReason));
    EXPECT_STREQ(m_vcReason, kReason);
    EXPECT_FALSE(m_Client.IsServerRunning());
    EXPECT_FALSE(m_Client.IsSessionExists("s"));
    EXPECT_EQ(m_Client.GetMountInfo(false, true), 0);
    EXPECT_EQ(m_Client.GetSessionInfo(true), 0);
    EXPECT_EQ(m_Client.GetVSphereInfo(true), 0);
    EXPECT_EQ(m_Client.GetNetDeviceCredential(true), 0);
    EXPECT_FALSE(m_Client.RequestAutoShutdown());
    EXPECT_EQ(m_Client.GetServerStatus(), 0);
    EXPECT_FALSE(m_Client.SetDebugActionEnabled(true));
    EXPECT_EQ(m_Client.ExecuteSystemCmd("ls", false), 0) << "gated";
    EXPECT_TRUE(m_Client.RunQuickTestMode("/f", 0, m_vcReason)) << "gated";
    for (const std::string& sLine : m_Log.Texts('e')) {
        EXPECT_EQ(sLine, std::string("[IpcClient.SendRequest] ") + kReason);
    }
    EXPECT_FALSE(m_Log.Texts('e').empty());
}

TEST_F(NfsIpcClientMainTest, SendFailuresAreLoggedOnceAndOnlyAsErrors) {
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_EQ(m_Log.Texts(),
              Lines{"[IpcClient.SendRequest] Fail to connect ipc client socket. No such file or directory (2)"});
    m_Log.Clear();
    m_Client.GetRuntimeParam()->SetLogControl(2);
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(NfsIpcClientMainTest, AServerThatDiesBetweenRequestAndReplyIsASendFailure) {
    Serve("1.4", "");  // it answers the version, then ends without a reply
    EXPECT_EQ(m_Client.GetMountInfo(false, true), 0);
    EXPECT_EQ(m_Client.ExecuteSystemCmd("ls", false), -1);
    EXPECT_EQ(m_Client.GetServerStatus(), 1) << "it was reachable";
    EXPECT_FALSE(m_Client.StartServer(0, 0, 0, 0, false, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to read ipc server reply. Connection reset by peer (104)");
}

// ---- Version gates

TEST_F(NfsIpcClientMainTest, GatesCompareTheVersionExactly) {
    struct Case {
        const char* pcVersion;
        bool bNotConnectable, bNoStatus, bNoVSphere, bNoNetDevice;
    };
    const std::vector<Case> vCases = {
        {"Unknown", true, true, true, true},     {"1.0", false, true, true, true},
        {"1.1", false, false, true, true},       {"1.2", false, false, false, true},
        {"1.3", false, false, false, false},     {"1.4", false, false, false, false},
        {"", false, false, false, false},        {"1.00", false, false, false, false},
        {"unknown", false, false, false, false}, {" 1.0", false, false, false, false},
        {"0.9", false, false, false, false},
    };
    for (const Case& expected : vCases) {
        SCOPED_TRACE(expected.pcVersion);
        EXPECT_EQ(m_Client.IsNotConnectable(expected.pcVersion), expected.bNotConnectable);
        EXPECT_EQ(m_Client.IsNotSupportGetServerStatus(expected.pcVersion), expected.bNoStatus);
        EXPECT_EQ(m_Client.IsNotSupportSetVSphereInfo(expected.pcVersion), expected.bNoVSphere);
        EXPECT_EQ(m_Client.IsNotSupportNetDeviceAccess(expected.pcVersion), expected.bNoNetDevice);
    }
}

TEST_F(NfsIpcClientMainTest, GatesWithoutAVersionAskTheServerEachTime) {
    Serve("1.2", "");
    EXPECT_FALSE(m_Client.IsNotConnectable(nullptr));
    EXPECT_FALSE(m_Client.IsNotSupportGetServerStatus(nullptr));
    EXPECT_FALSE(m_Client.IsNotSupportSetVSphereInfo(nullptr));
    EXPECT_TRUE(m_Client.IsNotSupportNetDeviceAccess(nullptr));
    EXPECT_EQ(m_pServer->Messages(), Lines(4, RawRequest(1, 16).Bytes()));
    Serve("1.4", "");
    EXPECT_FALSE(m_Client.IsNotSupportNetDeviceAccess(nullptr)) << "a new server behind the same channel";
}

TEST_F(NfsIpcClientMainTest, AGatedOperationAsksForTheVersionOnceBeforeItsRequest) {
    Serve("1.4", RawBoolReply(true));
    const auto expect = [this](int iType, const std::function<void()>& action) {
        m_pServer->Clear();
        action();
        const Lines vsSeen = m_pServer->Messages();
        ASSERT_EQ(vsSeen.size(), 2U) << "type " << iType;
        EXPECT_EQ(I32At(vsSeen[0], 4), 1) << "type " << iType;
        EXPECT_EQ(I32At(vsSeen[1], 4), iType);
    };
    expect(23, [this] { m_Client.GetServerStatus(); });
    expect(24, [this] { m_Client.SetDebugActionEnabled(true); });
    expect(25, [this] { m_Client.GetVSphereInfo(false); });
    expect(26, [this] { m_Client.AddVSphereInfo("m", "h", "p", "u", "w"); });
    expect(27, [this] { m_Client.RemoveVSphereInfo("m"); });
    expect(28, [this] { m_Client.RunQuickTestMode("/p", 0, m_vcReason); });
    expect(29, [this] { m_Client.ExecuteSystemCmd("ls", false); });
    expect(30, [this] { m_Client.GetNetDeviceCredential(false); });
    expect(31, [this] { m_Client.AddNetDeviceCredential("p", "u", "w"); });
    expect(32, [this] { m_Client.RemoveNetDeviceCredential("p"); });
    m_pServer->Clear();
    m_Client.IsServerRunning();
    m_Client.RequestAutoShutdown();
    m_Client.GetMountInfo(false, false);
    EXPECT_EQ(m_pServer->Messages().size(), 3U) << "these have no gate";
}

TEST_F(NfsIpcClientMainTest, AGateSpeaksUnderTheParameterItWasGiven) {
    Serve("1.2", RawBoolReply(true));
    m_Client.GetRuntimeParam()->SetLogControl(CRuntimeParam::kLogGeneralInfo);
    EXPECT_TRUE(m_Client.RunQuickTestMode(&m_Other, "/p", 0, m_vcReason));
    EXPECT_EQ(m_Client.ExecuteSystemCmd(&m_Other, "ls", false), 0);
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
    m_Other.SetLogControl(CRuntimeParam::kLogGeneralInfo);
    EXPECT_TRUE(m_Client.RunQuickTestMode(&m_Other, "/p", 0, m_vcReason));
    EXPECT_EQ(m_Client.ExecuteSystemCmd(&m_Other, "ls", false), 0);
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<LogLine>{{'i', "other", "Server does not support to run quick test."},
                                    {'i', "other", "Server does not support to run execute system cmd."}}));
}

TEST_F(NfsIpcClientMainTest, AServerOf12GetsNoRequestAboutNetworkDevices) {
    m_Client.GetRuntimeParam()->SetLogControl(CRuntimeParam::kLogGeneralInfo);
    Serve("1.2", RawBoolReply(true));
    ExpectNoRequest([&] {
        EXPECT_FALSE(m_Client.AddNetDeviceCredential("p", "u", "w"));
        EXPECT_FALSE(m_Client.RemoveNetDeviceCredential("p"));
        EXPECT_EQ(m_Client.GetNetDeviceCredential(true), 0);
    });
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
    ExpectNoRequest([&] { EXPECT_TRUE(m_Client.RunQuickTestMode("/p", 0, m_vcReason)); });
    EXPECT_EQ(m_Log.Texts('i'), Lines{"Server does not support to run quick test."});
    m_Log.Clear();
    ExpectNoRequest([&] { EXPECT_EQ(m_Client.ExecuteSystemCmd("ls", false), 0); });
    EXPECT_EQ(m_Log.Texts('i'), Lines{"Server does not support to run execute system cmd."});
}

TEST_F(NfsIpcClientMainTest, WithoutGeneralLoggingTheGatesAreSilentExceptForAWantedCommandResult) {
    Serve("1.2", RawBoolReply(true));
    EXPECT_TRUE(m_Client.RunQuickTestMode("/p", 0, m_vcReason));
    EXPECT_EQ(m_Client.ExecuteSystemCmd("ls", false), 0);
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
    EXPECT_EQ(m_Client.ExecuteSystemCmd("ls", true), 0);
    EXPECT_EQ(m_Log.Texts('i'), Lines{"Server does not support to run execute system cmd."});
}

TEST_F(NfsIpcClientMainTest, AServerOf11GetsNoRequestAboutDatastores) {
    Serve("1.1", RawIntReply(3));
    ExpectNoRequest([&] {
        EXPECT_EQ(m_Client.GetVSphereInfo(true), 0);
        m_Client.AddVSphereInfo("m", "h", "p", "u", "w");
        m_Client.RemoveVSphereInfo("m");
    });
    ExpectRequest(RawRequest(23, 16), [&] { EXPECT_EQ(m_Client.GetServerStatus(), 3); });
}

TEST_F(NfsIpcClientMainTest, TheStatusOfAServerOf10IsPutTogether) {
    Serve("1.0", RawBoolReply(true));
    ExpectRequest(RawRequest(3, 16), [&] { EXPECT_EQ(m_Client.GetServerStatus(), 3); });
    Serve("1.0", RawBoolReply(false));
    ExpectRequest(RawRequest(3, 16), [&] { EXPECT_EQ(m_Client.GetServerStatus(), 1); });
    ExpectNoRequest([&] { EXPECT_FALSE(m_Client.SetDebugActionEnabled(true)); });
}

TEST_F(NfsIpcClientMainTest, TheStatusOfANewerServerIsItsOwnWord) {
    Serve("1.4", RawIntReply(7));
    ExpectRequest(RawRequest(23, 16), [&] { EXPECT_EQ(m_Client.GetServerStatus(), 7); });
}

// ---- What stays local

TEST_F(NfsIpcClientMainTest, StoppingTheServerSendsNothing) {
    Serve("1.4", RawBoolReply(true));
    m_Client.StopServer();
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
    m_Client.GetRuntimeParam()->SetLogControl(CRuntimeParam::kLogGeneralInfo);
    m_Client.StopServer();
    EXPECT_EQ(m_Log.Texts('i'), Lines{"[NfsIpcClientMain.StopServer] Cannot stop NFS service in client mode."});
    m_Log.Clear();
    m_Client.StopServerOf(m_Client.GetMoment());
    EXPECT_EQ(m_Log.Texts('i'), Lines{"[NfsIpcClientMain.StopServer] Cannot stop NFS service in client mode."});
    EXPECT_TRUE(m_pServer->Messages().empty());
}

TEST_F(NfsIpcClientMainTest, AutoShutdownStaysOffLocally) {
    Serve("1.4", RawBoolReply(true));
    m_Client.GetRuntimeParam()->SetLogControl(CRuntimeParam::kLogGeneralInfo);
    m_Client.EnableAutoShutdown(true);
    EXPECT_FALSE(m_Client.IsAutoShutdownEnabled());
    EXPECT_EQ(m_Log.Texts('i'),
              Lines{"[NfsIpcClientMain.EnableAutoShutdown] Auto shutdown is supported in client mode."});
    EXPECT_TRUE(m_pServer->Messages().empty());
}

TEST_F(NfsIpcClientMainTest, ItsLogControlStaysWhenTheServersIsSet) {
    Serve("1.4", RawBoolReply(true));
    m_Client.SetLogControl(1023);
    EXPECT_EQ(m_Client.GetRuntimeParam()->GetLogControl(), 1);
}

TEST_F(NfsIpcClientMainTest, TellsWhatItIs) {
    EXPECT_EQ(m_Client.GetAccessMode(), 2);
    char cChannel[kIpcChannelBufferSize];
    m_Client.GetIpcServerThreadChannel(cChannel);
    EXPECT_STREQ(cChannel, "/tmp/nfs-client");
}

}  // namespace
