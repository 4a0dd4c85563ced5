// Log lines kept back until a lock is released.
#include "DeferredLog.h"

#include <exception>
#include <iterator>

#include "Log.h"
#include "RuntimeParam.h"

thread_local CDeferredLog* CDeferredLog::t_pInnermost = nullptr;

CDeferredLog::CDeferredLog() : m_pOuter(t_pInnermost) {
    t_pInnermost = this;
}

CDeferredLog::~CDeferredLog() {
    t_pInnermost = m_pOuter;
    if (m_pOuter != nullptr) {
        m_pOuter->m_vLines.insert(m_pOuter->m_vLines.end(), std::make_move_iterator(m_vLines.begin()),
                                  std::make_move_iterator(m_vLines.end()));
        return;
    }
    for (const Line& line : m_vLines) {
        try {
            Emit(line);
        } catch (const std::exception&) {  // out of memory: the operation is done, its line is lost
        }
    }
}

bool CDeferredLog::Keep(CLog* pLog, Kind kind, const CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    if (t_pInnermost == nullptr) {
        return false;
    }
    t_pInnermost->m_vLines.push_back(
        {pLog, kind, pRuntimeParam->GetID(), pRuntimeParam->GetIpcID(), pRuntimeParam->GetLogControl(), pcMessage});
    return true;
}

void CDeferredLog::Emit(const Line& line) {
    CRuntimeParam param(line.sID.c_str(), line.iLogControl);
    param.SetIpcID(line.sIpcID.c_str());
    switch (line.kind) {
        case kInfo:
            line.pLog->LogInfo(&param, line.sMessage.c_str());
            break;
        case kError:
            line.pLog->LogError(&param, line.sMessage.c_str());
            break;
        case kRaw:
            line.pLog->LogRaw(&param, line.sMessage.c_str());
            break;
    }
}
