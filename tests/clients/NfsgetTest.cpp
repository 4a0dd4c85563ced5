// nfsget, the small client, as a user runs it.
#include <csignal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include "Descriptor.h"
#include "NfsgetFixture.h"
#include "WaitUntil.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST_F(NfsgetTest, ListPrintsSizesAndNamesInOrder) {
    WriteWholeFile(Folder() / "b.txt", "12345");
    WriteWholeFile(Folder() / "a.txt", "");
    std::filesystem::create_directory(Folder() / "folder");
    WriteWholeFile(Folder() / "folder/inner", "x");
    RunResult result = Run({"list", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_THAT(result.sOutput, StartsWith("           0  a.txt\n           5  b.txt\n"));
    EXPECT_THAT(result.sOutput, testing::EndsWith("  folder/\n"));
    result = Run({"list", "127.0.0.1:data/folder"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(result.sOutput, "           1  inner\n");
    ExpectUnmounted();
}

TEST_F(NfsgetTest, PutThenGetGivesTheSameFile) {
    const TempFolder local;
    std::string sContent;
    for (int i = 0; i < 50000; ++i) {
        sContent += std::to_string(i * 7919) + "\n";
    }
    WriteWholeFile(local / "original", sContent);
    RunResult result = Run({"put", local / "original", "127.0.0.1:data/copy"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(result.sOutput, "");
    EXPECT_TRUE(ReadWholeFile(Folder() / "copy") == sContent);
    result = Run({"get", "127.0.0.1:data/copy", local / "back"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_TRUE(ReadWholeFile(local / "back") == sContent);
    EXPECT_FALSE(std::filesystem::exists(local / "back.nfsget-part"));
    ExpectUnmounted();
}

TEST_F(NfsgetTest, StandardStreamsStandInForFiles) {
    ChildProcess put({Program(), "put", "-", "127.0.0.1:data/file"});
    put.Send("from standard input");
    put.CloseInput();
    EXPECT_EQ(put.Wait(), 0) << put.Output();
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "from standard input");
    const RunResult result = Run({"get", "127.0.0.1:data/file", "-"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "from standard input");
    ExpectUnmounted();
}

TEST_F(NfsgetTest, FolderIsMadeFilesInItAreShownAndOnlyAnEmptyOneIsRemoved) {
    EXPECT_EQ(Run({"mkdir", "127.0.0.1:data/folder"}).iStatus, 0);
    EXPECT_TRUE(std::filesystem::is_directory(Folder() / "folder"));
    WriteWholeFile(Folder() / "folder/file", "123");
    std::filesystem::permissions(Folder() / "folder/file", std::filesystem::perms(0640));
    RunResult result = Run({"stat", "127.0.0.1:data/folder/file"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_THAT(result.sOutput, StartsWith("-0640            3  "));
    EXPECT_THAT(result.sOutput, testing::EndsWith("  /folder/file\n"));
    result = Run({"remove", "127.0.0.1:data/folder"});
    EXPECT_EQ(result.iStatus, 1) << "not empty";
    EXPECT_THAT(result.sOutput, StartsWith("nfsget: remove \"folder\": "));
    EXPECT_EQ(Run({"remove", "127.0.0.1:data/folder/file"}).iStatus, 0);
    EXPECT_EQ(Run({"remove", "127.0.0.1:data/folder"}).iStatus, 0);
    EXPECT_TRUE(std::filesystem::is_empty(Folder().Path()));
    ExpectUnmounted();
}

TEST_F(NfsgetTest, FailuresAreOneLineAndExitOneAndUnmountAllTheSame) {
    const TempFolder local;
    RunResult result = Run({"get", "127.0.0.1:data/nothing", local / "file"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_THAT(result.sOutput, StartsWith("nfsget: open \"nothing\": "));
    EXPECT_EQ(std::count(result.sOutput.begin(), result.sOutput.end(), '\n'), 1);
    EXPECT_TRUE(std::filesystem::is_empty(local.Path())) << "no half file";
    ExpectUnmounted();
    result = Run({"put", local / "nothing", "127.0.0.1:data/file"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: \"" + (local / "nothing") + "\": No such file or directory\n");
    ExpectUnmounted();
}

TEST_F(NfsgetTest, RefusedMountSaysWhatToDoAndReleaseDoesIt) {
    NfsClient other;
    ASSERT_TRUE(other.Mnt(kExportName).has_value());
    RunResult result = Run({"list", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput,
              "nfsget: mount of \"data\" refused: no such export, not open to this address, or a client has it mounted "
              "already (after a run that was cut short: nfsget release 127.0.0.1:data)\n");
    result = Run({"release", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(Run({"list", "127.0.0.1:data"}).iStatus, 0);
}

TEST_F(NfsgetTest, KilledClientLeavesTheExportBoundUntilItIsReleased) {
    ChildProcess put({Program(), "put", "-", "127.0.0.1:data/file"});
    put.Send("x");
    ASSERT_TRUE(WaitUntil([&] { return Server().GetMountInfo(true, false) == 1; }));
    put.Signal(SIGKILL);
    EXPECT_EQ(put.Wait(), 128 + SIGKILL);
    EXPECT_EQ(Run({"list", "127.0.0.1:data"}).iStatus, 1);
    EXPECT_EQ(Server().GetMountInfo(true, false), 1);
    EXPECT_EQ(Run({"release", "127.0.0.1:data"}).iStatus, 0);
    ExpectUnmounted();
    EXPECT_EQ(Run({"list", "127.0.0.1:data"}).iStatus, 0);
}

TEST_F(NfsgetTest, InterruptedPutUnmountsAndSaysWhatItLeaves) {
    WriteWholeFile(Folder() / "file", "what was there");
    ChildProcess put({Program(), "put", "-", "127.0.0.1:data/file"}, OnTerminal());
    SendAndAwait(put, "1234\n");
    ASSERT_EQ(Server().GetMountInfo(true, false), 1);
    put.Signal(SIGINT);
    EXPECT_EQ(put.Wait(), 1);
    EXPECT_THAT(put.Output(),
                testing::EndsWith("\r\033[Knfsget: interrupted; \"file\" on the server is incomplete: 5 bytes\n"));
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "1234\n");
    ExpectUnmounted();
}

TEST_F(NfsgetTest, PutWaitsForItsInputBeforeItTouchesAnything) {
    WriteWholeFile(Folder() / "file", "what was there");
    ChildProcess put({Program(), "put", "-", "127.0.0.1:data/file"});
    ASSERT_TRUE(WaitUntil([&] { return Blocks(put.GetPid(), SIGINT); })) << "it is ready to be interrupted";
    ::usleep(100000);  // a put that does not wait needs a fraction of it
    put.Signal(SIGINT);
    EXPECT_EQ(put.Wait(), 1);
    EXPECT_EQ(put.Output(), "nfsget: interrupted\n");
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "what was there");
    ExpectUnmounted();
}

TEST_F(NfsgetTest, PutOfWhatCannotBeReadLeavesTheRemoteFileAlone) {
    const TempFolder local;
    WriteWholeFile(Folder() / "file", "what was there");
    for (const char* pcName : {"file", "new"}) {
        const RunResult result = Run({"put", local.Path(), std::string("127.0.0.1:data/") + pcName});
        EXPECT_EQ(result.iStatus, 1);
        EXPECT_EQ(result.sOutput, "nfsget: \"" + local.Path() + "\": local read: Is a directory\n");
    }
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "what was there");
    EXPECT_FALSE(std::filesystem::exists(Folder() / "new"));
    ExpectUnmounted();
}

TEST_F(NfsgetTest, ServerThatGoesInMidPutIsAConnectionLost) {
    ChildProcess put({Program(), "put", "-", "127.0.0.1:data/file"}, OnTerminal());
    SendAndAwait(put, "1234\n");
    Server().StopServer();
    EXPECT_EQ(put.Wait(), 1) << "also while it waits for its input";
    EXPECT_THAT(
        put.Output(),
        testing::EndsWith("\r\033[K"
                          "nfsget: write \"file\": connection lost; \"file\" on the server is incomplete: 5 bytes\n"));
}

/// Nobody reads what it gets until the server is gone.
TEST_F(NfsgetTest, ServerThatGoesInMidGetIsAConnectionLost) {
    const std::string sContent(std::size_t{8} << 20, 'x');
    WriteWholeFile(Folder() / "file", sContent);
    ChildProcess get({Program(), "get", "127.0.0.1:data/file", "-"});
    ASSERT_TRUE(get.WaitFor("x"));
    Server().StopServer();
    EXPECT_EQ(get.Wait(), 1);
    EXPECT_THAT(get.Output(), testing::EndsWith("nfsget: read \"file\": connection lost\n"));
    EXPECT_LT(get.Output().size(), sContent.size());
}

TEST_F(NfsgetTest, SlowReaderOfAGetGetsEverything) {
    std::string sContent;
    for (int i = 0; i < 400000; ++i) {
        sContent += std::to_string(i) + "\n";
    }
    WriteWholeFile(Folder() / "file", sContent);
    ChildProcess get({Program(), "get", "127.0.0.1:data/file", "-"});
    ASSERT_TRUE(get.WaitFor("0\n"));
    ASSERT_TRUE(WaitUntil([&] { return get.Pending() > 60000; })) << "until there is no room in the pipe";
    EXPECT_EQ(get.Wait(), 0);
    EXPECT_TRUE(get.Output() == sContent);
    ExpectUnmounted();
}

TEST_F(NfsgetTest, FullLocalDiskLeavesNothingBehind) {
    const TempFolder local;
    if (::mount("none", local.Path().c_str(), "tmpfs", 0, "size=256k") != 0) {
        GTEST_SKIP() << "no file system of a given size can be mounted here";
    }
    WriteWholeFile(Folder() / "file", std::string(std::size_t{1} << 20, 'x'));
    const RunResult result = Run({"get", "127.0.0.1:data/file", local / "file"});
    const bool bEmpty = std::filesystem::is_empty(local.Path());
    umount(local.Path().c_str());
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput,
              "nfsget: \"" + (local / "file.nfsget-part") + "\": local write: No space left on device\n");
    EXPECT_TRUE(bEmpty);
    ExpectUnmounted();
}

// ---- Mounts and ports

TEST_F(NfsgetTest, MountThatFailsBehindMntIsTakenBack) {
    const std::string sGone = Folder() / "gone";
    std::filesystem::create_directory(sGone);
    Export(sGone, "gone");
    std::filesystem::remove(sGone);
    for (int i = 0; i < 2; ++i) {
        const RunResult result = Run({"list", "127.0.0.1:gone"});
        EXPECT_EQ(result.iStatus, 1);
        EXPECT_THAT(result.sOutput, HasSubstr("does the directory exist there?"));
        ExpectUnmounted();
    }
    const RunResult result = Run({"-p", "2077", "list", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_THAT(result.sOutput, StartsWith("nfsget: 127.0.0.1, port 2077 (NFS): connection refused"));
    ExpectUnmounted();
}

TEST_F(NfsgetTest, RefusedMountIsNotTakenBack) {
    NfsClient other;
    ASSERT_TRUE(other.Mnt(kExportName).has_value());
    EXPECT_EQ(Run({"list", "127.0.0.1:data"}).iStatus, 1);
    EXPECT_EQ(Server().GetMountInfo(true, false), 1);
}

class InterruptedNfsgetTest : public NfsgetTest {
protected:
    /// Sends a client a signal some time after it has mounted. False if it was through by then.
    bool IsInterrupted(ChildProcess& client, int iMicroseconds, int iSignal) {
        while (Server().GetMountInfo(true, false) == 0 && client.IsRunning()) {
            ::usleep(100);  // the moments counted from here are to be close to each other
        }
        ::usleep(static_cast<useconds_t>(iMicroseconds));
        client.Signal(iSignal);
        const std::optional<int> iStatus = client.Wait();
        EXPECT_TRUE(iStatus == 0 || iStatus == 1) << iStatus.value_or(-1) << " after " << iMicroseconds << " us";
        return iStatus == 1;
    }
};

/// The call under way is given up and its reply, if it still comes, finds nobody.
TEST_F(InterruptedNfsgetTest, ClientInterruptedAtAnyMomentOfItsWorkUnmounts) {
    WriteWholeFile(Folder() / "file", std::string(std::size_t{8} << 20, 'x'));
    int iInterrupted = 0;
    for (int iMicroseconds = 0; iMicroseconds < 40000; iMicroseconds += 1000) {
        ChildProcess get({Program(), "get", "127.0.0.1:data/file", "-"});
        if (IsInterrupted(get, iMicroseconds, SIGTERM)) {
            ++iInterrupted;
            EXPECT_THAT(get.Output(), testing::EndsWith("nfsget: interrupted\n"));
        }
        ExpectUnmounted();
    }
    EXPECT_GT(iInterrupted, 0);
}

TEST_F(InterruptedNfsgetTest, PutInterruptedAtAnyMomentOfItsWorkUnmounts) {
    const TempFolder local;
    WriteWholeFile(local / "file", Numbers(8 << 20));
    int iInterrupted = 0;
    for (int iMicroseconds = 0; iMicroseconds < 40000; iMicroseconds += 2000) {
        ChildProcess put({Program(), "put", local / "file", "127.0.0.1:data/file"});
        if (IsInterrupted(put, iMicroseconds, SIGINT)) {
            ++iInterrupted;
            EXPECT_THAT(put.Output(), StartsWith("nfsget: interrupted"));
        }
        ExpectUnmounted();
    }
    EXPECT_GT(iInterrupted, 0);
    EXPECT_EQ(Run({"put", "--resume", local / "file", "127.0.0.1:data/file"}).iStatus, 0);
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == ReadWholeFile(local / "file"));
}

/// A mount is given some seconds to come to its end, so that it can be taken back; a dead server cannot hold it longer.
TEST_F(NfsgetTest, InterruptEndsTheWaitForAServerThatNeverAnswers) {
    const CDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(4058);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener.Get(), 1), 0);
    ChildProcess list({Program(), "-m", "4058", "list", "127.0.0.1:data"});
    const CDescriptor peer(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_GE(peer.Get(), 0);
    list.Signal(SIGINT);
    EXPECT_EQ(list.Wait(std::chrono::seconds(15)), 1);
    EXPECT_EQ(list.Output(), "nfsget: interrupted; \"data\" may be bound now: nfsget release 127.0.0.1:data\n");
}

TEST_F(NfsgetTest, OtherPortsAreGivenByOptionsOrFoundByThePortmapper) {
    Server().StopServer();
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(Server().StartServer(4058, 4049, 0, 0, false, vcReason)) << vcReason;
    Export(Folder().Path(), kExportName);
    WriteWholeFile(Folder() / "file", "x");
    const std::vector<std::vector<std::string>> vvsPorts = {{"-p", "4049", "-m", "4058"}, {"-p", "4049"}, {}};
    for (std::vector<std::string> vsArguments : vvsPorts) {
        vsArguments.insert(vsArguments.end(), {"get", "127.0.0.1:data/file", "-"});
        const RunResult result = Run(vsArguments);
        EXPECT_EQ(result.iStatus, 0) << result.sOutput;
        EXPECT_EQ(result.sOutput, "x");
    }
    EXPECT_EQ(Run({"-p", "2049", "list", "127.0.0.1:data"}).iStatus, 1) << "nobody is on the default port";
}

TEST_F(NfsgetTest, WithoutAPortmapperTheDefaultPortsAreTried) {
    Server().StopServer();
    RunResult result = Run({"list", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput,
              "nfsget: 127.0.0.1, port 1058 (MOUNT): connection refused: does the server run there? (-p and -m name "
              "other ports than 2049 and 1058; beside a system portmapper it takes 2050 and 1059)\n");
    EXPECT_EQ(Run({"release", "127.0.0.1:data"}).sOutput, result.sOutput);
    // One that takes datagrams and says nothing costs moments.
    const CDescriptor silent(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(111);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(silent.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_THAT(Run({"list", "127.0.0.1:data"}).sOutput, HasSubstr("port 1058 (MOUNT): connection refused"));
    result = Run({"list", "no-such-host.invalid:data"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_THAT(result.sOutput, StartsWith("nfsget: host \"no-such-host.invalid\" is not known ("));
}

TEST_F(NfsgetTest, WrongUsageIsExplainedWithExitTwo) {
    const std::vector<std::vector<std::string>> vvsWrong = {
        {},
        {"list"},
        {"list", "no-colon"},
        {"list", ":data"},
        {"list", "host:"},
        {"get", "127.0.0.1:data"},
        {"frobnicate", "127.0.0.1:data"},
        {"write", "file", "127.0.0.1:data/file", "-1"},
        {"write", "file", "127.0.0.1:data/file", "1x"},
        {"write", "file", "127.0.0.1:data/file", " 1"},
        {"get", "127.0.0.1:data/folder/"},
        {"get", "127.0.0.1:data/folder/.."},
        {"get", "127.0.0.1:data/file", ""},
        {"list", "127.0.0.1:data", "-p"},
        {"-p", "0", "list", "127.0.0.1:data"},
        {"-p", "2049x", "list", "127.0.0.1:data"},
        {"-p", "+2049", "list", "127.0.0.1:data"},
        {"-x", "1", "list", "127.0.0.1:data"},
    };
    for (const std::vector<std::string>& vsArguments : vvsWrong) {
        const RunResult result = Run(vsArguments);
        EXPECT_EQ(result.iStatus, 2) << testing::PrintToString(vsArguments);
        EXPECT_THAT(result.sOutput, StartsWith("usage: nfsget ")) << testing::PrintToString(vsArguments);
        if (!vsArguments.empty()) {
            EXPECT_THAT(result.sOutput, HasSubstr("\nnfsget: ")) << testing::PrintToString(vsArguments);
            EXPECT_EQ(std::count(result.sOutput.begin(), result.sOutput.end(), '\n'), 2) << "the reason comes last";
        }
    }
    EXPECT_EQ(Run({"--help"}).iStatus, 0);
    EXPECT_EQ(Run({"--version"}).sOutput, "nfsget 1.4.0\n");
}

}  // namespace
