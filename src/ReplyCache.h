// CReplyCache: replies to datagrams whose repetition must not be executed again.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <string>
#include <string_view>

/// The latest replies of one UDP port to calls that change something. A client that misses a reply sends the same
/// datagram once more; executed again, a MNT would be refused as its own rival and a REMOVE would find nothing.
///
/// A reply is found again by the sender's address and port and every byte of the datagram (the XID is among them). The
/// oldest replies give way when there are too many or when they have not been asked for in kLifetime.
///
/// Invariant: m_Replies is in order of last use, the oldest first, and m_nBytes counts what the entries hold.
/// Not locked: its owner's mutex guards it. The time is the caller's, so that tests need not wait.
class CReplyCache {
public:
    using Clock = std::chrono::steady_clock;

    /// As many calls as one client has under way at a time, with ease (NFS clients: 16 to 128 slots).
    static constexpr std::size_t kMaxReplies = 128;
    /// Datagrams and replies together. Ample for 128 WRITEs of 16 KiB; larger datagrams are rare.
    static constexpr std::size_t kMaxBytes = std::size_t{4} << 20U;
    /// Clients repeat after one to three seconds at first. Later on an equal datagram is a call of its own.
    static constexpr std::chrono::seconds kLifetime{6};

    /// Where a datagram came from, and its bytes. Refers to them only.
    struct Datagram {
        std::string_view sAddress;
        int iPort;
        std::string_view sBytes;
    };

    /// The reply that an equal datagram got, or null. The pointer holds until the next operation.
    const std::string* Find(const Datagram& datagram, Clock::time_point now);
    /// Keeps a copy of datagram and reply, unless there is no memory for them or they alone are more than kMaxBytes.
    void Add(const Datagram& datagram, std::string_view sReply, Clock::time_point now) noexcept;

    std::size_t GetCount() const { return m_Replies.size(); }
    std::size_t GetBytes() const { return m_nBytes; }

private:
    struct Entry {
        std::string sAddress;
        int iPort;
        std::string sBytes;
        std::string sReply;
        Clock::time_point lastUse;
    };

    static std::size_t GetBytes(const Entry& entry) { return entry.sBytes.size() + entry.sReply.size(); }
    void DropOldest();
    void DropExpired(Clock::time_point now);

    std::list<Entry> m_Replies;
    std::size_t m_nBytes = 0;
};
