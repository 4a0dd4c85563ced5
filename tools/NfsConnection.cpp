// A connection to one export through libnfs, with any number of calls under way.
#include "NfsConnection.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <nfsc/libnfs.h>

#include "NfsError.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// libnfs looks at its own time limits only when it is asked to serve its connection.
constexpr int kServeMilliseconds = 100;

/// libnfs's numbers for a connection that broke and for a call that was not answered in time.
constexpr int kLost = -EFAULT;
constexpr int kUnanswered = -EINTR;

bool IsAnswer(const NfsResult& result) {
    return result.sText.find("NFS3ERR_") != std::string::npos;
}

}  // namespace

NfsCall::~NfsCall() {
    if (m_pState) {
        m_pState->take = nullptr;  // what it would put its outcome into may be gone
    }
}

NfsCall& NfsCall::operator=(NfsCall&& other) noexcept {
    if (m_pState) {
        m_pState->take = nullptr;
    }
    m_pState = std::move(other.m_pState);
    return *this;
}

void NfsConnection::ContextDeleter::operator()(nfs_context* pContext) const {
    nfs_destroy_context(pContext);
}

NfsConnection::NfsConnection(const NfsTarget& target, int iInterrupt)
    : m_iInterrupt(iInterrupt), m_pContext(nfs_init_context()) {
    if (!m_pContext) {
        throw NfsError("out of memory");
    }
    // The server answers neither MOUNT's EXPORT, which a search for nested mounts asks for, nor the portmapper's NULL.
    const std::string sSettings =
        "nfs://?version=3&auto-traverse-mounts=0&autoreconnect=0&nfsport=" + std::to_string(target.iNfsPort) +
        "&mountport=" + std::to_string(target.iMountPort);
    nfs_url* pUrl = nfs_parse_url_incomplete(m_pContext.get(), sSettings.c_str());
    if (pUrl == nullptr) {
        throw NfsError(std::string("libnfs: ") + nfs_get_error(m_pContext.get()));
    }
    nfs_destroy_url(pUrl);
    nfs_set_timeout(m_pContext.get(), kTimeoutMilliseconds);
}

NfsCall NfsConnection::Begin(const Start& start, NfsCall::Take take) {
    NfsCall call;
    call.m_pState = std::make_shared<NfsCall::State>();
    NfsCall::State& state = *call.m_pState;
    state = {this, false, {}, std::move(take)};
    if (!m_bUsable) {
        state.bDone = true;
        state.result = {kLost, ""};
        return call;
    }
    m_Pending[&state] = call.m_pState;
    if (start(m_pContext.get(), Report, &state) < 0 && !state.bDone) {
        m_Pending.erase(&state);
        state.bDone = true;
        const char* pcText = nfs_get_error(m_pContext.get());
        state.result = {-EIO, pcText != nullptr ? pcText : ""};
    }
    return call;
}

void NfsConnection::Report(int iResult, nfs_context* /*pContext*/, void* pvData, void* pvState) {
    auto* pState = static_cast<NfsCall::State*>(pvState);
    pState->bDone = true;
    pState->result = {iResult, iResult < 0 && pvData != nullptr ? static_cast<const char*>(pvData) : ""};
    if (iResult >= 0 && pState->take) {
        pState->take(iResult, pvData);
    }
    pState->take = nullptr;
    pState->pOwner->m_Pending.erase(pState);
}

NfsResult NfsConnection::Finish(const NfsCall& call, const NfsLimits& limits) {
    const auto tStart = steady_clock::now();
    auto tEnd =
        limits.iPatience == kNoLimit ? steady_clock::time_point::max() : tStart + milliseconds(limits.iPatience);
    bool bInterrupted = false;
    while (!call.IsDone() && m_bUsable) {
        const Ready ready = ServeWithin({}, bInterrupted ? kNoInterrupt : limits.iInterrupt);
        const auto tNow = steady_clock::now();
        if (ready.bInterrupt) {
            bInterrupted = true;
            tEnd = std::min(tEnd, tNow + milliseconds(limits.iGrace));
        }
        if (tNow >= tEnd) {
            break;
        }
    }
    if (call.IsDone()) {
        const bool bSenseless = call.Result().iResult == kLost && !IsAnswer(call.Result()) && m_bUsable;
        return bSenseless ? AnswerInText() : call.Result();
    }
    const bool bLost = !m_bUsable;
    m_bUsable = false;  // a call was given up: what follows it may not be sent
    if (bInterrupted) {
        throw Interrupted();
    }
    return {bLost ? kLost : kUnanswered, ""};
}

/// A closed descriptor's number is taken again at once; the socket behind it is another.
void NfsConnection::CountSocket() {
    constexpr int kMountSockets = 2;
    struct stat state {};
    if (m_nSockets < kMountSockets && ::fstat(nfs_get_fd(m_pContext.get()), &state) == 0 && state.st_ino != m_iSocket) {
        m_iSocket = state.st_ino;
        ++m_nSockets;
    }
}

bool NfsConnection::HasPeer() const {
    sockaddr_storage address{};
    socklen_t iSize = sizeof(address);
    return ::getpeername(nfs_get_fd(m_pContext.get()), reinterpret_cast<sockaddr*>(&address), &iSize) == 0;
}

Ready NfsConnection::ServeWithin(Awaited other, int iInterrupt) {
    CountSocket();
    const Ready ready =
        WaitReady({nfs_get_fd(m_pContext.get()), static_cast<short>(nfs_which_events(m_pContext.get()))}, other,
                  iInterrupt, kServeMilliseconds);
    if (nfs_service(m_pContext.get(), ready.iFirst) < 0) {
        m_bUsable = false;
    }
    CountSocket();
    return ready;
}

bool NfsConnection::Serve(Awaited other) {
    if (!m_bUsable) {
        return false;
    }
    const Ready ready = ServeWithin(other, m_iInterrupt);
    if (ready.bInterrupt) {
        m_bUsable = false;
        throw Interrupted();
    }
    return ready.iSecond != 0;
}

void NfsConnection::Close() {
    m_bUsable = false;
    m_pContext.reset();
}

NfsResult NfsConnection::AnswerInText() const {
    const char* pcText = nfs_get_error(m_pContext.get());
    const NfsResult result{-EPROTO, pcText != nullptr ? pcText : ""};
    const std::size_t iNumber = result.sText.rfind('(');
    if (!IsAnswer(result) || iNumber == std::string::npos) {
        return {-EPROTO, ""};
    }
    const int iAnswer = std::atoi(result.sText.c_str() + iNumber + 1);
    return {iAnswer < 0 ? iAnswer : -EPROTO, result.sText};
}

NfsResult NfsConnection::Lost() {
    return {kLost, ""};
}

bool NfsConnection::IsAnswered(const NfsResult& result) {
    return IsAnswer(result) || (result.iResult != kLost && result.iResult != kUnanswered);
}

std::string NfsConnection::Sentence(const NfsResult& result) {
    if (IsAnswered(result)) {
        switch (-result.iResult) {
            case EIO:
                return "the server answers with an input/output error";
            case EPROTO:
                return "the server's answer makes no sense";
            case EINVAL:
                return "the server, or the host behind it, refuses that (invalid argument)";
            default:
                return std::strerror(-result.iResult);
        }
    }
    if (result.iResult == kLost) {
        return "connection lost";
    }
    return "the server does not answer";
}

void NfsConnection::Fail(const std::string& sWhat, const NfsResult& result) {
    throw NfsError(sWhat + ": " + Sentence(result));
}
