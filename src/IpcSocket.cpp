// One end of a local stream socket.
#include "IpcSocket.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "IpcMessages.h"

namespace {

/// The time left, rounded up so that a poll never returns just before the deadline; -1 without one.
int RemainingMs(const CIpcSocket::Deadline& deadline) {
    if (!deadline) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - CIpcSocket::Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

/// How long the record that begins with these bytes is: at least the header, whose type tells.
std::size_t TargetLength(const IpcDataBuf& data) {
    if (data.lDataLen < static_cast<std::int64_t>(sizeof(Ipc_Header))) {
        return sizeof(Ipc_Header);
    }
    Ipc_Header header;
    std::memcpy(&header, data.cBuf, sizeof(header));
    return GetIpcRecordLength(header.iGroup, header.iType);
}

int ReceiveSome(int iSocket, IpcDataBuf* pData, ssize_t* piReceived) {
    const auto iHave = static_cast<std::size_t>(pData->lDataLen);
    do {
        *piReceived = ::recv(iSocket, pData->cBuf + iHave, sizeof(pData->cBuf) - iHave, MSG_DONTWAIT);
    } while (*piReceived < 0 && errno == EINTR);
    if (*piReceived < 0) {
        return errno;
    }
    pData->lDataLen += *piReceived;
    return 0;
}

}  // namespace

int CIpcSocket::MakeAddress(const char* pcPath, sockaddr_un* pAddress) {
    *pAddress = {};
    pAddress->sun_family = AF_UNIX;
    const std::size_t iLength = std::strlen(pcPath);
    if (iLength >= sizeof(pAddress->sun_path)) {
        return ENAMETOOLONG;
    }
    std::memcpy(pAddress->sun_path, pcPath, iLength + 1);
    return 0;
}

int CIpcSocket::WaitReadable(int iSocket, int iWake, const Deadline& deadline) {
    for (;;) {
        pollfd polled[2] = {{iSocket, POLLIN, 0}, {iWake, POLLIN, 0}};  // poll passes over negative descriptors
        const int iReady = ::poll(polled, 2, RemainingMs(deadline));
        if (iReady < 0 && errno != EINTR) {
            return errno;
        }
        if (iReady > 0) {
            return polled[1].revents != 0 ? ECANCELED : 0;
        }
        if (iReady == 0) {
            return ETIMEDOUT;
        }
    }
}

int CIpcSocket::Create() {
    m_Descriptor = CDescriptor::AboveStandard(CDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    return IsOpen() ? 0 : errno;
}

int CIpcSocket::Connect(const char* pcPath, const Deadline& deadline) {
    sockaddr_un address;
    if (const int iError = MakeAddress(pcPath, &address); iError != 0) {
        return iError;
    }
    for (;;) {
        if (deadline) {
            // The only bound that a connect waiting in a full queue knows. Zero would mean none.
            const int iLeft = std::max(RemainingMs(deadline), 1);
            const timeval limit{iLeft / 1000, (iLeft % 1000) * 1000L};
            if (::setsockopt(Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0) {
                return errno;
            }
        }
        if (::connect(Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return errno == EAGAIN ? ETIMEDOUT : errno;
        }
    }
}

int CIpcSocket::TryConnect(const char* pcPath) {
    sockaddr_un address;
    if (const int iError = MakeAddress(pcPath, &address); iError != 0) {
        return iError;
    }
    if (::fcntl(Get(), F_SETFL, O_NONBLOCK) != 0) {
        return errno;
    }
    int iDone;
    do {
        iDone = ::connect(Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (iDone != 0 && errno == EINTR);
    return iDone == 0 ? 0 : errno;
}

int CIpcSocket::Send(const IpcDataBuf& data, long* piSent) {
    *piSent = 0;
    while (*piSent < data.lDataLen) {
        const ssize_t iSent =
            ::send(Get(), data.cBuf + *piSent, static_cast<std::size_t>(data.lDataLen - *piSent), MSG_NOSIGNAL);
        if (iSent > 0) {
            *piSent += iSent;
        } else if (errno != EINTR) {
            return *piSent == 0 ? errno : 0;
        }
    }
    return 0;
}

int CIpcSocket::Receive(IpcDataBuf* pData, int iWake, const Deadline& deadline) {
    std::memset(pData, 0, sizeof(*pData));
    Deadline next = deadline;
    Deadline rest;
    while (static_cast<std::size_t>(pData->lDataLen) < TargetLength(*pData)) {
        int iError = WaitReadable(Get(), iWake, next);
        ssize_t iReceived = 0;
        if (iError == 0) {
            iError = ReceiveSome(Get(), pData, &iReceived);
        }
        if (iError == EAGAIN) {
            continue;
        }
        if (iError != 0 && pData->lDataLen == 0) {
            return iError;
        }
        if (iError == ECANCELED) {
            return iError;
        }
        if (iError != 0 || iReceived == 0) {
            return 0;  // the peer ended, or pauses: what came is the message
        }
        const auto now = Clock::now();
        if (!rest) {
            rest = now + kRestTimeout;
        }
        next = std::min(now + kPauseTimeout, *rest);
    }
    return 0;
}

int CIpcSocket::ReceiveRest(IpcDataBuf* pData, const Deadline& deadline) {
    while (static_cast<std::size_t>(pData->lDataLen) < TargetLength(*pData)) {
        int iError = WaitReadable(Get(), -1, deadline);
        ssize_t iReceived = 0;
        if (iError == 0) {
            iError = ReceiveSome(Get(), pData, &iReceived);
        }
        if (iError == EAGAIN) {
            continue;
        }
        if (iError != 0 || iReceived == 0) {
            return pData->lDataLen == 0 ? iError : 0;
        }
    }
    return 0;
}

int CIpcSocket::ReceiveAtOnce(IpcDataBuf* pData) {
    std::memset(pData, 0, sizeof(*pData));
    ssize_t iReceived = 0;
    const int iError = ReceiveSome(Get(), pData, &iReceived);
    return iError == EAGAIN ? ETIMEDOUT : iError;
}

bool CIpcSocket::IsReadable() const {
    return WaitReadable(Get(), -1, Clock::now()) != ETIMEDOUT;
}

void CIpcSocket::DiscardInput() {
    constexpr int kMaxReads = 256;  // a megabyte; who sends more than that wants no reply
    char vcBuf[kIpcDataBufSize];
    for (int i = 0; i < kMaxReads; ++i) {
        if (::recv(Get(), vcBuf, sizeof(vcBuf), MSG_DONTWAIT) <= 0) {
            return;
        }
    }
}

void CIpcSocket::Shutdown() {
    if (IsOpen()) {
        ::shutdown(Get(), SHUT_RDWR);  // fails only where the peer is gone already
    }
}
