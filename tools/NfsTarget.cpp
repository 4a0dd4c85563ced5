// Where an export is found: host names, the portmapper's GETPORT (RFC 1833, 3), and what hinders a connection.
#include "NfsTarget.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "NfsError.h"
#include "Wait.h"

namespace {

constexpr std::uint16_t kPortmapperPort = 111;
constexpr std::uint32_t kPortmapperProgram = 100000;
constexpr std::uint32_t kPortmapperVersion = 2;
constexpr std::uint32_t kProcedureGetPort = 3;
constexpr std::uint32_t kNfsProgram = 100003;
constexpr std::uint32_t kMountProgram = 100005;
constexpr std::uint32_t kVersion = 3;
constexpr std::uint32_t kLargestPort = 65535;

/// A portmapper answers at once or is not there; a lost datagram is sent anew.
constexpr int kTries = 3;
constexpr int kTryMilliseconds = 500;
/// How long a refused or swallowed connection is looked into.
constexpr int kConnectMilliseconds = 3000;

using Request = std::array<std::uint32_t, 14>;
constexpr std::size_t kLargestReply = 512;

/// A socket, closed at the end of the scope.
class Socket {
public:
    explicit Socket(int iType) : m_iSocket(::socket(AF_INET, iType | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        if (m_iSocket < 0) {
            throw NfsError(std::string("socket: ") + std::strerror(errno));
        }
    }
    ~Socket() { ::close(m_iSocket); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int Get() const { return m_iSocket; }

private:
    int m_iSocket;
};

sockaddr_in SocketAddress(const NfsTarget& target, int iPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(iPort));
    if (::inet_pton(AF_INET, target.sAddress.c_str(), &address.sin_addr) != 1) {
        throw NfsError("host \"" + target.sHost + "\": no address");
    }
    return address;
}

int Connect(const Socket& socket, const sockaddr_in& address) {
    return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

/// The port in a reply to the request of this ID; nothing if it is no such reply.
std::optional<std::uint32_t> ParseReply(const unsigned char* pcReply, std::size_t nSize, std::uint32_t iId) {
    const auto word = [&](std::size_t iAt) {
        std::uint32_t iWord = 0;
        std::memcpy(&iWord, pcReply + iAt, sizeof(iWord));
        return ntohl(iWord);
    };
    constexpr std::size_t kToVerifier = 20;  // ID, "reply", "accepted", the verifier's flavour and length
    constexpr std::size_t kBehindVerifier = 8;
    if (nSize < kToVerifier || word(0) != iId || word(4) != 1 || word(8) != 0) {
        return std::nullopt;
    }
    const std::size_t nVerifier = word(16);
    if (nVerifier > kLargestReply || nSize < kToVerifier + nVerifier + kBehindVerifier ||
        word(kToVerifier + nVerifier) != 0) {
        return std::nullopt;
    }
    return word(kToVerifier + nVerifier + 4);
}

/// Asks once; nothing when no portmapper answered in time, or (bRefused) when none is there.
std::optional<std::uint32_t> AskOnce(const Socket& socket, const Request& request, int iInterrupt, bool& bRefused) {
    bRefused = ::send(socket.Get(), request.data(), sizeof(request), 0) != static_cast<ssize_t>(sizeof(request));
    if (bRefused) {
        return std::nullopt;
    }
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTryMilliseconds);
    for (;;) {
        const auto tLeft =
            std::chrono::duration_cast<std::chrono::milliseconds>(tEnd - std::chrono::steady_clock::now());
        if (tLeft.count() <= 0) {
            return std::nullopt;
        }
        const Ready ready = WaitReady({socket.Get(), POLLIN}, {}, iInterrupt, static_cast<int>(tLeft.count()));
        if (ready.bInterrupt) {
            throw Interrupted();
        }
        std::array<unsigned char, kLargestReply> vcReply{};
        const ssize_t nReceived = ::recv(socket.Get(), vcReply.data(), vcReply.size(), 0);
        bRefused = nReceived < 0 && errno != EAGAIN;
        if (bRefused) {
            return std::nullopt;
        }
        if (nReceived > 0) {
            const auto oiPort = ParseReply(vcReply.data(), static_cast<std::size_t>(nReceived), ntohl(request[0]));
            if (oiPort) {
                return oiPort;
            }
        }
    }
}

/// The TCP port of a program, 0 if the portmapper knows none; nothing when no portmapper answers.
std::optional<std::uint32_t> AskPort(const Socket& socket, std::uint32_t iProgram, int iInterrupt) {
    std::uint32_t iId = 0;
    if (getrandom(&iId, sizeof(iId), 0) != static_cast<ssize_t>(sizeof(iId))) {
        iId = static_cast<std::uint32_t>(::getpid());  // anything but the last request's will do
    }
    Request request{iId, 0, 2, kPortmapperProgram, kPortmapperVersion, kProcedureGetPort, 0,
                    0,   0, 0, iProgram,           kVersion,           IPPROTO_TCP,       0};
    for (std::uint32_t& iWord : request) {
        iWord = htonl(iWord);
    }
    bool bRefused = false;
    std::optional<std::uint32_t> oiPort;
    for (int i = 0; i < kTries && !oiPort && !bRefused; ++i) {
        oiPort = AskOnce(socket, request, iInterrupt, bRefused);
    }
    return oiPort;
}

}  // namespace

NfsTarget WithAddress(NfsTarget target) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* pFound = nullptr;
    const int iError = ::getaddrinfo(target.sHost.c_str(), nullptr, &hints, &pFound);
    if (iError != 0 || pFound == nullptr) {
        throw NfsError("host \"" + target.sHost + "\" is not known (" + ::gai_strerror(iError) +
                       "); addresses are those of IPv4");
    }
    sockaddr_in address{};
    std::memcpy(&address, pFound->ai_addr, sizeof(address));
    ::freeaddrinfo(pFound);
    std::array<char, INET_ADDRSTRLEN> vcText{};
    ::inet_ntop(AF_INET, &address.sin_addr, vcText.data(), vcText.size());  // there is room for any
    target.sAddress = vcText.data();
    return target;
}

NfsTarget WithPorts(NfsTarget target, int iInterrupt) {
    const sockaddr_in address = SocketAddress(target, kPortmapperPort);
    if (target.iNfsPort == 0 || target.iMountPort == 0) {
        const Socket socket(SOCK_DGRAM);
        bool bAnswers = Connect(socket, address) == 0;
        const auto fill = [&](int& iPort, std::uint32_t iProgram, int iDefault) {
            if (iPort != 0) {
                return;
            }
            const auto oiPort = bAnswers ? AskPort(socket, iProgram, iInterrupt) : std::nullopt;
            bAnswers = oiPort.has_value();
            const bool bKnown = bAnswers && *oiPort >= 1 && *oiPort <= kLargestPort;
            iPort = bKnown ? static_cast<int>(*oiPort) : iDefault;
        };
        fill(target.iNfsPort, kNfsProgram, kDefaultNfsPort);
        fill(target.iMountPort, kMountProgram, kDefaultMountPort);
    }
    return target;
}

std::string WhyUnreachable(const NfsTarget& target, int iPort, int iInterrupt) {
    const Socket socket(SOCK_STREAM);
    int iError = Connect(socket, SocketAddress(target, iPort)) == 0 ? 0 : errno;
    if (iError == EINPROGRESS) {
        const Ready ready = WaitReady({socket.Get(), POLLOUT}, {}, iInterrupt, kConnectMilliseconds);
        if (ready.bInterrupt) {
            throw Interrupted();
        }
        socklen_t iSize = sizeof(iError);
        iError = ETIMEDOUT;
        if (ready.iFirst != 0 && ::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &iError, &iSize) != 0) {
            iError = errno;
        }
    }
    switch (iError) {
        case 0:
            return "";
        case ECONNREFUSED:
            return "connection refused";
        case ETIMEDOUT:
            return "no answer";
        default:
            return std::strerror(iError);
    }
}
