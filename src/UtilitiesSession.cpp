// CUtilities: the sessions that the host registers.
#include "Utilities.h"

#include "Texts.h"

void CUtilities::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    const std::string sSessionID = OrEmpty(pcSessionID);
    const MutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos.insert_or_assign(sSessionID, SessionInfo{sSessionID, OrEmpty(pcLocalMountPath)});
}

void CUtilities::RemoveSessionInfo(const char* pcSessionID) {
    const MutexLock lock(m_hMutexSessionInfos);
    const auto itSession = m_SessionInfos.find(OrEmpty(pcSessionID));
    if (itSession != m_SessionInfos.end()) {
        m_SessionInfos.erase(itSession);
    }
}

void CUtilities::RemoveSessionInfoByLocalMountPath(const char* pcLocalMountPath) {
    const std::string sPath = OrEmpty(pcLocalMountPath);
    const MutexLock lock(m_hMutexSessionInfos);
    std::erase_if(m_SessionInfos, [&sPath](const auto& session) { return session.second.sLocalMountPath == sPath; });
}

void CUtilities::RemoveAllSessionInfo() {
    const MutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos.clear();
}

bool CUtilities::IsSessionExists(const char* pcSessionID) {
    const MutexLock lock(m_hMutexSessionInfos);
    return m_SessionInfos.contains(OrEmpty(pcSessionID));
}

int CUtilities::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    // Printed from a copy: the lines may go to a client that takes its time, or to a host that asks back.
    decltype(m_SessionInfos) sessionInfos;
    {
        const MutexLock lock(m_hMutexSessionInfos);
        sessionInfos = m_SessionInfos;
    }
    int nSessions = 0;
    for (const auto& [sSessionID, session] : sessionInfos) {
        ++nSessions;
        if (bPrintDetails) {
            LogRaw(pRuntimeParam, " Session %d - %s : %s", nSessions, session.sSessionID.c_str(),
                   session.sLocalMountPath.c_str());
        }
    }
    return nSessions;
}
