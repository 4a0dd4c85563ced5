// Counting calls, connections and kept replies: without a server, and by the RPC server.
#include "CallStatistics.h"

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "RpcServerFixture.h"
#include "SocketDoubles.h"
#include "WaitUntil.h"

namespace {

using Figures = CCallStatistics::ProcedureFigures;

Figures Find(const CCallStatistics& statistics, const std::string& sProgram, const std::string& sProcedure) {
    const std::vector<Figures> vAll = statistics.ReadProcedures();
    const auto it = std::ranges::find_if(
        vAll, [&](const Figures& one) { return sProgram == one.pcProgram && sProcedure == one.pcProcedure; });
    return it != vAll.end() ? *it : throw std::out_of_range(sProgram + " " + sProcedure);
}

TEST(CallStatisticsTest, EachProcedureHasAPlaceOfItsOwnAndTheOthersOfAProgramShareOne) {
    const CCallStatistics statistics;
    const std::vector<Figures> vAll = statistics.ReadProcedures();
    ASSERT_EQ(vAll.size(), CCallStatistics::kProcedures);
    const auto nameOf = [&](unsigned int iProgram, unsigned int iVersion, unsigned int iProcedure) {
        const std::size_t i = CCallStatistics::FindPlace(iProgram, iVersion, iProcedure);
        return i == CCallStatistics::kNowhere ? std::string("nowhere")
                                              : std::string(vAll[i].pcProgram) + " " + vAll[i].pcProcedure;
    };
    EXPECT_EQ(nameOf(100000, 2, 0), "portmap NULL");
    EXPECT_EQ(nameOf(100000, 2, 3), "portmap GETPORT");
    EXPECT_EQ(nameOf(100000, 4, 3), "portmap GETPORT");
    EXPECT_EQ(nameOf(100000, 2, 6), "portmap OTHER");
    EXPECT_EQ(nameOf(100003, 3, 0), "nfs NULL");
    EXPECT_EQ(nameOf(100003, 3, 6), "nfs READ");
    EXPECT_EQ(nameOf(100003, 3, 21), "nfs COMMIT");
    EXPECT_EQ(nameOf(100003, 3, 22), "nfs OTHER");
    EXPECT_EQ(nameOf(100003, 4, 1), "nfs OTHER");
    EXPECT_EQ(nameOf(100003, 3, 0xFFFFFFFF), "nfs OTHER");
    EXPECT_EQ(nameOf(100005, 1, 1), "mount MNT");
    EXPECT_EQ(nameOf(100005, 3, 5), "mount EXPORT");
    EXPECT_EQ(nameOf(100005, 3, 6), "mount OTHER");
    for (const unsigned int iOther : {0U, 99999U, 100001U, 100004U, 100227U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nameOf(iOther, 3, 1), "nowhere") << iOther;
    }
}

TEST(CallStatisticsTest, ResultsThatBeginWithAStatusAreKnown) {
    const auto hasStatus = [](unsigned int iProgram, unsigned int iProcedure) {
        return CCallStatistics::HasStatus(CCallStatistics::FindPlace(iProgram, 3, iProcedure));
    };
    EXPECT_FALSE(hasStatus(100003, 0));
    for (unsigned int i = 1; i <= 21; ++i) {
        EXPECT_TRUE(hasStatus(100003, i)) << i;
    }
    EXPECT_FALSE(hasStatus(100003, 22));
    EXPECT_TRUE(hasStatus(100005, 1));
    EXPECT_FALSE(hasStatus(100005, 3)) << "UMNT has no results";
    EXPECT_FALSE(hasStatus(100000, 3)) << "GETPORT answers a port, and 0 for none";
    EXPECT_FALSE(hasStatus(100227, 1));
}

TEST(CallStatisticsTest, WhatIsCountedIsReadAgain) {
    CCallStatistics statistics;
    const std::size_t iRead = CCallStatistics::FindPlace(100003, 3, 6);
    statistics.Count({iRead, false, 120, 4096, 1000});
    statistics.Count({iRead, true, 80, 40, 3000});
    statistics.Count({CCallStatistics::kNowhere, true, 1, 1, 1});
    const Figures read = Find(statistics, "nfs", "READ");
    EXPECT_EQ(read.latency.nCalls, 2U);
    EXPECT_EQ(read.nErrors, 1U);
    EXPECT_EQ(read.nBytesIn, 200U);
    EXPECT_EQ(read.nBytesOut, 4136U);
    EXPECT_EQ(read.latency.lSum, 4000U);
    EXPECT_EQ(read.latency.lMax, 3000U);
    for (const Figures& other : statistics.ReadProcedures()) {
        EXPECT_TRUE(std::string(other.pcProcedure) == "READ" || other.latency.nCalls == 0) << other.pcProcedure;
    }
}

TEST(CallStatisticsTest, ConnectionsAreCountedByManyThreads) {
    const auto pStatistics = std::make_shared<CCallStatistics>();
    const CCallStatistics& statistics = *pStatistics;
    std::vector<std::shared_ptr<void>> vpKept(4);
    std::vector<std::thread> vThreads;
    for (std::size_t i = 0; i < vpKept.size(); ++i) {
        vThreads.emplace_back([&pStatistics, &pKept = vpKept[i]] {
            for (int n = 0; n < 1000; ++n) {
                EXPECT_NE(CCallStatistics::CountConnection(pStatistics, 100003), nullptr);
            }
            pKept = CCallStatistics::CountConnection(pStatistics, 100005);
            EXPECT_EQ(CCallStatistics::CountConnection(pStatistics, 100227), nullptr);
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    const auto nfs = statistics.ReadConnections(1);
    EXPECT_EQ(nfs.nUsed, 0);
    EXPECT_EQ(nfs.nAccepted, 4000U);
    EXPECT_GE(nfs.nMost, 1);
    EXPECT_LE(nfs.nMost, 4);
    const auto mount = statistics.ReadConnections(2);
    EXPECT_EQ(mount.nUsed, 4);
    EXPECT_EQ(mount.nMost, 4);
    EXPECT_EQ(statistics.ReadConnections(0).nAccepted, 0U);
}

// ---- By the RPC server

class CountedCallsTest : public RpcServerFixture {
protected:
    Figures Of(const std::string& sProcedure) { return Find(*m_Server.GetStatistics(), "nfs", sProcedure); }
};

TEST_F(CountedCallsTest, CallsAndBytesAreExactHoweverTheyArrive) {
    CapturingSocket socket(CSocket::kStream, 100003);
    // Procedure 1 answers its argument, whose length then stands where a status would: any but 0 is an error.
    const std::string sGood = Call(1, Opaque("")).Bytes(Transport::kTcp);
    const std::string sBad = Call(1, Opaque("seven!!")).Bytes(Transport::kTcp);
    socket.Receive(&m_Server, sGood + sBad + sGood);
    for (const char c : sBad) {
        socket.Receive(&m_Server, {&c, 1});
    }
    EXPECT_EQ(Of("GETATTR").latency.nCalls, 4U);
    EXPECT_EQ(Of("GETATTR").nErrors, 2U);
    EXPECT_EQ(Of("GETATTR").nBytesIn, 2 * (sGood.size() + sBad.size()));
    EXPECT_EQ(Of("GETATTR").nBytesOut, socket.Sent().size());
    EXPECT_GT(Of("GETATTR").latency.lSum, 0U);
}

TEST_F(CountedCallsTest, RefusalsAreErrorsAndCountTheWholeRecord) {
    CapturingSocket socket(CSocket::kStream, 100003);
    const std::string sNotImplemented = Call(2, Opaque("left where it is")).Bytes(Transport::kTcp);
    const std::string sGarbage = Call(3).Bytes(Transport::kTcp);
    const std::string sThrows = Call(4).Bytes(Transport::kTcp);
    const std::string sUnread = Call(6, Opaque("not looked at")).Bytes(Transport::kTcp);
    socket.Receive(&m_Server, sNotImplemented + sGarbage + sThrows + sUnread);
    for (const auto& [pcName, nBytes] : {std::pair{"SETATTR", sNotImplemented.size()},
                                         std::pair{"LOOKUP", sGarbage.size()}, std::pair{"ACCESS", sThrows.size()}}) {
        EXPECT_EQ(Of(pcName).latency.nCalls, 1U) << pcName;
        EXPECT_EQ(Of(pcName).nErrors, 1U) << pcName;
        EXPECT_EQ(Of(pcName).nBytesIn, nBytes) << pcName;
    }
    EXPECT_EQ(Of("READ").nBytesIn, sUnread.size());
    m_Server.Set(100003, nullptr);
    socket.Receive(&m_Server, Call(21).Bytes(Transport::kTcp));
    EXPECT_EQ(Of("COMMIT").nErrors, 1U) << "no such program";
}

TEST_F(CountedCallsTest, BytesThatAreNoCallAreNotCounted) {
    CapturingSocket socket(CSocket::kStream, 100003);
    const std::string sCall = Call(0).Bytes(Transport::kTcp);
    socket.Receive(&m_Server, std::string(333, 'x') + sCall + "behind");
    EXPECT_EQ(Of("NULL").latency.nCalls, 1U);
    EXPECT_EQ(Of("NULL").nErrors, 0U);
    EXPECT_EQ(Of("NULL").nBytesIn, sCall.size());
    EXPECT_EQ(Of("NULL").nBytesOut, 28U);
}

TEST_F(CountedCallsTest, ARepeatedDatagramIsCountedApartAndItsReplyIsKept) {
    CapturingSocket socket(CSocket::kDatagram, 100003);
    const std::string sCall = Call(7, Opaque("")).Bytes(Transport::kUdp);
    Receive(socket, sCall);
    Receive(socket, sCall);
    Receive(socket, sCall);
    EXPECT_EQ(m_Program.nCalls, 1);
    EXPECT_EQ(Of("WRITE").latency.nCalls, 1U);
    EXPECT_EQ(Of("WRITE").nBytesIn, sCall.size());
    const auto kept = m_Server.GetStatistics()->ReadKeptReplies();
    EXPECT_EQ(kept.nRepeated, 2U);
    EXPECT_EQ(kept.nReplies, 1U);
    EXPECT_GE(kept.nBytes, sCall.size());
}

TEST_F(CountedCallsTest, ConnectionsAreCountedWhileTheyLast) {
    Open();
    const auto connections = [this] { return m_Server.GetStatistics()->ReadConnections(1); };
    EXPECT_TRUE(WaitUntil([&] { return connections().nUsed == 1; })) << "the datagram socket is none";
    {
        const RpcClient second(Transport::kTcp, m_Tcp.GetPort());
        EXPECT_TRUE(WaitUntil([&] { return connections().nUsed == 2; }));
    }
    EXPECT_TRUE(WaitUntil([&] { return connections().nUsed == 1; }));
    m_Tcp.Close();
    EXPECT_EQ(connections().nUsed, 0);
    EXPECT_EQ(connections().nMost, 2);
    EXPECT_EQ(connections().nAccepted, 2U);
}

TEST_F(CountedCallsTest, TheFiguresOutliveTheServer) {
    CRuntimeParam param("controller", 0);
    auto pServer = std::make_unique<CRpcServer>(&m_Utilities, &param);
    const auto pStatistics = pServer->GetStatistics();
    pServer.reset();
    EXPECT_EQ(pStatistics->ReadConnections(1).nAccepted, 0U);
}

}  // namespace
