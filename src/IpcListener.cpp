// A listening local socket and its file.
#include "IpcListener.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Reason.h"

namespace {

/// What a socket file is made with, before it gets its group and mode.
constexpr mode_t kOwnerOnly = 0700;

}  // namespace

bool CIpcListener::Open(const char* pcPath, char* pcReason, const IpcSocketAccess& access) {
    m_Wake = CDescriptor::AboveStandard(CDescriptor(::eventfd(0, EFD_CLOEXEC)));
    int iError = m_Wake.IsOpen() ? m_Socket.Create() : errno;
    if (iError != 0) {
        WriteReason(pcReason, "Fail to open ipc server socket. %s", CSystemErrorText(iError).Get());
        return false;
    }
    iError = CIpcSocket::MakeAddress(pcPath, &m_Address);
    if (iError != 0) {
        WriteReason(pcReason, "Fail to bind ipc server socket. %s", CSystemErrorText(iError).Get());
        return false;
    }
    return Bind(access, pcReason);
}

bool CIpcListener::Bind(const IpcSocketAccess& access, char* pcReason) {
    ::unlink(m_Address.sun_path);  // a file that stays makes the bind fail
    // Non-blocking, so that a connection that vanishes between poll and accept blocks nobody.
    if (::fcntl(m_Socket.Get(), F_SETFL, O_NONBLOCK) != 0 || ::fchmod(m_Socket.Get(), kOwnerOnly) != 0 ||
        ::bind(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&m_Address), sizeof(m_Address)) != 0) {
        WriteReason(pcReason, "Fail to bind ipc server socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    m_bBound = true;
    // At once: who sees the file takes the socket for one that is served.
    if (::listen(m_Socket.Get(), kBacklog) != 0) {
        WriteReason(pcReason, "Fail to listen ipc server socket. %s", CSystemErrorText(errno).Get());
        Close();
        return false;
    }
    if (!Admit(access, pcReason)) {
        Close();
        return false;
    }
    return true;
}

/// Opens the socket file, which is its owner's alone so far, to whom it is meant for. The mode comes behind the group,
/// so that no other group has it in between; it cannot be given to bind, whose modes the umask narrows.
bool CIpcListener::Admit(const IpcSocketAccess& access, char* pcReason) {
    if (::lstat(m_Address.sun_path, &m_File) != 0) {
        WriteReason(pcReason, "Fail to bind ipc server socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    if (access.iGroup != IpcSocketAccess::kOwnGroup &&
        ::lchown(m_Address.sun_path, static_cast<uid_t>(-1), access.iGroup) != 0) {
        WriteReason(pcReason, "Fail to give ipc server socket to group %lu. %s",
                    static_cast<unsigned long>(access.iGroup), CSystemErrorText(errno).Get());
        return false;
    }
    if (::chmod(m_Address.sun_path, access.iMode) != 0) {
        WriteReason(pcReason, "Fail to bind ipc server socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    return true;
}

int CIpcListener::Accept(CIpcSocket* pConnection) {
    for (;;) {
        if (const int iError = CIpcSocket::WaitReadable(m_Socket.Get(), m_Wake.Get(), {}); iError != 0) {
            return iError;
        }
        *pConnection = CIpcSocket(
            CDescriptor::AboveStandard(CDescriptor(::accept4(m_Socket.Get(), nullptr, nullptr, SOCK_CLOEXEC))));
        if (pConnection->IsOpen()) {
            return 0;
        }
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            return errno;
        }
    }
}

void CIpcListener::WaitForClose(std::chrono::milliseconds limit) const {
    CIpcSocket::WaitReadable(m_Wake.Get(), -1, CIpcSocket::Clock::now() + limit);
}

void CIpcListener::WaitForClose() const {
    CIpcSocket::WaitReadable(m_Wake.Get(), -1, {});
}

void CIpcListener::Close() {
    if (!m_bBound) {
        return;
    }
    m_bBound = false;
    eventfd_write(m_Wake.Get(), 1);  // cannot fail: the counter is far from full
    m_Socket.Shutdown();
    RemoveFile();
}

void CIpcListener::RemoveFile() {
    struct stat now {};
    const bool bOwn =
        ::lstat(m_Address.sun_path, &now) == 0 && now.st_dev == m_File.st_dev && now.st_ino == m_File.st_ino;
    m_bFileLeft = bOwn && ::unlink(m_Address.sun_path) != 0;
}
