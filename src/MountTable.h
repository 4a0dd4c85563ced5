// CMountTable: the exports by name, and found by the paths that lie in them.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>

/// One export: a local directory and the name under which clients mount it.
struct MountInfo {
    std::string sLocalMountPath;  ///< canonical
    std::string sExportName;      ///< the key
    std::string sIcpID;           ///< IPC ID of the party that added the export
    std::string sRemoteIpAddr;    ///< dotted address of the client that has it mounted; empty while nobody has
};

/// What the exports say to a client's call on a path.
enum class MountAccess {
    kNone,    ///< no export holds the path
    kServed,  ///< one does, and nobody or this client has it mounted
    kHeld,    ///< another client has it mounted, and this client none that holds the path
    kDenied   ///< one does, and the access file does not admit the client
};

/// The exports in the order of their names, which decides among those that lie in one another. What holds a path is
/// found by the folders on its way, however many exports there are.
///
/// Not thread-safe: the owner holds a mutex.
class CMountTable {
public:
    using Mounts = std::map<std::string, MountInfo, std::less<>>;

    CMountTable() = default;
    CMountTable(const CMountTable&) = delete;
    CMountTable& operator=(const CMountTable&) = delete;

    /// By name.
    const Mounts& GetAll() const { return m_mMounts; }
    /// Null for a name that no export has. Only the client's address may be changed.
    MountInfo* FindByName(std::string_view sName);
    /// The export of exactly this local path; null for none.
    const MountInfo* FindByPath(std::string_view sLocalPath) const;
    /// Files an export under its name, which no other one has.
    void Add(MountInfo mount);
    /// Takes an export out.
    void Remove(const MountInfo& mount);
    /// Takes all out.
    Mounts TakeAll();

    /// Judges a path for a client's call. Of all exports that hold it, the client's own serves it; where there is none,
    /// the first in name order that another client has mounted keeps it from the call. Without a client (null) whatever
    /// holds it serves it.
    ///
    /// Of an export that serves, pMountInfo, if given, is told name and IPC ID of the first in name order that holds
    /// the path (without a client all fields); of one that is held, its name and its client.
    MountAccess Judge(std::string_view sPath, const char* pcClientAddr, MountInfo* pMountInfo) const;

private:
    /// What is known of the exports that hold a path, as one after the other is met.
    struct Holders {
        const MountInfo* pFirst = nullptr;  ///< in name order
        const MountInfo* pHeld = nullptr;   ///< the first of those that other clients have mounted
        bool bOwn = false;                  ///< the client has one of them mounted

        void Meet(const MountInfo& mount, const char* pcClientAddr);
    };

    Holders FindHolders(std::string_view sPath, const char* pcClientAddr) const;
    void MeasureFolders();

    Mounts m_mMounts;
    /// The same by local path, without the slash at its end. Keys view the exports' own texts.
    std::unordered_multimap<std::string_view, const MountInfo*> m_mByFolder;
    // The lengths of those keys: no shorter or longer folder is looked up.
    std::size_t m_nShortest = 0;
    std::size_t m_nLongest = 0;
};
