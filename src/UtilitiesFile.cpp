// CUtilities: reading, writing, creating and removing files, and changing their attributes, on behalf of NFS clients.
//
// Paths of redirected files are diverted: reads come from the segment map, changes become notifications to the host.
// Renaming is told in UtilitiesRename.cpp.

#include "Utilities.h"

#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "DeferredLog.h"
#include "FileOwner.h"
#include "FileTransfer.h"
#include "PathProbe.h"
#include "RedirectedFile.h"

namespace {

/// Seeks from where the last operation on the descriptor ended, or from the file's end. The offset from the start, or
/// -1, which no transfer accepts. The position mutex is held.
long long SeekRelatively(const CCachedFile& file, unsigned long long iSeek, int iSeekType) {
    const long long iLeft = file.TakePosition();
    if (iLeft != -1) {
        ::lseek(file.Get(), iLeft, SEEK_SET);  // data was written up to there: it can be sought
    }
    return ::lseek(file.Get(), static_cast<off_t>(iSeek), iSeekType);
}

}  // namespace

unsigned long long CUtilities::GetFileSize(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                           unsigned long long iDefaultSize, const FoundStatus* pFound) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    if (const auto pRedirected = GetRedirectedFile(pcPath)) {
        return static_cast<unsigned long long>(pRedirected->GetFileSize());
    }
    if (pFound != nullptr && pFound->bKnown && !pRuntimeParam->IsLogFileAccess()) {
        DropReplacedFile(log, pcPath, *pFound);
        return static_cast<unsigned long long>(pFound->status.st_size);
    }
    const CCachedFile file = GetClientFile(log, pcPath, false, pFound);
    if (!file.IsOpen()) {
        return iDefaultSize;
    }
    const long long iEnd = SeekToEnd(log, file);
    return iEnd == -1 ? iDefaultSize : static_cast<unsigned long long>(iEnd);
}

bool CUtilities::NewFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry,
                         FoundStatus* pMade) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const int iFile = CreateRegular(log, entry);
    if (iFile == -1) {
        return false;
    }
    if (pMade == nullptr) {
        OS_FileClose(pRuntimeParam, pLogArgu, iFile, entry.GetPathText(), nullptr);
        return true;
    }
    pMade->name = CDescriptor(iFile);
    pMade->bKnown = ::fstat(iFile, &pMade->status) == 0;
    ReportClose(log, entry.GetPathText());  // with the last that the caller asks of the file
    return true;
}

bool CUtilities::RemoveFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const char* pcPath = entry.GetPathText();
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] Remove file, path=%s", pcPath);
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
    if (OS_FileRemove(pRuntimeParam, pLogArgu, entry, nullptr) == -1) {
        return false;
    }
    // Another thread may have opened the file since: its descriptor must not stand for a later file of that path.
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
    return RemoveRedirectedFile(pRuntimeParam, pcPath);
}

bool CUtilities::UpdateFileAttributes(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                      bool bMode, unsigned int iMode, bool bUid, unsigned int iUid, bool bGid,
                                      unsigned int iGid, bool bSize, unsigned long long iSize, bool bAtime,
                                      unsigned int iAtimeSec, unsigned int iAtimeNsec, bool bMtime,
                                      unsigned int iMtimeSec, unsigned int iMtimeNsec, const FoundStatus* pFound) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    NFS_LOG_INFO(log, kLogFileAccess,
                 "[%s] Update file attributes, path=%s, set_mode=%d, mode=%u, set_uid=%d, uid=%u, set_gid=%d, gid=%u, "
                 "set_size=%d, size=%llu, set_atime=%d, atime.sec=%u, atime.nsec=%u, set_mtime=%d, mtime.sec=%u, "
                 "mtime.nsec=%u",
                 pcPath, bMode, iMode, bUid, iUid, bGid, iGid, bSize, iSize, bAtime, iAtimeSec, iAtimeNsec, bMtime,
                 iMtimeSec, iMtimeNsec);
    if (!bMode && !bUid && !bGid && !bSize && !bAtime && !bMtime) {
        return true;
    }
    if (GetRedirectedFile(pcPath)) {
        CFileOwner owner(this, pRuntimeParam, pcPath);
        return m_HostAnswers.Ask(CHostAnswers::kAttributes, [&] {
            return LogUpdateRedirectedFileAttributes(owner.GetParam(), pcPath, bSize, iSize, bAtime, iAtimeSec, bMtime,
                                                     iMtimeSec);
        }) == 0;
    }
    if (bMode || bSize) {
        CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
    }
    if (bMode && OS_SetFileMode(pRuntimeParam, pLogArgu, pcPath, iMode, nullptr, pFound) == -1) {
        return false;
    }
    return !bSize || OS_SetFileSize(pRuntimeParam, pLogArgu, pcPath, iSize, nullptr, pFound);
}

int CUtilities::ReadFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                         unsigned long long iSeek, int iSeekType, void* pvBuffer, unsigned int iLen, bool* pbEof,
                         const FoundStatus* pFound) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] Read file, path=%s, iSeek=%llu, iSeekType=%d, length=%u", pcPath, iSeek,
                 iSeekType, iLen);
    *pbEof = true;
    if (auto pRedirected = GetRedirectedFile(pcPath)) {
        return ReadRedirectedFile(pRuntimeParam, pcPath, std::move(pRedirected), iSeek, pvBuffer, iLen, pbEof);
    }
    const CCachedFile file = GetClientFile(log, pcPath, false, pFound);
    if (!file.IsOpen()) {
        return -1;
    }
    if (iSeekType == SEEK_SET) {
        return ReadOpenedFile(log, file, static_cast<long long>(iSeek), pvBuffer, iLen, pbEof, pFound);
    }
    const CDeferredLog deferred;
    const MutexLock lock(file.GetPositionMutex());
    const long long iOffset = SeekRelatively(file, iSeek, iSeekType);
    return ReadOpenedFile(log, file, iOffset, pvBuffer, iLen, pbEof, pFound);
}

/// Closing cuts a read short. Where another file has taken this one's place, that one answers; the disk never does.
int CUtilities::ReadRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                   std::shared_ptr<CRedirectedFile> pFile, unsigned long long iSeek, void* pvBuffer,
                                   unsigned int iLen, bool* pbEof) {
    int iRead = pFile->Read(pRuntimeParam, iSeek, pvBuffer, iLen, pbEof);
    while (pFile->IsClosed() && (iRead < 0 || static_cast<unsigned int>(iRead) < iLen)) {
        auto pNext = GetRedirectedFile(pcPath);
        if (!pNext || pNext == pFile) {
            break;
        }
        pFile = std::move(pNext);
        iRead = pFile->Read(pRuntimeParam, iSeek, pvBuffer, iLen, pbEof);
    }
    return iRead;
}

int CUtilities::ReadOpenedFile(const LogContext& log, const CCachedFile& file, long long iOffset, void* pvBuffer,
                               unsigned int iLen, bool* pbEof, const FoundStatus* pFound) {
    int iRead = -1;
    if (!ReadAt(log, file, iOffset, pvBuffer, iLen, nullptr, &iRead)) {
        return -1;
    }
    ReportTell(log, file, iOffset, 0, nullptr);
    const long long iPosition = iRead == -1 ? iOffset : iOffset + iRead;
    // A whole read that ends before the size just found need not ask for the end; the position counts as left there.
    if (pFound != nullptr && pFound->bKnown && iRead == static_cast<int>(iLen) && iPosition < pFound->status.st_size &&
        !log.IsWanted(CRuntimeParam::kLogFileAccess)) {
        file.LeavePosition(pFound->status.st_size);
        *pbEof = false;
        return iRead;
    }
    *pbEof = iPosition >= SeekToEnd(log, file);
    return iRead;
}

int CUtilities::WriteFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                          unsigned long long iSeek, int iSeekType, const void* pvData, unsigned int iLen,
                          const FoundStatus* pFound) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] Write file, path=%s, iSeek=%llu, iSeekType=%d, length=%u", pcPath, iSeek,
                 iSeekType, iLen);
    if (GetRedirectedFile(pcPath)) {
        CFileOwner owner(this, pRuntimeParam, pcPath);
        return m_HostAnswers.Ask(CHostAnswers::kWrite, [&] {
            return LogWriteRedirectedFile(owner.GetParam(), pcPath, iSeek, iSeekType, iLen);
        });
    }
    const CCachedFile file = GetClientFile(log, pcPath, true, pFound);
    if (!file.IsOpen()) {
        return -1;
    }
    if (iSeekType == SEEK_SET) {
        return WriteOpenedFile(log, file, static_cast<long long>(iSeek), pvData, iLen);
    }
    const CDeferredLog deferred;
    const MutexLock lock(file.GetPositionMutex());
    const long long iOffset = SeekRelatively(file, iSeek, iSeekType);
    return WriteOpenedFile(log, file, iOffset, pvData, iLen);
}

int CUtilities::WriteOpenedFile(const LogContext& log, const CCachedFile& file, long long iOffset, const void* pvData,
                                unsigned int iLen) {
    const int iWritten = WriteAt(log, file, iOffset, pvData, iLen, nullptr);
    if (iWritten == -1) {
        return -1;
    }
    file.LeavePosition(iOffset + iWritten);
    if (m_bSyncWrites && OS_FileSync(log.pRuntimeParam, log.pLogArgu, file, nullptr) == -1) {
        return -1;
    }
    return iWritten;
}

long long CUtilities::SeekToEnd(const LogContext& log, const CCachedFile& file) {
    file.TakePosition();
    return OS_FileSeek(log.pRuntimeParam, log.pLogArgu, file, 0, SEEK_END, nullptr);
}
