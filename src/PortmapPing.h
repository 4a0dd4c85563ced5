// CPortmapPing: whether the system portmapper answers at all (RFC 1833, RPCBPROC_NULL).
#pragma once

#include <chrono>

/// Makes the portmapper's procedure NULL be called where the ONC RPC library would send a registration, with a limit of
/// our own: the library waits a minute for each reply, and for a connection as long as the system tries. Any thread.
class CPortmapPing {
public:
    /// A start or a stop may wait this long, once: a stop is promised within three seconds. rpcbind answers in less
    /// than a millisecond, or has to be started by systemd first.
    static constexpr std::chrono::milliseconds kLimit{2500};

    /// True if a call would hang: the portmapper takes it and does not answer within the limit, or connecting to it
    /// comes to no end (all its backlog is taken, packets are dropped). False if there is an answer, whatever it says,
    /// and also if nobody is there or the connection is refused or closed: then the library's calls end at once too.
    static bool IsSilent(std::chrono::milliseconds limit = kLimit);
};
