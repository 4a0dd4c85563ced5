// nfsget changing places in files, going on with what was cut short, and what it shows and sends meanwhile.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include "Descriptor.h"
#include "NfsgetFixture.h"

namespace {

// ---- Places in files

TEST_F(NfsgetTest, WriteChangesAPlaceAndNothingElse) {
    const TempFolder local;
    std::string sContent(100000, 'a');
    WriteWholeFile(Folder() / "file", sContent);
    WriteWholeFile(local / "change", std::string(40000, 'b'));
    const RunResult result = Run({"write", local / "change", "127.0.0.1:data/file", "12345"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(result.sOutput, "");
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == sContent.replace(12345, 40000, 40000, 'b'));
    ExpectUnmounted();
    EXPECT_EQ(Run({"write", local / "change", "127.0.0.1:data/missing", "0"}).iStatus, 1);
    EXPECT_FALSE(std::filesystem::exists(Folder() / "missing"));
    ExpectUnmounted();
}

/// A redirected file keeps nothing; its host counts and grants.
TEST_F(NfsgetTest, WriteReachesTheHostOfARedirectedFile) {
    const TempFolder local;
    WriteWholeFile(local / "change", std::string(20000, 'b'));
    WriteWholeFile(Folder() / "disk", "");
    Server().OpenRedirectedFile((Folder() / "disk").c_str(), 1 << 20, false, 0, 0);
    m_Log.SetHost(
        [](const Notification& notification) { return std::min(10000, static_cast<int>(notification.iLen)); });
    const RunResult result = Run({"write", local / "change", "127.0.0.1:data/disk", "5000"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(result.sOutput, "");
    std::set<unsigned long long> covered;  // whatever the host stored a part of was sent again
    for (const Notification& notification : m_Log.Notifications()) {
        for (unsigned long long i = 0; i < std::min(10000U, notification.iLen); ++i) {
            covered.insert(notification.iSeek + i);
        }
    }
    EXPECT_EQ(covered.size(), 20000U);
    EXPECT_EQ(*covered.begin(), 5000U);
    m_Log.SetHost([](const Notification&) { return 0; });
    EXPECT_EQ(Run({"write", local / "change", "127.0.0.1:data/disk", "0"}).sOutput,
              "nfsget: write \"disk\": the server's answer makes no sense; \"disk\" on the server is changed up to "
              "byte 0\n");
    m_Log.SetHost([](const Notification&) { return -1; });
    EXPECT_EQ(
        Run({"write", local / "change", "127.0.0.1:data/disk", "0"}).sOutput,
        "nfsget: write \"disk\": the server, or the host behind it, refuses that (invalid argument); \"disk\" on the "
        "server is changed up to byte 0\n");
    m_Log.SetHost({});
    const RunResult refused = Run({"put", local / "change", "127.0.0.1:data/disk"});
    EXPECT_EQ(refused.iStatus, 1);
    EXPECT_EQ(refused.sOutput, "nfsget: create \"disk\": the server answers with an input/output error\n");
    Server().CloseRedirectedFile((Folder() / "disk").c_str());
    ExpectUnmounted();
}

TEST_F(NfsgetTest, CutShortPutIsResumed) {
    const TempFolder local;
    const std::string sContent = Numbers(3 << 20);
    WriteWholeFile(local / "original", sContent);
    WriteWholeFile(Folder() / "file", sContent.substr(0, 2000000));
    const auto tBefore = Identity(Folder() / "file");
    RunResult result = Run({"put", "--resume", local / "original", "127.0.0.1:data/file"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(result.sOutput, "");
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == sContent);
    EXPECT_EQ(Identity(Folder() / "file"), tBefore);
    // What lies in front of the last MiB is not sent again, unless what is there does not begin so.
    std::string sOther = sContent.substr(0, 2000000);
    sOther[10] = '#';
    WriteWholeFile(Folder() / "file", sOther);
    EXPECT_EQ(Run({"put", "--resume", local / "original", "127.0.0.1:data/file"}).iStatus, 0);
    EXPECT_EQ(ReadWholeFile(Folder() / "file")[10], '#');
    WriteWholeFile(Folder() / "file", std::string(2000000, '#'));
    result = Run({"put", "--resume", local / "original", "127.0.0.1:data/file"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "nfsget: what is there is not the beginning of the file: copying it anew\n");
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == sContent);
    // A longer one is no part of it either; a missing one is put.
    WriteWholeFile(Folder() / "file", sContent + "more");
    EXPECT_EQ(Run({"put", "--resume", local / "original", "127.0.0.1:data/file"}).iStatus, 0);
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == sContent);
    EXPECT_EQ(Run({"put", "--resume", local / "original", "127.0.0.1:data/new"}).iStatus, 0);
    EXPECT_TRUE(ReadWholeFile(Folder() / "new") == sContent);
    ExpectUnmounted();
}

TEST_F(NfsgetTest, CutShortGetIsResumed) {
    const TempFolder local;
    const std::string sContent = Numbers(3 << 20);
    WriteWholeFile(Folder() / "file", sContent);
    WriteWholeFile(local / "file.nfsget-part", sContent.substr(0, 2000000));
    RunResult result = Run({"get", "--resume", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_EQ(result.sOutput, "");
    EXPECT_TRUE(ReadWholeFile(local / "file") == sContent);
    EXPECT_FALSE(std::filesystem::exists(local / "file.nfsget-part"));
    WriteWholeFile(local / "file.nfsget-part", std::string(2000000, '#'));
    result = Run({"get", "--resume", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "nfsget: what is there is not the beginning of the file: copying it anew\n");
    EXPECT_TRUE(ReadWholeFile(local / "file") == sContent);
    // A longer part, as of a file that has shrunk meanwhile, is cut.
    WriteWholeFile(local / "file.nfsget-part", sContent + sContent);
    EXPECT_EQ(Run({"get", "--resume", "127.0.0.1:data/file", local / "file"}).iStatus, 0);
    EXPECT_TRUE(ReadWholeFile(local / "file") == sContent);
    ExpectUnmounted();
}

TEST_F(NfsgetTest, GetThatIsToBeResumedKeepsWhatHasCome) {
    const TempFolder local;
    if (::mount("none", local.Path().c_str(), "tmpfs", 0, "size=2m") != 0) {
        GTEST_SKIP() << "no file system of a given size can be mounted here";
    }
    const std::string sContent = Numbers(3 << 20);
    WriteWholeFile(Folder() / "file", sContent);
    RunResult result = Run({"get", "--resume", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_THAT(result.sOutput, testing::EndsWith("; what has come is kept for the next get --resume\n"));
    EXPECT_GT(std::filesystem::file_size(local / "file.nfsget-part"), 1U << 20);
    EXPECT_EQ(::mount("none", local.Path().c_str(), "tmpfs", MS_REMOUNT, "size=8m"), 0);
    result = Run({"get", "--resume", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_TRUE(ReadWholeFile(local / "file") == sContent);
    umount(local.Path().c_str());
    ExpectUnmounted();
}

TEST_F(NfsgetTest, PipesAreNotResumed) {
    ChildProcess put({Program(), "put", "--resume", "-", "127.0.0.1:data/file"});
    put.Send("x");
    EXPECT_EQ(put.Wait(), 1);
    EXPECT_EQ(put.Output(), "nfsget: \"-\": only an ordinary file can be resumed\n");
    EXPECT_EQ(Run({"get", "--resume", "127.0.0.1:data/file", "-"}).iStatus, 2);
    EXPECT_EQ(Run({"list", "--resume", "127.0.0.1:data"}).iStatus, 2);
}

// ---- The terminal and the wire

TEST_F(NfsgetTest, LongTransferTellsItsProgressOnATerminalOnly) {
    const TempFolder other;
    Export(other.Path(), "other");
    for (const TempFolder* pFolder : {&Folder(), &other}) {
        WriteWholeFile(*pFolder / "file", std::string(std::size_t{8} << 20, 'x'));
    }
    // The readers begin when the progress has been seen.
    const std::string sBegin = other / "begin";
    const std::string sSlow = " - | { while [ ! -e " + sBegin + " ]; do sleep 0.05; done; cat >/dev/null; }";
    ChildProcess quiet({"/bin/sh", "-c", Program() + " get 127.0.0.1:other/file" + sSlow});
    ChildProcess get({"/bin/sh", "-c", Program() + " get 127.0.0.1:data/file" + sSlow}, OnTerminal());
    EXPECT_TRUE(get.WaitFor(" of 8.0 MiB, ")) << get.Output();
    EXPECT_TRUE(get.WaitFor("/s")) << get.Output();
    ::usleep(300000);  // the quiet one began earlier, and has at least as much time to say something
    WriteWholeFile(sBegin, "");
    EXPECT_EQ(get.Wait(), 0);
    EXPECT_THAT(get.Output(), testing::EndsWith("\r\033[K")) << "the line is gone at the end";
    EXPECT_EQ(quiet.Wait(), 0);
    EXPECT_EQ(quiet.Output(), "");
    ExpectUnmounted();
}

/// A forwarder in front of the NFS port that holds replies to READs back until so many have been asked for. It may then
/// let one of them pass, together with a part of the next, and nothing after that.
class HoldingForwarder {
public:
    HoldingForwarder(std::uint16_t iPort, int nReads, bool bCut = false)
        : m_nWanted(nReads), m_bCut(bCut), m_Listener(Listen(iPort)) {
        m_Thread = std::thread([this] { Forward(); });
    }
    ~HoldingForwarder() { m_Thread.join(); }
    int ReadsSeen() const { return m_nReads; }

private:
    static CDescriptor Listen(std::uint16_t iPort) {
        CDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = Loopback(iPort);
        EXPECT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(listener.Get(), 1), 0);
        return listener;
    }
    static sockaddr_in Loopback(std::uint16_t iPort) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(iPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }
    void CountReads(const std::string& sBytes) {
        const std::string sRead("\0\1\x86\xa3\0\0\0\3\0\0\0\6", 12);  // program, version, procedure
        for (std::size_t iAt = sBytes.find(sRead); iAt != std::string::npos; iAt = sBytes.find(sRead, iAt + 1)) {
            ++m_nReads;
        }
    }
    void Forward() {
        const CDescriptor client(::accept4(m_Listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        const CDescriptor server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = Loopback(2049);
        ASSERT_EQ(::connect(server.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::string sHeld;
        for (bool bOpen = true; bOpen;) {
            const bool bHold = m_nReads > 0 && m_nReads < m_nWanted && std::chrono::steady_clock::now() < tEnd;
            std::array<pollfd, 2> entries{pollfd{client.Get(), POLLIN, 0},
                                          pollfd{bHold || m_bSilent ? -1 : server.Get(), POLLIN, 0}};
            ::poll(entries.data(), entries.size(), 100);
            std::array<char, 65536> vcBytes{};
            if (entries[0].revents != 0) {
                const ssize_t nGot = ::recv(client.Get(), vcBytes.data(), vcBytes.size(), 0);
                bOpen = nGot > 0 && ::send(server.Get(), vcBytes.data(), static_cast<std::size_t>(nGot), 0) == nGot;
                CountReads(std::string(vcBytes.data(), static_cast<std::size_t>(std::max<ssize_t>(nGot, 0))));
            }
            if (entries[1].revents != 0) {
                const ssize_t nGot = ::recv(server.Get(), vcBytes.data(), vcBytes.size(), 0);
                bOpen = bOpen && nGot > 0 &&
                        PassReplies(client, std::string(vcBytes.data(), static_cast<std::size_t>(nGot)));
            }
        }
    }

    static bool Send(const CDescriptor& client, const std::string& sBytes) {
        return ::send(client.Get(), sBytes.data(), sBytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(sBytes.size());
    }
    bool PassReplies(const CDescriptor& client, const std::string& sBytes) {
        if (!m_bCut || m_nReads == 0) {
            return Send(client, sBytes);
        }
        m_sReplies += sBytes;
        constexpr std::size_t kPart = 1000;
        std::uint32_t nRecord = 0;
        if (m_sReplies.size() < sizeof(nRecord)) {
            return true;
        }
        std::memcpy(&nRecord, m_sReplies.data(), sizeof(nRecord));
        const std::size_t nFirst = sizeof(nRecord) + (ntohl(nRecord) & 0x7fffffffU);
        if (m_sReplies.size() < nFirst + kPart) {
            return true;
        }
        m_bSilent = true;
        // So few bytes arrive at once: who sees the first reply's end sees the second's beginning.
        return Send(client, m_sReplies.substr(0, nFirst - kPart)) &&
               Send(client, m_sReplies.substr(nFirst - kPart, 2 * kPart));
    }

    const int m_nWanted;
    const bool m_bCut;
    bool m_bSilent = false;
    std::string m_sReplies;
    std::atomic<int> m_nReads = 0;
    CDescriptor m_Listener;
    std::thread m_Thread;
};

TEST_F(NfsgetTest, ManyReadsAreUnderWayAtOnce) {
    const TempFolder local;
    const std::string sContent = Numbers(1 << 20);
    WriteWholeFile(Folder() / "file", sContent);
    constexpr int kUnderWay = 8;
    const HoldingForwarder forwarder(4049, kUnderWay);
    const auto tStart = std::chrono::steady_clock::now();
    const RunResult result = Run({"-p", "4049", "get", "127.0.0.1:data/file", local / "file"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_TRUE(ReadWholeFile(local / "file") == sContent);
    EXPECT_GE(forwarder.ReadsSeen(), kUnderWay);
    EXPECT_LT(std::chrono::steady_clock::now() - tStart, std::chrono::seconds(10)) << "it waited for replies";
}

/// On a network a transfer that fails mostly does so in the middle of a reply.
TEST_F(NfsgetTest, FailureInTheMiddleOfAReplyUnmountsAtOnce) {
    const TempFolder local;
    if (::mount("none", local.Path().c_str(), "tmpfs", 0, "size=4k") != 0) {
        GTEST_SKIP() << "no file system of a given size can be mounted here";
    }
    WriteWholeFile(Folder() / "file", std::string(std::size_t{1} << 20, 'x'));
    const auto tStart = std::chrono::steady_clock::now();
    {
        const HoldingForwarder forwarder(4049, 1, true);
        const RunResult result = Run({"-p", "4049", "get", "127.0.0.1:data/file", local / "file"});
        EXPECT_EQ(result.iStatus, 1);
        EXPECT_EQ(result.sOutput,
                  "nfsget: \"" + (local / "file.nfsget-part") + "\": local write: No space left on device\n");
    }
    EXPECT_TRUE(std::filesystem::is_empty(local.Path()));
    umount(local.Path().c_str());
    ExpectUnmounted();
    EXPECT_LT(std::chrono::steady_clock::now() - tStart, std::chrono::seconds(3)) << "it waited for an answer";
}

}  // namespace
