// CUtilities: what an operator's access file says to clients' calls.
//
// The rules are those of the innermost export that holds a path: an export inside another one has rules of its own, and
// the outer one's do not open it. Who holds which export counts beside them as it does without a file, except for
// clients that may share one.
#include "Utilities.h"

#include <utility>

#include "AccessFile.h"
#include "Paths.h"
#include "Reason.h"
#include "Texts.h"

void CUtilities::SetAccessFile(std::unique_ptr<CAccessFile> pAccessFile) {
    m_pAccessFile = std::move(pAccessFile);
}

void CUtilities::LookAtAccessFile(const LogContext& log) {
    m_pAccessFile->Refresh(log);
}

// ---- Calls on paths

MountAccess CUtilities::GetClientAccess(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                        const char* pcClientAddr, MountInfo* pMountInfo, bool* pbReadOnly) {
    const MountAccess access = GetMountAccess(pRuntimeParam, pLogArgu, pcPath, pcClientAddr, pMountInfo);
    if (!m_pAccessFile || access == MountAccess::kNone) {
        return access;
    }
    thread_local std::string sExport;  // kept from call to call for its room
    GetInnermostExport(OrEmpty(pcPath), &sExport);
    const AccessGrant grant = m_pAccessFile->GetRules().Find(sExport, pcClientAddr);
    if (!grant.IsAdmitted()) {
        if (pMountInfo != nullptr) {
            pMountInfo->sExportName = sExport;
        }
        return MountAccess::kDenied;
    }
    if (grant.right == AccessRight::kReadOnly) {
        *pbReadOnly = true;
    }
    if (access == MountAccess::kHeld && grant.bShared) {
        CSilentParam silent;  // the search was told of before
        return GetMountAccess(&silent, pLogArgu, pcPath, nullptr, pMountInfo);
    }
    return access;
}

bool CUtilities::IsAdmitted(const char* pcPath, const char* pcClientAddr) {
    if (!m_pAccessFile) {
        return true;
    }
    thread_local std::string sExport;
    GetInnermostExport(OrEmpty(pcPath), &sExport);
    return m_pAccessFile->GetRules().Find(sExport, pcClientAddr).IsAdmitted();
}

/// The name of the export that holds a path and lies deepest; empty if there is none.
void CUtilities::GetInnermostExport(std::string_view sPath, std::string* psExportName) {
    const MutexLock lock(m_hMutexMountInfos);
    std::string_view sFolder = WithoutTrailingSlashes(sPath);
    const MountInfo* pInnermost = m_MountInfos.FindByPath(sFolder);
    while (pInnermost == nullptr && sFolder.find('/') != std::string_view::npos) {
        sFolder.remove_suffix(sFolder.size() - sFolder.rfind('/'));
        pInnermost = m_MountInfos.FindByPath(sFolder.empty() ? "/" : sFolder);
    }
    if (pInnermost != nullptr) {
        *psExportName = pInnermost->sExportName;
    } else {
        psExportName->clear();
    }
}

// ---- MNT and UMNT

bool CUtilities::MountExport(const char* pcExportName, const char* pcClientAddr, MountInfo* pMountInfo,
                             char* pcStatus) {
    if (m_pAccessFile && FindExport(pcExportName, pMountInfo)) {
        const CAccessRules& rules = m_pAccessFile->GetRules();
        const AccessGrant grant = rules.Find(OrEmpty(pcExportName), pcClientAddr);
        if (!grant.IsAdmitted()) {
            WriteReason(pcStatus, "The access file does not admit %s to export \"%s\"", OrEmpty(pcClientAddr),
                        pMountInfo->sExportName.c_str());
            return false;
        }
        const std::string& sHolder = pMountInfo->sRemoteIpAddr;
        if (!sHolder.empty() && !rules.Find(OrEmpty(pcExportName), sHolder.c_str()).IsAdmitted()) {
            UpdateMountClientIpAddrByExportName(pcExportName, nullptr, nullptr, nullptr);
        } else if (!sHolder.empty() && grant.bShared) {
            return true;
        }
    }
    return UpdateMountClientIpAddrByExportName(pcExportName, pcClientAddr, pMountInfo, pcStatus);
}

void CUtilities::UnmountExport(const char* pcExportName, const char* pcClientAddr) {
    MountInfo mount;
    if (m_pAccessFile && FindExport(pcExportName, &mount) && mount.sRemoteIpAddr != OrEmpty(pcClientAddr)) {
        return;
    }
    UpdateMountClientIpAddrByExportName(pcExportName, nullptr, nullptr, nullptr);
}

bool CUtilities::FindExport(const char* pcExportName, MountInfo* pMountInfo) {
    const MutexLock lock(m_hMutexMountInfos);
    const MountInfo* pMount = m_MountInfos.FindByName(OrEmpty(pcExportName));
    if (pMount == nullptr) {
        return false;
    }
    *pMountInfo = *pMount;
    return true;
}
