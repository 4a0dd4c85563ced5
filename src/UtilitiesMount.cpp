// CUtilities: the exports, and which client has each of them mounted.
//
// The file system is asked before the lock is taken, except where an export is added: the test whether name and path
// are free and the adding are one step.
#include "Utilities.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "DeferredLog.h"
#include "Reason.h"
#include "Texts.h"

namespace {

/// Is one of a path's components ".."?
bool HasParentComponent(std::string_view sPath) {
    for (std::size_t iPos = sPath.find(".."); iPos != std::string_view::npos; iPos = sPath.find("..", iPos + 1)) {
        const bool bBegins = iPos == 0 || sPath[iPos - 1] == '/';
        const bool bEnds = iPos + 2 == sPath.size() || sPath[iPos + 2] == '/';
        if (bBegins && bEnds) {
            return true;
        }
    }
    return false;
}

/// A path made ready for prefix tests, without the cost of an allocation. Empty when it does not fit.
class PathToCompare {
public:
    explicit PathToCompare(const char* pcPath) {
        const std::size_t nLength = std::strlen(pcPath);
        m_vcText[0] = '\0';
        if (nLength + 1 < sizeof(m_vcText)) {
            std::memcpy(m_vcText, pcPath, nLength + 1);
            CUtilities::SetPathToCompare(m_vcText);
        }
    }
    const char* Get() const { return m_vcText; }

private:
    char m_vcText[kPathBufferSize];
};

/// Does a path to compare lie at or below a folder, which matches only up to the end of a component? Nothing lies below
/// a folder without a name: an export that was added with an empty path must not open up the whole host.
bool IsInside(std::string_view sPathToCompare, std::string_view sFolder) {
    return !sFolder.empty() && sPathToCompare.starts_with(sFolder) &&
           (sFolder.ends_with('/') || sPathToCompare.substr(sFolder.size()).starts_with('/'));
}

/// Judges a path that an export holds, the first one in name order: of all that hold it, the client's own serves it,
/// and where there is none, one that another client has mounted keeps it from the call.
template <class Mounts>
MountAccess JudgeAccess(const Mounts& mounts, typename Mounts::const_iterator itFirst, const char* pcPathToCompare,
                        const char* pcClientAddr, MountInfo* pMountInfo) {
    const MountInfo* pHeld = nullptr;
    for (auto it = itFirst; pcClientAddr != nullptr && it != mounts.end(); ++it) {
        const MountInfo& mount = it->second;
        if (mount.sRemoteIpAddr.empty() || (it != itFirst && !IsInside(pcPathToCompare, mount.sLocalMountPath))) {
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
    if (pMountInfo != nullptr) {
        *pMountInfo = pHeld != nullptr ? *pHeld : itFirst->second;
    }
    return pHeld != nullptr ? MountAccess::kHeld : MountAccess::kServed;
}

}  // namespace

bool CUtilities::AddMountInfo(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcLocalMountPath,
                              const char* pcExportName, const char* pcIpcID, char* pcStatus) {
    const std::string sCanonical = GetCanonicalText(pRuntimeParam, pLogArgu, pcLocalMountPath);
    const std::string sExportName = OrEmpty(pcExportName);

    const CDeferredLog deferred;
    if (!InsertMountInfo(pRuntimeParam, pLogArgu, {sCanonical, sExportName, OrEmpty(pcIpcID), std::string()},
                         pcStatus)) {
        return false;
    }
    // What was opened before as the source of a redirected file could not be written to.
    CloseCachedFilesWithin({this, pRuntimeParam, pLogArgu}, sCanonical, true);
    return true;
}

bool CUtilities::InsertMountInfo(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, MountInfo mountInfo,
                                 char* pcStatus) {
    const std::string& sExportName = mountInfo.sExportName;
    const MutexLock lock(m_hMutexMountInfos);
    if (FindMountInfoClash(pRuntimeParam, pLogArgu, mountInfo.sLocalMountPath.c_str(), sExportName.c_str(), pcStatus)) {
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
    return FindMountInfoClash(pRuntimeParam, pLogArgu, pcLocalMountPath, pcExportName, pcStatus);
}

bool CUtilities::FindMountInfoClash(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcLocalMountPath,
                                    const char* pcExportName, char* pcStatus) {
    if (pcExportName != nullptr && m_MountInfos.contains(pcExportName)) {
        WriteReason(pcStatus, "Export name \"%s\" already defined", pcExportName);
        return true;
    }
    if (pcLocalMountPath == nullptr) {
        return false;
    }
    const std::string sCanonical = GetCanonicalText(pRuntimeParam, pLogArgu, pcLocalMountPath);
    if (std::ranges::none_of(m_MountInfos,
                             [&sCanonical](const auto& mount) { return mount.second.sLocalMountPath == sCanonical; })) {
        return false;
    }
    WriteReason(pcStatus, "Local mount path \"%s\" already defined", sCanonical.c_str());
    return true;
}

void CUtilities::RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                                 const char* pcLocalMountPath) {
    const std::string sCanonical = GetCanonicalText(pRuntimeParam, pLogArgu, pcLocalMountPath);
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
    CRuntimeParam silent("", 0);
    LogArgu logArgu{"RemoveMountInfoByExportName"};
    CloseCachedFilesWithin({this, &silent, &logArgu}, sLocalMountPath, false);
}

void CUtilities::RemoveAllMountInfo() {
    CRuntimeParam silent("", 0);
    LogArgu logArgu{"RemoveAllMountInfo"};
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
    const char* pcGiven = OrEmpty(pcPath);
    const PathToCompare path(pcGiven);
    // ".." could lead out of any export; a path that does not fit belongs to none.
    const bool bReachable = (path.Get()[0] != '\0' || pcGiven[0] == '\0') && !HasParentComponent(pcGiven);
    if (pRuntimeParam->IsLogGeneralInfo()) {
        return ScanMountInfos(pRuntimeParam, pLogArgu, path.Get(), bReachable, pcClientAddr, pMountInfo);
    }
    if (!bReachable) {
        return MountAccess::kNone;
    }
    const MutexLock lock(m_hMutexMountInfos);
    const auto itMount = std::ranges::find_if(
        m_MountInfos, [&path](const auto& mount) { return IsInside(path.Get(), mount.second.sLocalMountPath); });
    return itMount == m_MountInfos.end() ? MountAccess::kNone
                                         : JudgeAccess(m_MountInfos, itMount, path.Get(), pcClientAddr, pMountInfo);
}

/// The search that says what it compares. It walks a copy, so that its lines go out without the lock.
MountAccess CUtilities::ScanMountInfos(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                       const char* pcPathToCompare, bool bReachable, const char* pcClientAddr,
                                       MountInfo* pMountInfo) {
    decltype(m_MountInfos) mountInfos;
    {
        const MutexLock lock(m_hMutexMountInfos);
        mountInfos = m_MountInfos;
    }
    for (auto it = mountInfos.cbegin(); it != mountInfos.cend(); ++it) {
        const std::string& sLocal = it->second.sLocalMountPath;
        LogInfo(pRuntimeParam, "[%s] Path scan: \"%s\" vs \"%s\"", pLogArgu->pcName, pcPathToCompare, sLocal.c_str());
        if (std::string_view(pcPathToCompare).starts_with(sLocal)) {
            LogInfo(pRuntimeParam, "[%s] Path compare: \"%s\" vs \"%s\"", pLogArgu->pcName, pcPathToCompare,
                    PathToCompare(sLocal.c_str()).Get());
        }
        if (bReachable && IsInside(pcPathToCompare, sLocal)) {
            LogInfo(pRuntimeParam, "[%s] Path match", pLogArgu->pcName);
            return JudgeAccess(mountInfos, it, pcPathToCompare, pcClientAddr, pMountInfo);
        }
    }
    return MountAccess::kNone;
}

bool CUtilities::HoldsMountPoint(const char* pcCanonicalPath) {
    std::string_view sPath = OrEmpty(pcCanonicalPath);
    while (sPath.size() > 1 && sPath.ends_with('/')) {
        sPath.remove_suffix(1);
    }
    const MutexLock lock(m_hMutexMountInfos);
    return std::ranges::any_of(m_MountInfos, [sPath](const auto& mount) {
        const std::string_view sLocal = mount.second.sLocalMountPath;
        return sLocal == sPath || IsInside(sLocal, sPath);
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
