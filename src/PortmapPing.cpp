// One call of NULL over a stream, by the road that the ONC RPC library takes (RFC 5531, 9 and 11).
#include "PortmapPing.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <rpc/rpc.h>
#include <rpc/rpcb_prot.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "Descriptor.h"
#include "RpcNumbers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kLastFragment = 0x80000000U;
constexpr std::uint32_t kRpcVersion = 2;
constexpr std::uint32_t kRpcbindVersion = 3;  // the one that the library speaks

/// A socket whose every step ends at the deadline at the latest.
class CTimedSocket {
public:
    CTimedSocket(int iFamily, Clock::time_point deadline)
        : m_Socket(CDescriptor::AboveStandard(CDescriptor(::socket(iFamily, SOCK_STREAM | SOCK_CLOEXEC, 0)))),
          m_Deadline(deadline) {}

    bool IsOpen() const { return m_Socket.IsOpen(); }
    /// Each of them: 0 or an error number, EAGAIN when the time is over.
    int Connect(const sockaddr* pAddress, socklen_t nSize) {
        return Try(SO_SNDTIMEO, [&] { return ::connect(m_Socket.Get(), pAddress, nSize); });
    }
    int Send(const void* pBytes, std::size_t nBytes) {
        return Try(SO_SNDTIMEO, [&] { return ::send(m_Socket.Get(), pBytes, nBytes, MSG_NOSIGNAL); });
    }
    int AwaitAnswer() {
        char cFirst = 0;
        return Try(SO_RCVTIMEO, [&] { return ::recv(m_Socket.Get(), &cFirst, 1, 0); });
    }

private:
    template <typename Step>
    int Try(int iTimeout, Step step) {
        do {
            const auto nLeft = std::chrono::duration_cast<std::chrono::microseconds>(m_Deadline - Clock::now()).count();
            if (nLeft <= 0) {
                return EAGAIN;
            }
            const timeval left{static_cast<time_t>(nLeft / 1000000), static_cast<suseconds_t>(nLeft % 1000000)};
            if (::setsockopt(m_Socket.Get(), SOL_SOCKET, iTimeout, &left, sizeof(left)) != 0) {
                return errno;
            }
            if (step() >= 0) {
                return 0;
            }
        } while (errno == EINTR);
        return errno == EINPROGRESS ? EAGAIN : errno;  // so a TCP connection tells that its time is over
    }

    CDescriptor m_Socket;
    Clock::time_point m_Deadline;
};

/// Whether the one at that address is silent; nothing if nobody is there to be asked.
std::optional<bool> AskAt(const sockaddr* pAddress, socklen_t nSize, Clock::time_point deadline) {
    CTimedSocket socket(pAddress->sa_family, deadline);
    if (!socket.IsOpen()) {
        return std::nullopt;
    }
    const int iError = socket.Connect(pAddress, nSize);
    if (iError != 0) {
        return iError == EAGAIN ? std::optional(true) : std::nullopt;
    }
    std::array<std::uint32_t, 11> call{0,  // record mark
                                       1,  // transaction
                                       CALL,    kRpcVersion, kPortmapProgramId, kRpcbindVersion,
                                       NULLPROC};  // credential and verifier: none
    call[0] = kLastFragment | static_cast<std::uint32_t>(sizeof(call) - sizeof(call[0]));
    for (std::uint32_t& iWord : call) {
        iWord = htonl(iWord);
    }
    return socket.Send(call.data(), sizeof(call)) == EAGAIN || socket.AwaitAnswer() == EAGAIN;
}

std::optional<bool> AskLocally(Clock::time_point deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof(_PATH_RPCBINDSOCK) <= sizeof(address.sun_path));
    std::memcpy(address.sun_path, _PATH_RPCBINDSOCK, sizeof(_PATH_RPCBINDSOCK));
    return AskAt(reinterpret_cast<const sockaddr*>(&address), sizeof(address), deadline);
}

/// The library prefers IPv6 wherever the system can make such a socket at all.
std::optional<bool> AskByTcp(Clock::time_point deadline) {
    if (CDescriptor(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)).IsOpen()) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
        address.sin6_port = htons(kPortmapperPort);
        return AskAt(reinterpret_cast<const sockaddr*>(&address), sizeof(address), deadline);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(kPortmapperPort);
    return AskAt(reinterpret_cast<const sockaddr*>(&address), sizeof(address), deadline);
}

}  // namespace

bool CPortmapPing::IsSilent(std::chrono::milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    std::optional<bool> bSilent = AskLocally(deadline);
    if (!bSilent) {
        bSilent = AskByTcp(deadline);
    }
    return bSilent.value_or(false);
}
