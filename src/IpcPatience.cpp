// Marks a thread whose log lines are waited for.
#include "IpcPatience.h"

#include "IpcReceivers.h"

thread_local CIpcPatience* CIpcPatience::t_pInnermost = nullptr;

CIpcPatience::CIpcPatience() : m_pOuter(t_pInnermost) {
    t_pInnermost = this;
}

CIpcPatience::~CIpcPatience() {
    t_pInnermost = m_pOuter;
    for (const auto& [pReceivers, sIpcID] : m_WaitedFor) {
        pReceivers->WaitForLines(sIpcID);
    }
}

bool CIpcPatience::IsPatientWith(CIpcReceivers* pReceivers, const std::string& sIpcID) {
    if (t_pInnermost == nullptr) {
        return false;
    }
    t_pInnermost->m_WaitedFor.emplace(pReceivers, sIpcID);
    return true;
}
