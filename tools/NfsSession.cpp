// One mount of one export through libnfs.
#include "NfsSession.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <nfsc/libnfs.h>

// These want what libnfs.h defines.
#include <nfsc/libnfs-raw-mount.h>
#include <nfsc/libnfs-raw.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

/// One READ or WRITE at a time: the server's largest transfer.
constexpr std::size_t kPieceSize = 65536;
/// A server that does not answer for this long is reported instead of waited for.
constexpr int kTimeoutMilliseconds = 30000;
constexpr mode_t kNewFileMode = 0644;

/// The path as libnfs wants it.
std::string Rooted(const std::string& sPath) {
    return "/" + sPath;
}

std::string SystemText(int iError) {
    return std::strerror(iError);
}

}  // namespace

void NfsSession::ContextDeleter::operator()(nfs_context* pContext) const {
    nfs_destroy_context(pContext);
}

NfsSession::NfsSession(const NfsTarget& target) : m_Target(target), m_pContext(nfs_init_context()) {
    if (!m_pContext) {
        throw NfsError("out of memory");
    }
    // The server answers neither MOUNT's EXPORT, which a search for nested mounts asks for, nor the portmapper's NULL.
    const std::string sSettings =
        "nfs://?version=3&auto-traverse-mounts=0&autoreconnect=0&nfsport=" + std::to_string(target.iNfsPort) +
        "&mountport=" + std::to_string(target.iMountPort);
    nfs_url* pUrl = nfs_parse_url_incomplete(m_pContext.get(), sSettings.c_str());
    if (pUrl == nullptr) {
        Fail("settings refused", -EINVAL);
    }
    nfs_destroy_url(pUrl);
    nfs_set_timeout(m_pContext.get(), kTimeoutMilliseconds);
    const int iResult = nfs_mount(m_pContext.get(), target.sHost.c_str(), target.sExport.c_str());
    if (iResult == -EACCES) {
        throw NfsError("mount of \"" + target.sExport + "\" refused: no such export, or a client has it mounted " +
                       "already (after a run that was cut short: nfsget release " + target.sHost + ":" +
                       target.sExport + ")");
    }
    if (iResult != 0) {
        Fail("mount of \"" + target.sExport + "\" from " + target.sHost + " (MOUNT port " +
                 std::to_string(target.iMountPort) + ", NFS port " + std::to_string(target.iNfsPort) + ")",
             iResult);
    }
    m_bMounted = true;
}

NfsSession::~NfsSession() {
    if (m_bMounted) {
        nfs_umount(m_pContext.get());  // on the way out of a failure, which is what gets reported
    }
}

void NfsSession::End() {
    m_bMounted = false;
    const int iResult = nfs_umount(m_pContext.get());
    if (iResult != 0) {
        Fail("unmount of \"" + m_Target.sExport + "\"", iResult);
    }
}

void NfsSession::Fail(const std::string& sWhat, int iResult) const {
    const char* pcDetail = nfs_get_error(m_pContext.get());
    const bool bHasDetail = pcDetail != nullptr && *pcDetail != '\0';
    throw NfsError(sWhat + ": " + (bHasDetail ? std::string(pcDetail) : SystemText(-iResult)));
}

std::vector<NfsEntry> NfsSession::List(const std::string& sPath) {
    nfsdir* pFolder = nullptr;
    const int iResult = nfs_opendir(m_pContext.get(), Rooted(sPath).c_str(), &pFolder);
    if (iResult != 0) {
        Fail("list \"" + sPath + "\"", iResult);
    }
    std::vector<NfsEntry> vEntries;
    while (const nfsdirent* pEntry = nfs_readdir(m_pContext.get(), pFolder)) {
        const std::string sName = pEntry->name;
        if (sName != "." && sName != "..") {
            vEntries.push_back({sName, pEntry->mode, pEntry->size, pEntry->mtime.tv_sec});
        }
    }
    nfs_closedir(m_pContext.get(), pFolder);
    std::sort(vEntries.begin(), vEntries.end(),
              [](const NfsEntry& left, const NfsEntry& right) { return left.sName < right.sName; });
    return vEntries;
}

NfsEntry NfsSession::Stat(const std::string& sPath) {
    nfs_stat_64 state{};
    const int iResult = nfs_stat64(m_pContext.get(), Rooted(sPath).c_str(), &state);
    if (iResult != 0) {
        Fail("stat \"" + sPath + "\"", iResult);
    }
    return {sPath, static_cast<std::uint32_t>(state.nfs_mode), state.nfs_size,
            static_cast<std::int64_t>(state.nfs_mtime)};
}

// ==== Files ==========================================================================================================

namespace {

/// An open remote file, closed at the end of the scope unless it was before.
class RemoteFile {
public:
    explicit RemoteFile(nfs_context* pContext) : m_pContext(pContext) {}
    ~RemoteFile() {
        if (m_pFile != nullptr) {
            nfs_close(m_pContext, m_pFile);  // on the way out of a failure, which is what gets reported
        }
    }
    RemoteFile(const RemoteFile&) = delete;
    RemoteFile& operator=(const RemoteFile&) = delete;

    int Open(const std::string& sPath, int iFlags) {
        return nfs_open2(m_pContext, Rooted(sPath).c_str(), iFlags, kNewFileMode, &m_pFile);
    }
    int Close() { return nfs_close(m_pContext, std::exchange(m_pFile, nullptr)); }
    nfsfh* Get() { return m_pFile; }

private:
    nfs_context* m_pContext;
    nfsfh* m_pFile = nullptr;
};

void WriteLocal(int iFile, const char* pcData, std::size_t iSize) {
    while (iSize > 0) {
        const ssize_t iWritten = write(iFile, pcData, iSize);
        if (iWritten <= 0) {
            throw NfsError("local write: " + SystemText(errno));
        }
        pcData += iWritten;
        iSize -= static_cast<std::size_t>(iWritten);
    }
}

}  // namespace

void NfsSession::Get(const std::string& sPath, int iFile) {
    RemoteFile remote(m_pContext.get());
    int iResult = remote.Open(sPath, O_RDONLY);
    if (iResult != 0) {
        Fail("open \"" + sPath + "\"", iResult);
    }
    std::vector<char> vcPiece(kPieceSize);
    while ((iResult = nfs_read(m_pContext.get(), remote.Get(), vcPiece.size(), vcPiece.data())) > 0) {
        WriteLocal(iFile, vcPiece.data(), static_cast<std::size_t>(iResult));
    }
    if (iResult < 0) {
        Fail("read \"" + sPath + "\"", iResult);
    }
    iResult = remote.Close();
    if (iResult != 0) {
        Fail("close \"" + sPath + "\"", iResult);
    }
}

void NfsSession::Put(int iFile, const std::string& sPath) {
    RemoteFile remote(m_pContext.get());
    int iResult = remote.Open(sPath, O_WRONLY | O_CREAT | O_TRUNC);
    if (iResult != 0) {
        Fail("create \"" + sPath + "\"", iResult);
    }
    std::vector<char> vcPiece(kPieceSize);
    std::uint64_t iTotal = 0;
    ssize_t iGot = 0;
    while ((iGot = read(iFile, vcPiece.data(), vcPiece.size())) > 0) {
        WriteRemote(remote.Get(), sPath, vcPiece.data(), static_cast<std::size_t>(iGot));
        iTotal += static_cast<std::uint64_t>(iGot);
    }
    if (iGot < 0) {
        throw NfsError("local read: " + SystemText(errno));
    }
    // libnfs sends a COMMIT when it closes a written file. The server has stored every WRITE by the time it answers it
    // (FILE_SYNC) and answers COMMIT with an I/O error, so that one says nothing about the data; the size does.
    iResult = remote.Close();
    if (iResult != 0 && (iResult != -EIO || Stat(sPath).iSize != iTotal)) {
        Fail("close \"" + sPath + "\"", iResult);
    }
}

void NfsSession::WriteRemote(nfsfh* pFile, const std::string& sPath, const char* pcData, std::size_t iSize) {
    while (iSize > 0) {
        const int iWritten = nfs_write(m_pContext.get(), pFile, iSize, pcData);
        if (iWritten <= 0) {
            Fail("write \"" + sPath + "\"", iWritten);
        }
        pcData += iWritten;
        iSize -= static_cast<std::size_t>(iWritten);
    }
}

void NfsSession::Remove(const std::string& sPath) {
    const bool bFolder = S_ISDIR(Stat(sPath).iMode);
    const int iResult = bFolder ? nfs_rmdir(m_pContext.get(), Rooted(sPath).c_str())
                                : nfs_unlink(m_pContext.get(), Rooted(sPath).c_str());
    if (iResult != 0) {
        Fail("remove \"" + sPath + "\"", iResult);
    }
}

void NfsSession::MakeDirectory(const std::string& sPath) {
    const int iResult = nfs_mkdir(m_pContext.get(), Rooted(sPath).c_str());
    if (iResult != 0) {
        Fail("mkdir \"" + sPath + "\"", iResult);
    }
}

// ==== Release ========================================================================================================

namespace {

/// The outcome of one asynchronous call.
struct Outcome {
    bool bDone = false;
    int iStatus = 0;
};

void Finish(rpc_context* /*pRpc*/, int iStatus, void* /*pvData*/, void* pvOutcome) {
    auto* pOutcome = static_cast<Outcome*>(pvOutcome);
    pOutcome->bDone = true;
    pOutcome->iStatus = iStatus;
}

/// Serves the context until the call has ended.
void Complete(rpc_context* pRpc, int iQueued, const Outcome& outcome, const std::string& sWhat) {
    bool bOk = iQueued == 0;
    while (bOk && !outcome.bDone) {
        pollfd entry{rpc_get_fd(pRpc), static_cast<short>(rpc_which_events(pRpc)), 0};
        bOk = poll(&entry, 1, kTimeoutMilliseconds) > 0 && rpc_service(pRpc, entry.revents) == 0;
    }
    if (!bOk || outcome.iStatus != RPC_STATUS_SUCCESS) {
        const char* pcDetail = rpc_get_error(pRpc);
        throw NfsError(sWhat + ": " + (pcDetail != nullptr && *pcDetail != '\0' ? pcDetail : "no answer"));
    }
}

}  // namespace

void NfsSession::Release(const NfsTarget& target) {
    struct Deleter {
        void operator()(rpc_context* pRpc) const { rpc_destroy_context(pRpc); }
    };
    const std::unique_ptr<rpc_context, Deleter> pRpc(rpc_init_context());
    Outcome connected;
    Complete(pRpc.get(),
             rpc_connect_port_async(pRpc.get(), target.sHost.c_str(), target.iMountPort, MOUNT_PROGRAM, MOUNT_V3,
                                    Finish, &connected),
             connected, "connect to port " + std::to_string(target.iMountPort));
    Outcome unmounted;
    std::string sExport = target.sExport;
    Complete(pRpc.get(), rpc_mount3_umnt_async(pRpc.get(), Finish, sExport.data(), &unmounted), unmounted,
             "unmount of \"" + target.sExport + "\"");
}
