// One socket: receiving, sending, closing.
#include "Socket.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "LeakGuard.h"
#include "SocketDoubles.h"
#include "WaitUntil.h"

namespace {

using namespace std::chrono_literals;

constexpr unsigned int kBufferSize = 1048576;

/// A stream socket under test on one end of a pair; the test holds the other.
class SocketTest : public testing::Test {
protected:
    SocketTest() { MakePair(); }

    void MakePair() {
        int iEnds[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, iEnds), 0);
        m_iNear = iEnds[0];
        m_Peer = CDescriptor(iEnds[1]);
    }

    void SendFromPeer(const std::string& sBytes) {
        std::size_t nSent = 0;
        while (nSent < sBytes.size()) {
            const ssize_t n = ::send(m_Peer.Get(), sBytes.data() + nSent, sBytes.size() - nSent, MSG_NOSIGNAL);
            if (n <= 0) {
                return;  // the other end has had enough
            }
            nSent += static_cast<std::size_t>(n);
        }
    }

    /// Up to that many bytes; fewer when the other end closes or nothing comes for 20 s.
    std::string ReceiveAtPeer(std::size_t nBytes) {
        std::string sBytes(nBytes, '\0');
        std::size_t nReceived = 0;
        pollfd entry{m_Peer.Get(), POLLIN, 0};
        while (nReceived < nBytes) {
            if (::poll(&entry, 1, 20000) <= 0) {
                break;
            }
            const ssize_t n = ::recv(m_Peer.Get(), sBytes.data() + nReceived, nBytes - nReceived, 0);
            if (n <= 0) {
                break;
            }
            nReceived += static_cast<std::size_t>(n);
        }
        sBytes.resize(nReceived);
        return sBytes;
    }

    /// Runs a connection on the socket that sends some bytes and goes, and then another one, which must get nothing
    /// but its own echo.
    void ExpectNothingOfAnEarlierConnection(ISocketListener* pEarlier, const std::string& sBytes) {
        CSocket socket(CSocket::kStream, 100003);
        socket.Open(m_iNear, pEarlier, nullptr);
        SendFromPeer(sBytes);
        m_Peer.Close();
        ASSERT_TRUE(WaitUntil([&] { return !socket.IsActive(); }));
        MakePair();
        socket.Open(m_iNear, &m_Echo, nullptr);
        SendFromPeer("new");
        EXPECT_EQ(ReceiveAtPeer(3), "new");
        ::shutdown(m_Peer.Get(), SHUT_WR);
        EXPECT_TRUE(IsEndAtPeer());
    }

    bool IsEndAtPeer() {
        pollfd entry{m_Peer.Get(), POLLIN, 0};
        char cByte = 0;
        return ::poll(&entry, 1, 20000) > 0 && ::recv(m_Peer.Get(), &cByte, 1, 0) <= 0;
    }

    LeakGuard m_Leaks;
    int m_iNear = -1;  ///< the socket under test closes it
    CDescriptor m_Peer;
    FunctionListener m_Echo{Echo};
};

/// Takes what came and sends more than a socket holds; says when that is over, in whatever way.
std::function<void(CSocket*)> SendMuch(std::atomic<bool>* pbSent) {
    return [pbSent](CSocket* pSocket) {
        TakeInput(pSocket);
        pSocket->GetOutputStream()->Write(nullptr, kBufferSize);
        pSocket->Send();
        *pbSent = true;
    };
}

}  // namespace

TEST_F(SocketTest, ANewSocketIsClosedAndEmpty) {
    CSocket socket(CSocket::kStream, 100003);
    EXPECT_EQ(socket.GetType(), 1);
    EXPECT_EQ(CSocket(CSocket::kDatagram, 100000).GetType(), 2);
    EXPECT_EQ(socket.GetProgId(), 100003UL);
    EXPECT_FALSE(socket.IsActive());
    EXPECT_STREQ(socket.GetRemoteAddress(), "0.0.0.0");
    EXPECT_EQ(socket.GetRemotePort(), 0);
    EXPECT_EQ(socket.GetInputStream()->GetFilledBufferSize(), 0U);
    EXPECT_EQ(socket.GetOutputStream()->GetBufferSize(), 0U);
    socket.Close();
    socket.Close();
    ::close(m_iNear);
}

TEST_F(SocketTest, WithoutADescriptorNothingStarts) {
    CSocket socket(CSocket::kStream, 100003);
    EXPECT_TRUE(socket.Open(-1, &m_Echo, nullptr));
    EXPECT_FALSE(socket.IsActive());
    socket.GetOutputStream()->Write(1U);
    socket.Send();
    EXPECT_EQ(socket.GetOutputStream()->GetBufferSize(), 4U) << "a closed socket sends nothing";
    ::close(m_iNear);
}

TEST_F(SocketTest, ThePeerIsGivenAsDottedTextAndHostOrderPort) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(1023);
    ::inet_pton(AF_INET, "192.168.100.200", &peer.sin_addr);
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &m_Echo, &peer);
    EXPECT_STREQ(socket.GetRemoteAddress(), "192.168.100.200");
    EXPECT_EQ(socket.GetRemotePort(), 1023);
}

TEST_F(SocketTest, WhatArrivesGoesToTheListenerAndItsReplyBack) {
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &m_Echo, nullptr);
    EXPECT_TRUE(socket.IsActive());
    SendFromPeer("hello");
    EXPECT_EQ(ReceiveAtPeer(5), "hello");
    SendFromPeer("again");
    EXPECT_EQ(ReceiveAtPeer(5), "again");
}

TEST_F(SocketTest, BytesThatAreNotConsumedStandInFrontOfTheNextOnes) {
    FunctionListener listener([](CSocket* pSocket) {
        if (pSocket->GetInputStream()->GetFilledBufferSize() >= 6) {
            pSocket->GetInputStream()->Skip(1);
            Echo(pSocket);
        } else {
            pSocket->GetOutputStream()->Write("?", 1);
            pSocket->Send();
        }
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("abc");
    EXPECT_EQ(ReceiveAtPeer(1), "?");
    SendFromPeer("def");
    EXPECT_EQ(ReceiveAtPeer(5), "bcdef");
}

TEST_F(SocketTest, WithoutAListenerBytesAreKept) {
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, nullptr, nullptr);
    SendFromPeer("abc");
    m_Peer.Close();
    EXPECT_TRUE(WaitUntil([&] { return !socket.IsActive(); }));
    EXPECT_EQ(socket.GetInputStream()->GetFilledBufferSize(), 3U);
}

TEST_F(SocketTest, TheEndOfThePeerEndsTheLoopAndKeepsTheDescriptor) {
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &m_Echo, nullptr);
    m_Peer.Close();
    EXPECT_TRUE(WaitUntil([&] { return !socket.IsActive(); }));
    EXPECT_NE(::fcntl(m_iNear, F_GETFD), -1);
    socket.Close();
    EXPECT_EQ(::fcntl(m_iNear, F_GETFD), -1);
}

TEST_F(SocketTest, AHalfClosedPeerGetsItsRepliesAndThenTheEnd) {
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &m_Echo, nullptr);
    SendFromPeer("last");
    ::shutdown(m_Peer.Get(), SHUT_WR);
    EXPECT_EQ(ReceiveAtPeer(4), "last");
    EXPECT_TRUE(IsEndAtPeer());
}

TEST_F(SocketTest, AFullInputBufferEndsTheConnectionAndThePeerLearnsIt) {
    std::atomic<unsigned int> nSeen{0};
    FunctionListener listener([&](CSocket* pSocket) { nSeen = pSocket->GetInputStream()->GetFilledBufferSize(); });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    std::thread sender([&] { SendFromPeer(std::string(2 * kBufferSize, 'x')); });
    EXPECT_TRUE(WaitUntil([&] { return !socket.IsActive(); }));
    EXPECT_EQ(nSeen.load(), kBufferSize);
    EXPECT_TRUE(IsEndAtPeer());
    sender.join();
}

TEST_F(SocketTest, AReplyLargerThanTheSocketsBuffersIsDeliveredWhole) {
    std::string sReply(kBufferSize, '\0');
    for (std::size_t i = 0; i < sReply.size(); ++i) {
        sReply[i] = static_cast<char>(i % 251);
    }
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        pSocket->GetOutputStream()->Write(sReply.data(), kBufferSize);
        pSocket->Send();
        EXPECT_EQ(pSocket->GetOutputStream()->GetBufferSize(), 0U);
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    EXPECT_TRUE(ReceiveAtPeer(sReply.size()) == sReply);
}

TEST_F(SocketTest, AVanishedPeerLeavesTheReplyInTheStreamAndKillsNothing) {
    std::atomic<int> iLeft{-1};
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        m_Peer.Close();
        pSocket->GetOutputStream()->Write("reply", 5);
        EXPECT_FALSE(pSocket->Send());
        iLeft = static_cast<int>(pSocket->GetOutputStream()->GetBufferSize());
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    EXPECT_TRUE(WaitUntil([&] { return !socket.IsActive(); }));
    EXPECT_EQ(iLeft.load(), 5);
    EXPECT_TRUE(socket.IsStopping()) << "what is still to be received is executed for nobody";
}

// ---- Replies that leave together

TEST_F(SocketTest, CollectedRepliesLeaveInTheirOrderInFrontOfTheLast) {
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        COutputStream* pOutput = pSocket->GetOutputStream();
        for (const char* pcReply : {"one ", "two "}) {
            pOutput->Write(pcReply, 4);
            EXPECT_TRUE(pSocket->Collect());
            EXPECT_EQ(pOutput->GetBufferSize(), 0U);
            EXPECT_EQ(pOutput->GetBufferIndex(), 0U);
        }
        pOutput->Write("three", 5);
        EXPECT_TRUE(pSocket->Send());
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    EXPECT_EQ(ReceiveAtPeer(13), "one two three");
}

TEST_F(SocketTest, WhatIsCollectedHasALimitAndALargeReplyStaysWhereItIs) {
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, nullptr, nullptr);
    COutputStream* pOutput = socket.GetOutputStream();
    pOutput->Write(nullptr, CSocket::kCollectedReplyLimit + 1);
    EXPECT_FALSE(socket.Collect());
    EXPECT_EQ(pOutput->GetBufferSize(), CSocket::kCollectedReplyLimit + 1);
    for (std::size_t n = 0; n < CSocket::kCollectedLimit; n += CSocket::kCollectedReplyLimit) {
        pOutput->ResetBuffer();
        pOutput->Write(nullptr, CSocket::kCollectedReplyLimit);
        EXPECT_TRUE(socket.Collect());
    }
    pOutput->Write("x", 1);
    EXPECT_FALSE(socket.Collect());
    EXPECT_EQ(pOutput->GetBufferSize(), 1U);
}

TEST_F(SocketTest, CollectedRepliesLeaveAloneWhereTheyAreAskedToAndNothingTwice) {
    std::atomic<bool> bSeen{false};
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        COutputStream* pOutput = pSocket->GetOutputStream();
        pOutput->Write("early", 5);
        pSocket->Collect();
        pOutput->Write("la", 2);  // a reply that is being made
        pSocket->SendCollected();
        EXPECT_TRUE(WaitUntil([&] { return bSeen.load(); }));
        pOutput->Write("te", 2);
        EXPECT_TRUE(pSocket->Send());
        EXPECT_TRUE(pSocket->Send()) << "there is nothing left to send";
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    EXPECT_EQ(ReceiveAtPeer(5), "early");
    bSeen = true;
    EXPECT_EQ(ReceiveAtPeer(4), "late");
}

TEST_F(SocketTest, CollectedRepliesThatDoNotFitIntoTheSocketAreDeliveredWhole) {
    std::string sReplies;
    for (unsigned int i = 0; i < CSocket::kCollectedLimit / 4; ++i) {
        sReplies += std::string(reinterpret_cast<const char*>(&i), sizeof(i));
    }
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        COutputStream* pOutput = pSocket->GetOutputStream();
        for (std::size_t n = 0; n < sReplies.size(); n += 16) {
            pOutput->Write(sReplies.data() + n, 16);
            EXPECT_TRUE(pSocket->Collect());
            if (n % 65536 == 0) {
                pSocket->SendCollected();
            }
        }
        pOutput->Write(sReplies.data(), static_cast<unsigned int>(sReplies.size()));
        EXPECT_TRUE(pSocket->Send());
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    EXPECT_TRUE(ReceiveAtPeer(2 * sReplies.size()) == sReplies + sReplies);
}

TEST_F(SocketTest, CollectedRepliesOfAnEarlierConnectionNeverReachTheNextOne) {
    FunctionListener keep([](CSocket* pSocket) {
        TakeInput(pSocket);
        pSocket->GetOutputStream()->Write("stale", 5);
        pSocket->Collect();
    });
    ExpectNothingOfAnEarlierConnection(&keep, "x");
}

// ---- Peers that do not take their replies

TEST_F(SocketTest, APeerThatStopsReadingLosesItsConnectionAfterFiveSeconds) {
    std::atomic<bool> bSent{false};
    FunctionListener listener(SendMuch(&bSent));
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    const auto start = std::chrono::steady_clock::now();
    SendFromPeer("x");
    EXPECT_TRUE(WaitUntil([&] { return bSent.load(); }, 60s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4900ms);
    EXPECT_TRUE(WaitUntil([&] { return !socket.IsActive(); }));
    const std::string sPart = ReceiveAtPeer(kBufferSize);
    EXPECT_LT(sPart.size(), kBufferSize);
    EXPECT_TRUE(IsEndAtPeer()) << "nothing may follow a part of a reply";
}

/// However little that was: the system says that a socket can be written to when much of its buffer is free again.
TEST_F(SocketTest, TheFiveSecondsBeginWithTheLastThatThePeerTook) {
    std::atomic<bool> bSent{false};
    FunctionListener listener(SendMuch(&bSent));
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    ReceiveAtPeer(1);                 // sending has begun
    std::this_thread::sleep_for(1s);  // and stood still for a while
    ReceiveAtPeer(40000);
    const auto taken = std::chrono::steady_clock::now();
    EXPECT_TRUE(WaitUntil([&] { return bSent.load(); }, 60s));
    const auto elapsed = std::chrono::steady_clock::now() - taken;
    EXPECT_GE(elapsed, 4900ms);
    EXPECT_LT(elapsed, 8s) << "noticed only at the end of the first five seconds";
}

TEST_F(SocketTest, ASlowReaderThatGoesOnReadingGetsItsWholeReply) {
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        pSocket->GetOutputStream()->Write(nullptr, kBufferSize);
        pSocket->Send();
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    std::size_t nReceived = 0;
    for (int i = 0; i < 3; ++i) {
        std::this_thread::sleep_for(2s);  // less than five seconds each, more in all
        nReceived += ReceiveAtPeer(100000).size();
    }
    nReceived += ReceiveAtPeer(kBufferSize - nReceived).size();
    EXPECT_EQ(nReceived, kBufferSize);
    EXPECT_TRUE(socket.IsActive());
}

TEST_F(SocketTest, CloseWakesAStalledSend) {
    std::atomic<bool> bSending{false};
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        pSocket->GetOutputStream()->Write(nullptr, kBufferSize);
        bSending = true;
        pSocket->Send();
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("x");
    ASSERT_TRUE(WaitUntil([&] { return bSending.load(); }));
    const auto start = std::chrono::steady_clock::now();
    socket.Close();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
}

TEST_F(SocketTest, CloseWakesABlockedReceiveAndClosesTheDescriptorOnce) {
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &m_Echo, nullptr);
    socket.Close();
    EXPECT_FALSE(socket.IsActive());
    EXPECT_EQ(::fcntl(m_iNear, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    // The number is free for others now; closing again must not touch it.
    const CDescriptor other(::fcntl(m_Peer.Get(), F_DUPFD_CLOEXEC, m_iNear));
    ASSERT_EQ(other.Get(), m_iNear);
    socket.Close();
    EXPECT_NE(::fcntl(other.Get(), F_GETFD), -1);
}

TEST_F(SocketTest, NothingOfAnEarlierConnectionReachesTheNextOne) {
    FunctionListener keep([](CSocket* pSocket) { pSocket->GetOutputStream()->Write("stale", 5); });
    ExpectNothingOfAnEarlierConnection(&keep, "half a call");
}

TEST_F(SocketTest, APeerThatClosedIsGoneEvenWhileItsBytesWait) {
    std::atomic<bool> bBlocked{false};
    std::atomic<bool> bGo{false};
    FunctionListener listener([&](CSocket* pSocket) {
        TakeInput(pSocket);
        bBlocked = true;
        EXPECT_TRUE(WaitUntil([&] { return bGo.load(); }));
    });
    CSocket socket(CSocket::kStream, 100003);
    socket.Open(m_iNear, &listener, nullptr);
    SendFromPeer("first");
    ASSERT_TRUE(WaitUntil([&] { return bBlocked.load(); }));
    EXPECT_FALSE(socket.IsPeerGone());
    SendFromPeer("second");
    EXPECT_FALSE(socket.IsPeerGone());
    m_Peer.Close();
    EXPECT_TRUE(WaitUntil([&] { return socket.IsPeerGone(); }));
    EXPECT_TRUE(socket.IsActive());
    bGo = true;
}
