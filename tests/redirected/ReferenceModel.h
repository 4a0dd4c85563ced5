// A redirected file as its description has it: simple, slow, and sharing no code with the real one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What a read delivers.
struct ModelRead {
    int iResult = 0;
    bool bEof = false;
    std::string sData;  ///< iResult bytes, empty for -1
};

/// Where a read takes bytes from; a test fills these places of sparse sources before it reads.
struct ModelExtent {
    std::string sSource;
    std::int64_t iFileOffset = 0;
    std::int64_t iLength = 0;
};

/// Files are read with plain system calls. Values are expected to be sane: nothing here guards against overflow.
class ReferenceModel {
public:
    struct Record {
        std::int64_t iSource, iFileOffset, iOffset, iLength;
    };
    struct CheckPoint {
        std::int64_t iFileOffset, iOffset;
    };

    /// With an info file, records are cut at multiples of iCut and check points lie at multiples of iCheckPoint.
    ReferenceModel(std::int64_t iSize, bool bInfoFile, std::int64_t iCut = 32 << 20, std::int64_t iCheckPoint = 1 << 30)
        : m_iSize(iSize), m_bInfoFile(bInfoFile), m_iCut(iCut), m_iCheckPoint(iCheckPoint) {}

    bool AddSegment(const std::string& sSource, std::int64_t iFileOffset, std::int64_t iOffset, std::int64_t iLength);
    ModelRead Read(std::int64_t iOffset, std::int64_t iLength);
    /// The places that this read would take bytes from; changes nothing.
    std::vector<ModelExtent> Extents(std::int64_t iOffset, std::int64_t iLength);
    std::string Export();
    std::string ExportInfo(bool bMerged) const;

    std::int64_t GetPos() const { return m_iPos; }
    const std::vector<Record>& Records() const { return m_vRecords; }
    const std::vector<CheckPoint>& CheckPoints() const { return m_vCheckPoints; }
    /// The info file's bytes.
    std::string InfoFile() const;

private:
    int Find(std::int64_t iOffset) const;
    void AddRecord(Record record);
    int ReadInner(std::int64_t iOffset, std::int64_t iLength, std::string& sOut, std::vector<ModelExtent>* pExtents);
    std::string SourceName(std::int64_t iSource) const;

    std::int64_t m_iSize;
    bool m_bInfoFile;
    std::int64_t m_iCut;
    std::int64_t m_iCheckPoint;
    std::int64_t m_iPos = 0;
    std::vector<std::string> m_vSources;
    std::vector<Record> m_vRecords;  ///< of the info file, or the list in memory
    std::vector<CheckPoint> m_vCheckPoints;
};
