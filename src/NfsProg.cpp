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
    CNfs3Prog* pProgram = m_pMade.load();
    return (pProgram != nullptr ? pProgram : MakeProgram())->Process(pInput, pOutput, pParam);
}

unsigned int CNfsProg::GetVersion() {
    return m_pMade.load() != nullptr ? CNfs3Prog::kVersion : CRpcProg::GetVersion();
}

unsigned int CNfsProg::GetMaxSupportProc() {
    return m_pMade.load() != nullptr ? CNfs3Prog::kProcedureCount : CRpcProg::GetMaxSupportProc();
}

bool CNfsProg::IsModifying(unsigned int iVersion, unsigned int iProc) {
    return CNfs3Prog::IsModifyingCall(iVersion, iProc);
}

CNfs3Prog* CNfsProg::MakeProgram() {
    const MutexLock lock(m_hMutex);
    if (!m_pNfs3Prog) {
        m_pNfs3Prog = std::make_unique<CNfs3Prog>(m_pUtilities);
        m_pNfs3Prog->SetUserID(m_iUId, m_iGId);
        m_pNfs3Prog->SetReadOnly(m_bReadOnly);
        m_pMade.store(m_pNfs3Prog.get());
    }
    return m_pNfs3Prog.get();
}
