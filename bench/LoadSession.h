// The connections over which one server is loaded with one row.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BareProtocol.h"
#include "LoadConnection.h"
#include "LoadShape.h"

/// What the bare server is told first: what to do for each kind of call, and the replies.
struct BareOpening {
    BareSetup setup;
    std::string sReplies;
};

/// One round of one row at one server.
struct Round {
    double dSeconds = 0;
    std::uint64_t nOperations = 0;  ///< those that ended within the round

    double OperationsPerSecond() const { return static_cast<double>(nOperations) / dSeconds; }
};

/// Connections that stay while a row is measured, so that no round pays for opening them.
class LoadSession {
public:
    /// Row and folder outlive the session. With an opening the server is the bare one. Throws std::runtime_error.
    LoadSession(int iPort, const Row& row, const LoadFolder& folder, const LoadShape& shape, const BareOpening* pBare);

    /// Loads the server for this time; appends the latencies in nanoseconds. All replies are judged, those that come
    /// after the round's end too, and what was written is looked for in the file. Throws WrongReply or
    /// std::runtime_error.
    Round Run(std::chrono::milliseconds time, std::vector<std::uint32_t>* pvLatencies);

private:
    /// Receives from every connection that has something.
    LoadConnection::Clock::time_point ReceiveAny(LoadConnection::Clock::time_point deadline,
                                                 std::vector<std::uint32_t>* pvLatencies);

    const LoadFolder& m_Folder;
    std::vector<std::unique_ptr<LoadConnection>> m_vpConnections;
};
