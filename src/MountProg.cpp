// MOUNT: NULL, MNT and UMNT (RFC 1813, 5.2.0, 5.2.1, 5.2.3); the other procedures are not available.
#include "MountProg.h"

#include <array>

#include "InputStream.h"
#include "OutputStream.h"
#include "ProgramFrame.h"
#include "Utilities.h"

namespace {

constexpr unsigned int kProcMnt = 1;
constexpr unsigned int kProcUmnt = 3;

constexpr unsigned int kMnt3Ok = 0;
constexpr unsigned int kMnt3ErrAcces = 13;

/// Version 1 sends its handle as fixed-length opaque data (RFC 1094, appendix A.4).
constexpr unsigned int kVersionOfFixedHandles = 1;

/// Room for the handle of an export's root: more than the 56 bytes sent.
constexpr unsigned int kHandleCapacity = 88;
static_assert(kHandleCapacity >= kNfs3HandleSize && kHandleCapacity <= kReasonBufferSize);

constexpr ProcedureTable<CMountProg, CMountProg::kProcedureCount> kProcedures{
    {{
        {"MountProg.ProcedureNULL", &CMountProg::ProcedureNULL},
        {"MountProg.ProcedureMNT", &CMountProg::ProcedureMNT},
        {"MountProg.ProcedureNOIMP", &CMountProg::ProcedureNOIMP},  // DUMP
        {"MountProg.ProcedureUMNT", &CMountProg::ProcedureUMNT},
        {"MountProg.ProcedureNOIMP", &CMountProg::ProcedureNOIMP},  // UMNTALL
        {"MountProg.ProcedureNOIMP", &CMountProg::ProcedureNOIMP},  // EXPORT
    }},
    {"MountProg.ProcedureNOIMP", &CMountProg::ProcedureNOIMP}};

}  // namespace

CMountProg::CMountProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

const std::array<CMountProg::Procedure, CMountProg::kProcedureCount>& CMountProg::GetProcedures() {
    return kProcedures.procedures;
}

unsigned int CMountProg::GetMaxSupportProc() {
    return kProcedureCount;
}

bool CMountProg::IsModifying(unsigned int /*iVersion*/, unsigned int iProc) {
    return iProc == kProcMnt || iProc == kProcUmnt;
}

int CMountProg::Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogArgu logArgu{"MountProg.Process"};
    const LogContext log{m_pLog, pParam->pRuntimeParam, &logArgu};
    LogEntered(log);
    if (m_pUtilities != nullptr) {
        m_pUtilities->RefreshAccess(log);
    }
    return kProcedures.Run(this, log, pInput, pOutput, pParam);
}

int CMountProg::ProcedureNULL(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* /*pParam*/) {
    return kProgHandled;
}

int CMountProg::ProcedureNOIMP(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* /*pParam*/) {
    return kProgNotImplemented;
}

// Whatever goes wrong, the client is told "access denied"; the log tells the cause.
int CMountProg::ProcedureMNT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] From %s, NFS Protocol Version=%u", pParam->sRemoteAddr.c_str(),
                 pParam->iVersion);
    char vcHandle[kReasonBufferSize] = "";
    if (!FindRootHandle(pInput, pParam, vcHandle)) {
        NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Mount FAIL");
        pOutput->Write(kMnt3ErrAcces);
        return kProgHandled;
    }
    NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Mount OK");
    pOutput->Write(kMnt3Ok);
    WriteRootHandle(pOutput, pParam->iVersion, vcHandle);
    return kProgHandled;
}

/// Reads an export's name and binds the export to the caller.
bool CMountProg::FindRootHandle(CInputStream* pInput, ProcessParam* pParam, char* pcHandle) {
    const LogContext log = GetLog(pParam);
    COpaquePath exportName;
    const bool bRead = ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &exportName);
    pParam->bArgumentsLeft = !bRead;

    const bool bNamed = bRead && !exportName.sPath.empty();
    const bool bAddressed = !pParam->sRemoteAddr.empty();
    if (!bNamed) {
        NFS_LOG_INFO(log, kLogError, "[%s] Fail to read export name");
    }
    if (!bAddressed) {
        NFS_LOG_INFO(log, kLogError, "[%s] Fail to get remote address");
    }
    return bNamed && bAddressed && BindExport(pParam, exportName.sPath, pcHandle);
}

/// Binds the export to the caller and makes its root's handle in a buffer that takes a reason too.
bool CMountProg::BindExport(ProcessParam* pParam, const std::string& sExportName, char* pcHandle) {
    const LogContext log = GetLog(pParam);
    MountInfo mountInfo;
    if (!m_pUtilities->MountExport(sExportName.c_str(), pParam->sRemoteAddr.c_str(), &mountInfo, pcHandle)) {
        NFS_LOG_ERROR(log, "[%s] %s", pcHandle);
        return false;
    }
    return m_pUtilities->GetFileHandle(log.pRuntimeParam, log.pLogArgu, mountInfo.sLocalMountPath.c_str(), pcHandle,
                                       kHandleCapacity);
}

void CMountProg::WriteRootHandle(COutputStream* pOutput, unsigned int iVersion, const char* pcHandle) {
    if (iVersion == kVersionOfFixedHandles) {
        pOutput->Write(pcHandle, kMount1HandleSize);
        return;
    }
    pOutput->Write(kNfs3HandleSize);
    pOutput->Write(pcHandle, kNfs3HandleSize);
    pOutput->Write(0U);  // authentication flavours: none is offered
}

int CMountProg::ProcedureUMNT(CInputStream* pInput, COutputStream* /*pOutput*/, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] From %s", pParam->sRemoteAddr.c_str());
    COpaquePath exportName;
    if (!ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &exportName)) {
        pParam->bArgumentsLeft = true;
        NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Umount FAIL");
        return kProgHandled;
    }
    NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Umount OK");
    // An unknown name has nothing to release; UMNT has no way to say so (RFC 1813, 5.2.3).
    m_pUtilities->UnmountExport(exportName.sPath.c_str(), pParam->sRemoteAddr.c_str());
    return kProgHandled;
}

bool CMountProg::ReadPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CInputStream* pInput,
                          COpaquePath* pPath) {
    if (pPath == nullptr) {
        return false;
    }
    unsigned int iLength = 0;
    pInput->Read(&iLength);
    if (iLength >= kPathBufferSize) {
        return false;
    }
    char vcPath[kPathBufferSize];
    pInput->Read(vcPath, iLength);
    pInput->SkipRemainOpaque(iLength);
    vcPath[iLength] = '\0';
    pPath->sPath = vcPath;
    const LogContext log{m_pLog, pRuntimeParam, pLogArgu};
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Read path = %s", pPath->sPath.c_str());
    return true;
}
