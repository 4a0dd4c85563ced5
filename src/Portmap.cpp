// Registration with the system portmapper through the ONC RPC library (RFC 1833).
#include "Portmap.h"

#include <cerrno>

#include <fcntl.h>
#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>
#include <sys/socket.h>

#include "Log.h"
#include "PortmapPing.h"
#include "Reason.h"
#include "RpcNumbers.h"
#include "RuntimeParam.h"
#include "ServerSocket.h"

namespace {

/// The library wants a function to hand calls to; its transports are never serviced, so none arrives.
void Dispatch(svc_req* /*pRequest*/, SVCXPRT* /*pTransport*/) {}

/// A service transport of the ONC RPC library, made and destroyed around a registration: only the port in it counts.
/// It closes the descriptor it works on, so it is given one of its own for the same socket.
class CServiceTransport {
public:
    using Create = SVCXPRT* (*)(int);

    CServiceTransport(int iSocket, Create create) {
        CDescriptor descriptor(::fcntl(iSocket, F_DUPFD_CLOEXEC, 0));
        if (descriptor.IsOpen()) {
            m_pTransport = create(descriptor.Get());
        }
        if (m_pTransport != nullptr) {
            static_cast<void>(descriptor.Release());
        }
    }
    ~CServiceTransport() {
        if (m_pTransport != nullptr) {
            SVC_DESTROY(m_pTransport);
        }
    }
    CServiceTransport(const CServiceTransport&) = delete;
    CServiceTransport& operator=(const CServiceTransport&) = delete;

    bool IsOpen() const { return m_pTransport != nullptr; }
    bool Register(long lProgNum, long lProgVer, int iProtocol) {
        return ::svc_register(m_pTransport, static_cast<rpcprog_t>(lProgNum), static_cast<rpcvers_t>(lProgVer),
                              Dispatch, iProtocol) != FALSE;
    }

private:
    SVCXPRT* m_pTransport = nullptr;
};

SVCXPRT* CreateUdp(int iSocket) {
    return ::svcudp_create(iSocket);
}

SVCXPRT* CreateTcp(int iSocket) {
    return ::svctcp_create(iSocket, 0, 0);
}

}  // namespace

CPortmap::CPortmap(CLog* pUtilities, CRuntimeParam* pRuntimeParam, std::uint32_t iBindAddress)
    : m_iBindAddress(iBindAddress), m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {
    bIsRunning = IsRunning(true);
}

CPortmap::~CPortmap() = default;

bool CPortmap::IsRunning(bool bForceCheck) {
    if (!bForceCheck) {
        return bIsRunning;
    }
    const LogArgu logArgu{"Portmap.IsRunning"};
    const int iSocket = CreateSocket(kPortmapperPort, nullptr);
    if (iSocket != kNotBound) {
        CDescriptor(iSocket).Close();
        m_iProbeError = 0;
        return false;
    }
    m_iProbeError = errno;
    const LogContext log{m_pUtilities, m_pRuntimeParam, &logArgu};
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Port %ld is already in used", static_cast<long>(kPortmapperPort));
    return true;
}

bool CPortmap::Register(unsigned long lProgNum, unsigned long lProgVer, CServerSocket* pServerSocket, char* pcStatus) {
    return Register(lProgNum, lProgVer, pServerSocket->GetSocket(),
                    static_cast<unsigned long>(pServerSocket->GetPort()), pcStatus);
}

bool CPortmap::Register(unsigned long lProgNum, unsigned long lProgVer, int sock, unsigned long lPort, char* pcStatus) {
    if (!bIsRunning) {
        WriteReason(pcStatus, "Portmapper is not running.");
        return false;
    }
    const LogArgu logArgu{"Portmap.Register"};
    if (!IsAnswering(&logArgu, CPortmapPing::kStartLimit)) {
        WriteReason(pcStatus, "Portmapper does not answer.");
        return false;
    }
    ::pmap_unset(lProgNum, lProgVer);  // a stale entry; there may be none
    char vcReason[kReasonBufferSize] = "";
    if (sock == 0) {
        sock = CreateSocket(lPort, vcReason);
        if (sock < 0) {
            WriteReason(pcStatus, "Fail to opening register socket for port %lu. Reason=%s", lPort, vcReason);
            return false;
        }
        m_OwnSockets[{lProgNum, lProgVer}] = CDescriptor(sock);
    }
    if (!RegisterSvc(static_cast<long>(lProgNum), static_cast<long>(lProgVer), sock, vcReason)) {
        WriteReason(pcStatus, "Fail to register socket for port %lu. Reason=%s", lPort, vcReason);
        return false;
    }
    return true;
}

void CPortmap::Unregister(unsigned long lProgNum, unsigned long lProgVer, char* pcStatus) {
    const LogArgu logArgu{"Portmap.Unregister"};
    if (!bIsRunning) {
        WriteReason(pcStatus, "Portmapper is not running.");
        return;
    }
    if (!IsAnswering(&logArgu, CPortmapPing::kStopLimit)) {
        WriteReason(pcStatus, "Portmapper does not answer.");
        m_OwnSockets.erase({lProgNum, lProgVer});
        return;
    }
    ::svc_unregister(static_cast<rpcprog_t>(lProgNum), static_cast<rpcvers_t>(lProgVer));
    ::pmap_unset(lProgNum, lProgVer);  // what the library's list did not know of; there may be nothing
    m_OwnSockets.erase({lProgNum, lProgVer});
    const LogContext log{m_pUtilities, m_pRuntimeParam, &logArgu};
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Unregistered the program %ld ver=%ld", static_cast<long>(lProgNum),
                 static_cast<long>(lProgVer));
}

bool CPortmap::IsAnswering(const LogArgu* pLogArgu, std::chrono::milliseconds limit) {
    if (!m_bIsSilent && CPortmapPing::IsSilent(limit)) {
        m_bIsSilent = true;
        const LogContext log{m_pUtilities, m_pRuntimeParam, pLogArgu};
        NFS_LOG_INFO(log, kLogPortmap, "[%s] Portmapper does not answer");
    }
    return !m_bIsSilent;
}

bool CPortmap::RegisterSvc(long lProgNum, long lProgVer, int sock, char* pcStatus) {
    const LogArgu logArgu{"Portmap.RegisterSvc"};
    const LogContext log{m_pUtilities, m_pRuntimeParam, &logArgu};
    return RegisterUdp(log, lProgNum, lProgVer, sock, pcStatus) && RegisterTcp(log, lProgNum, lProgVer, sock, pcStatus);
}

/// The TCP socket does for it: UDP is served on the port of the same number.
bool CPortmap::RegisterUdp(const LogContext& log, long lProgNum, long lProgVer, int sock, char* pcStatus) {
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Creating UDP for %ld ver=%ld", lProgNum, lProgVer);
    CServiceTransport udp(sock, CreateUdp);
    if (!udp.IsOpen()) {
        WriteReason(pcStatus, "Cannot create UDP for %ld ver=%ld", lProgNum, lProgVer);
        return false;
    }
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Registering UDP for %ld ver=%ld", lProgNum, lProgVer);
    if (!udp.Register(lProgNum, lProgVer, IPPROTO_UDP)) {
        WriteReason(pcStatus, "Unable to register UDP for %ld ver=%ld", lProgNum, lProgVer);
        return false;
    }
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Registered UDP for %ld ver=%ld", lProgNum, lProgVer);
    return true;
}

bool CPortmap::RegisterTcp(const LogContext& log, long lProgNum, long lProgVer, int sock, char* pcStatus) {
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Creating TCP for %ld ver=%ld", lProgNum, lProgVer);
    CServiceTransport tcp(sock, CreateTcp);
    if (!tcp.IsOpen()) {
        WriteReason(pcStatus, "Cannot create TCP for %ld ver=%ld", lProgNum, lProgVer);
        return false;
    }
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Registering TCP for %ld ver=%ld", lProgNum, lProgVer);
    if (!tcp.Register(lProgNum, lProgVer, IPPROTO_TCP)) {
        WriteReason(pcStatus, "Unable to register TCP for %ld ver=%ld", lProgNum, lProgVer);
        return false;
    }
    NFS_LOG_INFO(log, kLogPortmap, "[%s] Registered TCP for %ld ver=%ld", lProgNum, lProgVer);
    return true;
}

/// The caller owns the socket.
int CPortmap::CreateSocket(unsigned long lPort, char* pcStatus) const {
    CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_STREAM);
    if (!descriptor.IsOpen()) {
        WriteReason(pcStatus, "Error opening socket for port %lu", lPort);
        return kNoSocket;
    }
    const int iOn = 1;
    // Where it fails, a port whose last connections time out counts as taken.
    static_cast<void>(::setsockopt(descriptor.Get(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn)));
    int iPort = static_cast<int>(lPort);
    if (!descriptor.BindToPort(&iPort, m_iBindAddress)) {
        const int iError = errno;
        WriteReason(pcStatus, "Error binding socket with port %lu", lPort);
        descriptor.Close();
        errno = iError;  // for the probe
        return kNotBound;
    }
    return descriptor.Release();
}
