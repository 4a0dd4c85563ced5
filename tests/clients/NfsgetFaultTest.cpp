// nfsget when files change under a transfer and when calls or replies are lost on their way.
#include <atomic>
#include <csignal>

#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "CallForwarder.h"
#include "Descriptor.h"
#include "NfsgetFixture.h"
#include "WaitUntil.h"

namespace {

using testing::StartsWith;
using Fate = CallForwarder::Fate;

constexpr PassingRecord kReadCall{kNfsProgram, kNfsRead, false};
constexpr PassingRecord kWriteCall{kNfsProgram, kNfsWrite, false};

/// Does something at the n-th of such records, and lets all pass.
class AtRecord {
public:
    AtRecord(const PassingRecord& record, int nWanted, std::function<void()> act)
        : m_Record(record), m_nLeft(nWanted), m_Act(std::move(act)) {}
    Fate operator()(const PassingRecord& record) {
        if (record == m_Record && --m_nLeft == 0) {
            m_Act();
        }
        return Fate::kPass;
    }

private:
    PassingRecord m_Record;
    int m_nLeft;
    std::function<void()> m_Act;
};

class NfsgetFaultTest : public NfsgetTest {
protected:
    static constexpr std::size_t kSize = std::size_t{8} << 20;
};

// ---- Files that change under a transfer

TEST_F(NfsgetFaultTest, FileThatShrinksUnderAGetFailsItAndLeavesNothing) {
    const TempFolder local;
    const std::string sFile = Folder() / "file";
    WriteWholeFile(sFile, Numbers(kSize));
    const CallForwarder forwarder(4049, 2049,
                                  AtRecord(kReadCall, 10, [&] { std::filesystem::resize_file(sFile, 100000); }));
    const RunResult result = Run({"-p", "4049", "get", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: read \"file\": it shrank while it was copied\n");
    EXPECT_TRUE(std::filesystem::is_empty(local.Path()));
    ExpectUnmounted();
}

/// By one of the same size, so that no READ comes back short.
TEST_F(NfsgetFaultTest, FileThatIsReplacedUnderAGetFailsItAndLeavesNothing) {
    const TempFolder local;
    const std::string sFile = Folder() / "file";
    const std::string sContent = Numbers(kSize);
    WriteWholeFile(sFile, sContent);
    WriteWholeFile(Folder() / "other", std::string(sContent.size(), 'x'));
    const CallForwarder forwarder(4049, 2049,
                                  AtRecord(kReadCall, 10, [&] { std::filesystem::rename(Folder() / "other", sFile); }));
    const RunResult result = Run({"-p", "4049", "get", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: read \"file\": it was replaced while it was copied\n");
    EXPECT_TRUE(std::filesystem::is_empty(local.Path()));
    ExpectUnmounted();
}

TEST_F(NfsgetFaultTest, FileThatGrowsUnderAGetIsReadToItsNewEnd) {
    const TempFolder local;
    const std::string sFile = Folder() / "file";
    std::string sContent = Numbers(kSize);
    WriteWholeFile(sFile, sContent);
    const CallForwarder forwarder(4049, 2049,
                                  AtRecord(kReadCall, 10, [&] { std::ofstream(sFile, std::ios::app) << "more"; }));
    const RunResult result = Run({"-p", "4049", "get", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_TRUE(ReadWholeFile(local / "file") == sContent + "more");
    ExpectUnmounted();
}

TEST_F(NfsgetFaultTest, FileWithoutASizeIsReadAsItIsMadeUp) {
    const TempFolder local;
    Export("/proc/sys/kernel", "kernel");
    const RunResult result = Run({"get", "127.0.0.1:kernel/ostype", local / "file"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(ReadWholeFile(local / "file"), "Linux\n");
    ExpectUnmounted();
}

TEST_F(NfsgetFaultTest, SourceThatShrinksUnderAPutFailsIt) {
    const TempFolder local;
    const std::string sSource = local / "source";
    WriteWholeFile(sSource, Numbers(kSize));
    const CallForwarder forwarder(4049, 2049,
                                  AtRecord(kWriteCall, 1, [&] { std::filesystem::resize_file(sSource, 100000); }));
    const RunResult result = Run({"-p", "4049", "put", sSource, "127.0.0.1:data/file"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_THAT(result.sOutput, StartsWith("nfsget: \"" + sSource +
                                           "\": it shrank while it was sent; \"file\" on the server is incomplete: "));
    ExpectUnmounted();
}

TEST_F(NfsgetFaultTest, FileIsNotPutOrWrittenOntoItself) {
    const std::string sFile = Folder() / "file";
    const std::string sContent = Numbers(1 << 20);
    WriteWholeFile(sFile, sContent);
    const std::string sReason = "nfsget: \"" + sFile + "\" and \"file\" on the server are the same file\n";
    for (const std::vector<std::string>& vsCommand : {std::vector<std::string>{"put", sFile, "127.0.0.1:data/file"},
                                                      {"write", sFile, "127.0.0.1:data/file", "1000000"}}) {
        const RunResult result = Run(vsCommand);
        EXPECT_EQ(result.iStatus, 1);
        EXPECT_EQ(result.sOutput, sReason);
        EXPECT_TRUE(ReadWholeFile(sFile) == sContent);
        ExpectUnmounted();
    }
    // Nor through another name of it, nor as the standard input.
    std::filesystem::create_hard_link(sFile, Folder() / "link");
    EXPECT_EQ(Run({"put", Folder() / "link", "127.0.0.1:data/file"}).iStatus, 1);
    EXPECT_EQ(
        RunProgram({"/bin/sh", "-c", Program() + " put - 127.0.0.1:data/file < \"$0\"", Folder() / "link"}).iStatus, 1);
    EXPECT_TRUE(ReadWholeFile(sFile) == sContent);
    EXPECT_EQ(Run({"put", sFile, "127.0.0.1:data/other"}).iStatus, 0);
    EXPECT_TRUE(ReadWholeFile(Folder() / "other") == sContent);
    ExpectUnmounted();
}

/// What was read of it before is not missed.
TEST_F(NfsgetFaultTest, RestOfAStandardInputIsPut) {
    const TempFolder local;
    WriteWholeFile(local / "source", "first line\nthe rest\n");
    const RunResult result = RunProgram(
        {"/bin/sh", "-c", "{ read line; " + Program() + " put - 127.0.0.1:data/file; } < \"$0\"", local / "source"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "the rest\n");
    ExpectUnmounted();
}

/// However that is done: as a CREATE that sets the size, or as SETATTR.
TEST_F(NfsgetFaultTest, PutThatIsCutShortAsItEmptiesTheRemoteFileSaysSo) {
    const TempFolder local;
    WriteWholeFile(local / "source", "what is put");
    WriteWholeFile(Folder() / "file", "what was there");
    std::atomic<Fate> fate = Fate::kDrop;
    std::atomic<int> nEmptied = 0;
    const CallForwarder forwarder(4049, 2049, [&](const PassingRecord& record) {
        const bool bEmptied = record.bReply && std::filesystem::is_empty(Folder() / "file");
        nEmptied += bEmptied ? 1 : 0;
        return bEmptied ? fate.load() : Fate::kPass;
    });
    const std::vector<std::string> vsCommand = {"-p", "4049", "put", local / "source", "127.0.0.1:data/file"};
    std::vector<std::string> vsProgram = vsCommand;
    vsProgram.insert(vsProgram.begin(), Program());
    ChildProcess put(vsProgram);
    ASSERT_TRUE(WaitUntil([&] { return nEmptied == 1; }));
    put.Signal(SIGINT);
    EXPECT_EQ(put.Wait(), 1);
    EXPECT_EQ(put.Output(), "nfsget: interrupted; \"file\" on the server may be empty now\n");
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "");
    ExpectUnmounted();
    fate = Fate::kClose;
    WriteWholeFile(Folder() / "file", "what was there");
    const RunResult result = Run(vsCommand);
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: create \"file\": connection lost; \"file\" on the server may be empty now\n");
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "");
    ExpectUnmounted();
}

// ---- Mounts and unmounts that get no answer

constexpr PassingRecord kMntReply{kMountProgram, kMountMnt, true};
constexpr PassingRecord kUmntCall{kMountProgram, kMountUmnt, false};
constexpr const char* kMayBeBound = "; \"data\" may be bound now: nfsget release 127.0.0.1:data\n";

/// What becomes of such records; all others pass.
CallForwarder::Judge Always(const PassingRecord& wanted, Fate fate) {
    return [=](const PassingRecord& record) { return record == wanted ? fate : Fate::kPass; };
}

/// It was refused, which it does not learn; the export is another client's. A mount that knows itself to be one is
/// taken back from a server that says nothing more.
TEST_F(NfsgetFaultTest, InterruptedMountIsTakenBackOnlyIfItIsOne) {
    const TempFolder other;
    Export(other.Path(), "other");
    NfsClient holder;
    ASSERT_TRUE(holder.Mnt(kExportName).has_value());
    const CallForwarder mounts(4058, 1058, Always(kMntReply, Fate::kDrop));
    const CallForwarder files(4049, 2049, [](const PassingRecord& /*record*/) { return Fate::kDrop; });
    ChildProcess unanswered({Program(), "-m", "4058", "list", "127.0.0.1:data"});
    ChildProcess mounted({Program(), "-p", "4049", "list", "127.0.0.1:other"});
    ASSERT_TRUE(WaitUntil([&] { return mounts.Seen(kMntReply) == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return files.Seen({kNfsProgram, kNfsNull, false}) == 1; }));
    EXPECT_EQ(Server().GetMountInfo(true, false), 2);
    unanswered.Signal(SIGINT);
    mounted.Signal(SIGINT);
    EXPECT_EQ(unanswered.Wait(), 1);
    EXPECT_EQ(unanswered.Output(), std::string("nfsget: interrupted") + kMayBeBound);
    EXPECT_EQ(mounts.Seen(kUmntCall), 0);
    EXPECT_EQ(mounted.Wait(), 1);
    EXPECT_EQ(mounted.Output(), "nfsget: interrupted\n");
    EXPECT_EQ(Server().GetMountInfo(true, false), 1) << "the holder's";
}

TEST_F(NfsgetFaultTest, MountWhoseConnectionBreaksIsTakenBackOnlyIfItIsOne) {
    NfsClient holder;
    ASSERT_TRUE(holder.Mnt(kExportName).has_value());
    const CallForwarder mounts(4058, 1058, Always(kMntReply, Fate::kClose));
    RunResult result = Run({"-m", "4058", "list", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, std::string("nfsget: mount of \"data\": connection lost") + kMayBeBound);
    EXPECT_EQ(mounts.Seen(kUmntCall), 0);
    EXPECT_EQ(Server().GetMountInfo(true, false), 1) << "the holder's";
    holder.Umnt(kExportName);
    const CallForwarder files(4049, 2049, [](const PassingRecord& /*record*/) { return Fate::kClose; });
    result = Run({"-p", "4049", "list", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfsget: mount of \"data\": connection lost\n");
    ExpectUnmounted();
}

TEST_F(NfsgetFaultTest, UnmountWhoseConnectionBreaksIsRepeatedOnce) {
    WriteWholeFile(Folder() / "file", "");
    std::atomic<int> nToClose = 1;
    const CallForwarder mounts(4058, 1058, [&](const PassingRecord& record) {
        return record == kUmntCall && nToClose-- > 0 ? Fate::kClose : Fate::kPass;
    });
    RunResult result = Run({"-m", "4058", "list", "127.0.0.1:data"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "           0  file\n");
    EXPECT_EQ(mounts.Seen(kUmntCall), 2);
    ExpectUnmounted();
    nToClose = 2;
    result = Run({"-m", "4058", "mkdir", "127.0.0.1:data/folder"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, std::string("nfsget: unmount of \"data\": connection lost") + kMayBeBound);
    EXPECT_EQ(mounts.Seen(kUmntCall), 4);
    EXPECT_EQ(Run({"release", "127.0.0.1:data"}).iStatus, 0);
    ExpectUnmounted();
}

/// Where there is no list of name servers, this machine's is asked.
TEST_F(NfsgetFaultTest, SignalEndsTheWaitForANameServer) {
    CDescriptor silent(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int iPort = 53;
    ASSERT_TRUE(silent.BindToPort(&iPort, INADDR_LOOPBACK));
    constexpr const char* kList = "/etc/resolv.conf";
    const TempFolder local;
    WriteWholeFile(local / "list", "nameserver 127.0.0.1\n");
    const bool bListed = std::filesystem::exists(kList);
    if (bListed) {
        ASSERT_EQ(::mount((local / "list").c_str(), kList, nullptr, MS_BIND, nullptr), 0);
    }
    ChildProcess list({Program(), "list", "host.example:data"});
    const bool bAsked = WaitUntil([&] {
        char cByte = 0;
        return ::recv(silent.Get(), &cByte, 1, MSG_DONTWAIT) > 0;
    });
    list.Signal(SIGINT);
    EXPECT_EQ(list.Wait(), 128 + SIGINT) << list.Output();
    EXPECT_TRUE(bAsked);
    if (bListed) {
        ::umount(kList);
    }
}

}  // namespace
