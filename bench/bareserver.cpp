// The floor that the NFS server is measured against: for every call the same pread or pwrite and a reply of the same
// size, received and sent in the same way, and nothing else.
//
// usage: bareserver PORT
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <endian.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "BareProtocol.h"

namespace {

bool ReceiveAll(int iSocket, void* pvBytes, std::size_t nBytes) {
    return ::recv(iSocket, pvBytes, nBytes, MSG_WAITALL) == static_cast<ssize_t>(nBytes);
}

/// Does the work of one call and sends its reply.
bool Answer(int iSocket, int iFile, const BareSetup& setup, const char* pcCall, char* pcReply) {
    std::uint64_t iOffset = 0;
    if (setup.work != BareWork::kNothing) {
        std::memcpy(&iOffset, pcCall + setup.iOffsetAt, sizeof(iOffset));
    }
    const off_t iPosition = static_cast<off_t>(be64toh(iOffset));
    if (setup.work == BareWork::kRead &&
        ::pread(iFile, pcReply + setup.iDataAt, setup.nData, iPosition) != static_cast<ssize_t>(setup.nData)) {
        return false;
    }
    if (setup.work == BareWork::kWrite &&
        ::pwrite(iFile, pcCall + setup.iDataAt, setup.nData, iPosition) != static_cast<ssize_t>(setup.nData)) {
        return false;
    }
    std::memcpy(pcReply + kXidAt, pcCall + kXidAt, sizeof(std::uint32_t));
    return ::send(iSocket, pcReply, setup.iReplySize, MSG_NOSIGNAL) == static_cast<ssize_t>(setup.iReplySize);
}

/// Receives as much as there is and answers every complete call, as the NFS server does.
void Serve(int iSocket) {
    BareSetup setup;
    std::vector<char> vcReply(kBareBufferSize);
    std::vector<char> vcCalls(kBareBufferSize);
    bool bOk = ReceiveAll(iSocket, &setup, sizeof(setup)) && setup.iCallSize > 0 &&
               setup.iCallSize <= kBareBufferSize && setup.iReplySize <= kBareBufferSize &&
               ReceiveAll(iSocket, vcReply.data(), setup.iReplySize);
    setup.cPath[sizeof(setup.cPath) - 1] = '\0';
    const int iFile = setup.work == BareWork::kNothing ? -1 : ::open(setup.cPath, O_RDWR | O_CLOEXEC);
    std::size_t nFilled = 0;
    while (bOk) {
        const ssize_t nReceived = ::recv(iSocket, vcCalls.data() + nFilled, vcCalls.size() - nFilled, 0);
        bOk = nReceived > 0;
        nFilled += bOk ? static_cast<std::size_t>(nReceived) : 0;
        std::size_t iNext = 0;
        for (; bOk && nFilled - iNext >= setup.iCallSize; iNext += setup.iCallSize) {
            bOk = Answer(iSocket, iFile, setup, vcCalls.data() + iNext, vcReply.data());
        }
        nFilled -= iNext;
        std::memmove(vcCalls.data(), vcCalls.data() + iNext, nFilled);
    }
    if (iFile >= 0) {
        ::close(iFile);
    }
    ::close(iSocket);
}

int Listen(int iPort) {
    const int iListener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int iOn = 1;
    ::setsockopt(iListener, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(iPort));
    if (::bind(iListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(iListener, SOMAXCONN) != 0) {
        std::perror("bareserver: cannot listen");
        std::exit(1);
    }
    return iListener;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bareserver PORT\n");
        return 2;
    }
    const int iListener = Listen(std::atoi(argv[1]));
    for (;;) {
        const int iSocket = ::accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (iSocket < 0) {
            continue;
        }
        const int iOn = 1;
        ::setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
        std::thread(Serve, iSocket).detach();
    }
}
