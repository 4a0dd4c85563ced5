// A connection to one export through libnfs, with any number of calls under way.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <sys/types.h>

#include "NfsTarget.h"
#include "Wait.h"

struct nfs_context;

/// The outcome of a call.
struct NfsResult {
    int iResult = 0;    ///< 0 or a count; negative: an error number of errno.h
    std::string sText;  ///< what libnfs says about a failure
};

/// One call to the server, from its start until it is let go. Let go before its end, its outcome finds nobody.
class NfsCall {
public:
    /// Gets a successful call's outcome: its count, and what it brought, which is libnfs's afterwards.
    using Take = std::function<void(int, void*)>;

    NfsCall() = default;
    ~NfsCall();
    NfsCall(NfsCall&&) = default;
    NfsCall& operator=(NfsCall&& other) noexcept;

    bool IsDone() const { return m_pState && m_pState->bDone; }
    const NfsResult& Result() const { return m_pState->result; }

private:
    friend class NfsConnection;
    struct State {
        class NfsConnection* pOwner = nullptr;
        bool bDone = false;
        NfsResult result;
        Take take;
    };
    std::shared_ptr<State> m_pState;
};

/// How long work may take.
struct NfsLimits {
    int iInterrupt = kNoInterrupt;  ///< the descriptor that cuts it short
    int iPatience = kNoLimit;       ///< milliseconds from its start; without: libnfs's own limit for each message
    int iGrace = 0;                 ///< milliseconds that it may still take after an interrupt
};

/// Owns the libnfs context, sends calls and serves the connection. One thread. It neither mounts nor unmounts by
/// itself. Operations throw NfsError, Interrupted when iInterrupt becomes readable; it stays readable from then on.
class NfsConnection {
public:
    /// A server that does not answer for this long is reported instead of waited for.
    static constexpr int kTimeoutMilliseconds = 30000;

    /// Connects to nothing yet. The target's ports are known.
    NfsConnection(const NfsTarget& target, int iInterrupt);

    using Callback = void (*)(int, nfs_context*, void*, void*);
    /// Queues a call of libnfs, to which the callback and its argument are handed; negative if it could not.
    using Start = std::function<int(nfs_context*, Callback, void*)>;

    /// Starts a call. On a connection that is lost it is done at once, as failed.
    NfsCall Begin(const Start& start, NfsCall::Take take = {});
    /// Serves the connection until the call is done.
    NfsResult Finish(const NfsCall& call) { return Finish(call, {m_iInterrupt, kNoLimit, 0}); }
    NfsResult Finish(const NfsCall& call, const NfsLimits& limits);
    /// Both in one.
    NfsResult Run(const Start& start, NfsCall::Take take = {}) { return Finish(Begin(start, std::move(take))); }

    /// Serves the connection for a moment: until something has come or could be sent, or the other descriptor is
    /// ready (then true), or libnfs wants to look at its time limits.
    bool Serve(Awaited other = {});
    /// Whether the connection still carries calls.
    bool IsUsable() const { return m_bUsable; }

    /// Drops the connection; calls under way find nobody.
    void Close();

    /// Which socket of its own libnfs is at: a mount takes the first to MOUNT, and the second, to NFS, once MNT has
    /// succeeded. 0 before there is one, 2 at most.
    int SocketNumber() const { return m_nSockets; }
    /// Whether the socket it is at has reached its peer.
    bool HasPeer() const;

    nfs_context* Context() { return m_pContext.get(); }
    int GetInterrupt() const { return m_iInterrupt; }

    /// The outcome of what a broken connection does not carry.
    static NfsResult Lost();
    /// Whether a failure is the server's answer, and not the want of one.
    static bool IsAnswered(const NfsResult& result);
    /// What went wrong, as a sentence.
    static std::string Sentence(const NfsResult& result);
    /// Throws NfsError: what was tried, then the sentence.
    [[noreturn]] static void Fail(const std::string& sWhat, const NfsResult& result);

private:
    struct ContextDeleter {
        void operator()(nfs_context* pContext) const;
    };
    static void Report(int iResult, nfs_context* pContext, void* pvData, void* pvState);
    void CountSocket();
    Ready ServeWithin(Awaited other, int iInterrupt);
    /// The outcome of a READ or WRITE that was refused: libnfs passes it on as broken, and tells the status only in its
    /// text. An answer without a status makes no sense.
    NfsResult AnswerInText() const;

    int m_iInterrupt;
    int m_nSockets = 0;
    ino_t m_iSocket = 0;  ///< the last of them
    /// The calls that libnfs still reports to: it does so for each, at the latest when the context is destroyed, so
    /// they outlive it.
    std::map<NfsCall::State*, std::shared_ptr<NfsCall::State>> m_Pending;
    std::unique_ptr<nfs_context, ContextDeleter> m_pContext;
    bool m_bUsable = true;
};
