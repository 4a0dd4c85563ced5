// What nfsload and bareserver agree on.
#pragma once

#include <cstdint>

/// What the bare server does for each call before it sends the reply.
enum class BareWork : std::uint32_t {
    kNothing = 0,
    kRead = 1,   ///< pread into the reply
    kWrite = 2,  ///< pwrite from the call
};

/// The first bytes on a connection to the bare server; the reply template (iReplySize bytes) follows. From then on
/// calls of one size arrive, back to back. All numbers in host order: both ends are on one machine.
struct BareSetup {
    BareWork work = BareWork::kNothing;
    std::uint32_t iCallSize = 0;
    std::uint32_t iReplySize = 0;
    std::uint32_t iOffsetAt = 0;  ///< where a call holds the file offset (64 bits, big-endian)
    std::uint32_t iDataAt = 0;    ///< where the data stands: in the reply (read) or in the call (write)
    std::uint32_t nData = 0;      ///< bytes read or written for each call
    char cPath[4096] = "";
};

/// Where the transaction ID stands in a call and in its reply, both with a record mark in front.
inline constexpr std::uint32_t kXidAt = 4;

/// Room for calls and replies in one direction of a connection, as in the NFS server.
inline constexpr std::uint32_t kBareBufferSize = 1U << 20U;
