// How one learns that a receiver that did not answer is back.
#include "IpcSilence.h"

#include <memory>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "IpcMessages.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "WaitUntil.h"

namespace {

constexpr char kChannel[] = "/tmp/nfs-quiet";

class IpcSilenceTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pReceiver = MakeReceiver();
        m_pReceiver->Hang();
    }
    static std::unique_ptr<FakeIpcServer> MakeReceiver() {
        return std::make_unique<FakeIpcServer>(kChannel, [](const std::string&) { return RawIntReply(1); });
    }
    /// A callback was sent, and not answered.
    CIpcSilence Ask() {
        const auto file = FindIpcChannelFile(kChannel);
        CIpcSocket connection;
        EXPECT_EQ(connection.Create(), 0);
        EXPECT_EQ(connection.TryConnect(kChannel), 0);
        IpcDataBuf callback{};
        callback.lDataLen = 16;
        long iSent = 0;
        EXPECT_EQ(connection.Send(callback, &iSent), 0);
        return {kChannel, file, std::move(connection)};
    }
    LeakGuard m_Leaks;
    std::unique_ptr<FakeIpcServer> m_pReceiver;
};

TEST_F(IpcSilenceTest, ALateAnswerEndsIt) {
    CIpcSilence silence = Ask();
    EXPECT_TRUE(m_pReceiver->WaitForMessages(1));
    EXPECT_FALSE(silence.HasEnded());
    m_pReceiver->Recover();
    EXPECT_TRUE(WaitUntil([&] { return silence.HasEnded(); }));
}

TEST_F(IpcSilenceTest, TheReceiversEndEndsIt) {
    CIpcSilence silence = Ask();
    EXPECT_TRUE(m_pReceiver->WaitForMessages(1));
    m_pReceiver.reset();
    EXPECT_TRUE(silence.HasEnded());
}

/// The one that hangs may still have the connection.
TEST_F(IpcSilenceTest, AnotherSocketUnderTheChannelsNameEndsIt) {
    CIpcSilence silence = Ask();
    EXPECT_TRUE(m_pReceiver->WaitForMessages(1));
    ASSERT_EQ(::unlink(kChannel), 0);
    const auto pOther = MakeReceiver();
    EXPECT_TRUE(silence.HasEnded());
}

/// There is no connection then on which an answer could come.
TEST_F(IpcSilenceTest, RoomInAFullQueueEndsIt) {
    m_pReceiver.reset();
    const CDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address;
    ASSERT_EQ(CIpcSocket::MakeAddress(kChannel, &address), 0);
    ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener.Get(), 0), 0);
    CIpcSocket first;
    ASSERT_EQ(first.Create(), 0);
    ASSERT_EQ(first.TryConnect(kChannel), 0);
    CIpcSilence silence(kChannel, FindIpcChannelFile(kChannel), CIpcSocket());
    EXPECT_FALSE(silence.HasEnded());
    EXPECT_FALSE(silence.HasEnded());
    const CDescriptor accepted(::accept(listener.Get(), nullptr, nullptr));
    EXPECT_TRUE(silence.HasEnded());
    ::unlink(kChannel);
}

/// Nobody can be reached through a socket's file alone, which one that was killed leaves behind.
TEST_F(IpcSilenceTest, OfAnAbsentOneItEndsWhenItCanBeReached) {
    m_pReceiver.reset();
    CIpcSilence nowhere = CIpcSilence::OfAbsent(kChannel, FindIpcChannelFile(kChannel));
    EXPECT_TRUE(nowhere.IsAbsence());
    EXPECT_FALSE(nowhere.HasEnded());
    const CDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address;
    ASSERT_EQ(CIpcSocket::MakeAddress(kChannel, &address), 0);
    ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_TRUE(nowhere.HasEnded()) << "there is a file now";
    CIpcSilence deaf = CIpcSilence::OfAbsent(kChannel, FindIpcChannelFile(kChannel));
    EXPECT_FALSE(deaf.HasEnded());
    EXPECT_FALSE(deaf.HasEnded());
    ASSERT_EQ(::listen(listener.Get(), 0), 0);
    EXPECT_TRUE(deaf.HasEnded());
    ::unlink(kChannel);
}

}  // namespace
