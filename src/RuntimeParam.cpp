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
    if (!m_sIpcID.empty() || *OrEmpty(pcIpcID) != '\0') {  // for most calls there is none, before and after
        m_sIpcID.assign(OrEmpty(pcIpcID));
    }
}
