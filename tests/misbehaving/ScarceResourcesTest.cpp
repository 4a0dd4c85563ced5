// A server with 64 descriptors and clients at work on many more files, and a server whose log file lies on a disk that
// runs full: the calls go on.
#include <filesystem>
#include <fstream>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "NfsMain.h"
#include "OpenDescriptors.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

class ScarceResourcesTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }
    void TearDown() override {
        if (m_pConsole) {
            EXPECT_EQ(m_pConsole->Quit(), 0) << m_pConsole->Output();
        }
    }

    /// A console that serves the folder as "data", begun by a shell behind a command of its own.
    void Serve(const std::string& sBefore, const std::string& sOptions = "") {
        m_pConsole = std::make_unique<ChildConsole>(sBefore + "exec \"$0\" -md int -id test " + sOptions);
        m_pConsole->Send("debug\nstart\nmount " + m_Folder.Path() + "=data\n");
    }

    class ChildConsole : public ChildProcess {
    public:
        explicit ChildConsole(const std::string& sCommand)
            : ChildProcess({"/bin/sh", "-c", sCommand, ConsoleProcess::ProgramPath()}) {}
        std::optional<int> Quit() {
            Send("quit\n");
            return Wait();
        }
    };

    static std::string MakeContent(int iClient, int iFile) {
        return "file " + std::to_string(iFile) + " of client " + std::to_string(iClient);
    }

private:
    LeakGuard m_Leaks;

protected:
    TempFolder m_Folder;
    std::unique_ptr<ChildConsole> m_pConsole;
};

// Ten connections and 400 files, each written, read back by another connection, renamed and written again.
TEST_F(ScarceResourcesTest, WithSixtyFourDescriptorsTenClientsWorkOnFourHundredFiles) {
    constexpr int kFiles = 40;
    Serve("ulimit -n 64; ");
    ASSERT_TRUE(m_pConsole->WaitFor("Start NFS success")) << m_pConsole->Output();
    ASSERT_TRUE(m_pConsole->WaitFor("Command:"));  // behind "start"
    ASSERT_TRUE(m_pConsole->WaitFor("Command:"));  // behind "mount"
    std::vector<std::unique_ptr<NfsClient>> vpClients;
    std::vector<std::vector<std::string>> vvsHandles;
    std::string sRoot;
    for (int iClient = 0; iClient < CNfsMain::kMaxNfsConnections; ++iClient) {
        vpClients.push_back(std::make_unique<NfsClient>());
        NfsClient& client = *vpClients.back();
        if (iClient == 0) {
            sRoot = client.Mnt("data").value();
        }
        client.Mount().Close();
        vvsHandles.emplace_back();
        for (int i = 0; i < kFiles; ++i) {
            std::string sHandle;
            const std::string sName = std::to_string(iClient) + "-" + std::to_string(i);
            ASSERT_EQ(client.Create(sRoot, sName, sHandle), 0U) << sName;
            std::uint32_t iCount = 0;
            ASSERT_EQ(client.Write(sHandle, 0, MakeContent(iClient, i), iCount), 0U) << sName;
            vvsHandles.back().push_back(sHandle);
        }
    }
    EXPECT_GT(CountDescriptors(m_pConsole->GetPid()), 40U) << "far from the limit";
    for (int i = 0; i < kFiles; ++i) {
        for (int iClient = 0; iClient < CNfsMain::kMaxNfsConnections; ++iClient) {
            NfsClient& reader = *vpClients[static_cast<std::size_t>(CNfsMain::kMaxNfsConnections - 1 - iClient)];
            const std::string& sHandle = vvsHandles[static_cast<std::size_t>(iClient)][static_cast<std::size_t>(i)];
            std::string sData;
            bool bEof = false;
            ASSERT_EQ(reader.Read(sHandle, 0, 100, sData, bEof), 0U);
            EXPECT_EQ(sData, MakeContent(iClient, i));
        }
    }
    std::vector<std::string> vsNames;
    EXPECT_EQ(vpClients[0]->Readdir(sRoot, vsNames), 0U);
    EXPECT_EQ(vsNames.size(), static_cast<std::size_t>(kFiles * CNfsMain::kMaxNfsConnections));
    for (int i = 0; i < kFiles; ++i) {
        const std::string sName = "9-" + std::to_string(i);
        EXPECT_EQ(vpClients[0]->Rename(sRoot, sName, sRoot, "renamed" + sName), 0U);
        std::uint32_t iCount = 0;
        EXPECT_EQ(vpClients[1]->Write(vvsHandles[9][static_cast<std::size_t>(i)], 0, "again", iCount), 0U);
        EXPECT_TRUE(ReadWholeFile(m_Folder / ("renamed" + sName)).starts_with("again"));
    }
    vpClients.clear();
    NfsClient last;
    EXPECT_TRUE(last.Nfs().Call(kNfsProgram, 3, kNfsNull, "").iAcceptStatus == kAcceptSuccess);
}

/// A file system of a given size, for the scope.
class SmallFileSystem {
public:
    SmallFileSystem(std::string sPath, const char* pcSize) : m_sPath(std::move(sPath)) {
        const std::string sOptions = std::string("size=") + pcSize;
        if (::mkdir(m_sPath.c_str(), 0755) != 0 ||
            ::mount("none", m_sPath.c_str(), "tmpfs", 0, sOptions.c_str()) != 0) {
            throw std::runtime_error("no small file system");
        }
    }
    ~SmallFileSystem() { ::umount2(m_sPath.c_str(), MNT_DETACH); }
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    const std::string& Path() const { return m_sPath; }
    bool IsFull() const {
        struct statvfs figures {};
        return ::statvfs(m_sPath.c_str(), &figures) == 0 && figures.f_bavail == 0;
    }

private:
    std::string m_sPath;
};

// With every log bit, so that each call wants many lines. What the file does not take goes to the console, which here
// nobody reads.
TEST_F(ScarceResourcesTest, ALogFileOnADiskThatRunsFullStopsNoCallAndGoesOnWhenThereIsRoom) {
    const TempFolder logs;
    const SmallFileSystem small(logs / "log", "512k");
    WriteWholeFile(small.Path() + "/filler", std::string(256 << 10, 'x'));
    const std::string sLog = small.Path() + "/nfs.log";
    Serve("", "-log 1023 -logfile " + sLog + " > /dev/null");
    ASSERT_TRUE(WaitUntil([] {
        try {
            return NfsClient().Mnt("data").has_value();
        } catch (const std::runtime_error&) {
            return false;
        }
    }));
    NfsClient client;
    client.Umnt("data");
    const std::string sRoot = client.Mnt("data").value();
    std::string sFile;
    ASSERT_EQ(client.Create(sRoot, "file", sFile), 0U);
    int nCalls = 0;
    for (int nWhenFull = 0; nWhenFull < 300 && nCalls < 5000; ++nCalls) {
        const std::string sContent = "call " + std::to_string(nCalls);
        std::uint32_t iCount = 0;
        ASSERT_EQ(client.Write(sFile, 0, sContent, iCount), 0U) << nCalls;
        std::string sData;
        bool bEof = false;
        ASSERT_EQ(client.Read(sFile, 0, iCount, sData, bEof), 0U) << nCalls;
        ASSERT_EQ(sData, sContent);
        nWhenFull += small.IsFull() ? 1 : 0;
    }
    ASSERT_TRUE(small.IsFull()) << nCalls << " calls did not fill it";
    std::filesystem::remove(small.Path() + "/filler");
    std::string sHandle;
    EXPECT_EQ(client.Create(sRoot, "behind.the.gap", sHandle), 0U);
    EXPECT_TRUE(WaitUntil([&] { return ReadWholeFile(sLog).find("behind.the.gap") != std::string::npos; }));
}

}  // namespace
