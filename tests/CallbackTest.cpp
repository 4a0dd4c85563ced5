// The calls into the host, on a virtual machine that can be made to fail wherever one can.
#include "Callback.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <pthread.h>

#include <gtest/gtest.h>

#include "FakeJvm.h"
#include "HostMethodNames.h"

namespace {

/// A host on the fake machine; what its methods get is kept, what they answer is set.
class CallbackTest : public testing::Test {
protected:
    /// On a thread that is a Java thread only while the callback is made, as `initial` would.
    std::unique_ptr<CCallback> Make(HostMethods methods) {
        const JavaFrame java(m_Jvm);
        return std::make_unique<CCallback>(java.Env(), m_Jvm.NewHost(std::move(methods)));
    }

    /// A host with one method that answers as set and keeps its arguments.
    std::unique_ptr<CCallback> MakeWith(const std::string& sMethod) {
        return Make({{sMethod, [this](const std::vector<HostArgument>& vArguments) {
                          ++m_nCalls;
                          m_vArguments = vArguments;
                          return m_Answer;
                      }}});
    }

    /// Every rule kept, no reference and no thread left behind.
    void TearDown() override {
        EXPECT_EQ(m_Jvm.Violations(), std::vector<std::string>());
        EXPECT_EQ(m_Jvm.GlobalReferences(), 0U);
        EXPECT_EQ(m_Jvm.LocalReferences(), 0U);
        EXPECT_EQ(m_Jvm.AttachedThreads(), 0U);
    }

    FakeJvm m_Jvm;
    HostAnswer m_Answer;
    int m_nCalls = 0;
    std::vector<HostArgument> m_vArguments;
};

TEST_F(CallbackTest, OnlyTheDestructorIsVirtual) {
    static_assert(std::has_virtual_destructor_v<CCallback>);
    // A pointer to a virtual member function holds an odd number (Itanium C++ ABI, 2.3).
    const auto isVirtual = [](auto pOperation) {
        return std::bit_cast<std::array<std::ptrdiff_t, 2>>(pOperation)[0] % 2 != 0;
    };
    EXPECT_FALSE(isVirtual(&CCallback::LogInfo));
    EXPECT_FALSE(isVirtual(&CCallback::LogError));
    EXPECT_FALSE(isVirtual(&CCallback::LogRaw));
    EXPECT_FALSE(isVirtual(&CCallback::UpdateRedirectedFileAttributes));
    EXPECT_FALSE(isVirtual(&CCallback::RemoveRedirectedFile));
    EXPECT_FALSE(isVirtual(&CCallback::RenameRedirectedFile));
    EXPECT_FALSE(isVirtual(&CCallback::WriteRedirectedFile));
    EXPECT_FALSE(isVirtual(&CCallback::IsInterrupted));
    EXPECT_FALSE(isVirtual(&CCallback::ThrowIOException));
}

TEST_F(CallbackTest, LogLinesArriveWithIDAndMessage) {
    for (const char* pcMethod : {kHostLogInfo, kHostLogError, kHostLogRaw}) {
        const auto pCallback = MakeWith(pcMethod);
        EXPECT_EQ(pCallback->LogInfo("10.0.0.5", "hello"), pcMethod == kHostLogInfo);
        EXPECT_EQ(pCallback->LogError("10.0.0.5", "hello"), pcMethod == kHostLogError);
        EXPECT_EQ(pCallback->LogRaw("10.0.0.5", "hello"), pcMethod == kHostLogRaw);
        ASSERT_EQ(m_vArguments.size(), 2U) << pcMethod;
        EXPECT_EQ(m_vArguments[0].sText, u"10.0.0.5");
        EXPECT_EQ(m_vArguments[1].sText, u"hello");
    }
    EXPECT_EQ(m_nCalls, 3) << "each line goes to its own method only";
}

TEST_F(CallbackTest, AttributesArriveInOrderAndTheAnswerComesBack) {
    const auto pCallback = MakeWith(kHostUpdate);
    m_Answer.iValue = 17;
    EXPECT_EQ(pCallback->UpdateRedirectedFileAttributes("id", "/x", true, 0x8000000000000001ULL, false, 5, true,
                                                        4294967295UL),
              17);
    ASSERT_EQ(m_vArguments.size(), 8U);
    EXPECT_EQ(m_vArguments[0].sText, u"id");
    EXPECT_EQ(m_vArguments[1].sText, u"/x");
    EXPECT_EQ(m_vArguments[2].value.z, JNI_TRUE);
    EXPECT_EQ(m_vArguments[3].value.j, static_cast<jlong>(0x8000000000000001ULL)) << "all 64 bits arrive";
    EXPECT_EQ(m_vArguments[4].value.z, JNI_FALSE);
    EXPECT_EQ(m_vArguments[5].value.j, 5);
    EXPECT_EQ(m_vArguments[6].value.z, JNI_TRUE);
    EXPECT_EQ(m_vArguments[7].value.j, 4294967295) << "times are unsigned 32-bit on the wire";
}

TEST_F(CallbackTest, RemovalArrives) {
    const auto pCallback = MakeWith(kHostRemove);
    EXPECT_EQ(pCallback->RemoveRedirectedFile("id", "/x"), 0);
    ASSERT_EQ(m_vArguments.size(), 2U);
    EXPECT_EQ(m_vArguments[0].sText, u"id");
    EXPECT_EQ(m_vArguments[1].sText, u"/x");
}

TEST_F(CallbackTest, RenameArrivesWithBothPaths) {
    const auto pCallback = MakeWith(kHostRename);
    m_Answer.iValue = -5;
    EXPECT_EQ(pCallback->RenameRedirectedFile("id", "/old", "/new"), -5);
    ASSERT_EQ(m_vArguments.size(), 3U);
    EXPECT_EQ(m_vArguments[0].sText, u"id");
    EXPECT_EQ(m_vArguments[1].sText, u"/old");
    EXPECT_EQ(m_vArguments[2].sText, u"/new");
}

TEST_F(CallbackTest, WriteArrivesWithPositionTypeAndLength) {
    const auto pCallback = MakeWith(kHostWrite);
    m_Answer.iValue = 4096;
    EXPECT_EQ(pCallback->WriteRedirectedFile("id", "/x", 1ULL << 40, 2, 4096), 4096);
    ASSERT_EQ(m_vArguments.size(), 5U);
    EXPECT_EQ(m_vArguments[0].sText, u"id");
    EXPECT_EQ(m_vArguments[1].sText, u"/x");
    EXPECT_EQ(m_vArguments[2].value.j, jlong{1} << 40);
    EXPECT_EQ(m_vArguments[3].value.i, 2);
    EXPECT_EQ(m_vArguments[4].value.i, 4096);
}

TEST_F(CallbackTest, InterruptedOnlyWhenTheHostSaysSo) {
    const auto pCallback = MakeWith(kHostIsInterrupted);
    EXPECT_FALSE(pCallback->IsInterrupted());
    m_Answer.iValue = JNI_TRUE;
    EXPECT_TRUE(pCallback->IsInterrupted());
    m_Answer.sThrows = "java/lang/RuntimeException";
    EXPECT_FALSE(pCallback->IsInterrupted()) << "a host that throws has not said so";
}

TEST_F(CallbackTest, MissingMethodsFailWithoutLeavingAnException) {
    const JavaFrame java(m_Jvm);
    const auto pCallback = Make({});
    EXPECT_FALSE(pCallback->LogInfo("id", "text"));
    EXPECT_FALSE(pCallback->LogError("id", "text"));
    EXPECT_FALSE(pCallback->LogRaw("id", "text"));
    EXPECT_EQ(pCallback->UpdateRedirectedFileAttributes("id", "/x", true, 1, true, 1, true, 1), -1);
    EXPECT_EQ(pCallback->RemoveRedirectedFile("id", "/x"), -1);
    EXPECT_EQ(pCallback->RenameRedirectedFile("id", "/x", "/y"), -1);
    EXPECT_EQ(pCallback->WriteRedirectedFile("id", "/x", 0, 0, 1), -1);
    EXPECT_FALSE(pCallback->IsInterrupted());
    EXPECT_EQ(m_Jvm.TakeException(), "");
}

TEST_F(CallbackTest, AHostThatThrowsCountsAsMinusOneAndLeavesNothingPending) {
    const JavaFrame java(m_Jvm);
    m_Answer = {12, "java/lang/IllegalStateException"};
    testing::internal::CaptureStderr();
    EXPECT_EQ(MakeWith(kHostWrite)->WriteRedirectedFile("id", "/x", 0, 0, 12), -1);
    EXPECT_EQ(MakeWith(kHostRemove)->RemoveRedirectedFile("id", "/x"), -1);
    EXPECT_EQ(MakeWith(kHostRename)->RenameRedirectedFile("id", "/x", "/y"), -1);
    EXPECT_EQ(MakeWith(kHostUpdate)->UpdateRedirectedFileAttributes("id", "/x", true, 1, false, 0, false, 0), -1);
    EXPECT_FALSE(MakeWith(kHostLogInfo)->LogInfo("id", "text")) << "the line was not taken";
    const std::string sDescribed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(m_nCalls, 5);
    EXPECT_NE(sDescribed.find("java/lang/IllegalStateException"), std::string::npos) << sDescribed;
    EXPECT_EQ(m_Jvm.TakeException(), "");
}

TEST_F(CallbackTest, AHostOutOfMemoryForAnArgumentIsNotCalled) {
    const JavaFrame java(m_Jvm);
    for (const int nth : {1, 2, 3}) {
        const auto pCallback = MakeWith(kHostRename);
        m_Jvm.SetFailString(nth);
        EXPECT_EQ(pCallback->RenameRedirectedFile("id", "/x", "/y"), -1) << nth;
    }
    const auto pLog = MakeWith(kHostLogInfo);
    m_Jvm.SetFailString(2);
    EXPECT_FALSE(pLog->LogInfo("id", "text"));
    EXPECT_EQ(m_nCalls, 0);
    EXPECT_EQ(m_Jvm.TakeException(), "");
}

TEST_F(CallbackTest, NullTextsArriveAsNull) {
    const auto pCallback = MakeWith(kHostRename);
    EXPECT_EQ(pCallback->RenameRedirectedFile(nullptr, nullptr, ""), 0);
    ASSERT_EQ(m_vArguments.size(), 3U);
    EXPECT_TRUE(m_vArguments[0].bNull);
    EXPECT_TRUE(m_vArguments[1].bNull);
    EXPECT_FALSE(m_vArguments[2].bNull);
}

TEST_F(CallbackTest, AnyBytesOfAPathArriveAsAText) {
    const auto pCallback = MakeWith(kHostRemove);
    pCallback->RemoveRedirectedFile("id", "/\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80/\xFF\xED\xA0\x80\xC3");
    ASSERT_EQ(m_vArguments.size(), 2U);
    const std::u16string sSurrogate = {char16_t{0xD800}};  // as the host's own form of UTF-8 has it
    EXPECT_EQ(m_vArguments[1].sText, u"/\u00E9\u65E5\U0001F600/\uFFFD" + sSurrogate + u"\uFFFD");
}

TEST_F(CallbackTest, AThreadOfTheLibraryIsAttachedForEachCallAndDetachedAfterIt) {
    const auto pCallback = MakeWith(kHostLogInfo);
    std::thread([&] {
        EXPECT_TRUE(pCallback->LogInfo("id", "one"));
        EXPECT_TRUE(pCallback->LogInfo("id", "two"));
    }).join();
    EXPECT_EQ(m_Jvm.Attachments(), 2);
    EXPECT_EQ(m_Jvm.DetachRequests(), 2);
}

TEST_F(CallbackTest, AHostThreadIsNotAttachedButItsDetachmentIsAskedForAfterEveryCall) {
    const JavaFrame java(m_Jvm);
    const auto pCallback = MakeWith(kHostLogInfo);
    pCallback->LogInfo("id", "line");
    pCallback->LogError("id", "no such method");
    pCallback->RemoveRedirectedFile("id", "no such method");
    EXPECT_EQ(m_Jvm.DetachRequests(), 3);
    pCallback->ThrowIOException("reason");
    EXPECT_EQ(m_Jvm.DetachRequests(), 4);
    pCallback->IsInterrupted();
    EXPECT_EQ(m_Jvm.DetachRequests(), 5);
    EXPECT_EQ(m_Jvm.Attachments(), 0);
    EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException: reason") << "the refused detachment takes nothing away";
}

TEST_F(CallbackTest, AHostThatCallsBackOnALibraryThreadKeepsItsEnvironment) {
    std::unique_ptr<CCallback> pInner = MakeWith(kHostLogInfo);
    const auto pOuter = Make({{kHostWrite, [&](const std::vector<HostArgument>&) {
                                   pInner->LogInfo("id", "from inside");  // must not detach the outer call's thread
                                   return HostAnswer{7};
                               }}});
    std::thread([&] { EXPECT_EQ(pOuter->WriteRedirectedFile("id", "/x", 0, 0, 7), 7); }).join();
    EXPECT_EQ(m_nCalls, 1);
    EXPECT_EQ(m_Jvm.Attachments(), 1);
}

TEST_F(CallbackTest, AFailedAttachmentIsPrintedAndFailsTheCall) {
    const auto pCallback = MakeWith(kHostWrite);
    m_Jvm.SetRefuseAttach(true);
    std::string sExpected;
    testing::internal::CaptureStdout();
    std::thread([&] {
        char vcText[80];
        std::snprintf(vcText, sizeof(vcText), "GetEnv: fail to attach thread (%lu)\n",
                      static_cast<unsigned long>(::pthread_self()));
        sExpected = vcText;
        EXPECT_EQ(pCallback->WriteRedirectedFile("id", "/x", 0, 0, 1), -1);
    }).join();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), sExpected);
    EXPECT_EQ(m_nCalls, 0);
    m_Jvm.SetRefuseAttach(false);
}

TEST_F(CallbackTest, AMachineOfAnotherVersionFailsTheCallQuietly) {
    const auto pCallback = MakeWith(kHostWrite);
    const JavaFrame java(m_Jvm);
    m_Jvm.SetGetEnvResult(JNI_EVERSION);
    EXPECT_EQ(pCallback->WriteRedirectedFile("id", "/x", 0, 0, 1), -1);
    EXPECT_FALSE(pCallback->LogInfo("id", "text"));
    EXPECT_EQ(m_Jvm.Attachments(), 0);
    m_Jvm.SetGetEnvResult(JNI_OK);
}

TEST_F(CallbackTest, WithoutAVirtualMachineItSaysSoAndEveryCallFails) {
    const JavaFrame java(m_Jvm);
    m_Jvm.SetNoVm(true);
    testing::internal::CaptureStdout();
    const auto pCallback = MakeWith(kHostWrite);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Callback::Constructor] vm = NULL\n");
    EXPECT_EQ(m_Jvm.GlobalReferences(), 0U);
    EXPECT_EQ(pCallback->WriteRedirectedFile("id", "/x", 0, 0, 1), -1);
    EXPECT_FALSE(pCallback->LogInfo("id", "text"));
    EXPECT_FALSE(pCallback->IsInterrupted());
    pCallback->ThrowIOException("reason");
    EXPECT_EQ(m_Jvm.TakeException(), "");
}

TEST_F(CallbackTest, TheExceptionCarriesItsReasonAsText) {
    const JavaFrame java(m_Jvm);
    const auto pCallback = Make({});
    pCallback->ThrowIOException("NFS daemon failed to open port 2049");
    EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException: NFS daemon failed to open port 2049");
    pCallback->ThrowIOException("");
    EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException");
    pCallback->ThrowIOException(nullptr);
    EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException");
    pCallback->ThrowIOException("bad \xFF bytes");
    EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException: bad ? bytes");
}

TEST_F(CallbackTest, AnExceptionThatCannotBeMadeLeavesTheOneThatPreventedIt) {
    const JavaFrame java(m_Jvm);
    const auto pCallback = Make({});
    m_Jvm.SetFailString(1);
    pCallback->ThrowIOException("reason");
    EXPECT_EQ(m_Jvm.TakeException(), "java/lang/OutOfMemoryError");
    m_Jvm.SetFailFindClass(true);
    pCallback->ThrowIOException("reason");
    EXPECT_EQ(m_Jvm.TakeException(), "java/lang/NoClassDefFoundError");
}

TEST_F(CallbackTest, APendingExceptionIsSetAsideForACallAndRaisedAgain) {
    const JavaFrame java(m_Jvm);
    const auto pCallback = MakeWith(kHostLogInfo);
    pCallback->ThrowIOException("first");
    EXPECT_TRUE(pCallback->LogInfo("id", "a line in between"));
    m_Answer.sThrows = "java/lang/RuntimeException";
    EXPECT_FALSE(pCallback->LogInfo("id", "a line whose host throws"));
    pCallback->ThrowIOException("second");
    EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException: first");
}

/// A native method may log thousands of lines before its frame goes.
TEST_F(CallbackTest, EveryCallGivesItsLocalReferencesBack) {
    const JavaFrame java(m_Jvm);
    HostMethods methods;
    for (const char* pcMethod : {kHostLogInfo, kHostLogError, kHostLogRaw, kHostUpdate, kHostRemove, kHostRename,
                                 kHostWrite, kHostIsInterrupted}) {
        methods[pcMethod] = [this](const std::vector<HostArgument>&) { return m_Answer; };
    }
    const CCallback whole(java.Env(), m_Jvm.NewHost(methods));
    const CCallback lacking(java.Env(), m_Jvm.NewHost({}));
    const std::size_t nBefore = m_Jvm.LocalReferences();
    for (const char* pcThrows : {"", "java/lang/RuntimeException"}) {
        m_Answer.sThrows = pcThrows;
        for (const CCallback* pCallback : {&whole, &lacking}) {
            pCallback->LogInfo("id", "line");
            pCallback->LogError("id", "line");
            pCallback->LogRaw("id", nullptr);
            EXPECT_EQ(m_Jvm.LocalReferences(), nBefore) << "lines";
            pCallback->UpdateRedirectedFileAttributes("id", "/x", true, 1, true, 1, true, 1);
            pCallback->RemoveRedirectedFile("id", "/x");
            pCallback->RenameRedirectedFile("id", "/x", "/y");
            pCallback->WriteRedirectedFile("id", "/x", 0, 0, 1);
            EXPECT_EQ(m_Jvm.LocalReferences(), nBefore) << "notifications";
            pCallback->IsInterrupted();
            EXPECT_EQ(m_Jvm.LocalReferences(), nBefore) << "interruption test";
            pCallback->ThrowIOException("reason");
            EXPECT_EQ(m_Jvm.LocalReferences(), nBefore) << "exception";
            pCallback->LogInfo("id", "with the exception set aside");
            EXPECT_EQ(m_Jvm.LocalReferences(), nBefore) << "set aside";
            EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException: reason");
        }
    }
    m_Jvm.SetFailString(2);
    whole.LogInfo("id", "no memory for this text");
    EXPECT_EQ(m_Jvm.LocalReferences(), nBefore) << "out of memory";
}

TEST_F(CallbackTest, TheLastShareMayGoOnALibraryThread) {
    auto pCallback = MakeWith(kHostLogInfo);
    EXPECT_EQ(m_Jvm.GlobalReferences(), 1U);
    std::thread([&] { pCallback.reset(); }).join();
    EXPECT_EQ(m_Jvm.GlobalReferences(), 0U);
}

TEST_F(CallbackTest, TheLastShareMayGoWithAnExceptionPending) {
    const JavaFrame java(m_Jvm);
    auto pCallback = Make({});
    pCallback->ThrowIOException("reason");
    pCallback.reset();
    EXPECT_EQ(m_Jvm.TakeException(), "java/io/IOException: reason");
}

TEST_F(CallbackTest, ManyThreadsCallAtOnceWithoutLeavingReferencesBehind) {
    std::atomic<int> nLines{0};
    std::atomic<int> nWrites{0};
    const auto pCallback = Make({{kHostLogInfo,
                                  [&](const std::vector<HostArgument>&) {
                                      ++nLines;
                                      return HostAnswer{};
                                  }},
                                 {kHostWrite, [&](const std::vector<HostArgument>& vArguments) {
                                      ++nWrites;
                                      return HostAnswer{vArguments[4].value.i};
                                  }}});
    std::vector<std::thread> vThreads;
    for (int i = 0; i < 8; ++i) {
        vThreads.emplace_back([&, i] {
            std::optional<JavaFrame> java;
            if (i % 2 == 0) {
                java.emplace(m_Jvm);
            }
            for (int j = 1; j <= 200; ++j) {
                EXPECT_TRUE(pCallback->LogInfo("id", "line"));
                EXPECT_EQ(pCallback->WriteRedirectedFile("id", "/x", 0, 0, static_cast<unsigned int>(j)), j);
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(nLines, 1600);
    EXPECT_EQ(nWrites, 1600);
    EXPECT_EQ(m_Jvm.LocalReferences(), 0U);
}

}  // namespace
