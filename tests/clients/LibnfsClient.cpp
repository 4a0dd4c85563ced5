// libnfs's C API in C++ clothes.
#include "LibnfsClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/statvfs.h>
#include <sys/time.h>

#include <nfsc/libnfs.h>

// These want what libnfs.h defines.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>

#include <nfsc/libnfs-raw-mount.h>
#include <nfsc/libnfs-raw-nfs.h>
#include <nfsc/libnfs-raw.h>

namespace {

constexpr int kTimeoutMilliseconds = 60000;
constexpr int kMode = 0644;
constexpr int kNfsPort = 2049;
constexpr int kMountPort = 1058;

}  // namespace

void LibnfsClient::Deleter::operator()(nfs_context* pContext) const {
    nfs_destroy_context(pContext);
}

LibnfsClient::LibnfsClient() : m_pContext(nfs_init_context()) {
    if (!m_pContext) {
        throw std::runtime_error("nfs_init_context");
    }
}

int LibnfsClient::Mount(const std::string& sExport, int iNfsPort, int iMountPort) {
    const std::string sSettings =
        "nfs://?version=3&auto-traverse-mounts=0&autoreconnect=0&nfsport=" + std::to_string(iNfsPort) +
        "&mountport=" + std::to_string(iMountPort);
    nfs_url* pUrl = nfs_parse_url_incomplete(m_pContext.get(), sSettings.c_str());
    if (pUrl == nullptr) {
        return -EINVAL;
    }
    nfs_destroy_url(pUrl);
    nfs_set_timeout(m_pContext.get(), kTimeoutMilliseconds);
    return nfs_mount(m_pContext.get(), "127.0.0.1", sExport.c_str());
}

int LibnfsClient::Umount() {
    return nfs_umount(m_pContext.get());
}

std::string LibnfsClient::Error() const {
    const char* pcText = nfs_get_error(m_pContext.get());
    return pcText == nullptr ? "" : pcText;
}

int LibnfsClient::Mkdir(const std::string& sPath) {
    return nfs_mkdir(m_pContext.get(), sPath.c_str());
}

int LibnfsClient::Rmdir(const std::string& sPath) {
    return nfs_rmdir(m_pContext.get(), sPath.c_str());
}

int LibnfsClient::Unlink(const std::string& sPath) {
    return nfs_unlink(m_pContext.get(), sPath.c_str());
}

int LibnfsClient::Rename(const std::string& sFrom, const std::string& sTo) {
    return nfs_rename(m_pContext.get(), sFrom.c_str(), sTo.c_str());
}

int LibnfsClient::Truncate(const std::string& sPath, std::uint64_t iSize) {
    return nfs_truncate(m_pContext.get(), sPath.c_str(), iSize);
}

int LibnfsClient::Chmod(const std::string& sPath, int iMode) {
    return nfs_chmod(m_pContext.get(), sPath.c_str(), iMode);
}

int LibnfsClient::Stat(const std::string& sPath, nfs_stat_64& state) {
    return nfs_stat64(m_pContext.get(), sPath.c_str(), &state);
}

int LibnfsClient::Statvfs(const std::string& sPath, struct statvfs& figures) {
    return nfs_statvfs(m_pContext.get(), sPath.c_str(), &figures);
}

int LibnfsClient::WriteFile(const std::string& sPath, std::string_view sContent, std::size_t iPiece) {
    nfsfh* pFile = nullptr;
    int iResult = nfs_open2(m_pContext.get(), sPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, kMode, &pFile);
    if (iResult != 0) {
        return iResult;
    }
    std::size_t iDone = 0;
    while (iDone < sContent.size()) {
        iResult =
            nfs_write(m_pContext.get(), pFile, std::min(iPiece, sContent.size() - iDone), sContent.data() + iDone);
        if (iResult <= 0) {
            break;
        }
        iDone += static_cast<std::size_t>(iResult);
    }
    // libnfs sends a COMMIT when it closes a written file; the server, which answers every WRITE with FILE_SYNC,
    // refuses it.
    const int iClosed = nfs_close(m_pContext.get(), pFile);
    if (iDone < sContent.size()) {
        return iResult < 0 ? iResult : -EIO;
    }
    return iClosed == -EIO && !sContent.empty() ? 0 : iClosed;
}

int LibnfsClient::ReadFile(const std::string& sPath, std::string& sContent, std::size_t iPiece) {
    sContent.clear();
    nfsfh* pFile = nullptr;
    int iResult = nfs_open(m_pContext.get(), sPath.c_str(), O_RDONLY, &pFile);
    if (iResult != 0) {
        return iResult;
    }
    std::vector<char> vcPiece(iPiece);
    while ((iResult = nfs_read(m_pContext.get(), pFile, iPiece, vcPiece.data())) > 0) {
        sContent.append(vcPiece.data(), static_cast<std::size_t>(iResult));
    }
    const int iClosed = nfs_close(m_pContext.get(), pFile);
    return iResult != 0 ? iResult : iClosed;
}

// ---- Listings

int LibnfsClient::ListPlus(const std::string& sPath, std::multiset<std::string>& names) {
    names.clear();
    nfsdir* pFolder = nullptr;
    const int iResult = nfs_opendir(m_pContext.get(), sPath.c_str(), &pFolder);
    if (iResult != 0) {
        return iResult;
    }
    while (const nfsdirent* pEntry = nfs_readdir(m_pContext.get(), pFolder)) {
        names.insert(pEntry->name);
    }
    nfs_closedir(m_pContext.get(), pFolder);
    return 0;
}

namespace {

/// One raw call in flight: libnfs hands the reply to Finish, which hands it to the taker.
struct RawCall {
    bool bDone = false;
    int iResult = 0;
    std::function<int(void*)> take;
};

void Finish(rpc_context* /*pRpc*/, int iStatus, void* pvData, void* pvCall) {
    auto* pCall = static_cast<RawCall*>(pvCall);
    pCall->bDone = true;
    pCall->iResult = iStatus != RPC_STATUS_SUCCESS ? -EIO : pCall->take ? pCall->take(pvData) : 0;
}

/// A connection of libnfs's raw calls to one program.
class RawConnection {
public:
    RawConnection() : m_pRpc(rpc_init_context()) {}
    ~RawConnection() { rpc_destroy_context(m_pRpc); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    /// Queues a call by the function given, and serves the connection until its reply has been taken.
    int Call(const std::function<int(rpc_context*, RawCall*)>& queue, std::function<int(void*)> take = nullptr) {
        RawCall call;
        call.take = std::move(take);
        if (queue(m_pRpc, &call) != 0) {
            return -ENOMEM;
        }
        while (!call.bDone) {
            pollfd entry{rpc_get_fd(m_pRpc), static_cast<short>(rpc_which_events(m_pRpc)), 0};
            if (::poll(&entry, 1, kTimeoutMilliseconds) <= 0 || rpc_service(m_pRpc, entry.revents) < 0) {
                return -EIO;
            }
        }
        return call.iResult;
    }

    int Connect(int iPort, int iProgram, int iVersion) {
        return Call([=](rpc_context* pRpc, RawCall* pCall) {
            return rpc_connect_port_async(pRpc, "127.0.0.1", iPort, iProgram, iVersion, Finish, pCall);
        });
    }

private:
    rpc_context* m_pRpc;
};

/// Where a READDIR loop stands.
struct ReaddirState {
    cookie3 iCookie = 0;
    cookieverf3 verifier{};
    bool bEof = false;
};

int TakeReaddir(const READDIR3res* pReply, ReaddirState& state, std::multiset<std::string>& names) {
    if (pReply->status != NFS3_OK) {
        return nfsstat3_to_errno(static_cast<int>(pReply->status));
    }
    const READDIR3resok& list = pReply->READDIR3res_u.resok;
    for (const void* pvEntry = list.reply.entries; pvEntry != nullptr;) {
        entry3 entry{};
        std::memcpy(&entry, pvEntry, sizeof(entry));  // libnfs does not align them
        names.insert(entry.name);
        state.iCookie = entry.cookie;
        pvEntry = entry.nextentry;
    }
    state.bEof = list.reply.eof != 0;
    std::memcpy(state.verifier, list.cookieverf, sizeof(state.verifier));
    return 0;
}

int ListRoot(std::string sHandle, std::uint32_t iCount, std::multiset<std::string>& names) {
    RawConnection connection;
    int iResult = connection.Connect(kNfsPort, NFS_PROGRAM, NFS_V3);
    ReaddirState state;
    while (iResult == 0 && !state.bEof) {
        READDIR3args arguments{};
        arguments.dir.data.data_len = static_cast<unsigned int>(sHandle.size());
        arguments.dir.data.data_val = sHandle.data();
        arguments.cookie = state.iCookie;
        std::memcpy(arguments.cookieverf, state.verifier, sizeof(arguments.cookieverf));
        arguments.count = iCount;
        iResult = connection.Call(
            [&](rpc_context* pRpc, RawCall* pCall) { return rpc_nfs3_readdir_async(pRpc, Finish, &arguments, pCall); },
            [&](void* pvData) { return TakeReaddir(static_cast<const READDIR3res*>(pvData), state, names); });
    }
    return iResult;
}

}  // namespace

int LibnfsClient::ListPlain(const std::string& sExport, std::uint32_t iCount, std::multiset<std::string>& names) {
    names.clear();
    RawConnection mount;
    std::string sName = sExport;
    std::string sHandle;
    int iResult = mount.Connect(kMountPort, MOUNT_PROGRAM, MOUNT_V3);
    if (iResult == 0) {
        iResult = mount.Call(
            [&](rpc_context* pRpc, RawCall* pCall) { return rpc_mount3_mnt_async(pRpc, Finish, sName.data(), pCall); },
            [&](void* pvData) {
                const auto* pReply = static_cast<const mountres3*>(pvData);
                if (pReply->fhs_status != MNT3_OK) {
                    return mountstat3_to_errno(static_cast<int>(pReply->fhs_status));
                }
                const auto& handle = pReply->mountres3_u.mountinfo.fhandle;
                sHandle.assign(handle.fhandle3_val, handle.fhandle3_len);
                return 0;
            });
    }
    if (iResult != 0) {
        return iResult;
    }
    const int iListed = ListRoot(sHandle, iCount, names);
    iResult = mount.Call(
        [&](rpc_context* pRpc, RawCall* pCall) { return rpc_mount3_umnt_async(pRpc, Finish, sName.data(), pCall); });
    return iListed != 0 ? iListed : iResult;
}
