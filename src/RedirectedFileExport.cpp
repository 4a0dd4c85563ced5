// Redirected files: content and map written to files, for diagnosis and for other tools.
#include "RedirectedFile.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "InfoFileReader.h"
#include "PositionedFile.h"
#include "Utilities.h"

namespace {

/// Bytes read and written in one step: as much as an NFS READ delivers.
constexpr unsigned int kExportBlockSize = 65536;

/// Writing begins where a freshly opened file stands, also if a client has the output open and has moved in it.
constexpr std::int64_t kOutputStart = 0;

/// The cached descriptor of an output file; its cached entry is closed at the end of the scope.
class OutputHandle {
public:
    OutputHandle(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath)
        : m_pUtilities(pUtilities),
          m_pRuntimeParam(pRuntimeParam),
          m_pLogArgu(pLogArgu),
          m_pcPath(pcPath),
          m_File(pUtilities->GetCachedFileHandle(pRuntimeParam, pLogArgu, pcPath, false)) {}
    ~OutputHandle() {
        if (m_File.IsOpen()) {
            m_File = CCachedFile();  // so that the cache's share is the last one
            m_pUtilities->CloseCachedFileHandle(m_pRuntimeParam, m_pLogArgu, m_pcPath);
        }
    }
    OutputHandle(const OutputHandle&) = delete;
    OutputHandle& operator=(const OutputHandle&) = delete;

    const CCachedFile& Get() const { return m_File; }

private:
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    const LogArgu* m_pLogArgu;
    const char* m_pcPath;
    CCachedFile m_File;
};

/// One line, of whatever length, with one write.
__attribute__((format(printf, 4, 5))) void WriteLine(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                                     CPositionedFile& output, const char* pcFormat, ...) {
    va_list arguments;
    va_start(arguments, pcFormat);
    char* pcLine = nullptr;
    const int iLen = vasprintf(&pcLine, pcFormat, arguments);
    va_end(arguments);
    if (iLen < 0) {
        return;  // out of memory
    }
    const std::unique_ptr<char, decltype(&std::free)> pcOwned(pcLine, &std::free);
    output.Write(pRuntimeParam, pLogArgu, pcLine, static_cast<unsigned int>(iLen));
}

}  // namespace

void CRedirectedFile::Export(CRuntimeParam* pRuntimeParam, const char* pcExportPath) {
    LogArgu logArgu{"RedirectedFile.Export"};
    const OutputHandle handle(m_pUtilities, pRuntimeParam, &logArgu, pcExportPath);
    if (!handle.Get().IsOpen() || IsOwnFile(handle.Get())) {
        if (pRuntimeParam->IsLogRedirectFile()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file error: %s", logArgu.pcName, pcExportPath);
        }
        return;
    }
    if (pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file: %s (fid=%d)", logArgu.pcName, pcExportPath,
                              handle.Get().Get());
    }
    CPositionedFile output(m_pUtilities, handle.Get(), kOutputStart);
    WriteContent(pRuntimeParam, &logArgu, output);
}

void CRedirectedFile::WriteContent(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CPositionedFile& output) {
    std::vector<char> vcBlock(GetReadRoom(kExportBlockSize));
    std::int64_t iLastPos = GetPos();  // as the next client's read would begin; from there on the export's own
    unsigned long long iOffset = 0;
    bool bStuck = false;
    bool bEof = false;
    while (!bEof) {
        const int iRead = ReadFrom(pRuntimeParam, iOffset, vcBlock.data(), kExportBlockSize, &bEof, &iLastPos);
        if (iRead < 0) {
            return;
        }
        const int iWritten = output.Write(pRuntimeParam, pLogArgu, vcBlock.data(), static_cast<unsigned int>(iRead));
        if (pRuntimeParam->IsLogRedirectFile()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Write ox:%llu, r:%d, w:%d", pLogArgu->pcName, iOffset, iRead,
                                  iWritten);
        }
        iOffset += static_cast<unsigned int>(iRead);
        // The first empty read may be due to an earlier read having reached the end; a second one in the same place
        // means that a source holds less than its segment says, and nothing will ever come.
        if (iRead == 0 && bStuck) {
            return;
        }
        bStuck = iRead == 0;
    }
}

void CRedirectedFile::ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcExportPath, bool bMergeRange) {
    LogArgu logArgu{"RedirectedFile.ExportInfo"};
    const OutputHandle handle(m_pUtilities, pRuntimeParam, &logArgu, pcExportPath);
    if (!handle.Get().IsOpen() || IsOwnFile(handle.Get())) {
        if (pRuntimeParam->IsLogRedirectFile()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file error: %s", logArgu.pcName, pcExportPath);
        }
        return;
    }
    if (pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file: %s (fid=%d)", logArgu.pcName, pcExportPath,
                              handle.Get().Get());
    }
    CPositionedFile output(m_pUtilities, handle.Get(), kOutputStart);
    WriteCheckPoints(pRuntimeParam, &logArgu, output);
    WriteSegments(pRuntimeParam, &logArgu, output, bMergeRange);
}

void CRedirectedFile::WriteCheckPoints(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                       CPositionedFile& output) const {
    std::vector<CheckPointSegment> vCheckPoints;
    {
        const MutexLock lock(m_hMutex);
        vCheckPoints = m_vInfoFileCheckPoint.GetAll();
    }
    if (vCheckPoints.empty()) {
        return;
    }
    for (const CheckPointSegment& checkPoint : vCheckPoints) {
        WriteLine(pRuntimeParam, pLogArgu, output, "--> CheckPoint Segment fox=%llu, ox=%llu\n",
                  static_cast<unsigned long long>(checkPoint.iFileOffset),
                  static_cast<unsigned long long>(checkPoint.iOffset));
    }
    WriteLine(pRuntimeParam, pLogArgu, output, "-------------------\n");
}

void CRedirectedFile::WriteSegments(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CPositionedFile& output,
                                    bool bMergeRange) {
    ProcSegment cursor;
    Segment merged{0, 0, 0, 0};
    bool bFirst = true;
    for (GetSegment(pRuntimeParam, 0, &cursor); cursor.index >= 0; GetNextSegment(pRuntimeParam, &cursor)) {
        if (!bMergeRange) {
            WriteSegment(pRuntimeParam, pLogArgu, output, cursor.segment, false);
        } else if (!bFirst && cursor.segment.iSource == merged.iSource) {
            merged.iLength = AddSaturated(merged.iLength, cursor.segment.iLength);
        } else {
            if (!bFirst) {
                WriteSegment(pRuntimeParam, pLogArgu, output, merged, true);
            }
            merged = cursor.segment;
        }
        bFirst = false;
    }
    if (bMergeRange) {
        WriteSegment(pRuntimeParam, pLogArgu, output, merged, true);  // of an empty map, too
    }
}

void CRedirectedFile::WriteSegment(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CPositionedFile& output,
                                   const Segment& segment, bool bMerged) const {
    const std::string* psSource = GetSource(segment.iSource);
    const char* pcSource = psSource != nullptr ? psSource->c_str() : "Null";
    const auto iFileOffset = static_cast<unsigned long long>(segment.iFileOffset);
    const auto iOffset = static_cast<unsigned long long>(segment.iOffset);
    const auto iLength = static_cast<unsigned long long>(segment.iLength);
    if (bMerged) {
        WriteLine(pRuntimeParam, pLogArgu, output, "--> Merged Segment path=%s, fox=%llu, ox=%llu, len=%llu\n",
                  pcSource, iFileOffset, iOffset, iLength);
    } else {
        WriteLine(pRuntimeParam, pLogArgu, output, "Segment path=%s, fox=%llu, ox=%llu, len=%llu\n", pcSource,
                  iFileOffset, iOffset, iLength);
    }
}

/// Is the file, under whatever name, the map's info file or one of the sources? Writing to it would destroy what is
/// being read.
bool CRedirectedFile::IsOwnFile(int iFile) const {
    struct stat output {};
    if (::fstat(iFile, &output) != 0) {
        return false;
    }
    const auto isOutput = [&output](const std::string& sPath) {
        struct stat own {};
        return ::stat(sPath.c_str(), &own) == 0 && own.st_dev == output.st_dev && own.st_ino == output.st_ino;
    };
    if (!m_sInfoFile.empty() && isOutput(GetInfoFilePath())) {
        return true;
    }
    for (std::int64_t iSource = 0; const std::string* psSource = GetSource(iSource); ++iSource) {
        if (isOutput(*psSource)) {
            return true;
        }
    }
    return false;
}
