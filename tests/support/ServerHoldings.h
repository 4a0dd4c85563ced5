// What a server process holds of the system, for tests that look for leaks.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

#include <sys/types.h>

/// The descriptors and threads of a process.
struct Holdings {
    std::vector<std::string> vsOpen;  ///< sorted: paths, and the kinds of what has none ("socket", "pipe")
    std::size_t nThreads = 0;

    /// True if there is nothing beyond another time's.
    bool IsWithin(const Holdings& other) const;
};

void PrintTo(const Holdings& holdings, std::ostream* pStream);

/// A process of which the test may read the descriptors. What closes during the look may be missing.
Holdings ReadHoldings(pid_t iProcess);

/// Fails the test if the process does not come down to what it held before within a few seconds: connections end, and
/// their threads with them, a moment after the client has gone.
void ExpectHoldingsWithin(pid_t iProcess, const Holdings& before);

/// Uses each place that the server on the usual ports has for connections. The descriptor of one that has ended is kept
/// until its place is needed: afterwards every place keeps one, however many were used before, so that holdings of
/// different times can be compared. The caller has no connection open. Throws std::runtime_error as RpcClient does.
void UseEachConnection();
