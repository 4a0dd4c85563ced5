// What nfsload and bareserver agree on.
#pragma once

#include <cstdint>

/// What the bare server does for a call before it sends the reply.
enum class BareWork : std::uint32_t {
    kNothing = 0,
    kRead = 1,    ///< pread into the reply
    kWrite = 2,   ///< pwrite from the call
    kCreate = 3,  ///< open with O_CREAT, close
    kRemove = 4,  ///< unlink
};

/// One kind of call on a connection. Its number stands in the first byte of the transaction ID.
struct BareKind {
    BareWork work = BareWork::kNothing;
    std::uint32_t iCallSize = 0;
    std::uint32_t iReplySize = 0;
    std::uint32_t iOffsetAt = 0;  ///< where a call holds the file offset (64 bits, big-endian)
    std::uint32_t iNameAt = 0;    ///< where it holds a name; at least one zero follows it
    std::uint32_t iDataAt = 0;    ///< where the data stands: in the reply (read) or in the call (write)
    std::uint32_t nData = 0;      ///< bytes read or written for each call
};

inline constexpr std::uint32_t kMostBareKinds = 8;

/// The first bytes on a connection to the bare server; a reply for each kind follows (iReplySize bytes). From then on
/// calls arrive, back to back. All numbers in host order: both ends are on one machine.
struct BareSetup {
    std::uint32_t nKinds = 0;
    BareKind kinds[kMostBareKinds];
    char cReadPath[4096] = "";
    char cWritePath[4096] = "";
    char cFolder[4096] = "";  ///< where names are created and removed
};

/// Where the transaction ID stands in a call and in its reply, both with a record mark in front.
inline constexpr std::uint32_t kXidAt = 4;

/// Room for calls in one direction of a connection, as in the NFS server.
inline constexpr std::uint32_t kBareBufferSize = 1U << 20U;
/// Replies to calls that came together leave together once there are so many bytes of them.
inline constexpr std::uint32_t kBareCollected = 256U << 10U;
