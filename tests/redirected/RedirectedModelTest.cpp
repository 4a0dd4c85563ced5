// Random maps and reads, compared with the reference model: count, every byte, end of file, position, records, dumps.
#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RedirectedFile.h"
#include "ReferenceModel.h"
#include "TempFolder.h"

namespace {

constexpr std::int64_t kMiB = 1 << 20;

/// How a random map looks.
enum class Shape { kOrdered, kGaps, kOverlapping, kUnordered };

struct MapKind {
    const char* pcName;
    bool bInfoFile;
    Shape shape;
    std::int64_t iMaxSegment;  ///< bytes
    int nMaps;
};

std::ostream& operator<<(std::ostream& out, const MapKind& kind) {
    return out << kind.pcName;
}

class RandomMap {
public:
    RandomMap(const MapKind& kind, unsigned int iSeed, CUtilities* pUtilities)
        : m_Kind(kind), m_Random(iSeed), m_File(pUtilities) {
        for (const char* pcName : {"a", "b", "c"}) {
            m_vSources.push_back(m_Folder / pcName);
            WriteWholeFile(m_vSources.back(), "");
        }
        LogArgu tag{"test"};
        pUtilities->AddMountInfo(&m_Param, &tag, m_Folder.Path().c_str(), "data", "", nullptr);  // for writing
        m_vSources.push_back("");                                                                // no source
        m_vSources.push_back(m_Folder / "missing");                                              // cannot be opened
    }

    void Build() {
        const int nSegments = static_cast<int>(Pick(0, 40));
        // Terabytes in records of 1 MiB would only make the test slow.
        const int iCutMiB = static_cast<int>(Pick(1, 8)) * (m_Kind.iMaxSegment > 1000 * kMiB ? 64 : 1);
        const int iCheckPointMiB = iCutMiB * static_cast<int>(Pick(1, 6));
        m_iSize = Pick(1, std::max<std::int64_t>(1, m_Kind.iMaxSegment * nSegments));
        m_pModel = std::make_unique<ReferenceModel>(
            ModelSetup{m_iSize, 7, m_Kind.bInfoFile ? InfoPath() : "", iCutMiB, iCheckPointMiB});
        if (m_Kind.bInfoFile) {
            WriteWholeFile(InfoPath(), "");
        }
        m_File.Open(&m_Param, m_iSize, 7, m_Kind.bInfoFile ? InfoPath().c_str() : nullptr, iCutMiB, iCheckPointMiB);
        std::int64_t iNext = m_Kind.shape == Shape::kGaps ? Pick(0, m_Kind.iMaxSegment / 4) : 0;
        for (int i = 0; i < nSegments; ++i) {
            const std::int64_t iLength = Pick(Pick(0, 30) == 0 ? 0 : 1, m_Kind.iMaxSegment);
            AddSegment(Place(iNext, iLength), iLength);
            iNext += iLength;
            if (m_Kind.shape == Shape::kGaps && Pick(0, 2) == 0) {
                iNext += Pick(1, m_Kind.iMaxSegment);
            }
        }
    }

    void CompareMap() {
        ASSERT_EQ(m_File.GetCheckPointCount(), m_pModel->GetCheckPointCount());
        if (m_Kind.bInfoFile) {
            ASSERT_EQ(ReadWholeFile(InfoPath()), m_pModel->InfoFile()) << "records";
        }
        for (const bool bMerged : {false, true}) {
            WriteWholeFile(m_Folder / "dump", "");
            m_File.ExportInfo(&m_Param, (m_Folder / "dump").c_str(), bMerged);
            ASSERT_EQ(ReadWholeFile(m_Folder / "dump"), m_pModel->ExportInfo(m_Folder / "dump", bMerged))
                << "merged " << bMerged;
        }
    }

    void CompareRead() {
        const std::int64_t iOffset = PickOffset();
        const std::int64_t iLength = PickLength();
        FillSources(iOffset, iLength);
        const ModelRead expected = m_pModel->Read(iOffset, iLength);
        std::string sBuffer(CRedirectedFile::GetReadRoom(static_cast<unsigned int>(iLength)), '\x5A');
        bool bEof = false;
        const int iRead = m_File.Read(&m_Param, static_cast<unsigned long long>(iOffset), sBuffer.data(),
                                      static_cast<unsigned int>(iLength), &bEof);
        SCOPED_TRACE("read at " + std::to_string(iOffset) + ", length " + std::to_string(iLength) + ", size " +
                     std::to_string(m_iSize));
        ASSERT_EQ(iRead, expected.iResult) << "bytes read";
        ASSERT_EQ(bEof, expected.bEof) << "end of file";
        ASSERT_EQ(m_File.GetPos(), m_pModel->GetPos()) << "position";
        sBuffer.resize(static_cast<std::size_t>(std::max(iRead, 0)));
        const auto differ = std::mismatch(sBuffer.begin(), sBuffer.end(), expected.sData.begin(), expected.sData.end());
        ASSERT_TRUE(differ.first == sBuffer.end())
            << "byte " << differ.first - sBuffer.begin() << " of " << iRead << ": expected "
            << static_cast<int>(*differ.second) << ", seen " << static_cast<int>(*differ.first);
    }

    void CompareExport() {
        FillSources(0, std::min<std::int64_t>(m_iSize, 4 * kMiB));
        WriteWholeFile(m_Folder / "content", "");
        m_File.Export(&m_Param, (m_Folder / "content").c_str());
        const std::string sExpected = m_pModel->Export(m_Folder / "content");
        const std::string sSeen = ReadWholeFile(m_Folder / "content");
        ASSERT_EQ(sSeen.size(), sExpected.size()) << "exported bytes";
        ASSERT_TRUE(sSeen == sExpected) << "exported content";
    }

    std::int64_t GetSize() const { return m_iSize; }
    std::int64_t Pick(std::int64_t iFrom, std::int64_t iTo) {
        return std::uniform_int_distribution<std::int64_t>(iFrom, std::max(iFrom, iTo))(m_Random);
    }

private:
    std::string InfoPath() const { return m_Folder / "info"; }

    void AddSegment(std::int64_t iOffset, std::int64_t iLength) {
        // The odd ones are rare: most segments have a source that is there.
        const std::string& sSource = m_vSources[static_cast<std::size_t>(Pick(0, 12) == 0 ? Pick(3, 4) : Pick(0, 2))];
        const std::int64_t iFileOffset = Pick(0, std::int64_t{1} << Pick(0, 42));
        const bool bExpected = m_pModel->AddSegment(sSource, iFileOffset, iOffset, iLength);
        ASSERT_EQ(m_File.AddSegment(&m_Param, sSource.c_str(), iFileOffset, iOffset, iLength, nullptr), bExpected);
        m_vEdges.push_back(iOffset);
        m_vEdges.push_back(iOffset + iLength);
    }

    std::int64_t Place(std::int64_t iNext, std::int64_t iLength) {
        switch (m_Kind.shape) {
            case Shape::kOverlapping:
                return std::max<std::int64_t>(0, iNext - Pick(0, iLength));
            case Shape::kUnordered:
                return Pick(0, m_iSize);
            default:
                return iNext;
        }
    }

    /// Anywhere, or around the edge of a segment.
    std::int64_t PickOffset() {
        if (m_vEdges.empty() || Pick(0, 3) == 0) {
            return Pick(0, m_iSize + 10);
        }
        const std::int64_t iEdge =
            m_vEdges[static_cast<std::size_t>(Pick(0, static_cast<std::int64_t>(m_vEdges.size()) - 1))];
        return std::max<std::int64_t>(0, iEdge + Pick(-3, 3) * Pick(0, 20000));
    }

    std::int64_t PickLength() {
        switch (Pick(0, 7)) {
            case 0:
                return Pick(0, 3);
            case 1:
                return Pick(65536, 100000);
            case 2:
                return 65536;
            default:
                return Pick(1, 20000);
        }
    }

    /// Puts random bytes where the read will take them from. Mostly all of them: sometimes the source ends earlier.
    void FillSources(std::int64_t iOffset, std::int64_t iLength) {
        for (const ModelExtent& extent : m_pModel->Extents(iOffset, iLength)) {
            if (extent.sSource.empty() || extent.sSource == m_vSources.back()) {
                continue;
            }
            const std::int64_t iFill = Pick(0, 20) == 0 ? Pick(0, extent.iLength) : extent.iLength;
            std::string sBytes(static_cast<std::size_t>(iFill), '\0');
            for (char& c : sBytes) {
                c = static_cast<char>(m_Random());
            }
            const int iFile = ::open(extent.sSource.c_str(), O_WRONLY | O_CLOEXEC);
            ASSERT_NE(iFile, -1);
            ASSERT_EQ(::pwrite(iFile, sBytes.data(), sBytes.size(), extent.iFileOffset),
                      static_cast<ssize_t>(sBytes.size()));
            ::close(iFile);
        }
    }

    MapKind m_Kind;
    std::mt19937_64 m_Random;
    CRuntimeParam m_Param{"test", 0};
    TempFolder m_Folder;
    CRedirectedFile m_File;
    std::unique_ptr<ReferenceModel> m_pModel;
    std::vector<std::string> m_vSources;
    std::vector<std::int64_t> m_vEdges;
    std::int64_t m_iSize = 0;
};

// Under a sanitizer everything takes ten times as long.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kMapsPart = 8;
#else
constexpr int kMapsPart = 1;
#endif

constexpr std::int64_t kSmall = 9000;                  // many segments in one read
constexpr std::int64_t kLarge = 20 * kMiB;             // records are cut
constexpr std::int64_t kHuge = std::int64_t{1} << 37;  // terabytes

class RedirectedModelTest : public testing::TestWithParam<MapKind> {};

TEST_P(RedirectedModelTest, ReadsRecordsAndDumpsAreThoseOfTheModel) {
    LogCapture log;
    for (int iMap = 0; iMap < GetParam().nMaps / kMapsPart; ++iMap) {
        // --gtest_random_seed gives other maps than those of every run.
        const auto iSeed = static_cast<unsigned int>(1000 * iMap + testing::GTEST_FLAG(random_seed));
        SCOPED_TRACE(std::string(GetParam().pcName) + ", seed " + std::to_string(iSeed));
        CaptureUtilities utilities(&log);
        RandomMap map(GetParam(), iSeed, &utilities);
        ASSERT_NO_FATAL_FAILURE(map.Build());
        ASSERT_NO_FATAL_FAILURE(map.CompareMap());
        for (int i = 0; i < 12; ++i) {
            ASSERT_NO_FATAL_FAILURE(map.CompareRead()) << "read number " << i;
        }
    }
}

class RedirectedModelExportTest : public testing::TestWithParam<MapKind> {};

TEST_P(RedirectedModelExportTest, ContentIsThatOfTheModel) {
    LogCapture log;
    for (int iMap = 0; iMap < GetParam().nMaps / kMapsPart; ++iMap) {
        SCOPED_TRACE(std::string(GetParam().pcName) + ", map " + std::to_string(iMap));
        CaptureUtilities utilities(&log);
        RandomMap map(GetParam(), static_cast<unsigned int>(iMap), &utilities);
        ASSERT_NO_FATAL_FAILURE(map.Build());
        ASSERT_NO_FATAL_FAILURE(map.CompareExport());
    }
}

const auto kNameOfKind = [](const auto& kind) { return std::string(kind.param.pcName); };

// An info file's lookup depends on the order of adding, so that all shapes are of interest there, too.
INSTANTIATE_TEST_SUITE_P(Maps, RedirectedModelTest,
                         testing::Values(MapKind{"MemoryOrderedSmall", false, Shape::kOrdered, kSmall, 300},
                                         MapKind{"MemoryGapsSmall", false, Shape::kGaps, kSmall, 300},
                                         MapKind{"MemoryOverlappingSmall", false, Shape::kOverlapping, kSmall, 300},
                                         MapKind{"MemoryUnorderedSmall", false, Shape::kUnordered, kSmall, 300},
                                         MapKind{"MemoryGapsHuge", false, Shape::kGaps, kHuge, 200},
                                         MapKind{"MemoryUnorderedHuge", false, Shape::kUnordered, kHuge, 200},
                                         MapKind{"InfoFileOrderedSmall", true, Shape::kOrdered, kSmall, 200},
                                         MapKind{"InfoFileOrderedLarge", true, Shape::kOrdered, kLarge, 300},
                                         MapKind{"InfoFileGapsLarge", true, Shape::kGaps, kLarge, 300},
                                         MapKind{"InfoFileOverlappingLarge", true, Shape::kOverlapping, kLarge, 200},
                                         MapKind{"InfoFileUnorderedLarge", true, Shape::kUnordered, kLarge, 200},
                                         MapKind{"InfoFileOrderedHuge", true, Shape::kOrdered, kHuge, 60},
                                         MapKind{"InfoFileGapsHuge", true, Shape::kGaps, kHuge, 60}),
                         kNameOfKind);

INSTANTIATE_TEST_SUITE_P(Maps, RedirectedModelExportTest,
                         testing::Values(MapKind{"MemoryOrdered", false, Shape::kOrdered, kSmall, 30},
                                         MapKind{"MemoryGaps", false, Shape::kGaps, kSmall, 30},
                                         MapKind{"MemoryOverlapping", false, Shape::kOverlapping, kSmall, 30},
                                         MapKind{"InfoFileOrdered", true, Shape::kOrdered, kSmall, 30},
                                         MapKind{"InfoFileGaps", true, Shape::kGaps, kSmall, 30}),
                         kNameOfKind);

}  // namespace
