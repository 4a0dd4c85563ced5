// Hosts that misbehave: that block, close what they are asked about, stop the server or end the machine under load, and
// that come in two class loaders. The machine stays well, the clients get answers, and what is done is done whole.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "JavaHost.h"
#include "NfsClient.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
constexpr std::uint32_t kNfs3Ok = 0;
constexpr int kDiskSize = 1 << 16;

class MisbehavingHostTest : public JavaTest {
protected:
    /// Serves the folder with a redirected file "disk" in it; the client has mounted it and found the file.
    void Serve(int iLogControl = 1) {
        m_sHandle = m_pHost->Serve("A", m_Folder.Path(), iLogControl);
        Present();
        m_pClient = std::make_unique<NfsClient>();
        m_sRoot = m_pClient->Mnt("data").value_or("");
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, "disk", m_sDisk), kNfs3Ok);
        m_pClient->Mount().Close();
    }
    void SetUp() override {
        JavaTest::SetUp();
        if (!IsSkipped()) {
            m_pHost = std::make_unique<JavaHost>();
        }
    }
    /// Makes "disk" a redirected file, whatever it has become.
    void Present() {
        WriteWholeFile(Path("disk"), "");
        EXPECT_EQ(m_pHost->Call("A", "openRedirectedFile", m_sHandle, Path("disk"), kDiskSize, false, 0, 0), "void");
    }
    std::string Path(const std::string& sName) const { return m_Folder / sName; }

    TempFolder m_Folder;
    std::unique_ptr<JavaHost> m_pHost;
    std::string m_sHandle;
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    std::string m_sDisk;
};

/// Clients that write, look and list as fast as they can, until their connections end or they do.
class Load {
public:
    Load(const std::string& sRoot, const std::string& sDisk) {
        for (int i = 0; i < 3; ++i) {
            m_vThreads.emplace_back([this, sRoot, sDisk] { Work(sRoot, sDisk); });
        }
        EXPECT_TRUE(WaitUntil([this] { return m_nCalls > 50; }));
    }
    ~Load() {
        m_bEnd = true;
        for (std::thread& thread : m_vThreads) {
            thread.join();
        }
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    void Work(const std::string& sRoot, const std::string& sDisk) {
        try {
            RpcClient client(Transport::kTcp, 2049);
            const std::string sWrite = XdrBuilder().Opaque(sDisk).U64(0).U32(4).U32(2).Opaque("load").Bytes();
            while (!m_bEnd) {
                client.Call(kNfsProgram, 3, kNfsWrite, sWrite);
                client.Call(kNfsProgram, 3, kNfsLookup, XdrBuilder().Opaque(sRoot).Opaque("disk").Bytes());
                client.Call(kNfsProgram, 3, kNfsReaddirplus,
                            XdrBuilder().Opaque(sRoot).U64(0).U64(0).U32(4096).U32(8192).Bytes());
                m_nCalls += 3;
            }
        } catch (const std::runtime_error&) {
            // the server has ended
        }
    }

    std::atomic<bool> m_bEnd{false};
    std::atomic<int> m_nCalls{0};
    std::vector<std::thread> m_vThreads;
};

// Calls are executed one at a time, so others wait for the answer; the host's own calls do not, but for a stop.
TEST_F(MisbehavingHostTest, OneThatBlocksIsWaitedForAndNothingIsLost) {
    Serve();
    m_pHost->Do({"block", "A", "writeRedirectedFile"});
    std::uint32_t iCount = 0;
    WaitingThread writer([&] { EXPECT_EQ(m_pClient->Write(m_sDisk, 0, "first", iCount), kNfs3Ok); });
    ASSERT_TRUE(m_pHost->WaitForEvent("A", "writeRedirectedFile(data, " + Path("disk") + ", 0, 0, 5)"));
    EXPECT_EQ(m_pHost->Call("A", "isServerRunning", m_sHandle), "true");
    EXPECT_EQ(m_pHost->Call("A", "getMountInfo", m_sHandle, false, false), "1");
    EXPECT_EQ(m_pHost->Call("A", "setLogControl", m_sHandle, 1), "void");
    EXPECT_EQ(m_pHost->Call("A", "closeOpenedFile", m_sHandle, Path("disk")), "void");
    std::uint32_t iOtherCount = 0;
    NfsClient other;
    WaitingThread next([&] { EXPECT_EQ(other.Write(m_sDisk, 5, "second", iOtherCount), kNfs3Ok); });
    EXPECT_TRUE(next.WaitUntilWaiting());
    m_pHost->Do({"release"});
    writer.Join();
    next.Join();
    EXPECT_EQ(iCount, 5U);
    EXPECT_EQ(iOtherCount, 6U);
    m_pHost->StopServing("A", m_sHandle);
}

TEST_F(MisbehavingHostTest, OneThatBlocksHoldsAStopUntilItAnswers) {
    Serve();
    m_pHost->Do({"block", "A", "writeRedirectedFile"});
    WaitingThread writer([this] {
        std::uint32_t iCount = 0;
        try {
            m_pClient->Write(m_sDisk, 0, "first", iCount);
        } catch (const std::runtime_error&) {
            // The end of the server may overtake the reply.
        }
    });
    ASSERT_TRUE(m_pHost->WaitForEvent("A", "writeRedirectedFile(data, " + Path("disk") + ", 0, 0, 5)"));
    m_pHost->Start("stop", "A", "stopServer", m_sHandle);
    EXPECT_EQ(m_pHost->Join("stop", milliseconds(100)), "running");
    m_pHost->Do({"release"});
    EXPECT_EQ(m_pHost->Join("stop"), "void");
    writer.Join();
    EXPECT_EQ(m_pHost->Call("A", "startServer", m_sHandle, 0, 0, false), "true");
    m_pHost->StopServing("A", m_sHandle);
}

// Each operation that takes away what the call is about, from inside the question about it.
TEST_F(MisbehavingHostTest, OneThatClosesWhatItIsAskedAboutHarmsNothingElse) {
    Serve();
    const std::string sDisk = m_sHandle + "\t" + Path("disk");
    const std::string sFolder = m_sHandle + "\t" + m_Folder.Path();
    for (const std::string& sReaction :
         {"closeRedirectedFile\t" + sDisk, "closeAllRedirectedFiles\t" + sFolder, "closeOpenedFile\t" + sDisk,
          "closeAllOpenedFiles\t" + sFolder, "openRedirectedFile\t" + sDisk + "\t10\tfalse\t0\t0",
          "removeMountPoint\t" + sFolder}) {
        const std::pair<const char*, std::function<void()>> vQuestions[] = {
            {"writeRedirectedFile",
             [this] {
                 std::uint32_t iCount = 0;
                 m_pClient->Write(m_sDisk, 0, "w", iCount);
             }},
            {"setRedirectedFileAttributes",
             [this] {
                 Sattr3 size;
                 size.iSize = 5;
                 m_pClient->Setattr(m_sDisk, size);
             }},
            {"renameRedirectedFile", [this] { m_pClient->Rename(m_sRoot, "disk", m_sRoot, "moved"); }},
            {"removeRedirectedFile", [this] { m_pClient->Remove(m_sRoot, "disk"); }}};
        for (const auto& [pcQuestion, ask] : vQuestions) {
            SCOPED_TRACE(sReaction + " in " + pcQuestion);
            m_pHost->Do({"react", "A", pcQuestion, "call\tA\t" + sReaction});
            ask();
            EXPECT_EQ(m_pHost->Join("reaction"), "void") << "it was not asked";
            // Whatever has become of it, another file is served, and the next redirected file too.
            m_pHost->Call("A", "addMountPoint", m_sHandle, m_Folder.Path(), "data");
            std::filesystem::remove(Path("moved"));
            Present();
            m_pHost->Do({"answer", "A", pcQuestion, "length"});
            NfsClient again;
            again.Umnt("data");
            m_sRoot = again.Mnt("data").value_or("");
            EXPECT_EQ(m_pClient->Lookup(m_sRoot, "disk", m_sDisk), kNfs3Ok);
            std::string sOther;
            EXPECT_EQ(m_pClient->Create(m_sRoot, "ordinary", sOther), kNfs3Ok);
            std::uint32_t iCount = 0;
            EXPECT_EQ(m_pClient->Write(sOther, 0, "still served", iCount), kNfs3Ok);
            EXPECT_EQ(ReadWholeFile(Path("ordinary")), "still served");
        }
    }
    m_pHost->StopServing("A", m_sHandle);
}

TEST_F(MisbehavingHostTest, OneThatStopsAndStartsTheServerUnderLoadFindsItAsItWas) {
    Serve(1 | 4 | 8);
    m_pHost->Do({"record", "A", "off"});
    m_pHost->Do({"answer", "A", "writeRedirectedFile", "length"});
    for (int iRound = 0; iRound < 4; ++iRound) {
        const Load load(m_sRoot, m_sDisk);
        m_pHost->Start("stop", "A", "stopServer", m_sHandle);
        EXPECT_EQ(m_pHost->Call("A", "getServerStatus", m_sHandle).size(), 1U) << "beside the stop";
        EXPECT_EQ(m_pHost->Join("stop"), "void");
        EXPECT_EQ(m_pHost->Call("A", "isServerRunning", m_sHandle), "false");
        EXPECT_EQ(m_pHost->Call("A", "startServer", m_sHandle, 0, 0, false), "true");
        EXPECT_EQ(m_pHost->Call("A", "addMountPoint", m_sHandle, m_Folder.Path(), "data"), "true");
        Present();
        NfsClient client;
        m_sRoot = client.Mnt("data").value_or("");
        EXPECT_EQ(client.Lookup(m_sRoot, "disk", m_sDisk), kNfs3Ok);
    }
    m_pHost->Do({"record", "A", "on"});
    m_pHost->StopServing("A", m_sHandle);
}

// What the stop was meant for has ended by itself by the time that it is made, and another run may have begun.
TEST_F(MisbehavingHostTest, OneThatStopsWithinAStartThatFailsKeepsItsNextStart) {
    const CDescriptor holder = CDescriptor::OpenSocket(SOCK_DGRAM);
    int iPort = 2049;
    ASSERT_TRUE(holder.BindToPort(&iPort));
    m_sHandle = m_pHost->Initial("A", "host", 0, 1);
    for (int iRound = 0; iRound < 10; ++iRound) {
        m_pHost->Do({"react", "A", "logError", "overtake\tA\t" + m_sHandle + "\t2050"});
        EXPECT_EQ(m_pHost->Call("A", "startServer", m_sHandle, 0, 2049, false),
                  "!java.io.IOException: NFS daemon failed to open port 2049");
        EXPECT_EQ(m_pHost->Join("reaction"), "void") << "it was not asked";
        EXPECT_EQ(m_pHost->Join("next"), "true");
        for (int iLook = 0; iLook < 20; ++iLook) {
            EXPECT_EQ(m_pHost->Call("A", "isServerRunning", m_sHandle), "true") << "round " << iRound;
        }
        EXPECT_EQ(m_pHost->Call("A", "stopServer", m_sHandle), "void");
    }
    m_pHost->Call("A", "terminate", m_sHandle);
}

// In the middle of calls of clients, log lines and questions: the machine ends as it was asked to, and at once.
TEST_F(MisbehavingHostTest, OneThatEndsTheMachineUnderLoadEndsItWell) {
    for (const auto& [pcHow, iStatus] : {std::pair{"exit\t7", 7}, {"halt\t8", 8}, {"quit", 0}}) {
        SCOPED_TRACE(pcHow);
        m_pHost = std::make_unique<JavaHost>();
        Serve(1 | 4 | 8);
        m_pHost->Do({"record", "A", "off"});
        m_pHost->Do({"answer", "A", "writeRedirectedFile", "length"});
        const Load load(m_sRoot, m_sDisk);
        m_pHost->Process().Send(std::string(pcHow) + "\n");
        m_pHost->WaitForEnd(iStatus);
        m_pHost.reset();
    }
}

// The same file cannot be loaded twice, which the machine itself says; a copy is a library of its own, and goes with
// its loader. The first one serves all the while.
TEST_F(MisbehavingHostTest, TwoClassLoadersHaveALibraryEach) {
    ::setenv("NFSLIB_NOPORTMAP", "1", 1);
    m_pHost = std::make_unique<JavaHost>();
    ::unsetenv("NFSLIB_NOPORTMAP");
    Serve();
    const TempFolder second;
    std::filesystem::copy_file(NFSLIB_LIBRARY, second / "copy.so");
    EXPECT_EQ(m_pHost->Do({"loaders", NFSLIB_LIBRARY, second / "copy.so", second.Path()}),
              "UnsatisfiedLinkError; mounts 1; gone; mounts 1");
    EXPECT_EQ(m_pClient->Lookup(m_sRoot, "disk", m_sDisk), kNfs3Ok);
    EXPECT_EQ(m_pHost->Call("A", "getMountInfo", m_sHandle, false, false), "1");
    m_pHost->StopServing("A", m_sHandle);
}

// Of two controllers in one machine that start in the same moment, one serves; the other says why not.
TEST_F(MisbehavingHostTest, OfTwoServersThatStartAtOnceAtMostOneServes) {
    const std::string vsHandles[] = {m_pHost->Initial("A", "one", 0, 1), m_pHost->Initial("B", "two", 0, 1)};
    for (int iRound = 0; iRound < 10; ++iRound) {
        m_pHost->Start("one", "A", "startServer", vsHandles[0], 0, 0, false);
        m_pHost->Start("two", "B", "startServer", vsHandles[1], 0, 0, false);
        const std::string vsResults[] = {m_pHost->Join("one"), m_pHost->Join("two")};
        EXPECT_FALSE(vsResults[0] == "true" && vsResults[1] == "true");
        for (const std::string& sResult : vsResults) {
            EXPECT_TRUE(sResult == "true" || sResult.starts_with("!java.io.IOException: ")) << sResult;
            EXPECT_NE(sResult, "!java.io.IOException: ") << "without a reason";
        }
        m_pHost->Call("A", "stopServer", vsHandles[0]);
        m_pHost->Call("B", "stopServer", vsHandles[1]);
    }
    m_pHost->Call("A", "terminate", vsHandles[0]);
    m_pHost->Call("B", "terminate", vsHandles[1]);
}

}  // namespace
