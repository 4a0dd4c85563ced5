// The instant-recovery host, run as its users run it, with a client that keeps its changes on its own side.
#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "CopyOnWriteDisk.h"
#include "JavaHost.h"
#include "NfsClient.h"
#include "TempFolder.h"
#include "Trees.h"
#include "WaitUntil.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t kNfs3Ok = 0;
constexpr std::uint32_t kNfs3ErrIo = 5;
constexpr std::uint32_t kNfs3ErrInval = 22;
/// A compiler and two virtual machines run before the host is ready, perhaps beside many other tests.
constexpr auto kStart = 2 * ChildProcess::kLimit;
constexpr const char* kDisk = "disk.img";

/// Administrators' tools, which an ordinary user's PATH lacks.
std::string Tool(const std::string& sName) {
    return std::filesystem::exists("/usr/sbin/" + sName) ? "/usr/sbin/" + sName : "/sbin/" + sName;
}

/// Content that repeats nowhere, so that a piece in the wrong place shows.
std::string Numbers(int nLines) {
    std::string sText;
    for (int i = 0; i < nLines; ++i) {
        sText += "line " + std::to_string(i) + "\n";
    }
    return sText;
}

/// An image of 4 MiB that was made from a folder, and the host that lends it.
class InstantRecoveryTest : public JavaTest {
protected:
    void SetUp() override {
        JavaTest::SetUp();
        if (!IsSkipped() && !std::filesystem::exists(Tool("mke2fs"))) {
            GTEST_SKIP() << "no mke2fs (package e2fsprogs)";
        }
        std::filesystem::create_directories(m_Folder / "tree/inner");
        WriteWholeFile(m_Folder / "tree/notes.txt", "as it was backed up\n");
        WriteWholeFile(m_Folder / "tree/inner/numbers.txt", Numbers(50000));
        WriteWholeFile(m_sImage, "");
        std::filesystem::resize_file(m_sImage, 4 << 20);
        const RunResult made = RunProgram({Tool("mke2fs"), "-q", "-t", "ext4", "-d", m_Folder / "tree", m_sImage});
        ASSERT_EQ(made.iStatus, 0) << made.sOutput;
        std::filesystem::create_directory(m_Folder / "tmp");
        m_Options.vEnvironment = {{"NFSLIB", NFSLIB_LIBRARY},
                                  {"WORK", m_sWork},
                                  {"TMPDIR", m_Folder / "tmp"},
                                  {"JAVA_OPTIONS", "-Xcheck:jni"},
                                  // Machines that live for a second or two: quick to start.
                                  {"JAVA_TOOL_OPTIONS", "-XX:TieredStopAtLevel=1 -XX:+UseSerialGC -XX:-UsePerfData"}};
    }

    std::vector<std::string> Command() const { return {SourceTree() + "/examples/instant-recovery/run.sh", m_sImage}; }

    /// What a command of debugfs prints about an image.
    std::string Debugfs(const std::string& sImage, const std::string& sRequest) {
        const RunResult result = RunProgram({Tool("debugfs"), "-R", sRequest, sImage});
        EXPECT_EQ(result.iStatus, 0) << result.sOutput;
        return result.sOutput;
    }

    const TempFolder m_Folder;
    const std::string m_sImage = m_Folder / "original.img";
    const std::string m_sWork = m_Folder / "work";
    ChildOptions m_Options;
};

// The client's file system is changed by e2fsprogs' own tool: what it changes in a copy goes, block by block, into the
// layer over the lent disk.
TEST_F(InstantRecoveryTest, ClientChangesTheDiskInALayerOfItsOwnAndTheImageIsWrittenOutWhole) {
    ChildProcess host(Command(), m_Options);
    ASSERT_TRUE(host.WaitFor("Ready: 4194304 bytes in ", kStart)) << host.Output();
    const std::string sOriginal = ReadWholeFile(m_sImage);
    {
        CopyOnWriteDisk disk("recovery", std::string("/") + kDisk);
        ASSERT_EQ(disk.Size(), sOriginal.size());
        ASSERT_TRUE(disk.ReadAll() == sOriginal) << "the lent disk is what was backed up";

        const std::string sView = m_Folder / "view.img";
        WriteWholeFile(sView, sOriginal);
        WriteWholeFile(m_Folder / "new", "made by the client\n");
        const RunResult changed =
            RunProgram({Tool("debugfs"), "-w", "-R", "write " + m_Folder / "new" + " new.txt", sView});
        ASSERT_EQ(changed.iStatus, 0) << changed.sOutput;
        const std::string sChanged = ReadWholeFile(sView);
        for (std::size_t iOffset = 0; iOffset < sChanged.size(); iOffset += 512) {
            const auto sSector = std::string_view(sChanged).substr(iOffset, 512);
            if (sSector != std::string_view(sOriginal).substr(iOffset, 512)) {
                disk.Write(iOffset, sSector);
            }
        }
        EXPECT_GT(disk.ChangedBlocks(), 0U);

        WriteWholeFile(sView, disk.ReadAll());
        EXPECT_EQ(RunProgram({Tool("e2fsck"), "-fn", sView}).iStatus, 0);
        EXPECT_THAT(Debugfs(sView, "cat new.txt"), HasSubstr("made by the client"));
        EXPECT_THAT(Debugfs(sView, "cat notes.txt"), HasSubstr("as it was backed up"));
        EXPECT_TRUE(disk.ReadBase(0, disk.Size()) == sOriginal) << "the disk below the layer is as it was";
    }
    host.Send("\n");
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    EXPECT_THAT(host.Output(), HasSubstr("Stopped, writes granted: none; writes refused: none\n"));
    EXPECT_THAT(host.Output(), HasSubstr("e2fsck: clean\n"));
    EXPECT_THAT(host.Output(), HasSubstr("Original: equal, byte for byte\n"));
    EXPECT_TRUE(ReadWholeFile(m_sWork + "/written/disk.img") == sOriginal);
    EXPECT_EQ(ComplaintsIn(host.Output()), std::vector<std::string>());
}

TEST_F(InstantRecoveryTest, ChangesOfTheDiskItselfAreRecordedAndGrantedOrRefusedByTheRules) {
    ChildProcess host(Command(), m_Options);
    ASSERT_TRUE(host.WaitFor("Ready: ", kStart)) << host.Output();
    const std::string sLent = m_sWork + "/lent/";
    {
        NfsClient client;
        const std::string sRoot = client.Mnt("recovery").value_or("");
        std::string sFile;
        ASSERT_EQ(client.Lookup(sRoot, kDisk, sFile), kNfs3Ok);

        std::uint32_t iCount = 0;
        EXPECT_EQ(client.Write(sFile, 8192, std::string(4096, 'w'), iCount), kNfs3ErrInval);
        EXPECT_TRUE(host.WaitFor("refused in recovery: write of [8192, 12288)\n"));
        EXPECT_EQ(client.Write(sFile, 512, std::string(1024, 'w'), iCount), kNfs3ErrInval) << "in part outside";
        EXPECT_EQ(client.Write(sFile, 512, std::string(512, 'w'), iCount), kNfs3Ok);
        EXPECT_EQ(iCount, 512U);
        EXPECT_TRUE(host.WaitFor("granted in recovery: write of [512, 1024)\n"));

        Sattr3 attributes;
        attributes.iSize = 0;
        EXPECT_EQ(client.Setattr(sFile, attributes), kNfs3ErrInval);
        EXPECT_TRUE(host.WaitFor("refused in recovery: size 0\n"));
        attributes = {};
        attributes.mtime = {1, 0};
        EXPECT_EQ(client.Setattr(sFile, attributes), kNfs3Ok);
        EXPECT_TRUE(host.WaitFor("granted in recovery: times, mode or owner\n"));

        EXPECT_EQ(client.Rename(sRoot, kDisk, sRoot, "mine.img"), kNfs3ErrIo);
        EXPECT_TRUE(host.WaitFor("refused in recovery: rename of " + sLent + kDisk + " to " + sLent + "mine.img\n"));
        EXPECT_EQ(client.Remove(sRoot, kDisk), kNfs3ErrIo);
        EXPECT_TRUE(host.WaitFor("refused in recovery: removal of " + sLent + kDisk + "\n"));

        std::vector<std::string> vsNames;
        EXPECT_EQ(client.Readdir(sRoot, vsNames), kNfs3Ok);
        EXPECT_EQ(vsNames, std::vector<std::string>{kDisk}) << "it is there again";
        ASSERT_EQ(client.Lookup(sRoot, kDisk, sFile), kNfs3Ok);
        std::string sRead;
        bool bEof = false;
        ASSERT_EQ(client.Read(sFile, 0, 65536, sRead, bEof), kNfs3Ok);
        EXPECT_TRUE(sRead == ReadWholeFile(m_sImage).substr(0, 65536)) << "and what was backed up";
    }
    host.CloseInput();
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    EXPECT_THAT(host.Output(),
                HasSubstr("Stopped, writes granted: [512, 1024); writes refused: [512, 1536) [8192, 12288)\n"));
    EXPECT_THAT(ReadWholeFile(m_sWork + "/changes.log"), HasSubstr("Z refused in recovery: size 0\n"));
}

TEST_F(InstantRecoveryTest, ImageWithAWrongByteInItsPiecesIsNotCalledWhole) {
    ChildProcess host(Command(), m_Options);
    ASSERT_TRUE(host.WaitFor("Ready: ", kStart)) << host.Output();
    // The last bytes of one stored file become others under the host's hands.
    const std::string sStored = m_sWork + "/backup/stored-1";
    std::string sBytes = ReadWholeFile(sStored);
    ASSERT_GT(sBytes.size(), 1000U);
    std::transform(sBytes.end() - 1000, sBytes.end(), sBytes.end() - 1000, [](char c) { return ~c; });
    WriteWholeFile(sStored, sBytes);
    host.Send("\n");
    EXPECT_EQ(host.Wait(), 1) << host.Output();
    EXPECT_THAT(host.Output(), HasSubstr("Original: DIFFERS at byte "));
}

TEST_F(InstantRecoveryTest, LineThatIsNoRuleIsNamed) {
    WriteWholeFile(m_Folder / "rules", "# none\ngrant write 0 1024\ngrant everything\n");
    m_Options.vEnvironment.emplace_back("RULES", m_Folder / "rules");
    const RunResult result = RunProgram(Command(), m_Options, kStart);
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_THAT(result.sOutput, HasSubstr("/rules, line 3: not a rule: grant everything\n"));
}

// Whoever closes the disk before the clients' connections lets them reach the empty file that stands for it.
TEST_F(InstantRecoveryTest, RefusedWritesReachNothingWhileTheHostStops) {
    WriteWholeFile(m_Folder / "rules", "refuse write\n");
    m_Options.vEnvironment.emplace_back("RULES", m_Folder / "rules");
    for (int i = 0; i < 3; ++i) {
        ChildProcess host(Command(), m_Options);
        ASSERT_TRUE(host.WaitFor("Ready: ", kStart)) << host.Output();
        NfsClient client;
        std::string sFile;
        ASSERT_EQ(client.Lookup(client.Mnt("recovery").value_or(""), kDisk, sFile), kNfs3Ok);
        int nRefused = 0;
        try {
            for (;; ++nRefused) {
                if (nRefused == 20) {
                    host.Signal(SIGTERM);
                }
                std::uint32_t iCount = 0;
                ASSERT_EQ(client.Write(sFile, 0, std::string(64, 'z'), iCount), kNfs3ErrInval) << "call " << nRefused;
                Fattr3 attributes;
                ASSERT_EQ(client.Getattr(sFile, attributes), kNfs3Ok);
                ASSERT_EQ(attributes.iSize, 4U << 20) << "call " << nRefused;
            }
        } catch (const std::runtime_error&) {
            EXPECT_GE(nRefused, 20) << "the connection ended before the host was told to stop";
        }
        EXPECT_EQ(host.Wait(), 128 + SIGTERM) << host.Output();
        EXPECT_EQ(std::filesystem::file_size(m_sWork + "/lent/" + kDisk), 0U);
        std::filesystem::remove_all(m_sWork);
    }
}

// The write-out is held at the image, a pipe that nobody reads.
TEST_F(InstantRecoveryTest, CtrlCGivesUpAWriteOutInProgress) {
    std::filesystem::create_directories(m_sWork + "/written");
    ASSERT_EQ(::mkfifo((m_sWork + "/written/" + kDisk).c_str(), 0644), 0);
    ChildProcess host(Command(), m_Options);
    ASSERT_TRUE(host.WaitFor("Ready: ", kStart)) << host.Output();
    host.Send("\n");
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(m_sWork + "/whole.img"); })) << "it has begun";
    host.Signal(SIGINT);
    EXPECT_EQ(host.Wait(), 130) << host.Output();
    EXPECT_THAT(host.Output(), HasSubstr("Stopped, "));
    EXPECT_THAT(host.Output(), Not(HasSubstr("e2fsck")));
}

// What the two examples make below /tmp goes when they end, whoever ends them.
TEST_F(InstantRecoveryTest, ExamplesLeaveNothingBehindAtCtrlC) {
    std::erase_if(m_Options.vEnvironment, [](const auto& variable) { return variable.first == "WORK"; });
    for (const char* pcExample : {"instant-recovery", "java-host"}) {
        ChildProcess host({SourceTree() + "/examples/" + pcExample + "/run.sh"}, m_Options);
        ASSERT_TRUE(host.WaitFor("Ready: ", kStart)) << host.Output();
        EXPECT_FALSE(std::filesystem::is_empty(m_Folder / "tmp")) << pcExample << " works there";
        host.Signal(SIGINT);
        EXPECT_EQ(host.Wait(), 130) << host.Output();
        EXPECT_THAT(host.Output(), HasSubstr("Stopped, "));
        EXPECT_THAT(host.Output(), Not(HasSubstr("e2fsck")));
        EXPECT_TRUE(WaitUntil([&] { return std::filesystem::is_empty(m_Folder / "tmp"); })) << pcExample;
    }
}

}  // namespace
