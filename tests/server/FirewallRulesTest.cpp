// The firewall rules that stand in the documents, as they stand there: who is meant to come in does, others do not.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "PortmapPing.h"
#include "ServerFixture.h"
#include "ServerStatistics.h"
#include "Trees.h"
#include "WaitUntil.h"

namespace {

constexpr const char* kClient = "192.0.2.7";  // of the documents' network of clients
constexpr const char* kOtherClient = "192.0.2.8";
constexpr const char* kStranger = "198.51.100.7";
constexpr const char* kServer = "203.0.113.1";
constexpr int kMountPort = 1058;
constexpr int kNfsPort = 2049;
constexpr int kPortmapPort = 111;

/// The indented table of that name out of a document.
std::string FindRules(const std::string& sDocument, const std::string& sTable) {
    const std::string sText = ReadWholeFile(SourceTree() + "/docs/" + sDocument);
    const std::string sHead = "    table inet " + sTable + " {\n";
    const std::string sEnd = "\n    }\n";
    const std::size_t iBegin = sText.find(sHead);
    const std::size_t iEnd = sText.find(sEnd, iBegin);
    return iBegin == std::string::npos || iEnd == std::string::npos ? ""
                                                                    : sText.substr(iBegin, iEnd + sEnd.size() - iBegin);
}

/// True if a connection from that address comes about within the time in which one on this machine does.
bool Connects(const std::string& sFrom, int iPort, CDescriptor* pConnection = nullptr) {
    constexpr int kPatienceMs = 1000;
    CDescriptor connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, sFrom.c_str(), &address.sin_addr);
    EXPECT_EQ(::bind(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << sFrom;
    ::inet_pton(AF_INET, kServer, &address.sin_addr);
    address.sin_port = htons(static_cast<in_port_t>(iPort));
    // It goes on by itself; how it ends is seen below.
    static_cast<void>(::connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    pollfd waiting{connection.Get(), POLLOUT, 0};
    const bool bConnected = ::poll(&waiting, 1, kPatienceMs) == 1 && (waiting.revents & (POLLERR | POLLHUP)) == 0;
    if (pConnection != nullptr) {
        *pConnection = std::move(connection);
    }
    return bConnected;
}

/// A server in a network in which the documents' addresses exist, behind the rules of a document.
class FirewallRulesTest : public ServerFixture {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (const char* pcAddress : {kClient, kOtherClient, kStranger, kServer}) {
            static_cast<void>(RunProgram({"ip", "address", "replace", std::string(pcAddress) + "/32", "dev", "lo"}));
        }
        if (!Connects(kClient, kMountPort)) {
            GTEST_SKIP() << "needs ip, and addresses of its own";
        }
    }
    void TearDown() override {
        if (!m_sTable.empty()) {
            EXPECT_EQ(RunProgram({"nft", "delete", "table", "inet", m_sTable}).iStatus, 0);
        }
        ServerFixture::TearDown();
    }

    bool HasConnections() {
        ServerStatistics statistics;
        Server().GetStatistics(&statistics);
        return std::any_of(statistics.vConnections.begin(), statistics.vConnections.end(),
                           [](const auto& connections) { return connections.figures.nUsed != 0; });
    }

    /// False if this machine has no nftables.
    bool Load(const std::string& sDocument, const std::string& sTable) {
        if (RunProgram({"nft", "list", "ruleset"}).iStatus != 0) {
            return false;
        }
        const std::string sRules = FindRules(sDocument, sTable);
        EXPECT_NE(sRules, "") << "no table " << sTable << " in " << sDocument;
        EXPECT_TRUE(WaitUntil([this] { return !HasConnections(); }))
            << "the rules see each connection from its beginning";
        WriteWholeFile(Folder() / "rules", sRules);
        const RunResult loaded = RunProgram({"nft", "-f", Folder() / "rules"});
        EXPECT_EQ(loaded.iStatus, 0) << loaded.sOutput;
        m_sTable = sTable;
        return true;
    }

    void ExpectClientsOnly() {
        std::vector<CDescriptor> vListeners;  // where the server is found beside a system portmapper
        for (const int iOther : {kMountPort + 1, kNfsPort + 1}) {
            vListeners.push_back(CDescriptor::OpenSocket(SOCK_STREAM));
            int iPort = iOther;
            ASSERT_TRUE(vListeners.back().BindToPort(&iPort)) << iPort;
            ASSERT_EQ(::listen(vListeners.back().Get(), 8), 0) << iPort;
        }
        for (const int iPort : {kPortmapPort, kMountPort, kMountPort + 1, kNfsPort, kNfsPort + 1}) {
            EXPECT_TRUE(Connects(kClient, iPort)) << iPort;
            EXPECT_TRUE(Connects("127.0.0.1", iPort)) << iPort;
            EXPECT_FALSE(Connects(kStranger, iPort)) << iPort;
        }
        EXPECT_FALSE(CPortmapPing::IsSilent(CPortmapPing::kStopLimit))
            << "by IPv6 within the machine, where nobody is, one is told so at once";
        NfsClient client(Transport::kTcp, kClient, kNfsPort, kMountPort, kServer);
        EXPECT_TRUE(client.Mnt(kExportName).has_value());
        client.Umnt(kExportName);
    }

private:
    std::string m_sTable;
};

TEST_F(FirewallRulesTest, OfTheOperatorsGuideLetClientsInAndNobodyElse) {
    if (!Load("operators-guide.md", "nfslib")) {
        GTEST_SKIP() << "needs nft and its rights";
    }
    ExpectClientsOnly();
}

TEST_F(FirewallRulesTest, OfTheSecurityPageLetClientsInAndNobodyElse) {
    if (!Load("security.md", "nfslib_limits")) {
        GTEST_SKIP() << "needs nft and its rights";
    }
    ExpectClientsOnly();
}

TEST_F(FirewallRulesTest, OfTheSecurityPageKeepConnectionsWithinWhatTheServerBears) {
    if (!Load("security.md", "nfslib_limits")) {
        GTEST_SKIP() << "needs nft and its rights";
    }
    constexpr int kTries = 40;
    for (const auto& [iPort, nLimit] :
         std::vector<std::pair<int, std::size_t>>{{kPortmapPort, CNfsMain::kMaxPortmapConnections},
                                                  {kMountPort, CNfsMain::kMaxMountConnections},
                                                  {kNfsPort, CNfsMain::kMaxNfsConnections}}) {
        SCOPED_TRACE(iPort);
        std::vector<CDescriptor> vHeld;
        for (int i = 0; i < kTries; ++i) {
            CDescriptor connection;
            if (Connects(i % 2 == 0 ? kClient : kOtherClient, iPort, &connection)) {
                vHeld.push_back(std::move(connection));
            }
        }
        EXPECT_EQ(vHeld.size(), nLimit);
        vHeld.clear();
        EXPECT_TRUE(WaitUntil([iPort = iPort] { return Connects(kClient, iPort); })) << "there is room again";
    }
}

/// What a client does to mount: a connection that has just ended is in nobody's way.
TEST_F(FirewallRulesTest, OfTheSecurityPageLetAClientAskForPortsAndMountWithoutAPause) {
    if (!Load("security.md", "nfslib_limits")) {
        GTEST_SKIP() << "needs nft and its rights";
    }
    constexpr std::uint32_t kGetPort = 3;
    for (int i = 0; i < 20; ++i) {
        SCOPED_TRACE(i);
        for (const std::uint32_t iProgram : {kNfsProgram, kMountProgram}) {
            RpcClient portmapper(Transport::kTcp, kPortmapPort, kClient, kServer);
            const std::string sArguments = XdrBuilder().U32(iProgram).U32(3).U32(IPPROTO_TCP).U32(0).Bytes();
            EXPECT_EQ(portmapper.Call(kPortmapProgram, 2, kGetPort, sArguments).iAcceptStatus, kAcceptSuccess);
        }
        NfsClient client(Transport::kTcp, kClient, kNfsPort, kMountPort, kServer);
        EXPECT_TRUE(client.Mnt(kExportName).has_value());
        client.Umnt(kExportName);
        client.Mount().Close();
        client.Nfs().Close();
        EXPECT_TRUE(WaitUntil([this] { return !HasConnections(); })) << "the next client comes to an idle server";
    }
}

}  // namespace
