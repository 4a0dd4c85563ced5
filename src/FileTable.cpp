// The file IDs behind NFS file handles, and the paths they stand for.
#include "FileTable.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "Limits.h"
#include "Paths.h"

FileItem* CFileTable::AddItem(const char* pcPath) {
    if (pcPath == nullptr) {
        return nullptr;
    }
    if (m_vvTable.empty() || m_vvTable.back().size() == kChunkSize) {
        m_vvTable.emplace_back().reserve(kChunkSize);
    }
    std::vector<FileItem>& vChunk = m_vvTable.back();
    const auto iID = static_cast<unsigned int>((m_vvTable.size() - 1) * kChunkSize + vChunk.size());
    FileItem& item = vChunk.emplace_back(FileItem{pcPath, iID, iID});
    ++m_nItems;
    const auto itKnown = m_mEntryByPath.find(item.sPath);
    if (itKnown != m_mEntryByPath.end()) {
        JoinRings(itKnown->second->iLowestID, iID);
    } else {
        PathEntry& entry = m_mEntries.emplace(item.sPath, PathEntry{iID, {}}).first->second;
        m_mEntryByPath.emplace(item.sPath, &entry);
    }
    return &item;
}

FileItem* CFileTable::FindItemByPath(const char* pcPath) {
    if (pcPath == nullptr) {
        return nullptr;
    }
    const auto itEntry = m_mEntryByPath.find(pcPath);
    if (itEntry == m_mEntryByPath.end()) {
        return nullptr;
    }
    PathEntry& entry = *itEntry->second;
    if (entry.vRecentHits.empty()) {
        RememberHit(entry);
    }
    return &GetItem(entry.vRecentHits.front().iID);
}

bool CFileTable::IsMatchItem(const FileItem* pItem, const char* pcPath, std::size_t nLength) {
    return pItem != nullptr && pcPath != nullptr && pItem->sPath.size() == nLength &&
           std::memcmp(pItem->sPath.data(), pcPath, nLength) == 0;
}

FileItem* CFileTable::GetItemByID(unsigned int iID) {
    const unsigned int iChunk = iID / kChunkSize;
    const unsigned int iPlace = iID % kChunkSize;
    if (iID > 0x7FFFFFFFU || iChunk >= m_vvTable.size() || iPlace >= m_vvTable[iChunk].size()) {
        return nullptr;
    }
    return &m_vvTable[iChunk][iPlace];
}

unsigned int CFileTable::GetIDByPath(const char* pcPath) {
    FileItem* pItem = FindItemByPath(pcPath);
    if (pItem == nullptr) {
        pItem = AddItem(pcPath);
    }
    return pItem == nullptr ? kNoFileID : pItem->iID;
}

bool CFileTable::GetPathByID(unsigned int iID, char* pcPath, unsigned int iSize) {
    const FileItem* pItem = GetItemByID(iID);
    if (pItem == nullptr || pcPath == nullptr) {
        return pItem != nullptr;
    }
    if (iSize <= pItem->sPath.size()) {
        return false;
    }
    std::memcpy(pcPath, pItem->sPath.c_str(), pItem->sPath.size() + 1);
    return true;
}

bool CFileTable::UpdateItemPath(const char* pcPathOld, const char* pcPathNew) {
    if (pcPathOld == nullptr || pcPathNew == nullptr) {
        return false;
    }
    const bool bFound = FindItemByPath(pcPathOld) != nullptr;
    if (std::strcmp(pcPathOld, pcPathNew) == 0) {
        return bFound;
    }
    // Everything is taken out before anything is put back: a new path may be an old one of the same rename.
    std::vector<MovingEntry> vMoving;
    if (bFound) {
        vMoving.push_back(TakeOut(m_mEntries.find(pcPathOld), pcPathNew));
    }
    const std::string sPrefixOld = GetFolderPrefix(pcPathOld);
    const std::string sPrefixNew = GetFolderPrefix(pcPathNew);
    auto itEntry = sPrefixOld.empty() ? m_mEntries.end() : m_mEntries.lower_bound(sPrefixOld);
    while (itEntry != m_mEntries.end() && itEntry->first.starts_with(sPrefixOld)) {
        const auto itThis = itEntry++;
        vMoving.push_back(TakeOut(itThis, sPrefixNew + std::string(itThis->first.substr(sPrefixOld.size()))));
    }
    for (MovingEntry& moving : vMoving) {
        PutBack(std::move(moving));
    }
    return bFound;
}

void CFileTable::Clear() {
    m_mEntryByPath = {};
    m_mEntries.clear();
    m_vvTable.clear();
    m_vCache.clear();
    m_nItems = 0;
}

/// Appends an entry's item to the recent hits. None of the entry's items is among them.
void CFileTable::RememberHit(PathEntry& entry) {
    if (m_vCache.size() >= kMaxRecentHits) {
        for (std::size_t nExceeding = m_vCache.size() / 10; nExceeding > 0; --nExceeding) {
            ForgetOldestHit();
        }
    }
    m_vCache.push_back(entry.iLowestID);
    entry.vRecentHits.push_back({m_iNextAge++, entry.iLowestID});
}

/// The oldest hit of all is the oldest of its entry, too.
void CFileTable::ForgetOldestHit() {
    PathEntry& entry = *m_mEntryByPath.find(GetItem(m_vCache.front()).sPath)->second;
    entry.vRecentHits.erase(entry.vRecentHits.begin());
    m_vCache.pop_front();
}

/// Takes an entry out of both indexes, whose keys view the items' paths.
CFileTable::MovingEntry CFileTable::TakeOut(OrderedEntries::iterator itEntry, std::string sPathNew) {
    MovingEntry moving{std::move(sPathNew), std::move(itEntry->second)};
    m_mEntryByPath.erase(itEntry->first);
    m_mEntries.erase(itEntry);
    return moving;
}

/// Gives an entry's items the new path and files the entry under it, together with items that carry it already.
void CFileTable::PutBack(MovingEntry moving) {
    PathEntry& arriving = moving.entry;
    unsigned int iID = arriving.iLowestID;
    do {
        FileItem& item = GetItem(iID);
        item.sPath = moving.sPathNew;
        iID = item.iPeer;
    } while (iID != arriving.iLowestID);

    const auto itKnown = m_mEntryByPath.find(moving.sPathNew);
    if (itKnown == m_mEntryByPath.end()) {
        const std::string_view sKey = GetItem(arriving.iLowestID).sPath;
        PathEntry& entry = m_mEntries.emplace(sKey, std::move(arriving)).first->second;
        m_mEntryByPath.emplace(sKey, &entry);
        return;
    }
    PathEntry& entry = *itKnown->second;
    JoinRings(entry.iLowestID, arriving.iLowestID);
    entry.iLowestID = std::min(entry.iLowestID, arriving.iLowestID);
    std::vector<RecentHit> vHits;
    std::ranges::merge(entry.vRecentHits, arriving.vRecentHits, std::back_inserter(vHits), {}, &RecentHit::iAge,
                       &RecentHit::iAge);
    entry.vRecentHits = std::move(vHits);
}

/// Makes one ring of the rings of two items.
void CFileTable::JoinRings(unsigned int iID, unsigned int iOtherID) {
    std::swap(GetItem(iID).iPeer, GetItem(iOtherID).iPeer);
}
