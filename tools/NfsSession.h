// One mount of one export through libnfs.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

struct nfs_context;
struct nfsfh;

/// An operation that failed, with its one-line reason.
class NfsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where an export is found.
struct NfsTarget {
    std::string sHost;
    std::string sExport;
    int iNfsPort = 2049;
    int iMountPort = 1058;
};

/// What a directory listing and a look at one entry tell.
struct NfsEntry {
    std::string sName;
    std::uint32_t iMode = 0;  ///< type and permissions as in struct stat
    std::uint64_t iSize = 0;
    std::int64_t iModified = 0;  ///< seconds since 1970
};

/// A mounted export. The server binds an export to one client until that client unmounts it: End does, and so does
/// the destructor. Paths are relative to the export ("" is its root). Every operation throws NfsError.
class NfsSession {
public:
    explicit NfsSession(const NfsTarget& target);
    ~NfsSession();
    NfsSession(const NfsSession&) = delete;
    NfsSession& operator=(const NfsSession&) = delete;

    /// The entries of a directory by name, without "." and "..".
    std::vector<NfsEntry> List(const std::string& sPath);
    NfsEntry Stat(const std::string& sPath);
    /// Copies a remote file to a descriptor.
    void Get(const std::string& sPath, int iFile);
    /// Makes or replaces a remote file from a descriptor, until its end.
    void Put(int iFile, const std::string& sPath);
    /// Removes a file, or an empty directory.
    void Remove(const std::string& sPath);
    void MakeDirectory(const std::string& sPath);
    /// Unmounts; throws NfsError if the server did not answer it.
    void End();

    /// Unmounts an export that an earlier run left bound.
    static void Release(const NfsTarget& target);

private:
    struct ContextDeleter {
        void operator()(nfs_context* pContext) const;
    };
    [[noreturn]] void Fail(const std::string& sWhat, int iResult) const;
    void WriteRemote(nfsfh* pFile, const std::string& sPath, const char* pcData, std::size_t iSize);

    NfsTarget m_Target;
    std::unique_ptr<nfs_context, ContextDeleter> m_pContext;
    bool m_bMounted = false;
};
