// CDescriptorCache: the cache of open descriptors, one for each path in use.
//
// Entries share their descriptors with the operations that use them: dropping an entry never closes a descriptor
// under somebody's hands. A path that could not be opened leaves an entry without descriptor, tried again at the next
// request. COpenedFiles holds the entries, and the order of their use.
//
// A descriptor serves only while it is the file that its path names. A client's call has looked at its path and brings
// what it found. The host's own files (sources and info files, whose paths no call looks at) are looked at here, once
// in each second of their use, and stay in use while their path names nothing: what is open is better than nothing.
#include "DescriptorCache.h"

#include <cerrno>
#include <ctime>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "DeferredLog.h"
#include "PathProbe.h"
#include "Paths.h"

namespace {

/// Failures to open for reading and writing that leave reading to try: a read-only file system, no right to write, a
/// file marked as unchangeable, a program that is running.
bool IsRefusedToWriters(int iError) {
    return iError == EROFS || iError == EACCES || iError == EPERM || iError == ETXTBSY;
}

}  // namespace

CDescriptorCache::CDescriptorCache() = default;

CDescriptorCache::~CDescriptorCache() = default;

bool CDescriptorCache::IsExported(const LogContext& /*log*/, const char* /*pcPath*/) {
    return false;
}

CCachedFile CDescriptorCache::GetCachedFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                                  const char* pcPath, bool bReadWrite) {
    FileWish wish;
    wish.bReadWrite = bReadWrite;
    return GetHostFile({this, pRuntimeParam, pLogArgu}, pcPath, wish);
}

CCachedFile CDescriptorCache::GetInfoFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                                const char* pcPath, bool bReadWrite) {
    FileWish wish;
    wish.bReadWrite = bReadWrite;
    wish.bInfoFile = true;
    return GetHostFile({this, pRuntimeParam, pLogArgu}, pcPath, wish);
}

CCachedFile CDescriptorCache::GetHostFile(const LogContext& log, const char* pcPath, FileWish& wish) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return {};
    }
    if (IsLookDue(pcPath)) {
        wish.LookAt(pcPath);
    }
    return TakeCachedFile(log, pcPath, wish);
}

CCachedFile CDescriptorCache::GetClientFile(const LogContext& log, const char* pcPath, bool bWrite,
                                            const FoundStatus* pFound) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return {};
    }
    FileWish wish;
    wish.bClient = true;
    wish.bWrite = bWrite;
    wish.bCalled = pFound != nullptr;
    if (pFound != nullptr && pFound->bKnown) {
        wish.pFound = pFound;
    } else if (pFound != nullptr || IsLookDue(pcPath)) {
        wish.LookAt(pcPath);
    }
    return TakeCachedFile(log, pcPath, wish);
}

/// Made without the lock: a file system may take its time.
void CDescriptorCache::FileWish::LookAt(const char* pcPath) {
    looked.bKnown = ::stat(pcPath, &looked.status) == 0;
    looked.bLinks = true;
}

/// Whether a second has begun since an open entry's path was looked at.
bool CDescriptorCache::IsLookDue(const char* pcPath) {
    const MutexLock lock(m_hMutexOpenedFileHandles);
    const auto itOpened = m_OpenedFiles.FindOpen(pcPath);
    return itOpened != m_OpenedFiles.end() && itOpened->second.iLastAccess != std::time(nullptr);
}

CCachedFile CDescriptorCache::TakeCachedFile(const LogContext& log, const char* pcPath, const FileWish& wish) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    auto itOpened = m_OpenedFiles.FindOpen(pcPath);
    if (itOpened != m_OpenedFiles.end() && IsOtherFile(itOpened->second, *wish.pFound)) {
        EraseCachedFile(log, itOpened);
        itOpened = m_OpenedFiles.end();
    }
    if (itOpened == m_OpenedFiles.end()) {
        return OpenCachedFile(log, pcPath, wish);
    }
    if (wish.bClient && wish.pFound->bKnown && !IsRegularFile(wish.pFound->status)) {
        ReportNotRegular(log, pcPath, errno);
        return {};
    }
    if (wish.bWrite && itOpened->second.bReadOnly) {
        // It may be written to by now.
        EraseCachedFile(log, itOpened);
        return OpenCachedFile(log, pcPath, wish);
    }
    OpenedFileInfo& info = itOpened->second;
    info.bHost = info.bHost || !wish.bClient;
    m_OpenedFiles.Touch(info, std::time(nullptr));
    return info.iFile;
}

/// Is the file that a look found not the one that an entry has open? An unknown look says nothing.
bool CDescriptorCache::IsOtherFile(const OpenedFileInfo& info, const FoundStatus& found) {
    return found.bKnown && info.identity != FileIdentity(found.status);
}

void CDescriptorCache::DropReplacedFile(const LogContext& log, const char* pcPath, const FoundStatus& found) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    const auto itOpened = m_OpenedFiles.FindOpen(pcPath);
    if (itOpened != m_OpenedFiles.end() && IsOtherFile(itOpened->second, found)) {
        EraseCachedFile(log, itOpened);
    }
}

void CDescriptorCache::DropMissingFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    const auto itOpened = m_OpenedFiles.FindOpen(pcPath);
    if (itOpened != m_OpenedFiles.end() && !itOpened->second.bHost) {
        EraseCachedFile({this, pRuntimeParam, pLogArgu}, itOpened);
    }
}

/// What the host alone may have open fails for a client as if it could not be opened.
void CDescriptorCache::ReportNotRegular(const LogContext& log, const char* pcPath, int iError) {
    const bool bWrite = IsExported(log, pcPath);
    ReportOpenMode(log, pcPath, bWrite);
    ReportOpen(log, pcPath, -1, iError, nullptr);
}

void CDescriptorCache::ReportOpenMode(const LogContext& log, const char* pcPath, bool bWrite) {
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] open %s mode %s", bWrite ? "read/write" : "read only", pcPath);
}

CCachedFile CDescriptorCache::OpenCachedFile(const LogContext& log, const char* pcPath, const FileWish& wish) {
    OpenedFileInfo info;
    const auto itFailed = m_OpenedFiles.Find(pcPath);
    if (itFailed != m_OpenedFiles.end()) {
        info = itFailed->second;
    }
    if (m_OpenedFiles.IsFull()) {
        CloseExceededCachedFileHandle(log.pRuntimeParam, log.pLogArgu);
    }
    const bool bWrite = wish.bReadWrite || IsExported(log, pcPath);
    const int iFile = OpenInMode(log, pcPath, wish, bWrite, &info.bReadOnly);
    if (wish.bCalled && !bWrite) {
        return CCachedFile(iFile);  // its export was removed during the call: nothing stays open below it
    }
    struct stat status {};
    if (iFile != -1 && wish.pFound->name.IsOpen()) {
        info.identity = FileIdentity(wish.pFound->status);  // it was opened through that descriptor
    } else if (iFile != -1 && ::fstat(iFile, &status) == 0) {
        info.identity = FileIdentity(status);
    }
    info.iFile = CCachedFile(iFile);
    info.sPath = pcPath;
    info.bHost = !wish.bClient;
    return m_OpenedFiles.Store(std::move(info), std::time(nullptr)).iFile;
}

/// Opens for reading and writing, and what refuses that for reading alone unless writing was asked for.
int CDescriptorCache::OpenInMode(const LogContext& log, const char* pcPath, const FileWish& wish, bool bWrite,
                                 bool* pbReadOnly) {
    *pbReadOnly = !bWrite;
    ReportOpenMode(log, pcPath, bWrite);
    int iError = 0;
    const int iFile = OpenForCache(log, pcPath, bWrite ? O_RDWR : O_RDONLY, wish, &iError);
    if (iFile != -1 || !bWrite || wish.bReadWrite || !IsRefusedToWriters(iError)) {
        return iFile;
    }
    *pbReadOnly = true;
    ReportOpenMode(log, pcPath, false);
    return OpenForCache(log, pcPath, O_RDONLY, wish, &iError);
}

int CDescriptorCache::OpenForCache(const LogContext& log, const char* pcPath, int iFlags, const FileWish& wish,
                                   int* piError) {
    const auto open = [pcPath, iFlags, &wish] {
        const bool bToWrite = (iFlags & O_ACCMODE) != O_RDONLY;
        if (wish.bClient) {
            // A read tries to open for writing too, and needs only what it can read. Where the look met no link, there
            // is to be none now.
            return OpenRegularFile(pcPath, iFlags, *wish.pFound,
                                   bToWrite && !wish.bWrite ? OwnFiles::kAsPermitted : OwnFiles::kAlways);
        }
        return bToWrite || wish.bInfoFile ? OpenByOwnLinks(pcPath, iFlags) : ::open(pcPath, iFlags | kOpenFlags);
    };
    int iFile = open();
    if (iFile == -1 && errno == EMFILE) {
        CloseExceededCachedFileHandle(log.pRuntimeParam, log.pLogArgu);
        iFile = open();
    }
    *piError = errno;
    return ReportOpen(log, pcPath, iFile, *piError, nullptr);
}

/// Gives the cache's share of a descriptor up. Another user of it closes it later, which nobody is told any more.
void CDescriptorCache::CloseCachedFile(const LogContext& log, OpenedFileInfo& info) {
    const bool bOpen = info.iFile.IsOpen();
    const int iFile = info.iFile.ReleaseIfLast();
    if (bOpen && iFile == -1) {
        ReportClose(log, info.sPath.c_str());
    } else {
        OS_FileClose(log.pRuntimeParam, log.pLogArgu, iFile, info.sPath.c_str(), nullptr);
    }
}

void CDescriptorCache::CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                             const char* pcPath) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return;
    }
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    const auto itOpened = m_OpenedFiles.Find(pcPath);
    if (itOpened != m_OpenedFiles.end()) {
        EraseCachedFile({this, pRuntimeParam, pLogArgu}, itOpened);
    }
}

COpenedFiles::Iterator CDescriptorCache::EraseCachedFile(const LogContext& log, COpenedFiles::Iterator itOpened) {
    CloseCachedFile(log, itOpened->second);
    return m_OpenedFiles.Erase(itOpened);
}

void CDescriptorCache::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                                 const char* pcPath) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return;
    }
    const std::string sPrefix = GetFolderPrefix(pcPath);
    const bool bTold = pRuntimeParam->IsLogGeneralInfo();
    std::string sClosed;
    while (CloseNextWithPrefix({this, pRuntimeParam, pLogArgu}, sPrefix, bTold, &sClosed)) {
    }
}

/// Walks the entries and closes what begins with a prefix. A walk that tells what it compares ends with the first one
/// it closes, for the next walk to start over: true then. So no more lines are kept back than there are entries. What
/// was opened again in front of the one closed last stays: there might be no end.
bool CDescriptorCache::CloseNextWithPrefix(const LogContext& log, const std::string& sPrefix, bool bTold,
                                           std::string* psClosed) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    auto itOpened = m_OpenedFiles.begin();
    while (itOpened != m_OpenedFiles.end()) {
        const std::string sEntry = GetFolderPrefix(itOpened->first);
        if (bTold) {
            LogInfo(log.pRuntimeParam, "[CloseAllCachedFileHandles] Path compare: \"%s\" vs \"%s\"", sPrefix.c_str(),
                    sEntry.c_str());
        }
        if (!sEntry.starts_with(sPrefix) || itOpened->first <= *psClosed) {
            ++itOpened;
            continue;
        }
        *psClosed = itOpened->first;
        itOpened = EraseCachedFile(log, itOpened);
        if (bTold) {
            return true;
        }
    }
    return false;
}

void CDescriptorCache::CloseCachedFilesWithin(const LogContext& log, const std::string& sFolder, bool bReadOnlyOnes) {
    if (sFolder.empty()) {
        return;  // nothing lies in a folder without a name
    }
    const std::string sPrefix = GetFolderPrefix(sFolder);
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    const auto isMeant = [bReadOnlyOnes](const OpenedFileInfo& info) {
        return !bReadOnlyOnes || (info.iFile.IsOpen() && info.bReadOnly);
    };
    const auto itItself = m_OpenedFiles.Find(sFolder);
    if (itItself != m_OpenedFiles.end() && isMeant(itItself->second)) {
        EraseCachedFile(log, itItself);
    }
    auto itOpened = m_OpenedFiles.FindFrom(sPrefix);
    while (itOpened != m_OpenedFiles.end() && itOpened->first.starts_with(sPrefix)) {
        itOpened = isMeant(itOpened->second) ? EraseCachedFile(log, itOpened) : std::next(itOpened);
    }
}

void CDescriptorCache::CloseCachedFileHandlesBelow(const LogContext& log, const char* pcPath) {
    const std::string sPrefix = GetFolderPrefix(pcPath);
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    auto itOpened = m_OpenedFiles.FindFrom(sPrefix);
    while (itOpened != m_OpenedFiles.end() && itOpened->first.starts_with(sPrefix)) {
        itOpened = EraseCachedFile(log, itOpened);
    }
}

void CDescriptorCache::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    ClearCachedFiles({this, pRuntimeParam, pLogArgu});
}

void CDescriptorCache::ClearCachedFiles(const LogContext& log) {
    for (auto& [sPath, info] : m_OpenedFiles) {
        CloseCachedFile(log, info);
    }
    m_OpenedFiles.Clear();
}

void CDescriptorCache::CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const std::size_t nExceeding = m_OpenedFiles.CountVictims();
    if (nExceeding == 0) {
        NFS_LOG_INFO(log, kLogFileAccess, "[%s] Close exceeded cached file handle: ALL");
        ClearCachedFiles(log);
        return;
    }
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] Close exceeded cached file handle: %d", static_cast<int>(nExceeding));
    for (OpenedFileInfo& info : m_OpenedFiles.TakeOldest(nExceeding)) {
        CloseCachedFile(log, info);
    }
}

void CDescriptorCache::FreeCachedFileHandles(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexOpenedFileHandles);
    CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);
}

std::size_t CDescriptorCache::GetCachedFileCount() {
    const MutexLock lock(m_hMutexOpenedFileHandles);
    return m_OpenedFiles.GetCount();
}

bool CDescriptorCache::FreeDescriptors(const LogContext& log) {
    FreeCachedFileHandles(log.pRuntimeParam, log.pLogArgu);
    return true;
}
