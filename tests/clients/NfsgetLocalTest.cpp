// nfsget and the local side of its transfers: devices, pipes, links, directories, long names.
#include <csignal>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "CallForwarder.h"
#include "NfsgetFixture.h"
#include "WaitUntil.h"

namespace {

class NfsgetLocalTest : public NfsgetTest {
protected:
    static mode_t Mode(const std::string& sPath) {
        struct stat state {};
        EXPECT_EQ(::lstat(sPath.c_str(), &state), 0) << sPath;
        return state.st_mode;
    }
};

// ---- What a get writes into

TEST_F(NfsgetLocalTest, GetIntoADeviceWritesIntoItAndLeavesItOne) {
    const TempFolder local;
    const std::string sDevice = local / "null";
    const bool bMade = ::mknod(sDevice.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
    if (!bMade) {  // for want of the right to: the system's own, in another place
        WriteWholeFile(sDevice, "");
        ASSERT_EQ(::mount("/dev/null", sDevice.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    WriteWholeFile(Folder() / "file", Numbers(1 << 20));
    const RunResult result = Run({"get", "127.0.0.1:data/file", sDevice});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_TRUE(S_ISCHR(Mode(sDevice)));
    if (!bMade) {
        ::umount(sDevice.c_str());
    }
    EXPECT_FALSE(std::filesystem::exists(local / "null.nfsget-part"));
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, GetIntoANamedPipeReachesItsReader) {
    const TempFolder local;
    const std::string sContent = Numbers(1 << 20);
    WriteWholeFile(Folder() / "file", sContent);
    ASSERT_EQ(::mkfifo((local / "pipe").c_str(), 0600), 0);
    ChildProcess get({Program(), "get", "127.0.0.1:data/file", local / "pipe"});
    ChildProcess reader({"/bin/sh", "-c", "cat \"$0\" > \"$1\"", local / "pipe", local / "copy"});
    EXPECT_EQ(get.Wait(), 0) << get.Output();
    ASSERT_TRUE(S_ISFIFO(Mode(local / "pipe")));
    EXPECT_EQ(reader.Wait(), 0);
    EXPECT_TRUE(ReadWholeFile(local / "copy") == sContent);
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, InterruptEndsTheWaitForAPipesReader) {
    const TempFolder local;
    WriteWholeFile(Folder() / "file", "x");
    ASSERT_EQ(::mkfifo((local / "pipe").c_str(), 0600), 0);
    ChildProcess get({Program(), "get", "127.0.0.1:data/file", local / "pipe"});
    ASSERT_TRUE(WaitUntil([&] { return Blocks(get.GetPid(), SIGINT) || !get.IsRunning(); }));
    get.Signal(SIGINT);
    EXPECT_EQ(get.Wait(), 1);
    EXPECT_EQ(get.Output(), "nfsget: interrupted\n");
    EXPECT_TRUE(S_ISFIFO(Mode(local / "pipe")));
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, InterruptEndsTheWaitForAPipesWriter) {
    const TempFolder local;
    ASSERT_EQ(::mkfifo((local / "pipe").c_str(), 0600), 0);
    ChildProcess interrupted({Program(), "put", local / "pipe", "127.0.0.1:data/file"});
    ASSERT_TRUE(WaitUntil([&] { return Blocks(interrupted.GetPid(), SIGINT); }));
    interrupted.Signal(SIGINT);
    EXPECT_EQ(interrupted.Wait(), 1);
    EXPECT_EQ(interrupted.Output(), "nfsget: interrupted\n");
    EXPECT_TRUE(std::filesystem::is_empty(Folder().Path()));
    ChildProcess put({Program(), "put", local / "pipe", "127.0.0.1:data/file"});
    ASSERT_TRUE(WaitUntil([&] { return Blocks(put.GetPid(), SIGINT); }));
    const std::string sContent = Numbers(1 << 20);
    WriteWholeFile(local / "original", sContent);
    EXPECT_EQ(RunProgram({"/bin/sh", "-c", "cat \"$0\" > \"$1\"", local / "original", local / "pipe"}).iStatus, 0);
    EXPECT_EQ(put.Wait(), 0) << put.Output();
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == sContent);
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, GetThroughALinkReachesWhatItLeadsTo) {
    const TempFolder local;
    WriteWholeFile(Folder() / "file", "what comes");
    WriteWholeFile(local / "target", "what was there");
    std::filesystem::create_symlink("target", local / "link");
    RunResult result = Run({"get", "127.0.0.1:data/file", local / "link"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_TRUE(S_ISLNK(Mode(local / "link")));
    EXPECT_EQ(ReadWholeFile(local / "target"), "what comes");
    // As /dev/stdout is one.
    std::filesystem::create_symlink("/proc/self/fd/1", local / "output");
    result = Run({"get", "127.0.0.1:data/file", local / "output"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "what comes");
    EXPECT_TRUE(S_ISLNK(Mode(local / "output")));
    std::filesystem::create_symlink("nothing", local / "dangling");
    result = Run({"get", "127.0.0.1:data/file", local / "dangling"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: \"" + (local / "dangling") + "\": a symbolic link that leads nowhere\n");
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, ReplacedFileKeepsItsPermissions) {
    const TempFolder local;
    WriteWholeFile(Folder() / "file", "what comes");
    WriteWholeFile(local / "file", "what was there");
    std::filesystem::permissions(local / "file", std::filesystem::perms(0600));
    EXPECT_EQ(Run({"get", "127.0.0.1:data/file", local / "file"}).iStatus, 0);
    EXPECT_EQ(ReadWholeFile(local / "file"), "what comes");
    EXPECT_EQ(Mode(local / "file") & 0777U, 0600U);
}

/// The remote file is not even looked for: there is none.
TEST_F(NfsgetLocalTest, GetIntoADirectoryIsRefusedBeforeAnythingIsAskedFor) {
    const TempFolder local;
    for (const std::string& sName : {local.Path(), local / ""}) {
        const RunResult result = Run({"get", "127.0.0.1:data/nothing", sName});
        EXPECT_EQ(result.iStatus, 1);
        EXPECT_EQ(result.sOutput, "nfsget: \"" + sName + "\": is a directory: name the file in it\n");
    }
    const RunResult result = Run({"get", "127.0.0.1:data/nothing", local / "no-directory/"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: \"" + (local / "no-directory/") + "\": No such file or directory\n");
    EXPECT_TRUE(std::filesystem::is_empty(local.Path()));
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, NameMayBeAsLongAsNamesMayBe) {
    const TempFolder local;
    const std::string sContent = Numbers(3 << 20);
    WriteWholeFile(Folder() / "file", sContent);
    for (const std::size_t nLength : {243U, 244U, 255U}) {
        std::string sName;
        while (sName.size() < nLength) {
            sName += sName.size() + 1 < nLength ? "\xc3\xa4" : "x";
        }
        const RunResult result = Run({"get", "127.0.0.1:data/file", local / sName});
        EXPECT_EQ(result.iStatus, 0) << result.sOutput;
        EXPECT_TRUE(ReadWholeFile(local / sName) == sContent);
        std::filesystem::remove(local / sName);
        EXPECT_TRUE(std::filesystem::is_empty(local.Path()));
    }
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, OnlyAnOrdinaryFileIsResumed) {
    const TempFolder local;
    WriteWholeFile(Folder() / "file", "x");
    std::filesystem::create_symlink("/proc/self/fd/1", local / "output");
    const RunResult result = Run({"get", "--resume", "127.0.0.1:data/file", local / "output"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: \"" + (local / "output") + "\": only an ordinary file can be resumed\n");
    ExpectUnmounted();
}

// ---- What a starter left open, and what it ignores

/// The file is one great sequence of calls: whatever else they went to, they must not reach the server.
TEST_F(NfsgetLocalTest, ClosedStandardStreamsAreNoPlaceForAConnection) {
    RpcCall null;
    null.iProgram = kNfsProgram;
    std::string sCalls;
    for (int i = 0; i < 1000; ++i) {
        sCalls += null.Bytes(Transport::kTcp);
    }
    WriteWholeFile(Folder() / "file", sCalls);
    const CallForwarder forwarder(4049, 2049, [](const PassingRecord&) { return CallForwarder::Fate::kPass; });
    const auto run = [](const std::string& sCommand) {
        return RunProgram({"/bin/sh", "-c", Program() + " -p 4049 " + sCommand});
    };
    const RunResult get = run("get 127.0.0.1:data/file - <&- >&-");
    EXPECT_EQ(get.iStatus, 1);
    EXPECT_EQ(get.sOutput, "nfsget: \"-\": local write: Bad file descriptor\n");
    EXPECT_LT(forwarder.Seen({kNfsProgram, kNfsNull, false}), 10);
    ExpectUnmounted();
    const RunResult put = run("put - 127.0.0.1:data/new <&-");
    EXPECT_EQ(put.iStatus, 1);
    EXPECT_EQ(put.sOutput, "nfsget: \"-\": local read: Bad file descriptor\n");
    EXPECT_FALSE(std::filesystem::exists(Folder() / "new"));
    const RunResult list = run("list 127.0.0.1:data >&-");
    EXPECT_EQ(list.iStatus, 1);
    EXPECT_EQ(list.sOutput, "nfsget: standard output: Bad file descriptor\n");
    EXPECT_EQ(run("mkdir 127.0.0.1:data/folder <&- >&- 2>&-").iStatus, 0);
    EXPECT_TRUE(std::filesystem::is_directory(Folder() / "folder"));
    ExpectUnmounted();
}

TEST_F(NfsgetLocalTest, SignalThatItsStarterIgnoresDoesNotEndIt) {
    ChildProcess put({"/bin/sh", "-c", "trap '' HUP INT; exec " + Program() + " put - 127.0.0.1:data/file"});
    ASSERT_TRUE(WaitUntil([&] { return Blocks(put.GetPid(), SIGTERM); }));
    put.Signal(SIGHUP);
    put.Signal(SIGINT);
    put.Send("all of it");
    put.CloseInput();
    EXPECT_EQ(put.Wait(), 0) << put.Output();
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "all of it");
    ExpectUnmounted();
}

}  // namespace
