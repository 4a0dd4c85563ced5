// CIpcServer: the listening end: carries out requests on the controller and callbacks on its registries.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "IpcBasic.h"
#include "IpcListener.h"
#include "ThreadAnnotations.h"

class CNfsMain;

/// The channel being served and the message in hand.
struct IpcServerInst {
    /// Held to look at the listener and to change it; whoever uses it has a share of it.
    Mutex hMutexListener;
    std::shared_ptr<CIpcListener> pListener GUARDED_BY(hMutexListener);  ///< null when closed
    /// Of the message being served; the serving thread's alone. The reply is all zero before each.
    IpcDataInst data{};
};

/// Listens on one channel and serves one message per connection, strictly one after another: reads it, carries it out,
/// sends the reply. Requests (IpcServerRequest.cpp) are for the external server, callbacks (IpcServerCallback.cpp) for
/// its clients; an object does both, as its channel is one of either kind.
///
/// Owns the listener, the channel's socket file with it, and the message in hand. The controller, its registries and
/// its runtime parameter outlive it.
///
/// Messages are served on the thread that calls ReadRequest, one at a time. Open, Close and the questions may be
/// called from other threads; Close wakes a ReadRequest that waits for a connection or for its message, and lets one
/// that carries a message out finish, except for a shell command: that ends then, as it does when its requester hangs
/// up. Between calls the channel is open or closed, and nothing of a message is kept.
/// An automatic shutdown that a message requested stays requested: the channel remains open, and nothing is served.
///
/// Everything that arrives is taken for hostile: missing bytes are zero, texts end with their field, connections that
/// say nothing are dropped.
class CIpcServer : public CIpcBasic {
public:
    /// How long an accepted connection may say nothing before it is dropped: others wait behind it.
    static constexpr std::chrono::milliseconds kSilenceTimeout = std::chrono::seconds(5);
    /// The pause after accept failed for lack of descriptors, so that the loop does not spin.
    static constexpr std::chrono::milliseconds kAcceptPause{100};

    /// Requests are carried out on the controller, which outlives this object; its registries and runtime parameter
    /// serve callbacks and logging.
    explicit CIpcServer(CNfsMain* pNfsHandle);
    ~CIpcServer() override;

    /// Listens on a channel. False with a reason; the forms without one log it.
    bool Open(const char* pcChannel, char* pcReason);
    bool Open(const char* pcChannel);
    /// Ends listening and removes the socket file. A message in hand is finished by its thread. Always true.
    bool Close(char* pcReason);
    bool Close();
    bool IsOpened() const { return m_bOpened; }

    /// Waits for one connection and serves its message. True also when the channel was closed meanwhile, or the
    /// connection ended without a message.
    bool ReadRequest(char* pcReason);
    /// The same, with failures in the log, and with the automatic shutdown: once a message has requested it, the
    /// controller is told, and from then on nothing is served (false).
    bool ReadRequest();
    /// True once an automatic shutdown was requested and granted.
    bool IsAutoShutdownRequested() const { return m_bAutoShutdownRequested; }
    /// Waits until another thread closes the channel.
    void WaitForClose();

    /// Carries out the message of an exchange and makes its reply.
    void ParseData(const LogArgu* pLogArgu, IpcDataInst* pInst);
    void ProcessRequest(IpcDataInst* pInst, int iType);   // IpcServerRequest.cpp
    void ProcessCallback(IpcDataInst* pInst, int iType);  // IpcServerCallback.cpp

    // The reply of an exchange, whole.
    static void ReplyBool(IpcDataInst* pInst, bool bVal);
    static void ReplyInt(IpcDataInst* pInst, int iVal);
    /// As an exception, or as a result text; cut where it does not fit.
    static void ReplyText(IpcDataInst* pInst, IpcReplyType iReplyType, const char* pcText);

private:
    std::shared_ptr<CIpcListener> GetListener();

    // The steps of serving, each with its reason when it fails.

    /// True also when the channel was closed meanwhile.
    bool AcceptConnection(const LogContext& log, CIpcListener* pListener, CIpcSocket* pConnection, char* pcReason);
    bool ServeConnection(const LogContext& log, const CIpcListener& listener, CIpcSocket* pConnection, char* pcReason);
    bool SendReply(const LogContext& log, CIpcSocket* pConnection, char* pcReason);

    CNfsMain* m_pNfsHandle;
    std::atomic<bool> m_bOpened{false};
    std::atomic<bool> m_bClosed{false};  ///< opened once and closed again: a failed read is then no error to log
    std::atomic<bool> m_bAutoShutdownRequested{false};

    IpcServerInst m_IpcServerInst;
};
