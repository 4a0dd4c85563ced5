// The frame in which every procedure of the portmapper, MOUNT and NFS stands.
#pragma once

#include <array>
#include <cstddef>

#include "CallGuard.h"
#include "Log.h"
#include "RpcProg.h"

/// One procedure of a program: its log tag and its handler, which decodes the arguments, acts, encodes the result and
/// returns a ProgramStatus.
template <class Program>
struct ProcedureEntry {
    const char* pcTag;
    int (Program::*pHandler)(CInputStream*, COutputStream*, ProcessParam*);
};

/// Says that an operation is entered, where procedure names are wanted.
inline void LogEntered(const LogContext& log) {
    NFS_LOG_INFO(log, kLogProcFuncName, "[%s]");
}

/// The procedures of a program, by number.
template <class Program, std::size_t nProcedures>
struct ProcedureTable {
    std::array<ProcedureEntry<Program>, nProcedures> procedures;
    ProcedureEntry<Program> notImplemented;  ///< for all other numbers, and for a program without utilities

    /// Runs the procedure that a call asks for, under its tag, which the call's parameters carry from then on. What it
    /// throws is told in the program's own log context.
    int Run(Program* pProgram, const LogContext& log, CInputStream* pInput, COutputStream* pOutput,
            ProcessParam* pParam) const {
        const bool bServed = log.pLog != nullptr && pParam->iProc < nProcedures;
        const ProcedureEntry<Program>& procedure = bServed ? procedures[pParam->iProc] : notImplemented;
        pParam->logArgu = {procedure.pcTag};
        return RunGuarded(log, [&] {
            LogEntered({log.pLog, pParam->pRuntimeParam, &pParam->logArgu});
            return (pProgram->*procedure.pHandler)(pInput, pOutput, pParam);
        });
    }
};
