// A redirected file as its description has it: simple, slow, and sharing no code with the real one.
#pragma once

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

/// What a read delivers.
struct ModelRead {
    int iResult = 0;
    bool bEof = false;
    std::string sData;  ///< the bytes read
};

/// Where a read takes bytes from; a test fills these places of sparse sources before it reads.
struct ModelExtent {
    std::string sSource;
    std::int64_t iFileOffset = 0;
    std::int64_t iLength = 0;
};

/// How a redirected file is opened, and in what surroundings.
struct ModelSetup {
    std::int64_t iSize = 0;
    int iID = 0;
    std::string sInfoFile;   ///< empty: the map stays in memory
    int iCutMiB = 0;         ///< records of an info file are cut at multiples of it; 0 is the default, 32
    int iCheckPointMiB = 0;  ///< and check points lie at multiples of this; 0 is the default, 1024
    bool bExported = true;   ///< whether all files lie below an export: only then are they opened for writing
    bool bLogged = false;    ///< whether lines are kept, which takes long
};

/// What a redirected file delivers, keeps and logs. Files are read with plain system calls, as they lie on disk; the
/// info file's records lie here. Descriptors go by their paths, in the lines too; that of an output is "#". Values are
/// expected to be sane: nothing here guards against overflow.
class ReferenceModel {
public:
    explicit ReferenceModel(ModelSetup setup);

    bool AddSegment(const std::string& sSource, std::int64_t iFileOffset, std::int64_t iOffset, std::int64_t iLength);
    ModelRead Read(std::int64_t iOffset, std::int64_t iLength);
    /// What an export to this empty file makes of it: the content and the map's dump.
    std::string Export(const std::string& sOut);
    std::string ExportInfo(const std::string& sOut, bool bMerged);
    void Close();

    /// The places that this read would take bytes from; changes nothing. For a model without lines.
    std::vector<ModelExtent> Extents(std::int64_t iOffset, std::int64_t iLength);

    std::int64_t GetPos() const { return m_iPos; }
    std::size_t GetCheckPointCount() const { return m_vCheckPoints.size(); }
    /// The info file's bytes.
    std::string InfoFile() const;
    /// The lines since the last call.
    std::vector<std::string> TakeLog() { return std::exchange(m_vsLog, {}); }
    /// The files whose descriptors are in the cache.
    std::vector<std::string> OpenPaths() const;

private:
    struct Record {
        std::int64_t iSource, iFileOffset, iOffset, iLength;
    };
    struct CheckPoint {
        std::int64_t iFileOffset, iOffset;
    };

    template <typename... Parts>
    void Log(const char* pcStep, const Parts&... parts) {
        if (m_Setup.bLogged) {
            std::ostringstream line;
            line << "[RedirectedFile." << pcStep << "] ";
            (line << ... << parts);
            m_vsLog.push_back(line.str());
        }
    }

    // ---- Descriptors
    bool Take(const char* pcStep, const std::string& sPath, bool bReadWrite);
    void Drop(const char* pcStep, const std::string& sPath);
    void BeginOutput(const char* pcStep, const char* pcWhat, const std::string& sOut);
    void WriteOutput(const char* pcStep);

    // ---- The map
    std::int64_t AddSource(const std::string& sSource);
    std::vector<Record> Cut(Record record) const;
    void AddRecord(const Record& record);
    std::int64_t EstimatePlace(std::int64_t iOffset) const;
    int GetSegment(std::int64_t iOffset);
    int GetNextSegment(int iSegment);
    std::string SourceName(const Record& record) const;
    std::string ShownSource(const Record& record) const;

    // ---- Reading
    int ReadInner(std::int64_t iOffset, std::int64_t iLength, std::string& sOut, std::vector<ModelExtent>* pExtents);
    bool ReadSource(const std::string& sSource, std::int64_t iFileOffset, std::int64_t iCount, std::string& sOut);

    ModelSetup m_Setup;
    std::int64_t m_iCut;
    std::int64_t m_iCheckPoint;
    std::int64_t m_iPos = 0;
    std::vector<std::string> m_vsSources;
    std::vector<Record> m_vRecords;  ///< of the info file, or the list in memory
    std::vector<CheckPoint> m_vCheckPoints;
    std::map<std::string, bool> m_mCache;  ///< is it open, or did opening fail?
    std::vector<std::string> m_vsLog;
};
