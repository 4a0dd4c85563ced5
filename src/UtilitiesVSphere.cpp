// CUtilities: the NFS datastores that the host mounted on vSphere hosts, and their clean-up when the server stops.
#include "Utilities.h"
#include "VSphereWebController.h"

namespace {

std::string TextOf(const char* pcText) {
    return pcText == nullptr ? "" : pcText;
}

}  // namespace

int CUtilities::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    MutexLock lock(m_hMutexVSphereInfos);
    int nInfos = 0;
    for (const auto& [sMoid, info] : m_VSphereInfos) {
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
    VSphereInfo info{TextOf(pcDatastoreMoid), TextOf(pcHost), TextOf(pcPort), TextOf(pcUser), TextOf(pcPwd)};
    MutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos.insert_or_assign(info.sDatastoreMoid, info);
}

void CUtilities::RemoveVSphereInfo(const char* pcDatastoreMoid) {
    MutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos.erase(TextOf(pcDatastoreMoid));
}

void CUtilities::RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam) {
    MutexLock lock(m_hMutexVSphereInfos);
    if (m_VSphereInfos.empty()) {
        return;
    }
    LogInfo(pRuntimeParam, "%s", "Start cleanup mounted NFS datastores");
    if (!m_pVSphereWebController) {
        m_pVSphereWebController = std::make_unique<CVSphereWebController>();
    }
    while (!m_VSphereInfos.empty()) {
        const VSphereInfo& info = m_VSphereInfos.begin()->second;
        LogInfo(pRuntimeParam, "Unmount NFS datastore with MOID \"%s\" on host \"%s:%s\"", info.sDatastoreMoid.c_str(),
                info.sHost.c_str(), info.sPort.c_str());
        m_pVSphereWebController->RemoveSession(info.sDatastoreMoid.c_str(), info.sHost.c_str(), info.sPort.c_str(),
                                               info.sUser.c_str(), info.sPwd.c_str());
        m_VSphereInfos.erase(m_VSphereInfos.begin());
    }
}
