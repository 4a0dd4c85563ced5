// CPortmapProg: the portmapper that the server brings along, GETPORT only (RFC 1833, section 3).
#pragma once

#include <array>

#include "RpcProg.h"

/// Answers procedure 3 of program 100000 from a table of ports; the version asked for and the transport protocol do
/// not matter. Every other procedure, NULL included, is not available.
class CPortmapProg : public CRpcProg {
public:
    explicit CPortmapProg(CUtilities* pUtilities);

    /// Stores the port of a program in 100000 to 100009; others are ignored. Called before the sockets are opened.
    void Set(unsigned long lProg, unsigned long lPort);

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override;
    /// Procedures 0 to 5.
    unsigned int GetMaxSupportProc() override;

    int ProcedureGETPORT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureNOIMP(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);

private:
    static constexpr unsigned long kFirstProgram = 100000;

    std::array<unsigned long, 10> m_lPortTable{};  ///< by program number minus kFirstProgram; 0: not registered
};
