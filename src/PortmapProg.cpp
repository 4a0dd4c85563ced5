// GETPORT of the internal portmapper (RFC 1833, section 3).
#include "PortmapProg.h"

#include "InputStream.h"
#include "OutputStream.h"

namespace {

constexpr ProcedureTable<CPortmapProg, CPortmapProg::kProcedureCount> kProcedures{
    {{
        {"PortmapProg.ProcedureNOIMP", &CPortmapProg::ProcedureNOIMP},  // NULL
        {"PortmapProg.ProcedureNOIMP", &CPortmapProg::ProcedureNOIMP},  // SET
        {"PortmapProg.ProcedureNOIMP", &CPortmapProg::ProcedureNOIMP},  // UNSET
        {"PortmapProg.ProcedureGETPORT", &CPortmapProg::ProcedureGETPORT},
        {"PortmapProg.ProcedureNOIMP", &CPortmapProg::ProcedureNOIMP},  // DUMP
        {"PortmapProg.ProcedureNOIMP", &CPortmapProg::ProcedureNOIMP},  // CALLIT
    }},
    {"PortmapProg.ProcedureNOIMP", &CPortmapProg::ProcedureNOIMP}};

}  // namespace

CPortmapProg::CPortmapProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

const std::array<CPortmapProg::Procedure, CPortmapProg::kProcedureCount>& CPortmapProg::GetProcedures() {
    return kProcedures.procedures;
}

void CPortmapProg::Set(unsigned long lProg, unsigned long lPort) {
    const unsigned long i = lProg - kFirstProgramId;
    if (i < m_lPortTable.size()) {
        m_lPortTable[i] = lPort;
    }
}

unsigned int CPortmapProg::GetMaxSupportProc() {
    return kProcedureCount;
}

int CPortmapProg::Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogArgu logArgu{"PortmapProg.Process"};
    return kProcedures.Run(this, {m_pLog, pParam->pRuntimeParam, &logArgu}, pInput, pOutput, pParam);
}

int CPortmapProg::ProcedureGETPORT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    unsigned int lProg = 0;
    pInput->Read(&lProg);
    pInput->Skip(3 * sizeof(unsigned int));  // version, protocol, port

    const unsigned long i = lProg - kFirstProgramId;
    const unsigned long lPort = i < m_lPortTable.size() ? m_lPortTable[i] : 0;
    pOutput->Write(static_cast<unsigned int>(lPort));
    NFS_LOG_INFO(GetLog(pParam), kLogProcFuncArgu, "[%s] lProg = %d, lPort = %d", static_cast<int>(lProg),
                 static_cast<int>(lPort));
    return kProgHandled;
}

int CPortmapProg::ProcedureNOIMP(CInputStream* /*pInput*/, COutputStream* /*pOutput*/, ProcessParam* /*pParam*/) {
    return kProgNotImplemented;
}
