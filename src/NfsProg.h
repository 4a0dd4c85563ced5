// CNfsProg: the RPC program registered for NFS, whatever the version of a call.
#pragma once

#include <atomic>
#include <memory>

#include "RpcProg.h"
#include "ThreadAnnotations.h"

class CNfs3Prog;

/// Hands calls of version 3 to the NFS version 3 program, which it makes on the first one, and refuses all others.
///
/// Calls come one at a time (the RPC server's mutex); the settings may be changed by another thread meanwhile.
class CNfsProg : public CRpcProg {
public:
    explicit CNfsProg(CUtilities* pUtilities);
    ~CNfsProg() override;

    /// The user and group that the host named; stored for the version 3 program.
    void SetUserID(unsigned int iUId, unsigned int iGId);
    /// Refuses the modifying procedures.
    void SetReadOnly(bool bEnable);

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override;
    /// The version 3 program's answers once there is one; any before.
    unsigned int GetVersion() override;
    unsigned int GetMaxSupportProc() override;
    bool IsModifying(unsigned int iVersion, unsigned int iProc) override;

private:
    CNfs3Prog* MakeProgram();

    /// Guards the settings and the making of the program.
    Mutex m_hMutex;
    unsigned int m_iUId GUARDED_BY(m_hMutex) = 0;
    unsigned int m_iGId GUARDED_BY(m_hMutex) = 0;
    bool m_bReadOnly GUARDED_BY(m_hMutex) = false;
    std::unique_ptr<CNfs3Prog> m_pNfs3Prog GUARDED_BY(m_hMutex);
    /// The program once it is made; it stays from then on, and so calls ask for it without the lock.
    std::atomic<CNfs3Prog*> m_pMade{nullptr};
};
