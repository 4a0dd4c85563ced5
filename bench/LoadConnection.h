// One TCP connection with a number of calls in flight.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sys/uio.h>

#include "LoadShape.h"
#include "Row.h"

/// Runs operations of one row and judges their replies, which may come in any order: other servers than ours answer
/// calls side by side. Calls that are due at the same time leave in one send, so that the load costs as little as it
/// can and the servers' work shows.
class LoadConnection {
public:
    using Clock = std::chrono::steady_clock;

    /// The row and the folder outlive the connection; the socket is taken over. The number tells it from others of the
    /// same session: offsets and names differ by it. As many calls are in flight as
    /// the shape says.
    LoadConnection(int iSocket, const Row& row, const LoadFolder& folder, int iNumber, const LoadShape& shape);
    ~LoadConnection();
    LoadConnection(const LoadConnection&) = delete;
    LoadConnection& operator=(const LoadConnection&) = delete;

    int GetSocket() const { return m_iSocket; }
    bool IsIdle() const { return m_nInFlight == 0; }
    /// Begins an operation in every slot; what they write is of this generation. The blocks they write are marked.
    void Begin(std::uint32_t iGeneration, std::vector<bool>* pvbWritten);
    /// Receives once, judges every whole reply, and begins a new operation for each that ended, unless it is later
    /// than the deadline. Appends the latencies in nanoseconds and returns the time of the receive. Throws WrongReply,
    /// or std::runtime_error when the server closes or says nothing any more.
    Clock::time_point Receive(Clock::time_point deadline, std::vector<std::uint32_t>* pvLatencies);

private:
    struct Slot {
        std::vector<std::string> vsCalls;  ///< one of each kind, filled in for this slot
        std::size_t iOperation = 0;
        std::size_t iStep = 0;
        std::uint32_t iXid = 0;
        std::uint64_t iOffset = 0;
        bool bInFlight = false;
        Clock::time_point start;
    };

    const CallKind& KindOf(const Slot& slot) const;
    std::uint64_t NextOffset(const CallKind& kind);
    void BeginOperation(std::size_t iSlot, Clock::time_point now);
    /// Makes the call of the operation's present step; it leaves with Flush.
    void QueueCall(std::size_t iSlot);
    void Flush();
    /// The slot whose call a reply answers; throws WrongReply.
    std::size_t FindSlot(std::string_view sReply) const;
    void TakeReply(std::string_view sReply, Clock::time_point now, Clock::time_point deadline,
                   std::vector<std::uint32_t>* pvLatencies);

    int m_iSocket;
    const Row& m_Row;
    const LoadFolder& m_Folder;
    bool m_bSingly;
    std::vector<Slot> m_vSlots;
    std::vector<iovec> m_vQueued;
    std::vector<char> m_vcReceived;
    std::vector<bool>* m_pvbWritten = nullptr;
    std::size_t m_nReceived = 0;
    std::size_t m_nInFlight = 0;
    std::size_t m_iNextOperation = 0;
    std::uint64_t m_iBlock;
    std::uint64_t m_iRandom;
    std::uint32_t m_iGeneration = 0;
    std::uint32_t m_nCalls = 0;
};
