// A small ONC RPC client for tests.
#include "RpcClient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t kLastFragment = 0x80000000U;
constexpr std::size_t kLargestDatagram = 65536;
constexpr std::size_t kLargestRecord = 16U << 20U;

[[noreturn]] void Fail(const std::string& sWhat) {
    throw std::runtime_error(sWhat + ": " + std::strerror(errno));
}

sockaddr_in MakeAddress(const std::string& sAddress, int iPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(iPort));
    if (::inet_pton(AF_INET, sAddress.c_str(), &address.sin_addr) != 1) {
        throw std::runtime_error("not an address: " + sAddress);
    }
    return address;
}

}  // namespace

// ---- Calls and replies

std::string RpcCall::Bytes(Transport transport) const {
    XdrBuilder body;
    body.U32(iXid).U32(0).U32(2).U32(iProgram).U32(iVersion).U32(iProcedure);
    body.U32(iCredFlavor).Opaque(sCred).U32(iVerfFlavor).Opaque(sVerf).Raw(sArguments);
    if (transport == Transport::kUdp) {
        return body.Bytes();
    }
    XdrBuilder record;
    record.U32(kLastFragment | static_cast<std::uint32_t>(body.Bytes().size())).Raw(body.Bytes());
    return record.Bytes();
}

RpcReply RpcReply::Parse(Transport transport, const std::string& sRaw) {
    RpcReply reply;
    reply.sRaw = sRaw;
    XdrReader reader(sRaw);
    if (transport == Transport::kTcp) {
        reply.iRecordMark = reader.U32();
    }
    reply.iXid = reader.U32();
    reply.iMessageType = reader.U32();
    reply.iReplyStatus = reader.U32();
    reply.iVerfFlavor = reader.U32();
    reply.iVerfLength = reader.U32();
    reply.iAcceptStatus = reader.U32();
    reply.sBody = sRaw.substr(reader.Position());
    return reply;
}

// ---- The connection

RpcClient::RpcClient(Transport transport, int iPort, const std::string& sSourceAddress,
                     const std::string& sServerAddress)
    : m_Transport(transport) {
    m_iSocket = ::socket(AF_INET, (transport == Transport::kTcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    if (m_iSocket < 0) {
        Fail("socket");
    }
    const sockaddr_in source = MakeAddress(sSourceAddress, 0);
    const sockaddr_in server = MakeAddress(sServerAddress, iPort);
    const int iOn = 1;
    ::setsockopt(m_iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));  // fails for UDP, where it does not matter
    if (::bind(m_iSocket, reinterpret_cast<const sockaddr*>(&source), sizeof(source)) != 0 ||
        ::connect(m_iSocket, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) != 0) {
        const int iError = errno;
        Close();
        errno = iError;
        Fail("no connection from " + sSourceAddress + " to " + sServerAddress + " port " + std::to_string(iPort));
    }
}

RpcClient::~RpcClient() {
    Close();
}

void RpcClient::Close() {
    if (m_iSocket >= 0) {
        ::close(m_iSocket);
        m_iSocket = -1;
    }
}

void RpcClient::ShutdownSend() {
    ::shutdown(m_iSocket, SHUT_WR);
}

void RpcClient::Send(std::string_view sBytes) {
    if (m_Transport == Transport::kUdp) {
        if (::send(m_iSocket, sBytes.data(), sBytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(sBytes.size())) {
            Fail("send of a datagram");
        }
        return;
    }
    while (!sBytes.empty()) {
        const ssize_t iSent = ::send(m_iSocket, sBytes.data(), sBytes.size(), MSG_NOSIGNAL);
        if (iSent <= 0) {
            Fail("send");
        }
        sBytes.remove_prefix(static_cast<std::size_t>(iSent));
    }
}

bool RpcClient::WaitReadable(std::chrono::milliseconds limit) {
    pollfd entry{m_iSocket, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(limit.count())) > 0;
}

std::string RpcClient::ReceiveBytes(std::size_t iSize, std::chrono::milliseconds limit) {
    std::string sBytes(iSize, '\0');
    std::size_t iFilled = 0;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (iFilled < iSize) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !WaitReadable(left)) {
            throw std::runtime_error("no reply in time: " + std::to_string(iFilled) + " of " + std::to_string(iSize) +
                                     " bytes came");
        }
        const ssize_t iGot = ::recv(m_iSocket, sBytes.data() + iFilled, iSize - iFilled, 0);
        if (iGot <= 0) {
            throw std::runtime_error("connection ended after " + std::to_string(iFilled) + " of " +
                                     std::to_string(iSize) + " bytes");
        }
        iFilled += static_cast<std::size_t>(iGot);
    }
    return sBytes;
}

std::string RpcClient::Receive(std::chrono::milliseconds limit) {
    std::string sBytes = ReceiveRecord(limit);
    if (m_Look) {
        m_Look(sBytes);
    }
    return sBytes;
}

std::string RpcClient::ReceiveRecord(std::chrono::milliseconds limit) {
    if (m_Transport == Transport::kTcp) {
        const std::string sMark = ReceiveBytes(4, limit);
        const std::size_t iSize = WordAt(sMark, 0) & ~kLastFragment;
        if (iSize > kLargestRecord) {
            throw std::runtime_error("not a record mark: " + Hex(sMark));
        }
        return sMark + ReceiveBytes(iSize, limit);
    }
    if (!WaitReadable(limit)) {
        throw std::runtime_error("no datagram in time");
    }
    std::string sBytes(kLargestDatagram, '\0');
    const ssize_t iGot = ::recv(m_iSocket, sBytes.data(), sBytes.size(), 0);
    if (iGot < 0) {
        Fail("recv of a datagram");
    }
    sBytes.resize(static_cast<std::size_t>(iGot));
    return sBytes;
}

std::string RpcClient::ReceiveUntilQuiet(std::chrono::milliseconds quiet) {
    std::string sBytes;
    std::vector<char> vcPart(kLargestDatagram);
    while (WaitReadable(quiet)) {
        const ssize_t iGot = ::recv(m_iSocket, vcPart.data(), vcPart.size(), 0);
        if (iGot <= 0) {
            break;
        }
        sBytes.append(vcPart.data(), static_cast<std::size_t>(iGot));
    }
    return sBytes;
}

bool RpcClient::StaysSilent(std::chrono::milliseconds time) {
    return !WaitReadable(time);
}

bool RpcClient::IsClosedByPeer(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::array<char, 4096> vcDropped{};
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !WaitReadable(left)) {
            return false;
        }
        if (::recv(m_iSocket, vcDropped.data(), vcDropped.size(), 0) <= 0) {
            return true;
        }
    }
}

RpcReply RpcClient::Call(const RpcCall& call) {
    Send(call.Bytes(m_Transport));
    return ReceiveReply();
}

RpcReply RpcClient::Call(std::uint32_t iProgram, std::uint32_t iVersion, std::uint32_t iProcedure,
                         std::string sArguments) {
    RpcCall call;
    call.iXid = m_iNextXid++;
    call.iProgram = iProgram;
    call.iVersion = iVersion;
    call.iProcedure = iProcedure;
    call.sArguments = std::move(sArguments);
    RpcReply reply = Call(call);
    if (reply.iXid != call.iXid) {
        throw std::runtime_error("reply to another call: XID " + std::to_string(reply.iXid) + ", not " +
                                 std::to_string(call.iXid));
    }
    return reply;
}
