// CCallStatistics: what the RPC server counts of calls, connections and repeated datagrams.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

#include "LatencyHistogram.h"

/// The counters of one run of a server: made when it starts, and read as long as somebody holds it.
///
/// Calls are executed one at a time under the RPC server's mutex, and counted by their thread under it; connections are
/// counted by their threads. Any thread reads at any time, without a lock: each figure is right, and one call may be in
/// some of them and not yet in others. Nothing here allocates but the reading.
class CCallStatistics {
public:
    /// A program that has a port.
    struct Program {
        unsigned int iNumber;
        const char* pcName;  ///< in lower case, as reports call it
    };
    static constexpr std::size_t kPrograms = 3;
    static const std::array<Program, kPrograms>& GetPrograms();

    /// The place of a procedure among all; what is no procedure of a program that has a port has kNowhere.
    static std::size_t FindPlace(unsigned int iProgram, unsigned int iVersion, unsigned int iProcedure);
    /// The procedures of all programs: 6, 22 and 6 that are named, and one for the others of each.
    static constexpr std::size_t kProcedures = 37;
    static constexpr std::size_t kNowhere = kProcedures;
    /// Do the procedure's results begin with a status that is 0 for success?
    static bool HasStatus(std::size_t iPlace);

    /// An executed call.
    struct Call {
        std::size_t iPlace = kNowhere;
        bool bError = false;             ///< refused by an accept status, or answered with a status other than 0
        std::uint64_t nBytesIn = 0;      ///< the call, with its record mark
        std::uint64_t nBytesOut = 0;     ///< the reply, likewise
        std::uint64_t lNanoseconds = 0;  ///< from when it was taken, complete, until its reply was encoded
    };
    /// By the thread that executed it, under the RPC server's mutex.
    void Count(const Call& call);

    /// What is known of one procedure.
    struct ProcedureFigures {
        const char* pcProgram;
        const char* pcProcedure;  ///< as the RFCs name it; "OTHER" for numbers and versions that they do not name
        std::uint64_t nErrors = 0;
        std::uint64_t nBytesIn = 0;
        std::uint64_t nBytesOut = 0;
        LatencyFigures latency;  ///< and the number of calls
    };
    /// All procedures, by program and number.
    std::vector<ProcedureFigures> ReadProcedures() const;

    // ---- Connections, by program number; by any thread

    /// Counts a connection as in use for as long as what is returned lives: null for a program without a port.
    static std::shared_ptr<void> CountConnection(const std::shared_ptr<CCallStatistics>& pStatistics,
                                                 unsigned long lProgId);
    struct ConnectionFigures {
        int nUsed = 0;                ///< now
        int nMost = 0;                ///< at the same time
        std::uint64_t nAccepted = 0;  ///< in all
    };
    ConnectionFigures ReadConnections(std::size_t iProgram) const;

    // ---- Replies kept for repeated datagrams, by program number; under the RPC server's mutex

    void NoteKeptReplies(unsigned long lProgId, std::size_t nReplies, std::size_t nBytes);
    void CountRepeated() { AddAlone(m_nRepeated, 1); }
    struct ReplyFigures {
        std::uint64_t nReplies = 0;   ///< kept now
        std::uint64_t nBytes = 0;     ///< that they and their calls occupy
        std::uint64_t nRepeated = 0;  ///< datagrams answered with one
    };
    ReplyFigures ReadKeptReplies() const;

    /// When the counters began.
    std::chrono::steady_clock::time_point GetBegin() const { return m_Begin; }
    std::time_t GetBeginTime() const { return m_iBeginTime; }

private:
    static constexpr std::size_t kCacheLine = 64;

    struct alignas(kCacheLine) Procedure {
        std::atomic<std::uint64_t> nErrors{0};
        std::atomic<std::uint64_t> nBytesIn{0};
        std::atomic<std::uint64_t> nBytesOut{0};
        CLatencyHistogram latency;
    };
    /// Changed by the threads of connections while others execute calls.
    struct alignas(kCacheLine) Connections {
        std::atomic<int> nUsed{0};
        std::atomic<int> nMost{0};
        std::atomic<std::uint64_t> nAccepted{0};
    };
    struct KeptReplies {
        std::atomic<std::uint64_t> nReplies{0};
        std::atomic<std::uint64_t> nBytes{0};
    };

    const std::chrono::steady_clock::time_point m_Begin = std::chrono::steady_clock::now();
    const std::time_t m_iBeginTime = std::time(nullptr);
    std::array<Procedure, kProcedures> m_vProcedures;
    std::array<Connections, kPrograms> m_vConnections;
    std::array<KeptReplies, kPrograms> m_vKeptReplies;
    std::atomic<std::uint64_t> m_nRepeated{0};
};
