// The frame around every procedure of the MOUNT and NFS programs.
#pragma once

#include "DataException.h"
#include "RpcProg.h"
#include "Utilities.h"

/// Logs "[tag]" for an operation that is entered, where procedure names are wanted.
inline void LogProcedureName(CUtilities* pUtilities, ProcessParam* pParam, const LogArgu& logArgu) {
    if (pUtilities != nullptr && pParam->pRuntimeParam->IsLogProcFuncName()) {
        pUtilities->LogInfo(pParam->pRuntimeParam, "[%s]", logArgu.pcName);
    }
}

/// Runs a procedure and returns its ProgramStatus. What it throws becomes an error line and the status it stands for:
/// short input kProgTruncated, anything else kProgGarbageArgs.
template <class Procedure>
int RunGuarded(CUtilities* pUtilities, ProcessParam* pParam, const LogArgu& logArgu, Procedure procedure) {
    try {
        return procedure();
    } catch (const CDataTruncatedExpt& truncated) {
        if (pParam->pRuntimeParam->IsLogError()) {
            pUtilities->LogError(pParam->pRuntimeParam, "[%s] %s", logArgu.pcName, truncated.what());
        }
        return kProgTruncated;
    } catch (...) {
        if (pParam->pRuntimeParam->IsLogError()) {
            pUtilities->LogError(pParam->pRuntimeParam, "[%s] Unknown exception", logArgu.pcName);
        }
        return kProgGarbageArgs;
    }
}
