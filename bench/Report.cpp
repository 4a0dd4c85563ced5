// A table on standard output, lines in a CSV file.
#include "Report.h"

#include <algorithm>
#include <stdexcept>

namespace {

/// A server that a speed can be compared with.
const Measurement* FindOther(const std::vector<Measurement>& vMeasurements, const Measurement& self, bool bBare) {
    for (const Measurement& other : vMeasurements) {
        if (&other != &self && other.bBare == bBare) {
            return &other;
        }
    }
    return nullptr;
}

/// Share and its spread, as three CSV fields, empty where there is nothing to compare with.
std::string CsvShare(const Measurement& self, const Measurement* pOther) {
    if (pOther == nullptr) {
        return ",,,";
    }
    const Spread share = self.ShareOf(*pOther);
    char vcFields[96];
    std::snprintf(vcFields, sizeof(vcFields), ",%.4f,%.4f,%.4f", share.dMedian, share.dLower, share.dUpper);
    return vcFields;
}

void PrintShare(const char* pcWhat, const Measurement& self, const Measurement* pOther) {
    if (pOther != nullptr) {
        const Spread share = self.ShareOf(*pOther);
        std::printf("   %.2f of %s (%.2f to %.2f)", share.dMedian, pcWhat, share.dLower, share.dUpper);
    }
}

}  // namespace

Report::Report(const std::string& sCsv) {
    if (sCsv.empty()) {
        return;
    }
    m_pCsv = std::fopen(sCsv.c_str(), "ae");
    if (m_pCsv == nullptr) {
        throw std::runtime_error("cannot write " + sCsv);
    }
    std::fseek(m_pCsv, 0, SEEK_END);
}

Report::~Report() {
    if (m_pCsv != nullptr) {
        std::fclose(m_pCsv);
    }
}

void Report::BeginShape(const LoadShape& shape) const {
    std::printf("\n%s: %d connection(s), %d call(s) in flight on each\n", shape.sName.c_str(), shape.nConnections,
                shape.nDepth);
    std::printf("%-13s %-8s %9s %9s %8s %8s %8s %8s %8s\n", "row", "server", "ops/s", "best", "MB/s", "p50 us",
                "p90 us", "p99 us", "max us");
    if (m_pCsv != nullptr && std::ftell(m_pCsv) == 0) {
        std::fprintf(m_pCsv,
                     "shape,connections,depth,row,server,rounds,ops_per_s,ops_per_s_best,mb_per_s,p50_us,p90_us,p99_us,"
                     "max_us,of_bare,of_bare_q1,of_bare_q3,of_rival,of_rival_q1,of_rival_q3\n");
    }
}

void Report::AddRow(const LoadShape& shape, const Row& row, const std::vector<Measurement>& vMeasurements) const {
    for (const Measurement& measurement : vMeasurements) {
        const double dSpeed = measurement.Median();
        const double dMegabytes = dSpeed * row.BytesPerOperation() / 1e6;
        const double dP50 = measurement.Percentile(0.5);
        const double dP90 = measurement.Percentile(0.9);
        const double dP99 = measurement.Percentile(0.99);
        const double dMost = measurement.Percentile(1);
        const Measurement* pBare = measurement.bBare ? nullptr : FindOther(vMeasurements, measurement, true);
        const bool bFirst = &measurement == &vMeasurements.front();
        const Measurement* pRival = bFirst ? FindOther(vMeasurements, measurement, false) : nullptr;
        std::printf("%-13s %-8s %9.0f %9.0f %8.1f %8.1f %8.1f %8.1f %8.1f", row.sName.c_str(),
                    measurement.sServer.c_str(), dSpeed, measurement.Best(), dMegabytes, dP50, dP90, dP99, dMost);
        PrintShare("bare", measurement, pBare);
        PrintShare(pRival != nullptr ? pRival->sServer.c_str() : "", measurement, pRival);
        std::printf("\n");
        if (m_pCsv != nullptr) {
            std::fprintf(m_pCsv, "%s,%d,%d,%s,%s,%zu,%.1f,%.1f,%.2f,%.2f,%.2f,%.2f,%.2f%s%s\n", shape.sName.c_str(),
                         shape.nConnections, shape.nDepth, row.sName.c_str(), measurement.sServer.c_str(),
                         measurement.vRounds.size(), dSpeed, measurement.Best(), dMegabytes, dP50, dP90, dP99, dMost,
                         CsvShare(measurement, pBare).c_str(), CsvShare(measurement, pRival).c_str());
        }
    }
    std::fflush(stdout);
}

void Report::AddListing(const std::string& sServer, std::size_t nEntries, const std::vector<double>& vdSpeeds) const {
    const Spread speed = SpreadOf(vdSpeeds);
    const double dBest = vdSpeeds.empty() ? 0 : *std::max_element(vdSpeeds.begin(), vdSpeeds.end());
    std::printf("READDIRPLUS of %zu entries, %-8s %9.0f entries/s, best %.0f\n", nEntries, sServer.c_str(),
                speed.dMedian, dBest);
    if (m_pCsv == nullptr) {
        return;
    }
    if (std::ftell(m_pCsv) == 0) {
        std::fprintf(m_pCsv, "entries,server,rounds,entries_per_s,entries_per_s_best\n");
    }
    std::fprintf(m_pCsv, "%zu,%s,%zu,%.1f,%.1f\n", nEntries, sServer.c_str(), vdSpeeds.size(), speed.dMedian, dBest);
}
