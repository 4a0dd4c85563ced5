// The file IDs behind NFS file handles, and the paths they stand for.
#include "FileTable.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Limits.h"

std::optional<FileItem> CFileTable::AddItem(const char* pcPath) {
    if (pcPath == nullptr) {
        return std::nullopt;
    }
    return FileItem{pcPath, Add(pcPath)};
}

std::optional<FileItem> CFileTable::FindItemByPath(const char* pcPath) {
    const unsigned int iID = Find(pcPath);
    if (iID == kNoFileID) {
        return std::nullopt;
    }
    return FileItem{pcPath, iID};
}

bool CFileTable::IsMatchItem(const FileItem* pItem, const char* pcPath, std::size_t nLength) {
    return pItem != nullptr && pcPath != nullptr && pItem->sPath.size() == nLength &&
           std::memcmp(pItem->sPath.data(), pcPath, nLength) == 0;
}

std::optional<FileItem> CFileTable::GetItemByID(unsigned int iID) {
    if (!IsKnown(iID)) {
        return std::nullopt;
    }
    return FileItem{m_Tree.GetPath(GetPlace(iID)), iID};
}

unsigned int CFileTable::GetIDByPath(const char* pcPath) {
    const unsigned int iID = Find(pcPath);
    return iID == kNoFileID && pcPath != nullptr ? Add(pcPath) : iID;
}

bool CFileTable::GetPathByID(unsigned int iID, char* pcPath, unsigned int iSize) {
    if (!IsKnown(iID) || pcPath == nullptr) {
        return IsKnown(iID);
    }
    return m_Tree.CopyPath(GetPlace(iID), pcPath, iSize);
}

bool CFileTable::UpdateItemPath(const char* pcPathOld, const char* pcPathNew) {
    if (pcPathOld == nullptr || pcPathNew == nullptr) {
        return false;
    }
    const bool bFound = Find(pcPathOld) != kNoFileID;
    if (std::strcmp(pcPathOld, pcPathNew) == 0) {
        return bFound;
    }
    // What carries the path itself is taken out before anything is moved: the new path may be one below the old one.
    const CPathTree::Tenant iLeader = m_Tree.TakeTenant(pcPathOld);
    if (bFound) {
        m_vvTable[iLeader] = kLeadsNowhere;
    }
    m_Tree.MoveBelow(pcPathOld, pcPathNew,
                     [this](CPathTree::Tenant iTenant, CPathTree::Place iPlace) { Settle(iTenant, iPlace); });
    if (bFound) {
        Settle(iLeader, m_Tree.FindOrAdd(pcPathNew));
    }
    return bFound;
}

void CFileTable::Clear() {
    m_Tree.Clear();
    m_vvTable.clear();
    m_vCache.clear();
    m_mHitsByLeader.clear();
}

// ---- Items

unsigned int CFileTable::Add(const char* pcPath) {
    const auto iID = static_cast<unsigned int>(m_vvTable.size());
    m_vvTable.push_back(kLeadsNowhere);
    Settle(iID, m_Tree.FindOrAdd(pcPath));
    return iID;
}

unsigned int CFileTable::Find(const char* pcPath) {
    const CPathTree::Tenant iLeader = pcPath == nullptr ? CPathTree::kNobody : m_Tree.GetTenant(m_Tree.Find(pcPath));
    if (iLeader == CPathTree::kNobody) {
        return kNoFileID;
    }
    const auto itHits = m_mHitsByLeader.find(iLeader);
    if (itHits != m_mHitsByLeader.end()) {
        return itHits->second.front().iID;
    }
    RememberHit(iLeader);
    return iLeader;
}

/// Halves the way for those who come after.
unsigned int CFileTable::GetLeader(unsigned int iID) {
    while ((m_vvTable[iID] & kLeads) == 0) {
        const std::uint32_t iNext = m_vvTable[iID];
        if ((m_vvTable[iNext] & kLeads) == 0) {
            m_vvTable[iID] = m_vvTable[iNext];
        }
        iID = iNext;
    }
    return iID;
}

/// Gives an item, and all that follow it, the path of a place, together with the items that carry it already.
void CFileTable::Settle(unsigned int iLeader, CPathTree::Place iPlace) {
    const CPathTree::Tenant iMet = m_Tree.GetTenant(iPlace);
    if (iMet != CPathTree::kNobody) {
        Follow(std::max(iLeader, iMet), std::min(iLeader, iMet));
        iLeader = std::min(iLeader, iMet);
    }
    m_vvTable[iLeader] = iPlace | kLeads;
    m_Tree.SetTenant(iPlace, iLeader);
}

void CFileTable::Follow(unsigned int iFollower, unsigned int iLeader) {
    const auto itFollower = m_mHitsByLeader.find(iFollower);
    const auto itLeader = m_mHitsByLeader.find(iLeader);
    if (itFollower != m_mHitsByLeader.end() && itLeader != m_mHitsByLeader.end()) {
        JoinHits(itLeader->second, itFollower->second);
        m_mHitsByLeader.erase(itFollower);
    } else if (itFollower != m_mHitsByLeader.end()) {
        auto hits = m_mHitsByLeader.extract(itFollower);
        hits.key() = iLeader;
        m_mHitsByLeader.insert(std::move(hits));
    }
    m_vvTable[iFollower] = iLeader;
}

// ---- Recent hits

/// Those that join are mostly the younger ones.
void CFileTable::JoinHits(RecentHits& vHits, const RecentHits& vJoining) {
    const bool bYounger = vHits.back().iAge < vJoining.front().iAge;
    const auto itJoined = vHits.insert(vHits.end(), vJoining.begin(), vJoining.end());
    if (!bYounger) {
        std::ranges::inplace_merge(vHits, itJoined, {}, &RecentHit::iAge);
    }
}

/// Appends a leader to the recent hits. None of the items that carry its path is among them.
void CFileTable::RememberHit(unsigned int iLeader) {
    if (m_vCache.size() >= kMaxRecentHits) {
        for (std::size_t nExceeding = m_vCache.size() / 10; nExceeding > 0; --nExceeding) {
            ForgetOldestHit();
        }
    }
    m_mHitsByLeader.emplace(iLeader, RecentHits{{m_iNextAge++, iLeader}});
    m_vCache.push_back(iLeader);
}

/// The oldest hit of all is the oldest of its path, too.
void CFileTable::ForgetOldestHit() {
    const auto itHits = m_mHitsByLeader.find(GetLeader(m_vCache.front()));
    itHits->second.erase(itHits->second.begin());
    if (itHits->second.empty()) {
        m_mHitsByLeader.erase(itHits);
    }
    m_vCache.pop_front();
}
