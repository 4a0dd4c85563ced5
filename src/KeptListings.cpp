// The listings that clients are in the middle of.
#include "KeptListings.h"

#include <utility>

namespace {

/// Of a listing's places in the lists and the map, roughly.
constexpr std::size_t kOverhead = 256;

}  // namespace

CKeptListings::Outcome CKeptListings::Show(const Key& key, unsigned long lCookie, CNameList* pRead, std::size_t nMost,
                                           const EntryLook& look, Time now, std::vector<ListedEntry>* pvEntries) {
    const std::string sKey = JoinKey(key);
    pvEntries->clear();
    const MutexLock lock(m_hMutex);
    FreeIdle(now);
    const std::optional<Order::iterator> itFound = Find(sKey, lCookie, now);
    if (!itFound && pRead == nullptr) {
        return Outcome::kReadFirst;
    }
    if (!itFound && lCookie > pRead->GetSize()) {
        return Outcome::kEnd;
    }
    Order fresh;
    if (itFound && pRead != nullptr) {
        (*itFound)->listing.Refresh(*pRead);
    } else if (!itFound) {
        fresh.push_back({sKey, CListing(std::move(*pRead), lCookie), ++m_lNextSerial, now});
    }
    const Order::iterator itListing = itFound.value_or(fresh.begin());
    const bool bMore = itListing->listing.Show(lCookie, nMost, look, pvEntries);
    if (!bMore && pRead == nullptr) {
        return Outcome::kReadFirst;  // for those that came meanwhile
    }
    itListing->listing.NoteReply(lCookie, bMore ? std::optional(pvEntries->back().lCookie) : std::nullopt, now);
    if (!itFound && !bMore) {
        return Outcome::kEnd;  // nobody goes on from here
    }
    if (!itFound) {
        Insert(&fresh);
    }
    Update(itListing, now);
    MakeRoom(itListing, now);
    return bMore ? Outcome::kMore : Outcome::kEnd;
}

std::size_t CKeptListings::GetMemory() const {
    const MutexLock lock(m_hMutex);
    return m_nMemory;
}

std::size_t CKeptListings::GetCount() const {
    const MutexLock lock(m_hMutex);
    return m_mByKey.size();
}

std::string CKeptListings::JoinKey(const Key& key) {
    return key.sClient + '\0' + std::to_string(key.iDevice) + ':' + std::to_string(key.iInode) + '\0' + key.sPath;
}

/// The listing that a call goes on in.
std::optional<CKeptListings::Order::iterator> CKeptListings::Find(const std::string& sKey, unsigned long lCookie,
                                                                  Time now) {
    std::optional<Order::iterator> itBest;
    bool bBestWaits = false;
    const auto [itFirst, itLast] = m_mByKey.equal_range(sKey);
    for (auto itKey = itFirst; itKey != itLast; ++itKey) {
        const Order::iterator itKept = itKey->second;
        CListing& listing = itKept->listing;
        const bool bWaits = lCookie == 0 ? listing.HasWalk(now, kWalkIdle) : listing.HasWalkAt(lCookie);
        const bool bFits = bWaits || (lCookie != 0 && lCookie <= listing.GetHandedOut());
        const bool bYounger = !itBest || itKept->lSerial > (*itBest)->lSerial;
        if (bFits && (bWaits == bBestWaits ? bYounger : bWaits)) {
            itBest = itKept;
            bBestWaits = bWaits;
        }
    }
    return itBest;
}

/// Takes over the listing of a list of one.
void CKeptListings::Insert(Order* pFresh) {
    const std::string& sKey = pFresh->front().sKey;
    if (m_mByKey.count(sKey) >= kMaxListingsOfKey) {
        const auto [itFirst, itLast] = m_mByKey.equal_range(sKey);
        auto itOldest = itFirst;
        for (auto itKey = itFirst; itKey != itLast; ++itKey) {
            itOldest = itKey->second->lSerial < itOldest->second->lSerial ? itKey : itOldest;
        }
        Erase(itOldest->second);
    }
    m_mByKey.emplace(sKey, pFresh->begin());
    m_Walked.splice(m_Walked.end(), *pFresh);
}

/// Makes the listing the last one used, counts its memory anew and puts it where it belongs.
void CKeptListings::Update(Order::iterator itKept, Time now) {
    const std::size_t nMemory = itKept->listing.GetMemory() + 2 * itKept->sKey.size() + kOverhead;
    m_nMemory = m_nMemory - itKept->nMemory + nMemory;
    itKept->nMemory = nMemory;
    itKept->lastUse = now;
    Order& before = GetOrder(*itKept);
    itKept->bEnded = !itKept->listing.HasWalk(now, kWalkIdle);
    Order& after = GetOrder(*itKept);
    after.splice(after.end(), before, itKept);
}

CKeptListings::Order& CKeptListings::GetOrder(const Kept& kept) {
    return kept.bEnded ? m_Ended : m_Walked;
}

void CKeptListings::FreeIdle(Time now) {
    while (!m_Ended.empty() && now - m_Ended.front().lastUse >= kEndedIdle) {
        Erase(m_Ended.begin());
    }
    while (!m_Walked.empty() && now - m_Walked.front().lastUse >= kWalkIdle) {
        Erase(m_Walked.begin());
    }
}

/// Frees listings until the rest fits, the newest last of all.
void CKeptListings::MakeRoom(Order::iterator itNewest, Time now) {
    while (m_nMemory > m_nMaxMemory) {
        if (!m_Ended.empty() && m_Ended.begin() != itNewest) {
            Erase(m_Ended.begin());
        } else if (!m_Walked.empty() && m_Walked.begin() != itNewest && now - m_Walked.front().lastUse >= kInUse) {
            Erase(m_Walked.begin());
        } else {
            Erase(itNewest);
            return;
        }
    }
}

void CKeptListings::Erase(Order::iterator itKept) {
    m_nMemory -= itKept->nMemory;
    const auto [itFirst, itLast] = m_mByKey.equal_range(itKept->sKey);
    for (auto itKey = itFirst; itKey != itLast; ++itKey) {
        if (itKey->second == itKept) {
            m_mByKey.erase(itKey);
            break;
        }
    }
    GetOrder(*itKept).erase(itKept);
}
