// The example host, run as its users run it.
#include <string>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "JavaHost.h"
#include "NfsClient.h"
#include "TempFolder.h"
#include "Trees.h"
#include "WaitUntil.h"

namespace {

constexpr std::uint32_t kNfs3Ok = 0;
constexpr std::uint32_t kNfs3ErrInval = 22;
constexpr std::size_t kMiB = 1 << 20;

class ExampleHostTest : public JavaTest {};

TEST_F(ExampleHostTest, ServesADiskFromPiecesKeepsWrittenRangesAndStopsOnCtrlC) {
    const TempFolder folder;
    const std::string sExport = folder / "export";
    const std::string sDisk = sExport + "/disk.img";
    ChildOptions options;
    options.vEnvironment = {
        {"NFSLIB", NFSLIB_LIBRARY}, {"CLASSES", folder / "classes"}, {"JAVA_OPTIONS", "-Xcheck:jni -XX:-UsePerfData"}};
    ChildProcess host({SourceTree() + "/examples/java-host/run.sh", sExport}, options);
    ASSERT_TRUE(host.WaitFor("Ready: " + sExport + " is exported as \"data\"")) << host.Output();

    NfsClient client;
    const std::string sRoot = client.Mnt("data").value_or("");
    std::string sFile;
    ASSERT_EQ(client.Lookup(sRoot, "disk.img", sFile), kNfs3Ok);
    std::string sRead;
    bool bEof = false;
    while (!bEof) {
        std::string sData;
        ASSERT_EQ(client.Read(sFile, sRead.size(), 65536, sData, bEof), kNfs3Ok);
        ASSERT_FALSE(sData.empty());
        sRead += sData;
    }
    EXPECT_TRUE(sRead == std::string(kMiB, 'A') + std::string(2 * kMiB, '\0') + std::string(kMiB, 'Z'));

    std::uint32_t iCount = 0;
    for (const std::uint64_t iOffset : {4096U, 0U, 65536U}) {
        EXPECT_EQ(client.Write(sFile, iOffset, std::string(4096, 'w'), iCount), kNfs3Ok);
        EXPECT_EQ(iCount, 4096U);
        EXPECT_TRUE(host.WaitFor("write in data: " + sDisk + " at " + std::to_string(iOffset) + ", 4096 bytes"));
    }
    Sattr3 size;
    size.iSize = 1;
    EXPECT_EQ(client.Setattr(sFile, size), kNfs3ErrInval) << "a disk does not change its size";
    EXPECT_TRUE(host.WaitFor("attributes in data: " + sDisk + " size 1"));
    EXPECT_EQ(client.Rename(sRoot, "disk.img", sRoot, "moved.img"), kNfs3Ok);
    EXPECT_TRUE(host.WaitFor("rename in data: " + sDisk + " to " + sExport + "/moved.img"));
    EXPECT_EQ(client.Remove(sRoot, "moved.img"), kNfs3Ok);
    EXPECT_TRUE(host.WaitFor("removal in data: " + sExport + "/moved.img"));

    host.Signal(SIGINT);
    EXPECT_EQ(host.Wait(), 130) << host.Output();
    EXPECT_NE(host.Output().find("Stopped, written ranges: [0, 8192) [65536, 69632)"), std::string::npos)
        << host.Output();
    EXPECT_EQ(ComplaintsIn(host.Output()), std::vector<std::string>());
}

/// Host runs its start up to a piece of the disk whose making the test holds.
TEST_F(ExampleHostTest, NoClientReachesTheExportBeforeTheDiskIsWhole) {
    const TempFolder folder;
    const std::string sExport = folder / "export";
    ASSERT_EQ(::mkdir((folder / "export-pieces").c_str(), 0755), 0);
    const std::string sPiece = folder / "export-pieces/first";
    ASSERT_EQ(::mkfifo(sPiece.c_str(), 0644), 0);
    const CDescriptor piece(::open(sPiece.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(piece.IsOpen());
    ChildOptions options;
    options.vEnvironment = {{"NFSLIB", NFSLIB_LIBRARY}, {"CLASSES", folder / "classes"}};
    ChildProcess host({SourceTree() + "/examples/java-host/run.sh", sExport}, options);
    std::size_t nRead = 0;
    std::string sBuffer(65536, '\0');
    const auto read = [&] {
        const ssize_t nBytes = ::read(piece.Get(), sBuffer.data(), sBuffer.size());
        nRead += nBytes > 0 ? static_cast<std::size_t>(nBytes) : 0;
    };
    EXPECT_TRUE(WaitUntil([&] { return read(), nRead > 0; })) << host.Output();
    {
        NfsClient client;
        EXPECT_FALSE(client.Mnt("data")) << "the disk is still being presented";
    }
    EXPECT_TRUE(WaitUntil([&] { return read(), nRead == kMiB; }));
    ASSERT_TRUE(host.WaitFor("Ready: " + sExport + " is exported as \"data\"")) << host.Output();
    {
        NfsClient client;
        EXPECT_TRUE(client.Mnt("data"));
    }
    host.Signal(SIGINT);
    EXPECT_EQ(host.Wait(), 130) << host.Output();
}

TEST_F(ExampleHostTest, SaysWhichLibraryIsMissing) {
    ChildOptions options;
    options.vEnvironment = {{"NFSLIB", "/nowhere/libNfsLib.so"}};
    const RunResult result = RunProgram({SourceTree() + "/examples/java-host/run.sh"}, options);
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_NE(result.sOutput.find("No library at /nowhere/libNfsLib.so"), std::string::npos) << result.sOutput;
}

}  // namespace
