// Counting calls by procedure (RFC 1833, section 3; RFC 1813, section 3 and appendix I).
#include "CallStatistics.h"

#include <algorithm>

#include "RpcNumbers.h"

namespace {

struct ProcedureName {
    std::size_t iProgram;  ///< a place in kProgramTable
    const char* pcName;
    bool bStatus;  ///< its results begin with a status
};

constexpr std::size_t kPortmap = 0;
constexpr std::size_t kNfs = 1;
constexpr std::size_t kMount = 2;

constexpr std::array<CCallStatistics::Program, CCallStatistics::kPrograms> kProgramTable{{
    {kPortmapProgramId, "portmap"},
    {kNfsProgramId, "nfs"},
    {kMountProgramId, "mount"},
}};

/// Each program's procedures by number, and behind them the place of all others.
constexpr std::array kNames{
    ProcedureName{kPortmap, "NULL", false},   ProcedureName{kPortmap, "SET", false},
    ProcedureName{kPortmap, "UNSET", false},  ProcedureName{kPortmap, "GETPORT", false},
    ProcedureName{kPortmap, "DUMP", false},   ProcedureName{kPortmap, "CALLIT", false},
    ProcedureName{kPortmap, "OTHER", false},  ProcedureName{kNfs, "NULL", false},
    ProcedureName{kNfs, "GETATTR", true},     ProcedureName{kNfs, "SETATTR", true},
    ProcedureName{kNfs, "LOOKUP", true},      ProcedureName{kNfs, "ACCESS", true},
    ProcedureName{kNfs, "READLINK", true},    ProcedureName{kNfs, "READ", true},
    ProcedureName{kNfs, "WRITE", true},       ProcedureName{kNfs, "CREATE", true},
    ProcedureName{kNfs, "MKDIR", true},       ProcedureName{kNfs, "SYMLINK", true},
    ProcedureName{kNfs, "MKNOD", true},       ProcedureName{kNfs, "REMOVE", true},
    ProcedureName{kNfs, "RMDIR", true},       ProcedureName{kNfs, "RENAME", true},
    ProcedureName{kNfs, "LINK", true},        ProcedureName{kNfs, "READDIR", true},
    ProcedureName{kNfs, "READDIRPLUS", true}, ProcedureName{kNfs, "FSSTAT", true},
    ProcedureName{kNfs, "FSINFO", true},      ProcedureName{kNfs, "PATHCONF", true},
    ProcedureName{kNfs, "COMMIT", true},      ProcedureName{kNfs, "OTHER", false},
    ProcedureName{kMount, "NULL", false},     ProcedureName{kMount, "MNT", true},
    ProcedureName{kMount, "DUMP", false},     ProcedureName{kMount, "UMNT", false},
    ProcedureName{kMount, "UMNTALL", false},  ProcedureName{kMount, "EXPORT", false},
    ProcedureName{kMount, "OTHER", false},
};

std::size_t FindProgramIndex(unsigned long lProgId) {
    switch (lProgId) {
        case kPortmapProgramId:
            return kPortmap;
        case kNfsProgramId:
            return kNfs;
        case kMountProgramId:
            return kMount;
        default:
            return CCallStatistics::kPrograms;
    }
}

constexpr std::size_t GetFirst(std::size_t iProgram) {
    std::size_t i = 0;
    while (i < kNames.size() && kNames[i].iProgram != iProgram) {
        ++i;
    }
    return i;
}

/// Where each program's procedures begin, and where the last one's end.
constexpr std::array kFirst{GetFirst(kPortmap), GetFirst(kNfs), GetFirst(kMount), kNames.size()};
static_assert(kFirst.size() == CCallStatistics::kPrograms + 1);

}  // namespace

const std::array<CCallStatistics::Program, CCallStatistics::kPrograms>& CCallStatistics::GetPrograms() {
    return kProgramTable;
}

// ---- Calls

std::size_t CCallStatistics::FindPlace(unsigned int iProgram, unsigned int iVersion, unsigned int iProcedure) {
    static_assert(kNames.size() == kProcedures);
    const std::size_t i = FindProgramIndex(iProgram);
    if (i == kPrograms) {
        return kNowhere;
    }
    const std::size_t iOther = kFirst[i + 1] - 1;
    const bool bOther = i == kNfs && iVersion != kNfsVersion3;
    return bOther ? iOther : std::min(kFirst[i] + iProcedure, iOther);
}

bool CCallStatistics::HasStatus(std::size_t iPlace) {
    return iPlace != kNowhere && kNames[iPlace].bStatus;
}

void CCallStatistics::Count(const Call& call) {
    if (call.iPlace == kNowhere) {
        return;
    }
    Procedure& procedure = m_vProcedures[call.iPlace];
    AddAlone(procedure.nBytesIn, call.nBytesIn);
    AddAlone(procedure.nBytesOut, call.nBytesOut);
    if (call.bError) {
        AddAlone(procedure.nErrors, 1);
    }
    procedure.latency.Add(call.lNanoseconds);
}

std::vector<CCallStatistics::ProcedureFigures> CCallStatistics::ReadProcedures() const {
    std::vector<ProcedureFigures> vFigures;
    vFigures.reserve(kProcedures);
    for (std::size_t i = 0; i < kProcedures; ++i) {
        const Procedure& procedure = m_vProcedures[i];
        vFigures.push_back({kProgramTable[kNames[i].iProgram].pcName, kNames[i].pcName,
                            procedure.nErrors.load(std::memory_order_relaxed),
                            procedure.nBytesIn.load(std::memory_order_relaxed),
                            procedure.nBytesOut.load(std::memory_order_relaxed), procedure.latency.Read()});
    }
    return vFigures;
}

// ---- Connections

std::shared_ptr<void> CCallStatistics::CountConnection(const std::shared_ptr<CCallStatistics>& pStatistics,
                                                       unsigned long lProgId) {
    const std::size_t i = FindProgramIndex(lProgId);
    if (i == kPrograms) {
        return nullptr;
    }
    Connections& connections = pStatistics->m_vConnections[i];
    const int nUsed = connections.nUsed.fetch_add(1, std::memory_order_relaxed) + 1;
    // Shares the statistics, and says when it goes; also where there is no memory for it.
    std::shared_ptr<Connections> pConnections(
        &connections, [pStatistics](Connections* pUsed) { pUsed->nUsed.fetch_sub(1, std::memory_order_relaxed); });
    connections.nAccepted.fetch_add(1, std::memory_order_relaxed);
    int nMost = connections.nMost.load(std::memory_order_relaxed);
    while (nMost < nUsed && !connections.nMost.compare_exchange_weak(nMost, nUsed, std::memory_order_relaxed)) {
    }
    return pConnections;
}

CCallStatistics::ConnectionFigures CCallStatistics::ReadConnections(std::size_t iProgram) const {
    const Connections& connections = m_vConnections[iProgram];
    return {connections.nUsed.load(std::memory_order_relaxed), connections.nMost.load(std::memory_order_relaxed),
            connections.nAccepted.load(std::memory_order_relaxed)};
}

// ---- Kept replies

void CCallStatistics::NoteKeptReplies(unsigned long lProgId, std::size_t nReplies, std::size_t nBytes) {
    const std::size_t i = FindProgramIndex(lProgId);
    if (i != kPrograms) {
        m_vKeptReplies[i].nReplies.store(nReplies, std::memory_order_relaxed);
        m_vKeptReplies[i].nBytes.store(nBytes, std::memory_order_relaxed);
    }
}

CCallStatistics::ReplyFigures CCallStatistics::ReadKeptReplies() const {
    ReplyFigures figures;
    for (const KeptReplies& kept : m_vKeptReplies) {
        figures.nReplies += kept.nReplies.load(std::memory_order_relaxed);
        figures.nBytes += kept.nBytes.load(std::memory_order_relaxed);
    }
    figures.nRepeated = m_nRepeated.load(std::memory_order_relaxed);
    return figures;
}
