// CPortmapProg: the portmapper that the server brings along, GETPORT only (RFC 1833, section 3).
#pragma once

#include <array>

#include "ProgramFrame.h"
#include "RpcNumbers.h"
#include "RpcProg.h"

/// Answers procedure 3 of program 100000 from a table of ports; the version asked for and the transport protocol do
/// not matter. Every other procedure, NULL included, is not available.
class CPortmapProg : public CRpcProg {
public:
    /// Procedures 0 to 5.
    static constexpr unsigned int kProcedureCount = 6;
    using Procedure = ProcedureEntry<CPortmapProg>;

    explicit CPortmapProg(CUtilities* pUtilities);

    static const std::array<Procedure, kProcedureCount>& GetProcedures();

    /// Stores the port of a program whose number can be registered (RpcNumbers.h); others are ignored. Called before
    /// the sockets are opened.
    void Set(unsigned long lProg, unsigned long lPort);

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override;
    unsigned int GetMaxSupportProc() override;

    int ProcedureGETPORT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureNOIMP(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);

private:
    std::array<unsigned long, kProgramIdCount> m_lPortTable{};  ///< from kFirstProgramId on; 0: not registered
};
