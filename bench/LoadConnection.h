// One TCP connection with a number of calls in flight.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "Row.h"

/// Connects to a port on this machine; throws std::runtime_error.
int ConnectTo(int iPort);
/// Sends everything; throws std::runtime_error.
void SendAll(int iSocket, std::string_view sBytes);
/// Receives one record, mark included; throws std::runtime_error.
std::string ReceiveRecord(int iSocket);
/// Sends one call and receives its reply.
std::string Exchange(int iSocket, const std::string& sCall);

/// Sends calls of one row and judges their replies, which may come in any order: other servers than ours answer calls
/// side by side.
class LoadConnection {
public:
    using Clock = std::chrono::steady_clock;

    /// The row and the folder outlive the connection; the socket is taken over. Offsets go on from iFirstBlock.
    LoadConnection(int iSocket, const Row& row, const LoadFolder& folder, std::uint64_t iFirstBlock);
    ~LoadConnection();
    LoadConnection(const LoadConnection&) = delete;
    LoadConnection& operator=(const LoadConnection&) = delete;

    int GetSocket() const { return m_iSocket; }
    std::size_t GetInFlight() const { return m_Pending.size(); }
    void SendCall();
    /// Receives once and judges every whole reply; appends the latencies in nanoseconds. Returns their number.
    /// Throws WrongReply, or std::runtime_error when the server closes.
    std::size_t ReceiveReplies(std::vector<std::uint32_t>* pvLatencies);

private:
    struct Pending {
        std::uint32_t iXid;
        std::uint64_t iOffset;
        Clock::time_point start;
    };

    std::uint64_t NextOffset();
    /// The call in flight that a reply belongs to; throws WrongReply.
    std::deque<Pending>::iterator FindCall(std::string_view sReply);

    int m_iSocket;
    const Row& m_Row;
    const LoadFolder& m_Folder;
    std::string m_sCall;
    std::uint64_t m_iBlock;
    std::uint64_t m_iRandom;
    std::uint32_t m_iXid = 0;
    std::deque<Pending> m_Pending;
    std::vector<char> m_vcReceived;
    std::size_t m_nReceived = 0;
};
