// One mount of one export: MOUNT's MNT and UMNT (RFC 1813, 5.2), and what concerns directories.
#include "NfsSession.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <nfsc/libnfs.h>

// These want what libnfs.h defines.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <nfsc/libnfs-raw-mount.h>
#include <nfsc/libnfs-raw.h>

#include "NfsError.h"

namespace {

/// For the unmount on the way out of a failure: somebody is waiting for the prompt.
constexpr int kLeaveMilliseconds = 5000;
/// The same where an interrupted mount has had its time already.
constexpr int kGiveUpMilliseconds = 2000;

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

/// How a call without a mount ended.
enum class Ending { kDone, kSenseless, kUnanswered, kLost };

/// Serves the context until the call has ended.
Ending Complete(rpc_context* pRpc, int iQueued, const Outcome& outcome, int iInterrupt, int iPatience) {
    bool bOk = iQueued == 0;
    while (bOk && !outcome.bDone) {
        const Ready ready =
            WaitReady({rpc_get_fd(pRpc), static_cast<short>(rpc_which_events(pRpc))}, {}, iInterrupt, iPatience);
        if (ready.bInterrupt) {
            throw Interrupted();
        }
        if (ready.iFirst == 0) {
            return Ending::kUnanswered;
        }
        bOk = rpc_service(pRpc, ready.iFirst) == 0;
    }
    if (!bOk) {
        return Ending::kLost;
    }
    return outcome.iStatus == RPC_STATUS_SUCCESS ? Ending::kDone : Ending::kSenseless;
}

std::string Named(const char* pcService, const NfsTarget& target, int iPort) {
    return target.sHost + ", port " + std::to_string(iPort) + " (" + pcService + ")";
}

/// What to look at when nobody answers at a port.
std::string Advice() {
    return ": does the server run there? (-p and -m name other ports than " + std::to_string(kDefaultNfsPort) +
           " and " + std::to_string(kDefaultMountPort) + "; beside a system portmapper it takes 2050 and 1059)";
}

/// What a user does about an export that nobody may be using.
std::string ReleaseHint(const NfsTarget& target) {
    return "nfsget release " + target.sHost + ":" + target.sExport;
}

/// UMNT on a connection of its own: libnfs would use the mount's context again, in which calls may be under way, and
/// take the answer for the rest of a reply that had come in part. Ports are known; throws NfsError if there is no
/// connection to be had.
Ending Unmount(const NfsTarget& target, int iInterrupt, int iPatience) {
    struct Deleter {
        void operator()(rpc_context* pRpc) const { rpc_destroy_context(pRpc); }
    };
    Outcome connected;
    Outcome unmounted;
    std::string sExport = target.sExport;
    const std::unique_ptr<rpc_context, Deleter> pRpc(rpc_init_context());
    if (Complete(pRpc.get(),
                 rpc_connect_port_async(pRpc.get(), target.sAddress.c_str(), target.iMountPort, MOUNT_PROGRAM, MOUNT_V3,
                                        Report, &connected),
                 connected, iInterrupt, iPatience) != Ending::kDone) {
        const std::string sWhy = WhyUnreachable(target, target.iMountPort, iInterrupt);
        throw NfsError(Named("MOUNT", target, target.iMountPort) + ": " + (sWhy.empty() ? "no answer" : sWhy) +
                       Advice());
    }
    return Complete(pRpc.get(), rpc_mount3_umnt_async(pRpc.get(), Report, sExport.data(), &unmounted), unmounted,
                    iInterrupt, iPatience);
}

/// Unmounts. UMNT may be repeated: a connection that breaks under it is made once more. Throws NfsError if it was not
/// answered.
void ReleaseWithin(const NfsTarget& target, int iInterrupt, int iPatience) {
    Ending ending = Unmount(target, iInterrupt, iPatience);
    if (ending == Ending::kLost) {
        ending = Unmount(target, iInterrupt, iPatience);
    }
    const std::string sWhat = "unmount of \"" + target.sExport + "\": ";
    switch (ending) {
        case Ending::kDone:
            return;
        case Ending::kSenseless:
            throw NfsError(sWhat + "the server's answer makes no sense");
        case Ending::kUnanswered:
            throw NfsError(sWhat + "the server does not answer");
        case Ending::kLost:
            throw NfsError(sWhat + "connection lost");
    }
}

/// Takes back what a mount has bound, on the way out of a failure that gets reported.
void TakeBack(const NfsTarget& target, int iPatience) {
    try {
        ReleaseWithin(target, kNoInterrupt, iPatience);
    } catch (const NfsError&) {
        // what went wrong before says more
    }
}

}  // namespace

std::string Rooted(const std::string& sPath) {
    return "/" + sPath;
}

NfsSession::NfsSession(const NfsTarget& target, int iInterrupt)
    : m_Target(WithPorts(target, iInterrupt)), m_Connection(m_Target, iInterrupt) {
    // Once the server has bound the export, only a mount that came to its end can be taken back: an interrupt lets it.
    try {
        const NfsResult result = m_Connection.Finish(
            m_Connection.Begin([&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
                return nfs_mount_async(pContext, m_Target.sAddress.c_str(), m_Target.sExport.c_str(), pfnReport,
                                       pvCall);
            }),
            {iInterrupt, kNoLimit, kLeaveMilliseconds});
        if (result.iResult != 0) {
            FailMount(result);
        }
    } catch (const Interrupted&) {
        if (IsBound()) {
            TakeBack(m_Target, kGiveUpMilliseconds);
            throw;
        }
        throw Interrupted(m_Connection.HasPeer() ? MayBeBound() : "");
    }
    m_bMounted = true;
}

bool NfsSession::IsBound() const {
    return m_Connection.SocketNumber() > 1;
}

std::string NfsSession::MayBeBound() const {
    return "; \"" + m_Target.sExport + "\" may be bound now: " + ReleaseHint(m_Target);
}

void NfsSession::FailMount(const NfsResult& result) {
    // A refused MNT bound nothing, and the export may be somebody else's.
    if (result.sText.find("MNT3ERR_") != std::string::npos) {
        throw NfsError("mount of \"" + m_Target.sExport + "\" refused: no such export, not open to this address, or " +
                       "a client has it mounted already (after a run that was cut short: " + ReleaseHint(m_Target) +
                       ")");
    }
    if (IsBound()) {
        TakeBack(m_Target, kLeaveMilliseconds);
    }
    if (result.sText.find("NFS3ERR_") == std::string::npos) {
        FailUnanswered(result);
    }
    throw NfsError("mount of \"" + m_Target.sExport +
                   "\": the server exports it, but answers for its directory with an error (" +
                   NfsConnection::Sentence(result) + "); does the directory exist there?");
}

void NfsSession::FailUnanswered(const NfsResult& result) {
    for (const auto& [pcService, iPort] : {std::pair{"MOUNT", m_Target.iMountPort}, {"NFS", m_Target.iNfsPort}}) {
        const std::string sWhy = WhyUnreachable(m_Target, iPort, m_Connection.GetInterrupt());
        if (!sWhy.empty()) {
            throw NfsError(Named(pcService, m_Target, iPort) + ": " + sWhy + Advice());
        }
        if (!IsBound()) {
            throw NfsError("mount of \"" + m_Target.sExport + "\": " + NfsConnection::Sentence(result) + MayBeBound());
        }
    }
    NfsConnection::Fail("mount of \"" + m_Target.sExport + "\"", result);
}

NfsSession::~NfsSession() {
    if (!m_bMounted) {
        return;
    }
    // On the way out of a failure, and that one gets reported: a failed unmount says nothing here.
    m_Connection.Close();
    TakeBack(m_Target, kLeaveMilliseconds);
}

void NfsSession::End() {
    m_Connection.Close();
    m_bMounted = false;
    const int iInterrupt = m_Connection.GetInterrupt();
    try {
        try {
            ReleaseWithin(m_Target, iInterrupt, NfsConnection::kTimeoutMilliseconds);
        } catch (const Interrupted&) {  // the work is done: only the wait for a silent server is cut short
            ReleaseWithin(m_Target, kNoInterrupt, kLeaveMilliseconds);
        }
    } catch (const NfsError& error) {
        throw NfsError(error.what() + MayBeBound());
    }
}

void NfsSession::Release(const NfsTarget& target, int iInterrupt) {
    ReleaseWithin(WithPorts(target, iInterrupt), iInterrupt, NfsConnection::kTimeoutMilliseconds);
}

// ---- Directories

std::vector<NfsEntry> NfsSession::List(const std::string& sPath) {
    nfsdir* pFolder = nullptr;
    const NfsResult result = m_Connection.Run(
        [&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
            return nfs_opendir_async(pContext, Rooted(sPath).c_str(), pfnReport, pvCall);
        },
        [&](int /*iResult*/, void* pvData) { pFolder = static_cast<nfsdir*>(pvData); });
    if (result.iResult != 0) {
        NfsConnection::Fail("list \"" + sPath + "\"", result);
    }
    nfs_context* pContext = m_Connection.Context();
    std::vector<NfsEntry> vEntries;
    while (const nfsdirent* pEntry = nfs_readdir(pContext, pFolder)) {  // it came whole: no call
        const std::string sName = pEntry->name;
        if (sName != "." && sName != "..") {
            vEntries.push_back({sName, pEntry->mode, pEntry->size, pEntry->mtime.tv_sec, pEntry->inode});
        }
    }
    nfs_closedir(pContext, pFolder);
    std::sort(vEntries.begin(), vEntries.end(),
              [](const NfsEntry& left, const NfsEntry& right) { return left.sName < right.sName; });
    return vEntries;
}

NfsResult NfsSession::Look(const std::string& sPath, NfsEntry& entry) {
    return m_Connection.Run(
        [&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
            return nfs_stat64_async(pContext, Rooted(sPath).c_str(), pfnReport, pvCall);
        },
        [&](int /*iResult*/, void* pvData) {
            const auto* pState = static_cast<const nfs_stat_64*>(pvData);
            entry = {sPath, static_cast<std::uint32_t>(pState->nfs_mode), pState->nfs_size,
                     static_cast<std::int64_t>(pState->nfs_mtime), pState->nfs_ino};
        });
}

NfsEntry NfsSession::Stat(const std::string& sPath) {
    NfsEntry entry;
    const NfsResult result = Look(sPath, entry);
    if (result.iResult != 0) {
        NfsConnection::Fail("stat \"" + sPath + "\"", result);
    }
    return entry;
}

std::optional<NfsEntry> NfsSession::Find(const std::string& sPath) {
    NfsEntry entry;
    const NfsResult result = Look(sPath, entry);
    if (result.iResult == -ENOENT) {
        return std::nullopt;
    }
    if (result.iResult != 0) {
        NfsConnection::Fail("stat \"" + sPath + "\"", result);
    }
    return entry;
}

std::uint64_t NfsSession::SizeOf(const std::string& sPath) {
    return Find(sPath).value_or(NfsEntry{}).iSize;
}

void NfsSession::Remove(const std::string& sPath) {
    const bool bFolder = S_ISDIR(Stat(sPath).iMode);
    const NfsResult result =
        m_Connection.Run([&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
            return bFolder ? nfs_rmdir_async(pContext, Rooted(sPath).c_str(), pfnReport, pvCall)
                           : nfs_unlink_async(pContext, Rooted(sPath).c_str(), pfnReport, pvCall);
        });
    if (result.iResult != 0) {
        NfsConnection::Fail("remove \"" + sPath + "\"", result);
    }
}

void NfsSession::MakeDirectory(const std::string& sPath) {
    const NfsResult result =
        m_Connection.Run([&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
            return nfs_mkdir_async(pContext, Rooted(sPath).c_str(), pfnReport, pvCall);
        });
    if (result.iResult != 0) {
        NfsConnection::Fail("mkdir \"" + sPath + "\"", result);
    }
}
