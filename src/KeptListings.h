// CKeptListings: the listings that clients are in the middle of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Listing.h"
#include "NameList.h"
#include "ThreadAnnotations.h"

/// Keeps the names of directories from call to call, for each client and directory, so that a listing goes on over
/// what it began with and costs one reading of the directory instead of one for every reply.
///
/// A call with cookie 0 brings a new reading. While another walk over the same directory waits to go on, both share one
/// listing (see CListing): a client's processes may list side by side, and its kernel may begin again in the middle of
/// a walk, without a cookie ever meaning two things. Only when all walks have come to the end, or have waited for
/// kWalkIdle, does a new listing begin, with positions from 1 in the host's order. The old one stays for a while, for a
/// call that goes on from a position that the new one has not handed out yet.
///
/// A call with another cookie goes on in the youngest listing where a walk waits at that position; else in the youngest
/// that has handed that position out (its reply was lost, say, or the client seeks).
///
/// All listings together occupy at most kMaxMemory. For a new one, those go that have come to the end, then those
/// that were not used for kInUse, the longest unused first; if that does not suffice, the new one is not kept, and
/// those in progress stay exact. Where nothing is kept, a call reads the directory and passes over as many entries as
/// its cookie says. Memory of idle listings is given back by the next call.
///
/// Thread-safe: its mutex is held while the entries of one reply are looked at. Nothing else is taken under it, and no
/// log line goes out.
class CKeptListings {
public:
    using Time = CListing::Time;
    using Duration = CListing::Duration;

    /// About 2.5 million names of 20 bytes.
    static constexpr std::size_t kMaxMemory = std::size_t{64} << 20U;
    /// A client that copies what it lists may be busy for long before it asks for more.
    static constexpr Duration kWalkIdle = std::chrono::minutes(10);
    /// A client may have listed ahead of what its user has seen, and ask for the last entries once more.
    static constexpr Duration kEndedIdle = std::chrono::minutes(1);
    /// Between two calls of a client that does nothing but list.
    static constexpr Duration kInUse = std::chrono::seconds(2);

    enum class Outcome {
        kMore,      ///< as many entries as fit; whether more follow was not looked for
        kEnd,       ///< the entries end here
        kReadFirst  ///< call again with the names in the directory now
    };

    /// The directory as a client lists it: what is kept is found by all of it.
    struct Key {
        std::string sClient;  ///< its address
        std::string sPath;
        std::uint64_t iDevice = 0;
        std::uint64_t iInode = 0;  ///< another one under the same path is another directory
    };

    explicit CKeptListings(std::size_t nMaxMemory = kMaxMemory) : m_nMaxMemory(nMaxMemory) {}

    /// Finds the entries behind a cookie, at most as many as given. pRead, if given, holds the names just read, and is
    /// taken over; with it the outcome is not kReadFirst. A call with cookie 0 brings them always.
    Outcome Show(const Key& key, unsigned long lCookie, CNameList* pRead, std::size_t nMost, const EntryLook& look,
                 Time now, std::vector<ListedEntry>* pvEntries);

    /// The bytes that all listings occupy.
    std::size_t GetMemory() const;
    /// The number of listings kept.
    std::size_t GetCount() const;
    std::size_t GetMaxMemory() const { return m_nMaxMemory; }

private:
    struct Kept {
        std::string sKey;
        CListing listing;
        std::uint64_t lSerial = 0;  ///< the youngest has the highest
        Time lastUse;
        std::size_t nMemory = 0;
        bool bEnded = false;  ///< which of the two lists it stands in
    };
    using Order = std::list<Kept>;
    /// For one client and directory; more than that many are left over from walks that nobody goes on with.
    static constexpr std::size_t kMaxListingsOfKey = 4;

    static std::string JoinKey(const Key& key);
    std::optional<Order::iterator> Find(const std::string& sKey, unsigned long lCookie, Time now) REQUIRES(m_hMutex);
    void Insert(Order* pFresh) REQUIRES(m_hMutex);
    void Update(Order::iterator itKept, Time now) REQUIRES(m_hMutex);
    Order& GetOrder(const Kept& kept) REQUIRES(m_hMutex);
    void FreeIdle(Time now) REQUIRES(m_hMutex);
    void MakeRoom(Order::iterator itNewest, Time now) REQUIRES(m_hMutex);
    void Erase(Order::iterator itKept) REQUIRES(m_hMutex);

    const std::size_t m_nMaxMemory;
    mutable Mutex m_hMutex;
    // Both with the longest unused first.
    Order m_Walked GUARDED_BY(m_hMutex);  ///< walks wait in them
    Order m_Ended GUARDED_BY(m_hMutex);   ///< all walks have come to the end
    std::unordered_multimap<std::string, Order::iterator> m_mByKey GUARDED_BY(m_hMutex);
    std::size_t m_nMemory GUARDED_BY(m_hMutex) = 0;
    std::uint64_t m_lNextSerial GUARDED_BY(m_hMutex) = 0;
};
