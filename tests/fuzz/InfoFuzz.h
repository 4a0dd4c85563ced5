// The door that damaged info files come in by: a redirected file is opened over one, added to, read, and dumped; and
// nfsmap draws it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzTarget.h"
#include "RuntimeParam.h"
#include "Segment.h"
#include "TellingUtilities.h"

class CRedirectedFile;

/// One redirected file with three sources, below an export. One input is an info file:
///
///   byte 0: bits 0 and 1 give the size of segments in MiB, bits 2 and 3 that of check points, 0 for the default
///   byte 1: bits 0 to 2 choose the file's size; bit 3 logs all file access; bit 4 adds segments first; bit 5 dumps a
///           merged map, else a whole one; bit 6 has nfsmap take the file for a dump, else it guesses; bit 7 exports
///           what the file holds, if that is not much
///   then the file's bytes
///
/// What is read consists of bytes of the sources and zeros, and a dump says what stands in the file.
class InfoFuzzWorld : public FuzzTarget {
public:
    /// Works in a folder that exists.
    explicit InfoFuzzWorld(const std::string& sFolder);

    std::string Run(std::string_view sInput) override;

private:
    void Open(unsigned char iSteps, unsigned char iKind);
    void AddSegments(CRedirectedFile& file);
    std::string ReadAll(CRedirectedFile& file, const std::vector<Segment>& vRecords);
    std::string Read(CRedirectedFile& file, std::uint64_t iOffset, unsigned int iLength);
    void Walk(CRedirectedFile& file, std::size_t nRecords);
    std::string Dump(const std::vector<Segment>& vRecords, bool bMerged);
    void ExportContent(CRedirectedFile& file);
    void Draw(const std::string& sBytes, bool bDump, std::int64_t iSize);

    std::string m_sFolder;
    std::string m_sInfo;  ///< the redirected file's path, which is its info file's
    TellingUtilities m_Utilities{[](std::string_view) {}};
    CRuntimeParam m_Param{"fuzz", 0};
    std::vector<char> m_vcBuffer;
};
