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
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <utility>

namespace {

/// One READ or WRITE at a time: the server's largest transfer.
constexpr std::size_t kPieceSize = 65536;
/// A server that does not answer for this long is reported instead of waited for.
constexpr int kTimeoutMilliseconds = 30000;
/// The same for the unmount on the way out of a failure: somebody is waiting for the prompt.
constexpr int kLeaveMilliseconds = 5000;
/// libnfs looks at its own time limits only when it is asked to serve its connection.
constexpr int kServeMilliseconds = 100;
constexpr mode_t kNewFileMode = 0644;
constexpr int kNoInterrupt = -1;

/// The path as libnfs wants it.
std::string Rooted(const std::string& sPath) {
    return "/" + sPath;
}

std::string SystemText(int iError) {
    return std::strerror(iError);
}

[[noreturn]] void ThrowInterrupted() {
    throw NfsError("interrupted");
}

struct Ready {
    short iEvents;    ///< those of the descriptor, 0 when the time was over first
    bool bInterrupt;  ///< whether the work is to be cut short
};

/// Waits until a descriptor is ready for one of the events (-1 ms: without limit).
Ready WaitReady(int iDescriptor, short iEvents, int iMilliseconds, int iInterrupt) {
    std::array<pollfd, 2> entries{pollfd{iDescriptor, iEvents, 0}, pollfd{iInterrupt, POLLIN, 0}};
    if (poll(entries.data(), entries.size(), iMilliseconds) < 0) {
        throw NfsError("poll: " + SystemText(errno));
    }
    return {entries[0].revents, entries[1].revents != 0};
}

/// Waits for a descriptor of this machine as long as it takes.
void WaitLocal(int iDescriptor, short iEvents, int iInterrupt) {
    if (WaitReady(iDescriptor, iEvents, -1, iInterrupt).bInterrupt) {
        ThrowInterrupted();
    }
}

}  // namespace

void NfsSession::ContextDeleter::operator()(nfs_context* pContext) const {
    nfs_destroy_context(pContext);
}

NfsSession::NfsSession(const NfsTarget& target, int iInterrupt)
    : m_Target(target), m_iInterrupt(iInterrupt), m_pContext(nfs_init_context()) {
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
    // Once the server has bound the export, only a mount that came to its end can be taken back: an interrupt lets it.
    const int iResult = Run(
        [&](nfs_cb pfnFinish, void* pvCall) {
            return nfs_mount_async(m_pContext.get(), target.sHost.c_str(), target.sExport.c_str(), pfnFinish, pvCall);
        },
        {}, {iInterrupt, INT_MAX, kLeaveMilliseconds});
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
    if (!m_bMounted) {
        return;
    }
    // On the way out of a failure, and that one gets reported: a failed unmount says nothing here.
    try {
        if (m_bUsable) {
            Unmount({kNoInterrupt, kLeaveMilliseconds, 0});
        } else {
            m_pContext.reset();  // the connection goes first: what it still had to send must not follow the unmount
            ReleaseWithin(m_Target, kNoInterrupt, kLeaveMilliseconds);
        }
    } catch (const NfsError&) {
        // see above
    }
}

void NfsSession::End() {
    const int iResult = Unmount({m_iInterrupt, INT_MAX, kLeaveMilliseconds});
    m_bMounted = false;
    if (iResult != 0) {
        Fail("unmount of \"" + m_Target.sExport + "\"", iResult);
    }
}

int NfsSession::Unmount(Limits limits) {
    return Run([&](nfs_cb pfnFinish, void* pvCall) { return nfs_umount_async(m_pContext.get(), pfnFinish, pvCall); },
               {}, limits);
}

void NfsSession::Finish(int iResult, nfs_context* /*pContext*/, void* pvData, void* pvCall) {
    auto* pCall = static_cast<Call*>(pvCall);
    pCall->bDone = true;
    pCall->iResult = iResult;
    if (iResult >= 0 && pCall->take) {
        pCall->take(pvData);
    }
}

int NfsSession::Run(const Start& start, const std::function<void(void*)>& take) {
    return Run(start, take, {m_iInterrupt, INT_MAX, 0});
}

int NfsSession::Run(const Start& start, const std::function<void(void*)>& take, Limits limits) {
    using std::chrono::milliseconds;
    if (!m_bUsable) {
        return -ENOTCONN;
    }
    m_Call = {false, 0, take};
    const auto tStart = std::chrono::steady_clock::now();
    auto tEnd = tStart + milliseconds(limits.iPatience);
    bool bInterrupted = false;
    int iResult = start(Finish, &m_Call);
    while (iResult >= 0 && !m_Call.bDone) {
        const Ready ready =
            WaitReady(nfs_get_fd(m_pContext.get()), static_cast<short>(nfs_which_events(m_pContext.get())),
                      kServeMilliseconds, bInterrupted ? kNoInterrupt : limits.iInterrupt);
        const auto tNow = std::chrono::steady_clock::now();
        if (ready.bInterrupt) {
            bInterrupted = true;
            tEnd = std::min(tEnd, tNow + milliseconds(limits.iGrace));
        }
        if (tNow >= tEnd) {
            break;
        }
        iResult = nfs_service(m_pContext.get(), ready.iEvents);
    }
    m_Call.take = nullptr;  // what it would put its result into may be gone when libnfs reports a call given up
    if (m_Call.bDone) {
        return m_Call.iResult;
    }
    m_bUsable = false;
    if (bInterrupted) {
        ThrowInterrupted();
    }
    return iResult < 0 ? -EIO : -ETIMEDOUT;
}

void NfsSession::Fail(const std::string& sWhat, int iResult) const {
    const char* pcDetail = nfs_get_error(m_pContext.get());
    const bool bHasDetail = pcDetail != nullptr && *pcDetail != '\0';
    throw NfsError(sWhat + ": " + (bHasDetail ? std::string(pcDetail) : SystemText(-iResult)));
}

std::vector<NfsEntry> NfsSession::List(const std::string& sPath) {
    nfsdir* pFolder = nullptr;
    const int iResult =
        Run([&](nfs_cb pfnFinish,
                void* pvCall) { return nfs_opendir_async(m_pContext.get(), Rooted(sPath).c_str(), pfnFinish, pvCall); },
            [&](void* pvData) { pFolder = static_cast<nfsdir*>(pvData); });
    if (iResult != 0) {
        Fail("list \"" + sPath + "\"", iResult);
    }
    std::vector<NfsEntry> vEntries;
    while (const nfsdirent* pEntry = nfs_readdir(m_pContext.get(), pFolder)) {  // it came whole: no call
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
    const int iResult =
        Run([&](nfs_cb pfnFinish,
                void* pvCall) { return nfs_stat64_async(m_pContext.get(), Rooted(sPath).c_str(), pfnFinish, pvCall); },
            [&](void* pvData) { state = *static_cast<const nfs_stat_64*>(pvData); });
    if (iResult != 0) {
        Fail("stat \"" + sPath + "\"", iResult);
    }
    return {sPath, static_cast<std::uint32_t>(state.nfs_mode), state.nfs_size,
            static_cast<std::int64_t>(state.nfs_mtime)};
}

// ==== Files ==========================================================================================================

/// An open remote file, closed at the end of the scope unless it was before.
class RemoteFile {
public:
    explicit RemoteFile(NfsSession& session) : m_Session(session) {}
    ~RemoteFile() {
        if (m_pFile == nullptr) {
            return;
        }
        // On the way out of a failure, which is what gets reported.
        if (m_Session.m_bUsable) {
            try {
                Close({kNoInterrupt, kLeaveMilliseconds, 0});
            } catch (const NfsError&) {
                // see above
            }
        } else {  // the context frees the file when it is destroyed with this call still queued
            nfs_close_async(
                m_Session.m_pContext.get(), m_pFile, [](int, nfs_context*, void*, void*) {}, nullptr);
        }
    }
    RemoteFile(const RemoteFile&) = delete;
    RemoteFile& operator=(const RemoteFile&) = delete;

    int Open(const std::string& sPath, int iFlags) {
        return m_Session.Run(
            [&](nfs_cb pfnFinish, void* pvCall) {
                return nfs_open2_async(m_Session.m_pContext.get(), Rooted(sPath).c_str(), iFlags, kNewFileMode,
                                       pfnFinish, pvCall);
            },
            [&](void* pvData) { m_pFile = static_cast<nfsfh*>(pvData); });
    }
    int Close() { return Close({m_Session.m_iInterrupt, INT_MAX, 0}); }
    nfsfh* Get() { return m_pFile; }

private:
    int Close(NfsSession::Limits limits) {
        nfsfh* pFile = std::exchange(m_pFile, nullptr);
        return m_Session.Run(
            [&](nfs_cb pfnFinish, void* pvCall) {
                return nfs_close_async(m_Session.m_pContext.get(), pFile, pfnFinish, pvCall);
            },
            {}, limits);
    }

    NfsSession& m_Session;
    nfsfh* m_pFile = nullptr;
};

namespace {

bool IsPlainFile(int iFile) {
    struct stat state {};
    return fstat(iFile, &state) == 0 && S_ISREG(state.st_mode);
}

/// A pipe that is ready takes PIPE_BUF bytes without waiting, so an interrupt never waits for the pipe's reader.
void WriteLocal(int iFile, const char* pcData, std::size_t iSize, int iInterrupt) {
    const std::size_t iLargest = IsPlainFile(iFile) ? iSize : PIPE_BUF;
    while (iSize > 0) {
        WaitLocal(iFile, POLLOUT, iInterrupt);
        const ssize_t iWritten = write(iFile, pcData, std::min(iSize, iLargest));
        if (iWritten <= 0) {
            throw NfsError("local write: " + SystemText(errno));
        }
        pcData += iWritten;
        iSize -= static_cast<std::size_t>(iWritten);
    }
}

}  // namespace

void NfsSession::Get(const std::string& sPath, int iFile) {
    RemoteFile remote(*this);
    int iResult = remote.Open(sPath, O_RDONLY);
    if (iResult != 0) {
        Fail("open \"" + sPath + "\"", iResult);
    }
    std::vector<char> vcPiece;
    do {
        iResult = Run(
            [&](nfs_cb pfnFinish, void* pvCall) {
                return nfs_read_async(m_pContext.get(), remote.Get(), kPieceSize, pfnFinish, pvCall);
            },
            [&](void* pvData) {
                const auto* pcData = static_cast<const char*>(pvData);
                vcPiece.assign(pcData, pcData + m_Call.iResult);
            });
        if (iResult > 0) {
            WriteLocal(iFile, vcPiece.data(), vcPiece.size(), m_iInterrupt);
        }
    } while (iResult > 0);
    if (iResult < 0) {
        Fail("read \"" + sPath + "\"", iResult);
    }
    iResult = remote.Close();
    if (iResult != 0) {
        Fail("close \"" + sPath + "\"", iResult);
    }
}

void NfsSession::Put(int iFile, const std::string& sPath) {
    RemoteFile remote(*this);
    int iResult = remote.Open(sPath, O_WRONLY | O_CREAT | O_TRUNC);
    if (iResult != 0) {
        Fail("create \"" + sPath + "\"", iResult);
    }
    std::vector<char> vcPiece(kPieceSize);
    std::uint64_t iTotal = 0;
    ssize_t iGot = 0;
    do {
        WaitLocal(iFile, POLLIN, m_iInterrupt);
        iGot = read(iFile, vcPiece.data(), vcPiece.size());
        if (iGot > 0) {
            WriteRemote(remote.Get(), sPath, vcPiece.data(), static_cast<std::size_t>(iGot));
            iTotal += static_cast<std::uint64_t>(iGot);
        }
    } while (iGot > 0);
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
        const int iWritten = Run([&](nfs_cb pfnFinish, void* pvCall) {
            return nfs_write_async(m_pContext.get(), pFile, iSize, pcData, pfnFinish, pvCall);
        });
        if (iWritten <= 0) {
            Fail("write \"" + sPath + "\"", iWritten);
        }
        pcData += iWritten;
        iSize -= static_cast<std::size_t>(iWritten);
    }
}

void NfsSession::Remove(const std::string& sPath) {
    const bool bFolder = S_ISDIR(Stat(sPath).iMode);
    const int iResult = Run([&](nfs_cb pfnFinish, void* pvCall) {
        return bFolder ? nfs_rmdir_async(m_pContext.get(), Rooted(sPath).c_str(), pfnFinish, pvCall)
                       : nfs_unlink_async(m_pContext.get(), Rooted(sPath).c_str(), pfnFinish, pvCall);
    });
    if (iResult != 0) {
        Fail("remove \"" + sPath + "\"", iResult);
    }
}

void NfsSession::MakeDirectory(const std::string& sPath) {
    const int iResult = Run([&](nfs_cb pfnFinish, void* pvCall) {
        return nfs_mkdir_async(m_pContext.get(), Rooted(sPath).c_str(), pfnFinish, pvCall);
    });
    if (iResult != 0) {
        Fail("mkdir \"" + sPath + "\"", iResult);
    }
}

// ==== Release ========================================================================================================

namespace {

/// The outcome of one call without a mount. It has to outlive the context that reports to it.
struct Outcome {
    bool bDone = false;
    int iStatus = 0;
};

void Report(rpc_context* /*pRpc*/, int iStatus, void* /*pvData*/, void* pvOutcome) {
    auto* pOutcome = static_cast<Outcome*>(pvOutcome);
    pOutcome->bDone = true;
    pOutcome->iStatus = iStatus;
}

/// Serves the context until the call has ended.
void Complete(rpc_context* pRpc, int iQueued, const Outcome& outcome, const std::string& sWhat, int iInterrupt,
              int iPatience) {
    bool bOk = iQueued == 0;
    while (bOk && !outcome.bDone) {
        const Ready ready =
            WaitReady(rpc_get_fd(pRpc), static_cast<short>(rpc_which_events(pRpc)), iPatience, iInterrupt);
        if (ready.bInterrupt) {
            ThrowInterrupted();
        }
        bOk = ready.iEvents != 0 && rpc_service(pRpc, ready.iEvents) == 0;
    }
    if (!bOk || outcome.iStatus != RPC_STATUS_SUCCESS) {
        const char* pcDetail = rpc_get_error(pRpc);
        throw NfsError(sWhat + ": " + (pcDetail != nullptr && *pcDetail != '\0' ? pcDetail : "no answer"));
    }
}

}  // namespace

void NfsSession::Release(const NfsTarget& target, int iInterrupt) {
    ReleaseWithin(target, iInterrupt, kTimeoutMilliseconds);
}

void NfsSession::ReleaseWithin(const NfsTarget& target, int iInterrupt, int iPatience) {
    struct Deleter {
        void operator()(rpc_context* pRpc) const { rpc_destroy_context(pRpc); }
    };
    Outcome connected;
    Outcome unmounted;
    std::string sExport = target.sExport;
    const std::unique_ptr<rpc_context, Deleter> pRpc(rpc_init_context());
    Complete(pRpc.get(),
             rpc_connect_port_async(pRpc.get(), target.sHost.c_str(), target.iMountPort, MOUNT_PROGRAM, MOUNT_V3,
                                    Report, &connected),
             connected, "connect to port " + std::to_string(target.iMountPort), iInterrupt, iPatience);
    Complete(pRpc.get(), rpc_mount3_umnt_async(pRpc.get(), Report, sExport.data(), &unmounted), unmounted,
             "unmount of \"" + target.sExport + "\"", iInterrupt, iPatience);
}
