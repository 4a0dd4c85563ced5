// Running one row and what came of it.
#pragma once

#include <cstdint>
#include <vector>

#include "Row.h"

/// How the calls of a row are made.
struct LoadShape {
    int nConnections = 1;
    int nDepth = 1;  ///< calls in flight on each connection
    std::uint64_t nOperations = 5000;
};

/// One run of one row.
struct Measurement {
    double dSeconds = 0;
    std::vector<std::uint32_t> vLatencies;  ///< nanoseconds, sorted

    double OperationsPerSecond() const { return static_cast<double>(vLatencies.size()) / dSeconds; }
    /// In microseconds; the fraction is at most 1.
    double Percentile(double dFraction) const;
};

/// Runs a row against a server. With a setup the server is the bare one and gets the setup and the reply first.
Measurement RunRow(int iPort, const Row& row, const LoadFolder& folder, const LoadShape& shape,
                   const BareSetup* pBareSetup, const std::string& sBareReply);
