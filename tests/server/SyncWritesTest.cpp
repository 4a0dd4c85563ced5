// -sync and NFSLIB_SYNC=1: a WRITE is answered when its bytes are with the storage, or fails.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "ServerFixture.h"
#include "TempFolder.h"
#include "Trees.h"
#include "Utilities.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t kInvalid = 22;
constexpr std::size_t kPage = 4096;

// ---- Asking for it

/// The environment as it was, at the end.
class SyncVariable {
public:
    explicit SyncVariable(const char* pcValue) { ::setenv("NFSLIB_SYNC", pcValue, 1); }
    ~SyncVariable() { ::unsetenv("NFSLIB_SYNC"); }
    SyncVariable(const SyncVariable&) = delete;
    SyncVariable& operator=(const SyncVariable&) = delete;
};

template <typename Controller>
bool IsSyncWhenMade() {
    Controller controller("test", 0);
    return controller.GetUtilities()->IsSyncWrites();
}

TEST(SyncVariableTest, OnlyOneMeansYes) {
    ::unsetenv("NFSLIB_SYNC");
    EXPECT_FALSE(IsSyncWhenMade<CNfsMain>()) << "off unless asked for";
    for (const char* pcValue : {"", "0", "2", "11", "1 ", "yes", "true"}) {
        const SyncVariable variable(pcValue);
        EXPECT_FALSE(IsSyncWhenMade<CNfsMain>()) << pcValue;
    }
    const SyncVariable variable("1");
    EXPECT_TRUE(IsSyncWhenMade<CNfsMain>());
    EXPECT_TRUE(IsSyncWhenMade<CNfsIpcServerMain>());
}

// ---- The console

class SyncConsoleTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    /// What one WRITE through a console with these options is answered; its log is left in m_sOutput.
    std::uint32_t Write(const std::vector<std::string>& vsOptions, const ChildOptions& options = {}) {
        const TempFolder folder;
        WriteWholeFile(folder / "f", "");
        ConsoleProcess console(vsOptions, options);
        EXPECT_TRUE(console.WaitForPrompt()) << console.Output();
        console.Command("debug");
        EXPECT_THAT(console.Command("start"), HasSubstr("Start NFS success"));
        console.Command("mount " + folder.Path() + "=data");
        std::uint32_t iStatus = 0;
        {
            NfsClient client;
            std::string sHandle;
            EXPECT_EQ(client.Lookup(client.Mnt("data").value_or(""), "f", sHandle), 0U);
            std::uint32_t iCount = 0;
            iStatus = client.Write(sHandle, 0, "data", iCount);
            EXPECT_EQ(iCount, iStatus == 0 ? 4U : 0U);
        }
        EXPECT_EQ(console.Quit(), 0);
        m_sOutput = console.Output();
        return iStatus;
    }
    /// Surroundings in which no flush succeeds.
    static ChildOptions FailingSync() {
        const char* pcAsanOptions = std::getenv("ASAN_OPTIONS");
        ChildOptions options;
        options.vEnvironment = {
            {"LD_PRELOAD", BuildTree() + "/tests/server/libfailing_sync.so"},
            {"ASAN_OPTIONS", std::string(pcAsanOptions != nullptr ? pcAsanOptions : "") + ":verify_asan_link_order=0"}};
        return options;
    }

    LeakGuard m_Leaks;
    std::string m_sOutput;
};

TEST_F(SyncConsoleTest, OptionTakesNoValueAndReachesTheServerInBothModes) {
    for (const char* pcMode : {"int", "svr"}) {
        EXPECT_EQ(Write({"-sync", "-md", pcMode, "-log", "256", "-id", "test"}), 0U);
        EXPECT_THAT(m_sOutput, HasSubstr("[info] (data) [Nfs3Prog.ProcedureWRITE] OS sync file (")) << pcMode;
        EXPECT_EQ(Write({"-md", pcMode, "-log", "256", "-id", "test"}), 0U);
        EXPECT_THAT(m_sOutput, Not(HasSubstr("sync"))) << pcMode;
    }
}

TEST_F(SyncConsoleTest, VariableReachesTheServer) {
    ChildOptions options;
    options.vEnvironment = {{"NFSLIB_SYNC", "1"}};
    EXPECT_EQ(Write({"-md", "int", "-log", "256", "-id", "test"}, options), 0U);
    EXPECT_THAT(m_sOutput, HasSubstr("] OS sync file ("));
}

TEST_F(SyncConsoleTest, FailedFlushIsAFailedWrite) {
    EXPECT_EQ(Write({"-md", "int", "-log", "1", "-id", "test", "-sync"}, FailingSync()), kInvalid);
    EXPECT_THAT(m_sOutput, HasSubstr("[erro] (data) [Nfs3Prog.ProcedureWRITE] OS sync file ("));
    EXPECT_THAT(m_sOutput, HasSubstr("). Error=No space left on device (28)"));
    EXPECT_THAT(m_sOutput, HasSubstr("[Nfs3Prog.ProcedureWRITE] Write fail"));
    EXPECT_EQ(Write({"-md", "int", "-log", "1", "-id", "test"}, FailingSync()), 0U) << "nobody asked for the flush";
}

// ---- A file system that runs full behind its back

/// A file system of 64 MB on a file that finds room for 8 MB only, by way of a loop device.
class ThinFileSystem {
public:
    explicit ThinFileSystem(const std::string& sFolder) : m_sStore(sFolder + "/store"), m_sMount(sFolder + "/thin") {
        ::mkdir(m_sStore.c_str(), 0755);
        ::mkdir(m_sMount.c_str(), 0755);
        m_bStore = ::mount("none", m_sStore.c_str(), "tmpfs", 0, "size=8m") == 0;
        if (!m_bStore) {
            m_sMissing = "a tmpfs";
            return;
        }
        const std::string sImage = m_sStore + "/image";
        WriteWholeFile(sImage, "");
        if (::truncate(sImage.c_str(), 64 << 20) != 0 ||
            RunProgram({"mkfs.ext4", "-q", "-F", "-b", std::to_string(kPage), "-O", "^has_journal", sImage}).iStatus !=
                0) {
            m_sMissing = "mkfs.ext4";
            return;
        }
        m_sDevice = Attach(sImage);
        if (m_sDevice.empty()) {
            m_sMissing = "a loop device";
            return;
        }
        m_bMounted = ::mount(m_sDevice.c_str(), m_sMount.c_str(), "ext4", 0, nullptr) == 0;
        m_sMissing = m_bMounted ? "" : "ext4";
    }
    ~ThinFileSystem() {
        if (m_bMounted) {
            EXPECT_EQ(::umount(m_sMount.c_str()), 0) << std::strerror(errno);
        }
        m_Loop.Close();  // clears itself once nothing uses it
        if (m_bStore) {
            ::umount2(m_sStore.c_str(), MNT_DETACH);
        }
    }
    ThinFileSystem(const ThinFileSystem&) = delete;
    ThinFileSystem& operator=(const ThinFileSystem&) = delete;

    const std::string& Path() const { return m_sMount; }
    /// What could not be had; empty if it is mounted.
    const std::string& GetMissing() const { return m_sMissing; }

private:
    /// A loop device on a file; others may take devices at the same time.
    std::string Attach(const std::string& sImage) {
        const CDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
        const CDescriptor image(::open(sImage.c_str(), O_RDWR | O_CLOEXEC));
        for (int iTry = 0; control.IsOpen() && iTry < 20; ++iTry) {
            const int iDevice = ::ioctl(control.Get(), LOOP_CTL_GET_FREE);
            const std::string sDevice = "/dev/loop" + std::to_string(iDevice);
            CDescriptor loop(::open(sDevice.c_str(), O_RDWR | O_CLOEXEC));
            if (iDevice < 0 || !loop.IsOpen()) {
                return "";
            }
            if (::ioctl(loop.Get(), LOOP_SET_FD, image.Get()) != 0) {
                continue;
            }
            loop_info64 info{};
            info.lo_flags = LO_FLAGS_AUTOCLEAR;
            ::ioctl(loop.Get(), LOOP_SET_STATUS64, &info);
            m_Loop = std::move(loop);
            return sDevice;
        }
        return "";
    }

    std::string m_sStore;
    std::string m_sMount;
    std::string m_sDevice;
    std::string m_sMissing;
    CDescriptor m_Loop;
    bool m_bStore = false;
    bool m_bMounted = false;
};

class ThinFileSystemTest : public ServerFixture {};

TEST_F(ThinFileSystemTest, EachWriteThatWasAnsweredIsThereAndTheFirstThatIsNotFails) {
    // One page at a time: of a longer write some loop devices store the part that fits, and say that it was all.
    constexpr std::uint64_t kBlock = kPage;
    constexpr std::uint64_t kBlocks = 4000;  // 16 MB where 8 are
    const TempFolder folder;
    ThinFileSystem thin(folder.Path());
    if (!thin.GetMissing().empty()) {
        GTEST_SKIP() << "needs " << thin.GetMissing();
    }
    WriteWholeFile(thin.Path() + "/f", "");
    Server().SetSyncWrites(true);
    Export(thin.Path(), "thin");
    const auto content = [](std::uint64_t iBlock) { return std::string(kBlock, static_cast<char>('A' + iBlock % 53)); };
    std::uint64_t nAnswered = 0;
    std::uint32_t iStatus = 0;
    {
        NfsClient client;
        std::string sHandle;
        ASSERT_EQ(client.Lookup(MountRoot(client, "thin"), "f", sHandle), 0U);
        for (; iStatus == 0 && nAnswered < kBlocks; nAnswered += iStatus == 0 ? 1 : 0) {
            std::uint32_t iCount = 0;
            iStatus = client.Write(sHandle, nAnswered * kBlock, content(nAnswered), iCount);
            ASSERT_TRUE(iStatus != 0 || iCount == kBlock) << iCount;
        }
    }
    EXPECT_EQ(iStatus, kInvalid) << "after " << nAnswered << " WRITEs";
    EXPECT_GT(nAnswered, 100U) << "there is room for some";
    EXPECT_THAT(Log().Texts('e'), testing::Contains(HasSubstr("[Nfs3Prog.ProcedureWRITE] OS sync file (")));
    Server().RemoveMountPoint(thin.Path().c_str());
    // From the storage, not from memory, and by what the file system knows of the file's places: on the storage that
    // knowledge may be spoilt by the attempt that failed.
    const CDescriptor file(::open((thin.Path() + "/f").c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
    ASSERT_TRUE(file.IsOpen()) << std::strerror(errno);
    const std::unique_ptr<void, decltype(&std::free)> pBlock(std::aligned_alloc(kPage, kBlock), &std::free);
    for (std::uint64_t iBlock = 0; iBlock < nAnswered; ++iBlock) {
        ssize_t nRead = -1;
        for (int iTry = 0; iTry < 2 && nRead < 0; ++iTry) {  // the failure of the writing may be told once more
            nRead = ::pread(file.Get(), pBlock.get(), kBlock, static_cast<off_t>(iBlock * kBlock));
        }
        ASSERT_EQ(nRead, static_cast<ssize_t>(kBlock)) << iBlock << ": " << std::strerror(errno);
        ASSERT_EQ(std::memcmp(pBlock.get(), content(iBlock).data(), kBlock), 0) << iBlock;
    }
}

}  // namespace
