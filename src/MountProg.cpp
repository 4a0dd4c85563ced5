// MOUNT: NULL, MNT and UMNT (RFC 1813, 5.2.0, 5.2.1, 5.2.3); the other procedures are not available.
#include "MountProg.h"

#include <array>

#include "InputStream.h"
#include "OutputStream.h"
#include "ProgramFrame.h"

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

struct Procedure {
    const char* pcName;
    int (CMountProg::*pHandler)(CInputStream*, COutputStream*, ProcessParam*);
};

constexpr std::array<Procedure, CMountProg::kProcedureCount> kProcedures{{
    {"NULL", &CMountProg::ProcedureNULL},
    {"MNT", &CMountProg::ProcedureMNT},
    {"DUMP", &CMountProg::ProcedureNOIMP},
    {"UMNT", &CMountProg::ProcedureUMNT},
    {"UMNTALL", &CMountProg::ProcedureNOIMP},
    {"EXPORT", &CMountProg::ProcedureNOIMP},
}};

}  // namespace

CMountProg::CMountProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

unsigned int CMountProg::GetMaxSupportProc() {
    return kProcedureCount;
}

bool CMountProg::IsModifying(unsigned int /*iVersion*/, unsigned int iProc) {
    return iProc == kProcMnt || iProc == kProcUmnt;
}

int CMountProg::Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogArgu logArgu{"MountProg.Process"};
    LogProcedureName(m_pUtilities, pParam, logArgu);
    if (m_pUtilities == nullptr || pParam->iProc >= kProcedures.size()) {
        return ProcedureNOIMP(pInput, pOutput, pParam);
    }
    const Procedure& procedure = kProcedures[pParam->iProc];
    return RunGuarded(m_pUtilities, pParam, logArgu,
                      [&] { return (this->*procedure.pHandler)(pInput, pOutput, pParam); });
}

int CMountProg::ProcedureNULL(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* pParam) {
    LogProcedureName(m_pUtilities, pParam, LogArgu{"MountProg.ProcedureNULL"});
    return kProgHandled;
}

int CMountProg::ProcedureNOIMP(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* pParam) {
    LogProcedureName(m_pUtilities, pParam, LogArgu{"MountProg.ProcedureNOIMP"});
    return kProgNotImplemented;
}

// Whatever goes wrong, the client is told "access denied"; the log tells the cause.
int CMountProg::ProcedureMNT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu{"MountProg.ProcedureMNT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogProcedureName(m_pUtilities, pParam, logArgu);
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] From %s, NFS Protocol Version=%u", logArgu.pcName,
                              pParam->sRemoteAddr.c_str(), pParam->iVersion);
    }
    COpaquePath exportName;
    const bool bRead = ReadPath(pRuntimeParam, &logArgu, pInput, &exportName);
    pParam->bArgumentsLeft = !bRead;

    bool bMounted = true;
    if (!bRead || exportName.sPath.empty()) {
        if (pRuntimeParam->IsLogError()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fail to read export name", logArgu.pcName);
        }
        bMounted = false;
    }
    if (pParam->sRemoteAddr.empty()) {
        if (pRuntimeParam->IsLogError()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fail to get remote address", logArgu.pcName);
        }
        bMounted = false;
    }
    char vcHandle[kReasonBufferSize] = "";
    bMounted = bMounted && BindExport(pParam, &logArgu, exportName.sPath, vcHandle);

    if (!bMounted) {
        if (pRuntimeParam->IsLogGeneralInfo()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mount FAIL", logArgu.pcName);
        }
        pOutput->Write(kMnt3ErrAcces);
        return kProgHandled;
    }
    if (pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mount OK", logArgu.pcName);
    }
    pOutput->Write(kMnt3Ok);
    if (pParam->iVersion == kVersionOfFixedHandles) {
        pOutput->Write(vcHandle, kMount1HandleSize);
    } else {
        pOutput->Write(kNfs3HandleSize);
        pOutput->Write(vcHandle, kNfs3HandleSize);
        pOutput->Write(0U);  // authentication flavours: none is offered
    }
    return kProgHandled;
}

/// Binds the export to the caller and makes its root's handle in a buffer that takes a reason too.
bool CMountProg::BindExport(ProcessParam* pParam, const LogArgu* pLogArgu, const std::string& sExportName,
                            char* pcHandle) {
    MountInfo mountInfo;
    if (!m_pUtilities->UpdateMountClientIpAddrByExportName(sExportName.c_str(), pParam->sRemoteAddr.c_str(), &mountInfo,
                                                           pcHandle)) {
        if (pParam->pRuntimeParam->IsLogError()) {
            m_pUtilities->LogError(pParam->pRuntimeParam, "[%s] %s", pLogArgu->pcName, pcHandle);
        }
        return false;
    }
    return m_pUtilities->GetFileHandle(pParam->pRuntimeParam, pLogArgu, mountInfo.sLocalMountPath.c_str(), pcHandle,
                                       kHandleCapacity);
}

int CMountProg::ProcedureUMNT(CInputStream* pInput, COutputStream* /*pOutput*/, ProcessParam* pParam) {
    LogArgu logArgu{"MountProg.ProcedureUMNT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogProcedureName(m_pUtilities, pParam, logArgu);
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] From %s", logArgu.pcName, pParam->sRemoteAddr.c_str());
    }
    COpaquePath exportName;
    if (!ReadPath(pRuntimeParam, &logArgu, pInput, &exportName)) {
        pParam->bArgumentsLeft = true;
        if (pRuntimeParam->IsLogGeneralInfo()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Umount FAIL", logArgu.pcName);
        }
        return kProgHandled;
    }
    if (pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Umount OK", logArgu.pcName);
    }
    // An unknown name has nothing to release; UMNT has no way to say so (RFC 1813, 5.2.3).
    m_pUtilities->UpdateMountClientIpAddrByExportName(exportName.sPath.c_str(), nullptr, nullptr, nullptr);
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
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Read path = %s", pLogArgu->pcName, pPath->sPath.c_str());
    }
    return true;
}
