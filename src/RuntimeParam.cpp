// The requester's identity and log categories.
#include "RuntimeParam.h"

#include "Texts.h"

CRuntimeParam::CRuntimeParam(const char* pcID, int iLogControl) : m_iLogControl(iLogControl) {
    SetID(pcID);
}

void CRuntimeParam::SetID(const char* pcID) {
    m_sID.assign(OrEmpty(pcID));
}

void CRuntimeParam::SetIpcID(const char* pcIpcID) {
    m_sIpcID.assign(OrEmpty(pcIpcID));
}
