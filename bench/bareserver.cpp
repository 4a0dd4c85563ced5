// The floor that an NFS server is measured against: for every call the same pread, pwrite, open or unlink and a reply
// of the same size, received and sent with as few system calls as can be, and nothing else.
//
// usage: bareserver PORT [look]
//
// With "look" it looks at a path for each call as the NFS server must, which answers by what is there now and follows
// no link out of an export: that floor tells what the promise costs.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <endian.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "BareProtocol.h"

namespace {

bool ReceiveAll(int iSocket, void* pvBytes, std::size_t nBytes) {
    return nBytes == 0 || ::recv(iSocket, pvBytes, nBytes, MSG_WAITALL) == static_cast<ssize_t>(nBytes);
}

/// A descriptor that goes with its scope.
class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int iDescriptor) : m_iDescriptor(iDescriptor) {}
    ~OwnedDescriptor() {
        if (m_iDescriptor >= 0) {
            ::close(m_iDescriptor);
        }
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    int Get() const { return m_iDescriptor; }

private:
    int m_iDescriptor;
};

/// Bytes that begin on a page: where they lie a little behind one, some processors copy several times slower.
class PageBuffer {
public:
    explicit PageBuffer(std::size_t nSize)
        : m_nSize(nSize),
          m_pvBytes(::mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (m_pvBytes == MAP_FAILED) {
            std::abort();
        }
    }
    ~PageBuffer() { ::munmap(m_pvBytes, m_nSize); }
    PageBuffer(const PageBuffer&) = delete;
    PageBuffer& operator=(const PageBuffer&) = delete;
    char* Get() { return static_cast<char*>(m_pvBytes); }
    std::size_t GetSize() const { return m_nSize; }

private:
    std::size_t m_nSize;
    void* m_pvBytes;
};

/// Opens what a path names, through no link, asks for its status, and closes it.
bool LookAt(const char* pcPath) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    const OwnedDescriptor found(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, pcPath, &how, sizeof(how))));
    struct stat status {};
    return ::fstat(found.Get(), &status) == 0;
}

/// One connection.
class Connection {
public:
    Connection(int iSocket, bool bLook) : m_Socket(iSocket), m_bLook(bLook) {}

    /// Answers until the peer is gone or says something wrong.
    void Run() {
        if (!ReadSetup()) {
            return;
        }
        const OwnedDescriptor readFile(::open(m_Setup.cReadPath, O_RDONLY | O_CLOEXEC));
        const OwnedDescriptor writeFile(::open(m_Setup.cWritePath, O_RDWR | O_CLOEXEC));
        const OwnedDescriptor folder(::open(m_Setup.cFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        m_iReadFile = readFile.Get();
        m_iWriteFile = writeFile.Get();
        m_iFolder = folder.Get();
        while (ServeOnce()) {
        }
    }

private:
    bool ReadSetup() {
        if (!ReceiveAll(m_Socket.Get(), &m_Setup, sizeof(m_Setup)) || m_Setup.nKinds > kMostBareKinds) {
            return false;
        }
        m_Setup.cReadPath[sizeof(m_Setup.cReadPath) - 1] = '\0';
        m_Setup.cWritePath[sizeof(m_Setup.cWritePath) - 1] = '\0';
        m_Setup.cFolder[sizeof(m_Setup.cFolder) - 1] = '\0';
        for (std::uint32_t i = 0; i < m_Setup.nKinds; ++i) {
            const BareKind& kind = m_Setup.kinds[i];
            if (kind.iCallSize <= kXidAt + 4 || kind.iCallSize > kBareBufferSize || kind.iReplySize <= kXidAt + 4 ||
                kind.iReplySize > kBareCollected || !Fits(kind)) {
                return false;
            }
            m_vReplies.emplace_back(kind.iReplySize, '\0');
            if (!ReceiveAll(m_Socket.Get(), m_vReplies.back().data(), kind.iReplySize)) {
                return false;
            }
        }
        return true;
    }

    /// What a kind names lies inside its calls and replies.
    static bool Fits(const BareKind& kind) {
        const std::uint32_t nHolder = kind.work == BareWork::kWrite ? kind.iCallSize : kind.iReplySize;
        return kind.iDataAt <= nHolder && kind.nData <= nHolder - kind.iDataAt && kind.iCallSize >= 8 &&
               kind.iOffsetAt <= kind.iCallSize - 8 && kind.iNameAt < kind.iCallSize;
    }

    /// Receives as much as there is and answers every complete call; the replies leave together.
    bool ServeOnce() {
        const ssize_t nReceived = ::recv(m_Socket.Get(), m_Calls.Get() + m_nFilled, m_Calls.GetSize() - m_nFilled, 0);
        if (nReceived <= 0) {
            return false;
        }
        m_nFilled += static_cast<std::size_t>(nReceived);
        std::size_t iNext = 0;
        while (m_nFilled - iNext > kXidAt) {
            const std::size_t iKind = static_cast<unsigned char>(m_Calls.Get()[iNext + kXidAt]);
            if (iKind >= m_vReplies.size()) {
                return false;
            }
            const BareKind& kind = m_Setup.kinds[iKind];
            if (m_nFilled - iNext < kind.iCallSize) {
                break;
            }
            if (m_nCollected + kind.iReplySize > m_Collected.GetSize() && !SendCollected()) {
                return false;
            }
            if (!Answer(kind, m_vReplies[iKind], m_Calls.Get() + iNext)) {
                return false;
            }
            iNext += kind.iCallSize;
        }
        m_nFilled -= iNext;
        std::memmove(m_Calls.Get(), m_Calls.Get() + iNext, m_nFilled);
        return SendCollected();
    }

    /// Does the work of one call and collects its reply.
    bool Answer(const BareKind& kind, const std::string& sReply, const char* pcCall) {
        char* pcReply = m_Collected.Get() + m_nCollected;
        const std::size_t nHead = kind.work == BareWork::kRead ? kind.iDataAt : kind.iReplySize;
        std::memcpy(pcReply, sReply.data(), nHead);
        std::memcpy(pcReply + kXidAt, pcCall + kXidAt, sizeof(std::uint32_t));
        m_nCollected += kind.iReplySize;
        if (m_bLook && !LookAt(kind.work == BareWork::kWrite ? m_Setup.cWritePath : m_Setup.cReadPath)) {
            return false;
        }
        std::uint64_t iOffset = 0;
        std::memcpy(&iOffset, pcCall + kind.iOffsetAt, sizeof(iOffset));
        const off_t iPosition = static_cast<off_t>(be64toh(iOffset));
        const auto nData = static_cast<ssize_t>(kind.nData);
        switch (kind.work) {
            case BareWork::kRead:
                return ::pread(m_iReadFile, pcReply + kind.iDataAt, kind.nData, iPosition) == nData;
            case BareWork::kWrite:
                return ::pwrite(m_iWriteFile, pcCall + kind.iDataAt, kind.nData, iPosition) == nData;
            case BareWork::kCreate:
                return OwnedDescriptor(
                           ::openat(m_iFolder, pcCall + kind.iNameAt, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0644))
                           .Get() >= 0;
            case BareWork::kRemove:
                return ::unlinkat(m_iFolder, pcCall + kind.iNameAt, 0) == 0;
            case BareWork::kNothing:
                break;
        }
        return true;
    }

    bool SendCollected() {
        const auto nBytes = static_cast<ssize_t>(m_nCollected);
        m_nCollected = 0;
        return nBytes == 0 ||
               ::send(m_Socket.Get(), m_Collected.Get(), static_cast<std::size_t>(nBytes), MSG_NOSIGNAL) == nBytes;
    }

    OwnedDescriptor m_Socket;
    const bool m_bLook;
    BareSetup m_Setup;
    std::vector<std::string> m_vReplies;
    PageBuffer m_Calls{kBareBufferSize};
    PageBuffer m_Collected{kBareCollected};
    std::size_t m_nFilled = 0;
    std::size_t m_nCollected = 0;
    int m_iReadFile = -1;
    int m_iWriteFile = -1;
    int m_iFolder = -1;
};

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
    const bool bLook = argc == 3 && std::strcmp(argv[2], "look") == 0;
    if (argc != 2 && !bLook) {
        std::fprintf(stderr, "usage: bareserver PORT [look]\n");
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
        std::thread([iSocket, bLook] { Connection(iSocket, bLook).Run(); }).detach();
    }
}
