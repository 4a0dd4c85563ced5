// CUtilities: the NFS datastores that the host mounted on vSphere hosts, and their clean-up when the server stops.
#include "Utilities.h"

#include <utility>

#include "Texts.h"
#include "VSphereWebController.h"

int CUtilities::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    // Printed from a copy: the lines may go to a client that takes its time, or to a host that asks back.
    decltype(m_VSphereInfos) infos;
    {
        const MutexLock lock(m_hMutexVSphereInfos);
        infos = m_VSphereInfos;
    }
    int nInfos = 0;
    for (const auto& [sMoid, info] : infos) {
        ++nInfos;
        if (bPrintDetails) {
            LogRaw(pRuntimeParam, " NFS datastore %d - %s (%s:%s)", nInfos, sMoid.c_str(), info.sHost.c_str(),
                   info.sPort.c_str());
        }
    }
    return nInfos;
}

void CUtilities::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                                const char* pcPwd) {
    VSphereInfo info{OrEmpty(pcDatastoreMoid), OrEmpty(pcHost), OrEmpty(pcPort), OrEmpty(pcUser), OrEmpty(pcPwd)};
    const MutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos.insert_or_assign(info.sDatastoreMoid, info);
}

void CUtilities::RemoveVSphereInfo(const char* pcDatastoreMoid) {
    const MutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos.erase(OrEmpty(pcDatastoreMoid));
}

void CUtilities::RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam) {
    bool bStarted = false;
    VSphereInfo info;
    while (GetFirstVSphereInfo(&info)) {
        // Each line goes out when its record's turn comes, as the tool may take long, and without the lock.
        if (!std::exchange(bStarted, true)) {
            LogInfo(pRuntimeParam, "%s", "Start cleanup mounted NFS datastores");
        }
        LogInfo(pRuntimeParam, "Unmount NFS datastore with MOID \"%s\" on host \"%s:%s\"", info.sDatastoreMoid.c_str(),
                info.sHost.c_str(), info.sPort.c_str());
        UnmountWithWebCtrl(info);
    }
}

bool CUtilities::GetFirstVSphereInfo(VSphereInfo* pInfo) {
    const MutexLock lock(m_hMutexVSphereInfos);
    if (m_VSphereInfos.empty()) {
        return false;
    }
    *pInfo = m_VSphereInfos.begin()->second;
    return true;
}

/// Unless another thread has removed or replaced the record meanwhile.
void CUtilities::UnmountWithWebCtrl(const VSphereInfo& info) {
    const MutexLock lock(m_hMutexVSphereInfos);
    const auto itInfo = m_VSphereInfos.find(info.sDatastoreMoid);
    if (itInfo == m_VSphereInfos.end() || itInfo->second != info) {
        return;
    }
    m_pVSphereWebController->RemoveSession(info.sDatastoreMoid.c_str(), info.sHost.c_str(), info.sPort.c_str(),
                                           info.sUser.c_str(), info.sPwd.c_str());
    m_VSphereInfos.erase(itInfo);
}
