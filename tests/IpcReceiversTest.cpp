// Who answers, whose turn it is, and the lines that wait: without anything being sent.
#include "IpcReceivers.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "IpcMessages.h"
#include "IpcPatience.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// No wait here comes near it, and a wait that never ends fails the test.
constexpr seconds kLong{15};

IpcLine Line(const std::string& sText) {
    return {"exp", 0, sText, kIpcLogInfo};
}

/// A callback's connection whose other end says nothing until it is told to.
class QuietPeer {
public:
    QuietPeer() {
        int viEnds[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, viEnds), 0);
        m_Own = CDescriptor(viEnds[0]);
        m_iOther = viEnds[1];
    }
    ~QuietPeer() {
        if (m_iOther != -1) {
            ::close(m_iOther);
        }
    }
    QuietPeer(const QuietPeer&) = delete;
    QuietPeer& operator=(const QuietPeer&) = delete;

    /// For a channel that has no file.
    CIpcSilence TakeSilence() { return {"/nonexistent/channel", std::nullopt, CIpcSocket(std::move(m_Own))}; }
    void Answer() { EXPECT_EQ(::send(m_iOther, "x", 1, MSG_NOSIGNAL), 1); }

private:
    CDescriptor m_Own;
    int m_iOther = -1;
};

class IpcReceiversTest : public testing::Test {
protected:
    /// The text of the line whose turn it is, "" without one; the turn ends at once.
    std::string Take() {
        auto next = m_Receivers.TakeLine();
        return next ? next->line.sMessage : "";
    }
    void MakeSilent(const std::string& sIpcID, QuietPeer& peer) {
        auto turn = m_Receivers.BeginNotification(sIpcID);
        ASSERT_TRUE(turn);
        turn->NotAnswered(peer.TakeSilence());
    }
    /// By the next line for it, which is not sent.
    void MakeAbsent(const std::string& sIpcID, const char* pcChannel) {
        auto next = m_Receivers.TakeLine();
        ASSERT_TRUE(next);
        ASSERT_EQ(next->turn.GetIpcID(), sIpcID);
        next->turn.NotReached(CIpcSilence::OfAbsent(pcChannel, FindIpcChannelFile(pcChannel)), next->line);
    }
    bool IsSilent(const std::string& sIpcID) { return !m_Receivers.BeginNotification(sIpcID); }
    void Fill() {
        for (std::size_t i = 0; i < CIpcReceivers::kMaxLines; ++i) {
            m_Receivers.Queue("a", Line("line"));
        }
    }

    CIpcReceivers m_Receivers;
};

// ---- Turns

TEST_F(IpcReceiversTest, LinesAreTakenInTheirOrder) {
    m_Receivers.Queue("a", Line("one"));
    m_Receivers.Queue("a", Line("two"));
    EXPECT_EQ(Take(), "one");
    EXPECT_EQ(Take(), "two");
    EXPECT_EQ(Take(), "");
}

TEST_F(IpcReceiversTest, NoReceiverIsPassedOverForTheManyLinesOfAnother) {
    for (const char* pcText : {"a1", "a2", "a3"}) {
        m_Receivers.Queue("a", Line(pcText));
    }
    m_Receivers.Queue("b", Line("b1"));
    m_Receivers.Queue("c", Line("c1"));
    std::string sOrder;
    for (std::string sText = Take(); !sText.empty(); sText = Take()) {
        sOrder += sText + " ";
    }
    EXPECT_EQ(sOrder, "a1 b1 c1 a2 a3 ");
}

TEST_F(IpcReceiversTest, AReceiverGetsOneCallbackAtATimeAndHoldsUpNoOther) {
    m_Receivers.Queue("a", Line("a1"));
    m_Receivers.Queue("a", Line("a2"));
    m_Receivers.Queue("b", Line("b1"));
    {
        const auto first = m_Receivers.TakeLine();
        ASSERT_TRUE(first);
        EXPECT_EQ(first->line.sMessage, "a1");
        EXPECT_EQ(first->turn.GetIpcID(), "a");
        const auto other = m_Receivers.TakeLine();
        ASSERT_TRUE(other);
        EXPECT_EQ(other->line.sMessage, "b1");
        EXPECT_FALSE(m_Receivers.TakeLine());
        EXPECT_TRUE(m_Receivers.BeginNotification("c"));
    }
    EXPECT_EQ(Take(), "a2");
}

TEST_F(IpcReceiversTest, ANotificationWaitsForTheLinesBeforeItAndHasThoseBehindItWait) {
    m_Receivers.Queue("a", Line("before"));
    auto line = std::make_unique<std::optional<CIpcReceivers::NextLine>>(m_Receivers.TakeLine());
    ASSERT_TRUE(*line);
    std::atomic<bool> bTurn{false};
    std::optional<CIpcReceivers::Turn> turn;
    std::thread asking([&] {
        auto got = m_Receivers.BeginNotification("a");
        ASSERT_TRUE(got);
        turn.emplace(std::move(*got));
        bTurn = true;
    });
    std::this_thread::sleep_for(CIpcReceivers::kLinesFirst + milliseconds(100));
    m_Receivers.Queue("a", Line("behind"));
    EXPECT_FALSE(m_Receivers.TakeLine());
    EXPECT_FALSE(bTurn) << "the line is under way";
    line.reset();
    asking.join();
    EXPECT_FALSE(m_Receivers.TakeLine()) << "the notification is under way";
    turn.reset();
    EXPECT_EQ(Take(), "behind");
}

TEST_F(IpcReceiversTest, ANotificationDoesNotWaitLongForLinesThatNobodyTakes) {
    m_Receivers.Queue("a", Line("line"));
    const auto start = steady_clock::now();
    const auto turn = m_Receivers.BeginNotification("a");
    EXPECT_TRUE(turn);
    EXPECT_GE(steady_clock::now() - start, CIpcReceivers::kLinesFirst);
    EXPECT_LT(steady_clock::now() - start, kLong);
}

// ---- Silence

TEST_F(IpcReceiversTest, ASilentReceiverGetsNoTurnUntilItAnswers) {
    QuietPeer peer;
    MakeSilent("a", peer);
    EXPECT_TRUE(IsSilent("a"));
    EXPECT_TRUE(IsSilent("a")) << "asking is no answer";
    EXPECT_FALSE(IsSilent("b"));
    peer.Answer();
    EXPECT_FALSE(IsSilent("a"));
    EXPECT_FALSE(IsSilent("a"));
}

TEST_F(IpcReceiversTest, WhoWaitsForATurnLearnsOfTheSilence) {
    QuietPeer peer;
    m_Receivers.Queue("a", Line("line"));
    auto line = std::make_unique<std::optional<CIpcReceivers::NextLine>>(m_Receivers.TakeLine());
    std::deque<WaitingThread> asking;
    for (int i = 0; i < 3; ++i) {
        asking.emplace_back([&] { EXPECT_FALSE(m_Receivers.BeginNotification("a")); });
        EXPECT_TRUE(asking.back().WaitUntilWaiting());
    }
    const auto start = steady_clock::now();
    (*line)->turn.NotAnswered(peer.TakeSilence());
    line.reset();
    asking.clear();
    EXPECT_LT(steady_clock::now() - start, kLong);
}

TEST_F(IpcReceiversTest, LinesForASilentReceiverAreDroppedAndTheNextOneStandsBehindTheirNumber) {
    QuietPeer peer;
    m_Receivers.Queue("a", Line("queued before"));
    MakeSilent("a", peer);
    m_Receivers.Queue("a", Line("queued in silence"));
    EXPECT_FALSE(m_Receivers.TakeLine());
    peer.Answer();
    m_Receivers.Queue("a", Line("heard"));
    {
        const auto notice = m_Receivers.TakeLine();
        ASSERT_TRUE(notice);
        EXPECT_EQ(notice->line.sMessage,
                  "[UtilitiesIpcServer.SendLogMessage] Dropped 2 log lines that were not taken in time");
        EXPECT_EQ(notice->line.sID, "exp");
        EXPECT_EQ(notice->line.iType, kIpcLogError);
    }
    EXPECT_EQ(Take(), "heard");
    EXPECT_EQ(Take(), "");
}

TEST_F(IpcReceiversTest, OfTooManySilentReceiversTheFirstIsAskedAgain) {
    std::vector<std::unique_ptr<QuietPeer>> vPeers;
    for (std::size_t i = 0; i <= CIpcReceivers::kMaxSilent; ++i) {
        vPeers.push_back(std::make_unique<QuietPeer>());
        MakeSilent("r" + std::to_string(i), *vPeers.back());
    }
    EXPECT_FALSE(IsSilent("r0"));
    for (std::size_t i = 1; i <= CIpcReceivers::kMaxSilent; ++i) {
        EXPECT_TRUE(IsSilent("r" + std::to_string(i))) << i;
    }
}

// ---- Absence

TEST_F(IpcReceiversTest, LinesForAnAbsentReceiverAreCountedAndNotTried) {
    m_Receivers.Queue("a", Line("one"));
    m_Receivers.Queue("a", Line("two"));
    MakeAbsent("a", "/nonexistent/channel");
    m_Receivers.Queue("a", Line("three"));
    EXPECT_FALSE(m_Receivers.TakeLine()) << "nor is it told, for as long as it is not there";
    EXPECT_EQ(m_Receivers.BeginNotification("a").has_value(), true) << "it fails at once by itself";
    EXPECT_FALSE(m_Receivers.TakeLine());
    m_Receivers.Queue("b", Line("of another"));
    EXPECT_EQ(Take(), "of another");
}

TEST_F(IpcReceiversTest, AnAbsentReceiverThatIsBackIsToldHowManyLinesItMissed) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    constexpr char kChannel[] = "/tmp/nfs-a";
    m_Receivers.Queue("a", Line("one"));
    m_Receivers.Queue("a", Line("two"));
    MakeAbsent("a", kChannel);
    m_Receivers.Queue("a", Line("three"));
    {
        const FakeIpcServer back(kChannel, [](const std::string&) { return RawBoolReply(true); });
        m_Receivers.Queue("a", Line("heard"));
        EXPECT_EQ(Take(), "[UtilitiesIpcServer.SendLogMessage] Dropped 3 log lines that were not taken in time");
        EXPECT_EQ(Take(), "heard");
    }
    EXPECT_EQ(Take(), "");
}

/// What tells of dropped lines stands for them all.
TEST_F(IpcReceiversTest, WhatCouldNotBeToldOfDroppedLinesIsToldLater) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    constexpr char kChannel[] = "/tmp/nfs-a";
    Fill();
    for (int i = 0; i < 5; ++i) {
        m_Receivers.Queue("a", Line("too many"));
    }
    for (std::size_t i = 0; i < CIpcReceivers::kMaxLines; ++i) {
        ASSERT_EQ(Take(), "line");
    }
    MakeAbsent("a", kChannel);  // by the line that tells it
    const FakeIpcServer back(kChannel, [](const std::string&) { return RawBoolReply(true); });
    m_Receivers.Queue("a", Line("heard"));
    EXPECT_EQ(Take(), "[UtilitiesIpcServer.SendLogMessage] Dropped 5 log lines that were not taken in time");
    EXPECT_EQ(Take(), "heard");
}

TEST_F(IpcReceiversTest, OfTooManyAbsentReceiversTheFirstIsForgottenAndNoSilentOne) {
    QuietPeer peer;
    MakeSilent("silent", peer);
    for (std::size_t i = 0; i <= CIpcReceivers::kMaxAbsent; ++i) {
        m_Receivers.Queue("r" + std::to_string(i), Line("line"));
        MakeAbsent("r" + std::to_string(i), "/nonexistent/channel");
    }
    EXPECT_TRUE(IsSilent("silent"));
    m_Receivers.Queue("r1", Line("dropped"));
    EXPECT_FALSE(m_Receivers.TakeLine());
    m_Receivers.Queue("r0", Line("tried"));
    EXPECT_EQ(Take(), "tried");
}

// ---- The bound

TEST_F(IpcReceiversTest, AFullQueueDropsLinesAndSaysHowMany) {
    Fill();
    for (int i = 0; i < 3; ++i) {
        m_Receivers.Queue("a", Line("too many"));
    }
    m_Receivers.Queue("b", Line("of another"));
    EXPECT_EQ(Take(), "line");
    EXPECT_EQ(Take(), "of another");
    EXPECT_EQ(Take(), "line");
    m_Receivers.Queue("a", Line("after"));
    for (std::size_t i = 2; i < CIpcReceivers::kMaxLines; ++i) {
        ASSERT_EQ(Take(), "line");
    }
    EXPECT_EQ(Take(), "[UtilitiesIpcServer.SendLogMessage] Dropped 3 log lines that were not taken in time");
    EXPECT_EQ(Take(), "after");
}

TEST_F(IpcReceiversTest, WhatWasDroppedIsSaidWithoutAnotherLineToo) {
    Fill();
    m_Receivers.Queue("a", Line("too many"));
    for (std::size_t i = 0; i < CIpcReceivers::kMaxLines; ++i) {
        ASSERT_EQ(Take(), "line");
    }
    EXPECT_EQ(Take(), "[UtilitiesIpcServer.SendLogMessage] Dropped 1 log lines that were not taken in time");
    EXPECT_EQ(Take(), "");
}

TEST_F(IpcReceiversTest, LongLinesFillAQueueToo) {
    const std::string sLong(2047, 'l');
    std::size_t nTaken = 0;
    for (int i = 0; i < 2000; ++i) {
        m_Receivers.Queue("a", Line(sLong));
    }
    while (Take() == sLong) {
        ++nTaken;
    }
    EXPECT_LE(nTaken * sLong.size(), CIpcReceivers::kMaxBytes);
    EXPECT_GE(nTaken, 400U);
}

TEST_F(IpcReceiversTest, AllReceiversTogetherAreBoundedToo) {
    const std::string sLong(2047, 'l');
    std::size_t nTaken = 0;
    for (int iReceiver = 0; iReceiver < 40; ++iReceiver) {
        for (int i = 0; i < 500; ++i) {
            m_Receivers.Queue("r" + std::to_string(iReceiver), Line(sLong));
        }
    }
    for (std::string sText = Take(); !sText.empty(); sText = Take()) {
        nTaken += sText == sLong ? 1 : 0;
    }
    EXPECT_LE(nTaken * sLong.size(), CIpcReceivers::kMaxAllBytes);
    EXPECT_GE(nTaken, 7000U);
    m_Receivers.Queue("r0", Line("room again"));
    EXPECT_EQ(Take(), "room again");
}

// ---- Patience

TEST_F(IpcReceiversTest, APatientThreadWaitsForRoomAndForItsLines) {
    Fill();
    std::thread patient([&] {
        const CIpcPatience patience;
        m_Receivers.Queue("a", Line("waited for"));
    });
    for (std::size_t i = 0; i < CIpcReceivers::kMaxLines; ++i) {
        ASSERT_EQ(Take(), "line");
    }
    std::string sLast;
    EXPECT_TRUE(WaitUntil([&] {
        sLast = Take();
        return !sLast.empty();
    }));
    EXPECT_EQ(sLast, "waited for");
    patient.join();
}

TEST_F(IpcReceiversTest, APatientThreadDoesNotWaitForTheRoomThatOthersTake) {
    const std::string sLong(2047, 'l');
    for (int iReceiver = 0; iReceiver < 40; ++iReceiver) {
        for (int i = 0; i < 500; ++i) {
            m_Receivers.Queue("r" + std::to_string(iReceiver), Line(sLong));
        }
    }
    const auto start = steady_clock::now();
    std::atomic<bool> bOver{false};
    std::thread patient([&] {
        const CIpcPatience patience;
        m_Receivers.Queue("a", Line("of one that others leave no room"));
        bOver = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return bOver.load(); }, kLong));
    m_Receivers.BeginHurry();  // nor would it ever get its line: nobody takes any
    patient.join();
    m_Receivers.EndHurry();
    EXPECT_LT(steady_clock::now() - start, kLong);
    std::string sText;
    do {
        sText = Take();
    } while (!sText.empty() && sText != "of one that others leave no room");
    EXPECT_NE(sText, "") << "it was dropped";
}

TEST_F(IpcReceiversTest, LinesAreWaitedForUntilTheLastIsAnswered) {
    m_Receivers.Queue("a", Line("line"));
    std::atomic<bool> bOver{false};
    auto line = std::make_unique<std::optional<CIpcReceivers::NextLine>>(m_Receivers.TakeLine());
    WaitingThread waiting([&] {
        EXPECT_TRUE(m_Receivers.WaitForLines("a"));
        bOver = true;
    });
    EXPECT_TRUE(waiting.WaitUntilWaiting());
    EXPECT_FALSE(bOver);
    line.reset();
    waiting.Join();
    EXPECT_TRUE(m_Receivers.WaitForLines("a"));
    EXPECT_TRUE(m_Receivers.WaitForLines("never heard of"));
}

TEST_F(IpcReceiversTest, NobodyWaitsForTheLinesOfASilentReceiver) {
    QuietPeer peer;
    m_Receivers.Queue("a", Line("line"));
    WaitingThread waiting([&] { EXPECT_FALSE(m_Receivers.WaitForLines("a")); });
    EXPECT_TRUE(waiting.WaitUntilWaiting());
    const auto start = steady_clock::now();
    MakeSilent("a", peer);
    waiting.Join();
    {
        const CIpcPatience patience;
        m_Receivers.Queue("a", Line("line"));
    }
    EXPECT_LT(steady_clock::now() - start, kLong);
}

/// It may be what the receiver asked for before it answers.
TEST_F(IpcReceiversTest, LinesAreNotWaitedForLongWhileTheirReceiverHasANotificationInHand) {
    const auto turn = m_Receivers.BeginNotification("a");
    ASSERT_TRUE(turn);
    m_Receivers.Queue("a", Line("line"));
    const auto start = steady_clock::now();
    EXPECT_FALSE(m_Receivers.WaitForLines("a"));
    EXPECT_LT(steady_clock::now() - start, kLong);
}

// ---- Stopping

TEST_F(IpcReceiversTest, AHurryEndsEveryWait) {
    m_Receivers.Queue("a", Line("line"));
    const auto line = m_Receivers.TakeLine();
    WaitingThread waiting([&] { EXPECT_FALSE(m_Receivers.WaitForLines("a")); });
    WaitingThread asking([&] { EXPECT_FALSE(m_Receivers.BeginNotification("a")); });
    EXPECT_TRUE(waiting.WaitUntilWaiting());
    EXPECT_TRUE(asking.WaitUntilWaiting());
    const auto start = steady_clock::now();
    m_Receivers.BeginHurry();
    m_Receivers.BeginHurry();
    m_Receivers.EndHurry();
    waiting.Join();
    asking.Join();
    EXPECT_LT(steady_clock::now() - start, kLong);
    m_Receivers.EndHurry();
}

TEST_F(IpcReceiversTest, ManyThreadsAgreeOnTurns) {
    constexpr int kLines = 300;
    std::atomic<int> nUnderWay{0};
    std::atomic<bool> bStop{false};
    int nLines = 0;
    std::thread taking([&] {
        while (!bStop || nLines < 2 * kLines) {
            if (const auto next = m_Receivers.TakeLine()) {
                EXPECT_EQ(++nUnderWay, 1);
                ++nLines;
                --nUnderWay;
            } else {
                std::this_thread::yield();
            }
        }
    });
    std::vector<std::thread> vOthers;
    for (int i = 0; i < 2; ++i) {
        vOthers.emplace_back([&] {
            for (int n = 0; n < kLines; ++n) {
                m_Receivers.Queue("a", Line("line"));
            }
        });
        vOthers.emplace_back([&] {
            for (int n = 0; n < kLines; ++n) {
                const auto turn = m_Receivers.BeginNotification("a");
                EXPECT_TRUE(turn);
                EXPECT_EQ(++nUnderWay, 1);
                --nUnderWay;
            }
        });
    }
    for (std::thread& other : vOthers) {
        other.join();
    }
    bStop = true;
    taking.join();
    EXPECT_EQ(nLines, 2 * kLines);
}

}  // namespace
