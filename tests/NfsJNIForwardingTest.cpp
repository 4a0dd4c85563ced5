// What each native method hands to its controller, and what it makes of the answer.
#include "NfsJNI.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Callback.h"
#include "FakeJvm.h"
#include "HostController.h"
#include "NfsMain.h"

namespace {

constexpr const char* kReason = "the controller's reason";
constexpr jint kAnswer = 42;  // of the operations that answer a number

std::string Quoted(const char* pcText) {
    return pcText != nullptr ? std::string("\"").append(pcText).append("\"") : "null";
}

std::string Flag(bool bValue) {
    return bValue ? "true" : "false";
}

/// "Name(argument, ...)".
std::string CallText(const std::string& sName, const std::vector<std::string>& vsArguments) {
    std::string sCall = sName + "(";
    for (const std::string& sArgument : vsArguments) {
        sCall += (sCall.back() == '(' ? "" : ", ") + sArgument;
    }
    return sCall + ")";
}

/// What reached the controller; outlives it.
struct Record {
    std::vector<std::string> vsCalls;
    std::vector<std::shared_ptr<CCallback>> vpCallbacks;  ///< the one installed during each call
    bool bAnswer = true;                                  ///< of the operations that answer true or false
    bool bThrow = false;                                  ///< every operation fails as none should
};

/// A controller that does nothing but keep what it is asked.
class RecordingMain : public CNfsMain {
public:
    explicit RecordingMain(Record& record) : CNfsMain("host", 0), m_Record(record) {}
    ~RecordingMain() override { m_Record.vsCalls.emplace_back("deleted"); }

    bool Initial(char* pcStatus) override { return Fail("Initial", {}, pcStatus); }
    void Terminate() override { Keep("Terminate", {}); }
    bool StartRemoteController(char* pcStatus) override { return Fail("StartRemoteController", {}, pcStatus); }
    void StopRemoteController() override { Keep("StopRemoteController", {}); }
    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                     char* pcStatus) override {
        return Fail("StartServer",
                    {std::to_string(iMountPort), std::to_string(iNfsPort), std::to_string(iUId), std::to_string(iGId),
                     Flag(bReadOnly)},
                    pcStatus);
    }
    void StopServer() override { Keep("StopServer", {}); }
    int GetAccessMode() override { return Number("GetAccessMode", {}); }
    void GetVersion(char* pcVersion) override {
        Keep("GetVersion", {});
        std::snprintf(pcVersion, 256, "a version");
    }
    void GetDescription(char* pcDescription) override {
        Keep("GetDescription", {});
        std::snprintf(pcDescription, 256, "a description");
    }
    bool IsServerRunning() override { return Ask("IsServerRunning", {}); }
    bool AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, const char* pcIpcID,
                       char* pcStatus) override {
        return Fail("AddMountPoint", {Quoted(pcLocalMountPath), Quoted(pcExportName), Quoted(pcIpcID)}, pcStatus);
    }
    bool AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, char* pcStatus) override {
        return Fail("AddMountPoint", {Quoted(pcLocalMountPath), Quoted(pcExportName)}, pcStatus);
    }
    void RemoveMountPoint(const char* pcLocalMountPath) override {
        Keep("RemoveMountPoint", {Quoted(pcLocalMountPath)});
    }
    void AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) override {
        Keep("AddSessionInfo", {Quoted(pcSessionID), Quoted(pcLocalMountPath)});
    }
    void RemoveSessionInfo(const char* pcSessionID) override { Keep("RemoveSessionInfo", {Quoted(pcSessionID)}); }
    bool IsSessionExists(const char* pcSessionID) override { return Ask("IsSessionExists", {Quoted(pcSessionID)}); }
    void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                            int iInfoFileCheckPointSizeMB) override {
        Keep("OpenRedirectedFile", {Quoted(pcPath), std::to_string(iSize), Flag(bCreateInfoFile),
                                    std::to_string(iInfoFileSegmentSizeMB), std::to_string(iInfoFileCheckPointSizeMB)});
    }
    void CloseRedirectedFile(const char* pcPath) override { Keep("CloseRedirectedFile", {Quoted(pcPath)}); }
    void CloseAllRedirectedFiles(const char* pcPath) override { Keep("CloseAllRedirectedFiles", {Quoted(pcPath)}); }
    bool AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath, long long iSrcFileOffset,
                                  long long iOffset, long long iLength, char* pcStatus) override {
        return Fail("AddRedirectedFileSegment",
                    {Quoted(pcPath), Quoted(pcSourcePath), std::to_string(iSrcFileOffset), std::to_string(iOffset),
                     std::to_string(iLength)},
                    pcStatus);
    }
    void ExportRedirectedFile(const char* pcPath, const char* pcExportPath) override {
        Keep("ExportRedirectedFile", {Quoted(pcPath), Quoted(pcExportPath)});
    }
    void ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMergeRange) override {
        Keep("ExportRedirectedFileInfo", {Quoted(pcPath), Quoted(pcExportPath), Flag(bMergeRange)});
    }
    void CloseCachedFileHandle(const char* pcPath) override { Keep("CloseCachedFileHandle", {Quoted(pcPath)}); }
    void CloseAllCachedFileHandles(const char* pcPath) override { Keep("CloseAllCachedFileHandles", {Quoted(pcPath)}); }
    void SetLogControl(int iLogControl) override { Keep("SetLogControl", {std::to_string(iLogControl)}); }
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails) override {
        return Number("GetMountInfo", {Whose(pRuntimeParam), Flag(bClientMountedOnly), Flag(bPrintDetails)});
    }
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override {
        return Number("GetSessionInfo", {Whose(pRuntimeParam), Flag(bPrintDetails)});
    }
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize) override {
        Keep("RunTestMode", {Whose(pRuntimeParam), Quoted(pcDirPath), std::to_string(iFileSize)});
    }
    void EnableAutoShutdown(bool bEnable) override { Keep("EnableAutoShutdown", {Flag(bEnable)}); }
    bool RequestAutoShutdown() override { return Ask("RequestAutoShutdown", {}); }
    int GetServerStatus() override { return Number("GetServerStatus", {}); }
    bool SetDebugActionEnabled(bool bEnabled) override { return Ask("SetDebugActionEnabled", {Flag(bEnabled)}); }
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override {
        return Number("GetVSphereInfo", {Whose(pRuntimeParam), Flag(bPrintDetails)});
    }
    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                        const char* pcPwd) override {
        Keep("AddVSphereInfo",
             {Quoted(pcDatastoreMoid), Quoted(pcHost), Quoted(pcPort), Quoted(pcUser), Quoted(pcPwd)});
    }
    void RemoveVSphereInfo(const char* pcDatastoreMoid) override {
        Keep("RemoveVSphereInfo", {Quoted(pcDatastoreMoid)});
    }
    bool RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus) override {
        return Fail("RunQuickTestMode", {Whose(pRuntimeParam), Quoted(pcPath), std::to_string(iMode)}, pcStatus);
    }
    int ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogResult) override {
        return Number("ExecuteSystemCmd", {Whose(pRuntimeParam), Quoted(pcCmd), Flag(bLogResult)});
    }
    int GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override {
        return Number("GetNetDeviceCredential", {Whose(pRuntimeParam), Flag(bPrintDetails)});
    }
    bool AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) override {
        return Ask("AddNetDeviceCredential", {Quoted(pcPath), Quoted(pcUser), Quoted(pcPwd)});
    }
    bool RemoveNetDeviceCredential(const char* pcPath) override {
        return Ask("RemoveNetDeviceCredential", {Quoted(pcPath)});
    }

private:
    void Keep(const std::string& sName, const std::vector<std::string>& vsArguments) {
        m_Record.vsCalls.push_back(CallText(sName, vsArguments));
        m_Record.vpCallbacks.push_back(GetCallback());
        if (m_Record.bThrow) {
            throw std::runtime_error("out of everything");
        }
    }
    bool Ask(const std::string& sName, const std::vector<std::string>& vsArguments) {
        Keep(sName, vsArguments);
        return m_Record.bAnswer;
    }
    bool Fail(const std::string& sName, const std::vector<std::string>& vsArguments, char* pcStatus) {
        Keep(sName, vsArguments);
        if (!m_Record.bAnswer) {
            std::snprintf(pcStatus, 2048, "%s", kReason);
        }
        return m_Record.bAnswer;
    }
    int Number(const std::string& sName, const std::vector<std::string>& vsArguments) {
        Keep(sName, vsArguments);
        return kAnswer;
    }
    std::string Whose(const CRuntimeParam* pRuntimeParam) {
        return pRuntimeParam == GetRuntimeParam() ? "own" : "another's";
    }

    Record& m_Record;
};

/// Makes a String of the text, or null where the test passes nulls.
using Texts = std::function<jstring(const char*)>;

/// A native method with arguments that are all different.
struct Forwarding {
    const char* pcName;
    std::function<std::string(JNIEnv*, jobject, jlong, const Texts&)> call;  ///< gives the result as text
    std::string sForwarded;                                                  ///< what the controller must be asked
    std::string sSuccess;  ///< the result when the controller answers true, 42 or a text
    std::string sFailure;  ///< the result when it answers false
    bool bThrows = false;  ///< and whether that raises the reason
};

std::string Result(jboolean bValue) {
    return bValue == JNI_TRUE ? "true" : bValue == JNI_FALSE ? "false" : "no boolean";
}

// The next three wrap a native method by its kind of result.
#define VOID(method, ...) \
#method, [](JNIEnv* pEnv, jobject jObj, jlong iHandle, [[maybe_unused]] const Texts& text) { \
        NFSLIB_NATIVE(method)(pEnv, jObj, iHandle __VA_OPT__(, ) __VA_ARGS__);                    \
        return std::string("void");                                                               \
    }
#define BOOLEAN(method, ...)                                \
#method, [](JNIEnv * pEnv, jobject jObj, jlong iHandle, \
                [[maybe_unused]] const Texts&               \
                    text) { return Result(NFSLIB_NATIVE(method)(pEnv, jObj, iHandle __VA_OPT__(, ) __VA_ARGS__)); }
#define INT(method, ...)                               \
#method,                                           \
        [](JNIEnv * pEnv, jobject jObj, jlong iHandle, \
           [[maybe_unused]] const Texts&               \
               text) { return std::to_string(NFSLIB_NATIVE(method)(pEnv, jObj, iHandle __VA_OPT__(, ) __VA_ARGS__)); }

const std::vector<Forwarding>& Forwardings() {
    constexpr jlong kFar = jlong{1} << 40;
    static const std::vector<Forwarding> vForwardings = {
        {BOOLEAN(isServerRunning), "IsServerRunning()", "true", "false"},
        {BOOLEAN(startRemoteController), "StartRemoteController()", "true", "false", true},
        {VOID(stopRemoteController), "StopRemoteController()", "void", "void"},
        {BOOLEAN(startServer, 1, 2, JNI_TRUE), "StartServer(1, 2, 0, 0, true)", "true", "false", true},
        {BOOLEAN(startServer, -1, 0, JNI_FALSE), "StartServer(-1, 0, 0, 0, false)", "true", "false", true},
        {VOID(stopServer), "StopServer()", "void", "void"},
        {BOOLEAN(addMountPoint, text("/a"), text("b")), "AddMountPoint(\"/a\", \"b\")", "true", "false", true},
        {VOID(removeMountPoint, text("/a")), "RemoveMountPoint(\"/a\")", "void", "void"},
        {VOID(addSession, text("a"), text("/b")), "AddSessionInfo(\"a\", \"/b\")", "void", "void"},
        {VOID(removeSession, text("a")), "RemoveSessionInfo(\"a\")", "void", "void"},
        {BOOLEAN(isSessionExists, text("a")), "IsSessionExists(\"a\")", "true", "false"},
        {VOID(openRedirectedFile, text("/a"), kFar, JNI_TRUE, 2, 3),
         "OpenRedirectedFile(\"/a\", 1099511627776, true, 2, 3)", "void", "void"},
        {VOID(openRedirectedFile, text("/a"), -1, JNI_FALSE, -2, -3), "OpenRedirectedFile(\"/a\", -1, false, -2, -3)",
         "void", "void"},
        {VOID(closeRedirectedFile, text("/a")), "CloseRedirectedFile(\"/a\")", "void", "void"},
        {VOID(closeAllRedirectedFiles, text("/a")), "CloseAllRedirectedFiles(\"/a\")", "void", "void"},
        {VOID(addRedirectedFileSegment, text("/a"), text("/b"), kFar, kFar + 1, kFar + 2),
         "AddRedirectedFileSegment(\"/a\", \"/b\", 1099511627776, 1099511627777, 1099511627778)", "void", "void", true},
        {VOID(exportRedirectedFile, text("/a"), text("/b")), "ExportRedirectedFile(\"/a\", \"/b\")", "void", "void"},
        {VOID(exportRedirectedFileInfo, text("/a"), text("/b"), JNI_TRUE),
         "ExportRedirectedFileInfo(\"/a\", \"/b\", true)", "void", "void"},
        {VOID(exportRedirectedFileInfo, text("/a"), text("/b"), JNI_FALSE),
         "ExportRedirectedFileInfo(\"/a\", \"/b\", false)", "void", "void"},
        {VOID(closeOpenedFile, text("/a")), "CloseCachedFileHandle(\"/a\")", "void", "void"},
        {VOID(closeAllOpenedFiles, text("/a")), "CloseAllCachedFileHandles(\"/a\")", "void", "void"},
        {VOID(setLogControl, -7), "SetLogControl(-7)", "void", "void"},
        {INT(getAccessMode), "GetAccessMode()", "42", "42"},
        {INT(getMountInfo, JNI_TRUE, JNI_FALSE), "GetMountInfo(own, true, false)", "42", "42"},
        {INT(getMountInfo, JNI_FALSE, JNI_TRUE), "GetMountInfo(own, false, true)", "42", "42"},
        {INT(getSessionInfo, JNI_TRUE), "GetSessionInfo(own, true)", "42", "42"},
        {INT(getSessionInfo, JNI_FALSE), "GetSessionInfo(own, false)", "42", "42"},
        {VOID(runTestMode, text("/a"), kFar), "RunTestMode(own, \"/a\", 1099511627776)", "void", "void"},
        {INT(getServerStatus), "GetServerStatus()", "42", "42"},
        {VOID(addVSphereInfo, text("a"), text("b"), text("c"), text("d"), text("e")),
         "AddVSphereInfo(\"a\", \"b\", \"c\", \"d\", \"e\")", "void", "void"},
        {VOID(removeVSphereInfo, text("a")), "RemoveVSphereInfo(\"a\")", "void", "void"},
        {BOOLEAN(runQuickTestMode, text("/a"), 5), "RunQuickTestMode(own, \"/a\", 5)", "true", "false", true},
        {BOOLEAN(addNetDeviceCredential, text("/a"), text("b"), text("c")),
         "AddNetDeviceCredential(\"/a\", \"b\", \"c\")", "true", "false"},
        {BOOLEAN(removeNetDeviceCredential, text("/a")), "RemoveNetDeviceCredential(\"/a\")", "true", "false"},
    };
    return vForwardings;
}

#undef VOID
#undef BOOLEAN
#undef INT

/// Every quoted argument replaced by null.
std::string WithNulls(const std::string& sCall) {
    std::string sResult;
    bool bInside = false;
    for (const char c : sCall) {
        if (c == '"') {
            sResult += bInside ? "" : "null";
            bInside = !bInside;
        } else if (!bInside) {
            sResult += c;
        }
    }
    return sResult;
}

class NfsJNIForwardingTest : public testing::Test {
protected:
    void SetUp() override {
        auto pMain = std::make_unique<RecordingMain>(m_Record);
        m_pMain = pMain.get();
        m_iHandle = CHostController::Register(std::move(pMain));
    }

    void TearDown() override {
        if (const auto pController = CHostController::Release(m_iHandle)) {
            pController->End();
        }
        m_Record.vpCallbacks.clear();
        EXPECT_EQ(m_Jvm.Violations(), std::vector<std::string>());
        EXPECT_EQ(m_Jvm.GlobalReferences(), 0U);
        EXPECT_EQ(m_Jvm.LocalReferences(), 0U);
    }

    /// Calls a native method; its result is kept, the exception it leaves is returned.
    std::string Call(const Forwarding& forwarding, bool bNullTexts = false) {
        m_Record.vsCalls.clear();
        m_Record.vpCallbacks.clear();
        const JavaFrame java(m_Jvm);
        const Texts text = [&](const char* pcText) -> jstring {
            const std::string sText = pcText;
            return bNullTexts ? nullptr : m_Jvm.NewText({sText.begin(), sText.end()});
        };
        m_sResult = forwarding.call(java.Env(), m_Jvm.NewHost({}), m_iHandle, text);
        return m_Jvm.TakeException();
    }

    FakeJvm m_Jvm;
    Record m_Record;
    RecordingMain* m_pMain = nullptr;
    jlong m_iHandle = 0;
    std::string m_sResult;
};

using Calls = std::vector<std::string>;

TEST_F(NfsJNIForwardingTest, TheHandleIsTheControllersAddress) {
    EXPECT_EQ(m_iHandle, static_cast<jlong>(reinterpret_cast<std::intptr_t>(m_pMain)));
}

TEST_F(NfsJNIForwardingTest, EveryArgumentArrivesInItsPlaceAndTheAnswerComesBack) {
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Call(forwarding), "") << forwarding.pcName;
        EXPECT_EQ(m_Record.vsCalls, Calls({forwarding.sForwarded})) << forwarding.pcName;
        EXPECT_EQ(m_sResult, forwarding.sSuccess) << forwarding.pcName;
    }
}

TEST_F(NfsJNIForwardingTest, NullStringsArriveAsNullTexts) {
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Call(forwarding, true), "") << forwarding.pcName;
        EXPECT_EQ(m_Record.vsCalls, Calls({WithNulls(forwarding.sForwarded)})) << forwarding.pcName;
        EXPECT_EQ(m_sResult, forwarding.sSuccess) << forwarding.pcName;
    }
}

TEST_F(NfsJNIForwardingTest, OnlyMethodsWithAReasonThrowAndTheyAnswerFalse) {
    m_Record.bAnswer = false;
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Call(forwarding), forwarding.bThrows ? std::string("java/io/IOException: ") + kReason : "")
            << forwarding.pcName;
        EXPECT_EQ(m_sResult, forwarding.sFailure) << forwarding.pcName;
    }
}

TEST_F(NfsJNIForwardingTest, EveryCallLendsItsObjectAsTheCallback) {
    for (const bool bAnswer : {true, false}) {
        m_Record.bAnswer = bAnswer;
        for (const Forwarding& forwarding : Forwardings()) {
            Call(forwarding);
            ASSERT_EQ(m_Record.vpCallbacks.size(), 1U) << forwarding.pcName;
            EXPECT_NE(m_Record.vpCallbacks[0], nullptr) << forwarding.pcName;
            EXPECT_EQ(m_pMain->GetCallback(), nullptr) << forwarding.pcName << " leaves none installed";
            m_Record.vpCallbacks.clear();
            EXPECT_EQ(m_Jvm.GlobalReferences(), 0U) << forwarding.pcName;
        }
    }
}

TEST_F(NfsJNIForwardingTest, ACallbackThatIsInstalledServesEveryCallAndStays) {
    std::shared_ptr<CCallback> pLasting;
    {
        const JavaFrame java(m_Jvm);
        pLasting = std::make_shared<CCallback>(java.Env(), m_Jvm.NewHost({}));
    }
    m_pMain->SetCallback(pLasting);
    for (const bool bAnswer : {true, false}) {
        m_Record.bAnswer = bAnswer;
        for (const Forwarding& forwarding : Forwardings()) {
            Call(forwarding);
            ASSERT_EQ(m_Record.vpCallbacks.size(), 1U) << forwarding.pcName;
            EXPECT_EQ(m_Record.vpCallbacks[0], pLasting) << forwarding.pcName;
            EXPECT_EQ(m_pMain->GetCallback(), pLasting) << forwarding.pcName;
        }
    }
    EXPECT_EQ(m_Jvm.GlobalReferences(), 1U);
    m_pMain->SetCallback(nullptr);
}

/// A C++ exception that reached the virtual machine would end the host.
TEST_F(NfsJNIForwardingTest, WhatTheLibraryFailsAtBeyondAnyReasonBecomesAnInternalError) {
    m_Record.bThrow = true;
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Call(forwarding), "java/lang/InternalError: out of everything") << forwarding.pcName;
        const bool bNumber = forwarding.sSuccess == std::to_string(kAnswer);
        const std::string sNone = std::string(forwarding.pcName) == "getAccessMode" ? "-1" : "0";
        EXPECT_EQ(m_sResult, bNumber ? sNone : forwarding.sFailure) << forwarding.pcName;
        EXPECT_EQ(m_pMain->GetCallback(), nullptr) << forwarding.pcName;
    }
    m_Record.bThrow = false;
}

TEST_F(NfsJNIForwardingTest, TextsComeBackAsStrings) {
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({});
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getVersion)(java.Env(), jObj, m_iHandle)), u"a version");
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getDescription)(java.Env(), jObj, m_iHandle)), u"a description");
    EXPECT_EQ(m_Record.vsCalls, Calls({"GetVersion()", "GetDescription()"}));
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getVersion)(java.Env(), jObj, 0)), u"Not Defined");
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getDescription)(java.Env(), jObj, 0)), u"Unknown");
}

TEST_F(NfsJNIForwardingTest, TheLocalSessionTableIsAskedWithoutTheControllersSay) {
    m_Record.bAnswer = false;
    m_pMain->CNfsMain::AddSessionInfo("here", "/x");
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({});
    const auto ask = [&](jstring jID) { return NFSLIB_NATIVE(isLocalSessionExists)(java.Env(), jObj, m_iHandle, jID); };
    EXPECT_EQ(ask(m_Jvm.NewText(u"here")), JNI_TRUE);
    EXPECT_EQ(ask(m_Jvm.NewText(u"elsewhere")), JNI_FALSE);
    EXPECT_EQ(ask(nullptr), JNI_FALSE);
    EXPECT_EQ(m_Record.vsCalls, Calls()) << "it is no virtual operation";
}

TEST_F(NfsJNIForwardingTest, TerminateTerminatesAndThenDeletesWithoutACallback) {
    const JavaFrame java(m_Jvm);
    NFSLIB_NATIVE(terminate)(java.Env(), m_Jvm.NewHost({}), m_iHandle);
    EXPECT_EQ(m_Record.vsCalls, Calls({"Terminate()", "deleted"}));
    ASSERT_EQ(m_Record.vpCallbacks.size(), 1U);
    EXPECT_EQ(m_Record.vpCallbacks[0], nullptr);
}

TEST_F(NfsJNIForwardingTest, TheWaitingLoopAsksTheControllerForNothing) {
    int nAsked = 0;
    std::shared_ptr<CCallback> pInstalled;
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({{"isInterrupted()Z", [&](const std::vector<HostArgument>&) {
                                       pInstalled = m_pMain->GetCallback();
                                       return HostAnswer{++nAsked == 2 ? 1 : 0};
                                   }}});
    EXPECT_EQ(NFSLIB_NATIVE(receiveCallbackLoop)(java.Env(), jObj, m_iHandle, -1), JNI_FALSE);
    EXPECT_EQ(nAsked, 2);
    EXPECT_NE(pInstalled, nullptr) << "installed while it loops";
    EXPECT_EQ(m_pMain->GetCallback(), nullptr) << "and not afterwards";
    pInstalled.reset();
    EXPECT_EQ(m_Record.vsCalls, Calls()) << "automatic shutdown is nothing it enables";
}

TEST_F(NfsJNIForwardingTest, TheWaitingLoopAsksOncePerSecondOfItsLife) {
    using Clock = std::chrono::steady_clock;
    std::vector<Clock::time_point> vAsked;
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({{"isInterrupted()Z", [&](const std::vector<HostArgument>&) {
                                       vAsked.push_back(Clock::now());
                                       return HostAnswer{};
                                   }}});
    const auto start = Clock::now();
    EXPECT_EQ(NFSLIB_NATIVE(receiveCallbackLoop)(java.Env(), jObj, m_iHandle, 2), JNI_FALSE);
    ASSERT_EQ(vAsked.size(), 2U);
    EXPECT_GE(vAsked[1] - vAsked[0], std::chrono::milliseconds(990)) << "a second between two questions";
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1990)) << "and one behind the last";
}

TEST_F(NfsJNIForwardingTest, ALoopBesideAnInstalledCallbackAsksItsOwnObjectAndLeavesTheOtherInstalled) {
    const JavaFrame java(m_Jvm);
    const auto pLasting = std::make_shared<CCallback>(java.Env(), m_Jvm.NewHost({}));
    m_pMain->SetCallback(pLasting);
    int nAsked = 0;
    jobject jObj = m_Jvm.NewHost({{"isInterrupted()Z", [&](const std::vector<HostArgument>&) {
                                       ++nAsked;
                                       EXPECT_EQ(m_pMain->GetCallback(), pLasting);
                                       return HostAnswer{JNI_TRUE};
                                   }}});
    EXPECT_EQ(NFSLIB_NATIVE(receiveCallbackLoop)(java.Env(), jObj, m_iHandle, -1), JNI_FALSE);
    EXPECT_EQ(nAsked, 1);
    EXPECT_EQ(m_pMain->GetCallback(), pLasting);
    m_pMain->SetCallback(nullptr);
}

}  // namespace
