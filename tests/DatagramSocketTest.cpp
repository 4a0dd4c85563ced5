// The UDP port.
#include "DatagramSocket.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "LeakGuard.h"
#include "Limits.h"
#include "RpcClient.h"
#include "SocketDoubles.h"
#include "SoftLimit.h"

namespace {

using namespace std::chrono_literals;

class DatagramSocketTest : public testing::Test {
protected:
    void Open(ISocketListener* pListener) {
        m_Socket.SetListener(pListener);
        ASSERT_TRUE(m_Socket.Open(100003, 0, nullptr, m_vcReason)) << m_vcReason;
    }
    int Port() const { return m_Socket.GetPort(); }

    LeakGuard m_Leaks;
    FunctionListener m_Echo{Echo};
    CDatagramSocket m_Socket;
    char m_vcReason[kReasonBufferSize] = "";
};

}  // namespace

TEST_F(DatagramSocketTest, ADatagramIsAnsweredToItsSender) {
    Open(&m_Echo);
    RpcClient client(Transport::kUdp, Port());
    client.Send("hello");
    EXPECT_EQ(client.Receive(), "hello");
}

TEST_F(DatagramSocketTest, InterleavedClientsEachGetTheirOwnReplies) {
    FunctionListener tell([](CSocket* pSocket) {
        const std::string sText = std::string(pSocket->GetRemoteAddress()) + " " + std::to_string(pSocket->GetType()) +
                                  " " + TakeInput(pSocket);
        pSocket->GetOutputStream()->Write(sText.data(), static_cast<unsigned int>(sText.size()));
        pSocket->Send();
    });
    Open(&tell);
    RpcClient first(Transport::kUdp, Port(), "127.0.0.1");
    RpcClient second(Transport::kUdp, Port(), "127.0.0.2");
    for (int i = 0; i < 20; ++i) {
        const std::string sNumber = std::to_string(i);
        first.Send("a" + sNumber);
        second.Send("b" + sNumber);
        first.Send("c" + sNumber);
        EXPECT_EQ(first.Receive(), "127.0.0.1 2 a" + sNumber);
        EXPECT_EQ(first.Receive(), "127.0.0.1 2 c" + sNumber);
        EXPECT_EQ(second.Receive(), "127.0.0.2 2 b" + sNumber);
    }
}

TEST_F(DatagramSocketTest, AReplyComesFromTheAddressThatWasAsked) {
    Open(&m_Echo);
    RpcClient client(Transport::kUdp, Port(), "127.0.0.1", "127.0.0.9");  // takes replies from there only
    client.Send("hello");
    EXPECT_EQ(client.Receive(), "hello");
}

TEST_F(DatagramSocketTest, AnEmptyDatagramIsIgnored) {
    int nReceived = 0;
    FunctionListener count([&](CSocket* pSocket) {
        ++nReceived;
        Echo(pSocket);
    });
    Open(&count);
    RpcClient client(Transport::kUdp, Port());
    client.Send("");
    client.Send("hello");
    EXPECT_EQ(client.Receive(), "hello");
    m_Socket.Close();
    EXPECT_EQ(nReceived, 1);
}

TEST_F(DatagramSocketTest, WhatADatagramLeftUnreadIsDropped) {
    FunctionListener readOne([](CSocket* pSocket) {
        char cByte = 0;
        pSocket->GetInputStream()->Read(&cByte, 1);
        pSocket->GetOutputStream()->Write(&cByte, 1);
        pSocket->Send();
    });
    Open(&readOne);
    RpcClient client(Transport::kUdp, Port());
    client.Send("abc");
    EXPECT_EQ(client.Receive(), "a");
    client.Send("def");
    EXPECT_EQ(client.Receive(), "d");
}

TEST_F(DatagramSocketTest, AReplyThatCouldNotBeSentIsDropped) {
    FunctionListener tooLarge([](CSocket* pSocket) {
        if (TakeInput(pSocket) == "large") {
            pSocket->GetOutputStream()->Write(nullptr, 65508);  // one byte more than a datagram takes
        } else {
            pSocket->GetOutputStream()->Write("small", 5);
        }
        pSocket->Send();
    });
    Open(&tooLarge);
    RpcClient first(Transport::kUdp, Port());
    RpcClient second(Transport::kUdp, Port());
    first.Send("large");
    second.Send("x");
    EXPECT_EQ(second.Receive(), "small");
    EXPECT_TRUE(first.StaysSilent(50ms));
}

TEST_F(DatagramSocketTest, TheLargestReplyIsOneDatagram) {
    FunctionListener large([](CSocket* pSocket) {
        TakeInput(pSocket);
        pSocket->GetOutputStream()->Write(nullptr, 65507);
        pSocket->Send();
    });
    Open(&large);
    RpcClient client(Transport::kUdp, Port());
    client.Send("x");
    EXPECT_EQ(client.Receive().size(), 65507U);
}

TEST_F(DatagramSocketTest, AClientThatLeftBeforeItsReplyDoesNotEndTheService) {
    Open(&m_Echo);
    for (int i = 0; i < 10; ++i) {
        RpcClient gone(Transport::kUdp, Port());
        gone.Send("hello");  // the reply meets a closed port
    }
    RpcClient client(Transport::kUdp, Port());
    client.Send("hello");
    EXPECT_EQ(client.Receive(), "hello");
}

TEST_F(DatagramSocketTest, APortInUseFailsWithTheSystemsReason) {
    Open(&m_Echo);
    CDatagramSocket second;
    EXPECT_FALSE(second.Open(100003, Port(), nullptr, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Fail to bind datagram socket. Address already in use (98)");
    EXPECT_FALSE(second.Open(100003, Port(), nullptr, nullptr)) << "no buffer, no text";
}

TEST_F(DatagramSocketTest, WithoutDescriptorsOpeningFailsWithTheSystemsReason) {
    const bool bOpen = WithoutDescriptors([&] { return m_Socket.Open(100003, 0, nullptr, m_vcReason); });
    EXPECT_FALSE(bOpen);
    EXPECT_STREQ(m_vcReason, "Fail to create datagram socket. Too many open files (24)");
}

TEST_F(DatagramSocketTest, ClosingEndsTheThreadAndFreesThePort) {
    for (int i = 0; i < 20; ++i) {
        Open(&m_Echo);
        const int iPort = Port();
        m_Socket.Close();
        m_Socket.Close();
        CDatagramSocket second;
        ASSERT_TRUE(second.Open(100003, iPort, nullptr, m_vcReason)) << m_vcReason;
    }
}

TEST_F(DatagramSocketTest, OpeningAnewClosesWhatWasOpen) {
    Open(&m_Echo);
    const int iPort = Port();
    ASSERT_TRUE(m_Socket.Open(100003, iPort, nullptr, m_vcReason)) << m_vcReason;
    RpcClient client(Transport::kUdp, iPort);
    client.Send("hello");
    EXPECT_EQ(client.Receive(), "hello");
}
