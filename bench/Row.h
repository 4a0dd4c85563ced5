// The rows of the measurement: what one operation calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CallKind.h"

/// One row. An operation is one call, or calls of which each waits for the reply to the one before it; the operations
/// of a row follow one another in a fixed order.
struct Row {
    std::string sName;
    std::vector<CallKind> vKinds;                       ///< at most kMostBareKinds
    std::vector<std::vector<std::size_t>> vOperations;  ///< each a chain of kinds
    std::vector<std::size_t> vOrder;                    ///< operations, over and over

    /// File bytes that an operation moves, on the average.
    double BytesPerOperation() const;
};

/// All rows, in the order of the report, for a server that gave these handles. The folder outlives them.
std::vector<Row> MakeRows(const Handles& handles, const LoadFolder& folder);
