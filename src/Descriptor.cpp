// Opening sockets and closing descriptors.
#include "Descriptor.h"

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

static_assert(INADDR_ANY == 0);

/// The first number above standard input, output and error.
constexpr int kFirstOwnDescriptor = 3;

}  // namespace

CDescriptor& CDescriptor::operator=(CDescriptor&& other) noexcept {
    if (this != &other) {
        Close();
        m_iDescriptor = other.Release();
    }
    return *this;
}

int CDescriptor::Release() {
    const int iDescriptor = m_iDescriptor;
    m_iDescriptor = -1;
    return iDescriptor;
}

void CDescriptor::Close() {
    if (IsOpen()) {
        ::close(Release());  // the descriptor is gone on Linux whatever the result says
    }
}

bool CDescriptor::BindToPort(int* piPort, std::uint32_t iAddress) const {
    if (*piPort < 0 || *piPort > UINT16_MAX) {
        errno = EINVAL;
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(iAddress);
    address.sin_port = htons(static_cast<in_port_t>(*piPort));
    if (::bind(m_iDescriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return false;
    }
    if (*piPort == 0) {
        socklen_t nLength = sizeof(address);
        if (::getsockname(m_iDescriptor, reinterpret_cast<sockaddr*>(&address), &nLength) != 0) {
            return false;
        }
        *piPort = ntohs(address.sin_port);
    }
    return true;
}

CDescriptor CDescriptor::OpenSocket(int iType) {
    return AboveStandard(CDescriptor(::socket(AF_INET, iType | SOCK_CLOEXEC, 0)));
}

CDescriptor CDescriptor::AboveStandard(CDescriptor descriptor) {
    if (!descriptor.IsOpen() || descriptor.Get() >= kFirstOwnDescriptor) {
        return descriptor;
    }
    CDescriptor moved(::fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, kFirstOwnDescriptor));
    const int iError = errno;
    descriptor.Close();
    errno = iError;
    return moved;
}
