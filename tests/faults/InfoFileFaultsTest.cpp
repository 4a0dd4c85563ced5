// A write to the info file of a redirected file fails, or is cut short: the first while a host adds segments, the
// second, and so on to the last. Whatever stands in the info file afterwards is whole records, and clients read by
// them.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Faults.h"
#include "HostSide.h"
#include "Limits.h"
#include "NfsClient.h"
#include "Segment.h"
#include "SteeredServerFixture.h"
#include "TempFolder.h"

namespace {

class InfoFileFaultsTest : public SteeredServerFixture {
protected:
    static constexpr int kMostCalls = 200;
    /// In other places of the source than of the file, so that a record that is read from its middle shows.
    struct Piece {
        long long iSource;
        long long iOffset;
        long long nLength;
    };
    static constexpr Piece kPieces[] = {{60, 0, 30}, {0, 30, 30}, {30, 60, 30}};
    static constexpr std::size_t kSize = 90;

    void SetUp() override {
        SteeredServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (std::size_t i = 0; i < kSize; ++i) {
            m_sSource += static_cast<char>('!' + i);
        }
        for (const Piece& piece : kPieces) {
            m_sDisk +=
                m_sSource.substr(static_cast<std::size_t>(piece.iSource), static_cast<std::size_t>(piece.nLength));
        }
        WriteWholeFile(*m_pFolder / "source", m_sSource);
        Start();
    }

    /// Which of the pieces were accepted.
    std::vector<bool> AddPieces(const std::string& sDisk) {
        std::vector<bool> vbAdded;
        WriteWholeFile(sDisk, "");
        m_pHostSide->Client().OpenRedirectedFile(sDisk.c_str(), kSize, true, 0, 0);
        for (const Piece& piece : kPieces) {
            char vcReason[kReasonBufferSize] = "";
            vbAdded.push_back(m_pHostSide->Client().AddRedirectedFileSegment(
                sDisk.c_str(), (*m_pFolder / "source").c_str(), piece.iSource, piece.iOffset, piece.nLength, vcReason));
        }
        return vbAdded;
    }
    /// The pieces in the info file, which come in their order; fails the test for anything else there.
    static std::vector<bool> ReadRecords(const std::string& sDisk) {
        std::vector<bool> vbRecorded(std::size(kPieces), false);
        const std::string sRecords = ReadWholeFile(sDisk);
        EXPECT_EQ(sRecords.size() % kSegmentRecordSize, 0U) << sRecords.size();
        std::size_t iPiece = 0;
        for (std::size_t i = 0; i + kSegmentRecordSize <= sRecords.size(); i += kSegmentRecordSize) {
            Segment segment{};
            std::memcpy(&segment, &sRecords[i], kSegmentRecordSize);
            while (iPiece < std::size(kPieces) && kPieces[iPiece].iOffset != segment.iOffset) {
                ++iPiece;
            }
            if (iPiece == std::size(kPieces)) {
                ADD_FAILURE() << "a record for " << segment.iOffset << " at " << i;
                break;
            }
            EXPECT_EQ(segment.iFileOffset, kPieces[iPiece].iSource) << iPiece;
            EXPECT_EQ(segment.iLength, kPieces[iPiece].nLength) << iPiece;
            vbRecorded[iPiece++] = true;
        }
        return vbRecorded;
    }
    /// Each piece read for itself, up to the first that has no record, is all there; a later one that has a record is
    /// there, or reads as zeros.
    void ExpectRead(const std::string& sName, const std::vector<bool>& vbRecorded) {
        NfsClient client;
        client.Umnt("exp");
        std::string sHandle;
        ASSERT_EQ(client.Lookup(client.Mnt("exp").value_or(""), sName, sHandle), 0U);
        bool bWhole = true;
        for (std::size_t i = 0; i < std::size(kPieces); ++i) {
            const auto iOffset = static_cast<std::size_t>(kPieces[i].iOffset);
            const auto nLength = static_cast<std::uint32_t>(kPieces[i].nLength);
            std::string sData;
            bool bEof = false;
            ASSERT_EQ(client.Read(sHandle, iOffset, nLength, sData, bEof), 0U);
            bWhole = bWhole && vbRecorded[i];
            if (vbRecorded[i]) {
                const bool bZero = !bWhole && sData == std::string(sData.size(), '\0');
                EXPECT_TRUE(bZero || sData == m_sDisk.substr(iOffset, nLength)) << "piece " << i << ": " << sData;
            }
        }
    }

    std::string m_sSource;
    std::string m_sDisk;
};

TEST_P(InfoFileFaultsTest, InfoFileHoldsWholeRecordsAndClientsReadByThem) {
    const SweptFault& fault = GetParam();
    bool bFired = true;
    int nMissing = 0;
    int n = 1;
    for (; bFired && n < kMostCalls; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        const std::string sName = "disk" + std::to_string(n);
        const std::string sDisk = *m_pFolder / sName;
        m_pFaults->Arm(fault.call, fault.kind, fault.iError, n);
        AddPieces(sDisk);
        bFired = m_pFaults->Disarm();
        ASSERT_TRUE(m_pServer->IsRunning()) << m_pServer->Output();
        const std::vector<bool> vbRecorded = ReadRecords(sDisk);
        nMissing += std::count(vbRecorded.begin(), vbRecorded.end(), false) > 0 ? 1 : 0;
        ExpectRead(sName, vbRecorded);
        m_pHostSide->Client().CloseRedirectedFile(sDisk.c_str());
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_GT(n, 2) << "nothing went wrong at all";
    EXPECT_FALSE(bFired) << "not all calls were reached";
    EXPECT_GT(nMissing, 0) << "every record came into the info file";
}

INSTANTIATE_TEST_SUITE_P(EachCall, InfoFileFaultsTest,
                         testing::Values(SweptFault{"WriteOnAFullDisk", FaultyCall::kWrite, FaultKind::kError, ENOSPC},
                                         SweptFault{"ShortWrite", FaultyCall::kWrite, FaultKind::kShort, 0}),
                         [](const auto& fault) { return std::string(fault.param.pcName); });

}  // namespace
