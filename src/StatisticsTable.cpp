// The figures of a server as a table for people.
#include <algorithm>
#include <array>

#include "Reason.h"
#include "ServerStatistics.h"
#include "StatisticsForm.h"

namespace {

using Procedure = CCallStatistics::ProcedureFigures;

unsigned long long ToPrint(std::uint64_t n) {
    return n;
}

std::string ShowLocalTime(std::time_t iTime) {
    std::tm local{};
    ::localtime_r(&iTime, &local);
    char vcText[64];
    return std::strftime(vcText, sizeof(vcText), "%Y-%m-%d %H:%M:%S", &local) == 0 ? "?" : vcText;
}

/// A time with its unit, three digits or a little more: "850 ns", "12.3 us", "1.25 s".
std::string ShowTime(std::uint64_t lNanoseconds) {
    struct Unit {
        double dNanoseconds;
        const char* pcName;
    };
    constexpr std::array kUnits{Unit{1e9, "s"}, Unit{1e6, "ms"}, Unit{1e3, "us"}};
    const auto dTime = static_cast<double>(lNanoseconds);
    for (const Unit& unit : kUnits) {
        if (dTime >= unit.dNanoseconds) {
            return FormatText("%.3g %s", std::min(dTime / unit.dNanoseconds, 999999.0), unit.pcName);
        }
    }
    return FormatText("%llu ns", ToPrint(lNanoseconds));
}

std::string ShowUpTime(std::chrono::nanoseconds upTime) {
    const auto nSeconds = std::chrono::duration_cast<std::chrono::seconds>(upTime).count();
    constexpr long long kMinute = 60;
    constexpr long long kHour = 60 * kMinute;
    constexpr long long kDay = 24 * kHour;
    return FormatText("%lld d %02lld:%02lld:%02lld", static_cast<long long>(nSeconds / kDay),
                      static_cast<long long>(nSeconds % kDay / kHour),
                      static_cast<long long>(nSeconds % kHour / kMinute), static_cast<long long>(nSeconds % kMinute));
}

std::string ShowHead(const ServerStatistics& statistics) {
    std::string sText = FormatText("NFS server %s (%s), %s: ", statistics.sVersion.c_str(),
                                   MakeUtf8(statistics.sID).c_str(), ShowLocalTime(statistics.iTime).c_str());
    if (statistics.bServing) {
        return sText + FormatText("serving since %s (%s)\n", ShowLocalTime(statistics.iBegin).c_str(),
                                  ShowUpTime(statistics.upTime).c_str());
    }
    return sText + "not serving\n";
}

std::string ShowConnections(const ServerStatistics& statistics) {
    std::string sText = "\nConnections             used  limit   most  accepted\n";
    for (const ServerStatistics::Connections& port : statistics.vConnections) {
        sText += FormatText("  %-20s %5d  %5d  %5d  %8llu\n", port.pcProgram, port.figures.nUsed, port.nLimit,
                            port.figures.nMost, ToPrint(port.figures.nAccepted));
    }
    return sText;
}

std::string ShowProcedure(const Procedure& procedure) {
    constexpr std::array kParts{0.5, 0.9, 0.99, 0.999};
    std::string sText = FormatText("  %-8s %-11s %10llu %8llu %14llu %14llu", procedure.pcProgram,
                                   procedure.pcProcedure, ToPrint(procedure.latency.nCalls), ToPrint(procedure.nErrors),
                                   ToPrint(procedure.nBytesIn), ToPrint(procedure.nBytesOut));
    for (const double dPart : kParts) {
        sText += FormatText(" %8s", ShowTime(procedure.latency.GetPercentile(dPart)).c_str());
    }
    return sText + FormatText(" %8s\n", ShowTime(procedure.latency.lMax).c_str());
}

/// The procedures that were called.
std::string ShowProcedures(const ServerStatistics& statistics) {
    std::string sText;
    for (const Procedure& procedure : statistics.vProcedures) {
        if (procedure.latency.nCalls > 0) {
            sText += ShowProcedure(procedure);
        }
    }
    if (sText.empty()) {
        return "\nCalls: none\n";
    }
    return "\nCalls                       calls   errors       bytes in      bytes out      p50      p90      p99    "
           "p99.9      max\n" +
           sText;
}

std::string ShowAnswers(const ServerStatistics& statistics) {
    std::string sText = "\nHost's answers       granted  refused  unanswered  under way\n";
    for (const CHostAnswers::Figures& kind : statistics.registries.vAnswers) {
        sText += FormatText("  %-15s %10llu  %7llu  %10llu  %9llu\n", kind.pcKind, ToPrint(kind.nGranted),
                            ToPrint(kind.nRefused), ToPrint(kind.nUnanswered), ToPrint(kind.nUnderWay));
    }
    return sText;
}

std::string ShowSizes(const ServerStatistics& statistics) {
    std::string sText = "\nSizes\n";
    for (const StatisticsSize& size : GetStatisticsSizes(statistics)) {
        sText += FormatText("  %-28s %12llu\n", size.pcTitle, ToPrint(size.nValue));
    }
    return sText + FormatText("  %-28s %12llu\n", "repeated datagrams", ToPrint(statistics.keptReplies.nRepeated));
}

}  // namespace

std::string ShowTable(const ServerStatistics& statistics) {
    return ShowHead(statistics) + ShowConnections(statistics) + ShowProcedures(statistics) + ShowAnswers(statistics) +
           ShowSizes(statistics);
}
