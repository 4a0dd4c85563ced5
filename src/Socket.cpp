// Receiving, sending and the end of one socket.
#include "Socket.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include "SendPatience.h"

namespace {

/// Room for the one control message that is used: which local address a datagram was sent to.
union PacketInfo {
    cmsghdr header;
    char cBytes[CMSG_SPACE(sizeof(in_pktinfo))];
};

/// True for errors that say that the descriptor itself is unusable: receiving again would fail for ever. Everything
/// else that a datagram socket reports (an unreachable peer, a lack of memory) concerns one datagram.
bool IsDescriptorUnusable(int iError) {
    return iError == EBADF || iError == ENOTSOCK || iError == EINVAL || iError == EFAULT || iError == EOPNOTSUPP;
}

/// Datagram sockets report the address that a datagram was sent to, so that a reply comes from there also on a host
/// with several addresses. A send gives up after the time that stream sockets are given.
void PrepareDatagramSocket(int iSocket) {
    const int iOn = 1;
    // Without it the system chooses the address of replies.
    static_cast<void>(::setsockopt(iSocket, IPPROTO_IP, IP_PKTINFO, &iOn, sizeof(iOn)));
    const timeval limit{CSocket::kSendTimeoutSeconds, 0};
    // Cannot fail for a socket.
    static_cast<void>(::setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)));
}

/// Where a received datagram was sent to. False if the system did not say.
bool ReadLocalAddr(msghdr* pMessage, in_addr* pAddress) {
    for (cmsghdr* pHeader = CMSG_FIRSTHDR(pMessage); pHeader != nullptr; pHeader = CMSG_NXTHDR(pMessage, pHeader)) {
        if (pHeader->cmsg_level == IPPROTO_IP && pHeader->cmsg_type == IP_PKTINFO) {
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(pHeader), sizeof(info));
            *pAddress = info.ipi_spec_dst;
            return true;
        }
    }
    return false;
}

/// How often it is looked whether a send that stands still can go on.
constexpr std::chrono::milliseconds kSendPause{250};

/// Waits until the socket can take more bytes or the time is over.
void WaitWritable(int iSocket, std::chrono::steady_clock::duration limit) {
    pollfd descriptor{iSocket, POLLOUT, 0};
    const auto nMilliseconds = std::chrono::ceil<std::chrono::milliseconds>(limit).count();
    static_cast<void>(::poll(&descriptor, 1, static_cast<int>(nMilliseconds)));  // the next send tells
}

}  // namespace

CSocket::CSocket(int iType, unsigned long lProgId) : m_iType(iType), m_lProgId(lProgId) {
    SetRemoteAddr(m_RemoteAddr);
}

CSocket::~CSocket() {
    Close();
}

bool CSocket::Open(int iSocket, ISocketListener* pListener, const sockaddr_in* pPeer) {
    Close();
    // A slot is used again: nothing of the earlier connection may reach this one.
    m_InputStream.ResetBuffer();
    m_OutputStream.ResetBuffer();
    m_sCollected.clear();
    m_bHasLocalAddr = false;
    m_pListener = pListener;
    if (pPeer != nullptr) {
        SetRemoteAddr(*pPeer);
    }
    m_Socket = iSocket;
    if (iSocket == -1) {
        return true;
    }
    if (m_iType == kDatagram) {
        PrepareDatagramSocket(iSocket);
    }
    m_bStop = false;
    m_bActive = true;
    try {
        m_pOpened = pListener != nullptr ? pListener->SocketOpened(this) : nullptr;
        m_hThread = std::thread(&CSocket::Run, this);
    } catch (const std::exception&) {  // no thread, or no memory for one
        m_pOpened.reset();
        m_bActive = false;
        Close();
        return false;
    }
    return true;
}

void CSocket::Close() {
    Shutdown();
    if (m_hThread.joinable()) {
        m_hThread.join();
    }
    const int iSocket = m_Socket.exchange(-1);
    if (iSocket != -1) {
        ::close(iSocket);
    }
}

void CSocket::Shutdown() {
    m_bStop = true;  // first: the thread tells an ending receive from an empty datagram by it
    const int iSocket = m_Socket;
    if (iSocket != -1) {
        // Wakes a blocked receive or send; an unconnected datagram socket reports ENOTCONN and is woken all the same.
        static_cast<void>(::shutdown(iSocket, SHUT_RDWR));
    }
}

bool CSocket::IsPeerGone(int iSocket) {
    pollfd descriptor{iSocket, POLLRDHUP, 0};
    return ::poll(&descriptor, 1, 0) > 0;
}

void CSocket::SetKeepAliveIdle(int iSeconds) {
    // A peer that has vanished is found out later without it.
    static_cast<void>(::setsockopt(m_Socket, IPPROTO_TCP, TCP_KEEPIDLE, &iSeconds, sizeof(iSeconds)));
}

bool CSocket::IsConnectionDead() const {
    pollfd descriptor{m_Socket, 0, 0};
    return ::poll(&descriptor, 1, 0) > 0;  // an error, or the end of both directions
}

// ---- The socket's own thread

void CSocket::Run() {
    while (!m_bStop && ReceiveAndHandOn()) {
    }
    // The peer learns at once that nobody listens any more; the descriptor stays until the slot is used again.
    static_cast<void>(::shutdown(m_Socket, SHUT_RDWR));
    m_pOpened.reset();
    m_bActive = false;
}

/// One receive, and what the listener does with it. False at the end of the socket.
bool CSocket::ReceiveAndHandOn() {
    const Received received = m_iType == kStream ? ReceiveStream() : ReceiveDatagram();
    if (received != Received::kBytes || m_pListener == nullptr) {
        return received != Received::kEnd;
    }
    try {
        m_pListener->SocketReceived(this);
        return true;
    } catch (const std::exception&) {
        // There is no memory to go on with: a call in the middle of a stream cannot be passed over, a datagram can.
        return m_iType == kDatagram;
    }
}

CSocket::Received CSocket::ReceiveStream() {
    m_InputStream.ConsolidateBuffer(0);
    const unsigned int nFree = m_InputStream.GetFreeBufferSize();
    if (nFree == 0) {
        return Received::kEnd;  // a megabyte without one complete call
    }
    const ssize_t nReceived = ::recv(m_Socket, m_InputStream.GetFreeBuffer(), nFree, 0);
    if (nReceived < 0) {
        return errno == EINTR ? Received::kNothing : Received::kEnd;
    }
    if (nReceived == 0) {
        return Received::kEnd;
    }
    m_InputStream.AddFilledBufferSize(static_cast<unsigned int>(nReceived));
    return Received::kBytes;
}

CSocket::Received CSocket::ReceiveDatagram() {
    // Each datagram is an exchange of its own: what an earlier one left behind, received or unsent, is dropped.
    m_InputStream.ResetBuffer();
    m_OutputStream.ResetBuffer();

    sockaddr_in sender{};
    PacketInfo control{};
    iovec bytes{m_InputStream.GetFreeBuffer(), m_InputStream.GetFreeBufferSize()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof(sender);
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = &control;
    message.msg_controllen = sizeof(control);

    const ssize_t nReceived = ::recvmsg(m_Socket, &message, 0);
    if (nReceived < 0) {
        return IsDescriptorUnusable(errno) ? Received::kEnd : Received::kNothing;
    }
    if (nReceived == 0) {
        return Received::kNothing;  // an empty datagram; or the shutdown, which the caller sees
    }
    SetRemoteAddr(sender);
    m_bHasLocalAddr = ReadLocalAddr(&message, &m_LocalAddr);
    m_InputStream.AddFilledBufferSize(static_cast<unsigned int>(nReceived));
    return Received::kBytes;
}

bool CSocket::Collect() {
    return m_Socket != -1 && CollectOutput();
}

bool CSocket::CollectOutput() {
    const unsigned int nSize = m_OutputStream.GetBufferSize();
    if (m_iType != kStream || nSize > kCollectedReplyLimit || m_sCollected.size() + nSize > kCollectedLimit) {
        return false;
    }
    m_sCollected.append(m_OutputStream.GetBuffer(), nSize);
    m_OutputStream.ResetBuffer();
    return true;
}

bool CSocket::Send() {
    if (m_Socket == -1 || (m_sCollected.empty() && m_OutputStream.GetBufferSize() == 0)) {
        return true;
    }
    return m_iType == kStream ? SendStream() : SendDatagram();
}

void CSocket::SendCollected() {
    if (m_Socket == -1 || m_sCollected.empty()) {
        return;
    }
    const ssize_t n = ::send(m_Socket, m_sCollected.data(), m_sCollected.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
        m_sCollected.erase(0, static_cast<std::size_t>(n));
    }
}

/// Sends as much as goes without waiting, from that byte on; the collected replies come first. Returns the number of
/// bytes, or -1.
ssize_t CSocket::SendFrom(std::size_t nSent) {
    const std::size_t nCollected = m_sCollected.size();
    const std::size_t nFirst = std::min(nSent, nCollected);
    const std::size_t nSecond = nSent - nFirst;
    iovec parts[2] = {{m_sCollected.data() + nFirst, nCollected - nFirst},
                      {m_OutputStream.GetBuffer() + nSecond, m_OutputStream.GetBufferSize() - nSecond}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return ::sendmsg(m_Socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

/// Forgets that many bytes of what is to be sent.
void CSocket::Drop(std::size_t nSent) {
    const std::size_t nCollected = std::min(nSent, m_sCollected.size());
    m_sCollected.erase(0, nCollected);
    if (nSent > nCollected) {
        m_OutputStream.FreeBuffer(static_cast<unsigned int>(nSent - nCollected));
    }
}

bool CSocket::SendStream() {
    const std::size_t nSize = m_sCollected.size() + m_OutputStream.GetBufferSize();
    std::size_t nSent = 0;
    CSendPatience patience(m_Socket, std::chrono::seconds(kSendTimeoutSeconds));
    while (nSent < nSize) {
        const ssize_t n = SendFrom(nSent);
        if (n > 0) {
            nSent += static_cast<std::size_t>(n);
            patience.Renew();
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            const auto left = patience.Left();
            if (left > left.zero()) {
                // Not to the end at once: the socket counts as writable only when a good part of its buffer is free,
                // and the little that goes before that is progress, too.
                WaitWritable(m_Socket, std::min<CSendPatience::Clock::duration>(left, kSendPause));
                continue;
            }
        }
        // The peer is gone, or takes nothing more. The rest of this reply can never follow: end the connection.
        // Nor is anything executed that is still in its way: the peer may have sent it again on another connection.
        Shutdown();
        break;
    }
    Drop(nSent);
    return nSent == nSize;
}

bool CSocket::SendDatagram() {
    PacketInfo control{};
    iovec bytes{m_OutputStream.GetBuffer(), m_OutputStream.GetBufferSize()};
    msghdr message{};
    message.msg_name = &m_RemoteAddr;
    message.msg_namelen = sizeof(m_RemoteAddr);
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (m_bHasLocalAddr) {
        in_pktinfo info{};
        info.ipi_spec_dst = m_LocalAddr;
        message.msg_control = &control;
        message.msg_controllen = sizeof(control);
        cmsghdr* pHeader = CMSG_FIRSTHDR(&message);
        pHeader->cmsg_level = IPPROTO_IP;
        pHeader->cmsg_type = IP_PKTINFO;
        pHeader->cmsg_len = CMSG_LEN(sizeof(info));
        std::memcpy(CMSG_DATA(pHeader), &info, sizeof(info));
    }
    ssize_t nSent = -1;
    do {
        nSent = ::sendmsg(m_Socket, &message, MSG_NOSIGNAL);
    } while (nSent < 0 && errno == EINTR);
    if (nSent <= 0) {
        return false;
    }
    m_OutputStream.FreeBuffer(static_cast<unsigned int>(nSent));
    return true;
}

void CSocket::SetRemoteAddr(const sockaddr_in& address) {
    m_RemoteAddr = address;
    // Cannot fail: the family is known and the room is right.
    static_cast<void>(::inet_ntop(AF_INET, &m_RemoteAddr.sin_addr, m_cRemoteAddress, sizeof(m_cRemoteAddress)));
}
