// The names of a directory while clients list it.
#include "Listing.h"

#include <algorithm>
#include <iterator>
#include <utility>

CListing::CListing(CNameList names, std::size_t nHandedOut)
    : m_Names(std::move(names)), m_nKept(nHandedOut), m_nHandedOut(nHandedOut), m_iPending(nHandedOut) {
    m_Names.ShrinkToFit();
}

bool CListing::Show(std::size_t iPosition, std::size_t nMost, const EntryLook& look,
                    std::vector<ListedEntry>* pvEntries) {
    const std::size_t nFull = pvEntries->size() + nMost;
    pvEntries->reserve(std::min(nFull, pvEntries->size() + m_Names.GetSize()));
    for (std::size_t i = FindPlaceBehind(iPosition); i < m_nKept && pvEntries->size() < nFull; ++i) {
        ShowPlace(i, GetPosition(i), look, pvEntries);
    }
    while (pvEntries->size() < nFull && m_iPending < m_Names.GetSize()) {
        HandOutNext(look, pvEntries);
    }
    return pvEntries->size() == nFull;
}

/// The first place whose entry has a higher position; m_nKept if there is none.
std::size_t CListing::FindPlaceBehind(std::size_t iPosition) const {
    if (IsGapless()) {
        return iPosition;
    }
    return static_cast<std::size_t>(std::ranges::upper_bound(m_vPositions, iPosition) - m_vPositions.begin());
}

/// False if the entry is gone.
bool CListing::ShowPlace(std::size_t iPlace, std::size_t iPosition, const EntryLook& look,
                         std::vector<ListedEntry>* pvEntries) const {
    const char* pcName = m_Names.GetName(iPlace);
    FoundStatus found;
    if (!look(pcName, &found)) {
        return false;
    }
    pvEntries->push_back({pcName, iPosition, std::move(found)});
    return true;
}

/// False if the next entry is gone: it gets no position.
bool CListing::HandOutNext(const EntryLook& look, std::vector<ListedEntry>* pvEntries) {
    m_Names.Copy(m_nKept, m_iPending++);
    if (!ShowPlace(m_nKept, m_nHandedOut + 1, look, pvEntries)) {
        return false;
    }
    if (!IsGapless()) {
        m_vPositions.push_back(m_nHandedOut + 1);
    }
    ++m_nKept;
    ++m_nHandedOut;
    return true;
}

// A name that was handed out and is not read any more is forgotten: should it come again, it is a new entry.
void CListing::Refresh(const CNameList& names) {
    const CNameIndex index(names);
    std::vector<bool> vbHandedOut(names.GetSize(), false);
    CNameList merged;
    std::vector<std::size_t> vPositions;
    vPositions.reserve(names.GetSize());  // as many as will be handed out
    for (std::size_t i = 0; i < m_nKept; ++i) {
        const std::size_t iPlace = index.Find(m_Names.GetName(i));
        if (iPlace != CNameIndex::kNowhere) {
            vbHandedOut[iPlace] = true;
            merged.Append(m_Names.GetName(i));
            vPositions.push_back(GetPosition(i));
        }
    }
    const std::size_t nKept = merged.GetSize();
    for (std::size_t i = 0; i < names.GetSize(); ++i) {
        if (!vbHandedOut[i]) {
            merged.Append(names.GetName(i));
        }
    }
    merged.ShrinkToFit();
    m_Names = std::move(merged);
    m_nKept = nKept;
    m_iPending = nKept;
    m_vPositions = IsGapless() ? std::vector<std::size_t>() : std::move(vPositions);
}

std::size_t CListing::GetMemory() const {
    return sizeof(*this) + m_Names.GetMemory() + m_vPositions.capacity() * sizeof(std::size_t) +
           m_vWalks.capacity() * sizeof(WaitingWalk);
}

// ---- Where walks stand

void CListing::NoteReply(std::size_t iFrom, std::optional<std::size_t> iTo, Time now) {
    // Of several, the one that came last: one that nobody goes on with is not to stay young through those that pass.
    const auto itWalk = std::find_if(m_vWalks.rbegin(), m_vWalks.rend(),
                                     [iFrom](const WaitingWalk& walk) { return walk.iPosition == iFrom; });
    if (itWalk != m_vWalks.rend()) {
        m_vWalks.erase(std::next(itWalk).base());
    }
    if (!iTo) {
        return;
    }
    if (m_vWalks.size() == kMaxWalks) {
        m_vWalks.erase(m_vWalks.begin());
    }
    m_vWalks.push_back({*iTo, now});
}

bool CListing::HasWalkAt(std::size_t iPosition) const {
    return std::ranges::find(m_vWalks, iPosition, &WaitingWalk::iPosition) != m_vWalks.end();
}

bool CListing::HasWalk(Time now, Duration idle) {
    const auto itFirst = std::ranges::find_if(m_vWalks, [&](const auto& walk) { return now - walk.since < idle; });
    m_vWalks.erase(m_vWalks.begin(), itFirst);
    return !m_vWalks.empty();
}
