// Redirected files: content and map written to files, for diagnosis and for other tools.
#include "RedirectedFile.h"

#include <string>
#include <vector>

#include <sys/stat.h>

#include "DescriptorCache.h"
#include "Log.h"
#include "PositionedFile.h"
#include "Reason.h"

namespace {

/// Bytes read and written in one step: as much as an NFS READ delivers.
constexpr unsigned int kExportBlockSize = 65536;

/// Writing begins where a freshly opened file stands, also if a client has the output open and has moved in it.
constexpr std::int64_t kOutputStart = 0;

/// The cached descriptor of an output file; its cached entry is closed at the end of the scope.
class OutputHandle {
public:
    OutputHandle(CDescriptorCache* pCache, const LogContext& log, const char* pcPath)
        : m_pCache(pCache),
          m_Log(log),
          m_pcPath(pcPath),
          m_File(pCache->GetCachedFileHandle(log.pRuntimeParam, log.pLogArgu, pcPath, false)) {}
    ~OutputHandle() {
        if (m_File.IsOpen()) {
            m_File = CCachedFile();  // so that the cache's share is the last one
            m_pCache->CloseCachedFileHandle(m_Log.pRuntimeParam, m_Log.pLogArgu, m_pcPath);
        }
    }
    OutputHandle(const OutputHandle&) = delete;
    OutputHandle& operator=(const OutputHandle&) = delete;

    const CCachedFile& Get() const { return m_File; }

private:
    CDescriptorCache* m_pCache;
    const LogContext& m_Log;
    const char* m_pcPath;
    CCachedFile m_File;
};

/// With one write.
void WriteLine(const LogContext& log, CPositionedFile& output, const std::string& sLine) {
    output.Write(log, sLine.data(), static_cast<unsigned int>(sLine.size()));
}

}  // namespace

void CRedirectedFile::Export(CRuntimeParam* pRuntimeParam, const char* pcExportPath) {
    const LogArgu logArgu{"RedirectedFile.Export"};
    const LogContext log{m_pUtilities, pRuntimeParam, &logArgu};
    const OutputHandle handle(m_pUtilities, log, pcExportPath);
    if (!handle.Get().IsOpen() || IsOwnFile(handle.Get())) {
        NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Content to file error: %s", pcExportPath);
        return;
    }
    NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Content to file: %s (fid=%d)", pcExportPath, handle.Get().Get());
    CPositionedFile output(handle.Get(), kOutputStart);
    WriteContent(log, output);
}

void CRedirectedFile::WriteContent(const LogContext& log, CPositionedFile& output) {
    std::vector<char> vcBlock(GetReadRoom(kExportBlockSize));
    std::int64_t iLastPos = GetPos();  // as the next client's read would begin; from there on the export's own
    unsigned long long iOffset = 0;
    bool bStuck = false;
    bool bEof = false;
    while (!bEof) {
        const int iRead = ReadFrom(log.pRuntimeParam, iOffset, vcBlock.data(), kExportBlockSize, &bEof, &iLastPos);
        if (iRead < 0) {
            return;
        }
        const int iWritten = output.Write(log, vcBlock.data(), static_cast<unsigned int>(iRead));
        NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Write ox:%llu, r:%d, w:%d", iOffset, iRead, iWritten);
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
    const LogArgu logArgu{"RedirectedFile.ExportInfo"};
    const LogContext log{m_pUtilities, pRuntimeParam, &logArgu};
    const OutputHandle handle(m_pUtilities, log, pcExportPath);
    if (!handle.Get().IsOpen() || IsOwnFile(handle.Get())) {
        NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Info to file error: %s", pcExportPath);
        return;
    }
    NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Info to file: %s (fid=%d)", pcExportPath, handle.Get().Get());
    CPositionedFile output(handle.Get(), kOutputStart);
    WriteCheckPoints(log, output);
    WriteSegments(log, output, bMergeRange);
}

void CRedirectedFile::WriteCheckPoints(const LogContext& log, CPositionedFile& output) const {
    std::vector<CheckPointSegment> vCheckPoints;
    {
        const MutexLock lock(m_hMutex);
        vCheckPoints = m_vInfoFileCheckPoint.GetAll();
    }
    if (vCheckPoints.empty()) {
        return;
    }
    for (const CheckPointSegment& checkPoint : vCheckPoints) {
        WriteLine(log, output,
                  FormatText("--> CheckPoint Segment fox=%llu, ox=%llu\n",
                             static_cast<unsigned long long>(checkPoint.iFileOffset),
                             static_cast<unsigned long long>(checkPoint.iOffset)));
    }
    WriteLine(log, output, "-------------------\n");
}

void CRedirectedFile::WriteSegments(const LogContext& log, CPositionedFile& output, bool bMergeRange) {
    ProcSegment cursor;
    Segment merged{0, 0, 0, 0};
    bool bFirst = true;
    CRuntimeParam* pRuntimeParam = log.pRuntimeParam;
    for (GetSegment(pRuntimeParam, 0, &cursor); cursor.index >= 0; GetNextSegment(pRuntimeParam, &cursor)) {
        if (!bMergeRange) {
            WriteSegment(log, output, cursor.segment, false);
        } else if (!bFirst && cursor.segment.iSource == merged.iSource) {
            merged.iLength = AddSaturated(merged.iLength, cursor.segment.iLength);
        } else {
            if (!bFirst) {
                WriteSegment(log, output, merged, true);
            }
            merged = cursor.segment;
        }
        bFirst = false;
    }
    if (bMergeRange) {
        WriteSegment(log, output, merged, true);  // of an empty map, too
    }
}

void CRedirectedFile::WriteSegment(const LogContext& log, CPositionedFile& output, const Segment& segment,
                                   bool bMerged) const {
    const std::string* psSource = GetSource(segment.iSource);
    const char* pcSource = psSource != nullptr ? psSource->c_str() : "Null";
    const auto iFileOffset = static_cast<unsigned long long>(segment.iFileOffset);
    const auto iOffset = static_cast<unsigned long long>(segment.iOffset);
    const auto iLength = static_cast<unsigned long long>(segment.iLength);
    WriteLine(log, output,
              bMerged ? FormatText("--> Merged Segment path=%s, fox=%llu, ox=%llu, len=%llu\n", pcSource, iFileOffset,
                                   iOffset, iLength)
                      : FormatText("Segment path=%s, fox=%llu, ox=%llu, len=%llu\n", pcSource, iFileOffset, iOffset,
                                   iLength));
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
