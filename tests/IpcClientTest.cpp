// One request and its reply: what goes over the socket, what is logged, and what becomes of every failure.
#include "IpcClient.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "EndWatch.h"
#include "IpcListener.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "LogCapture.h"
#include "WaitUntil.h"
#include "Wake.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Lines = std::vector<std::string>;

constexpr int kAllLogBits = 1023;
constexpr char kChannel[] = "/tmp/nfs-peer";

class IpcClientTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"me", CRuntimeParam::kLogError};
    char m_vcReason[kReasonBufferSize] = "";
};

/// A listening socket that never accepts.
class DeafListener {
public:
    explicit DeafListener(int iBacklog) : m_iSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kChannel);
        EXPECT_EQ(::bind(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(m_iSocket, iBacklog), 0);
    }
    ~DeafListener() {
        Close();
        ::unlink(kChannel);
    }
    DeafListener(const DeafListener&) = delete;
    DeafListener& operator=(const DeafListener&) = delete;
    /// True as soon as a client is in the queue.
    bool WaitForConnection() const {
        pollfd entry{m_iSocket, POLLIN, 0};
        return ::poll(&entry, 1, 20000) > 0;
    }
    void Close() {
        if (m_iSocket != -1) {
            ::close(m_iSocket);
            m_iSocket = -1;
        }
    }

private:
    int m_iSocket;
};

void ExpectNoReply(const CIpcClient& client) {
    EXPECT_FALSE(client.GetBoolReply());
    EXPECT_EQ(client.GetLongReply(), 0);
    EXPECT_EQ(client.GetIntReply(), -1);
    EXPECT_EQ(client.GetExptReply(), nullptr);
    EXPECT_EQ(client.GetMsgReply(), nullptr);
}

TEST_F(IpcClientTest, NoChannelIsAFailureWithAReason) {
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    EXPECT_FALSE(client.SendRequest(nullptr, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Channel is not defined");
    EXPECT_TRUE(m_Log.Lines().empty()) << "the form with a reason logs no failure\n" << m_Log.Dump();
}

TEST_F(IpcClientTest, FailuresOfTheFormWithoutReasonAreLoggedAsErrors) {
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    EXPECT_FALSE(client.SendRequest(nullptr));
    EXPECT_EQ(m_Log.Texts('e'), Lines{"[IpcClient.SendRequest] Channel is not defined"});
    m_Log.Clear();
    m_Param.SetLogControl(0);
    EXPECT_FALSE(client.SendRequest(nullptr));
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(IpcClientTest, NobodyListensFailsAtConnectAndLeavesNoReply) {
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to connect ipc client socket. No such file or directory (2)");
    ExpectNoReply(client);
}

TEST_F(IpcClientTest, AStaleSocketFileRefusesTheConnection) {
    {
        DeafListener listener(1);
        EXPECT_EQ(::link(kChannel, "/tmp/nfs-stale"), 0);
    }
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    EXPECT_FALSE(client.SendRequest("/tmp/nfs-stale", m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to connect ipc client socket. Connection refused (111)");
    ::unlink("/tmp/nfs-stale");
}

TEST_F(IpcClientTest, AChannelThatDoesNotFitASocketAddressIsRefused) {
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    EXPECT_FALSE(client.SendRequest(("/tmp/nfs-" + std::string(99, 'x')).c_str(), m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to connect ipc client socket. File name too long (36)");
}

TEST_F(IpcClientTest, TheLongestChannelThatFitsWorks) {
    const std::string sChannel = "/tmp/nfs-" + std::string(98, 'x');
    ASSERT_EQ(sChannel.size(), 107U);
    FakeIpcServer server(sChannel, [](const std::string&) { return RawBoolReply(true); });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcIsServerRunning);
    EXPECT_TRUE(client.SendRequest(sChannel.c_str(), m_vcReason)) << m_vcReason;
    EXPECT_TRUE(client.GetBoolReply());
}

TEST_F(IpcClientTest, NoDescriptorLeftFailsAtOpeningTheSocket) {
    std::vector<int> viAll;
    for (int iFile = ::open("/dev/null", O_RDONLY | O_CLOEXEC); iFile != -1;
         iFile = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) {
        viAll.push_back(iFile);
    }
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    const bool bSent = client.SendRequest(kChannel, m_vcReason);
    for (const int iFile : viAll) {
        ::close(iFile);
    }
    EXPECT_FALSE(bSent);
    EXPECT_STREQ(m_vcReason, "Fail to open ipc client socket. Too many open files (24)");
}

TEST_F(IpcClientTest, TheStepsOfAnExchangeAreLoggedInOrder) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawBoolReply(true); });
    m_Param.SetLogControl(kAllLogBits);
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcIsServerRunning);
    EXPECT_TRUE(client.SendRequest(kChannel));
    EXPECT_EQ(
        m_Log.Texts(),
        (Lines{"[IpcClient.SendRequest] Open channel: /tmp/nfs-peer",
               "[IpcClient.SendRequest] Request action group (type = 3, ver = 1.4, dataLen = 16)",
               "[IpcClient.SendRequest] Open ipc client socket", "[IpcClient.SendRequest] Connect ipc client socket",
               "[IpcClient.SendRequest] Send ipc client request", "[IpcClient.SendRequest] Read ipc server reply",
               "[IpcClient.SendRequest] Reply action group (type = 1, ver = 1.4, dataLen = 20)"}));
    EXPECT_EQ(m_Log.Lines().front().sID, "me");
}

TEST_F(IpcClientTest, StepsAndRecordsHaveALogBitEach) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawBoolReply(true); });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcIsServerRunning);
    m_Param.SetLogControl(CRuntimeParam::kLogIpcState);
    EXPECT_TRUE(client.SendRequest(kChannel));
    EXPECT_EQ(
        m_Log.Texts('i'),
        (Lines{"[IpcClient.SendRequest] Open channel: /tmp/nfs-peer", "[IpcClient.SendRequest] Open ipc client socket",
               "[IpcClient.SendRequest] Connect ipc client socket", "[IpcClient.SendRequest] Send ipc client request",
               "[IpcClient.SendRequest] Read ipc server reply"}));
    m_Log.Clear();
    m_Param.SetLogControl(CRuntimeParam::kLogIpc);
    EXPECT_TRUE(client.SendRequest(kChannel));
    EXPECT_EQ(m_Log.Texts('i'),
              (Lines{"[IpcClient.SendRequest] Request action group (type = 3, ver = 1.4, dataLen = 16)",
                     "[IpcClient.SendRequest] Reply action group (type = 1, ver = 1.4, dataLen = 20)"}));
}

TEST_F(IpcClientTest, AFailedRequestIsLoggedUpToItsFailureAndHasNoReplyLine) {
    m_Param.SetLogControl(kAllLogBits);
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcIsServerRunning);
    EXPECT_FALSE(client.SendRequest(kChannel));
    EXPECT_EQ(
        m_Log.Texts(),
        (Lines{"[IpcClient.SendRequest] Open channel: /tmp/nfs-peer",
               "[IpcClient.SendRequest] Request action group (type = 3, ver = 1.4, dataLen = 16)",
               "[IpcClient.SendRequest] Open ipc client socket", "[IpcClient.SendRequest] Connect ipc client socket",
               "[IpcClient.SendRequest] Fail to connect ipc client socket. No such file or directory (2)"}));
}

/// Does something when the client says that it is about to send.
class BeforeSending : public CaptureUtilities {
public:
    BeforeSending(LogCapture* pCapture, std::function<void()> action)
        : CaptureUtilities(pCapture), m_Action(std::move(action)) {}
    using CaptureUtilities::LogInfo;
    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
        if (std::string(pcMessage) == "[IpcClient.SendRequest] Send ipc client request") {
            m_Action();
        }
    }

private:
    std::function<void()> m_Action;
};

TEST_F(IpcClientTest, APeerThatVanishesBeforeTheRequestIsAFailedSend) {
    DeafListener listener(5);
    BeforeSending utilities(&m_Log, [&listener] { listener.Close(); });
    m_Param.SetLogControl(CRuntimeParam::kLogIpcState);
    CIpcClient client(&utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to send ipc client request. Broken pipe (32)");
    ExpectNoReply(client);
}

TEST_F(IpcClientTest, NothingIsLoggedOfAnExchangeWithoutTheIpcBits) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawBoolReply(true); });
    m_Param.SetLogControl(kAllLogBits & ~(64 | 128));
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcIsServerRunning);
    EXPECT_TRUE(client.SendRequest(kChannel));
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(IpcClientTest, RepliesAreReadByTheirKindOnly) {
    struct Case {
        std::string sReply;
        bool bBool;
        long long lLong;
        int iInt;
        std::string sExpt, sMsg;
    };
    const std::vector<Case> vCases = {
        {RawBoolReply(true), true, 0, -1, "", ""},
        {RawReply(1, 20).Byte(16, 0x80).Bytes(), true, 0, -1, "", ""},
        {RawReply(2, 24).U64(16, 0xfedcba9876543210U).Bytes(), false, static_cast<long long>(0xfedcba9876543210U), -1,
         "", ""},
        {RawIntReply(-77), false, 0, -77, "", ""},
        {RawTextReply(4, "no"), false, 0, -1, "no", ""},
        {RawTextReply(5, "yes"), false, 0, -1, "", "yes"},
        {RawReply(0, 16).Bytes(), false, 0, -1, "", ""},
        {RawRequest(1, 20).I32(16, 1).Bytes(), false, 0, -1, "", ""},    // not a reply at all
        {RawRecord(3, 3, 20).I32(16, 1).Bytes(), false, 0, -1, "", ""},  // nor this
    };
    std::string sReply;
    FakeIpcServer server(kChannel, [&](const std::string&) { return sReply; });
    for (const Case& expected : vCases) {
        sReply = expected.sReply;
        SCOPED_TRACE(testing::Message() << "group " << I32At(sReply, 0) << ", type " << I32At(sReply, 4));
        CIpcClient client(&m_Utilities, &m_Param);
        client.SetRequest(kIpcGetVersion);
        ASSERT_TRUE(client.SendRequest(kChannel, m_vcReason)) << m_vcReason;
        EXPECT_EQ(client.GetBoolReply(), expected.bBool);
        EXPECT_EQ(client.GetLongReply(), expected.lLong);
        EXPECT_EQ(client.GetIntReply(), expected.iInt);
        EXPECT_EQ(client.GetExptReply() != nullptr ? client.GetExptReply() : "", expected.sExpt);
        EXPECT_EQ(client.GetMsgReply() != nullptr ? client.GetMsgReply() : "", expected.sMsg);
    }
}

TEST_F(IpcClientTest, AnUnterminatedReplyTextEndsWithItsField) {
    FakeIpcServer server(kChannel,
                         [](const std::string&) { return RawReply(5, 4096).Text(16, std::string(4080, 'm')).Bytes(); });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    ASSERT_TRUE(client.SendRequest(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(std::string(client.GetMsgReply()), std::string(2047, 'm'));
}

TEST_F(IpcClientTest, AReplyCutShortReadsAsZeroWhereItIsMissing) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawIntReply(0x01020304).substr(0, 18); });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetServerStatus);
    ASSERT_TRUE(client.SendRequest(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(client.GetIntReply(), 0x0304);
}

TEST_F(IpcClientTest, APeerThatEndsWithoutAReplyIsAFailedRequest) {
    FakeIpcServer server(kChannel, [](const std::string&) { return std::string(); });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to read ipc server reply. Connection reset by peer (104)");
    ExpectNoReply(client);
}

TEST_F(IpcClientTest, ThePeersDeathEndsTheWaitForItsReply) {
    auto pListener = std::make_unique<DeafListener>(5);
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    std::thread death([&] {
        EXPECT_TRUE(pListener->WaitForConnection());
        pListener->Close();
    });
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    death.join();
    EXPECT_NE(std::string(m_vcReason), "");
    pListener.reset();
}

TEST_F(IpcClientTest, ThePeersDeathEndsTheWaitInAFullQueue) {
    auto pListener = std::make_unique<DeafListener>(0);
    IpcConnection first(kChannel);  // fills the queue
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    std::thread death([&, iClient = ::gettid()] {
        EXPECT_TRUE(WaitUntil([&] { return IsAsleep(iClient); }));
        pListener->Close();
    });
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    death.join();
    EXPECT_STREQ(m_vcReason, "Fail to connect ipc client socket. Connection refused (111)");
    pListener.reset();
}

TEST_F(IpcClientTest, ATimeLimitEndsTheWaitForAReply) {
    DeafListener listener(5);
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    client.SetTimeout(milliseconds(50));
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to read ipc server reply. Connection timed out (110)");
    EXPECT_EQ(client.GetErrorNumber(), ETIMEDOUT);
}

TEST_F(IpcClientTest, ATimeLimitEndsTheWaitInAFullQueue) {
    DeafListener listener(0);
    IpcConnection first(kChannel);
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetVersion);
    client.SetTimeout(milliseconds(50));
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to connect ipc client socket. Connection timed out (110)");
    EXPECT_EQ(client.GetErrorNumber(), ETIMEDOUT);
}

TEST_F(IpcClientTest, ALongAnswerIsWaitedFor) {
    FakeIpcServer server(kChannel, [](const std::string&) {
        std::this_thread::sleep_for(milliseconds(300));  // far longer than any answer takes
        return RawIntReply(3);
    });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(kIpcGetServerStatus);
    EXPECT_TRUE(client.SendRequest(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(client.GetIntReply(), 3);
}

TEST_F(IpcClientTest, EveryReplyKindIsWrittenWithItsLength) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawIntReply(3); });
    CIpcClient client(&m_Utilities, &m_Param);
    auto record = NewIpcRecord<IpcRequest_SetBoolean>();
    record.bVal = 1;
    client.SetRequest(kIpcSetDebugActionEnabled, record);
    EXPECT_TRUE(client.SendRequest(kChannel, m_vcReason)) << m_vcReason;
    ASSERT_TRUE(server.WaitForMessages(1));
    EXPECT_EQ(Difference(RawRequest(24, 20).Byte(16, 1).Bytes(), server.Messages()[0]), "");
}

// ---- Without waiting

TEST_F(IpcClientTest, AFullQueueIsTriedAgainWithoutAWord) {
    DeafListener listener(0);
    CIpcClient first(&m_Utilities, &m_Param);
    first.SetRequest(1);
    EXPECT_TRUE(first.Begin(kChannel));
    m_Param.SetLogControl(kAllLogBits);
    CIpcClient second(&m_Utilities, &m_Param);
    second.SetRequest(1);
    EXPECT_FALSE(second.Begin(kChannel));
    const std::size_t nLines = m_Log.Lines().size();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(second.Begin(kChannel));
        EXPECT_EQ(second.GetErrorNumber(), EAGAIN);
    }
    EXPECT_EQ(m_Log.Lines().size(), nLines);
    EXPECT_FALSE(second.IsSent());
    EXPECT_FALSE(second.Finish());
    EXPECT_EQ(second.GetErrorNumber(), ETIMEDOUT);
    EXPECT_TRUE(
        m_Log.Has("[IpcClient.SendRequest] Fail to connect ipc client socket. Connection timed out (110)", 'e'));
    EXPECT_FALSE(second.TakeConnection().IsOpen());
    listener.Close();
    EXPECT_FALSE(second.Begin(kChannel));
    EXPECT_EQ(second.GetErrorNumber(), ECONNREFUSED);
}

TEST_F(IpcClientTest, AReplyIsTakenWhenItHasCome) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawIntReply(7); });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(1);
    ASSERT_TRUE(client.Begin(kChannel));
    ASSERT_TRUE(client.IsSent());
    EXPECT_EQ(CIpcSocket::WaitReadable(client.GetConnection().Get(), -1, CIpcSocket::Clock::now() + seconds(20)), 0);
    EXPECT_TRUE(client.Finish());
    EXPECT_EQ(client.GetIntReply(), 7);
}

TEST_F(IpcClientTest, TheConnectionOfAReplyThatDidNotComeInTimeIsKept) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawIntReply(7); });
    server.Hang();
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(1);
    ASSERT_TRUE(client.Begin(kChannel));
    EXPECT_FALSE(client.Finish());
    EXPECT_EQ(client.GetErrorNumber(), ETIMEDOUT);
    const CIpcSocket connection = client.TakeConnection();
    ASSERT_TRUE(connection.IsOpen());
    EXPECT_FALSE(connection.IsReadable());
    server.Recover();
    EXPECT_EQ(CIpcSocket::WaitReadable(connection.Get(), -1, CIpcSocket::Clock::now() + seconds(20)), 0);
}

TEST_F(IpcClientTest, AHurryShortensTheWait) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawIntReply(7); });
    server.Hang();
    CWake hurry;
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(1);
    client.SetTimeout(seconds(60));
    client.SetHurry(hurry.GetDescriptor(), milliseconds(10));
    const auto start = std::chrono::steady_clock::now();
    std::thread hurrying([&] {
        EXPECT_TRUE(server.WaitForMessages(1));
        hurry.Set();
    });
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(30));
    EXPECT_STREQ(m_vcReason, "Fail to read ipc server reply. Connection timed out (110)");
    hurrying.join();
}

/// A reply that comes byte by byte is given five seconds, but not in a hurry.
TEST_F(IpcClientTest, AHurryEndsATrickleToo) {
    CIpcListener listener;
    ASSERT_TRUE(listener.Open(kChannel, m_vcReason));
    CWake hurry;
    std::atomic<bool> bOver{false};
    std::thread trickling([&] {
        CIpcSocket connection;
        ASSERT_EQ(listener.Accept(&connection), 0);
        const std::string sReply = RawIntReply(7);
        for (std::size_t i = 0; i < sReply.size() && !bOver; ++i) {
            ::send(connection.Get(), &sReply[i], 1, MSG_NOSIGNAL);
            hurry.Set();
            std::this_thread::sleep_for(milliseconds(500));
        }
    });
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(1);
    client.SetTimeout(seconds(60));
    client.SetHurry(hurry.GetDescriptor(), milliseconds(100));
    const auto start = std::chrono::steady_clock::now();
    client.SendRequest(kChannel, m_vcReason);
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(4));
    EXPECT_EQ(client.GetIntReply(), -1) << "it had not come";
    bOver = true;
    trickling.join();
}

/// A reply that is there when the hurry begins, or comes soon, is taken.
TEST_F(IpcClientTest, AHurryLeavesTimeForAReplyUnderWay) {
    FakeIpcServer server(kChannel, [](const std::string&) {
        std::this_thread::sleep_for(milliseconds(100));
        return RawIntReply(7);
    });
    CWake hurry;
    hurry.Set();
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(1);
    client.SetHurry(hurry.GetDescriptor(), seconds(20));
    EXPECT_TRUE(client.SendRequest(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(client.GetIntReply(), 7);
}

TEST_F(IpcClientTest, TheStopOfTheThreadsWatchIsAHurry) {
    FakeIpcServer server(kChannel, [](const std::string&) { return RawIntReply(7); });
    server.Hang();
    CWake stop;
    const CEndWatch watch(-1, stop.GetDescriptor());
    CIpcClient client(&m_Utilities, &m_Param);
    client.SetRequest(1);
    const auto start = std::chrono::steady_clock::now();
    std::thread stopping([&] {
        EXPECT_TRUE(server.WaitForMessages(1));
        stop.Set();
    });
    EXPECT_FALSE(client.SendRequest(kChannel, m_vcReason));
    EXPECT_GE(std::chrono::steady_clock::now() - start, CIpcClient::kStopRest);
    stopping.join();
}

}  // namespace
