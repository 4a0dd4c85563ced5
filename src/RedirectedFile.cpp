// Redirected files: opening, building the map, closing.
#include "RedirectedFile.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <fcntl.h>

#include "DeferredLog.h"
#include "DescriptorCache.h"
#include "Log.h"
#include "PositionedFile.h"
#include "Reason.h"

namespace {

/// A segment of more records than this (2 TiB at the default size) has the lines about each of them, where they are
/// wanted, go out one by one, under the lock: they would take too much memory.
constexpr std::int64_t kMaxRecordsWithKeptLines = 65536;

constexpr LogArgu kCreateCheckPoint{"RedirectedFile.CreateCheckPointSegment"};

}  // namespace

CRedirectedFile::CRedirectedFile(CDescriptorCache* pUtilities) : m_pUtilities(pUtilities) {}

CRedirectedFile::~CRedirectedFile() = default;

void CRedirectedFile::Open(CRuntimeParam* pRuntimeParam, long long iSize, int iId, const char* pcInfoFile,
                           int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) {
    Prepare(iSize, iId, pcInfoFile, iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB, nullptr);
    ReportOpen(pRuntimeParam);
}

void CRedirectedFile::Prepare(long long iSize, int iId, const char* pcInfoFile, int iInfoFileSegmentSizeMB,
                              int iInfoFileCheckPointSizeMB, std::shared_ptr<CRedirectedFile> pEarlier) {
    m_iSize = iSize;
    m_iId = iId;
    if (pcInfoFile != nullptr) {
        m_sInfoFile = pcInfoFile;
    }
    if (iInfoFileSegmentSizeMB > 0) {
        m_iInfoFileSegmentSize = iInfoFileSegmentSizeMB * kMiB;
    }
    if (iInfoFileCheckPointSizeMB > 0) {
        m_iInfoFileCheckPointSize = iInfoFileCheckPointSizeMB * kMiB;
    }
    const MutexLock lock(m_hMutexAppend);
    m_pEarlier = std::move(pEarlier);
}

void CRedirectedFile::CloseEarlier(CRuntimeParam* pRuntimeParam) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexAppend);
    CloseTakenOver(pRuntimeParam);
}

void CRedirectedFile::CloseTakenOver(CRuntimeParam* pRuntimeParam) {
    if (m_pEarlier) {
        m_pEarlier->Close(pRuntimeParam);
        m_pEarlier.reset();
    }
}

void CRedirectedFile::ReportOpen(CRuntimeParam* pRuntimeParam) {
    const LogArgu logArgu{"RedirectedFile.Open"};
    const LogContext log{m_pUtilities, pRuntimeParam, &logArgu};
    NFS_LOG_INFO(log, kLogRedirectFile, "[%s] id=%d, size=%llu (path=%s)", m_iId,
                 static_cast<unsigned long long>(m_iSize), m_sInfoFile.c_str());
}

bool CRedirectedFile::AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSource, long long iFileOffset,
                                 long long iOffset, long long iLength, char* pcStatus) {
    const LogArgu logArgu{"RedirectedFile.AddSegment"};
    const LogContext log{m_pUtilities, pRuntimeParam, &logArgu};
    std::optional<CDeferredLog> deferred(std::in_place);
    const MutexLock lock(m_hMutexAppend);
    CloseTakenOver(pRuntimeParam);
    if (m_bClosed) {
        return false;  // whoever knows the path says so
    }
    Segment segment{ReferSource(log, pcSource), iFileOffset, iOffset, iLength};
    if (iOffset >= m_iSize) {
        WriteReason(pcStatus, "Offset %lld is not inside the file (size = %lld)", iOffset,
                    static_cast<long long>(m_iSize));
        return false;
    }
    if (AddSaturated(iOffset, iLength) >= m_iSize) {
        segment.iLength = m_iSize - iOffset;  // at most iLength, so it cannot overflow
    }
    const CCachedFile file = GetWritableInfoFile(log);
    if (!file.IsOpen()) {
        AppendToList(segment);
    } else {
        // Failing writes, which are reported in any case, end the adding before their lines become too many.
        if (pRuntimeParam->IsLogFileAccess() && segment.iLength / m_iInfoFileSegmentSize > kMaxRecordsWithKeptLines) {
            deferred.reset();
        }
        AppendToInfoFile(log, file, segment);
    }
    if (m_bClosed) {
        return false;
    }
    NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Segment id=%d, fox=%llu, ox=%llu, len=%llu", m_iId,
                 static_cast<unsigned long long>(iFileOffset), static_cast<unsigned long long>(iOffset),
                 static_cast<unsigned long long>(segment.iLength));
    return true;
}

bool CRedirectedFile::IsSource(const char* pcPath) const {
    const MutexLock lock(m_hMutex);
    return m_vSource.Contains(pcPath);
}

std::int64_t CRedirectedFile::ReferSource(const LogContext& log, const char* pcSource) {
    if (pcSource == nullptr || *pcSource == '\0') {
        NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Reference src (%d): Null", m_iId);
        return -1;
    }
    std::int64_t iSource = -1;
    {
        const MutexLock lock(m_hMutex);
        iSource = m_vSource.Refer(pcSource);
    }
    NFS_LOG_INFO(log, kLogRedirectFile, "[%s] Reference src (%d): %s", m_iId, pcSource);
    return iSource;
}

CCachedFile CRedirectedFile::GetFile(const LogContext& log, const std::string& sPath, FileUse use) {
    if (sPath.empty() || m_bClosed) {
        return {};
    }
    CCachedFile file = use == FileUse::kSource
                           ? m_pUtilities->GetCachedFileHandle(log.pRuntimeParam, log.pLogArgu, sPath.c_str(), false)
                           : m_pUtilities->GetInfoFileHandle(log.pRuntimeParam, log.pLogArgu, sPath.c_str(),
                                                             use == FileUse::kWriteMap);
    if (m_bClosed) {
        // Close may have been through the cache already: it leaves nothing open there, and so does this.
        file = {};
        m_pUtilities->CloseCachedFileHandle(log.pRuntimeParam, log.pLogArgu, sPath.c_str());
    }
    return file;
}

CCachedFile CRedirectedFile::GetInfoFile(const LogContext& log, bool bReadWrite) {
    if (m_sInfoFile.empty()) {
        return {};
    }
    const auto psRenamed = GetRenamedInfoFile();
    return GetFile(log, psRenamed ? *psRenamed : m_sInfoFile, bReadWrite ? FileUse::kWriteMap : FileUse::kReadMap);
}

CCachedFile CRedirectedFile::GetWritableInfoFile(const LogContext& log) {
    CCachedFile file = GetInfoFile(log, true);
    if (file.IsOpen() && (::fcntl(file, F_GETFL) & O_ACCMODE) == O_RDONLY) {
        // A read came first, and outside the exports that opens for reading only.
        CloseInfoFile(log);
        file = GetInfoFile(log, true);
    }
    return file;
}

void CRedirectedFile::CloseInfoFile(const LogContext& log) {
    m_pUtilities->CloseCachedFileHandle(log.pRuntimeParam, log.pLogArgu, GetInfoFilePath().c_str());
}

std::shared_ptr<const std::string> CRedirectedFile::GetRenamedInfoFile() const {
    if (!m_bInfoFileRenamed) {
        return nullptr;
    }
    const MutexLock lock(m_hMutex);
    return m_psRenamedInfoFile;
}

std::string CRedirectedFile::GetInfoFilePath() const {
    const auto psRenamed = GetRenamedInfoFile();
    return psRenamed ? *psRenamed : m_sInfoFile;
}

void CRedirectedFile::SetRenamedInfoFile(const char* pcPath) {
    if (m_sInfoFile.empty()) {
        return;
    }
    auto psPath = std::make_shared<const std::string>(pcPath);
    const MutexLock lock(m_hMutex);
    m_psRenamedInfoFile = std::move(psPath);
    m_bInfoFileRenamed = true;
}

void CRedirectedFile::AppendToList(const Segment& segment) {
    const MutexLock lock(m_hMutex);
    if (!m_bClosed) {
        m_vAllCachedSegment.Add(segment);
        ++m_nSegments;
    }
}

void CRedirectedFile::AppendToInfoFile(const LogContext& log, const CCachedFile& file, Segment segment) {
    // Another redirected file may append to the same info file; the descriptor they share tells them apart in time.
    const MutexLock lock(file.GetPositionMutex());
    const long long iEnd = OS_FileSeek(log.pRuntimeParam, log.pLogArgu, file, 0, SEEK_END);
    if (iEnd < 0) {
        return;  // there is no place where the records could stand; the seek was logged
    }
    CPositionedFile output(file, iEnd);
    const std::int64_t iSize = m_iInfoFileSegmentSize;
    bool bGoOn = true;
    if (const std::int64_t iWithin = segment.iOffset % iSize; iWithin > 0 && iSize - iWithin < segment.iLength) {
        bGoOn = WriteRecord(log, output, segment, iSize - iWithin);
    }
    while (bGoOn && segment.iLength > iSize) {
        bGoOn = WriteRecord(log, output, segment, iSize);
    }
    if (bGoOn && segment.iLength > 0) {
        WriteRecord(log, output, segment, segment.iLength);
    }
}

bool CRedirectedFile::WriteRecord(const LogContext& log, CPositionedFile& output, Segment& segment,
                                  std::int64_t iLength) {
    Segment record = segment;
    record.iLength = iLength;
    m_iInfoFilePos = output.GetPosition();
    CreateCheckPoint({m_pUtilities, log.pRuntimeParam, &kCreateCheckPoint}, output, record);
    const int iWritten = output.Write(log, &record, kSegmentRecordSize);
    if (iWritten > 0 && iWritten < static_cast<int>(kSegmentRecordSize)) {
        output.TakeBack(m_iInfoFilePos);  // half a record would shift all that follow
    }
    const bool bFailed = iWritten != static_cast<int>(kSegmentRecordSize);
    m_iInfoFilePos = output.GetPosition();
    m_nFailedWrites = bFailed ? m_nFailedWrites + 1 : 0;
    m_nSegments += bFailed ? 0 : 1;
    segment.iFileOffset = AddSaturated(segment.iFileOffset, iLength);
    segment.iOffset += iLength;
    segment.iLength -= iLength;
    return !m_bClosed && m_nFailedWrites < kMaxFailedWrites;
}

void CRedirectedFile::CreateCheckPointSegment(CRuntimeParam* pRuntimeParam, const Segment& segment) {
    const LogContext log{m_pUtilities, pRuntimeParam, &kCreateCheckPoint};
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexAppend);
    const CCachedFile file = GetInfoFile(log, false);
    if (file.IsOpen()) {
        CPositionedFile output(file, m_iInfoFilePos);
        CreateCheckPoint(log, output, segment);
    }
}

void CRedirectedFile::CreateCheckPoint(const LogContext& log, CPositionedFile& output, const Segment& segment) {
    if (segment.iOffset < 1 || segment.iOffset % m_iInfoFileCheckPointSize != 0) {
        return;
    }
    const CheckPointSegment checkPoint{output.Tell(log), segment.iOffset};
    const MutexLock lock(m_hMutex);
    if (!m_bClosed) {
        m_vInfoFileCheckPoint.Add(checkPoint);
    }
}

void CRedirectedFile::Close(CRuntimeParam* pRuntimeParam) {
    const LogArgu logArgu{"RedirectedFile.Close"};
    // From here on whoever took a descriptor from the cache sees that it has to be closed there.
    if (m_bClosed.exchange(true)) {
        return;
    }
    const CDeferredLog deferred;
    // An adding of a segment under way ends at its next record, and no other begins.
    const MutexLock lockAppend(m_hMutexAppend);
    CloseTakenOver(pRuntimeParam);
    {
        const MutexLock lock(m_hMutex);
        m_vAllCachedSegment.Clear();
        m_vInfoFileCheckPoint.Clear();
    }
    CloseInfoFile({m_pUtilities, pRuntimeParam, &logArgu});
    // The paths stay in memory for reads that are under way, but no more can be added.
    for (std::int64_t iSource = 0; const std::string* psPath = GetSource(iSource); ++iSource) {
        m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, psPath->c_str());
    }
}

const std::string* CRedirectedFile::GetSource(std::int64_t iSource) const {
    const MutexLock lock(m_hMutex);
    return m_vSource.Get(iSource);
}

std::size_t CRedirectedFile::GetCheckPointCount() const {
    const MutexLock lock(m_hMutex);
    return m_vInfoFileCheckPoint.GetAll().size();
}

std::size_t CRedirectedFile::GetMapMemory() const {
    const MutexLock lock(m_hMutex);
    return m_vAllCachedSegment.GetCount() * sizeof(Segment) +
           m_vInfoFileCheckPoint.GetAll().capacity() * sizeof(CheckPointSegment);
}

int CRedirectedFile::OS_FileRead(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, void* pvBuffer,
                                 unsigned int iLen) {
    if (iFile == -1) {
        std::fill_n(static_cast<char*>(pvBuffer), iLen, '\0');
        return static_cast<int>(iLen);
    }
    return m_pUtilities->OS_FileRead(pRuntimeParam, pLogArgu, iFile, pvBuffer, iLen, nullptr);
}

int CRedirectedFile::OS_FileWrite(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile,
                                  const void* pvBuffer, unsigned int iLen) {
    return m_pUtilities->OS_FileWrite(pRuntimeParam, pLogArgu, iFile, pvBuffer, iLen, nullptr);
}

long long CRedirectedFile::OS_FileSeek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile,
                                       long long iOffset, int iWhence) {
    if (iFile == -1) {
        return iOffset;
    }
    return m_pUtilities->OS_FileSeek(pRuntimeParam, pLogArgu, iFile, iOffset, iWhence, nullptr);
}

long long CRedirectedFile::OS_FileTell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile) {
    return m_pUtilities->OS_FileTell(pRuntimeParam, pLogArgu, iFile, nullptr);
}
