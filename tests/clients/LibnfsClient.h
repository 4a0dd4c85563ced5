// libnfs's C API in C++ clothes, for tests.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct nfs_context;
struct nfs_stat_64;
struct statvfs;

/// One libnfs context. Paths start with "/" and are relative to the export. Operations return 0 or a negated errno
/// unless said otherwise.
class LibnfsClient {
public:
    LibnfsClient();
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

    /// Makes or replaces a file, writing pieces of the size given.
    int WriteFile(const std::string& sPath, std::string_view sContent, std::size_t iPiece = 65536);
    int ReadFile(const std::string& sPath, std::string& sContent, std::size_t iPiece = 65536);

    /// All names through libnfs's own listing, which asks by READDIRPLUS.
    int ListPlus(const std::string& sPath, std::multiset<std::string>& names);
    /// All names of an export's root by READDIR calls of the given count, through libnfs's raw calls; mounts and
    /// unmounts by itself.
    static int ListPlain(const std::string& sExport, std::uint32_t iCount, std::multiset<std::string>& names);

private:
    struct Deleter {
        void operator()(nfs_context* pContext) const;
    };
    std::unique_ptr<nfs_context, Deleter> m_pContext;
};
