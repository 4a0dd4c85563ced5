// Reports to the process that the work is done for: the callbacks as bytes, and what becomes of them.
#include "UtilitiesIpcServer.h"

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "IpcChannel.h"
#include "IpcPatience.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kAllLogBits = 1023;
constexpr char kChannel[] = "/tmp/nfs-client";

class UtilitiesIpcServerTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_Param.SetIpcID("client");
    }

    /// What the action prints, and what is printed about the lines that it sends.
    template <typename Action>
    static std::string Printed(Action action) {
        testing::internal::CaptureStdout();
        {
            const CIpcPatience patience;
            action();
        }
        return testing::internal::GetCapturedStdout();
    }
    void SendLine(const std::string& sText) { m_Utilities.LogInfo(&m_Param, "%s", sText.c_str()); }

    int Write() { return m_Utilities.LogWriteRedirectedFile(&m_Param, "/f", 5, 0, 3); }

    LeakGuard m_Leaks;
    FakeHost m_Host;  // for the tests that set its callback
    CUtilitiesIpcServer m_Utilities;
    CRuntimeParam m_Param{"exp", 0};
};

// ---- Channels

TEST_F(UtilitiesIpcServerTest, TheCallbackChannelIsTheClientsOwn) {
    char cChannel[kIpcChannelBufferSize];
    EXPECT_TRUE(CUtilitiesIpcServer::GetIpcCallbackChannel("cRun", cChannel));
    EXPECT_STREQ(cChannel, "/tmp/nfs-cRun");
}

TEST_F(UtilitiesIpcServerTest, IDsThatNoClientCanHaveHaveNoChannel) {
    char cChannel[kIpcChannelBufferSize];
    for (const char* pcID : {"server", "a/b", "/", "../etc/x", "a b", " "}) {
        EXPECT_FALSE(CUtilitiesIpcServer::GetIpcCallbackChannel(pcID, cChannel)) << pcID;
        EXPECT_STREQ(cChannel, "") << pcID;
    }
}

TEST_F(UtilitiesIpcServerTest, AnIDThatLeadsElsewhereIsNotFollowed) {
    ASSERT_EQ(::mkdir("/tmp/nfs-x", 0755), 0);
    {
        FakeIpcServer elsewhere("/tmp/elsewhere", [](const std::string&) { return RawIntReply(3); });
        m_Param.SetIpcID("x/../elsewhere");
        EXPECT_EQ(Write(), -1);
        EXPECT_TRUE(elsewhere.Messages().empty());
    }
    ASSERT_EQ(::rmdir("/tmp/nfs-x"), 0);
}

// ---- Log lines

TEST_F(UtilitiesIpcServerTest, LogLinesGoToTheirRoutesHereAndToTheClient) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    EXPECT_EQ(Printed([&] {
                  m_Utilities.LogInfo(&m_Param, "%s", "hello");
                  m_Utilities.LogError(&m_Param, "%s", "oh");
                  m_Utilities.LogRaw(&m_Param, "%s", "raw\n");
              }),
              "[info] (exp) hello\n[erro] (exp) oh\nraw\n");
    const std::vector<std::string> vsMessages = client.Messages();
    ASSERT_EQ(vsMessages.size(), 3U);
    const char* const vpcTexts[] = {"hello", "oh", "raw\n"};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(Difference(RawCallback(1, 2324)
                                 .Text(16, "exp")
                                 .Text(272, vpcTexts[i])
                                 .I32(2320, static_cast<std::int32_t>(i + 1))
                                 .Bytes(),
                             vsMessages[i]),
                  "");
    }
}

TEST_F(UtilitiesIpcServerTest, WithoutAnIpcIDNothingIsSent) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    FakeIpcServer nobody("/tmp/nfs-", [](const std::string&) { return RawBoolReply(true); });
    m_Param.SetIpcID(nullptr);
    EXPECT_EQ(Printed([&] { m_Utilities.LogInfo(&m_Param, "%s", "hello"); }), "[info] (exp) hello\n");
    EXPECT_EQ(Write(), -1) << "without a host";
    EXPECT_TRUE(client.Messages().empty());
    EXPECT_TRUE(nobody.Messages().empty());
}

TEST_F(UtilitiesIpcServerTest, ALongLineIsCutAtTheFieldsEnd) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    const std::string sLong(3000, 'l');
    Printed([&] {
        CUtilities& utilities = m_Utilities;
        utilities.LogInfo(&m_Param, "%s", sLong.c_str());
    });
    ASSERT_EQ(client.Messages().size(), 1U);
    EXPECT_EQ(TextAt(client.Messages()[0], 272, 2048), std::string(2047, 'l'));
}

TEST_F(UtilitiesIpcServerTest, ALineAboutACallbackNeverCausesAnother) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    m_Param.SetLogControl(kAllLogBits);
    const std::string sPrinted = Printed([&] { m_Utilities.LogInfo(&m_Param, "%s", "hello"); });
    EXPECT_EQ(client.Messages().size(), 1U);
    EXPECT_EQ(sPrinted,
              "[info] (exp) hello\n"
              "[info] (exp) [IpcClient.SendRequest] Open channel: /tmp/nfs-client\n"
              "[info] (exp) [IpcClient.SendRequest] Callback action group (type = 1, ver = 1.4, dataLen = 2324)\n"
              "[info] (exp) [IpcClient.SendRequest] Open ipc client socket\n"
              "[info] (exp) [IpcClient.SendRequest] Connect ipc client socket\n"
              "[info] (exp) [IpcClient.SendRequest] Send ipc client request\n"
              "[info] (exp) [IpcClient.SendRequest] Read ipc server reply\n"
              "[info] (exp) [IpcClient.SendRequest] Reply action group (type = 1, ver = 1.4, dataLen = 20)\n");
}

TEST_F(UtilitiesIpcServerTest, AClientThatIsGoneCostsOneErrorLine) {
    m_Param.SetLogControl(CRuntimeParam::kLogError);
    EXPECT_EQ(
        Printed([&] { m_Utilities.LogInfo(&m_Param, "%s", "hello"); }),
        "[info] (exp) hello\n"
        "[erro] (exp) [IpcClient.SendRequest] Fail to connect ipc client socket. No such file or directory (2)\n");
    m_Param.SetLogControl(0);
    EXPECT_EQ(Printed([&] { m_Utilities.LogInfo(&m_Param, "%s", "hello"); }), "[info] (exp) hello\n");
}

// ---- Notifications

TEST_F(UtilitiesIpcServerTest, NotificationsCarryTheirFields) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(12); });
    EXPECT_EQ(m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", true, 1ULL << 63, false, 7, true, ~0UL),
              12);
    EXPECT_EQ(m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", false, 0, true, 8, false, 0), 12);
    EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f"), 12);
    EXPECT_EQ(m_Utilities.LogRenameRedirectedFile(&m_Param, "/f", "/g"), 12);
    EXPECT_EQ(m_Utilities.LogWriteRedirectedFile(&m_Param, "/f", 1ULL << 40, 2, 0xffffffffU), 12);
    const std::vector<std::string> vsSeen = client.Messages();
    ASSERT_EQ(vsSeen.size(), 5U);
    const auto expected = [](int iType, std::size_t iLength) {
        return RawCallback(iType, iLength).Text(16, "exp").Text(272, "/f");
    };
    EXPECT_EQ(
        Difference(
            expected(2, 1344).Byte(1296, 1).U64(1304, 1ULL << 63).U64(1320, 7).Byte(1328, 1).U64(1336, ~0UL).Bytes(),
            vsSeen[0]),
        "");
    EXPECT_EQ(Difference(expected(2, 1344).Byte(1312, 1).U64(1320, 8).Bytes(), vsSeen[1]), "");
    EXPECT_EQ(Difference(expected(3, 1296).Bytes(), vsSeen[2]), "");
    EXPECT_EQ(Difference(expected(4, 2320).Text(1296, "/g").Bytes(), vsSeen[3]), "");
    EXPECT_EQ(Difference(expected(5, 1312).U64(1296, 1ULL << 40).I32(1304, 2).I32(1308, -1).Bytes(), vsSeen[4]), "");
}

TEST_F(UtilitiesIpcServerTest, PathsThatJustFitAreToldWhole) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(12); });
    const std::string sFrom = "/" + std::string(1022, 'f');
    const std::string sTo = "/" + std::string(1022, 't');
    EXPECT_EQ(m_Utilities.LogRenameRedirectedFile(&m_Param, sFrom.c_str(), sTo.c_str()), 12);
    ASSERT_EQ(client.Messages().size(), 1U);
    EXPECT_EQ(TextAt(client.Messages()[0], 272, 1024), sFrom);
    EXPECT_EQ(TextAt(client.Messages()[0], 1296, 1024), sTo);
    EXPECT_TRUE(m_Utilities.CanTellOf(&m_Param, sFrom.c_str()));
}

/// A shortened path would be another file of the receiver's.
TEST_F(UtilitiesIpcServerTest, PathsThatDoNotFitAreNotToldAndCountAsMinusOne) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(12); });
    m_Param.SetLogControl(CRuntimeParam::kLogError);
    const std::string sLong = "/" + std::string(1023, 'p');
    const char* pcLong = sLong.c_str();
    const auto line = [](const std::string& sName) {
        return "[erro] (exp) [UtilitiesIpcServer.SendNotification] " + sName +
               " is too long for the remote control (1024 bytes, at most 1023)\n";
    };
    const auto expectRefused = [&](const std::string& sName, const auto& notify) {
        EXPECT_EQ(Printed([&] { EXPECT_EQ(notify(), -1); }), line(sName));
    };
    expectRefused("Path", [&] {
        return m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, pcLong, true, 1, false, 0, false, 0);
    });
    expectRefused("Path", [&] { return m_Utilities.LogRemoveRedirectedFile(&m_Param, pcLong); });
    expectRefused("Old path", [&] { return m_Utilities.LogRenameRedirectedFile(&m_Param, pcLong, "/f"); });
    expectRefused("New path", [&] { return m_Utilities.LogRenameRedirectedFile(&m_Param, "/f", pcLong); });
    expectRefused("Path", [&] { return m_Utilities.LogWriteRedirectedFile(&m_Param, pcLong, 0, 0, 1); });
    EXPECT_FALSE(m_Utilities.CanTellOf(&m_Param, pcLong));
    m_Param.SetID(std::string(256, 'i').c_str());
    m_Param.SetLogControl(0);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(Write(), -1); }), "");
    EXPECT_FALSE(m_Utilities.CanTellOf(&m_Param, "/f"));
    EXPECT_TRUE(client.Messages().empty()) << "nor a line about it";
}

TEST_F(UtilitiesIpcServerTest, AHostOfThisProcessIsToldOfPathsOfAnyLength) {
    m_Host.Log().SetHost([](const Notification&) { return 4; });
    m_Utilities.SetCallback(m_Host.Callback());
    m_Param.SetIpcID("");
    const std::string sLong = "/" + std::string(4000, 'p');
    EXPECT_TRUE(m_Utilities.CanTellOf(&m_Param, sLong.c_str()));
    EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, sLong.c_str()), 4);
    ASSERT_EQ(m_Host.Log().Notifications().size(), 1U);
    EXPECT_EQ(m_Host.Log().Notifications()[0].sPath, sLong);
}

TEST_F(UtilitiesIpcServerTest, AClientThatIsGoneAnswersMinusOne) {
    EXPECT_EQ(Write(), -1);
    EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f"), -1);
    EXPECT_EQ(m_Utilities.LogRenameRedirectedFile(&m_Param, "/f", "/g"), -1);
    EXPECT_EQ(m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", true, 1, false, 0, false, 0), -1);
}

TEST_F(UtilitiesIpcServerTest, ARefusalOfAnOlderClientIsMinusOne) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawTextReply(4, "Unknown callback type (5)"); });
    EXPECT_EQ(Write(), -1);
}

TEST_F(UtilitiesIpcServerTest, ANotificationTakesItsDescriptorFromTheCacheWhenNoneIsLeft) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(12); });
    TempFolder folder;
    LogArgu tag{"Test"};
    for (int i = 0; i < 5; ++i) {
        const std::string sPath = folder / std::to_string(i);
        WriteWholeFile(sPath, "x");
        ASSERT_TRUE(m_Utilities.GetCachedFileHandle(&m_Param, &tag, sPath.c_str(), false).IsOpen());
    }
    std::vector<int> viAll;
    for (int iFile = ::open("/dev/null", O_RDONLY | O_CLOEXEC); iFile != -1;
         iFile = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) {
        viAll.push_back(iFile);
    }
    const int iAnswer = m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f");
    for (const int iFile : viAll) {
        ::close(iFile);
    }
    EXPECT_EQ(iAnswer, 12);
    m_Utilities.CloseAllCachedFileHandles(&m_Param, &tag);
}

TEST_F(UtilitiesIpcServerTest, TheLocalHostIsToldOnlyWhatHasNoRemoteReceiver) {
    m_Host.Log().SetHost([](const Notification&) { return 4; });
    m_Utilities.SetCallback(m_Host.Callback());
    {
        FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(12); });
        EXPECT_EQ(m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", true, 1, false, 0, false, 0), 12);
        EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f"), 12);
        EXPECT_EQ(m_Utilities.LogRenameRedirectedFile(&m_Param, "/f", "/g"), 12);
        EXPECT_EQ(Write(), 12);
    }
    EXPECT_EQ(Write(), -1) << "nor in place of a receiver that is gone";
    EXPECT_TRUE(m_Host.Log().Notifications().empty());

    m_Param.SetIpcID("");
    EXPECT_EQ(m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", true, 1, false, 0, false, 0), 4);
    EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f"), 4);
    EXPECT_EQ(m_Utilities.LogRenameRedirectedFile(&m_Param, "/f", "/g"), 4);
    EXPECT_EQ(Write(), 4);
    ASSERT_EQ(m_Host.Log().Notifications().size(), 4U);
    EXPECT_EQ(m_Host.Log().Notifications()[0].sOperation, "update");
    EXPECT_EQ(m_Host.Log().Notifications()[1].sOperation, "remove");
    EXPECT_EQ(m_Host.Log().Notifications()[2].sOperation, "rename");
    EXPECT_EQ(m_Host.Log().Notifications()[3].sOperation, "write");
}

TEST_F(UtilitiesIpcServerTest, LogLinesAreTheLocalHostsToo) {
    m_Utilities.SetCallback(m_Host.Callback());
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    {
        const CIpcPatience patience;
        m_Utilities.LogInfo(&m_Param, "%s", "hello");
        m_Utilities.LogError(&m_Param, "%s", "oh");
        m_Utilities.LogRaw(&m_Param, "%s", "raw");
    }
    EXPECT_EQ(m_Host.Log().Lines(),
              (std::vector<LogLine>{{'i', "exp", "hello"}, {'e', "exp", "oh"}, {'r', "exp", "raw"}}));
    EXPECT_EQ(client.Messages().size(), 3U);
}

// ---- Receivers that hang

TEST_F(UtilitiesIpcServerTest, TheStatedLimitIsThirtySeconds) {
    EXPECT_EQ(CUtilitiesIpcServer::kCallbackTimeout, std::chrono::seconds(30));
}

TEST_F(UtilitiesIpcServerTest, AReceiverThatDoesNotAnswerCountsAsNotAnswered) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    client.Hang();
    m_Utilities.SetCallbackTimeout(milliseconds(100));
    const auto start = steady_clock::now();
    EXPECT_EQ(Write(), -1);
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
}

TEST_F(UtilitiesIpcServerTest, AReceiverThatDidNotAnswerIsAnsweredForAtOnce) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    client.Hang();
    m_Utilities.SetCallbackTimeout(milliseconds(500));
    m_Param.SetLogControl(CRuntimeParam::kLogError);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(Write(), -1); }),
              "[erro] (exp) [IpcClient.SendRequest] Fail to read ipc server reply. Connection timed out (110)\n");
    const auto start = steady_clock::now();
    EXPECT_EQ(
        Printed([&] { EXPECT_EQ(Write(), -1); }),
        "[erro] (exp) [UtilitiesIpcServer.SendNotification] \"client\" has not answered in time, and is not asked "
        "again until it does\n");
    Printed([&] {
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(Write(), -1);
        }
    });
    EXPECT_LT(steady_clock::now() - start, milliseconds(100 * 500)) << "a hundred must not wait a hundred times";
    EXPECT_EQ(client.Messages().size(), 1U);
}

TEST_F(UtilitiesIpcServerTest, AReceiverThatAnswersLateIsAskedAgain) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    client.Hang();
    m_Utilities.SetCallbackTimeout(milliseconds(300));
    EXPECT_EQ(Write(), -1);
    client.Recover();
    EXPECT_TRUE(WaitUntil([&] { return Write() == 3; }));
}

TEST_F(UtilitiesIpcServerTest, AReceiverThatWasStartedAgainIsAskedAtOnce) {
    m_Utilities.SetCallbackTimeout(milliseconds(300));
    {
        FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
        client.Hang();
        EXPECT_EQ(Write(), -1);
    }
    m_Utilities.SetCallbackTimeout(CUtilitiesIpcServer::kCallbackTimeout);
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    EXPECT_EQ(Write(), 3);
}

TEST_F(UtilitiesIpcServerTest, LinesThatAReceiverMissedWhileItHungAreCounted) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    client.Hang();
    m_Utilities.SetCallbackTimeout(milliseconds(300));
    m_Utilities.SetCallback(m_Host.Callback());  // takes the lines here
    {
        const CIpcPatience patience;
        SendLine("on its way when the time is over");
    }
    for (int i = 0; i < 10; ++i) {
        SendLine("dropped");
    }
    EXPECT_EQ(client.Messages().size(), 1U);
    client.Recover();
    EXPECT_TRUE(WaitUntil([&] { return Write() == 3; }));
    SendLine("heard");
    ASSERT_TRUE(WaitUntil([&] { return TextAt(client.Messages().back(), 272, 2048) == "heard"; }));
    std::vector<std::string> vsTexts;
    for (const std::string& sMessage : client.Messages()) {
        if (I32At(sMessage, 4) == 1) {
            vsTexts.push_back(TextAt(sMessage, 272, 2048));
        }
    }
    EXPECT_EQ(vsTexts,
              (std::vector<std::string>{
                  "on its way when the time is over",
                  "[UtilitiesIpcServer.SendLogMessage] Dropped 10 log lines that were not taken in time", "heard"}));
}

TEST_F(UtilitiesIpcServerTest, WhoLogsNeverWaitsForTheReceiver) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    client.Hang();
    m_Utilities.SetCallback(m_Host.Callback());
    const auto start = steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        SendLine("line");
    }
    EXPECT_LT(steady_clock::now() - start, CUtilitiesIpcServer::kCallbackTimeout / 2);
    EXPECT_TRUE(client.WaitForMessages(1));
}

/// The thread of the lines ends with the registries; the test's limit for it is loose, the 30 seconds are not waited.
TEST_F(UtilitiesIpcServerTest, LinesThatNobodyTakesDoNotHoldUpTheEnd) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    client.Hang();
    auto pUtilities = std::make_unique<CUtilitiesIpcServer>();
    pUtilities->SetCallback(m_Host.Callback());
    for (int i = 0; i < 10; ++i) {
        pUtilities->LogInfo(&m_Param, "%s", "line");
    }
    ASSERT_TRUE(client.WaitForMessages(1));
    const auto start = steady_clock::now();
    pUtilities.reset();
    EXPECT_LT(steady_clock::now() - start, CUtilitiesIpcServer::kCallbackTimeout / 2);
}

TEST_F(UtilitiesIpcServerTest, LinesThatAreTakenAreAllSentBeforeTheEnd) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    auto pUtilities = std::make_unique<CUtilitiesIpcServer>();
    pUtilities->SetCallback(m_Host.Callback());
    for (int i = 0; i < 10; ++i) {
        pUtilities->LogInfo(&m_Param, "%d", i);
    }
    pUtilities.reset();
    ASSERT_EQ(client.Messages().size(), 10U);
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(TextAt(client.Messages()[i], 272, 2048), std::to_string(i));
    }
}

TEST_F(UtilitiesIpcServerTest, AReceiverThatHangsHoldsUpNoLinesOfOthers) {
    FakeIpcServer hung("/tmp/nfs-hung", [](const std::string&) { return RawBoolReply(true); });
    hung.Hang();
    FakeIpcServer client(kChannel, [](const std::string&) { return RawBoolReply(true); });
    m_Utilities.SetCallback(m_Host.Callback());
    CRuntimeParam hungParam("exp", 0);
    hungParam.SetIpcID("hung");
    m_Utilities.LogInfo(&hungParam, "%s", "line");
    ASSERT_TRUE(hung.WaitForMessages(1));
    for (int i = 0; i < 100; ++i) {
        SendLine("line");
    }
    EXPECT_TRUE(client.WaitForMessages(100, CUtilitiesIpcServer::kCallbackTimeout / 2));
}

TEST_F(UtilitiesIpcServerTest, ANotificationComesAfterTheLinesBeforeIt) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    m_Utilities.SetCallback(m_Host.Callback());
    for (int i = 0; i < 5; ++i) {
        SendLine("before");
    }
    EXPECT_EQ(Write(), 3);
    ASSERT_GE(client.Messages().size(), 1U);
    EXPECT_EQ(I32At(client.Messages().back(), 4), 5) << "all but a machine in great need sends five lines in 100 ms";
    EXPECT_EQ(client.Messages().size(), 6U);
}

TEST_F(UtilitiesIpcServerTest, ANotificationBehindALineThatIsNotAnsweredSharesItsWait) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    client.Hang();
    m_Utilities.SetCallbackTimeout(milliseconds(500));
    m_Utilities.SetCallback(m_Host.Callback());
    SendLine("line");
    ASSERT_TRUE(client.WaitForMessages(1));
    EXPECT_EQ(Write(), -1);
    EXPECT_EQ(client.Messages().size(), 1U) << "nothing more was sent";
}

TEST_F(UtilitiesIpcServerTest, AHurryEndsTheWaitForAnAnswer) {
    FakeIpcServer client(kChannel, [](const std::string&) { return RawIntReply(3); });
    client.Hang();
    const auto start = steady_clock::now();
    std::thread asking([&] { EXPECT_EQ(Write(), -1); });
    EXPECT_TRUE(client.WaitForMessages(1));
    m_Utilities.BeginHurry();
    asking.join();
    EXPECT_LT(steady_clock::now() - start, CUtilitiesIpcServer::kCallbackTimeout / 2);
    client.Recover();
    EXPECT_TRUE(WaitUntil([&] { return Write() == 3; })) << "who answers is asked in a hurry, too";
    m_Utilities.EndHurry();
}

/// A line of a search that nobody takes must not lock the exports, nor the descriptor cache, against everybody else.
TEST_F(UtilitiesIpcServerTest, AReceiverThatHangsHoldsNoLockOfARegistry) {
    TempFolder folder;
    const std::string sPath = folder / "file";
    WriteWholeFile(sPath, "x");
    CRuntimeParam quiet("other", 0);
    LogArgu tag{"Test"};
    ASSERT_TRUE(m_Utilities.AddMountInfo(&quiet, &tag, folder.Path().c_str(), "exp", "", nullptr));
    m_Param.SetLogControl(CRuntimeParam::kLogGeneralInfo | CRuntimeParam::kLogFileAccess);
    auto pClient = std::make_unique<FakeIpcServer>(kChannel, [](const std::string&) { return RawBoolReply(true); });
    pClient->Hang();
    testing::internal::CaptureStdout();
    std::thread held([&] { m_Utilities.GetCachedFileHandle(&m_Param, &tag, sPath.c_str(), false); });
    EXPECT_TRUE(pClient->WaitForMessages(1));
    const auto start = steady_clock::now();
    EXPECT_EQ(m_Utilities.GetMountInfo(&quiet, false, false), 1);
    EXPECT_TRUE(m_Utilities.GetMountInfoByPath(&quiet, &tag, sPath.c_str(), nullptr));
    EXPECT_TRUE(m_Utilities.GetCachedFileHandle(&quiet, &tag, sPath.c_str(), false).IsOpen());
    held.join();
    EXPECT_LT(steady_clock::now() - start, CUtilitiesIpcServer::kCallbackTimeout / 2);
    m_Utilities.CloseAllCachedFileHandles(&quiet, &tag);
    testing::internal::GetCapturedStdout();
}

// ---- Threads

TEST_F(UtilitiesIpcServerTest, CallbacksFromManyThreadsReachTheirOwnClients) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 25;
    std::vector<std::unique_ptr<FakeIpcServer>> vClients;
    for (int i = 0; i < kThreads; ++i) {
        vClients.push_back(std::make_unique<FakeIpcServer>("/tmp/nfs-c" + std::to_string(i),
                                                           [i](const std::string&) { return RawIntReply(i); }));
    }
    std::vector<std::thread> vThreads;
    for (int i = 0; i < kThreads; ++i) {
        vThreads.emplace_back([&, i] {
            CRuntimeParam param("exp", 0);
            param.SetIpcID(("c" + std::to_string(i)).c_str());
            for (int n = 0; n < kRounds; ++n) {
                EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&param, ("/" + std::to_string(i)).c_str()), i);
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    for (int i = 0; i < kThreads; ++i) {
        const std::vector<std::string> vsSeen = vClients[static_cast<std::size_t>(i)]->Messages();
        EXPECT_EQ(vsSeen.size(), static_cast<std::size_t>(kRounds));
        for (const std::string& sSeen : vsSeen) {
            EXPECT_EQ(TextAt(sSeen, 272, 1024), "/" + std::to_string(i));
        }
    }
}

}  // namespace
