// Figures for people and for other programs.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "LoadShape.h"
#include "Measurement.h"
#include "Row.h"

/// Prints what was measured, and appends it to a CSV file where one is named. The first of the measurements is the
/// server that ratios are told of; the others are told as shares of the bare one.
class Report {
public:
    /// An empty name: no file. Throws std::runtime_error if the file cannot be opened.
    explicit Report(const std::string& sCsv);
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void BeginShape(const LoadShape& shape) const;
    /// One row at all servers.
    void AddRow(const LoadShape& shape, const Row& row, const std::vector<Measurement>& vMeasurements) const;
    /// The listings of a folder at one server: entries per second, by round.
    void AddListing(const std::string& sServer, std::size_t nEntries, const std::vector<double>& vdSpeeds) const;

private:
    std::FILE* m_pCsv = nullptr;
};
