// One mount of one export through libnfs.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
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
///
/// An operation ends at once, as failed, when iInterrupt becomes readable; it stays readable from then on and nothing
/// is read from it, so every later operation fails too, except that the export is still unmounted. The session does not
/// own it; -1 for none.
class NfsSession {
public:
    explicit NfsSession(const NfsTarget& target, int iInterrupt);
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
    static void Release(const NfsTarget& target, int iInterrupt);

private:
    struct ContextDeleter {
        void operator()(nfs_context* pContext) const;
    };
    /// The one call that is under way. libnfs reports to it, if only that the call was given up, at the latest when
    /// the context is destroyed: it has to outlive the context.
    struct Call {
        bool bDone = false;
        int iResult = 0;
        std::function<void(void*)> take;  ///< gets what the call brought, if it succeeded
    };
    /// How long a call may take, in milliseconds.
    struct Limits {
        int iInterrupt;  ///< the descriptor that cuts it short
        int iPatience;   ///< from its start; INT_MAX where libnfs's own limit for each message is enough
        int iGrace;      ///< from an interrupt
    };
    /// Queues a call of libnfs: its callback and that one's argument are for libnfs. Negative if it could not.
    using Start = std::function<int(void (*)(int, nfs_context*, void*, void*), void*)>;
    friend class RemoteFile;

    static void Finish(int iResult, nfs_context* pContext, void* pvData, void* pvCall);
    /// Runs a call to its end and returns its result. A call that did not end within its limits leaves the context
    /// unusable; if an interrupt was the reason, NfsError is thrown.
    int Run(const Start& start, const std::function<void(void*)>& take = {});
    int Run(const Start& start, const std::function<void(void*)>& take, Limits limits);
    int Unmount(Limits limits);
    static void ReleaseWithin(const NfsTarget& target, int iInterrupt, int iPatience);
    [[noreturn]] void Fail(const std::string& sWhat, int iResult) const;
    void WriteRemote(nfsfh* pFile, const std::string& sPath, const char* pcData, std::size_t iSize);

    NfsTarget m_Target;
    int m_iInterrupt;
    Call m_Call;
    std::unique_ptr<nfs_context, ContextDeleter> m_pContext;
    bool m_bMounted = false;
    bool m_bUsable = true;  ///< no call of this context has been given up
};
