// The frame of the NFS version 3 program: its table of procedures, and what each of them ends with.
#include "Nfs3Prog.h"

#include "BatchLooks.h"
#include "Utilities.h"

namespace {

constexpr ProcedureTable<CNfs3Prog, CNfs3Prog::kProcedureCount> kProcedures{
    {{
        {"Nfs3Prog.ProcedureNULL", &CNfs3Prog::ProcedureNULL},
        {"Nfs3Prog.ProcedureGETATTR", &CNfs3Prog::ProcedureGETATTR},
        {"Nfs3Prog.ProcedureSETATTR", &CNfs3Prog::ProcedureSETATTR},
        {"Nfs3Prog.ProcedureLOOKUP", &CNfs3Prog::ProcedureLOOKUP},
        {"Nfs3Prog.ProcedureACCESS", &CNfs3Prog::ProcedureACCESS},
        {"Nfs3Prog.ProcedureREADLINK", &CNfs3Prog::ProcedureREADLINK},
        {"Nfs3Prog.ProcedureREAD", &CNfs3Prog::ProcedureREAD},
        {"Nfs3Prog.ProcedureWRITE", &CNfs3Prog::ProcedureWRITE},
        {"Nfs3Prog.ProcedureCREATE", &CNfs3Prog::ProcedureCREATE},
        {"Nfs3Prog.ProcedureMKDIR", &CNfs3Prog::ProcedureMKDIR},
        {"Nfs3Prog.ProcedureSYMLINK", &CNfs3Prog::ProcedureSYMLINK},
        {"Nfs3Prog.ProcedureMKNOD", &CNfs3Prog::ProcedureMKNOD},
        {"Nfs3Prog.ProcedureREMOVE", &CNfs3Prog::ProcedureREMOVE},
        {"Nfs3Prog.ProcedureRMDIR", &CNfs3Prog::ProcedureRMDIR},
        {"Nfs3Prog.ProcedureRENAME", &CNfs3Prog::ProcedureRENAME},
        {"Nfs3Prog.ProcedureLINK", &CNfs3Prog::ProcedureLINK},
        {"Nfs3Prog.ProcedureREADDIR", &CNfs3Prog::ProcedureREADDIR},
        {"Nfs3Prog.ProcedureREADDIRPLUS", &CNfs3Prog::ProcedureREADDIRPLUS},
        {"Nfs3Prog.ProcedureFSSTAT", &CNfs3Prog::ProcedureFSSTAT},
        {"Nfs3Prog.ProcedureFSINFO", &CNfs3Prog::ProcedureFSINFO},
        {"Nfs3Prog.ProcedurePATHCONF", &CNfs3Prog::ProcedurePATHCONF},
        {"Nfs3Prog.ProcedureCOMMIT", &CNfs3Prog::ProcedureCOMMIT},
    }},
    {"Nfs3Prog.ProcedureNOIMP", &CNfs3Prog::ProcedureNOIMP}};

CBatchLooks::Effect GetEffect(const ProcessParam& param) {
    if (param.iProc == NFSPROC3_WRITE) {
        return CBatchLooks::Effect::kWrites;
    }
    const bool bModifying = CNfs3Prog::IsModifyingCall(CNfs3Prog::kVersion, param.iProc);
    return bModifying ? CBatchLooks::Effect::kChanges : CBatchLooks::Effect::kNone;
}

}  // namespace

CNfs3Prog::CNfs3Prog(CUtilities* pUtilities, std::size_t nMaxListingMemory)
    : CRpcProg(pUtilities),
      m_iSysUpTime(CUtilities::GetCurrentSystemTimeInMilliseconds()),
      m_Listings(nMaxListingMemory),
      m_Spare(OpenSpare()) {}

unsigned int CNfs3Prog::GetVersion() {
    return kVersion;
}

unsigned int CNfs3Prog::GetMaxSupportProc() {
    return kProcedureCount;
}

bool CNfs3Prog::IsModifying(unsigned int iVersion, unsigned int iProc) {
    return IsModifyingCall(iVersion, iProc);
}

bool CNfs3Prog::IsModifyingCall(unsigned int iVersion, unsigned int iProc) {
    if (iVersion != kVersion) {
        return false;
    }
    switch (iProc) {
        case NFSPROC3_SETATTR:
        case NFSPROC3_WRITE:
        case NFSPROC3_CREATE:
        case NFSPROC3_MKDIR:
        case NFSPROC3_SYMLINK:
        case NFSPROC3_MKNOD:
        case NFSPROC3_REMOVE:
        case NFSPROC3_RMDIR:
        case NFSPROC3_RENAME:
        case NFSPROC3_LINK:
            return true;
        default:
            return false;
    }
}

const std::array<CNfs3Prog::Procedure, CNfs3Prog::kProcedureCount>& CNfs3Prog::GetProcedures() {
    return kProcedures.procedures;
}

void CNfs3Prog::SetUserID(unsigned int iUId, unsigned int iGId) {
    m_iUId = iUId;
    m_iGId = iGId;
}

void CNfs3Prog::SetReadOnly(bool bEnable) {
    m_bReadOnly = bEnable;
}

int CNfs3Prog::Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogArgu logArgu{"Nfs3Prog.Process"};
    const LogContext log{m_pLog, pParam->pRuntimeParam, &logArgu};
    LogEntered(log);
    if (m_pUtilities != nullptr) {
        m_pUtilities->RefreshAccess(log);
    }
    const CBatchLooks::CCall call(GetEffect(*pParam));
    return kProcedures.Run(this, log, pInput, pOutput, pParam);
}

int CNfs3Prog::ProcedureNULL(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* /*pParam*/) {
    return kProgHandled;
}

int CNfs3Prog::ProcedureNOIMP(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* /*pParam*/) {
    return kProgNotImplemented;
}

/// Logs a procedure's NFS status. The call itself is handled, whatever that is.
int CNfs3Prog::EndProcedure(const LogContext& log, nfsstat3 iStatus) {
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] End stat=%d", static_cast<int>(iStatus));
    return kProgHandled;
}
