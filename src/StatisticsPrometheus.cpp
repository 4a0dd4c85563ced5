// The figures of a server in the text exposition format 0.0.4, which Prometheus' collectors read.
#include "Reason.h"
#include "ServerStatistics.h"
#include "StatisticsForm.h"

namespace {

using Procedure = CCallStatistics::ProcedureFigures;

/// Buckets of the histograms end at powers of two nanoseconds, where the counts are exact: from 4 us to 17 s.
constexpr unsigned int kFirstBucketBits = 12;
constexpr unsigned int kLastBucketBits = 34;

std::string Escape(std::string_view sValue) {
    std::string sResult;
    for (const char c : MakeUtf8(sValue)) {
        if (c == '\n') {
            sResult += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') {
            sResult += '\\';
        }
        sResult += c;
    }
    return sResult;
}

/// A label as it stands between braces.
std::string Label(const char* pcName, std::string_view sValue) {
    return std::string(pcName) + "=\"" + Escape(sValue) + "\"";
}

/// The lines of one metric.
class Metric {
public:
    Metric(const std::string& sName, const char* pcType, const std::string& sHelp)
        : m_sName("nfslib_" + sName),
          m_sText("# HELP " + m_sName + " " + sHelp + ".\n# TYPE " + m_sName + " " + pcType) {
        m_sText += '\n';
    }
    Metric& Add(const std::string& sLabels, const std::string& sValue, const char* pcSuffix = "") {
        m_sText += m_sName + pcSuffix + (sLabels.empty() ? "" : "{" + sLabels + "}") + " " + sValue + "\n";
        return *this;
    }
    Metric& Add(const std::string& sLabels, std::uint64_t n, const char* pcSuffix = "") {
        return Add(sLabels, std::to_string(n), pcSuffix);
    }
    const std::string& Get() const { return m_sText; }

private:
    std::string m_sName;
    std::string m_sText;
};

std::string Labels(const Procedure& procedure) {
    return Label("program", procedure.pcProgram) + "," + Label("procedure", procedure.pcProcedure);
}

std::string ShowServer(const ServerStatistics& statistics) {
    return Metric("info", "gauge", "The server, by its version and the name in its log lines")
               .Add(Label("version", statistics.sVersion) + "," + Label("id", statistics.sID), std::uint64_t{1})
               .Get() +
           Metric("serving", "gauge", "Whether NFS is served").Add("", std::uint64_t{statistics.bServing}).Get() +
           Metric("figures_time_seconds", "gauge", "When these figures were taken, in seconds since 1970")
               .Add("", std::to_string(statistics.iTime))
               .Get() +
           Metric("start_time_seconds", "gauge", "When serving began, in seconds since 1970; 0 if it never did")
               .Add("", std::to_string(statistics.iBegin))
               .Get() +
           Metric("uptime_seconds", "gauge", "How long it has been served")
               .Add("", ShowSeconds(static_cast<std::uint64_t>(statistics.upTime.count())))
               .Get();
}

std::string ShowConnections(const ServerStatistics& statistics) {
    Metric used("connections", "gauge", "Connections in use");
    Metric limit("connections_limit", "gauge", "Connections served at a time; one more ends the program");
    Metric most("connections_most", "gauge", "Connections that were in use at the same time");
    Metric accepted("connections_accepted_total", "counter", "Connections accepted");
    for (const ServerStatistics::Connections& port : statistics.vConnections) {
        const std::string sLabel = Label("program", port.pcProgram);
        used.Add(sLabel, std::to_string(port.figures.nUsed));
        limit.Add(sLabel, std::to_string(port.nLimit));
        most.Add(sLabel, std::to_string(port.figures.nMost));
        accepted.Add(sLabel, port.figures.nAccepted);
    }
    return used.Get() + limit.Get() + most.Get() + accepted.Get();
}

std::string ShowCounters(const ServerStatistics& statistics) {
    Metric calls("calls_total", "counter", "Calls executed");
    Metric errors("call_errors_total", "counter", "Calls refused, or answered with a status other than 0");
    Metric received("received_bytes_total", "counter", "Bytes of executed calls, record marks included");
    Metric sent("sent_bytes_total", "counter", "Bytes of the replies to executed calls, record marks included");
    for (const Procedure& procedure : statistics.vProcedures) {
        const std::string sLabels = Labels(procedure);
        calls.Add(sLabels, procedure.latency.nCalls);
        errors.Add(sLabels, procedure.nErrors);
        received.Add(sLabels, procedure.nBytesIn);
        sent.Add(sLabels, procedure.nBytesOut);
    }
    return calls.Get() + errors.Get() + received.Get() + sent.Get();
}

void AddHistogram(Metric& metric, const Procedure& procedure) {
    const std::string sLabels = Labels(procedure);
    const LatencyFigures& latency = procedure.latency;
    for (unsigned int i = kFirstBucketBits; i <= kLastBucketBits; ++i) {
        const std::uint64_t lEnd = std::uint64_t{1} << i;
        metric.Add(sLabels + "," + Label("le", ShowSeconds(lEnd)), latency.CountUpTo(lEnd), "_bucket");
    }
    metric.Add(sLabels + "," + Label("le", "+Inf"), latency.nCalls, "_bucket")
        .Add(sLabels, ShowSeconds(latency.lSum), "_sum")
        .Add(sLabels, latency.nCalls, "_count");
}

/// Only of procedures that were called: others would be many lines of zeros.
std::string ShowTimes(const ServerStatistics& statistics) {
    Metric times("call_duration_seconds", "histogram", "Time in which calls were executed");
    Metric longest("longest_call_seconds", "gauge", "The longest time in which a call was executed");
    for (const Procedure& procedure : statistics.vProcedures) {
        if (procedure.latency.nCalls > 0) {
            AddHistogram(times, procedure);
            longest.Add(Labels(procedure), ShowSeconds(procedure.latency.lMax));
        }
    }
    return times.Get() + longest.Get();
}

std::string ShowAnswers(const ServerStatistics& statistics) {
    Metric answers("host_answers_total", "counter", "Answers of hosts to what clients did to redirected files");
    Metric questions("host_questions", "gauge", "Hosts that are asked, and have not answered yet");
    for (const CHostAnswers::Figures& kind : statistics.registries.vAnswers) {
        const std::string sKind = Label("kind", kind.pcKind);
        answers.Add(sKind + "," + Label("answer", "granted"), kind.nGranted)
            .Add(sKind + "," + Label("answer", "refused"), kind.nRefused)
            .Add(sKind + "," + Label("answer", "none"), kind.nUnanswered);
        questions.Add(sKind, kind.nUnderWay);
    }
    return answers.Get() + questions.Get();
}

std::string ShowSizes(const ServerStatistics& statistics) {
    std::string sText = Metric("repeated_datagrams_total", "counter", "Datagrams that were answered with a kept reply")
                            .Add("", statistics.keptReplies.nRepeated)
                            .Get();
    for (const StatisticsSize& size : GetStatisticsSizes(statistics)) {
        sText += Metric(size.pcName, "gauge", size.pcExplanation).Add("", size.nValue).Get();
    }
    return sText;
}

}  // namespace

std::string ShowPrometheus(const ServerStatistics& statistics) {
    return ShowServer(statistics) + ShowConnections(statistics) + ShowCounters(statistics) + ShowTimes(statistics) +
           ShowAnswers(statistics) + ShowSizes(statistics);
}
