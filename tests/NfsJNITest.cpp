// The native methods on a virtual machine that watches every rule, so that sanitizers can watch the methods.
#include "NfsJNI.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "FakeJvm.h"
#include "FileLogger.h"
#include "HostController.h"
#include "HostMethodNames.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

constexpr jint kLogControl = 3;  // errors and general information

std::u16string Wide(const std::string& sText) {
    return {sText.begin(), sText.end()};
}

std::ptrdiff_t CountThreads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

/// Native methods are called from Java frames, one per call, as a virtual machine would.
class NfsJNITest : public testing::Test {
protected:
    void SetUp() override {
        for (const char* pcLog : {kHostLogInfo, kHostLogRaw}) {
            m_Methods[pcLog] = [](const std::vector<HostArgument>&) { return HostAnswer{}; };
        }
    }

    void TearDown() override {
        EXPECT_EQ(m_Jvm.Violations(), std::vector<std::string>());
        EXPECT_EQ(m_Jvm.GlobalReferences(), 0U);
        EXPECT_EQ(m_Jvm.LocalReferences(), 0U);
        EXPECT_EQ(m_Jvm.AttachedThreads(), 0U);
    }

    /// Runs a native method: `call` gets the environment, the host object and a maker of Strings. The exception it
    /// leaves, or "", is the result.
    template <typename Call>
    std::string Run(const Call& call) {
        const JavaFrame java(m_Jvm);
        call(java.Env(), m_Jvm.NewHost(m_Methods),
             [this](const std::string& sText) { return m_Jvm.NewText(Wide(sText)); });
        return m_Jvm.TakeException();
    }

    jlong Initial(jint iAccessMode = 0, const std::string& sID = "host") {
        jlong iHandle = 0;
        const std::string sException = Run([&](JNIEnv* pEnv, jobject jObj, const auto& text) {
            iHandle = NFSLIB_NATIVE(initial)(pEnv, jObj, text(sID), iAccessMode, kLogControl);
        });
        EXPECT_EQ(sException, "");
        EXPECT_NE(iHandle, 0);
        return iHandle;
    }

    static std::shared_ptr<CNfsMain> MainOf(jlong iHandle) { return CHostController::Find(iHandle)->Enter(); }

    void Terminate(jlong iHandle) {
        EXPECT_EQ(Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
                      NFSLIB_NATIVE(terminate)
                      (pEnv, jObj, iHandle);
                  }),
                  "");
    }

    std::string AddMountPoint(jlong iHandle, const std::string& sPath, const std::string& sName) {
        return Run([&](JNIEnv* pEnv, jobject jObj, const auto& text) {
            NFSLIB_NATIVE(addMountPoint)(pEnv, jObj, iHandle, text(sPath), text(sName));
        });
    }

    jint GetMountInfo(jlong iHandle) {
        jint nMounts = -1;
        Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
            nMounts = NFSLIB_NATIVE(getMountInfo)(pEnv, jObj, iHandle, JNI_FALSE, JNI_TRUE);
        });
        return nMounts;
    }

    std::string StartServer(jlong iHandle) {
        return Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
            NFSLIB_NATIVE(startServer)(pEnv, jObj, iHandle, 0, 0, JNI_FALSE);
        });
    }

    std::string StopServer(jlong iHandle) {
        return Run([&](JNIEnv* pEnv, jobject jObj, const auto&) { NFSLIB_NATIVE(stopServer)(pEnv, jObj, iHandle); });
    }

    /// Runs `work` on that many threads and waits for them.
    static void OnThreads(int nThreads, const std::function<void(int)>& work) {
        std::vector<std::thread> vThreads;
        vThreads.reserve(static_cast<std::size_t>(nThreads));
        for (int i = 0; i < nThreads; ++i) {
            vThreads.emplace_back(work, i);
        }
        for (std::thread& thread : vThreads) {
            thread.join();
        }
    }

    LeakGuard m_Leaks;
    FakeJvm m_Jvm;
    HostMethods m_Methods;
};

TEST_F(NfsJNITest, AFailedInitialThrowsAndKeepsNothing) {
    jlong iHandle = -1;
    EXPECT_EQ(Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
                  iHandle = NFSLIB_NATIVE(initial)(pEnv, jObj, nullptr, 0, kLogControl);
              }),
              "java/io/IOException: ID is not defined");
    EXPECT_EQ(iHandle, 0);
    EXPECT_EQ(Run([&](JNIEnv* pEnv, jobject jObj, const auto& text) {
                  iHandle = NFSLIB_NATIVE(initial)(pEnv, jObj, text("a b"), 2, kLogControl);
              }),
              "java/io/IOException: Invalid char \" \" inside ID");
    EXPECT_EQ(iHandle, 0);
}

TEST_F(NfsJNITest, NoModeLetsOthersEndTheHostsProgram) {
    for (const jint iAccessMode : {0, 1, 2}) {
        const jlong iHandle = Initial(iAccessMode);
        EXPECT_FALSE(MainOf(iHandle)->IsAutoShutdownEnabled()) << iAccessMode;
        Terminate(iHandle);
    }
}

TEST_F(NfsJNITest, TheTemporaryCallbackIsGoneAfterTheCall) {
    int nLines = 0;
    m_Methods[kHostLogRaw] = [&](const std::vector<HostArgument>& vArguments) {
        ++nLines;
        EXPECT_EQ(m_Jvm.GlobalReferences(), 1U);
        EXPECT_EQ(vArguments[0].sText, u"host");
        EXPECT_EQ(vArguments[1].sText, u" Mount 1 - / : data () []");
        return HostAnswer{};
    };
    const jlong iHandle = Initial();
    EXPECT_EQ(AddMountPoint(iHandle, "/", "data"), "");
    EXPECT_EQ(GetMountInfo(iHandle), 1);
    EXPECT_EQ(nLines, 1);
    EXPECT_EQ(m_Jvm.GlobalReferences(), 0U);
    EXPECT_EQ(AddMountPoint(iHandle, "/", "data"), "java/io/IOException: Export name \"data\" already defined");
    EXPECT_EQ(m_Jvm.GlobalReferences(), 0U) << "after a call that throws as well";
    Terminate(iHandle);
}

TEST_F(NfsJNITest, CallsOnManyThreadsWithoutALastingCallbackAreSafe) {
    const jlong iHandle = Initial();
    OnThreads(8, [&](int i) {
        for (int j = 0; j < 50; ++j) {
            const std::string sName = "e" + std::to_string(i);
            EXPECT_EQ(AddMountPoint(iHandle, "/nowhere/" + sName, sName), "");
            EXPECT_GE(GetMountInfo(iHandle), 1);
            Run([&](JNIEnv* pEnv, jobject jObj, const auto& text) {
                NFSLIB_NATIVE(removeMountPoint)(pEnv, jObj, iHandle, text("/nowhere/" + sName));
            });
        }
    });
    EXPECT_EQ(m_Jvm.GlobalReferences(), 0U) << "nobody's temporary callback is left installed";
    Terminate(iHandle);
}

TEST_F(NfsJNITest, TerminatingWaitsForCallsInsideTheController) {
    std::atomic<int> nInside{0};
    m_Methods[kHostLogRaw] = [&](const std::vector<HostArgument>&) {
        ++nInside;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // calls take long enough to be met inside
        --nInside;
        return HostAnswer{};
    };
    for (int iRound = 0; iRound < 10; ++iRound) {
        const jlong iHandle = Initial();
        AddMountPoint(iHandle, "/", "data");
        std::atomic<bool> bGone{false};
        OnThreads(4, [&](int i) {
            if (i == 0) {
                EXPECT_TRUE(WaitUntil([&] { return nInside > 0; }));
                Terminate(iHandle);
                bGone = true;
                return;
            }
            while (!bGone) {
                const jint nMounts = GetMountInfo(iHandle);
                EXPECT_TRUE(nMounts == 1 || nMounts == 0) << nMounts;
            }
            EXPECT_EQ(GetMountInfo(iHandle), 0) << "the handle is out of use";
        });
    }
}

TEST_F(NfsJNITest, AHostMayTerminateFromInsideItsLogMethod) {
    const auto nThreads = CountThreads();
    jlong iHandle = 0;
    std::atomic<bool> bDone{false};
    m_Methods[kHostLogRaw] = [&](const std::vector<HostArgument>&) {
        Terminate(iHandle);  // on the thread that is inside getMountInfo
        bDone = true;
        return HostAnswer{};
    };
    iHandle = Initial();
    AddMountPoint(iHandle, "/", "data");
    EXPECT_EQ(GetMountInfo(iHandle), 1);
    EXPECT_TRUE(bDone);
    EXPECT_EQ(GetMountInfo(iHandle), 0);
    // The deletion happens aside, on a thread that must have ended before the machine goes.
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= nThreads; }));
}

TEST_F(NfsJNITest, ALateTerminateHarmsNoLaterController) {
    for (int iRound = 0; iRound < 20; ++iRound) {
        const jlong iFirst = Initial();
        Terminate(iFirst);
        const jlong iSecond = Initial();
        EXPECT_NE(iFirst, iSecond);
        AddMountPoint(iSecond, "/", "data");
        Terminate(iFirst);
        EXPECT_EQ(GetMountInfo(iSecond), 1) << "round " << iRound;
        EXPECT_EQ(GetMountInfo(iFirst), 0);
        Terminate(iSecond);
    }
}

/// It waits for the start that it was made in, and the next one may get there first.
TEST_F(NfsJNITest, AStopFromInsideAFailingStartSparesTheNextOne) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    const jlong iHandle = Initial();
    EXPECT_EQ(StartServer(iHandle), "");
    const auto nServing = CountThreads();
    std::atomic<int> nErrors{0};
    m_Methods[kHostLogError] = [&](const std::vector<HostArgument>&) {
        ++nErrors;
        EXPECT_EQ(StopServer(iHandle), "");
        return HostAnswer{};
    };
    for (int iRound = 0; iRound < 20; ++iRound) {
        EXPECT_EQ(StopServer(iHandle), "");
        {
            const CDescriptor holder = CDescriptor::OpenSocket(SOCK_DGRAM);
            int iPort = 2049;
            ASSERT_TRUE(holder.BindToPort(&iPort));
            EXPECT_EQ(StartServer(iHandle), "java/io/IOException: NFS daemon failed to open port 2049");
        }
        EXPECT_EQ(StartServer(iHandle), "");
        EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= nServing; })) << "the stop is over, or void";
        EXPECT_TRUE(MainOf(iHandle)->IsServerRunning()) << "round " << iRound;
    }
    EXPECT_EQ(nErrors, 20);
    m_Methods.erase(kHostLogError);
    Terminate(iHandle);
}

TEST_F(NfsJNITest, AStopFromInsideAStartThatSucceedsStopsIt) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    const TempFolder folder;
    const jlong iHandle = Initial();
    CFileLogger logger((folder / "log").c_str());  // never opened: while there is one, a start says so
    MainOf(iHandle)->SetFileLogger(&logger);
    std::atomic<int> nLines{0};
    m_Methods[kHostLogInfo] = [&](const std::vector<HostArgument>&) {
        if (++nLines == 1) {
            EXPECT_EQ(StopServer(iHandle), "");
        }
        return HostAnswer{};
    };
    EXPECT_EQ(StartServer(iHandle), "");
    EXPECT_TRUE(WaitUntil([&] { return !MainOf(iHandle)->IsServerRunning(); }));
    EXPECT_GE(nLines, 1);
    m_Methods.erase(kHostLogInfo);
    Terminate(iHandle);
}

/// They would wait for the thread they are on, or for a lock that it holds: the caller's own in the first lines of
/// a start, the remote controller's in those of a stop.
TEST_F(NfsJNITest, TheRemoteControllerIsNeitherStartedNorStoppedFromInsideALogLine) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    const jlong iHandle = Initial(1);
    const auto start = [&](JNIEnv* pEnv, jobject jObj, const auto&) {
        NFSLIB_NATIVE(startRemoteController)(pEnv, jObj, iHandle);
    };
    const auto stop = [&](JNIEnv* pEnv, jobject jObj, const auto&) {
        NFSLIB_NATIVE(stopRemoteController)(pEnv, jObj, iHandle);
    };
    CNfsMain* const pMain = MainOf(iHandle).get();  // there until it is terminated
    pMain->SetLogControl(CRuntimeParam::kLogError | CRuntimeParam::kLogIpcState);
    const std::thread::id own = std::this_thread::get_id();
    std::atomic<int> nLinesOnOwn{0};
    std::atomic<int> nLinesOnOthers{0};
    std::atomic<int> nErrors{0};
    m_Methods[kHostLogInfo] = [&](const std::vector<HostArgument>&) {
        ++(std::this_thread::get_id() == own ? nLinesOnOwn : nLinesOnOthers);
        EXPECT_EQ(Run(start), "java/io/IOException: Remote controller cannot be started from inside a host callback");
        EXPECT_EQ(Run(stop), "");
        return HostAnswer{};
    };
    m_Methods[kHostLogError] = [&](const std::vector<HostArgument>& vArguments) {
        ++nErrors;
        EXPECT_EQ(vArguments[1].sText,
                  u"[NfsJNI.StopRemoteController] Remote controller cannot be stopped from inside a host callback");
        EXPECT_EQ(Run(stop), "") << "and says no more about it";
        return HostAnswer{};
    };
    EXPECT_EQ(Run(start), "");
    EXPECT_GT(nLinesOnOwn, 0);
    IpcConnection request("/tmp/nfs-server");
    ASSERT_TRUE(request.Send("half a request"));
    ASSERT_TRUE(WaitUntil([&] { return request.IsTaken(); }));  // in the middle of which it is told to end
    EXPECT_EQ(Run(stop), "");
    EXPECT_GT(nLinesOnOthers, 0) << "the end of the thread that serves";
    EXPECT_EQ(nErrors, nLinesOnOwn + nLinesOnOthers);
    m_Methods.erase(kHostLogError);
    pMain->SetLogControl(0);
    Terminate(iHandle);
}

TEST_F(NfsJNITest, WithoutARemoteControllerThereIsNothingToRefuse) {
    const jlong iHandle = Initial(0);
    int nLines = 0;
    m_Methods[kHostLogRaw] = [&](const std::vector<HostArgument>&) {
        ++nLines;
        EXPECT_EQ(Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
                      EXPECT_EQ(NFSLIB_NATIVE(startRemoteController)(pEnv, jObj, iHandle), JNI_TRUE);
                      NFSLIB_NATIVE(stopRemoteController)(pEnv, jObj, iHandle);
                  }),
                  "");
        return HostAnswer{};
    };
    AddMountPoint(iHandle, "/", "data");
    EXPECT_EQ(GetMountInfo(iHandle), 1);
    EXPECT_EQ(nLines, 1);
    Terminate(iHandle);
}

TEST_F(NfsJNITest, TheLoopTakesOverWhenTheReceiverInItsWayHasGone) {
    std::atomic<int> nAsked{0};
    std::atomic<bool> bEnd{false};
    m_Methods[kHostIsInterrupted] = [&](const std::vector<HostArgument>&) {
        ++nAsked;
        return HostAnswer{bEnd ? 1 : 0};
    };
    const jlong iHandle = Initial();
    const auto loop = [&](jint iSeconds) {
        Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
            EXPECT_EQ(NFSLIB_NATIVE(receiveCallbackLoop)(pEnv, jObj, iHandle, iSeconds), JNI_FALSE);
        });
    };
    std::thread first([&] { loop(1); });
    EXPECT_TRUE(WaitUntil([&] { return nAsked >= 1; }));
    std::thread second([&] { loop(-1); });
    first.join();
    const int nAskedThen = nAsked;
    EXPECT_TRUE(WaitUntil([&] { return nAsked >= nAskedThen + 2; }));
    EXPECT_EQ(m_Jvm.GlobalReferences(), 1U) << "the second loop's callback is the one installed";
    bEnd = true;
    second.join();
    Terminate(iHandle);
}

/// The whole road of a write: socket thread, callback, host, and back.
TEST_F(NfsJNITest, AClientsWriteIsDecidedByTheHost) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    const TempFolder folder;
    WriteWholeFile(folder / "disk", "");
    std::atomic<bool> bReceiving{false};
    std::atomic<bool> bEnd{false};
    m_Methods[kHostWrite] = [](const std::vector<HostArgument>& vArguments) {
        return HostAnswer{vArguments[4].value.i};
    };
    m_Methods[kHostIsInterrupted] = [&](const std::vector<HostArgument>&) {
        bReceiving = true;
        return HostAnswer{bEnd ? 1 : 0};
    };
    const jlong iHandle = Initial();
    std::thread receiver([&] {
        Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
            NFSLIB_NATIVE(receiveCallbackLoop)(pEnv, jObj, iHandle, -1);
        });
    });
    EXPECT_TRUE(WaitUntil([&] { return bReceiving.load(); }));
    EXPECT_EQ(Run([&](JNIEnv* pEnv, jobject jObj, const auto& text) {
                  EXPECT_EQ(NFSLIB_NATIVE(startServer)(pEnv, jObj, iHandle, 0, 0, JNI_FALSE), JNI_TRUE);
                  NFSLIB_NATIVE(addMountPoint)(pEnv, jObj, iHandle, text(folder.Path()), text("data"));
                  NFSLIB_NATIVE(openRedirectedFile)(pEnv, jObj, iHandle, text(folder / "disk"), 100, JNI_FALSE, 0, 0);
              }),
              "");
    {
        NfsClient client;
        const std::string sRoot = client.Mnt("data").value_or("");
        std::string sFile;
        ASSERT_EQ(client.Lookup(sRoot, "disk", sFile), 0U);
        for (std::uint32_t i = 1; i <= 50; ++i) {
            std::uint32_t iCount = 0;
            EXPECT_EQ(client.Write(sFile, i, std::string(i, 'w'), iCount), 0U);
            EXPECT_EQ(iCount, i);
        }
    }
    EXPECT_EQ(Run([&](JNIEnv* pEnv, jobject jObj, const auto&) {
                  NFSLIB_NATIVE(stopServer)
                  (pEnv, jObj, iHandle);
              }),
              "");
    bEnd = true;
    receiver.join();
    Terminate(iHandle);
}

}  // namespace
