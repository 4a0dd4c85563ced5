// Raw records, a raw client and a fake server for the remote control.
#include "IpcPeer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::size_t kBufferSize = 4096;
constexpr int kBacklog = 128;
constexpr std::string_view kVersion = "1.4";

sockaddr_un MakeAddress(const std::string& sChannel) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (sChannel.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("channel too long: " + sChannel);
    }
    std::memcpy(address.sun_path, sChannel.c_str(), sChannel.size() + 1);
    return address;
}

[[noreturn]] void Throw(const std::string& sWhat) {
    throw std::runtime_error(sWhat + ": " + std::strerror(errno));
}

}  // namespace

// ---- Records

RawRecord::RawRecord(std::int32_t iGroup, std::int32_t iType, std::size_t iLength) : m_sBytes(iLength, '\0') {
    I32(0, iGroup);
    I32(4, iType);
    Text(8, kVersion);
}

RawRecord& RawRecord::I32(std::size_t iOffset, std::int32_t iValue) {
    const auto iBits = static_cast<std::uint32_t>(iValue);
    for (std::size_t i = 0; i < 4; ++i) {
        Byte(iOffset + i, static_cast<unsigned char>(iBits >> (8 * i)));
    }
    return *this;
}

RawRecord& RawRecord::U64(std::size_t iOffset, std::uint64_t iValue) {
    for (std::size_t i = 0; i < 8; ++i) {
        Byte(iOffset + i, static_cast<unsigned char>(iValue >> (8 * i)));
    }
    return *this;
}

RawRecord& RawRecord::Byte(std::size_t iOffset, unsigned char cValue) {
    m_sBytes.at(iOffset) = static_cast<char>(cValue);
    return *this;
}

RawRecord& RawRecord::Text(std::size_t iOffset, std::string_view sText) {
    for (std::size_t i = 0; i < sText.size(); ++i) {
        m_sBytes.at(iOffset + i) = sText[i];
    }
    return *this;
}

std::string RawBoolReply(bool bVal) {
    return RawReply(1, 20).Byte(16, bVal ? 1 : 0).Bytes();
}

std::string RawIntReply(std::int32_t iVal) {
    return RawReply(3, 20).I32(16, iVal).Bytes();
}

std::string RawTextReply(std::int32_t iType, std::string_view sText) {
    return RawReply(iType, 2064).Text(16, sText).Bytes();
}

std::int32_t I32At(std::string_view sBytes, std::size_t iOffset) {
    std::uint32_t iBits = 0;
    for (std::size_t i = 4; i-- > 0;) {
        iBits = iBits << 8 | static_cast<unsigned char>(sBytes.at(iOffset + i));
    }
    return static_cast<std::int32_t>(iBits);
}

std::uint64_t U64At(std::string_view sBytes, std::size_t iOffset) {
    std::uint64_t iBits = 0;
    for (std::size_t i = 8; i-- > 0;) {
        iBits = iBits << 8 | static_cast<unsigned char>(sBytes.at(iOffset + i));
    }
    return iBits;
}

std::string TextAt(std::string_view sBytes, std::size_t iOffset, std::size_t iSize) {
    const std::string_view sField = sBytes.substr(iOffset, iSize);
    return std::string(sField.substr(0, sField.find('\0')));
}

std::string Difference(std::string_view sExpected, std::string_view sSeen) {
    if (sExpected == sSeen) {
        return "";
    }
    std::ostringstream text;
    text << "expected " << sExpected.size() << " bytes, saw " << sSeen.size();
    const auto [expected, seen] = std::mismatch(sExpected.begin(), sExpected.end(), sSeen.begin(), sSeen.end());
    if (expected != sExpected.end() && seen != sSeen.end()) {
        text << "; at offset " << (expected - sExpected.begin()) << " expected "
             << static_cast<int>(static_cast<unsigned char>(*expected)) << ", saw "
             << static_cast<int>(static_cast<unsigned char>(*seen));
    }
    return text.str();
}

// ---- A raw client

IpcConnection::IpcConnection(const std::string& sChannel)
    : m_iSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = MakeAddress(sChannel);
    if (m_iSocket == -1 || ::connect(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int iError = errno;
        ::close(m_iSocket);
        errno = iError;
        Throw("connect to " + sChannel);
    }
}

IpcConnection::~IpcConnection() {
    ::close(m_iSocket);
}

bool IpcConnection::Send(std::string_view sBytes) {
    return ::send(m_iSocket, sBytes.data(), sBytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(sBytes.size());
}

void IpcConnection::ShutdownSend() {
    ::shutdown(m_iSocket, SHUT_WR);
}

bool IpcConnection::IsTaken() const {
    int nUnread = -1;
    return ::ioctl(m_iSocket, SIOCOUTQ, &nUnread) == 0 && nUnread == 0;
}

std::optional<std::string> IpcConnection::ReceiveAll(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::string sAll;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd polled{m_iSocket, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&polled, 1, static_cast<int>(left.count())) == 0) {
            return std::nullopt;
        }
        char vcBuffer[kBufferSize];
        const ssize_t iReceived = ::recv(m_iSocket, vcBuffer, sizeof(vcBuffer), 0);
        if (iReceived <= 0) {
            return sAll;  // a reset ends it like a close
        }
        sAll.append(vcBuffer, static_cast<std::size_t>(iReceived));
    }
}

std::string IpcExchange(const std::string& sChannel, std::string_view sBytes) {
    IpcConnection connection(sChannel);
    if (!connection.Send(sBytes)) {
        Throw("send to " + sChannel);
    }
    const std::optional<std::string> sReply = connection.ReceiveAll();
    if (!sReply) {
        throw std::runtime_error("no reply from " + sChannel);
    }
    return *sReply;
}

// ---- A fake server

FakeIpcServer::FakeIpcServer(const std::string& sChannel, Answer answer)
    : m_sChannel(sChannel), m_Answer(std::move(answer)) {
    m_iWake = ::eventfd(0, EFD_CLOEXEC);
    m_iSocket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = MakeAddress(sChannel);
    if (m_iWake == -1 || m_iSocket == -1 ||
        ::bind(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(m_iSocket, kBacklog) != 0) {
        Throw("listen on " + sChannel);
    }
    m_Thread = std::thread([this] { Run(); });
}

FakeIpcServer::~FakeIpcServer() {
    m_bEnd = true;
    eventfd_write(m_iWake, 1);
    m_Thread.join();
    ::close(m_iSocket);
    ::close(m_iWake);
    ::unlink(m_sChannel.c_str());
}

void FakeIpcServer::Recover() {
    m_bHang = false;
    eventfd_write(m_iWake, 1);
}

void FakeIpcServer::Run() {
    std::vector<std::pair<int, std::string>> vHanging;
    while (!m_bEnd) {
        pollfd polled[2] = {{m_iSocket, POLLIN, 0}, {m_iWake, POLLIN, 0}};
        ::poll(polled, 2, -1);
        if (polled[1].revents != 0) {
            eventfd_t iCount;
            eventfd_read(m_iWake, &iCount);
        }
        if (polled[0].revents != 0) {
            const int iConnection = ::accept4(m_iSocket, nullptr, nullptr, SOCK_CLOEXEC);
            if (iConnection != -1) {
                vHanging.emplace_back(iConnection, Read(iConnection));
            }
        }
        if (!m_bHang && !m_bEnd) {
            for (const auto& [iConnection, sMessage] : vHanging) {
                Reply(iConnection, sMessage);
            }
            vHanging.clear();
        }
    }
    for (const auto& [iConnection, sMessage] : vHanging) {
        ::close(iConnection);
    }
}

std::string FakeIpcServer::Read(int iConnection) {
    char vcBuffer[kBufferSize];
    const ssize_t iReceived = ::recv(iConnection, vcBuffer, sizeof(vcBuffer), 0);
    std::string sMessage(vcBuffer, static_cast<std::size_t>(std::max<ssize_t>(iReceived, 0)));
    {
        const std::lock_guard lock(m_Mutex);
        m_vsMessages.push_back(sMessage);
    }
    m_Changed.notify_all();
    return sMessage;
}

void FakeIpcServer::Reply(int iConnection, const std::string& sMessage) {
    const std::string sReply = m_Answer(sMessage);
    ::send(iConnection, sReply.data(), sReply.size(), MSG_NOSIGNAL);  // the peer may be gone: its own affair
    ::close(iConnection);
}

std::vector<std::string> FakeIpcServer::Messages() const {
    const std::lock_guard lock(m_Mutex);
    return m_vsMessages;
}

std::vector<std::string> FakeIpcServer::MessagesButVersion() const {
    std::vector<std::string> vsMessages = Messages();
    std::erase(vsMessages, RawRequest(1, 16).Bytes());
    return vsMessages;
}

bool FakeIpcServer::WaitForMessages(std::size_t iCount, std::chrono::milliseconds limit) const {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, limit, [&] { return m_vsMessages.size() >= iCount; });
}

void FakeIpcServer::Clear() {
    const std::lock_guard lock(m_Mutex);
    m_vsMessages.clear();
}
