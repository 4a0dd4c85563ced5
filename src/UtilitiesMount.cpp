// CUtilities: the exports, and which client has each of them mounted.
//
// The file system is asked before the lock is taken, except for the test whether name and path are free, which resolves
// the path under it: together with the adding that test is one step.
#include "Utilities.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "DeferredLog.h"
#include "Paths.h"
#include "Reason.h"
#include "Texts.h"

namespace {

/// Copies what a client's call is to know of an export that serves it, or that another client holds.
void CopyForCall(const MountInfo& mount, bool bHeld, MountInfo* pMountInfo) {
    pMountInfo->sExportName = mount.sExportName;
    if (bHeld) {
        pMountInfo->sRemoteIpAddr = mount.sRemoteIpAddr;
    } else {
        pMountInfo->sIcpID = mount.sIcpID;
    }
}

/// Judges a path that an export holds, the first one in name order: of all that hold it, the client's own serves it,
/// and where there is none, one that another client has mounted keeps it from the call.
template <class Mounts>
MountAccess JudgeAccess(const Mounts& mounts, typename Mounts::const_iterator itFirst, std::string_view sPath,
                        const char* pcClientAddr, MountInfo* pMountInfo) {
    const MountInfo* pHeld = nullptr;
    for (auto it = itFirst; pcClientAddr != nullptr && it != mounts.end(); ++it) {
        const MountInfo& mount = it->second;
        if (mount.sRemoteIpAddr.empty() || (it != itFirst && !IsAtOrBelow(sPath, mount.sLocalMountPath))) {
            continue;
        }
        if (mount.sRemoteIpAddr == pcClientAddr) {
            pHeld = nullptr;
            break;
        }
        if (pHeld == nullptr) {
            pHeld = &mount;
        }
    }
    if (pMountInfo != nullptr && pcClientAddr == nullptr) {
        *pMountInfo = itFirst->second;
    } else if (pMountInfo != nullptr) {
        CopyForCall(pHeld == nullptr ? itFirst->second : *pHeld, pHeld != nullptr, pMountInfo);
    }
    return pHeld != nullptr ? MountAccess::kHeld : MountAccess::kServed;
}

}  // namespace

bool CUtilities::AddMountInfo(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcLocalMountPath,
                              const char* pcExportName, const char* pcIpcID, char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const std::string sCanonical = GetCanonicalText(log, pcLocalMountPath);

    const CDeferredLog deferred;
    if (!InsertMountInfo(log, {sCanonical, OrEmpty(pcExportName), OrEmpty(pcIpcID), std::string()}, pcStatus)) {
        return false;
    }
    // What was opened before as the source of a redirected file could not be written to.
    CloseCachedFilesWithin({this, pRuntimeParam, pLogArgu}, sCanonical, true);
    return true;
}

bool CUtilities::InsertMountInfo(const LogContext& log, MountInfo mountInfo, char* pcStatus) {
    const std::string& sExportName = mountInfo.sExportName;
    const MutexLock lock(m_hMutexMountInfos);
    if (FindMountInfoClash(log, mountInfo.sLocalMountPath.c_str(), sExportName.c_str(), pcStatus)) {
        return false;
    }
    const std::size_t iInvalid = sExportName.find_first_of("/ ");
    if (iInvalid != std::string::npos) {
        WriteReason(pcStatus, "Invalid char \"%c\" inside export name", sExportName[iInvalid]);
        return false;
    }
    const std::string sKey = sExportName;
    m_MountInfos.insert_or_assign(sKey, std::move(mountInfo));
    return true;
}

bool CUtilities::IsMountInfoExists(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcLocalMountPath,
                                   const char* pcExportName, char* pcStatus) {
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexMountInfos);
    return FindMountInfoClash({this, pRuntimeParam, pLogArgu}, pcLocalMountPath, pcExportName, pcStatus);
}

bool CUtilities::FindMountInfoClash(const LogContext& log, const char* pcLocalMountPath, const char* pcExportName,
                                    char* pcStatus) {
    if (pcExportName != nullptr && m_MountInfos.contains(pcExportName)) {
        WriteReason(pcStatus, "Export name \"%s\" already defined", pcExportName);
        return true;
    }
    if (pcLocalMountPath == nullptr) {
        return false;
    }
    const std::string sCanonical = GetCanonicalText(log, pcLocalMountPath);
    if (std::ranges::none_of(m_MountInfos,
                             [&sCanonical](const auto& mount) { return mount.second.sLocalMountPath == sCanonical; })) {
        return false;
    }
    WriteReason(pcStatus, "Local mount path \"%s\" already defined", sCanonical.c_str());
    return true;
}

void CUtilities::RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                                 const char* pcLocalMountPath) {
    const std::string sCanonical = GetCanonicalText({this, pRuntimeParam, pLogArgu}, pcLocalMountPath);
    {
        const MutexLock lock(m_hMutexMountInfos);
        const auto itMount = std::ranges::find_if(
            m_MountInfos, [&sCanonical](const auto& mount) { return mount.second.sLocalMountPath == sCanonical; });
        if (itMount == m_MountInfos.end()) {
            ResetFileTableWithoutExports();
            return;
        }
        m_MountInfos.erase(itMount);
        ResetFileTableWithoutExports();
    }
    CloseCachedFilesWithin({this, pRuntimeParam, pLogArgu}, sCanonical, false);
}

void CUtilities::RemoveMountInfoByExportName(const char* pcExportName) {
    std::string sLocalMountPath;
    {
        const MutexLock lock(m_hMutexMountInfos);
        const auto itMount = m_MountInfos.find(OrEmpty(pcExportName));
        if (itMount == m_MountInfos.end()) {
            ResetFileTableWithoutExports();
            return;
        }
        sLocalMountPath = itMount->second.sLocalMountPath;
        m_MountInfos.erase(itMount);
        ResetFileTableWithoutExports();
    }
    CSilentParam silent;
    const LogArgu logArgu{"RemoveMountInfoByExportName"};
    CloseCachedFilesWithin({this, &silent, &logArgu}, sLocalMountPath, false);
}

void CUtilities::RemoveAllMountInfo() {
    CSilentParam silent;
    const LogArgu logArgu{"RemoveAllMountInfo"};
    RemoveAllMountInfo(&silent, &logArgu);
}

void CUtilities::RemoveAllMountInfo(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu) {
    decltype(m_MountInfos) mountInfos;
    {
        const MutexLock lock(m_hMutexMountInfos);
        mountInfos.swap(m_MountInfos);
        ResetFileTableWithoutExports();
    }
    for (const auto& [sName, mount] : mountInfos) {
        CloseCachedFilesWithin({this, pRuntimeParam, pLogArgu}, mount.sLocalMountPath, false);
    }
}

/// With the last export go the handles that clients hold.
void CUtilities::ResetFileTableWithoutExports() {
    if (m_MountInfos.empty()) {
        ResetFileTable();
    }
}

bool CUtilities::UpdateMountClientIpAddrByExportName(const char* pcExportName, const char* pcClientAddr,
                                                     MountInfo* pMountInfo, char* pcStatus) {
    const char* pcName = OrEmpty(pcExportName);
    const MutexLock lock(m_hMutexMountInfos);
    const auto itMount = m_MountInfos.find(pcName);
    if (itMount == m_MountInfos.end()) {
        WriteReason(pcStatus, "Undefined export name \"%s\"", pcName);
        return false;
    }
    MountInfo& mount = itMount->second;
    // Emptiness counts, not another address: the holder itself is refused a second time as well.
    if (pcClientAddr != nullptr && !mount.sRemoteIpAddr.empty()) {
        WriteReason(pcStatus, "This mount point \"%s\" already mounted by %s", mount.sExportName.c_str(),
                    mount.sRemoteIpAddr.c_str());
        return false;
    }
    mount.sRemoteIpAddr = OrEmpty(pcClientAddr);
    if (pMountInfo != nullptr) {
        *pMountInfo = mount;
    }
    return true;
}

bool CUtilities::GetMountInfoByPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                    MountInfo* pMountInfo) {
    return GetMountAccess(pRuntimeParam, pLogArgu, pcPath, nullptr, pMountInfo) != MountAccess::kNone;
}

/// The descriptor cache asks, under its lock.
bool CUtilities::IsExported(const LogContext& log, const char* pcPath) {
    return GetMountInfoByPath(log.pRuntimeParam, log.pLogArgu, pcPath, nullptr);
}

MountAccess CUtilities::GetMountAccess(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                       const char* pcClientAddr, MountInfo* pMountInfo) {
    const std::string_view sPath = OrEmpty(pcPath);
    // ".." could lead out of any export; a path that has no room for a slash behind it belongs to none.
    const bool bReachable = sPath.size() + 1 < kPathBufferSize && !HasParentComponent(sPath);
    if (pRuntimeParam->IsLogGeneralInfo()) {
        return ScanMountInfos({this, pRuntimeParam, pLogArgu}, sPath, bReachable, pcClientAddr, pMountInfo);
    }
    if (!bReachable) {
        return MountAccess::kNone;
    }
    const MutexLock lock(m_hMutexMountInfos);
    const auto itMount = std::ranges::find_if(
        m_MountInfos, [sPath](const auto& mount) { return IsAtOrBelow(sPath, mount.second.sLocalMountPath); });
    return itMount == m_MountInfos.end() ? MountAccess::kNone
                                         : JudgeAccess(m_MountInfos, itMount, sPath, pcClientAddr, pMountInfo);
}

/// The search that says what it compares. It walks a copy, so that its lines go out without the lock.
MountAccess CUtilities::ScanMountInfos(const LogContext& log, std::string_view sPath, bool bReachable,
                                       const char* pcClientAddr, MountInfo* pMountInfo) {
    decltype(m_MountInfos) mountInfos;
    {
        const MutexLock lock(m_hMutexMountInfos);
        mountInfos = m_MountInfos;
    }
    const std::string sCompared = sPath.size() + 1 < kPathBufferSize ? GetFolderPrefix(sPath) : "";
    for (auto it = mountInfos.cbegin(); it != mountInfos.cend(); ++it) {
        const std::string& sLocal = it->second.sLocalMountPath;
        NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Path scan: \"%s\" vs \"%s\"", sCompared.c_str(), sLocal.c_str());
        if (sCompared.starts_with(sLocal)) {
            NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Path compare: \"%s\" vs \"%s\"", sCompared.c_str(),
                         GetFolderPrefix(sLocal).c_str());
        }
        if (bReachable && IsAtOrBelow(sPath, sLocal)) {
            NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Path match");
            return JudgeAccess(mountInfos, it, sPath, pcClientAddr, pMountInfo);
        }
    }
    return MountAccess::kNone;
}

bool CUtilities::HoldsMountPoint(const char* pcCanonicalPath) {
    const std::string_view sPath = WithoutTrailingSlashes(OrEmpty(pcCanonicalPath));
    const MutexLock lock(m_hMutexMountInfos);
    return std::ranges::any_of(m_MountInfos, [sPath](const auto& mount) {
        const std::string_view sLocal = mount.second.sLocalMountPath;
        return sLocal == sPath || IsAtOrBelow(sLocal, sPath);
    });
}

bool CUtilities::IsRemoteAddrExists(const char* pcClientAddr) {
    const std::string_view sClientAddr = OrEmpty(pcClientAddr);
    const MutexLock lock(m_hMutexMountInfos);
    return std::ranges::any_of(m_MountInfos,
                               [sClientAddr](const auto& mount) { return mount.second.sRemoteIpAddr == sClientAddr; });
}

int CUtilities::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails) {
    // Printed from a copy: the lines may go to a client that takes its time, or to a host that asks back.
    decltype(m_MountInfos) mountInfos;
    {
        const MutexLock lock(m_hMutexMountInfos);
        mountInfos = m_MountInfos;
    }
    int nMounts = 0;
    for (const auto& [sName, mount] : mountInfos) {
        if (bClientMountedOnly && mount.sRemoteIpAddr.empty()) {
            continue;
        }
        ++nMounts;
        if (bPrintDetails) {
            LogRaw(pRuntimeParam, " Mount %d - %s : %s (%s) [%s]", nMounts, mount.sLocalMountPath.c_str(),
                   mount.sExportName.c_str(), mount.sRemoteIpAddr.c_str(), mount.sIcpID.c_str());
        }
    }
    return nMounts;
}
