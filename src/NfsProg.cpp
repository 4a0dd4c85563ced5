// The choice of the NFS program by version.
#include "NfsProg.h"

#include "Nfs3Prog.h"

CNfsProg::CNfsProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

CNfsProg::~CNfsProg() = default;

void CNfsProg::SetUserID(unsigned int iUId, unsigned int iGId) {
    const MutexLock lock(m_hMutex);
    m_iUId = iUId;
    m_iGId = iGId;
    if (m_pNfs3Prog) {
        m_pNfs3Prog->SetUserID(iUId, iGId);
    }
}

void CNfsProg::SetReadOnly(bool bEnable) {
    const MutexLock lock(m_hMutex);
    m_bReadOnly = bEnable;
    if (m_pNfs3Prog) {
        m_pNfs3Prog->SetReadOnly(bEnable);
    }
}

int CNfsProg::Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    if (pParam->iVersion != CNfs3Prog::kVersion) {
        return kProgNotImplemented;
    }
    return MakeProgram()->Process(pInput, pOutput, pParam);
}

unsigned int CNfsProg::GetVersion() {
    CNfs3Prog* pProgram = GetProgram();
    return pProgram != nullptr ? pProgram->GetVersion() : CRpcProg::GetVersion();
}

unsigned int CNfsProg::GetMaxSupportProc() {
    CNfs3Prog* pProgram = GetProgram();
    return pProgram != nullptr ? pProgram->GetMaxSupportProc() : CRpcProg::GetMaxSupportProc();
}

bool CNfsProg::IsModifying(unsigned int iVersion, unsigned int iProc) {
    return iVersion == CNfs3Prog::kVersion && CNfs3Prog::IsModifyingProcedure(iProc);
}

CNfs3Prog* CNfsProg::GetProgram() {
    const MutexLock lock(m_hMutex);
    return m_pNfs3Prog.get();
}

CNfs3Prog* CNfsProg::MakeProgram() {
    const MutexLock lock(m_hMutex);
    if (!m_pNfs3Prog) {
        m_pNfs3Prog = std::make_unique<CNfs3Prog>(m_pUtilities);
        m_pNfs3Prog->SetUserID(m_iUId, m_iGId);
        m_pNfs3Prog->SetReadOnly(m_bReadOnly);
    }
    return m_pNfs3Prog.get();
}
