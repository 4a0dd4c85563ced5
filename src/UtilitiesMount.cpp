// CUtilities: the exports, and which client has each of them mounted.
//
// The file system is asked before the lock is taken, except for the test whether name and path are free, which resolves
// the path under it: together with the adding that test is one step.
#include "Utilities.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "DeferredLog.h"
#include "Paths.h"
#include "Reason.h"
#include "Texts.h"

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
    m_MountInfos.Add(std::move(mountInfo));
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
    if (pcExportName != nullptr && m_MountInfos.FindByName(pcExportName) != nullptr) {
        WriteReason(pcStatus, "Export name \"%s\" already defined", pcExportName);
        return true;
    }
    if (pcLocalMountPath == nullptr) {
        return false;
    }
    const std::string sCanonical = GetCanonicalText(log, pcLocalMountPath);
    if (m_MountInfos.FindByPath(sCanonical) == nullptr) {
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
        const MountInfo* pMount = m_MountInfos.FindByPath(sCanonical);
        if (pMount == nullptr) {
            ResetFileTableWithoutExports();
            return;
        }
        m_MountInfos.Remove(*pMount);
        ResetFileTableWithoutExports();
    }
    CloseCachedFilesWithin({this, pRuntimeParam, pLogArgu}, sCanonical, false);
}

void CUtilities::RemoveMountInfoByExportName(const char* pcExportName) {
    std::string sLocalMountPath;
    {
        const MutexLock lock(m_hMutexMountInfos);
        const MountInfo* pMount = m_MountInfos.FindByName(OrEmpty(pcExportName));
        if (pMount == nullptr) {
            ResetFileTableWithoutExports();
            return;
        }
        sLocalMountPath = pMount->sLocalMountPath;
        m_MountInfos.Remove(*pMount);
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
    CMountTable::Mounts mountInfos;
    {
        const MutexLock lock(m_hMutexMountInfos);
        mountInfos = m_MountInfos.TakeAll();
        ResetFileTableWithoutExports();
    }
    for (const auto& [sName, mount] : mountInfos) {
        CloseCachedFilesWithin({this, pRuntimeParam, pLogArgu}, mount.sLocalMountPath, false);
    }
}

/// With the last export go the handles that clients hold.
void CUtilities::ResetFileTableWithoutExports() {
    if (m_MountInfos.GetAll().empty()) {
        ResetFileTable();
    }
}

bool CUtilities::UpdateMountClientIpAddrByExportName(const char* pcExportName, const char* pcClientAddr,
                                                     MountInfo* pMountInfo, char* pcStatus) {
    const char* pcName = OrEmpty(pcExportName);
    const MutexLock lock(m_hMutexMountInfos);
    MountInfo* pMount = m_MountInfos.FindByName(pcName);
    if (pMount == nullptr) {
        WriteReason(pcStatus, "Undefined export name \"%s\"", pcName);
        return false;
    }
    MountInfo& mount = *pMount;
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
    return m_MountInfos.Judge(sPath, pcClientAddr, pMountInfo);
}

/// The search that says what it compares: each export in name order up to the first that holds the path. What it says
/// is made from a copy, so that the lines go out without the lock.
MountAccess CUtilities::ScanMountInfos(const LogContext& log, std::string_view sPath, bool bReachable,
                                       const char* pcClientAddr, MountInfo* pMountInfo) {
    MountAccess access = MountAccess::kNone;
    std::vector<std::string> vLocalPaths;
    {
        const MutexLock lock(m_hMutexMountInfos);
        if (bReachable) {
            access = m_MountInfos.Judge(sPath, pcClientAddr, pMountInfo);
        }
        for (const auto& [sName, mount] : m_MountInfos.GetAll()) {
            vLocalPaths.push_back(mount.sLocalMountPath);
        }
    }
    const std::string sCompared = sPath.size() + 1 < kPathBufferSize ? GetFolderPrefix(sPath) : "";
    for (const std::string& sLocal : vLocalPaths) {
        NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Path scan: \"%s\" vs \"%s\"", sCompared.c_str(), sLocal.c_str());
        if (sCompared.starts_with(sLocal)) {
            NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Path compare: \"%s\" vs \"%s\"", sCompared.c_str(),
                         GetFolderPrefix(sLocal).c_str());
        }
        if (bReachable && IsAtOrBelow(sPath, sLocal)) {
            NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Path match");
            break;
        }
    }
    return access;
}

bool CUtilities::HoldsMountPoint(const char* pcCanonicalPath) {
    const std::string_view sPath = WithoutTrailingSlashes(OrEmpty(pcCanonicalPath));
    const MutexLock lock(m_hMutexMountInfos);
    return std::ranges::any_of(m_MountInfos.GetAll(), [sPath](const auto& mount) {
        const std::string_view sLocal = mount.second.sLocalMountPath;
        return sLocal == sPath || IsAtOrBelow(sLocal, sPath);
    });
}

bool CUtilities::IsRemoteAddrExists(const char* pcClientAddr) {
    const std::string_view sClientAddr = OrEmpty(pcClientAddr);
    const MutexLock lock(m_hMutexMountInfos);
    return std::ranges::any_of(m_MountInfos.GetAll(),
                               [sClientAddr](const auto& mount) { return mount.second.sRemoteIpAddr == sClientAddr; });
}

int CUtilities::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails) {
    // Printed from a copy: the lines may go to a client that takes its time, or to a host that asks back.
    CMountTable::Mounts mountInfos;
    {
        const MutexLock lock(m_hMutexMountInfos);
        mountInfos = m_MountInfos.GetAll();
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
