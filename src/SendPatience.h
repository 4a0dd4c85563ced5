// CSendPatience: how long a stream's peer may keep its replies waiting.
#pragma once

#include <chrono>

/// Watches one send on a stream, for as long as it stands still. The time runs out when the peer's system answers and
/// yet has no room for more: its program does not read. Each acknowledged byte begins it anew, and so does a network
/// that is to blame: one that brings no answer at all, or that has not brought the peer what it has room for. Whether
/// that still arrives is for the system to find out, which ends a connection on which nothing is acknowledged any more
/// (TCP_USER_TIMEOUT). One thread.
class CSendPatience {
public:
    using Clock = std::chrono::steady_clock;

    /// The stream socket is not owned.
    CSendPatience(int iSocket, std::chrono::seconds limit) : m_iSocket(iSocket), m_Limit(limit) {}

    /// The socket has taken something.
    void Renew() { m_bStalled = false; }
    /// To be asked, a few times a second, while the socket takes nothing: what is left, nothing if the time is over.
    Clock::duration Left();

private:
    int GetUnacknowledged() const;
    bool IsNetworkToBlame() const;

    const int m_iSocket;
    const std::chrono::seconds m_Limit;
    bool m_bStalled = false;
    int m_nUnacknowledged = 0;
    Clock::time_point m_End;
};
