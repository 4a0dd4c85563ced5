// CPortmapPing: whether the system portmapper answers at all (RFC 1833, RPCBPROC_NULL).
#pragma once

#include <chrono>

/// Makes the portmapper's procedure NULL be called where the ONC RPC library would send a registration, with a limit of
/// our own: the library waits a minute for each reply, and for a connection as long as the system tries. Any thread.
class CPortmapPing {
public:
    /// rpcbind answers in less than a millisecond, unless it has to be started first, or be swapped in, on a busy
    /// machine: a start had better come late than not at all.
    static constexpr std::chrono::milliseconds kStartLimit{10000};
    /// A stop is promised within three seconds.
    static constexpr std::chrono::milliseconds kStopLimit{2500};

    /// True if a call would hang: the portmapper takes it and does not answer within the limit, or connecting to it
    /// comes to no end (all its backlog is taken, packets are dropped). False if there is an answer, whatever it says,
    /// and also if nobody is there or the connection is refused or closed: then the library's calls end at once too.
    static bool IsSilent(std::chrono::milliseconds limit);
};
