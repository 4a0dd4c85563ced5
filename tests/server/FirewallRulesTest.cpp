// The firewall rules that stand in the documents, as they stand there: who is meant to come in does, others do not.
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "ServerFixture.h"
#include "Trees.h"
#include "WaitUntil.h"

namespace {

constexpr const char* kClient = "192.0.2.7";  // of the documents' network of clients
constexpr const char* kStranger = "198.51.100.7";
constexpr const char* kServer = "203.0.113.1";
constexpr int kMountPort = 1058;
constexpr int kNfsPort = 2049;

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
    ::connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
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
        for (const char* pcAddress : {kClient, kStranger, kServer}) {
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

    /// False if this machine has no nftables.
    bool Load(const std::string& sDocument, const std::string& sTable) {
        if (RunProgram({"nft", "list", "ruleset"}).iStatus != 0) {
            return false;
        }
        const std::string sRules = FindRules(sDocument, sTable);
        EXPECT_NE(sRules, "") << "no table " << sTable << " in " << sDocument;
        WriteWholeFile(Folder() / "rules", sRules);
        const RunResult loaded = RunProgram({"nft", "-f", Folder() / "rules"});
        EXPECT_EQ(loaded.iStatus, 0) << loaded.sOutput;
        m_sTable = sTable;
        return true;
    }

    void ExpectClientsOnly() {
        for (const int iPort : {111, kMountPort, kNfsPort}) {
            EXPECT_TRUE(Connects(kClient, iPort)) << iPort;
            EXPECT_TRUE(Connects("127.0.0.1", iPort)) << iPort;
            EXPECT_FALSE(Connects(kStranger, iPort)) << iPort;
        }
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

TEST_F(FirewallRulesTest, OfTheSecurityPageLetClientsInAndKeepTheirConnectionsFew) {
    if (!Load("security.md", "nfslib_limits")) {
        GTEST_SKIP() << "needs nft and its rights";
    }
    ExpectClientsOnly();
    CDescriptor first;
    CDescriptor second;
    EXPECT_TRUE(WaitUntil([&] { return Connects(kClient, kMountPort, &first); })) << "the earlier ones have ended";
    EXPECT_FALSE(Connects(kClient, kMountPort, &second)) << "one connection for MOUNT is enough";
}

}  // namespace
