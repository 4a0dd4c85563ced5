// Connecting, sending and receiving.
#include "TcpExchange.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "NfsMessages.h"

namespace {

constexpr std::size_t kLargestRecord = 1U << 20U;
/// A server that says nothing for so long will not answer any more.
constexpr time_t kPatienceSeconds = 30;

}  // namespace

void FailWithErrno(const std::string& sWhat) {
    throw std::runtime_error(sWhat + ": " + std::strerror(errno));
}

int ConnectTo(int iPort) {
    const int iSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(iPort));
    if (iSocket < 0 || ::connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        FailWithErrno("no connection to port " + std::to_string(iPort));
    }
    const int iOn = 1;
    ::setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    const timeval patience{kPatienceSeconds, 0};
    ::setsockopt(iSocket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    return iSocket;
}

void SendAll(int iSocket, std::string_view sBytes) {
    while (!sBytes.empty()) {
        const ssize_t nSent = ::send(iSocket, sBytes.data(), sBytes.size(), MSG_NOSIGNAL);
        if (nSent <= 0) {
            FailWithErrno("send");
        }
        sBytes.remove_prefix(static_cast<std::size_t>(nSent));
    }
}

std::string ReceiveRecord(int iSocket) {
    std::string sRecord(4, '\0');
    if (::recv(iSocket, sRecord.data(), 4, MSG_WAITALL) != 4) {
        FailWithErrno("no reply");
    }
    const std::size_t nBytes = WordAt(sRecord.data()) & ~kLastFragment;
    if (nBytes > kLargestRecord) {
        throw WrongReply("a record of " + std::to_string(nBytes) + " bytes");
    }
    sRecord.resize(4 + nBytes);
    if (::recv(iSocket, sRecord.data() + 4, nBytes, MSG_WAITALL) != static_cast<ssize_t>(nBytes)) {
        FailWithErrno("half a reply");
    }
    return sRecord;
}

std::string Exchange(int iSocket, const std::string& sCall) {
    SendAll(iSocket, sCall);
    return ReceiveRecord(iSocket);
}
