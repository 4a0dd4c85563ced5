// A real client of a server behind a network that cuts data into small segments and loses some of them.
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Isolation.h"
#include "ServerNode.h"
#include "TempFolder.h"
#include "Trees.h"

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

class LossyNetworkTest : public testing::Test {
protected:
    static constexpr int kLostOfThousand = 20;
    static constexpr std::size_t kSize = 2000003;

    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        std::filesystem::create_directory(m_Folder / "data");
        m_pServer = std::make_unique<ServerNode>(3);
        m_pServer->Export(m_Folder / "data", "data");
        m_pServer->Worsen(kLostOfThousand);
    }
    std::string Remote(const std::string& sName) const { return m_pServer->GetHost() + ":data/" + sName; }
    static void Run(std::vector<std::string> vsArguments) {
        vsArguments.insert(vsArguments.begin(), BuildTree() + "/bin/nfsget");
        const RunResult result = RunProgram(vsArguments);
        EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    }

    const TempFolder m_Folder;
    std::unique_ptr<ServerNode> m_pServer;
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

}  // namespace
