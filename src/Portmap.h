// CPortmap: registration of ports with the portmapper of the system (RFC 1833).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <utility>

#include "Descriptor.h"

class CLog;
class CRuntimeParam;
class CServerSocket;
struct LogArgu;
struct LogContext;

/// Tells a running system portmapper, through the ONC RPC library, where our programs are found. Whether one runs is
/// decided once, at construction: it does if port 111 cannot be bound.
///
/// One that hangs, or is kept off by packet filters, holds up a start or a stop for CPortmapPing::kLimit: it is asked
/// before each of our calls, and once it was silent this object does not go to it again.
///
/// The library's service transports are used only for what their registration does; none is ever serviced.
/// Not locked: used by the controller that starts and stops the server. Messages need the portmap log bit.
class CPortmap {
public:
    /// Neither the log (may be null) nor the parameter is owned; both outlive this object. Port 111 is probed on the
    /// address that the server listens on (0: all), as that is where clients ask.
    CPortmap(CLog* pUtilities, CRuntimeParam* pRuntimeParam, std::uint32_t iBindAddress = 0);
    virtual ~CPortmap();
    CPortmap(const CPortmap&) = delete;
    CPortmap& operator=(const CPortmap&) = delete;

    bool IsRunning() const { return bIsRunning; }
    /// With bForceCheck port 111 is probed anew (the stored answer stays).
    bool IsRunning(bool bForceCheck);
    /// Why port 111 could not be bound, an error number; 0 if it could.
    int GetProbeError() const { return m_iProbeError; }

    /// Registers a program version for UDP and TCP with the port that the TCP socket is bound to; earlier entries of
    /// the program version are dropped first. The socket stays the caller's. With socket 0 one is made for the port
    /// and held until the program is unregistered. On failure a one-line reason is left in the buffer of
    /// kReasonBufferSize characters (may be null).
    bool Register(unsigned long lProgNum, unsigned long lProgVer, int sock, unsigned long lPort, char* pcStatus);
    bool Register(unsigned long lProgNum, unsigned long lProgVer, CServerSocket* pServerSocket, char* pcStatus);
    /// Where the portmapper does not answer, the programs stay registered, with a reason; the next registration of the
    /// same programs replaces them.
    void Unregister(unsigned long lProgNum, unsigned long lProgVer, char* pcStatus);

private:
    /// Results of CreateSocket that are no descriptor.
    static constexpr int kNoSocket = -1;
    static constexpr int kNotBound = -2;

    /// The question is put once; who was silent is taken to remain so.
    bool IsAnswering(const LogArgu* pLogArgu, std::chrono::milliseconds limit);
    bool RegisterSvc(long lProgNum, long lProgVer, int sock, char* pcStatus);
    static bool RegisterUdp(const LogContext& log, long lProgNum, long lProgVer, int sock, char* pcStatus);
    static bool RegisterTcp(const LogContext& log, long lProgNum, long lProgVer, int sock, char* pcStatus);
    int CreateSocket(unsigned long lPort, char* pcStatus) const;

    bool bIsRunning = false;
    bool m_bIsSilent = false;
    int m_iProbeError = 0;
    const std::uint32_t m_iBindAddress;
    CLog* m_pUtilities;  ///< of the utilities only the log is used
    CRuntimeParam* m_pRuntimeParam;
    /// Sockets made here, by program and version.
    std::map<std::pair<unsigned long, unsigned long>, CDescriptor> m_OwnSockets;
};
