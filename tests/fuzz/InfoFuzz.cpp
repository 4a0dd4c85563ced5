// Damaged info files.
#include "InfoFuzz.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "Limits.h"
#include "MapPicture.h"
#include "MapReport.h"
#include "RedirectedFile.h"
#include "SegmentMap.h"
#include "TempFolder.h"

namespace {

constexpr std::int64_t kMiB = 1048576;
constexpr std::int64_t kSizes[] = {
    0, 1, 4096, kMiB, 3 * kMiB + 5, 1024 * kMiB, 1LL << 41U, std::numeric_limits<std::int64_t>::max()};
/// A reader of records does not tell thousands from dozens, and takes longer.
constexpr std::size_t kMaxBytes = std::size_t{48} * kSegmentRecordSize + 5;
/// Contents larger than this are not written out.
constexpr std::int64_t kMaxExport = 4 * kMiB;
/// So many records say where is read.
constexpr std::size_t kReadRecords = 6;
constexpr unsigned int kLengths[] = {1, 700, 5000};
/// Stands in no source: what is found in a buffer after a read was there before it.
constexpr char kStale = '\x5A';

std::vector<Segment> ToRecords(std::string_view sBytes) {
    std::vector<Segment> vRecords(sBytes.size() / kSegmentRecordSize);
    if (!vRecords.empty()) {
        std::memcpy(static_cast<void*>(vRecords.data()), sBytes.data(), vRecords.size() * kSegmentRecordSize);
    }
    return vRecords;
}

}  // namespace

InfoFuzzWorld::InfoFuzzWorld(const std::string& sFolder)
    : m_sFolder(sFolder),
      m_sInfo(sFolder + "/info"),
      m_vcBuffer(CRedirectedFile::GetReadRoom(*std::max_element(std::begin(kLengths), std::end(kLengths)))) {
    for (const char* pcName : {"/a", "/b", "/c"}) {
        WriteWholeFile(sFolder + pcName, std::string(1000, pcName[1]));
    }
    const LogArgu tag{"fuzz"};
    char vcReason[kReasonBufferSize] = "";
    if (!m_Utilities.AddMountInfo(&m_Param, &tag, sFolder.c_str(), "fuzz", "", vcReason)) {
        throw std::runtime_error(vcReason);
    }
}

std::string InfoFuzzWorld::Run(std::string_view sInput) {
    if (sInput.size() < 2) {
        return "";
    }
    const auto iSteps = static_cast<unsigned char>(sInput[0]);
    const auto iKind = static_cast<unsigned char>(sInput[1]);
    const std::string sBytes(sInput.substr(2, kMaxBytes));
    WriteWholeFile(m_sInfo, sBytes);
    m_Param.SetLogControl((iKind & 8U) != 0 ? ~0 : 0);
    Open(iSteps, iKind);
    const auto pFile = m_Utilities.GetRedirectedFile(m_sInfo.c_str());
    if ((iKind & 16U) != 0) {
        AddSegments(*pFile);
    }
    const std::vector<Segment> vRecords = ToRecords(ReadWholeFile(m_sInfo));
    std::string sFailure = ReadAll(*pFile, vRecords);
    Walk(*pFile, vRecords.size());
    if (sFailure.empty()) {
        sFailure = Dump(vRecords, (iKind & 32U) != 0);
    }
    if ((iKind & 128U) != 0) {
        ExportContent(*pFile);
    }
    m_Utilities.CloseRedirectedFile(&m_Param, m_sInfo.c_str());
    Draw(sBytes, (iKind & 64U) != 0, pFile->GetFileSize());
    return sFailure;
}

void InfoFuzzWorld::Open(unsigned char iSteps, unsigned char iKind) {
    m_Utilities.OpenRedirectedFile(&m_Param, m_sInfo.c_str(), kSizes[iKind & 7U], true, iSteps & 3, iSteps >> 2U & 3);
    CountReached("open");
}

/// Names the sources, and appends records behind the damaged ones.
void InfoFuzzWorld::AddSegments(CRedirectedFile& file) {
    char vcReason[kReasonBufferSize] = "";
    std::int64_t iOffset = 0;
    for (const char* pcName : {"/a", "/b", "/c"}) {
        if (m_Utilities.AddRedirectedFileSegment(&m_Param, m_sInfo.c_str(), (m_sFolder + pcName).c_str(), 10, iOffset,
                                                 kMiB + 1, vcReason)) {
            CountReached("add segment");
        }
        iOffset += kMiB;
    }
    CountReached(file.GetCheckPointCount() > 0 ? "check point" : "no check point");
}

std::string InfoFuzzWorld::ReadAll(CRedirectedFile& file, const std::vector<Segment>& vRecords) {
    std::vector<std::uint64_t> viOffsets{0, 5, static_cast<std::uint64_t>(file.GetFileSize()) - 1,
                                         static_cast<std::uint64_t>(file.GetFileSize()), ~0ULL};
    for (std::size_t i = 0; i < std::min(vRecords.size(), kReadRecords); ++i) {
        const auto iOffset = static_cast<std::uint64_t>(vRecords[i].iOffset);
        const auto iLength = static_cast<std::uint64_t>(vRecords[i].iLength);
        viOffsets.insert(viOffsets.end(), {iOffset, iOffset + iLength - 1, iOffset + iLength});
    }
    for (std::size_t i = 0; i < viOffsets.size(); ++i) {
        const std::string sFailure = Read(file, viOffsets[i], kLengths[i % std::size(kLengths)]);
        if (!sFailure.empty()) {
            return sFailure;
        }
    }
    return "";
}

std::string InfoFuzzWorld::Read(CRedirectedFile& file, std::uint64_t iOffset, unsigned int iLength) {
    const std::size_t nRoom = CRedirectedFile::GetReadRoom(iLength);
    std::fill_n(m_vcBuffer.begin(), nRoom, kStale);
    bool bEof = false;
    const int iRead = file.Read(&m_Param, iOffset, m_vcBuffer.data(), iLength, &bEof);
    if (iRead < 0) {
        CountReached("read refused");
        return "";
    }
    if (static_cast<std::size_t>(iRead) > nRoom) {
        return "a read delivered more than there is room for";
    }
    const std::string_view sRead(m_vcBuffer.data(), static_cast<std::size_t>(iRead));
    std::array<bool, 256> bSeen{};
    for (const char c : sRead) {
        bSeen[static_cast<unsigned char>(c)] = true;
    }
    if (bSeen[kStale]) {
        return "a read delivered what stood in the buffer before";
    }
    const bool bSource = bSeen['a'] || bSeen['b'] || bSeen['c'];
    CountReached(bSource ? "read of a source" : bSeen[0] ? "read of zeros" : "read of nothing");
    bSeen['a'] = bSeen['b'] = bSeen['c'] = bSeen[0] = false;
    return std::ranges::count(bSeen, true) == 0 ? "" : "a read delivered bytes of no source";
}

void InfoFuzzWorld::Walk(CRedirectedFile& file, std::size_t nRecords) {
    ProcSegment cursor;
    file.GetSegment(&m_Param, 0, &cursor);
    for (std::size_t i = 0; cursor.index >= 0 && i <= nRecords; ++i) {
        file.GetNextSegment(&m_Param, &cursor);
        CountReached("step along the records");
    }
}

/// The dump lists the records from the one that holds the first byte, and nfsmap understands it.
std::string InfoFuzzWorld::Dump(const std::vector<Segment>& vRecords, bool bMerged) {
    const std::string sOutput = m_sFolder + "/dump";
    WriteWholeFile(sOutput, "");
    m_Utilities.ExportRedirectedFileInfo(&m_Param, m_sInfo.c_str(), sOutput.c_str(), bMerged);
    const std::vector<Segment> vDumped =
        SegmentMap::Parse(ReadWholeFile(sOutput), SegmentMap::Form::kInfoDump).GetSegments();
    CountReached(bMerged ? "merged dump" : vDumped.empty() ? "empty dump" : "dump");
    const auto itFirst = std::ranges::find_if(vRecords, [](const Segment& record) { return record.Covers(0); });
    const bool bSame = std::equal(itFirst, vRecords.end(), vDumped.begin(), vDumped.end(),
                                  [](const Segment& record, const Segment& dumped) {
                                      return record.iFileOffset == dumped.iFileOffset &&
                                             record.iOffset == dumped.iOffset && record.iLength == dumped.iLength;
                                  });
    return bSame || bMerged ? "" : "the dump does not say what stands in the info file";
}

void InfoFuzzWorld::ExportContent(CRedirectedFile& file) {
    if (file.GetFileSize() > kMaxExport) {
        return;
    }
    const std::string sOutput = m_sFolder + "/content";
    WriteWholeFile(sOutput, "");
    m_Utilities.ExportRedirectedFile(&m_Param, m_sInfo.c_str(), sOutput.c_str());
    CountReached("export");
}

/// All that nfsmap makes of the bytes.
void InfoFuzzWorld::Draw(const std::string& sBytes, bool bDump, std::int64_t iSize) {
    try {
        const SegmentMap map =
            SegmentMap::Parse(sBytes, bDump ? SegmentMap::Form::kInfoDump : SegmentMap::Form::kGuess);
        const LaidOutMap laidOut(map, iSize);
        MakeTable(laidOut);
        Summarize(laidOut, SearchSteps());
        DescribeOffset(laidOut, iSize / 2);
        DrawMap(laidOut, "a <title> & more", {0, iSize / 2});
        CountReached(map.GetForm() == SegmentMap::Form::kInfoDump ? "nfsmap: a dump" : "nfsmap: an info file");
    } catch (const MapError&) {
        CountReached("nfsmap: refused");
    }
}
