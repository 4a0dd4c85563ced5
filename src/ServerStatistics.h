// The figures of a server, as of one moment: what all forms of them are made of.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "CallStatistics.h"
#include "RegistryFigures.h"

/// Calls, connections and repeated datagrams are those of the server's run, or of its last one; what hosts answered is
/// that of the controller's life; sizes are those of now.
struct ServerStatistics {
    /// The connections to the port of one program.
    struct Connections {
        const char* pcProgram;
        int nLimit;  ///< one more ends the program
        CCallStatistics::ConnectionFigures figures;
    };

    std::string sVersion;
    std::string sID;  ///< of the controller, as it stands in its log lines
    bool bServing = false;
    std::time_t iTime = 0;               ///< of these figures, in seconds since 1970
    std::time_t iBegin = 0;              ///< of the run; 0 before the first one
    std::chrono::nanoseconds upTime{0};  ///< 0 while nothing is served
    std::vector<Connections> vConnections;
    std::vector<CCallStatistics::ProcedureFigures> vProcedures;  ///< empty before the first run
    CCallStatistics::ReplyFigures keptReplies;
    RegistryFigures registries;
    std::optional<ReceiverFigures> receivers;  ///< where other processes steer the server
};

/// One size of a server, as each form shows it.
struct StatisticsSize {
    const char* pcName;         ///< in JSON, and behind "nfslib_" for collectors
    const char* pcTitle;        ///< in the table
    const char* pcExplanation;  ///< one sentence without its full stop
    std::uint64_t nValue;
};

/// What its registries, caches and receivers hold, in the order of the table.
std::vector<StatisticsSize> GetStatisticsSizes(const ServerStatistics& statistics);
