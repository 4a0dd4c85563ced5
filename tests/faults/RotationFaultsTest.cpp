// One system call of the server goes wrong while its log file is moved aside again and again under a client's work: the
// server lives, and what the client was told is written is in its files, and nothing else.
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Faults.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "NfsClient.h"
#include "ServerHoldings.h"
#include "WaitUntil.h"

namespace {

constexpr std::uint32_t kOk = 0;

class RotationFaultsTest : public testing::TestWithParam<SweptFault> {
protected:
    static constexpr int kMostCalls = 2000;
    static constexpr std::size_t kPieceSize = 100;

    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_pFaults = std::make_unique<Faults>(*m_pFolder / "faults");
    }
    void TearDown() override {
        m_pServer.reset();
        m_pFaults.reset();
        m_pFolder.reset();
    }

    std::string Export() const { return *m_pFolder / "export"; }

    void StartServer() {
        std::filesystem::remove_all(Export());
        std::filesystem::remove_all(*m_pFolder / "logs");
        std::filesystem::create_directory(Export());
        std::filesystem::create_directory(*m_pFolder / "logs");
        m_pServer = std::make_unique<ConsoleProcess>(
            std::vector<std::string>{"-md", "int", "-id", "srv", "-log", "511", "-logfile", *m_pFolder / "logs/log"},
            m_pFaults->Surroundings());
        ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
        m_pServer->Command("debug");
        m_pServer->Command("logfilesize 8000");
        m_pServer->Command("start");
        m_pServer->Command("mount " + Export() + "=exp");
    }

    /// What the server holds beside its connections and their threads when the export is gone.
    Holdings GetIdleHoldings() {
        m_pServer->Command("umount " + Export());
        Holdings holdings = ReadHoldings(m_pServer->GetPid());
        std::erase(holdings.vsOpen, "socket");
        holdings.nThreads = 0;
        return holdings;
    }
    /// A log that goes on has its file open, and nothing else; one that does not has nothing open.
    void ExpectOpen(Holdings idle, bool bLogGoesOn) {
        if (!bLogGoesOn) {
            EXPECT_EQ(std::erase(idle.vsOpen, *m_pFolder / "logs/log"), 1U) << "no log at first";
        }
        Holdings now;
        EXPECT_TRUE(WaitUntil([&] { return (now = GetIdleHoldings()).IsWithin(idle); }, std::chrono::seconds(5)))
            << "held now: " << testing::PrintToString(now) << "\nbefore: " << testing::PrintToString(idle);
    }
    std::uintmax_t GetLogSize() const {
        std::uintmax_t nBytes = 0;
        for (const auto& entry : std::filesystem::directory_iterator(*m_pFolder / "logs")) {
            nBytes += entry.file_size();
        }
        return nBytes;
    }

    /// Several files, a piece to each in turns, so that files are opened between one line of the log and the next.
    void Write() {
        m_vsWritten.assign(4, "");
        try {
            NfsClient client;
            const std::string sRoot = client.Mnt("exp").value_or("");
            for (std::size_t i = 0; i < 2 * m_vsWritten.size(); ++i) {
                const std::size_t iFile = i % m_vsWritten.size();
                WritePiece(client, sRoot, iFile);
            }
        } catch (const std::exception&) {  // the connection is gone
        }
    }
    void WritePiece(NfsClient& client, const std::string& sRoot, std::size_t iFile) {
        std::string sHandle;
        std::uint32_t nWritten = 0;
        const std::string sPiece(kPieceSize, static_cast<char>('a' + iFile));
        if (client.Create(sRoot, "file-" + std::to_string(iFile), sHandle) == kOk &&
            client.Write(sHandle, 0, sPiece, nWritten) == kOk) {
            m_vsWritten[iFile] = sPiece.substr(0, nWritten);
        }
    }
    void ExpectWritten() {
        for (std::size_t i = 0; i < m_vsWritten.size(); ++i) {
            if (!m_vsWritten[i].empty()) {
                const std::string sOnDisk = ReadWholeFile(Export() + "/file-" + std::to_string(i));
                EXPECT_EQ(sOnDisk.substr(0, m_vsWritten[i].size()), m_vsWritten[i]) << i;
                EXPECT_LE(sOnDisk.size(), kPieceSize) << i;
            }
        }
    }
    void ExpectServed() {
        NfsClient client;
        client.Umnt("exp");
        const std::string sRoot = client.Mnt("exp").value_or("");
        EXPECT_NE(sRoot, "");
        std::vector<std::string> vsNames;
        EXPECT_EQ(client.Readdir(sRoot, vsNames), kOk);
    }

private:
    LeakGuard m_Leaks;

protected:
    std::unique_ptr<TempFolder> m_pFolder;
    std::unique_ptr<Faults> m_pFaults;
    std::unique_ptr<ConsoleProcess> m_pServer;
    std::vector<std::string> m_vsWritten;  ///< what was acknowledged of each file
};

TEST_P(RotationFaultsTest, LogGoesIntoNoFileOfAClientAndTheServerGoesOn) {
    const SweptFault& fault = GetParam();
    StartServer();
    ExpectServed();
    const Holdings idle = GetIdleHoldings();
    bool bFired = true;
    int nRotations = 0;
    for (int n = 1; bFired && n < kMostCalls; n += fault.iStep) {
        SCOPED_TRACE("call " + std::to_string(n));
        StartServer();
        m_pFaults->Arm(fault.call, fault.kind, fault.iError, n);
        Write();
        bFired = m_pFaults->Disarm();
        ASSERT_TRUE(m_pServer->IsRunning()) << m_pServer->Output();
        const std::uintmax_t nLogged = GetLogSize();
        ExpectServed();
        ExpectOpen(idle, GetLogSize() > nLogged);
        EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
        ExpectWritten();
        nRotations += std::filesystem::exists(*m_pFolder / "logs/log.2") ? 1 : 0;
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_GT(nRotations, 0) << "the log was not moved aside";
    EXPECT_FALSE(bFired) << "not all calls were reached";
}

INSTANTIATE_TEST_SUITE_P(EachCall, RotationFaultsTest,
                         testing::Values(SweptFault{"Close", FaultyCall::kClose, FaultKind::kError, EIO, 1},
                                         SweptFault{"Rename", FaultyCall::kChange, FaultKind::kError, EIO, 1},
                                         SweptFault{"Open", FaultyCall::kOpen, FaultKind::kError, EMFILE, 3},
                                         SweptFault{"Seek", FaultyCall::kSeek, FaultKind::kError, EIO, 40},
                                         SweptFault{"Write", FaultyCall::kWrite, FaultKind::kError, ENOSPC, 40},
                                         SweptFault{"ShortWrite", FaultyCall::kWrite, FaultKind::kShort, 0, 40}),
                         [](const auto& fault) { return std::string(fault.param.pcName); });

}  // namespace
