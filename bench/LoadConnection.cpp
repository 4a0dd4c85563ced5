// Sending calls and judging replies.
#include "LoadConnection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "NfsMessages.h"

namespace {

constexpr std::size_t kReceiveSize = 1U << 20U;

[[noreturn]] void Fail(const std::string& sWhat) {
    throw std::runtime_error(sWhat + ": " + std::strerror(errno));
}

}  // namespace

int ConnectTo(int iPort) {
    const int iSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(iPort));
    if (iSocket < 0 || ::connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("no connection to port " + std::to_string(iPort));
    }
    const int iOn = 1;
    ::setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    return iSocket;
}

void SendAll(int iSocket, std::string_view sBytes) {
    while (!sBytes.empty()) {
        const ssize_t nSent = ::send(iSocket, sBytes.data(), sBytes.size(), MSG_NOSIGNAL);
        if (nSent <= 0) {
            Fail("send");
        }
        sBytes.remove_prefix(static_cast<std::size_t>(nSent));
    }
}

std::string ReceiveRecord(int iSocket) {
    std::string sRecord(4, '\0');
    if (::recv(iSocket, sRecord.data(), 4, MSG_WAITALL) != 4) {
        Fail("no reply");
    }
    const std::size_t nBytes = WordAt(sRecord.data()) & ~kLastFragment;
    if (nBytes > kReceiveSize) {
        throw WrongReply("a record of " + std::to_string(nBytes) + " bytes");
    }
    sRecord.resize(4 + nBytes);
    if (::recv(iSocket, sRecord.data() + 4, nBytes, MSG_WAITALL) != static_cast<ssize_t>(nBytes)) {
        Fail("half a reply");
    }
    return sRecord;
}

std::string Exchange(int iSocket, const std::string& sCall) {
    SendAll(iSocket, sCall);
    return ReceiveRecord(iSocket);
}

LoadConnection::LoadConnection(int iSocket, const Row& row, const LoadFolder& folder, std::uint64_t iFirstBlock)
    : m_iSocket(iSocket),
      m_Row(row),
      m_Folder(folder),
      m_sCall(row.sCall),
      m_iBlock(iFirstBlock),
      m_iRandom(iFirstBlock * 2 + 1),
      m_vcReceived(kReceiveSize) {}

LoadConnection::~LoadConnection() {
    ::close(m_iSocket);
}

std::uint64_t LoadConnection::NextOffset() {
    if (m_Row.nData == 0) {
        return 0;
    }
    const std::uint64_t nBlocks = kLoadSize / m_Row.nData;
    if (m_Row.bRandom) {  // xorshift: the same order in every run
        m_iRandom ^= m_iRandom << 13U;
        m_iRandom ^= m_iRandom >> 7U;
        m_iRandom ^= m_iRandom << 17U;
        return m_iRandom % nBlocks * m_Row.nData;
    }
    return m_iBlock++ % nBlocks * m_Row.nData;
}

void LoadConnection::SendCall() {
    const std::uint64_t iOffset = NextOffset();
    ++m_iXid;
    PutWord(m_sCall.data() + kXidAt, m_iXid);
    if (m_Row.iOffsetAt != 0) {
        PutLong(m_sCall.data() + m_Row.iOffsetAt, iOffset);
    }
    m_Pending.push_back({m_iXid, iOffset, Clock::now()});
    if (m_Row.work != BareWork::kWrite) {
        SendAll(m_iSocket, m_sCall);
        return;
    }
    // sendmsg does not write to what it sends.
    iovec parts[] = {{m_sCall.data(), m_sCall.size()},
                     {const_cast<char*>(m_Folder.sContent.data()) + iOffset, m_Row.nData}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t nSent = ::sendmsg(m_iSocket, &message, MSG_NOSIGNAL);
    if (nSent != static_cast<ssize_t>(m_sCall.size() + m_Row.nData)) {
        Fail("send");
    }
}

std::deque<LoadConnection::Pending>::iterator LoadConnection::FindCall(std::string_view sReply) {
    const std::uint32_t iXid = sReply.size() < kXidAt + 4 ? 0 : WordAt(sReply.data() + kXidAt);
    const auto itPending = std::find_if(m_Pending.begin(), m_Pending.end(),
                                        [iXid](const Pending& pending) { return pending.iXid == iXid; });
    if (itPending == m_Pending.end()) {
        throw WrongReply("a reply to no call: transaction ID " + std::to_string(iXid));
    }
    return itPending;
}

std::size_t LoadConnection::ReceiveReplies(std::vector<std::uint32_t>* pvLatencies) {
    const ssize_t nMore = ::recv(m_iSocket, m_vcReceived.data() + m_nReceived, m_vcReceived.size() - m_nReceived, 0);
    if (nMore <= 0) {
        Fail("the server closed the connection");
    }
    m_nReceived += static_cast<std::size_t>(nMore);
    std::size_t iNext = 0;
    std::size_t nReplies = 0;
    while (m_nReceived - iNext >= 4) {
        const char* pcReply = m_vcReceived.data() + iNext;
        const std::size_t nBytes = 4 + (WordAt(pcReply) & ~kLastFragment);
        if (nBytes > m_vcReceived.size() || m_Pending.empty()) {
            throw WrongReply("bytes that are no reply");
        }
        if (m_nReceived - iNext < nBytes) {
            break;
        }
        const auto itPending = FindCall({pcReply, nBytes});
        const auto latency = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - itPending->start);
        pvLatencies->push_back(static_cast<std::uint32_t>(latency.count()));
        m_Row.Check({pcReply, nBytes}, itPending->iXid, itPending->iOffset);
        m_Pending.erase(itPending);
        iNext += nBytes;
        ++nReplies;
    }
    m_nReceived -= iNext;
    std::memmove(m_vcReceived.data(), m_vcReceived.data() + iNext, m_nReceived);
    return nReplies;
}
