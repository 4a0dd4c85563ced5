// CFileTable: the file IDs behind NFS file handles, and the paths they stand for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// One known path and its ID.
struct FileItem {
    std::string sPath;   ///< canonical
    unsigned int iID;    ///< for the item's life
    unsigned int iPeer;  ///< for CFileTable: the next item with the same path, around in a ring
};

/// Hands out 32-bit IDs to paths in the order in which they are first seen, and maps both ways in constant time.
///
/// An item's ID is its chunk times kChunkSize plus its place there; items are never removed one by one and never
/// move. Renames can leave several items with one path. Which of them a search finds is defined by two walks: first
/// the list of recent hits, oldest first, then all items in the order of their IDs; a hit of the second walk is
/// appended to the list. Instead of walking, the table keeps for every path what the walks would find:
///
///  - Items with equal paths stay together for good (a rename takes all of them along), as one PathEntry.
///  - A search that finds a path among the recent hits does not append, so that an ID is listed at most once.
///  - Of an entry's items, the recent hit of lowest age wins, else the item of lowest ID.
///
/// Not thread-safe: the owner holds a mutex, for lookups too, since they change the list of recent hits.
class CFileTable {
public:
    /// Items per chunk: growth never moves an item, and an ID splits by a shift.
    static constexpr unsigned int kChunkSize = 1024;
    /// The list of recent hits is trimmed, by a tenth, before it would exceed this.
    static constexpr std::size_t kMaxRecentHits = 1024;

    CFileTable() = default;
    CFileTable(const CFileTable&) = delete;
    CFileTable& operator=(const CFileTable&) = delete;

    /// Makes an item for a path, known or not; null for a null path. The pointer holds until Clear.
    FileItem* AddItem(const char* pcPath);
    /// Null for a path that no item carries.
    FileItem* FindItemByPath(const char* pcPath);
    static bool IsMatchItem(const FileItem* pItem, const char* pcPath, std::size_t nLength);
    /// Null for an ID that was not given out; IDs of 0x80000000 and above never are.
    FileItem* GetItemByID(unsigned int iID);
    /// The path's ID, given out now if it is new; kNoFileID for a null path.
    unsigned int GetIDByPath(const char* pcPath);
    /// Copies the path with its terminator. With a null buffer, tells only whether the ID is known; false also for
    /// a path that does not fit.
    bool GetPathByID(unsigned int iID, char* pcPath, unsigned int iSize);
    /// After a rename: items that carry the old path, and those below it, keep their IDs under the new one. False if
    /// no item carries the old path itself, or for null.
    bool UpdateItemPath(const char* pcPathOld, const char* pcPathNew);
    void Clear();

    /// The IDs of the recent hits, oldest first.
    const std::deque<unsigned int>& GetRecentHits() const { return m_vCache; }
    /// The number of items.
    std::size_t GetSize() const { return m_nItems; }

private:
    /// A recent hit, with its place in time.
    struct RecentHit {
        std::uint64_t iAge;
        unsigned int iID;
    };
    /// All items that carry one path.
    struct PathEntry {
        unsigned int iLowestID;
        std::vector<RecentHit> vRecentHits;  ///< those of them that are listed, oldest first
    };
    /// A path's entry on its way to another path.
    struct MovingEntry {
        std::string sPathNew;
        PathEntry entry;
    };
    // Keys view the path of an item of the entry: it stays where it is, and unchanged as long as the entry is.
    using OrderedEntries = std::map<std::string_view, PathEntry>;

    FileItem& GetItem(unsigned int iID) { return m_vvTable[iID / kChunkSize][iID % kChunkSize]; }
    void RememberHit(PathEntry& entry);
    void ForgetOldestHit();
    MovingEntry TakeOut(OrderedEntries::iterator itEntry, std::string sPathNew);
    void PutBack(MovingEntry moving);
    void JoinRings(unsigned int iID, unsigned int iOtherID);

    std::vector<std::vector<FileItem>> m_vvTable;
    std::deque<unsigned int> m_vCache;  ///< IDs of recent hits, oldest first
    std::size_t m_nItems = 0;
    std::uint64_t m_iNextAge = 0;

    OrderedEntries m_mEntries;                                        ///< by path; what lies below a folder is a range
    std::unordered_map<std::string_view, PathEntry*> m_mEntryByPath;  ///< the same, for lookups
};
