// What each native method hands to its controller, and what it makes of the answer.
#include "NfsJNI.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Callback.h"
#include "FakeJvm.h"
#include "HostController.h"
#include "HostMethodNames.h"
#include "NfsMain.h"
#include "RecordingNfsMain.h"

namespace {

constexpr jint kAnswer = 42;  // of the operations that answer a number

/// Makes a String of the text, or null where the test passes nulls.
using Texts = std::function<jstring(const char*)>;

/// A native method with its arguments; gives the result as text.
struct NativeCall {
    const char* pcName;
    std::function<std::string(JNIEnv*, jobject, jlong, const Texts&)> call;
};

/// What the controller is asked for a native call, and what becomes of its answer.
struct Forwarding {
    NativeCall native;
    std::string sForwarded;  ///< what the controller must be asked
    std::string sSuccess;    ///< the result when the controller answers true, 42 or a text
    std::string sFailure;    ///< the result when it answers false
    bool bThrows = false;    ///< and whether that raises the reason
};

std::string Result(jboolean bValue) {
    return bValue == JNI_TRUE ? "true" : bValue == JNI_FALSE ? "false" : "no boolean";
}
std::string Result(jint iValue) {
    return std::to_string(iValue);
}

/// An argument as a native method takes it; a text becomes a String when the call is made.
template <typename Parameter, typename Argument>
Parameter Pass(Argument argument, [[maybe_unused]] const Texts& text) {
    if constexpr (std::is_same_v<Parameter, jstring>) {
        return text(argument);
    } else {
        return static_cast<Parameter>(argument);
    }
}

/// A method's name, and the method itself.
#define NATIVE(method) #method, NFSLIB_NATIVE(method)

template <typename Answer, typename... Parameters, typename... Arguments>
NativeCall Call(const char* pcName, Answer (*pMethod)(JNIEnv*, jobject, jlong, Parameters...), Arguments... arguments) {
    return {pcName, [=](JNIEnv* pEnv, jobject jObj, jlong iHandle, const Texts& text) -> std::string {
                if constexpr (std::is_void_v<Answer>) {
                    pMethod(pEnv, jObj, iHandle, Pass<Parameters>(arguments, text)...);
                    return "void";
                } else {
                    return Result(pMethod(pEnv, jObj, iHandle, Pass<Parameters>(arguments, text)...));
                }
            }};
}

const std::vector<Forwarding>& Forwardings() {
    constexpr jlong kFar = jlong{1} << 40;
    static const std::vector<Forwarding> vForwardings = {
        {Call(NATIVE(isServerRunning)), "IsServerRunning()", "true", "false"},
        {Call(NATIVE(startRemoteController)), "StartRemoteController()", "true", "false", true},
        {Call(NATIVE(stopRemoteController)), "StopRemoteController()", "void", "void"},
        {Call(NATIVE(startServer), 1, 2, JNI_TRUE), "StartServer(1, 2, 0, 0, true)", "true", "false", true},
        {Call(NATIVE(startServer), -1, 0, JNI_FALSE), "StartServer(-1, 0, 0, 0, false)", "true", "false", true},
        {Call(NATIVE(stopServer)), "StopServer()", "void", "void"},
        {Call(NATIVE(addMountPoint), "/a", "b"), "AddMountPoint(\"/a\", \"b\")", "true", "false", true},
        {Call(NATIVE(removeMountPoint), "/a"), "RemoveMountPoint(\"/a\")", "void", "void"},
        {Call(NATIVE(addSession), "a", "/b"), "AddSessionInfo(\"a\", \"/b\")", "void", "void"},
        {Call(NATIVE(removeSession), "a"), "RemoveSessionInfo(\"a\")", "void", "void"},
        {Call(NATIVE(isSessionExists), "a"), "IsSessionExists(\"a\")", "true", "false"},
        {Call(NATIVE(openRedirectedFile), "/a", kFar, JNI_TRUE, 2, 3),
         "OpenRedirectedFile(\"/a\", 1099511627776, true, 2, 3)", "void", "void"},
        {Call(NATIVE(openRedirectedFile), "/a", -1, JNI_FALSE, -2, -3), "OpenRedirectedFile(\"/a\", -1, false, -2, -3)",
         "void", "void"},
        {Call(NATIVE(closeRedirectedFile), "/a"), "CloseRedirectedFile(\"/a\")", "void", "void"},
        {Call(NATIVE(closeAllRedirectedFiles), "/a"), "CloseAllRedirectedFiles(\"/a\")", "void", "void"},
        {Call(NATIVE(addRedirectedFileSegment), "/a", "/b", kFar, kFar + 1, kFar + 2),
         "AddRedirectedFileSegment(\"/a\", \"/b\", 1099511627776, 1099511627777, 1099511627778)", "void", "void", true},
        {Call(NATIVE(exportRedirectedFile), "/a", "/b"), "ExportRedirectedFile(\"/a\", \"/b\")", "void", "void"},
        {Call(NATIVE(exportRedirectedFileInfo), "/a", "/b", JNI_TRUE), "ExportRedirectedFileInfo(\"/a\", \"/b\", true)",
         "void", "void"},
        {Call(NATIVE(exportRedirectedFileInfo), "/a", "/b", JNI_FALSE),
         "ExportRedirectedFileInfo(\"/a\", \"/b\", false)", "void", "void"},
        {Call(NATIVE(closeOpenedFile), "/a"), "CloseCachedFileHandle(\"/a\")", "void", "void"},
        {Call(NATIVE(closeAllOpenedFiles), "/a"), "CloseAllCachedFileHandles(\"/a\")", "void", "void"},
        {Call(NATIVE(setLogControl), -7), "SetLogControl(-7)", "void", "void"},
        {Call(NATIVE(getAccessMode)), "GetAccessMode()", "42", "42"},
        {Call(NATIVE(getMountInfo), JNI_TRUE, JNI_FALSE), "GetMountInfo(own, true, false)", "42", "42"},
        {Call(NATIVE(getMountInfo), JNI_FALSE, JNI_TRUE), "GetMountInfo(own, false, true)", "42", "42"},
        {Call(NATIVE(getSessionInfo), JNI_TRUE), "GetSessionInfo(own, true)", "42", "42"},
        {Call(NATIVE(getSessionInfo), JNI_FALSE), "GetSessionInfo(own, false)", "42", "42"},
        {Call(NATIVE(runTestMode), "/a", kFar), "RunTestMode(own, \"/a\", 1099511627776)", "void", "void"},
        {Call(NATIVE(getServerStatus)), "GetServerStatus()", "42", "42"},
        {Call(NATIVE(addVSphereInfo), "a", "b", "c", "d", "e"), "AddVSphereInfo(\"a\", \"b\", \"c\", \"d\", \"e\")",
         "void", "void"},
        {Call(NATIVE(removeVSphereInfo), "a"), "RemoveVSphereInfo(\"a\")", "void", "void"},
        {Call(NATIVE(runQuickTestMode), "/a", 5), "RunQuickTestMode(own, \"/a\", 5)", "true", "false", true},
        {Call(NATIVE(addNetDeviceCredential), "/a", "b", "c"), "AddNetDeviceCredential(\"/a\", \"b\", \"c\")", "true",
         "false"},
        {Call(NATIVE(removeNetDeviceCredential), "/a"), "RemoveNetDeviceCredential(\"/a\")", "true", "false"},
    };
    return vForwardings;
}

#undef NATIVE

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
        m_Record.m_iAnswer = kAnswer;
        m_Record.m_sVersion = "a version";
        m_Record.m_sDescription = "a description";
        auto pMain = std::make_unique<RecordingNfsMain>("host", 0, &m_Record);
        m_pMain = pMain.get();
        m_iHandle = CHostController::Register(std::move(pMain));
    }

    void TearDown() override {
        if (const auto pController = CHostController::Release(m_iHandle)) {
            pController->End();
        }
        m_Record.Clear();
        EXPECT_EQ(m_Jvm.Violations(), std::vector<std::string>());
        EXPECT_EQ(m_Jvm.GlobalReferences(), 0U);
        EXPECT_EQ(m_Jvm.LocalReferences(), 0U);
    }

    /// Calls a native method; its result is kept, the exception it leaves is returned.
    std::string Run(const Forwarding& forwarding, bool bNullTexts = false) {
        m_Record.Clear();
        const JavaFrame java(m_Jvm);
        const Texts text = [&](const char* pcText) -> jstring {
            const std::string sText = pcText;
            return bNullTexts ? nullptr : m_Jvm.NewText({sText.begin(), sText.end()});
        };
        m_sResult = forwarding.native.call(java.Env(), m_Jvm.NewHost({}), m_iHandle, text);
        return m_Jvm.TakeException();
    }

    FakeJvm m_Jvm;
    ControllerRecord m_Record;
    RecordingNfsMain* m_pMain = nullptr;
    jlong m_iHandle = 0;
    std::string m_sResult;
};

using Calls = std::vector<std::string>;

/// Where a handle has the controller's address.
constexpr jlong kAddressMask = (jlong{1} << 47) - 1;

/// A controller that has nothing and does nothing: quickly made.
class BareNfsMain : public CNfsMain {
public:
    void Terminate() override {}
};

TEST_F(NfsJNIForwardingTest, TheHandleHoldsTheControllersAddress) {
    EXPECT_EQ(m_iHandle & kAddressMask, static_cast<jlong>(reinterpret_cast<std::intptr_t>(m_pMain)));
    EXPECT_GT(m_iHandle, 0);
}

/// More often than the bits above one address could count.
TEST_F(NfsJNIForwardingTest, NoHandleIsEverGivenOutTwice) {
    constexpr std::size_t kHandles = 150000;
    std::unordered_set<jlong> handles{m_iHandle};
    for (std::size_t i = 1; i < kHandles; ++i) {
        const jlong iHandle = CHostController::Register(std::make_unique<BareNfsMain>());
        EXPECT_GT(iHandle, 0);
        handles.insert(iHandle);
        CHostController::Release(iHandle)->End();
        ASSERT_EQ(CHostController::Find(iHandle), nullptr);
    }
    EXPECT_EQ(handles.size(), kHandles);
}

TEST_F(NfsJNIForwardingTest, EveryArgumentArrivesInItsPlaceAndTheAnswerComesBack) {
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Run(forwarding), "") << forwarding.native.pcName;
        EXPECT_EQ(m_Record.Calls(), Calls({forwarding.sForwarded})) << forwarding.native.pcName;
        EXPECT_EQ(m_sResult, forwarding.sSuccess) << forwarding.native.pcName;
    }
}

TEST_F(NfsJNIForwardingTest, NullStringsArriveAsNullTexts) {
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Run(forwarding, true), "") << forwarding.native.pcName;
        EXPECT_EQ(m_Record.Calls(), Calls({WithNulls(forwarding.sForwarded)})) << forwarding.native.pcName;
        EXPECT_EQ(m_sResult, forwarding.sSuccess) << forwarding.native.pcName;
    }
}

TEST_F(NfsJNIForwardingTest, OnlyMethodsWithAReasonThrowAndTheyAnswerFalse) {
    m_Record.m_bAnswer = false;
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Run(forwarding), forwarding.bThrows ? "java/io/IOException: " + m_Record.m_sReason : "")
            << forwarding.native.pcName;
        EXPECT_EQ(m_sResult, forwarding.sFailure) << forwarding.native.pcName;
    }
}

TEST_F(NfsJNIForwardingTest, EveryCallLendsItsObjectAsTheCallback) {
    for (const bool bAnswer : {true, false}) {
        m_Record.m_bAnswer = bAnswer;
        for (const Forwarding& forwarding : Forwardings()) {
            Run(forwarding);
            ASSERT_EQ(m_Record.Callbacks().size(), 1U) << forwarding.native.pcName;
            EXPECT_NE(m_Record.Callbacks()[0], nullptr) << forwarding.native.pcName;
            EXPECT_EQ(m_pMain->GetCallback(), nullptr) << forwarding.native.pcName << " leaves none installed";
            m_Record.Clear();
            EXPECT_EQ(m_Jvm.GlobalReferences(), 0U) << forwarding.native.pcName;
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
        m_Record.m_bAnswer = bAnswer;
        for (const Forwarding& forwarding : Forwardings()) {
            Run(forwarding);
            ASSERT_EQ(m_Record.Callbacks().size(), 1U) << forwarding.native.pcName;
            EXPECT_EQ(m_Record.Callbacks()[0], pLasting) << forwarding.native.pcName;
            EXPECT_EQ(m_pMain->GetCallback(), pLasting) << forwarding.native.pcName;
        }
    }
    EXPECT_EQ(m_Jvm.GlobalReferences(), 1U);
    m_pMain->SetCallback(nullptr);
}

/// A C++ exception that reached the virtual machine would end the host.
TEST_F(NfsJNIForwardingTest, WhatTheLibraryFailsAtBeyondAnyReasonBecomesAnInternalError) {
    m_Record.m_bThrow = true;
    for (const Forwarding& forwarding : Forwardings()) {
        EXPECT_EQ(Run(forwarding), "java/lang/InternalError: out of everything") << forwarding.native.pcName;
        const bool bNumber = forwarding.sSuccess == std::to_string(kAnswer);
        const std::string sNone = std::string(forwarding.native.pcName) == "getAccessMode" ? "-1" : "0";
        EXPECT_EQ(m_sResult, bNumber ? sNone : forwarding.sFailure) << forwarding.native.pcName;
        EXPECT_EQ(m_pMain->GetCallback(), nullptr) << forwarding.native.pcName;
    }
    m_Record.m_bThrow = false;
}

TEST_F(NfsJNIForwardingTest, TextsComeBackAsStrings) {
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({});
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getVersion)(java.Env(), jObj, m_iHandle)), u"a version");
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getDescription)(java.Env(), jObj, m_iHandle)), u"a description");
    EXPECT_EQ(m_Record.Calls(), Calls({"GetVersion()", "GetDescription()"}));
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getVersion)(java.Env(), jObj, 0)), u"Not Defined");
    EXPECT_EQ(m_Jvm.TextOf(NFSLIB_NATIVE(getDescription)(java.Env(), jObj, 0)), u"Unknown");
}

TEST_F(NfsJNIForwardingTest, TheLocalSessionTableIsAskedWithoutTheControllersSay) {
    m_Record.m_bAnswer = false;
    m_pMain->CNfsMain::AddSessionInfo("here", "/x");
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({});
    const auto ask = [&](jstring jID) { return NFSLIB_NATIVE(isLocalSessionExists)(java.Env(), jObj, m_iHandle, jID); };
    EXPECT_EQ(ask(m_Jvm.NewText(u"here")), JNI_TRUE);
    EXPECT_EQ(ask(m_Jvm.NewText(u"elsewhere")), JNI_FALSE);
    EXPECT_EQ(ask(nullptr), JNI_FALSE);
    EXPECT_EQ(m_Record.Calls(), Calls()) << "it is no virtual operation";
}

TEST_F(NfsJNIForwardingTest, TerminateTerminatesAndThenDeletesWithoutACallback) {
    const JavaFrame java(m_Jvm);
    NFSLIB_NATIVE(terminate)(java.Env(), m_Jvm.NewHost({}), m_iHandle);
    EXPECT_EQ(m_Record.Calls(), Calls({"Terminate()", "deleted"}));
    EXPECT_EQ(m_Record.Callbacks(), std::vector<std::shared_ptr<CCallback>>(2));
}

TEST_F(NfsJNIForwardingTest, TheWaitingLoopAsksTheControllerForNothing) {
    int nAsked = 0;
    std::shared_ptr<CCallback> pInstalled;
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({{kHostIsInterrupted, [&](const std::vector<HostArgument>&) {
                                       pInstalled = m_pMain->GetCallback();
                                       return HostAnswer{++nAsked == 2 ? 1 : 0};
                                   }}});
    EXPECT_EQ(NFSLIB_NATIVE(receiveCallbackLoop)(java.Env(), jObj, m_iHandle, -1), JNI_FALSE);
    EXPECT_EQ(nAsked, 2);
    EXPECT_NE(pInstalled, nullptr) << "installed while it loops";
    EXPECT_EQ(m_pMain->GetCallback(), nullptr) << "and not afterwards";
    pInstalled.reset();
    EXPECT_EQ(m_Record.Calls(), Calls()) << "automatic shutdown is nothing it enables";
}

TEST_F(NfsJNIForwardingTest, TheWaitingLoopAsksOncePerSecondOfItsLife) {
    using Clock = std::chrono::steady_clock;
    std::vector<Clock::time_point> vAsked;
    const JavaFrame java(m_Jvm);
    jobject jObj = m_Jvm.NewHost({{kHostIsInterrupted, [&](const std::vector<HostArgument>&) {
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
    jobject jObj = m_Jvm.NewHost({{kHostIsInterrupted, [&](const std::vector<HostArgument>&) {
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
