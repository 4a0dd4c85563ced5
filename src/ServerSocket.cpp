// Listening, accepting and the connection limit.
#include "ServerSocket.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DescriptorCache.h"
#include "Reason.h"
#include "RuntimeParam.h"
#include "Socket.h"

// The C library's report of a failed assertion, which <assert.h> declares only where assertions are compiled in.
extern "C" [[noreturn]] void __assert_fail(const char* pcAssertion, const char* pcFile, unsigned int iLine,
                                           const char* pcFunction) noexcept;

namespace {

/// How often a new connection that waits for a slot looks at those whose peers have gone.
constexpr std::chrono::milliseconds kSlotPoll{1};
/// So long the end of a connection may take to become known where there is no slot for a new one: a client that closes
/// one and opens the next has sent that end first, but where it is lost on the way the system sends it again only after
/// 200 ms, and then after twice that.
constexpr std::chrono::milliseconds kEndPatience{1000};
/// The pause after a failed accept, so that a lasting failure does not keep a processor busy.
constexpr std::chrono::milliseconds kAcceptPause{50};

/// A client that vanished is noticed after 60 s of silence and five probes 10 s apart; with a reply under way, when
/// it has stayed unacknowledged for the same time.
constexpr int kKeepAliveIdleSeconds = 60;
/// Where there is no slot for a new connection, peers that are silent for this long are asked at once: one that has
/// started anew since, or whose firewall has, answers that it knows of no connection.
constexpr int kKeepAliveDoubtSeconds = 1;
constexpr int kKeepAliveProbes = 5;
constexpr int kKeepAliveIntervalSeconds = 10;
constexpr int kUnacknowledgedMilliseconds =
    (kKeepAliveIdleSeconds + kKeepAliveProbes * kKeepAliveIntervalSeconds) * 1000;

void SetOption(int iSocket, int iLevel, int iOption, int iValue) {
    // A connection serves its calls without these options, only not as well.
    static_cast<void>(::setsockopt(iSocket, iLevel, iOption, &iValue, sizeof(iValue)));
}

/// Replies go out at once, and a vanished client gives its slot back.
void PrepareConnection(int iSocket) {
    SetOption(iSocket, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(iSocket, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(iSocket, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
    SetOption(iSocket, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
    SetOption(iSocket, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
    SetOption(iSocket, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedMilliseconds);
}

/// Takes descriptor 0 if the process runs without standard input, so that no connection is accepted on it.
CDescriptor TakeStandardInput() {
    if (::fcntl(STDIN_FILENO, F_GETFD) != -1 || errno != EBADF) {
        return {};
    }
    CDescriptor descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (descriptor.Get() != STDIN_FILENO) {
        descriptor.Close();  // another thread was faster
    }
    return descriptor;
}

}  // namespace

CServerSocket::CServerSocket() = default;

CServerSocket::~CServerSocket() {
    Close();
}

bool CServerSocket::Open(unsigned long lProgId, int iPort, int nMaxNum, CDescriptorCache* pUtilities, char* pcStatus) {
    Close();
    m_nPort = iPort;
    m_nMaxNum = nMaxNum;
    m_pUtilities = pUtilities;
    m_Standard = TakeStandardInput();
    if (!Listen(pcStatus)) {
        m_Standard.Close();
        return false;
    }
    m_bClosed = false;
    int iError = 0;
    try {
        for (int i = 0; i < m_nMaxNum; ++i) {
            m_pSockets.push_back(std::make_unique<CSocket>(CSocket::kStream, lProgId));
        }
        m_hThread = std::thread(&CServerSocket::Run, this);
    } catch (const std::system_error& error) {
        iError = error.code().value();
    } catch (const std::bad_alloc&) {
        iError = ENOMEM;
    }
    if (iError != 0) {
        WriteReason(pcStatus, "Fail to create server socket. %s", CSystemErrorText(iError).Get());
        Close();
    }
    return iError == 0;
}

bool CServerSocket::Listen(char* pcStatus) {
    CDescriptor listener = CDescriptor::OpenSocket(SOCK_STREAM);
    if (!listener.IsOpen()) {
        WriteReason(pcStatus, "Fail to create server socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    // A restart need not wait for the connections of the last run to time out.
    SetOption(listener.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
    if (!listener.BindToPort(&m_nPort, m_iBindAddress)) {
        WriteReason(pcStatus, "Fail to bind server socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    if (::listen(listener.Get(), m_nMaxNum) != 0) {
        WriteReason(pcStatus, "Fail to listen server socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    m_ServerSocket = std::move(listener);
    return true;
}

void CServerSocket::Close() {
    if (m_bClosed.exchange(true)) {
        return;
    }
    // Cannot fail for a listening socket; it makes the blocked accept return.
    static_cast<void>(::shutdown(m_ServerSocket.Get(), SHUT_RDWR));
    if (m_hThread.joinable()) {
        m_hThread.join();
    }
    m_ServerSocket.Close();
    // All at once: a thread that waits for another's call to end does not hold up its own end.
    for (const auto& pSocket : m_pSockets) {
        pSocket->Shutdown();
    }
    m_pSockets.clear();
    m_Standard.Close();
}

// ---- The accept thread

void CServerSocket::Run() {
    while (!m_bClosed) {
        sockaddr_in peer{};
        CDescriptor connection = Accept(&peer);
        if (!connection.IsOpen()) {
            continue;
        }
        const int i = WaitForFreeSlot(connection.Get());
        if (m_bClosed) {
            break;
        }
        if (!(i < m_nMaxNum)) {
            if (CSocket::IsPeerGone(connection.Get())) {
                continue;  // it is dropped
            }
            __assert_fail("i < m_nMaxNum", "src/ServerSocket.cpp", __LINE__, __PRETTY_FUNCTION__);
        }
        // Without a thread to be had the connection is closed and the slot stays free.
        static_cast<void>(m_pSockets[static_cast<std::size_t>(i)]->Open(connection.Release(), m_pListener, &peer));
    }
}

CDescriptor CServerSocket::Accept(sockaddr_in* pPeer) {
    socklen_t nLength = sizeof(*pPeer);
    CDescriptor connection(::accept4(m_ServerSocket.Get(), reinterpret_cast<sockaddr*>(pPeer), &nLength, SOCK_CLOEXEC));
    if (!connection.IsOpen()) {
        RecoverFromAcceptFailure(errno);
        return {};
    }
    if (connection.Get() == STDIN_FILENO) {
        // Somebody closed standard input while we listen. This counts as no connection, so its peer is told to try
        // again; the descriptor is kept, which keeps the number taken, and closed with the listener.
        static_cast<void>(::shutdown(connection.Get(), SHUT_RDWR));
        static_cast<void>(m_Standard.Release());
        m_Standard = std::move(connection);
        return {};
    }
    connection = CDescriptor::AboveStandard(std::move(connection));
    if (connection.IsOpen()) {
        PrepareConnection(connection.Get());
    }
    return connection;
}

void CServerSocket::RecoverFromAcceptFailure(int iError) {
    if (m_bClosed || iError == EINTR || iError == ECONNABORTED) {
        return;
    }
    if ((iError == EMFILE || iError == ENFILE) && m_pUtilities != nullptr) {
        CSilentParam silent;
        const LogArgu logArgu{"ServerSocket.Run"};
        m_pUtilities->FreeCachedFileHandles(&silent, &logArgu);
    }
    std::this_thread::sleep_for(kAcceptPause);
}

int CServerSocket::WaitForFreeSlot(int iNewcomer) const {
    int i = FindFreeSlot();
    if (i < m_nMaxNum) {
        return i;
    }
    const auto last = std::chrono::steady_clock::now() + kEndPatience;
    const auto mayChange = [&] { return std::chrono::steady_clock::now() < last && !CSocket::IsPeerGone(iNewcomer); };
    SetKeepAliveIdle(kKeepAliveDoubtSeconds);
    while (i == m_nMaxNum && !m_bClosed && (IsAnyPeerGone() || mayChange())) {
        std::this_thread::sleep_for(kSlotPoll);
        i = FindFreeSlot();
    }
    SetKeepAliveIdle(kKeepAliveIdleSeconds);
    return i;
}

void CServerSocket::SetKeepAliveIdle(int iSeconds) const {
    for (const auto& pSocket : m_pSockets) {
        if (pSocket->IsActive()) {
            pSocket->SetKeepAliveIdle(iSeconds);
        }
    }
}

int CServerSocket::FindFreeSlot() const {
    const auto it =
        std::find_if(m_pSockets.begin(), m_pSockets.end(), [](const auto& pSocket) { return !pSocket->IsActive(); });
    return static_cast<int>(it - m_pSockets.begin());
}

bool CServerSocket::IsAnyPeerGone() const {
    return std::any_of(m_pSockets.begin(), m_pSockets.end(),
                       [](const auto& pSocket) { return !pSocket->IsActive() || pSocket->IsPeerGone(); });
}
