// Client processes that are killed in the middle of their work and take it up again, one life after another: whatever
// was acknowledged to one that died is on the disk, no block is there in half, and nothing of the dead stays in the
// server.
#include <array>
#include <csignal>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Opted.h"
#include "ServerFixture.h"
#include "Trees.h"
#include "WaitUntil.h"
#include "Xdr.h"

namespace {

constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kBlocks = 64;  ///< of a file, over and over

/// What must be in a file of blocks that clients write one after another, each block filled with a number.
class Blocks {
public:
    /// Of a life that began with a number and was told of all up to the last.
    void Acknowledge(std::uint32_t iFirst, std::uint32_t iLast) {
        for (std::uint32_t i = iFirst; i <= iLast; ++i) {
            m_viAcknowledged[i % kBlocks] = i;
            m_viPossible[i % kBlocks].clear();
        }
        // Of two more it may not have told: one that was acknowledged, and one that was under way.
        for (const std::uint32_t i : {iLast + 1, iLast + 2}) {
            m_viPossible[i % kBlocks].insert(i);
        }
    }
    /// What is wrong with the file; empty if nothing is.
    std::string Judge(const std::string& sPath) const {
        const std::string sContent = ReadWholeFile(sPath);
        for (std::uint32_t iPlace = 0; iPlace < kBlocks; ++iPlace) {
            if (!m_viAcknowledged[iPlace]) {
                continue;
            }
            const std::string sBlock = sContent.substr(std::size_t{iPlace} * kBlock, kBlock);
            if (sBlock.size() != kBlock) {
                return "block " + std::to_string(iPlace) + " is missing";
            }
            const std::uint32_t iFound = WordAt(sBlock, 0);
            if (iFound != m_viAcknowledged[iPlace] && !m_viPossible[iPlace].contains(iFound)) {
                return "block " + std::to_string(iPlace) + " holds " + std::to_string(iFound) + ", not " +
                       std::to_string(*m_viAcknowledged[iPlace]);
            }
            for (std::size_t iWord = 0; iWord < kBlock; iWord += 4) {
                if (WordAt(sBlock, iWord) != iFound) {
                    return "half of block " + std::to_string(iPlace);
                }
            }
        }
        return "";
    }

private:
    std::array<std::optional<std::uint32_t>, kBlocks> m_viAcknowledged;
    std::array<std::set<std::uint32_t>, kBlocks> m_viPossible;
};

/// The number in the last whole line; nothing without one.
std::optional<std::uint32_t> LastNumber(const std::string& sTold) {
    const std::size_t iEnd = sTold.rfind('\n');
    if (iEnd == std::string::npos || iEnd == 0 || sTold.find('!') != std::string::npos) {
        return std::nullopt;
    }
    const std::size_t iBegin = sTold.rfind('\n', iEnd - 1);
    return static_cast<std::uint32_t>(std::stoul(sTold.substr(iBegin == std::string::npos ? 0 : iBegin + 1)));
}

class KilledClientsTest : public ServerFixture {
protected:
    /// One client, killed some time after its first block was acknowledged: the number of the last block that it told
    /// of. Nothing, and a failed test, if it did not live until then.
    static std::optional<std::uint32_t> LiveAndDie(const std::string& sAddress, const std::string& sExport,
                                                   std::uint32_t iFirst, std::chrono::microseconds life) {
        ChildProcess victim(
            {BuildTree() + "/tests/misbehaving/victim_client", sAddress, sExport, "file", std::to_string(iFirst)});
        EXPECT_TRUE(victim.WaitFor("\n")) << victim.Output();
        std::this_thread::sleep_for(life);
        victim.Signal(SIGKILL);
        EXPECT_EQ(victim.Wait(), 128 + SIGKILL) << victim.Output();
        const std::optional<std::uint32_t> iLast = LastNumber(victim.Output());
        EXPECT_TRUE(iLast.has_value()) << victim.Output();
        return iLast;
    }
    /// Many of them, one after another, in one export.
    static void LiveManyLives(long nLives, const std::string& sAddress, const std::string& sExport,
                              const std::string& sFile) {
        std::mt19937 random(std::mt19937::default_seed);
        std::uniform_int_distribution<int> life(0, 3000);
        Blocks blocks;
        std::uint32_t iFirst = 0;
        for (long i = 0; i < nLives && !HasFailure(); ++i) {
            const auto iLast = LiveAndDie(sAddress, sExport, iFirst, std::chrono::microseconds(life(random)));
            if (!iLast) {
                return;
            }
            blocks.Acknowledge(iFirst, *iLast);
            // A call that had come may be carried out at this moment.
            EXPECT_TRUE(WaitUntil([&] { return blocks.Judge(sFile).empty(); }, std::chrono::seconds(5)))
                << blocks.Judge(sFile) << " after life " << i << ", of the numbers from " << iFirst << " to " << *iLast;
            iFirst = *iLast + 3;
        }
    }
};

// NFSLIB_KILLED_CLIENTS=10000: the long form, some minutes.
TEST_F(KilledClientsTest, EachTakesUpWhereTheOneBeforeItDied) {
    const long nLives = GetOpted("NFSLIB_KILLED_CLIENTS", 30);
    const TempFolder second;
    Export(second.Path(), "second");
    {
        std::thread other([&] { LiveManyLives(nLives / 2, "127.0.0.11", "second", second / "file"); });
        LiveManyLives(nLives - nLives / 2, "127.0.0.10", kExportName, Folder() / "file");
        other.join();
    }
    NfsClient client(Transport::kTcp, "127.0.0.99");
    client.Umnt(kExportName);
    const std::string sRoot = MountRoot(client);
    std::string sFile;
    EXPECT_EQ(client.Lookup(sRoot, "file", sFile), 0U);
}

}  // namespace
