// Medians and percentiles.
#include "Measurement.h"

#include <algorithm>
#include <utility>

Spread SpreadOf(std::vector<double> vdFigures) {
    if (vdFigures.empty()) {
        return {};
    }
    std::sort(vdFigures.begin(), vdFigures.end());
    const auto at = [&vdFigures](double dFraction) {
        const double dPlace = dFraction * static_cast<double>(vdFigures.size() - 1);
        const auto i = static_cast<std::size_t>(dPlace);
        const double dNext = vdFigures[std::min(i + 1, vdFigures.size() - 1)];
        return vdFigures[i] + (dNext - vdFigures[i]) * (dPlace - static_cast<double>(i));
    };
    return {at(0.25), at(0.5), at(0.75)};
}

void Measurement::SortLatencies() {
    std::sort(vLatencies.begin(), vLatencies.end());
}

double Measurement::Median() const {
    std::vector<double> vdSpeeds;
    vdSpeeds.reserve(vRounds.size());
    for (const Round& round : vRounds) {
        vdSpeeds.push_back(round.OperationsPerSecond());
    }
    return SpreadOf(std::move(vdSpeeds)).dMedian;
}

double Measurement::Best() const {
    double dBest = 0;
    for (const Round& round : vRounds) {
        dBest = std::max(dBest, round.OperationsPerSecond());
    }
    return dBest;
}

double Measurement::Percentile(double dFraction) const {
    if (vLatencies.empty()) {
        return 0;
    }
    return vLatencies[static_cast<std::size_t>(dFraction * static_cast<double>(vLatencies.size() - 1))] / 1000.0;
}

Spread Measurement::ShareOf(const Measurement& other) const {
    std::vector<double> vdShares;
    for (std::size_t i = 0; i < std::min(vRounds.size(), other.vRounds.size()); ++i) {
        vdShares.push_back(vRounds[i].OperationsPerSecond() / other.vRounds[i].OperationsPerSecond());
    }
    return SpreadOf(std::move(vdShares));
}
