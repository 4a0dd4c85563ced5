// What came of the rounds of one row.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "LoadSession.h"

/// The middle of some figures, and the bounds of their inner half.
struct Spread {
    double dLower = 0;
    double dMedian = 0;
    double dUpper = 0;
};

/// The spread of figures in any order; zeros if there are none.
Spread SpreadOf(std::vector<double> vdFigures);

/// All rounds of one row at one server.
struct Measurement {
    std::string sServer;
    bool bBare = false;
    std::vector<Round> vRounds;
    std::vector<std::uint32_t> vLatencies;  ///< of all rounds, nanoseconds

    void SortLatencies();
    /// Operations per second: the median round.
    double Median() const;
    double Best() const;
    /// After SortLatencies: in microseconds, over the operations of all rounds; the fraction is at most 1.
    double Percentile(double dFraction) const;
    /// Round by round the speed as a share of another server's in the same round, which the same neighbours on the
    /// machine disturbed.
    Spread ShareOf(const Measurement& other) const;
};
