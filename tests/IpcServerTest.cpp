// The listening end: opening, closing, and every way a connection can go.
#include "IpcServer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "IpcPeer.h"
#include "IpcServerThread.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "RecordingNfsMain.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Lines = std::vector<std::string>;

constexpr int kAllLogBits = 1023;
constexpr char kChannel[] = "/tmp/nfs-test";

bool Exists(const char* pcPath) {
    struct stat info {};
    return ::lstat(pcPath, &info) == 0;
}

class IpcServerTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    /// Serves one message, sent as given, and returns the reply.
    std::string ServeOne(CIpcServer& server, const std::string& sMessage, bool bShutdown = true) {
        IpcConnection connection(kChannel);
        EXPECT_TRUE(connection.Send(sMessage));
        if (bShutdown) {
            connection.ShutdownSend();
        }
        EXPECT_TRUE(server.ReadRequest(m_vcReason)) << m_vcReason;
        return connection.ReceiveAll().value_or("(not closed)");
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    ControllerRecord m_Record;
    RecordingNfsMain m_Controller{"me", CRuntimeParam::kLogError, &m_Record, &m_Log};
    char m_vcReason[kReasonBufferSize] = "";
};

// ---- Opening and closing

TEST_F(IpcServerTest, OpeningWithoutAChannelIsRefused) {
    CIpcServer server(&m_Controller);
    EXPECT_FALSE(server.Open(nullptr, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Channel is not defined");
    EXPECT_FALSE(server.Open(nullptr));
    EXPECT_EQ(m_Log.Texts('e'), Lines{"[IpcServer.Open] Channel is not defined"});
    EXPECT_FALSE(server.IsOpened());
}

TEST_F(IpcServerTest, OpeningTwiceIsRefusedAndTheFirstGoesOn) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_FALSE(server.Open("/tmp/nfs-other", m_vcReason));
    EXPECT_STREQ(m_vcReason, "Channel already opened");
    EXPECT_TRUE(server.IsOpened());
    EXPECT_TRUE(Exists(kChannel));
    EXPECT_FALSE(Exists("/tmp/nfs-other"));
}

TEST_F(IpcServerTest, TheSocketFileExistsExactlyWhileTheServerIsOpen) {
    CIpcServer server(&m_Controller);
    EXPECT_FALSE(Exists(kChannel));
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
        EXPECT_TRUE(Exists(kChannel));
        EXPECT_TRUE(server.Close());
        EXPECT_FALSE(Exists(kChannel));
        EXPECT_TRUE(server.Close()) << "closing a closed server does nothing";
    }
}

TEST_F(IpcServerTest, EveryUserMayConnectWhateverTheUmask) {
    const mode_t iOld = ::umask(0077);
    CIpcServer server(&m_Controller);
    const bool bOpen = server.Open(kChannel, m_vcReason);
    ::umask(iOld);
    ASSERT_TRUE(bOpen) << m_vcReason;
    struct stat info {};
    ASSERT_EQ(::stat(kChannel, &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777U, 0777U);
}

TEST_F(IpcServerTest, AFileLeftAtTheChannelsPathIsReplaced) {
    WriteWholeFile(kChannel, "left by a crash");
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(ServeOne(server, RawRequest(3, 16).Bytes()), RawBoolReply(true));
}

TEST_F(IpcServerTest, AFolderAtTheChannelsPathMakesTheBindFail) {
    ASSERT_EQ(::mkdir(kChannel, 0755), 0);
    CIpcServer server(&m_Controller);
    EXPECT_FALSE(server.Open(kChannel, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to bind ipc server socket. Address already in use (98)");
    EXPECT_FALSE(server.IsOpened());
    EXPECT_TRUE(Exists(kChannel));
    ASSERT_EQ(::rmdir(kChannel), 0);
    EXPECT_TRUE(server.Open(kChannel, m_vcReason)) << "a failed opening can be repeated: " << m_vcReason;
}

TEST_F(IpcServerTest, AChannelThatDoesNotFitASocketAddressIsRefused) {
    CIpcServer server(&m_Controller);
    EXPECT_FALSE(server.Open(("/tmp/" + std::string(103, 'x')).c_str(), m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to bind ipc server socket. File name too long (36)");
}

TEST_F(IpcServerTest, ClosingLeavesASocketFileAloneThatAnotherHasPutInPlace) {
    CIpcServer first(&m_Controller);
    CIpcServer second(&m_Controller);
    ASSERT_TRUE(first.Open(kChannel, m_vcReason)) << m_vcReason;
    ASSERT_TRUE(second.Open(kChannel, m_vcReason)) << m_vcReason;
    first.Close();
    EXPECT_TRUE(Exists(kChannel)) << "it is the second one's";
    second.Close();
    EXPECT_FALSE(Exists(kChannel));
}

TEST_F(IpcServerTest, ReadingFromAClosedServerFails) {
    CIpcServer server(&m_Controller);
    EXPECT_FALSE(server.ReadRequest(m_vcReason));
    EXPECT_STREQ(m_vcReason, "Channel not yet opened.");
    EXPECT_FALSE(server.ReadRequest());
    EXPECT_EQ(m_Log.Texts('e'), Lines{"[IpcServer.SendRequest] Channel not yet opened."});
}

TEST_F(IpcServerTest, ClosingWakesAReadThatWaitsForAConnection) {
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpcState);
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    bool bServed = false;
    std::thread reader([&] { bServed = server.ReadRequest(); });
    EXPECT_TRUE(m_Log.WaitFor("[IpcServer.ReadRequest] Accept ipc request"));
    EXPECT_TRUE(server.Close());
    reader.join();
    EXPECT_TRUE(bServed);
    EXPECT_EQ(m_Log.Texts(), (Lines{"[IpcServer.ReadRequest] Start", "[IpcServer.ReadRequest] Accept ipc request",
                                    "[IpcServer.ReadRequest] Socket closed"}));
}

TEST_F(IpcServerTest, ClosingWakesAReadThatWaitsForAMessage) {
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpcState);
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    std::thread reader([&] { EXPECT_TRUE(server.ReadRequest()); });
    IpcConnection connection(kChannel);
    EXPECT_TRUE(m_Log.WaitFor("[IpcServer.ReadRequest] Read ipc request"));
    const auto start = steady_clock::now();
    server.Close();
    reader.join();
    EXPECT_LT(steady_clock::now() - start, CIpcServer::kSilenceTimeout / 2) << "it did not sit the silence out";
    EXPECT_TRUE(m_Record.Calls().empty());
}

TEST_F(IpcServerTest, AClosedServerTakesNoMoreConnections) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    IpcConnection waiting(kChannel);
    server.Close();
    EXPECT_EQ(waiting.ReceiveAll(), "") << "who waited in the queue is sent away";
    EXPECT_THROW(IpcConnection late(kChannel), std::runtime_error);
}

// ---- One message

TEST_F(IpcServerTest, TheStepsOfAnExchangeAreLoggedInOrder) {
    m_Controller.CNfsMain::SetLogControl(kAllLogBits);
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(ServeOne(server, RawRequest(23, 16).Bytes()), RawIntReply(5));
    EXPECT_EQ(m_Log.Texts(), (Lines{"[IpcServer.ReadRequest] Start", "[IpcServer.ReadRequest] Accept ipc request",
                                    "[IpcServer.ReadRequest] Read ipc request",
                                    "[IpcServer.ReadRequest] Request action group (type = 23, ver = 1.4, dataLen = 16)",
                                    "[IpcServer.ReadRequest] Reply action group (type = 3, ver = 1.4, dataLen = 20)",
                                    "[IpcServer.ReadRequest] Send ipc reply"}));
}

TEST_F(IpcServerTest, StepsAndRecordsHaveALogBitEach) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpcState);
    ServeOne(server, RawRequest(23, 16).Bytes());
    EXPECT_EQ(m_Log.Texts('i'),
              (Lines{"[IpcServer.ReadRequest] Start", "[IpcServer.ReadRequest] Accept ipc request",
                     "[IpcServer.ReadRequest] Read ipc request", "[IpcServer.ReadRequest] Send ipc reply"}));
    m_Log.Clear();
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpc);
    ServeOne(server, RawRequest(23, 16).Bytes());
    EXPECT_EQ(m_Log.Texts('i'),
              (Lines{"[IpcServer.ReadRequest] Request action group (type = 23, ver = 1.4, dataLen = 16)",
                     "[IpcServer.ReadRequest] Reply action group (type = 3, ver = 1.4, dataLen = 20)"}));
}

TEST_F(IpcServerTest, AnsweredFailuresAreDescribedLikeOtherMessages) {
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpc);
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    ServeOne(server, RawRecord(7, 9, 16).Bytes());
    EXPECT_EQ(m_Log.Texts('i'),
              (Lines{"[IpcServer.ReadRequest] Unknown action group: 7 (type = 9, ver = 1.4, dataLen = 16)",
                     "[IpcServer.ReadRequest] Reply action group (type = 4, ver = 1.4, dataLen = 2064)"}));
}

TEST_F(IpcServerTest, FiveConnectionsWaitInTheQueue) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kChannel);
    std::vector<int> viSockets;
    int nConnected = 0;
    for (int i = 0; i < 20; ++i) {
        viSockets.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (::connect(viSockets.back(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            ++nConnected;
        } else {
            EXPECT_EQ(errno, EAGAIN);
        }
    }
    for (const int iSocket : viSockets) {
        ::close(iSocket);
    }
    EXPECT_EQ(nConnected, 6) << "the kernel lets one more in than the backlog says";
}

TEST_F(IpcServerTest, ATrickleOfBytesHoldsUpNobodyForLong) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    IpcConnection connection(kChannel);
    const std::string sRecord = RawRequest(21, 3352).Text(272, "/d").Bytes();
    std::atomic<bool> bEnd{false};
    const auto start = steady_clock::now();
    std::thread trickle([&] {
        for (std::size_t i = 0; i < sRecord.size() && !bEnd && connection.Send(sRecord.substr(i, 1)); ++i) {
            std::this_thread::sleep_for(milliseconds(100));  // so that the whole record would take minutes
            if (steady_clock::now() - start > seconds(40)) {
                return;  // it failed: not for the five minutes that the record would take
            }
        }
    });
    EXPECT_TRUE(server.ReadRequest()) << "what came is the message";
    const auto waited = steady_clock::now() - start;
    bEnd = true;
    trickle.join();
    EXPECT_LT(waited, seconds(20));
}

TEST_F(IpcServerTest, NothingIsLoggedOfAnExchangeWithoutTheIpcBits) {
    m_Controller.CNfsMain::SetLogControl(kAllLogBits & ~(64 | 128));
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    ServeOne(server, RawRequest(23, 16).Bytes());
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(IpcServerTest, ARecordInPiecesArrivesWhole) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    const std::string sRecord = RawRequest(14, 2064).Text(16, "/from").Text(1040, "/to").Bytes();
    std::thread reader([&] { EXPECT_TRUE(server.ReadRequest()); });
    IpcConnection connection(kChannel);
    for (const std::size_t iStart : {0U, 3U, 10U, 18U, 1042U}) {
        const std::size_t iEnd = iStart == 0 ? 3 : iStart == 3 ? 10 : iStart == 10 ? 18 : iStart == 18 ? 1042 : 2064;
        EXPECT_TRUE(connection.Send(std::string_view(sRecord).substr(iStart, iEnd - iStart)));
        EXPECT_TRUE(WaitUntil([&] { return connection.IsTaken(); })) << "the pieces are read one by one";
    }
    EXPECT_EQ(connection.ReceiveAll(), RawBoolReply(true));
    reader.join();
    EXPECT_EQ(m_Record.Calls(), Lines{R"(ExportRedirectedFile("/from", "/to"))"});
}

TEST_F(IpcServerTest, AShortRecordThatEndsIsServedWithZerosForWhatIsMissing) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(ServeOne(server, RawRequest(4, 36).I32(16, 7).I32(20, 8).Bytes().substr(0, 22)), RawBoolReply(true));
    EXPECT_EQ(m_Record.Calls(), Lines{"StartServer(7, 8, 0, 0, false)"});
}

TEST_F(IpcServerTest, AShortRecordWhoseSenderWaitsIsServedAfterAPause) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    const auto start = steady_clock::now();
    EXPECT_EQ(ServeOne(server, RawRequest(18, 20).I32(16, 99).Bytes().substr(0, 18), false), RawBoolReply(true));
    EXPECT_LT(steady_clock::now() - start, CIpcServer::kSilenceTimeout);
    EXPECT_EQ(m_Record.Calls(), Lines{"SetLogControl(99)"});
}

TEST_F(IpcServerTest, EveryLengthOfEveryRecordIsServed) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    m_Record.m_bAnswer = false;
    testing::internal::CaptureStdout();  // log callbacks end up there
    for (const int iGroup : {0, 1, 2, 3, 4}) {
        for (const int iType : {0, 1, 5, 13, 19, 21, 28, 31, 32, 33}) {
            for (const std::size_t iLength : {1U, 4U, 8U, 15U, 16U, 17U, 300U, 1039U, 1551U, 4096U}) {
                std::string sRecord = RawRecord(iGroup, iType, 4096).Bytes();
                for (std::size_t i = 16; i < sRecord.size(); ++i) {
                    sRecord[i] = '\xff';  // nowhere a terminator
                }
                EXPECT_GE(ServeOne(server, sRecord.substr(0, iLength)).size(), 20U)
                    << "group " << iGroup << ", type " << iType << ", length " << iLength;
            }
        }
    }
    testing::internal::GetCapturedStdout();
}

TEST_F(IpcServerTest, UnterminatedTextsEndWithTheirField) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    ServeOne(server, RawRequest(31, 1552)
                         .Text(16, std::string(1024, 'a'))
                         .Text(1040, std::string(255, 'b'))
                         .Text(1295, std::string(255, 'c'))
                         .Bytes());
    EXPECT_EQ(m_Record.Calls(), Lines{"AddNetDeviceCredential(\"" + std::string(1024, 'a') + "\", \"" +
                                      std::string(255, 'b') + "\", \"" + std::string(255, 'c') + "\")"});
}

TEST_F(IpcServerTest, ATooLongRecordIsCutAndItsSenderStillGetsTheReply) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    const std::string sRecord = RawRequest(6, 60000).Text(16, "/path").Bytes();
    EXPECT_EQ(Difference(RawBoolReply(true), ServeOne(server, sRecord, false)), "");
    EXPECT_EQ(m_Record.Calls(), Lines{R"(RemoveMountPoint("/path"))"});
}

TEST_F(IpcServerTest, TheLengthLoggedIsWhatWasRead) {
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpc);
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    ServeOne(server, RawRequest(6, 60000).Bytes(), false);
    EXPECT_TRUE(m_Log.Has("[IpcServer.ReadRequest] Request action group (type = 6, ver = 1.4, dataLen = 4096)"))
        << m_Log.Dump();
    ServeOne(server, RawRequest(6, 20).Bytes());
    EXPECT_TRUE(m_Log.Has("[IpcServer.ReadRequest] Request action group (type = 6, ver = 1.4, dataLen = 20)"))
        << m_Log.Dump();
}

TEST_F(IpcServerTest, AConnectionThatEndsWithoutAMessageDispatchesNothing) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    ServeOne(server, RawRequest(6, 1040).Text(16, "/once").Bytes());
    EXPECT_EQ(ServeOne(server, ""), "");
    EXPECT_EQ(m_Record.Calls(), Lines{R"(RemoveMountPoint("/once"))"}) << "the message before is not served again";
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(IpcServerTest, NothingOfAnEarlierMessageRemains) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    ServeOne(server, RawRequest(7, 1296).Text(16, "session").Text(272, "/secret").Bytes());
    m_Record.Clear();
    ServeOne(server, RawRequest(7, 1296).Text(16, "s2").Bytes().substr(0, 18));
    EXPECT_EQ(m_Record.Calls(), Lines{R"(AddSessionInfo("s2", ""))"});
}

TEST_F(IpcServerTest, ASilentConnectionIsDroppedAfterFiveSeconds) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    IpcConnection connection(kChannel);
    const auto start = steady_clock::now();
    EXPECT_FALSE(server.ReadRequest());
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, seconds(5));
    EXPECT_LT(waited, seconds(15));
    EXPECT_EQ(m_Log.Texts('e'), Lines{"[IpcServer.SendRequest] Fail to read ipc request. Connection timed out (110)"});
    EXPECT_EQ(connection.ReceiveAll(), "");
    EXPECT_TRUE(server.IsOpened());
}

TEST_F(IpcServerTest, AClientThatVanishesBeforeItsReplyIsAFailureAndNoMore) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    {
        IpcConnection connection(kChannel);
        EXPECT_TRUE(connection.Send(RawRequest(3, 16).Bytes()));
    }
    EXPECT_FALSE(server.ReadRequest());
    EXPECT_EQ(m_Log.Texts('e'), Lines{"[IpcServer.SendRequest] Fail to send ipc reply. Broken pipe (32)"});
    EXPECT_EQ(m_Record.Calls(), Lines{"IsServerRunning()"}) << "the request was carried out";
    EXPECT_EQ(ServeOne(server, RawRequest(3, 16).Bytes()), RawBoolReply(true)) << "the server goes on";
}

// ---- Odd groups and types

TEST_F(IpcServerTest, UnknownTypesAndGroupsAreAnsweredWithAnException) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    const auto expect = [&](int iGroup, int iType, const std::string& sText) {
        EXPECT_EQ(Difference(RawTextReply(4, sText), ServeOne(server, RawRecord(iGroup, iType, 16).Bytes())), "")
            << "group " << iGroup << ", type " << iType;
    };
    expect(2, 0, "Unknown request type (0)");
    expect(2, 33, "Unknown request type (33)");
    expect(2, -1, "Unknown request type (-1)");
    expect(2, 2147483647, "Unknown request type (2147483647)");
    expect(3, 0, "Unknown callback type (0)");
    expect(3, 6, "Unknown callback type (6)");
    expect(3, -2147483647 - 1, "Unknown callback type (-2147483648)");
    expect(1, 3, "Reply action group is not support (3)");
    expect(0, 3, "Unknown action group: 0 (3)");
    expect(-5, -6, "Unknown action group: -5 (-6)");
    EXPECT_TRUE(m_Record.Calls().empty());
}

TEST_F(IpcServerTest, TheVersionOfARequestIsNotCompared) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    EXPECT_EQ(ServeOne(server, RawRequest(3, 16).Text(8, "9.9.9.9.").Bytes()), RawBoolReply(true));
}

// ---- Automatic shutdown

TEST_F(IpcServerTest, AutoShutdownIsRefusedUnlessItsOwnerEnabledIt) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    IpcConnection connection(kChannel);
    EXPECT_TRUE(connection.Send(RawRequest(22, 16).Bytes()));
    EXPECT_TRUE(server.ReadRequest());
    EXPECT_EQ(connection.ReceiveAll(), RawBoolReply(false));
    EXPECT_FALSE(server.IsAutoShutdownRequested());
    EXPECT_FALSE(m_Controller.IsAutoShutdownRequested());
    EXPECT_TRUE(m_Record.Calls().empty());
}

TEST_F(IpcServerTest, AfterAnAcceptedAutoShutdownNothingMoreIsServed) {
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpcState);
    m_Controller.EnableAutoShutdown(true);
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    IpcConnection connection(kChannel);
    EXPECT_TRUE(connection.Send(RawRequest(22, 16).Bytes()));
    EXPECT_TRUE(server.ReadRequest());
    EXPECT_EQ(connection.ReceiveAll(), RawBoolReply(true));
    EXPECT_TRUE(m_Controller.IsAutoShutdownRequested());
    EXPECT_EQ(m_Record.Calls(), (Lines{"EnableAutoShutdown(true)", "RequestAutoShutdown()"}))
        << "the controller is told once";

    m_Log.Clear();
    IpcConnection late(kChannel);
    EXPECT_TRUE(late.Send(RawRequest(3, 16).Bytes()));
    EXPECT_FALSE(server.ReadRequest());
    EXPECT_EQ(m_Log.Texts(), Lines{"[IpcServer.SendRequest] Waiting to auto shutdown"});
    EXPECT_EQ(late.ReceiveAll(milliseconds(50)), std::nullopt) << "neither served nor sent away";
    server.Close();
    EXPECT_EQ(late.ReceiveAll(), "");
}

TEST_F(IpcServerTest, AnAutoShutdownCountsAlsoWhenItsSenderIsGoneBeforeTheReply) {
    m_Controller.EnableAutoShutdown(true);
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    {
        IpcConnection connection(kChannel);
        EXPECT_TRUE(connection.Send(RawRequest(22, 16).Bytes()));
    }
    EXPECT_FALSE(server.ReadRequest());
    EXPECT_TRUE(m_Controller.IsAutoShutdownRequested());
}

// ---- Lack of descriptors

TEST_F(IpcServerTest, AFailedAcceptPausesAndTheServerGoesOn) {
    CIpcServer server(&m_Controller);
    ASSERT_TRUE(server.Open(kChannel, m_vcReason)) << m_vcReason;
    IpcConnection connection(kChannel);
    EXPECT_TRUE(connection.Send(RawRequest(3, 16).Bytes()));
    std::vector<int> viAll;
    for (int iFile = ::open("/dev/null", O_RDONLY | O_CLOEXEC); iFile != -1;
         iFile = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) {
        viAll.push_back(iFile);
    }
    const auto start = steady_clock::now();
    const bool bServed = server.ReadRequest();
    const auto waited = steady_clock::now() - start;
    for (const int iFile : viAll) {
        ::close(iFile);
    }
    EXPECT_FALSE(bServed);
    EXPECT_GE(waited, CIpcServer::kAcceptPause) << "no hot loop";
    EXPECT_EQ(m_Log.Texts('e'), Lines{"[IpcServer.SendRequest] Fail to accept ipc request. Too many open files (24)"});
    EXPECT_TRUE(server.ReadRequest());
    EXPECT_EQ(connection.ReceiveAll(), RawBoolReply(true));
}

// ---- The thread

class IpcServerThreadTest : public IpcServerTest {};

TEST_F(IpcServerThreadTest, ServesFromOpenToClose) {
    CIpcServerThread thread;
    EXPECT_FALSE(thread.IsActive());
    ASSERT_TRUE(thread.Open(kChannel, &m_Controller, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(thread.IsActive());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(IpcExchange(kChannel, RawRequest(23, 16).Bytes()), RawIntReply(5));
    }
    thread.Close();
    EXPECT_FALSE(thread.IsActive());
    EXPECT_FALSE(Exists(kChannel));
    thread.Close();
}

TEST_F(IpcServerThreadTest, OpeningAgainMovesToTheNewChannel) {
    CIpcServerThread thread;
    ASSERT_TRUE(thread.Open(kChannel, &m_Controller, m_vcReason)) << m_vcReason;
    ASSERT_TRUE(thread.Open("/tmp/nfs-other", &m_Controller, m_vcReason)) << m_vcReason;
    EXPECT_FALSE(Exists(kChannel));
    EXPECT_EQ(IpcExchange("/tmp/nfs-other", RawRequest(23, 16).Bytes()), RawIntReply(5));
}

TEST_F(IpcServerThreadTest, AFailedOpeningLeavesNoThread) {
    CIpcServerThread thread;
    EXPECT_FALSE(thread.Open("/nowhere/nfs-test", &m_Controller, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to bind ipc server socket. No such file or directory (2)");
    EXPECT_FALSE(thread.IsActive());
}

TEST_F(IpcServerThreadTest, WaitingForTheShutdownIsSaidOnceAndDoesNotSpin) {
    m_Controller.CNfsMain::SetLogControl(CRuntimeParam::kLogIpcState);
    m_Controller.EnableAutoShutdown(true);
    CIpcServerThread thread;
    ASSERT_TRUE(thread.Open(kChannel, &m_Controller, m_vcReason)) << m_vcReason;
    EXPECT_EQ(IpcExchange(kChannel, RawRequest(22, 16).Bytes()), RawBoolReply(true));
    EXPECT_TRUE(m_Log.WaitFor("[IpcServer.SendRequest] Waiting to auto shutdown"));
    std::this_thread::sleep_for(milliseconds(50));  // room for a second line that must not come
    EXPECT_TRUE(thread.IsActive());
    thread.Close();
    const Lines vsLines = m_Log.Texts();
    EXPECT_EQ(std::count(vsLines.begin(), vsLines.end(), "[IpcServer.SendRequest] Waiting to auto shutdown"), 1);
}

TEST_F(IpcServerThreadTest, ClosingIsNeverTakenForAFailure) {
    for (int i = 0; i < 100; ++i) {
        CIpcServerThread thread;
        ASSERT_TRUE(thread.Open(kChannel, &m_Controller, m_vcReason)) << m_vcReason;
    }
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(IpcServerThreadTest, AHundredClientsAtOnceAreAllServed) {
    CIpcServerThread thread;
    ASSERT_TRUE(thread.Open(kChannel, &m_Controller, m_vcReason)) << m_vcReason;
    constexpr int kClients = 100;
    std::vector<std::string> vsReplies(kClients);
    std::vector<std::thread> vThreads;
    for (int i = 0; i < kClients; ++i) {
        vThreads.emplace_back([&, i] {
            vsReplies[static_cast<std::size_t>(i)] =
                IpcExchange(kChannel, RawRequest(9, 272).Text(16, "s" + std::to_string(i)).Bytes());
        });
    }
    for (std::thread& client : vThreads) {
        client.join();
    }
    EXPECT_EQ(vsReplies, Lines(kClients, RawBoolReply(true)));
    EXPECT_EQ(m_Record.Calls().size(), static_cast<std::size_t>(kClients));
}

TEST_F(IpcServerThreadTest, GoesOnAfterClientsThatVanish) {
    CIpcServerThread thread;
    ASSERT_TRUE(thread.Open(kChannel, &m_Controller, m_vcReason)) << m_vcReason;
    for (int i = 0; i < 50; ++i) {
        IpcConnection connection(kChannel);
        if (i % 2 == 0) {
            connection.Send(RawRequest(3, 16).Bytes());
        }
    }
    EXPECT_EQ(IpcExchange(kChannel, RawRequest(23, 16).Bytes()), RawIntReply(5));
}

}  // namespace
