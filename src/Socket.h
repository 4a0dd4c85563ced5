// CSocket: one TCP connection or one UDP socket, with its thread and its streams.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include <netinet/in.h>
#include <sys/types.h>

#include "InputStream.h"
#include "OutputStream.h"
#include "SocketListener.h"

/// Receives on a thread of its own into its input stream, calls the listener after every receive, and sends what the
/// listener leaves in the output stream.
///
/// It owns its descriptor from Open on and closes it exactly once: shut down (which wakes the thread), join, close.
/// Open and Close are called by one thread at a time (the accept thread, later the one that closes the listener) and
/// never by the socket's own thread; the streams and Send belong to the socket's own thread (inside the listener).
/// IsActive and Shutdown may be called by any thread while the object is open.
class CSocket {
public:
    enum Type : int { kStream = 1, kDatagram = 2 };

    /// A send that cannot pass on a single byte for this long, to a peer whose system answers, ends the connection: a
    /// peer that stops reading keeps one of few connections (see CSendPatience).
    static constexpr int kSendTimeoutSeconds = 5;

    /// The type is a Type; the program number is that of the RPC program served here.
    CSocket(int iType, unsigned long lProgId);
    virtual ~CSocket();
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    /// Closes what was open, takes over the descriptor, and starts receiving unless it is -1. The peer is null for a
    /// datagram socket. The listener is not owned. False if there is no thread to be had: the descriptor is closed.
    bool Open(int iSocket, ISocketListener* pListener, const sockaddr_in* pPeer);
    /// Ends the thread and closes the descriptor. Safe on a closed socket.
    void Close();
    /// Wakes the thread so that it ends; Close follows later. Lets many sockets end at the same time. The peer learns
    /// it at once.
    void Shutdown();
    /// True from a Shutdown to the next Open.
    bool IsStopping() const { return m_bStop.load(); }

    /// Replies that are collected to be sent together come to no more than this.
    static constexpr std::size_t kCollectedLimit = 262144;
    /// A reply larger than this is sent from where it stands: a copy would cost more than the call that it spares.
    static constexpr unsigned int kCollectedReplyLimit = 16384;

    /// For a stream socket: moves what the output stream holds behind the replies that the next Send sends, and leaves
    /// the stream empty. False, with nothing moved, where it is time to send: the reply is large, or there is no room.
    virtual bool Collect();
    /// Sends the collected replies and what the output stream holds: the whole of it, or else a stream socket is shut
    /// down, so that no reply ever follows a part of another. Datagrams go to the sender of the last one received.
    /// After a failure, of which false tells, the unsent bytes stay in the output stream.
    virtual bool Send();
    /// Sends of the collected replies as much as goes without waiting.
    virtual void SendCollected();
    /// True if there are any.
    bool HasCollected() const { return !m_sCollected.empty(); }

    int GetType() const { return m_iType; }
    /// True from Open until the receive loop has ended.
    bool IsActive() const { return m_bActive.load(); }
    /// For an open stream socket: true once the peer has closed or reset the connection, even while received bytes
    /// wait to be worked off. For the thread that opens and closes this socket.
    bool IsPeerGone() const { return IsPeerGone(m_Socket); }
    /// The same for any stream socket's descriptor.
    static bool IsPeerGone(int iSocket);
    /// For an open stream socket: after so many seconds of silence the system asks whether the peer is still there. For
    /// the thread that opens and closes this socket.
    void SetKeepAliveIdle(int iSeconds);
    /// For an open stream socket: true once nothing that is sent can arrive any more. A peer that only sends no more is
    /// still there for its replies. For the socket's own thread.
    bool IsConnectionDead() const;
    /// The peer as dotted text; for a datagram socket the sender of the last datagram.
    const char* GetRemoteAddress() const { return m_cRemoteAddress; }
    /// In host byte order.
    int GetRemotePort() const { return ntohs(m_RemoteAddr.sin_port); }
    unsigned long GetProgId() const { return m_lProgId; }
    CInputStream* GetInputStream() { return &m_InputStream; }
    COutputStream* GetOutputStream() { return &m_OutputStream; }

protected:
    bool CollectOutput();
    /// Whom the bytes that come next are from.
    void SetRemoteAddr(const sockaddr_in& address);
    std::string& GetCollected() { return m_sCollected; }

private:
    enum class Received { kBytes, kNothing, kEnd };

    void Run();
    bool ReceiveAndHandOn();
    Received ReceiveStream();
    Received ReceiveDatagram();
    bool SendStream();
    bool SendDatagram();
    ssize_t SendFrom(std::size_t nSent);
    void Drop(std::size_t nSent);

    const int m_iType;
    const unsigned long m_lProgId;
    std::atomic<int> m_Socket{-1};
    std::atomic<bool> m_bActive{false};
    std::atomic<bool> m_bStop{false};  ///< set before a shutdown that is to end the thread
    ISocketListener* m_pListener = nullptr;
    std::shared_ptr<void> m_pOpened;  ///< the listener's, until the receiving has ended
    std::thread m_hThread;
    CInputStream m_InputStream;
    COutputStream m_OutputStream;

    // Of the socket's own thread while it runs.
    std::string m_sCollected;  ///< replies that leave before what the output stream holds
    sockaddr_in m_RemoteAddr{};
    char m_cRemoteAddress[INET_ADDRSTRLEN];
    in_addr m_LocalAddr{};  ///< where the last datagram was sent to: the reply comes from there
    bool m_bHasLocalAddr = false;
};
