// What becomes of an exception in the middle of a call.
#pragma once

#include "DataException.h"
#include "Log.h"
#include "RpcProg.h"

/// Runs a step of a call and returns its ProgramStatus. What it throws becomes an error line and the status it stands
/// for: short input kProgTruncated, anything else kProgGarbageArgs.
template <class Step>
int RunGuarded(const LogContext& log, const Step& step) {
    try {
        return step();
    } catch (const CDataTruncatedExpt& truncated) {
        NFS_LOG_ERROR(log, "[%s] %s", truncated.what());
        return kProgTruncated;
    } catch (...) {
        NFS_LOG_ERROR(log, "[%s] Unknown exception");
        return kProgGarbageArgs;
    }
}
