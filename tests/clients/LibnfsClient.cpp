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
#include <chrono>
#include <cstring>
#include <stdexcept>

#include <nfsc/libnfs-raw-mount.h>
#include <nfsc/libnfs-raw-nfs.h>
#include <nfsc/libnfs-raw.h>

namespace {

constexpr int kTimeoutMilliseconds = 60000;
constexpr int kTickMilliseconds = 50;
constexpr int kMostTicksWithoutSocket = 5;  // between two connections there is none for a moment
constexpr int kMode = 0644;
constexpr int kNfsPort = 2049;
constexpr int kMountPort = 1058;

}  // namespace

void LibnfsClient::Deleter::operator()(nfs_context* pContext) const {
    nfs_destroy_context(pContext);
}

LibnfsClient::LibnfsClient() {
    Renew();
}

void LibnfsClient::Renew() {
    m_pContext.reset(nfs_init_context());
    if (!m_pContext) {
        throw std::runtime_error("nfs_init_context");
    }
}

/// A call in flight. It outlives its context, which calls back for what it never finished when it is destroyed:
/// libnfs's own waiting calls have what they wait with on a stack that is gone by then.
struct LibnfsClient::PendingCall {
    bool bDone = false;
    int iResult = 0;
    std::function<void(int, void*)> take;

    static void Finish(int iResult, nfs_context* /*pContext*/, void* pvData, void* pvCall) {
        auto* pCall = static_cast<PendingCall*>(pvCall);
        if (iResult >= 0 && pCall->take) {
            pCall->take(iResult, pvData);
        }
        pCall->iResult = iResult;
        pCall->bDone = true;
    }
};

LibnfsClient::~LibnfsClient() = default;

int LibnfsClient::Await(const std::function<int(void*)>& start, std::function<void(int, void*)> take) {
    m_Pending.push_back(std::make_unique<PendingCall>());
    PendingCall& call = *m_Pending.back();
    call.take = std::move(take);
    if (start(&call) != 0) {
        m_Pending.pop_back();
        return -EIO;
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTimeoutMilliseconds);
    for (int nWithoutSocket = 0; !call.bDone;) {
        pollfd entry{nfs_get_fd(m_pContext.get()), static_cast<short>(nfs_which_events(m_pContext.get())), 0};
        nWithoutSocket = entry.fd < 0 ? nWithoutSocket + 1 : 0;
        if (::poll(&entry, 1, kTickMilliseconds) < 0 || nfs_service(m_pContext.get(), entry.revents) < 0 ||
            nWithoutSocket > kMostTicksWithoutSocket || std::chrono::steady_clock::now() > end) {
            call.take = nullptr;
            return -EIO;
        }
    }
    const int iResult = call.iResult;
    m_Pending.pop_back();
    return iResult;
}

template <typename Function, typename... Arguments>
int LibnfsClient::DoAndTake(const std::function<void(int, void*)>& take, Function* pFunction, Arguments... arguments) {
    return Await([&](void* pvCall) { return pFunction(m_pContext.get(), arguments..., PendingCall::Finish, pvCall); },
                 take);
}

template <typename Function, typename... Arguments>
int LibnfsClient::Do(Function* pFunction, Arguments... arguments) {
    return DoAndTake(nullptr, pFunction, arguments...);
}

int LibnfsClient::Mount(const std::string& sExport, int iNfsPort, int iMountPort) {
    Renew();  // one that was refused stays connected, and then cannot connect
    const std::string sSettings =
        "nfs://?version=3&auto-traverse-mounts=0&autoreconnect=0&nfsport=" + std::to_string(iNfsPort) +
        "&mountport=" + std::to_string(iMountPort);
    nfs_url* pUrl = nfs_parse_url_incomplete(m_pContext.get(), sSettings.c_str());
    if (pUrl == nullptr) {
        return -EINVAL;
    }
    nfs_destroy_url(pUrl);
    nfs_set_timeout(m_pContext.get(), kTimeoutMilliseconds);
    return Do(nfs_mount_async, "127.0.0.1", sExport.c_str());
}

int LibnfsClient::Umount() {
    return Do(nfs_umount_async);
}

std::string LibnfsClient::Error() const {
    const char* pcText = nfs_get_error(m_pContext.get());
    return pcText == nullptr ? "" : pcText;
}

int LibnfsClient::Mkdir(const std::string& sPath) {
    return Do(nfs_mkdir_async, sPath.c_str());
}

int LibnfsClient::Rmdir(const std::string& sPath) {
    return Do(nfs_rmdir_async, sPath.c_str());
}

int LibnfsClient::Unlink(const std::string& sPath) {
    return Do(nfs_unlink_async, sPath.c_str());
}

int LibnfsClient::Rename(const std::string& sFrom, const std::string& sTo) {
    return Do(nfs_rename_async, sFrom.c_str(), sTo.c_str());
}

int LibnfsClient::Truncate(const std::string& sPath, std::uint64_t iSize) {
    return Do(nfs_truncate_async, sPath.c_str(), iSize);
}

int LibnfsClient::Chmod(const std::string& sPath, int iMode) {
    return Do(nfs_chmod_async, sPath.c_str(), iMode);
}

int LibnfsClient::Stat(const std::string& sPath, nfs_stat_64& state) {
    const auto take = [&](int /*iResult*/, void* pvData) { state = *static_cast<nfs_stat_64*>(pvData); };
    return DoAndTake(take, nfs_stat64_async, sPath.c_str());
}

int LibnfsClient::Statvfs(const std::string& sPath, struct statvfs& figures) {
    const auto take = [&](int /*iResult*/, void* pvData) { figures = *static_cast<struct statvfs*>(pvData); };
    return DoAndTake(take, nfs_statvfs_async, sPath.c_str());
}

int LibnfsClient::Access(const std::string& sPath, int iMode) {
    return Do(nfs_access_async, sPath.c_str(), iMode);
}

int LibnfsClient::Utimes(const std::string& sPath, long iSeconds) {
    timeval times[2] = {{iSeconds, 0}, {iSeconds, 0}};
    return Do(nfs_utimes_async, sPath.c_str(), &times[0]);
}

int LibnfsClient::Symlink(const std::string& sTarget, const std::string& sPath) {
    return Do(nfs_symlink_async, sTarget.c_str(), sPath.c_str());
}

int LibnfsClient::Readlink(const std::string& sPath) {
    return Do(nfs_readlink_async, sPath.c_str());
}

int LibnfsClient::Link(const std::string& sPath, const std::string& sNew) {
    return Do(nfs_link_async, sPath.c_str(), sNew.c_str());
}

int LibnfsClient::Mknod(const std::string& sPath, int iMode) {
    return Do(nfs_mknod_async, sPath.c_str(), iMode, 0);
}

int LibnfsClient::Sync(const std::string& sPath) {
    return WithFile(sPath, O_RDWR, [this](nfsfh* pFile) { return Do(nfs_fsync_async, pFile); });
}

// ---- Content

int LibnfsClient::WithFile(const std::string& sPath, int iFlags, const std::function<int(nfsfh*)>& work) {
    nfsfh* pFile = nullptr;
    const auto take = [&](int /*iResult*/, void* pvData) { pFile = static_cast<nfsfh*>(pvData); };
    const int iOpened = DoAndTake(take, nfs_open2_async, sPath.c_str(), iFlags, kMode);
    if (iOpened != 0) {
        return iOpened;
    }
    const int iResult = work(pFile);
    // libnfs sends a COMMIT when it closes a written file; the server, which answers every WRITE with FILE_SYNC,
    // refuses it.
    const int iClosed = Do(nfs_close_async, pFile);
    return iResult == 0 && iClosed != -EIO ? iClosed : iResult;
}

int LibnfsClient::WriteAt(const std::string& sPath, std::uint64_t iOffset, std::string_view sData) {
    return WithFile(sPath, O_RDWR, [&](nfsfh* pFile) { return WritePiece(pFile, iOffset, sData); });
}

int LibnfsClient::WritePiece(nfsfh* pFile, std::uint64_t iOffset, std::string_view sData) {
    return Do(nfs_pwrite_async, pFile, iOffset, sData.size(), sData.data());
}

int LibnfsClient::ReadAt(const std::string& sPath, std::uint64_t iOffset, std::size_t nBytes, std::string& sData) {
    sData.clear();
    return std::min(WithFile(sPath, O_RDONLY, [&](nfsfh* pFile) { return AppendPiece(pFile, iOffset, nBytes, sData); }),
                    0);
}

int LibnfsClient::AppendPiece(nfsfh* pFile, std::uint64_t iOffset, std::size_t nBytes, std::string& sData) {
    const auto take = [&](int iResult, void* pvData) {
        sData.append(static_cast<const char*>(pvData), static_cast<std::size_t>(iResult));
    };
    return DoAndTake(take, nfs_pread_async, pFile, iOffset, nBytes);
}

int LibnfsClient::WriteFile(const std::string& sPath, std::string_view sContent, std::size_t iPiece) {
    return WithFile(sPath, O_WRONLY | O_CREAT | O_TRUNC, [&](nfsfh* pFile) {
        for (std::size_t iDone = 0; iDone < sContent.size();) {
            const int iResult = WritePiece(pFile, iDone, sContent.substr(iDone, iPiece));
            if (iResult <= 0) {
                return iResult < 0 ? iResult : -EIO;
            }
            iDone += static_cast<std::size_t>(iResult);
        }
        return 0;
    });
}

int LibnfsClient::ReadFile(const std::string& sPath, std::string& sContent, std::size_t iPiece) {
    sContent.clear();
    return WithFile(sPath, O_RDONLY, [&](nfsfh* pFile) {
        int iResult = 0;
        do {
            iResult = AppendPiece(pFile, sContent.size(), iPiece, sContent);
        } while (iResult > 0);
        return iResult;
    });
}

// ---- Listings

int LibnfsClient::ListPlus(const std::string& sPath, std::multiset<std::string>& names) {
    names.clear();
    nfsdir* pFolder = nullptr;
    const auto take = [&](int /*iResult*/, void* pvData) { pFolder = static_cast<nfsdir*>(pvData); };
    const int iResult = DoAndTake(take, nfs_opendir_async, sPath.c_str());
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

int LibnfsClient::Release(const std::string& sExport) {
    RawConnection mount;
    std::string sName = sExport;
    const int iResult = mount.Connect(kMountPort, MOUNT_PROGRAM, MOUNT_V3);
    return iResult != 0 ? iResult : mount.Call([&](rpc_context* pRpc, RawCall* pCall) {
        return rpc_mount3_umnt_async(pRpc, Finish, sName.data(), pCall);
    });
}
