// Keeping and finding replies to repeated datagrams.
#include "ReplyCache.h"

#include <algorithm>
#include <new>

const std::string* CReplyCache::Find(const Datagram& datagram, Clock::time_point now) {
    DropExpired(now);
    // Most entries differ in their first bytes, the XID: a walk is as good as an index.
    const auto found = std::find_if(m_Replies.begin(), m_Replies.end(), [&](const Entry& entry) {
        return entry.iPort == datagram.iPort && entry.sBytes == datagram.sBytes && entry.sAddress == datagram.sAddress;
    });
    if (found == m_Replies.end()) {
        return nullptr;
    }
    found->lastUse = now;
    m_Replies.splice(m_Replies.end(), m_Replies, found);
    return &m_Replies.back().sReply;
}

void CReplyCache::Add(const Datagram& datagram, std::string_view sReply, Clock::time_point now) noexcept {
    DropExpired(now);
    const std::size_t nBytes = datagram.sBytes.size() + sReply.size();
    if (nBytes > kMaxBytes) {
        return;
    }
    while (m_Replies.size() >= kMaxReplies || m_nBytes + nBytes > kMaxBytes) {
        DropOldest();
    }
    try {
        m_Replies.push_back(
            {std::string(datagram.sAddress), datagram.iPort, std::string(datagram.sBytes), std::string(sReply), now});
        m_nBytes += nBytes;
    } catch (const std::bad_alloc&) {  // the call has been answered: its repetition alone is worse off
    }
}

void CReplyCache::DropOldest() {
    m_nBytes -= GetBytes(m_Replies.front());
    m_Replies.pop_front();
}

void CReplyCache::DropExpired(Clock::time_point now) {
    while (!m_Replies.empty() && now - m_Replies.front().lastUse > kLifetime) {
        DropOldest();
    }
}
