// COpenedFiles: which paths the descriptor cache has open, and in which order they were used.
#pragma once

#include <cstddef>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "CachedFile.h"
#include "RegularFile.h"

/// One entry of the descriptor cache. An entry whose open failed holds no descriptor (-1) and is tried again.
struct OpenedFileInfo {
    CCachedFile iFile;
    std::string sTimeKey;  ///< the entry's key in the last-access index
    std::string sPath;
    std::time_t iLastAccess = 0;  ///< the time in that key; in each second the first use looks at the path
    FileIdentity identity;        ///< the file that is open
    bool bReadOnly = false;       ///< opened for reading alone
    bool bHost = false;           ///< used as a source or info file
};

/// The entries of the descriptor cache by path as given, and their paths by time of last use. It opens and closes
/// nothing, but that an entry's share of a descriptor ends with it.
///
/// The key of an entry in the index is "%016llu%d" of the second of its last use and its descriptor: the order of the
/// keys is the order of use. Entries without descriptor whose opens failed in one second share a key, and all but the
/// last of them are missing from the index.
///
/// Not thread-safe: the owner holds a mutex.
class COpenedFiles {
public:
    using Entries = std::map<std::string, OpenedFileInfo, std::less<>>;
    using Iterator = Entries::iterator;

    /// Entries that are kept; victims are taken before the next one is added.
    static constexpr std::size_t kMaxFiles = 1024;
    /// The victims are one part in so many of the entries, so that they are rarely looked for.
    static constexpr std::size_t kVictimPart = 10;

    bool IsFull() const { return m_OpenedFileHandles.size() >= kMaxFiles; }
    std::size_t GetCount() const { return m_OpenedFileHandles.size(); }
    std::size_t CountVictims() const { return m_OpenedFileHandles.size() / kVictimPart; }

    /// In path order. The end stands for none.
    Iterator begin() { return m_OpenedFileHandles.begin(); }
    Iterator end() { return m_OpenedFileHandles.end(); }
    Iterator Find(std::string_view sPath) { return m_OpenedFileHandles.find(sPath); }
    /// The same for an entry that holds a descriptor.
    Iterator FindOpen(std::string_view sPath);
    /// The first entry of those that a text precedes or is.
    Iterator FindFrom(std::string_view sPath) { return m_OpenedFileHandles.lower_bound(sPath); }

    /// Files an entry under its path, as used now; an earlier one of that path gives way. Its time key is made here, in
    /// place of the one it brings along.
    OpenedFileInfo& Store(OpenedFileInfo info, std::time_t iNow);
    /// Moves an entry to the end of the index. Within one second its key stays the same.
    void Touch(OpenedFileInfo& info, std::time_t iNow);
    /// Removes an entry; the next one.
    Iterator Erase(Iterator itOpened);
    void Clear();
    /// Takes so many of the least recently used entries out, the oldest first. If the index does not hold that many,
    /// the entries without descriptor that it lacks go too, unseen: they must not fill the cache up.
    std::vector<OpenedFileInfo> TakeOldest(std::size_t nWanted);

    /// Paths by time key.
    const std::map<std::string, std::string, std::less<>>& GetLastAccessList() const {
        return m_OpenedFileLastAccessList;
    }

private:
    void Stamp(OpenedFileInfo& info, std::time_t iNow);

    Entries m_OpenedFileHandles;
    std::map<std::string, std::string, std::less<>> m_OpenedFileLastAccessList;
};
