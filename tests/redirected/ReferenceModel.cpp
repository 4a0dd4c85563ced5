// A redirected file as its description has it: simple, slow, and sharing no code with the real one.
#include "ReferenceModel.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// What a source delivers: nothing if it fails (bFailed), fewer bytes where it ends.
std::string ReadFileAt(const std::string& sPath, std::int64_t iOffset, std::int64_t iLength, bool& bFailed) {
    bFailed = false;
    const int iFile = ::open(sPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (sPath.empty() || iFile < 0) {
        return std::string(static_cast<std::size_t>(iLength), '\0');
    }
    std::string sData(static_cast<std::size_t>(iLength), '\0');
    const ssize_t iRead = ::pread(iFile, sData.data(), sData.size(), iOffset);
    ::close(iFile);
    bFailed = iRead < 0;
    sData.resize(iRead < 0 ? 0 : static_cast<std::size_t>(iRead));
    return sData;
}

}  // namespace

bool ReferenceModel::AddSegment(const std::string& sSource, std::int64_t iFileOffset, std::int64_t iOffset,
                                std::int64_t iLength) {
    std::int64_t iSource = -1;
    if (!sSource.empty()) {
        auto it = std::find(m_vSources.begin(), m_vSources.end(), sSource);
        if (it == m_vSources.end()) {
            it = m_vSources.insert(it, sSource);
        }
        iSource = it - m_vSources.begin();
    }
    if (iOffset >= m_iSize) {
        return false;
    }
    if (iOffset + iLength >= m_iSize) {
        iLength = m_iSize - iOffset;
    }
    if (!m_bInfoFile) {
        m_vRecords.push_back({iSource, iFileOffset, iOffset, iLength});
        return true;
    }
    const std::int64_t iBase = m_iCut * (iOffset / m_iCut);
    if (iBase < iOffset) {
        const std::int64_t iFirst = iBase + m_iCut - iOffset;
        if (iFirst < iLength) {
            AddRecord({iSource, iFileOffset, iOffset, iFirst});
            iFileOffset += iFirst;
            iOffset += iFirst;
            iLength -= iFirst;
        }
    }
    while (iLength > m_iCut) {
        AddRecord({iSource, iFileOffset, iOffset, m_iCut});
        iFileOffset += m_iCut;
        iOffset += m_iCut;
        iLength -= m_iCut;
    }
    if (iLength > 0) {
        AddRecord({iSource, iFileOffset, iOffset, iLength});
    }
    return true;
}

void ReferenceModel::AddRecord(Record record) {
    if (record.iOffset >= 1 && record.iOffset % m_iCheckPoint == 0) {
        m_vCheckPoints.push_back({static_cast<std::int64_t>(m_vRecords.size()) * 32, record.iOffset});
    }
    m_vRecords.push_back(record);
}

int ReferenceModel::Find(std::int64_t iOffset) const {
    std::int64_t iPlace = 0;
    if (m_bInfoFile) {
        iPlace = iOffset / m_iCut * 32;
        if (m_iCheckPoint <= iOffset) {
            for (auto it = m_vCheckPoints.rbegin(); it != m_vCheckPoints.rend(); ++it) {
                if (it->iOffset <= iOffset) {
                    iPlace = (iOffset - it->iOffset) / m_iCut * 32 + it->iFileOffset;
                    break;
                }
            }
        }
    }
    for (std::size_t i = static_cast<std::size_t>(iPlace / 32); i < m_vRecords.size(); ++i) {
        if (m_vRecords[i].iOffset <= iOffset && iOffset < m_vRecords[i].iOffset + m_vRecords[i].iLength) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

ModelRead ReferenceModel::Read(std::int64_t iOffset, std::int64_t iLength) {
    ModelRead read;
    read.iResult = ReadInner(iOffset, iLength, read.sData, nullptr);
    if (read.iResult >= 0) {
        m_iPos = iOffset + read.iResult;
    }
    read.bEof = m_iPos >= m_iSize;
    if (read.bEof && read.iResult < 0) {
        read.iResult = 0;
    }
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
    if (iOffset >= m_iSize) {
        return -1;
    }
    std::int64_t iPos = iOffset;
    const auto iDone = [&sOut] { return static_cast<std::int64_t>(sOut.size()); };
    int iSegment = Find(iPos);
    while (iDone() < iLength) {
        if (iSegment < 0) {
            if (m_iPos < m_iSize) {
                sOut.append(static_cast<std::size_t>(std::max<std::int64_t>(std::min(m_iSize - iPos, iLength), 0)), 0);
            }
            break;
        }
        const Record record = m_vRecords[static_cast<std::size_t>(iSegment)];
        if (record.iOffset > iPos) {
            iPos = record.iOffset;  // the hole leaves no trace in the result
        }
        const std::int64_t iWithin = iPos - record.iOffset;
        const std::int64_t iRest = record.iLength - iWithin;
        std::int64_t iCount = iLength - iDone();
        if (iRest <= iCount) {
            iCount = std::max<std::int64_t>(iRest, 0);  // a segment that lies before the position has nothing to give
            iSegment = iSegment + 1 < static_cast<int>(m_vRecords.size()) ? iSegment + 1 : -1;
        }
        if (iCount == 0) {
            continue;
        }
        const std::string sSource = SourceName(record.iSource);
        if (pExtents != nullptr) {
            pExtents->push_back({sSource, record.iFileOffset + iWithin, iCount});
        }
        bool bFailed = false;
        const std::string sRead = ReadFileAt(sSource, record.iFileOffset + iWithin, iCount, bFailed);
        sOut += sRead;
        iPos += static_cast<std::int64_t>(sRead.size());
        if (bFailed || static_cast<std::int64_t>(sRead.size()) < iCount) {
            break;
        }
    }
    return static_cast<int>(sOut.size());
}

std::string ReferenceModel::SourceName(std::int64_t iSource) const {
    return iSource >= 0 && iSource < static_cast<std::int64_t>(m_vSources.size())
               ? m_vSources[static_cast<std::size_t>(iSource)]
               : "";
}

std::string ReferenceModel::Export() {
    std::string sOut;
    std::int64_t iOffset = 0;
    ModelRead read;
    for (int nEmpty = 0; !read.bEof && nEmpty < 2; iOffset += read.iResult) {
        read = Read(iOffset, 65536);
        if (read.iResult < 0) {
            break;
        }
        sOut += read.sData;
        nEmpty = read.iResult == 0 ? nEmpty + 1 : 0;  // twice nothing in one place: nothing will ever come
    }
    return sOut;
}

std::string ReferenceModel::ExportInfo(bool bMerged) const {
    std::string sOut;
    for (const CheckPoint& checkPoint : m_vCheckPoints) {
        sOut += "--> CheckPoint Segment fox=" + std::to_string(checkPoint.iFileOffset) +
                ", ox=" + std::to_string(checkPoint.iOffset) + "\n";
    }
    if (!m_vCheckPoints.empty()) {
        sOut += "-------------------\n";
    }
    const auto line = [this](const Record& record) {
        const std::string sSource = SourceName(record.iSource);
        return "Segment path=" + (sSource.empty() ? "Null" : sSource) + ", fox=" + std::to_string(record.iFileOffset) +
               ", ox=" + std::to_string(record.iOffset) + ", len=" + std::to_string(record.iLength) + "\n";
    };
    std::vector<Record> vWalk;
    if (const int iFirst = Find(0); iFirst >= 0) {
        vWalk.assign(m_vRecords.begin() + iFirst, m_vRecords.end());
    }
    if (!bMerged) {
        for (const Record& record : vWalk) {
            sOut += line(record);
        }
        return sOut;
    }
    Record merged{0, 0, 0, 0};
    for (std::size_t i = 0; i < vWalk.size(); ++i) {
        if (i > 0 && vWalk[i].iSource == merged.iSource) {
            merged.iLength += vWalk[i].iLength;
            continue;
        }
        if (i > 0) {
            sOut += "--> Merged " + line(merged);
        }
        merged = vWalk[i];
    }
    return sOut + "--> Merged " + line(merged);
}

std::string ReferenceModel::InfoFile() const {
    std::string sOut(m_vRecords.size() * 32, '\0');
    for (std::size_t i = 0; i < m_vRecords.size(); ++i) {
        const Record& record = m_vRecords[i];
        const std::int64_t viFields[4] = {record.iSource, record.iFileOffset, record.iOffset, record.iLength};
        for (std::size_t iField = 0; iField < 4; ++iField) {
            for (std::size_t iByte = 0; iByte < 8; ++iByte) {
                sOut[i * 32 + iField * 8 + iByte] =
                    static_cast<char>(static_cast<std::uint64_t>(viFields[iField]) >> (8 * iByte));
            }
        }
    }
    return sOut;
}
