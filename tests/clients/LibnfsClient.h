// libnfs's C API in C++ clothes, for tests.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct nfs_context;
struct nfsfh;
struct nfs_stat_64;
struct statvfs;

/// One libnfs context. Paths start with "/" and are relative to the export. Operations return 0 or a negated errno
/// unless said otherwise.
class LibnfsClient {
public:
    LibnfsClient();
    ~LibnfsClient();
    LibnfsClient(const LibnfsClient&) = delete;
    LibnfsClient& operator=(const LibnfsClient&) = delete;

    int Mount(const std::string& sExport, int iNfsPort = 2049, int iMountPort = 1058);
    int Umount();
    /// The last failure in libnfs's words.
    std::string Error() const;

    int Mkdir(const std::string& sPath);
    int Rmdir(const std::string& sPath);
    int Unlink(const std::string& sPath);
    int Rename(const std::string& sFrom, const std::string& sTo);
    int Truncate(const std::string& sPath, std::uint64_t iSize);
    int Chmod(const std::string& sPath, int iMode);
    int Stat(const std::string& sPath, nfs_stat_64& state);
    int Statvfs(const std::string& sPath, struct statvfs& figures);
    int Access(const std::string& sPath, int iMode);
    /// Sets both times, in seconds.
    int Utimes(const std::string& sPath, long iSeconds);
    int Symlink(const std::string& sTarget, const std::string& sPath);
    int Readlink(const std::string& sPath);
    int Link(const std::string& sPath, const std::string& sNew);
    int Mknod(const std::string& sPath, int iMode);
    /// Opens the file and asks for what was written to be committed.
    int Sync(const std::string& sPath);

    /// Makes or replaces a file, writing pieces of the size given.
    int WriteFile(const std::string& sPath, std::string_view sContent, std::size_t iPiece = 65536);
    int ReadFile(const std::string& sPath, std::string& sContent, std::size_t iPiece = 65536);
    /// Writes into an existing file; the number of bytes written, or a negated errno.
    int WriteAt(const std::string& sPath, std::uint64_t iOffset, std::string_view sData);
    /// Reads what there is of that many bytes.
    int ReadAt(const std::string& sPath, std::uint64_t iOffset, std::size_t nBytes, std::string& sData);

    /// All names through libnfs's own listing, which asks by READDIRPLUS.
    int ListPlus(const std::string& sPath, std::multiset<std::string>& names);
    /// All names of an export's root by READDIR calls of the given count, through libnfs's raw calls; mounts and
    /// unmounts by itself.
    static int ListPlain(const std::string& sExport, std::uint32_t iCount, std::multiset<std::string>& names);
    /// Sends an UMNT, whoever has mounted the export.
    static int Release(const std::string& sExport);

private:
    struct PendingCall;

    void Renew();
    /// Starts a call by the function given, and serves the connection until it has an answer, which the taker gets if
    /// it is a good one.
    int Await(const std::function<int(void*)>& start, std::function<void(int, void*)> take);
    template <typename Function, typename... Arguments>
    int Do(Function* pFunction, Arguments... arguments);
    template <typename Function, typename... Arguments>
    int DoAndTake(const std::function<void(int, void*)>& take, Function* pFunction, Arguments... arguments);
    /// Opens the file, does the work on it, and closes it: what the work returned, or why it was not done.
    int WithFile(const std::string& sPath, int iFlags, const std::function<int(nfsfh*)>& work);
    int WritePiece(nfsfh* pFile, std::uint64_t iOffset, std::string_view sData);
    int AppendPiece(nfsfh* pFile, std::uint64_t iOffset, std::size_t nBytes, std::string& sData);

    struct Deleter {
        void operator()(nfs_context* pContext) const;
    };
    std::vector<std::unique_ptr<PendingCall>> m_Pending;  ///< outlives the context
    std::unique_ptr<nfs_context, Deleter> m_pContext;
};
