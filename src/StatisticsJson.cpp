// The figures of a server as JSON (RFC 8259): one object, its numbers exact.
#include "Reason.h"
#include "ServerStatistics.h"
#include "StatisticsForm.h"

namespace {

std::string Quote(std::string_view sText) {
    std::string sResult = "\"";
    for (const char c : MakeUtf8(sText)) {
        const auto iByte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            sResult += '\\';
            sResult += c;
        } else if (iByte < 0x20) {
            sResult += FormatText("\\u%04x", static_cast<unsigned int>(iByte));
        } else {
            sResult += c;
        }
    }
    return sResult + "\"";
}

/// Members of an object, or elements of an array, one after the other.
class Members {
public:
    explicit Members(const char* pcBetween = ", ") : m_pcBetween(pcBetween) {}

    Members& Raw(const std::string& sMember) {
        m_sText += (m_sText.empty() ? "" : m_pcBetween) + sMember;
        return *this;
    }
    Members& Add(const char* pcName, const std::string& sValue) { return Raw(Quote(pcName) + ": " + sValue); }
    Members& Add(const char* pcName, std::uint64_t n) { return Add(pcName, std::to_string(n)); }
    std::string Object() const { return "{" + m_sText + "}"; }
    const std::string& Get() const { return m_sText; }

private:
    const char* m_pcBetween;
    std::string m_sText;
};

std::string ShowConnections(const ServerStatistics& statistics) {
    Members programs;
    for (const ServerStatistics::Connections& port : statistics.vConnections) {
        programs.Add(port.pcProgram, Members()
                                         .Add("used", std::to_string(port.figures.nUsed))
                                         .Add("limit", std::to_string(port.nLimit))
                                         .Add("most", std::to_string(port.figures.nMost))
                                         .Add("accepted", port.figures.nAccepted)
                                         .Object());
    }
    return programs.Object();
}

std::string ShowProcedure(const CCallStatistics::ProcedureFigures& procedure) {
    const LatencyFigures& latency = procedure.latency;
    return Members()
        .Add("program", Quote(procedure.pcProgram))
        .Add("procedure", Quote(procedure.pcProcedure))
        .Add("calls", latency.nCalls)
        .Add("errors", procedure.nErrors)
        .Add("bytes_in", procedure.nBytesIn)
        .Add("bytes_out", procedure.nBytesOut)
        .Add("seconds", Members()
                            .Add("sum", ShowSeconds(latency.lSum))
                            .Add("p50", ShowSeconds(latency.GetPercentile(0.5)))
                            .Add("p90", ShowSeconds(latency.GetPercentile(0.9)))
                            .Add("p99", ShowSeconds(latency.GetPercentile(0.99)))
                            .Add("p99.9", ShowSeconds(latency.GetPercentile(0.999)))
                            .Add("max", ShowSeconds(latency.lMax))
                            .Object())
        .Object();
}

std::string ShowProcedures(const ServerStatistics& statistics) {
    Members procedures(",\n    ");
    for (const CCallStatistics::ProcedureFigures& procedure : statistics.vProcedures) {
        procedures.Raw(ShowProcedure(procedure));
    }
    return "[" + procedures.Get() + "]";
}

std::string ShowAnswers(const ServerStatistics& statistics) {
    Members kinds;
    for (const CHostAnswers::Figures& kind : statistics.registries.vAnswers) {
        kinds.Add(kind.pcKind, Members()
                                   .Add("granted", kind.nGranted)
                                   .Add("refused", kind.nRefused)
                                   .Add("unanswered", kind.nUnanswered)
                                   .Add("under_way", kind.nUnderWay)
                                   .Object());
    }
    return kinds.Object();
}

std::string ShowSizes(const ServerStatistics& statistics) {
    Members sizes;
    for (const StatisticsSize& size : GetStatisticsSizes(statistics)) {
        sizes.Add(size.pcName, size.nValue);
    }
    return sizes.Object();
}

}  // namespace

std::string ShowJson(const ServerStatistics& statistics) {
    const auto nUpTime = static_cast<std::uint64_t>(statistics.upTime.count());
    Members all(",\n  ");
    all.Add("version", Quote(statistics.sVersion))
        .Add("id", Quote(statistics.sID))
        .Add("serving", statistics.bServing ? "true" : "false")
        .Add("time", std::to_string(statistics.iTime))
        .Add("start_time", std::to_string(statistics.iBegin))
        .Add("uptime_seconds", ShowSeconds(nUpTime))
        .Add("connections", ShowConnections(statistics))
        .Add("procedures", ShowProcedures(statistics))
        .Add("repeated_datagrams", statistics.keptReplies.nRepeated)
        .Add("host_answers", ShowAnswers(statistics))
        .Add("sizes", ShowSizes(statistics));
    return all.Object() + "\n";
}
