// CFileTable: the file IDs behind NFS file handles, and the paths they stand for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ChunkedArray.h"
#include "PathTree.h"

/// One known path and its ID.
struct FileItem {
    std::string sPath;  ///< canonical
    unsigned int iID;
};

/// Hands out 32-bit IDs to paths in the order in which they are first seen, and maps both ways in a time that does not
/// depend on how many there are, nor on how often a file was replaced by another one under its path.
///
/// Items are never removed one by one. Renames can leave several items with one path. Which of them a search finds is
/// defined by two walks: first the list of recent hits, oldest first, then all items in the order of their IDs; a hit
/// of the second walk is appended to the list. Instead of walking, the table keeps what the walks would find:
///
///  - Items with equal paths stay together for good, as a rename takes all of them along. The one of lowest ID leads
///    them: it is the tenant of the path's place in the tree. Each other one knows an item of lower ID among them.
///  - A search that finds a path among the recent hits does not append, so that an ID is listed at most once.
///  - Of items with equal paths, the oldest recent hit wins, else the leader.
///
/// Not thread-safe: the owner holds a mutex, for lookups too, since they change the list of recent hits.
class CFileTable {
public:
    /// The list of recent hits is trimmed, by a tenth, before it would exceed this.
    static constexpr std::size_t kMaxRecentHits = 1024;

    CFileTable() = default;
    CFileTable(const CFileTable&) = delete;
    CFileTable& operator=(const CFileTable&) = delete;

    /// Makes an item for a path, known or not; none for a null path.
    std::optional<FileItem> AddItem(const char* pcPath);
    /// None for a path that no item carries.
    std::optional<FileItem> FindItemByPath(const char* pcPath);
    static bool IsMatchItem(const FileItem* pItem, const char* pcPath, std::size_t nLength);
    /// None for an ID that was not given out; IDs of 0x80000000 and above never are.
    std::optional<FileItem> GetItemByID(unsigned int iID);
    /// The path's ID, given out now if it is new; kNoFileID for a null path.
    unsigned int GetIDByPath(const char* pcPath);
    /// Copies the path with its terminator. With a null buffer, tells only whether the ID is known; false also for
    /// a path that does not fit.
    bool GetPathByID(unsigned int iID, char* pcPath, unsigned int iSize);
    /// After a rename: items that carry the old path, and those below it, keep their IDs under the new one. False if
    /// no item carries the old path itself, or for null. Takes no longer for many items, but for what is known below
    /// both paths (CPathTree::MoveBelow).
    bool UpdateItemPath(const char* pcPathOld, const char* pcPathNew);
    void Clear();

    /// The IDs of the recent hits, oldest first.
    const std::deque<unsigned int>& GetRecentHits() const { return m_vCache; }
    /// The number of items.
    std::size_t GetSize() const { return m_vvTable.size(); }

private:
    /// A recent hit, with its place in time.
    struct RecentHit {
        std::uint64_t iAge;
        unsigned int iID;
    };
    /// Those that carry one path, oldest first.
    using RecentHits = std::vector<RecentHit>;

    bool IsKnown(unsigned int iID) const { return iID < kLeads && iID < m_vvTable.size(); }
    unsigned int Add(const char* pcPath);
    unsigned int Find(const char* pcPath);
    CPathTree::Place GetPlace(unsigned int iID) { return m_vvTable[GetLeader(iID)] & ~kLeads; }
    unsigned int GetLeader(unsigned int iID);
    void Settle(unsigned int iLeader, CPathTree::Place iPlace);
    void Follow(unsigned int iFollower, unsigned int iLeader);
    static void JoinHits(RecentHits& vHits, const RecentHits& vJoining);
    void RememberHit(unsigned int iLeader);
    void ForgetOldestHit();

    static constexpr std::uint32_t kLeads = 0x80000000U;
    /// A leader without path: until it has one, or for good if memory ran out before.
    static constexpr std::uint32_t kLeadsNowhere = kLeads | CPathTree::kTop;

    CPathTree m_Tree;
    CChunkedArray<std::uint32_t> m_vvTable;  ///< by ID: a leader's place and kLeads, or an item of lower ID
    std::deque<unsigned int> m_vCache;       ///< IDs of recent hits, oldest first
    std::unordered_map<unsigned int, RecentHits> m_mHitsByLeader;  ///< the same; none is empty
    std::uint64_t m_iNextAge = 0;
};
