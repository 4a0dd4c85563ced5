// GETPORT of the internal portmapper (RFC 1833, section 3).
#include "PortmapProg.h"

#include "DataException.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "Utilities.h"

namespace {

constexpr unsigned int kProcGetport = 3;
constexpr unsigned int kProcedures = 6;

}  // namespace

CPortmapProg::CPortmapProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

void CPortmapProg::Set(unsigned long lProg, unsigned long lPort) {
    const unsigned long i = lProg - kFirstProgramId;
    if (i < m_lPortTable.size()) {
        m_lPortTable[i] = lPort;
    }
}

unsigned int CPortmapProg::GetMaxSupportProc() {
    return kProcedures;
}

int CPortmapProg::Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    if (m_pUtilities == nullptr || pParam->iProc != kProcGetport) {
        return ProcedureNOIMP(pInput, pOutput, pParam);
    }
    const LogArgu logArgu{"PortmapProg.Process"};
    const bool bLogError = pParam->pRuntimeParam->IsLogError();
    try {
        return ProcedureGETPORT(pInput, pOutput, pParam);
    } catch (const CDataTruncatedExpt& truncated) {
        if (bLogError) {
            m_pUtilities->LogError(pParam->pRuntimeParam, "[%s] %s", logArgu.pcName, truncated.what());
        }
        return kProgTruncated;
    } catch (...) {
        if (bLogError) {
            m_pUtilities->LogError(pParam->pRuntimeParam, "[%s] Unknown exception", logArgu.pcName);
        }
        return kProgGarbageArgs;
    }
}

int CPortmapProg::ProcedureGETPORT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogArgu logArgu{"PortmapProg.ProcedureGETPORT"};
    if (pParam->pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s]", logArgu.pcName);
    }
    unsigned int lProg = 0;
    pInput->Read(&lProg);
    pInput->Skip(3 * sizeof(unsigned int));  // version, protocol, port

    const unsigned long i = lProg - kFirstProgramId;
    const unsigned long lPort = i < m_lPortTable.size() ? m_lPortTable[i] : 0;
    pOutput->Write(static_cast<unsigned int>(lPort));
    if (pParam->pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s] lProg = %d, lPort = %d", logArgu.pcName,
                              static_cast<int>(lProg), static_cast<int>(lPort));
    }
    return kProgHandled;
}

int CPortmapProg::ProcedureNOIMP(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* pParam) {
    if (m_pUtilities != nullptr && pParam->pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s]", "PortmapProg.ProcedureNOIMP");
    }
    return kProgNotImplemented;
}
