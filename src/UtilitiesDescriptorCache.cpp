// CUtilities: the cache of open descriptors, one for each path in use.
//
// Entries share their descriptors with the operations that use them: dropping an entry never closes a descriptor
// under somebody's hands. A path that could not be opened leaves an entry without descriptor, tried again at the next
// request. The last-access index orders the entries by the second of their last use.
#include <cstdio>
#include <ctime>
#include <string_view>

#include <fcntl.h>

#include "DeferredLog.h"
#include "Utilities.h"

namespace {

/// Entries that are kept; more are evicted before the next open.
constexpr std::size_t kMaxCachedFiles = 1024;

/// Eviction frees one part in so many of the entries, so that it runs rarely.
constexpr std::size_t kEvictedPart = 10;

/// The key of an entry in the last-access index: the order of the keys is the order of use.
std::string MakeTimeKey(std::time_t iTime, int iFile) {
    char vcKey[48];
    std::snprintf(vcKey, sizeof(vcKey), "%016llu%d", static_cast<unsigned long long>(iTime), iFile);
    return vcKey;
}

}  // namespace

CCachedFile CUtilities::GetCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                                            bool bReadWrite) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return {};
    }
    const CDeferredLog deferred;
    MutexLock lock(m_hMutexOpenedFileHandles);
    const auto itOpened = m_OpenedFileHandles.find(std::string_view(pcPath));
    if (itOpened == m_OpenedFileHandles.end() || !itOpened->second.iFile.IsOpen()) {
        return OpenCachedFile(pRuntimeParam, pLogArgu, pcPath, bReadWrite);
    }
    StampLastAccess(itOpened->second);
    return itOpened->second.iFile;
}

CCachedFile CUtilities::OpenCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                                       bool bReadWrite) {
    OpenedFileInfo info;
    const auto itFailed = m_OpenedFileHandles.find(std::string_view(pcPath));
    if (itFailed != m_OpenedFileHandles.end()) {
        info = itFailed->second;
    }
    if (m_OpenedFileHandles.size() >= kMaxCachedFiles) {
        CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);
    }
    const bool bWrite = bReadWrite || GetMountInfoByPath(pRuntimeParam, pLogArgu, pcPath, nullptr);
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] open %s mode %s", pLogArgu->pcName, bWrite ? "read/write" : "read only", pcPath);
    }
    info.iFile = CCachedFile(OpenForCache(pRuntimeParam, pLogArgu, pcPath, bWrite ? O_RDWR : O_RDONLY));
    info.sPath = pcPath;
    info.iLastAccess = 0;
    StampLastAccess(info);
    CCachedFile file = info.iFile;
    m_OpenedFileHandles.insert_or_assign(pcPath, std::move(info));
    return file;
}

/// Moves an entry to the end of the last-access index. Within one second its key stays the same.
void CUtilities::StampLastAccess(OpenedFileInfo& info) {
    const std::time_t iNow = std::time(nullptr);
    if (info.iLastAccess == iNow) {
        return;
    }
    m_OpenedFileLastAccessList.erase(info.sTimeKey);
    info.iLastAccess = iNow;
    info.sTimeKey = MakeTimeKey(iNow, info.iFile.Get());
    m_OpenedFileLastAccessList.insert_or_assign(info.sTimeKey, info.sPath);
}

/// Gives the cache's share of a descriptor up. Another user of it closes it later, which nobody is told any more.
void CUtilities::CloseCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, OpenedFileInfo& info) {
    const bool bOpen = info.iFile.IsOpen();
    const int iFile = info.iFile.ReleaseIfLast();
    if (bOpen && iFile == -1) {
        ReportClose(pRuntimeParam, pLogArgu, info.sPath.c_str());
    } else {
        OS_FileClose(pRuntimeParam, pLogArgu, iFile, info.sPath.c_str(), nullptr);
    }
}

void CUtilities::CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return;
    }
    const CDeferredLog deferred;
    MutexLock lock(m_hMutexOpenedFileHandles);
    const auto itOpened = m_OpenedFileHandles.find(std::string_view(pcPath));
    if (itOpened != m_OpenedFileHandles.end()) {
        EraseCachedFile(pRuntimeParam, pLogArgu, itOpened);
    }
}

CUtilities::OpenedFiles::iterator CUtilities::EraseCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                                              OpenedFiles::iterator itOpened) {
    m_OpenedFileLastAccessList.erase(itOpened->second.sTimeKey);
    CloseCachedFile(pRuntimeParam, pLogArgu, itOpened->second);
    return m_OpenedFileHandles.erase(itOpened);
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return;
    }
    std::string sPrefix = pcPath;
    SetPathToCompare(sPrefix);
    const bool bLog = pRuntimeParam->IsLogGeneralInfo();
    const CDeferredLog deferred;
    MutexLock lock(m_hMutexOpenedFileHandles);
    auto itOpened = m_OpenedFileHandles.begin();
    while (itOpened != m_OpenedFileHandles.end()) {
        std::string sEntry = itOpened->first;
        SetPathToCompare(sEntry);
        if (bLog) {
            LogInfo(pRuntimeParam, "[CloseAllCachedFileHandles] Path compare: \"%s\" vs \"%s\"", sPrefix.c_str(),
                    sEntry.c_str());
        }
        if (!sEntry.starts_with(sPrefix)) {
            ++itOpened;
            continue;
        }
        itOpened = EraseCachedFile(pRuntimeParam, pLogArgu, itOpened);
        if (bLog) {
            itOpened = m_OpenedFileHandles.begin();  // the walk restarts; without a log nobody can tell
        }
    }
}

void CUtilities::CloseCachedFileHandlesBelow(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath) {
    std::string sPrefix = pcPath;
    SetPathToCompare(sPrefix);
    const CDeferredLog deferred;
    MutexLock lock(m_hMutexOpenedFileHandles);
    auto itOpened = m_OpenedFileHandles.lower_bound(sPrefix);
    while (itOpened != m_OpenedFileHandles.end() && itOpened->first.starts_with(sPrefix)) {
        itOpened = EraseCachedFile(pRuntimeParam, pLogArgu, itOpened);
    }
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    const CDeferredLog deferred;
    MutexLock lock(m_hMutexOpenedFileHandles);
    ClearCachedFiles(pRuntimeParam, pLogArgu);
}

void CUtilities::ClearCachedFiles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    for (auto& [sPath, info] : m_OpenedFileHandles) {
        CloseCachedFile(pRuntimeParam, pLogArgu, info);
    }
    m_OpenedFileHandles.clear();
    m_OpenedFileLastAccessList.clear();
}

void CUtilities::CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    std::size_t nExceeding = m_OpenedFileHandles.size() / kEvictedPart;
    if (nExceeding == 0) {
        if (pRuntimeParam->IsLogFileAccess()) {
            LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: ALL", pLogArgu->pcName);
        }
        ClearCachedFiles(pRuntimeParam, pLogArgu);
        return;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: %d", pLogArgu->pcName,
                static_cast<int>(nExceeding));
    }
    while (nExceeding > 0 && !m_OpenedFileLastAccessList.empty()) {
        const auto itOldest = m_OpenedFileLastAccessList.begin();
        const auto itOpened = m_OpenedFileHandles.find(itOldest->second);
        if (itOpened != m_OpenedFileHandles.end()) {
            CloseCachedFile(pRuntimeParam, pLogArgu, itOpened->second);
            m_OpenedFileHandles.erase(itOpened);
            --nExceeding;
        }
        m_OpenedFileLastAccessList.erase(itOldest);
    }
    if (nExceeding > 0) {
        // Failed opens of one second share a key, and all but the last of them are missing from the index. They must
        // not fill the cache up.
        std::erase_if(m_OpenedFileHandles, [](const auto& opened) { return !opened.second.iFile.IsOpen(); });
    }
}

void CUtilities::FreeCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    const CDeferredLog deferred;
    MutexLock lock(m_hMutexOpenedFileHandles);
    CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);
}
