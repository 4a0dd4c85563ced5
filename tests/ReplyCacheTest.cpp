// Replies to repeated datagrams: what is found again, how long, and how much is kept.
#include "ReplyCache.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

class ReplyCacheTest : public testing::Test {
protected:
    using Clock = CReplyCache::Clock;

    static CReplyCache::Datagram From(std::string_view sBytes, int iPort = 700,
                                      std::string_view sAddress = "10.0.0.1") {
        return {sAddress, iPort, sBytes};
    }
    std::string Find(const CReplyCache::Datagram& datagram, Clock::duration after = 0s) {
        const std::string* psReply = m_Cache.Find(datagram, m_Start + after);
        return psReply == nullptr ? "none" : *psReply;
    }

    const Clock::time_point m_Start{100h};
    CReplyCache m_Cache;
};

}  // namespace

TEST_F(ReplyCacheTest, AReplyIsFoundByAddressPortAndEveryByte) {
    m_Cache.Add(From("call one"), "reply", m_Start);
    EXPECT_EQ(Find(From("call one")), "reply");
    EXPECT_EQ(Find(From("call one")), "reply") << "as often as it is asked for";
    EXPECT_EQ(Find(From("call two")), "none");
    EXPECT_EQ(Find(From("call on")), "none");
    EXPECT_EQ(Find(From("call one\0")), "reply");
    EXPECT_EQ(Find(From(std::string_view("call one\0", 9))), "none");
    EXPECT_EQ(Find(From("call one", 701)), "none");
    EXPECT_EQ(Find(From("call one", 700, "10.0.0.2")), "none");
    EXPECT_EQ(Find(From("")), "none");
}

TEST_F(ReplyCacheTest, BytesAreComparedInFull) {
    std::string sCall(20000, 'x');
    m_Cache.Add(From(sCall), "reply", m_Start);
    sCall.back() = 'y';
    EXPECT_EQ(Find(From(sCall)), "none");
    sCall.back() = 'x';
    EXPECT_EQ(Find(From(sCall)), "reply");
}

TEST_F(ReplyCacheTest, AReplyIsForgottenSomeSecondsAfterItWasLastUsed) {
    m_Cache.Add(From("call"), "reply", m_Start);
    EXPECT_EQ(Find(From("call"), CReplyCache::kLifetime), "reply");
    EXPECT_EQ(Find(From("call"), 2 * CReplyCache::kLifetime), "reply");
    EXPECT_EQ(Find(From("call"), 3 * CReplyCache::kLifetime + 1ms), "none");
    EXPECT_EQ(m_Cache.GetCount(), 0U);
    EXPECT_EQ(m_Cache.GetBytes(), 0U);
}

TEST_F(ReplyCacheTest, ExpiredRepliesMakeRoomWhenOthersCome) {
    m_Cache.Add(From("old"), "reply", m_Start);
    m_Cache.Add(From("new"), "reply", m_Start + CReplyCache::kLifetime + 1ms);
    EXPECT_EQ(m_Cache.GetCount(), 1U);
    EXPECT_EQ(m_Cache.GetBytes(), 8U);
}

TEST_F(ReplyCacheTest, TheRepliesThatWereNotUsedLongestGiveWay) {
    for (std::size_t i = 0; i < CReplyCache::kMaxReplies; ++i) {
        m_Cache.Add(From("call " + std::to_string(i)), std::to_string(i), m_Start);
    }
    EXPECT_EQ(m_Cache.GetCount(), CReplyCache::kMaxReplies);
    EXPECT_EQ(Find(From("call 0")), "0");
    m_Cache.Add(From("one more"), "reply", m_Start);
    EXPECT_EQ(m_Cache.GetCount(), CReplyCache::kMaxReplies);
    EXPECT_EQ(Find(From("call 0")), "0");
    EXPECT_EQ(Find(From("call 1")), "none");
    EXPECT_EQ(Find(From("call 2")), "2");
    EXPECT_EQ(Find(From("one more")), "reply");
}

TEST_F(ReplyCacheTest, MemoryIsBounded) {
    const std::string sHalf(CReplyCache::kMaxBytes / 2 - 10, 'h');
    m_Cache.Add(From(sHalf), "1", m_Start);
    m_Cache.Add(From(sHalf, 701), "2", m_Start);
    EXPECT_EQ(m_Cache.GetCount(), 2U);
    m_Cache.Add(From("small, but too much"), "3", m_Start);
    EXPECT_EQ(m_Cache.GetCount(), 2U);
    EXPECT_EQ(Find(From(sHalf)), "none");
    EXPECT_EQ(Find(From(sHalf, 701)), "2");
    m_Cache.Add(From(std::string(CReplyCache::kMaxBytes + 1, 'x')), "", m_Start);
    EXPECT_EQ(m_Cache.GetCount(), 2U) << "what alone is too much drives nothing out";
    EXPECT_LE(m_Cache.GetBytes(), CReplyCache::kMaxBytes);
}
