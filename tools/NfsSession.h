// One mount of one export.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "NfsConnection.h"
#include "NfsTarget.h"

/// What a directory listing and a look at one entry tell.
struct NfsEntry {
    std::string sName;
    std::uint32_t iMode = 0;  ///< type and permissions as in struct stat
    std::uint64_t iSize = 0;
    std::int64_t iModified = 0;   ///< seconds since 1970
    std::uint64_t iIdentity = 0;  ///< RFC 1813's fileid: one of its own for each file of an export
};

/// A mounted export. The server binds an export to one client until that client unmounts it: End does, and so does
/// the destructor. Paths are relative to the export ("" is its root). Every operation throws NfsError.
///
/// An operation ends at once, as failed, when iInterrupt becomes readable; it stays readable from then on and nothing
/// is read from it, so every later operation fails too, except that the export is still unmounted. The session does not
/// own it; -1 for none.
class NfsSession {
public:
    /// Mounts. The target's address is known; ports that the target does not give are asked for. A mount that failed
    /// half-way is taken back, unless it is not known whether the server bound the export; the text says so then.
    NfsSession(const NfsTarget& target, int iInterrupt);
    ~NfsSession();
    NfsSession(const NfsSession&) = delete;
    NfsSession& operator=(const NfsSession&) = delete;

    /// The entries of a directory by name, without "." and "..".
    std::vector<NfsEntry> List(const std::string& sPath);
    NfsEntry Stat(const std::string& sPath);
    /// The same, nothing where there is no such entry.
    std::optional<NfsEntry> Find(const std::string& sPath);
    /// The size of a file, 0 if there is none.
    std::uint64_t SizeOf(const std::string& sPath);
    /// Removes a file, or an empty directory.
    void Remove(const std::string& sPath);
    void MakeDirectory(const std::string& sPath);
    /// Drops the connection and unmounts: no operation may follow. Throws NfsError if the server did not answer it.
    void End();

    NfsConnection& Connection() { return m_Connection; }

    /// Unmounts an export that an earlier run left bound. The target's address is known.
    static void Release(const NfsTarget& target, int iInterrupt);

private:
    NfsResult Look(const std::string& sPath, NfsEntry& entry);
    /// Whether the server has bound the export to this mount. A mount that got no answer to MNT may have bound it, or
    /// was refused because somebody else has it: then it is not unmounted.
    bool IsBound() const;
    std::string MayBeBound() const;
    /// Takes back a mount that failed, as far as it got, and throws what is to be reported.
    [[noreturn]] void FailMount(const NfsResult& result);
    [[noreturn]] void FailUnanswered(const NfsResult& result);

    NfsTarget m_Target;
    NfsConnection m_Connection;
    bool m_bMounted = false;
};

/// The path as libnfs wants it.
std::string Rooted(const std::string& sPath);
