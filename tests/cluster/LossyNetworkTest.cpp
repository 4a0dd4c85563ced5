// A real client of a server behind a network that cuts data into small segments and loses some of them.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Isolation.h"
#include "ServerNode.h"
#include "TempFolder.h"
#include "Trees.h"
#include "Xdr.h"

namespace {

/// Bytes of which no two stretches are alike.
std::string RandomBytes(std::size_t nSize) {
    std::mt19937 random(2049);
    std::string sBytes(nSize, '\0');
    for (char& c : sBytes) {
        c = static_cast<char>(random());
    }
    return sBytes;
}

class NetworkTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        std::filesystem::create_directory(m_Folder / "data");
        m_pServer = std::make_unique<ServerNode>(3);
        m_pServer->Export(m_Folder / "data", "data");
    }

    const TempFolder m_Folder;
    std::unique_ptr<ServerNode> m_pServer;
};

class LossyNetworkTest : public NetworkTest {
protected:
    static constexpr int kLostOfThousand = 20;
    static constexpr std::size_t kSize = 2000003;

    void SetUp() override {
        NetworkTest::SetUp();
        if (!IsSkipped()) {
            m_pServer->Worsen(kLostOfThousand);
        }
    }
    std::string Remote(const std::string& sName) const { return m_pServer->GetHost() + ":data/" + sName; }
    static void Run(std::vector<std::string> vsArguments) {
        vsArguments.insert(vsArguments.begin(), BuildTree() + "/bin/nfsget");
        const RunResult result = RunProgram(vsArguments);
        EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    }
};

TEST_F(LossyNetworkTest, AFileGoesThereAndBackByteForByte) {
    const std::string sContent = RandomBytes(kSize);
    WriteWholeFile(m_Folder / "local", sContent);
    Run({"put", m_Folder / "local", Remote("file")});
    EXPECT_TRUE(ReadWholeFile(m_Folder / "data" + "/file") == sContent);
    Run({"get", Remote("file"), m_Folder / "back"});
    EXPECT_TRUE(ReadWholeFile(m_Folder / "back") == sContent);
    EXPECT_GT(m_pServer->CountLost(), 10) << "nothing was tried";
}

TEST_F(LossyNetworkTest, NamesOfALargeFolderComeAllOnce) {
    constexpr int kFiles = 1500;
    std::string sExpected;
    for (int i = 0; i < kFiles; ++i) {
        const std::string sName = "file" + std::to_string(10000 + i);
        WriteWholeFile(m_Folder / "data" + "/" + sName, "");
        sExpected += sName + "\n";
    }
    const RunResult listed = RunProgram({"sh", "-c", "\"$1\" list \"$2\" | sed 's/.* //'", "sh",
                                         BuildTree() + "/bin/nfsget", m_pServer->GetHost() + ":data"});
    EXPECT_EQ(listed.sOutput, sExpected);
    EXPECT_GT(m_pServer->CountLost(), 0) << "nothing was tried";
}

/// The replies of so many READs do not all fit into what the systems at both ends keep for a connection.
TEST_F(LossyNetworkTest, RepliesUnderWayArriveAfterTheNetworkStoodStillForAWhile) {
    constexpr std::uint32_t kReads = 160;
    constexpr std::uint32_t kCount = 65536;
    const std::string sContent = RandomBytes(kCount);
    WriteWholeFile(m_Folder / "data" + "/file", sContent);
    NfsClient client = m_pServer->Client();
    const auto osRoot = client.Mnt("data");
    ASSERT_TRUE(osRoot.has_value());
    std::string sFile;
    ASSERT_EQ(client.Lookup(*osRoot, "file", sFile), 0U);
    RpcCall read;
    read.iProgram = kNfsProgram;
    read.iProcedure = kNfsRead;
    read.sArguments = XdrBuilder().Opaque(sFile).U64(0).U32(kCount).Bytes();
    for (std::uint32_t i = 0; i < kReads; ++i) {
        client.Nfs().Send(read.Bytes(Transport::kTcp));
    }
    for (std::uint32_t i = 0; i < kReads; ++i) {
        if (i == kReads / 10) {
            m_pServer->CutOff(true);
            std::this_thread::sleep_for(std::chrono::seconds(7));
            m_pServer->CutOff(false);
        }
        ASSERT_THAT(client.Nfs().Receive(std::chrono::seconds(60)), testing::EndsWith(sContent)) << "reply " << i;
    }
}

/// It comes some 200 ms later then, when the client's next connection has long been there.
TEST_F(NetworkTest, ClientsThatKeepToTheLimitAreServedThoughTheEndOfEachConnectionIsLostOnce) {
    constexpr int kConnections = 10;
    constexpr int kMostForMount = 3;
    m_pServer->LoseFirstEnds();
    std::atomic<int> nServed{0};
    std::vector<std::thread> vClients;
    for (int i = 0; i < kMostForMount; ++i) {
        vClients.emplace_back([&] {
            try {
                for (int iConnection = 0; iConnection < kConnections; ++iConnection) {
                    m_pServer->Client().Mount().Call(kMountProgram, 3, kMountNull, "");
                    ++nServed;
                }
            } catch (const std::runtime_error& error) {
                ADD_FAILURE() << error.what();
            }
        });
    }
    for (std::thread& client : vClients) {
        client.join();
    }
    EXPECT_EQ(nServed, kMostForMount * kConnections);
}

}  // namespace
