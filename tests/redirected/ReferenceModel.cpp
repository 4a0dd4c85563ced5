// A redirected file as its description has it: simple, slow, and sharing no code with the real one.
#include "ReferenceModel.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::int64_t kMiB = 1 << 20;
constexpr std::int64_t kRecordSize = 32;
constexpr std::int64_t kExportBlock = 65536;

/// What a source delivers: nothing if it fails (bFailed), fewer bytes where it ends.
std::string ReadFileAt(const std::string& sPath, std::int64_t iOffset, std::int64_t iLength, bool& bFailed) {
    std::string sData(static_cast<std::size_t>(iLength), '\0');
    const int iFile = ::open(sPath.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t iRead = ::pread(iFile, sData.data(), sData.size(), iOffset);
    ::close(iFile);
    bFailed = iRead < 0;
    sData.resize(bFailed ? 0 : static_cast<std::size_t>(iRead));
    return sData;
}

}  // namespace

ReferenceModel::ReferenceModel(ModelSetup setup)
    : m_Setup(std::move(setup)),
      m_iCut((m_Setup.iCutMiB > 0 ? m_Setup.iCutMiB : 32) * kMiB),
      m_iCheckPoint((m_Setup.iCheckPointMiB > 0 ? m_Setup.iCheckPointMiB : 1024) * kMiB) {
    Log("Open", "id=", m_Setup.iID, ", size=", m_Setup.iSize, " (path=", m_Setup.sInfoFile, ")");
}

void ReferenceModel::Close() {
    Drop("Close", m_Setup.sInfoFile);
    for (const std::string& sSource : m_vsSources) {
        Drop("Close", sSource);
    }
}

// ---- Descriptors

/// Takes a descriptor from the cache; one whose file could not be opened is tried anew.
bool ReferenceModel::Take(const char* pcStep, const std::string& sPath, bool bReadWrite) {
    if (sPath.empty()) {
        return false;
    }
    bool& bOpen = m_mCache[sPath];
    if (!bOpen) {
        const bool bWrite = bReadWrite || m_Setup.bExported;
        Log(pcStep, "open ", bWrite ? "read/write" : "read only", " mode ", sPath);
        struct stat status {};
        const char* pcError = "";
        if (::stat(sPath.c_str(), &status) != 0) {
            pcError = ". Error=No such file or directory (2)";
        } else if (S_ISDIR(status.st_mode) && bWrite) {
            pcError = ". Error=Is a directory (21)";
        }
        bOpen = *pcError == '\0';
        Log(pcStep, "OS open file \"", sPath, "\"", pcError);
    }
    return bOpen;
}

void ReferenceModel::Drop(const char* pcStep, const std::string& sPath) {
    if (const auto it = m_mCache.find(sPath); it != m_mCache.end()) {
        Log(pcStep, "OS close file \"", sPath, "\"", it->second ? "" : ". Error=Bad file descriptor");
        m_mCache.erase(it);
    }
}

std::vector<std::string> ReferenceModel::OpenPaths() const {
    std::vector<std::string> vsPaths;
    for (const auto& [sPath, bOpen] : m_mCache) {
        if (bOpen) {
            vsPaths.push_back(sPath);
        }
    }
    return vsPaths;
}

// ---- The map

bool ReferenceModel::AddSegment(const std::string& sSource, std::int64_t iFileOffset, std::int64_t iOffset,
                                std::int64_t iLength) {
    const Record record{AddSource(sSource), iFileOffset, iOffset, std::min(iLength, m_Setup.iSize - iOffset)};
    Log("AddSegment", "Reference src (", m_Setup.iID, "): ", sSource.empty() ? "Null" : sSource);
    if (iOffset >= m_Setup.iSize) {
        return false;
    }
    if (Take("AddSegment", m_Setup.sInfoFile, true)) {
        Log("AddSegment", "OS seek file (", m_Setup.sInfoFile, ")");
        for (const Record& piece : Cut(record)) {
            AddRecord(piece);
        }
    } else {
        m_vRecords.push_back(record);
    }
    Log("AddSegment", "Segment id=", m_Setup.iID, ", fox=", record.iFileOffset, ", ox=", record.iOffset,
        ", len=", record.iLength);
    return true;
}

/// The place of a source in the list of sources; -1 for none.
std::int64_t ReferenceModel::AddSource(const std::string& sSource) {
    if (sSource.empty()) {
        return -1;
    }
    auto it = std::find(m_vsSources.begin(), m_vsSources.end(), sSource);
    if (it == m_vsSources.end()) {
        it = m_vsSources.insert(it, sSource);
    }
    return it - m_vsSources.begin();
}

/// The records that an info file gets for one segment.
std::vector<ReferenceModel::Record> ReferenceModel::Cut(Record record) const {
    std::vector<Record> vPieces;
    const auto take = [&](std::int64_t iLength) {
        vPieces.push_back({record.iSource, record.iFileOffset, record.iOffset, iLength});
        record.iFileOffset += iLength;
        record.iOffset += iLength;
        record.iLength -= iLength;
    };
    const std::int64_t iToCut = m_iCut - record.iOffset % m_iCut;
    if (iToCut < m_iCut && iToCut < record.iLength) {
        take(iToCut);
    }
    while (record.iLength > m_iCut) {
        take(m_iCut);
    }
    if (record.iLength > 0) {
        take(record.iLength);
    }
    return vPieces;
}

void ReferenceModel::AddRecord(const Record& record) {
    if (record.iOffset >= 1 && record.iOffset % m_iCheckPoint == 0) {
        Log("CreateCheckPointSegment", "OS tell file (", m_Setup.sInfoFile, ")");
        m_vCheckPoints.push_back({static_cast<std::int64_t>(m_vRecords.size()) * kRecordSize, record.iOffset});
    }
    Log("AddSegment", "OS write file (", m_Setup.sInfoFile, ")");
    m_vRecords.push_back(record);
}

/// Where a search for an offset begins in the info file.
std::int64_t ReferenceModel::EstimatePlace(std::int64_t iOffset) const {
    if (m_iCheckPoint <= iOffset) {
        for (auto it = m_vCheckPoints.rbegin(); it != m_vCheckPoints.rend(); ++it) {
            if (it->iOffset <= iOffset) {
                return (iOffset - it->iOffset) / m_iCut * kRecordSize + it->iFileOffset;
            }
        }
    }
    return iOffset / m_iCut * kRecordSize;
}

/// The first segment that holds an offset; -1 for none.
int ReferenceModel::GetSegment(std::int64_t iOffset) {
    const bool bInfo = Take("GetSegment", m_Setup.sInfoFile, false);
    std::size_t i = 0;
    if (bInfo) {
        i = static_cast<std::size_t>(EstimatePlace(iOffset) / kRecordSize);
        Log("GetSegment", "OS seek file (", m_Setup.sInfoFile, ")");
    }
    for (;; ++i) {
        if (bInfo) {
            Log("GetSegment", "OS read file (", m_Setup.sInfoFile, ")");  // one that finds the end, too
        }
        if (i >= m_vRecords.size()) {
            return -1;
        }
        if (m_vRecords[i].iOffset <= iOffset && iOffset < m_vRecords[i].iOffset + m_vRecords[i].iLength) {
            return static_cast<int>(i);
        }
    }
}

int ReferenceModel::GetNextSegment(int iSegment) {
    if (Take("GetNextSegment", m_Setup.sInfoFile, false)) {
        Log("GetNextSegment", "OS read file (", m_Setup.sInfoFile, ")");
    }
    return iSegment + 1 < static_cast<int>(m_vRecords.size()) ? iSegment + 1 : -1;
}

std::string ReferenceModel::SourceName(const Record& record) const {
    return record.iSource >= 0 && record.iSource < static_cast<std::int64_t>(m_vsSources.size())
               ? m_vsSources[static_cast<std::size_t>(record.iSource)]
               : "";
}

std::string ReferenceModel::ShownSource(const Record& record) const {
    const std::string sSource = SourceName(record);
    return sSource.empty() ? "Null" : sSource;
}

std::string ReferenceModel::InfoFile() const {
    std::string sOut;
    for (const Record& record : m_vRecords) {
        for (const std::int64_t iField : {record.iSource, record.iFileOffset, record.iOffset, record.iLength}) {
            for (unsigned int iByte = 0; iByte < 8; ++iByte) {
                sOut += static_cast<char>(static_cast<std::uint64_t>(iField) >> (8 * iByte));
            }
        }
    }
    return sOut;
}

// ---- Reading

ModelRead ReferenceModel::Read(std::int64_t iOffset, std::int64_t iLength) {
    ModelRead read;
    read.iResult = ReadInner(iOffset, iLength, read.sData, nullptr);
    if (read.iResult >= 0) {
        m_iPos = iOffset + read.iResult;
    }
    read.bEof = m_iPos >= m_Setup.iSize;
    if (read.bEof && read.iResult < 0) {
        read.iResult = 0;
    }
    Log("Read", "Eof=", read.bEof ? "true" : "false", ", ox=", m_iPos, ", size=", m_Setup.iSize);
    return read;
}

std::vector<ModelExtent> ReferenceModel::Extents(std::int64_t iOffset, std::int64_t iLength) {
    std::vector<ModelExtent> vExtents;
    std::string sIgnored;
    ReadInner(iOffset, iLength, sIgnored, &vExtents);
    return vExtents;
}

int ReferenceModel::ReadInner(std::int64_t iOffset, std::int64_t iLength, std::string& sOut,
                              std::vector<ModelExtent>* pExtents) {
    if (iOffset >= m_Setup.iSize) {
        return -1;
    }
    std::int64_t iPos = iOffset;
    int iSegment = GetSegment(iPos);
    while (static_cast<std::int64_t>(sOut.size()) < iLength) {
        if (iSegment < 0) {
            if (m_iPos < m_Setup.iSize) {
                sOut.append(
                    static_cast<std::size_t>(std::max<std::int64_t>(std::min(m_Setup.iSize - iPos, iLength), 0)), '\0');
            }
            break;
        }
        const Record record = m_vRecords[static_cast<std::size_t>(iSegment)];
        if (record.iOffset > iPos) {
            Log("Read", "Fill missing segment len:", record.iOffset - iPos);
            iPos = record.iOffset;  // the hole leaves no trace in the result
        }
        const std::int64_t iRest = record.iLength - (iPos - record.iOffset);
        std::int64_t iCount = iLength - static_cast<std::int64_t>(sOut.size());
        if (iRest <= iCount) {
            iCount = std::max<std::int64_t>(iRest, 0);  // a segment that lies before the position has nothing to give
            iSegment = GetNextSegment(iSegment);
        }
        const std::int64_t iFileOffset = record.iFileOffset + (iCount > 0 ? iPos - record.iOffset : 0);
        Log("Read", "Segment (", m_Setup.iID, ") path:", ShownSource(record), ", fox:", iOffset, ", len:", iCount,
            " (seek:", iFileOffset, ")");
        if (pExtents != nullptr && iCount > 0) {
            pExtents->push_back({SourceName(record), iFileOffset, iCount});
        }
        const std::size_t iBefore = sOut.size();
        const bool bWhole = iCount == 0 || ReadSource(SourceName(record), iFileOffset, iCount, sOut);
        iPos += static_cast<std::int64_t>(sOut.size() - iBefore);
        if (!bWhole) {
            break;  // a read never loops without progress
        }
    }
    return static_cast<int>(sOut.size());
}

/// Appends what a source delivers; zeros for none, and for one that cannot be opened. False if it is not all of it.
bool ReferenceModel::ReadSource(const std::string& sSource, std::int64_t iFileOffset, std::int64_t iCount,
                                std::string& sOut) {
    if (!Take("Read", sSource, false)) {
        sOut.append(static_cast<std::size_t>(iCount), '\0');
        return true;
    }
    bool bFailed = false;
    const std::string sRead = ReadFileAt(sSource, iFileOffset, iCount, bFailed);
    Log("Read", "OS seek file (", sSource, ")");
    Log("Read", "OS read file (", sSource, ")", bFailed ? ". Error=Is a directory (21)" : "");
    sOut += sRead;
    return static_cast<std::int64_t>(sRead.size()) == iCount;
}

// ---- Exports

void ReferenceModel::BeginOutput(const char* pcStep, const char* pcWhat, const std::string& sOut) {
    Take(pcStep, sOut, false);
    Log(pcStep, pcWhat, " to file: ", sOut, " (fid=#)");
}

/// Without an export the output is open for reading only.
void ReferenceModel::WriteOutput(const char* pcStep) {
    Log(pcStep, "OS write file (#)", m_Setup.bExported ? "" : ". Error=Bad file descriptor (9)");
}

std::string ReferenceModel::Export(const std::string& sOut) {
    BeginOutput("Export", "Content", sOut);
    const std::int64_t iPosBefore = m_iPos;
    std::string sContent;
    std::int64_t iOffset = 0;
    ModelRead read;
    for (int nEmpty = 0; !read.bEof && nEmpty < 2; iOffset += read.iResult) {
        read = Read(iOffset, kExportBlock);
        if (read.iResult < 0) {
            break;
        }
        WriteOutput("Export");
        Log("Export", "Write ox:", iOffset, ", r:", read.iResult, ", w:", m_Setup.bExported ? read.iResult : -1);
        sContent += read.sData;
        nEmpty = read.iResult == 0 ? nEmpty + 1 : 0;  // twice nothing in one place: nothing will ever come
    }
    m_iPos = iPosBefore;  // what the host reads leaves no trace in what clients read next
    Drop("Export", sOut);
    return m_Setup.bExported ? sContent : "";
}

std::string ReferenceModel::ExportInfo(const std::string& sOut, bool bMerged) {
    BeginOutput("ExportInfo", "Info", sOut);
    std::ostringstream dump;
    const auto line = [&](const auto&... parts) {
        WriteOutput("ExportInfo");
        ((dump << ... << parts) << '\n');
    };
    for (const CheckPoint& checkPoint : m_vCheckPoints) {
        line("--> CheckPoint Segment fox=", checkPoint.iFileOffset, ", ox=", checkPoint.iOffset);
    }
    if (!m_vCheckPoints.empty()) {
        line("-------------------");
    }
    const auto segment = [&](const Record& record) {
        line(bMerged ? "--> Merged " : "", "Segment path=", ShownSource(record), ", fox=", record.iFileOffset,
             ", ox=", record.iOffset, ", len=", record.iLength);
    };
    Record merged{0, 0, 0, 0};
    bool bFirst = true;
    for (int iSegment = GetSegment(0); iSegment >= 0; iSegment = GetNextSegment(iSegment), bFirst = false) {
        const Record record = m_vRecords[static_cast<std::size_t>(iSegment)];
        if (!bMerged) {
            segment(record);
        } else if (!bFirst && record.iSource == merged.iSource) {
            merged.iLength += record.iLength;
        } else {
            if (!bFirst) {
                segment(merged);
            }
            merged = record;
        }
    }
    if (bMerged) {
        segment(merged);
    }
    Drop("ExportInfo", sOut);
    return m_Setup.bExported ? dump.str() : "";
}
