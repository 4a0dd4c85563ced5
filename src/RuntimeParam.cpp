// The requester's identity and log categories.
#include "RuntimeParam.h"

CRuntimeParam::CRuntimeParam(const char* pcID, int iLogControl) : m_iLogControl(iLogControl) {
    SetID(pcID);
}

void CRuntimeParam::SetID(const char* pcID) {
    m_sID.assign(pcID != nullptr ? pcID : "");
}

void CRuntimeParam::SetIpcID(const char* pcIpcID) {
    m_sIpcID.assign(pcIpcID != nullptr ? pcIpcID : "");
}
