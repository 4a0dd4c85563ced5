// The server controller: the figures of its server, and the file that holds them.
#include "NfsMain.h"

#include <chrono>
#include <ctime>

#include "CallStatistics.h"
#include "Reason.h"
#include "RegistryFigures.h"
#include "RpcNumbers.h"
#include "RuntimeParam.h"
#include "ServerIdentity.h"
#include "ServerStatistics.h"
#include "StatisticsFile.h"
#include "StatisticsForm.h"
#include "Texts.h"
#include "Utilities.h"

namespace {

int GetConnectionLimit(unsigned int iProgram) {
    switch (iProgram) {
        case kPortmapProgramId:
            return CNfsMain::kMaxPortmapConnections;
        case kNfsProgramId:
            return CNfsMain::kMaxNfsConnections;
        default:
            return CNfsMain::kMaxMountConnections;
    }
}

}  // namespace

void CNfsMain::GetStatistics(ServerStatistics* pStatistics) {
    *pStatistics = ServerStatistics{};
    pStatistics->sVersion = kServerVersion;
    pStatistics->sID = m_pRuntimeParam->GetID();
    pStatistics->bServing = m_bServerRunning;
    pStatistics->iTime = std::time(nullptr);
    const std::shared_ptr<const CCallStatistics> pCalls = GetCallStatistics();
    const auto& programs = CCallStatistics::GetPrograms();
    for (std::size_t i = 0; i < programs.size(); ++i) {
        pStatistics->vConnections.push_back(
            {programs[i].pcName, GetConnectionLimit(programs[i].iNumber),
             pCalls ? pCalls->ReadConnections(i) : CCallStatistics::ConnectionFigures{}});
    }
    if (pCalls) {
        pStatistics->iBegin = pCalls->GetBeginTime();
        pStatistics->upTime = pStatistics->bServing ? std::chrono::steady_clock::now() - pCalls->GetBegin()
                                                    : std::chrono::steady_clock::duration::zero();
        pStatistics->vProcedures = pCalls->ReadProcedures();
        pStatistics->keptReplies = pCalls->ReadKeptReplies();
    }
    pStatistics->registries = m_pUtilities->GetRegistryFigures();
    pStatistics->receivers = m_pUtilities->GetReceiverFigures();
}

std::shared_ptr<const CCallStatistics> CNfsMain::GetCallStatistics() {
    const MutexLock lock(m_hMutexRpcServer);
    return m_pStatistics;
}

// ---- The file

bool CNfsMain::MakeStatisticsFile(char* pcStatus) {
    if (m_Options.sStatisticsFile.empty()) {
        return true;
    }
    const auto show = [this](StatisticsForm form) {
        ServerStatistics statistics;
        GetStatistics(&statistics);
        return ShowStatistics(statistics, form);
    };
    m_pStatisticsFile =
        std::make_unique<CStatisticsFile>(m_Options.sStatisticsFile, show, m_pUtilities.get(), m_pRuntimeParam.get());
    return m_pStatisticsFile->Write(pcStatus);
}

bool CNfsMain::StartStatisticsFile(char* pcStatus) {
    if (!m_pStatisticsFile || m_pStatisticsFile->Start(pcStatus)) {
        return true;
    }
    LogLifecycle("Fail to start NFS. Reason=%s", OrEmpty(pcStatus));
    return false;
}
