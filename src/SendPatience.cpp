// What the system tells of a stream's peer.
#include "SendPatience.h"

#include <algorithm>

#include <linux/sockios.h>
#include <linux/tcp.h>  // in place of <netinet/tcp.h>, whose tcp_info knows of no window
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

CSendPatience::Clock::duration CSendPatience::Left() {
    const auto now = Clock::now();
    const int nUnacknowledged = GetUnacknowledged();
    if (!m_bStalled || nUnacknowledged < m_nUnacknowledged || IsNetworkToBlame()) {
        m_bStalled = true;
        m_nUnacknowledged = nUnacknowledged;
        m_End = now + m_Limit;
    }
    return std::max(m_End - now, Clock::duration::zero());
}

/// How many bytes the socket holds that have not arrived, as far as is known; 0 if it does not say.
int CSendPatience::GetUnacknowledged() const {
    int nBytes = 0;
    return ::ioctl(m_iSocket, SIOCOUTQ, &nBytes) == 0 ? nBytes : 0;
}

/// Nothing has come for so long, not even an answer to the questions that the system puts to a peer which takes
/// nothing: it does so after the time of a round trip, and then after twice the pause each time. Or the peer has room,
/// and what fits in there is on its way. A system that does not tell of windows leaves them 0.
bool CSendPatience::IsNetworkToBlame() const {
    tcp_info info{};
    socklen_t nSize = sizeof(info);
    if (::getsockopt(m_iSocket, IPPROTO_TCP, TCP_INFO, &info, &nSize) != 0) {
        return false;
    }
    return std::chrono::milliseconds(info.tcpi_last_ack_recv) >= m_Limit ||
           (info.tcpi_unacked > 0 && info.tcpi_snd_wnd > 0);
}
