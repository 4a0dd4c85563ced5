// CDatagramSocket: a UDP port.
#pragma once

#include <cstdint>
#include <memory>

class CSocket;
class CUtilities;
class ISocketListener;

/// Serves one IPv4 UDP port by a CSocket in datagram mode, which owns the descriptor and the thread.
/// Open, Close and SetListener are called by one thread at a time.
class CDatagramSocket {
public:
    CDatagramSocket();
    virtual ~CDatagramSocket();
    CDatagramSocket(const CDatagramSocket&) = delete;
    CDatagramSocket& operator=(const CDatagramSocket&) = delete;

    /// Serves the port (0: any free one) for the RPC program. On failure a one-line reason is left in the buffer of
    /// kReasonBufferSize characters (may be null).
    bool Open(unsigned long lProgId, int iPort, CUtilities* pUtilities, char* pcStatus);
    /// Ends the thread, then closes the descriptor. Safe on a closed socket.
    void Close();

    /// Not owned; set before Open.
    void SetListener(ISocketListener* pListener) { m_pListener = pListener; }
    /// The IPv4 address, in host byte order, to serve from the next Open on; 0: all of the machine's.
    void SetBindAddress(std::uint32_t iAddress) { m_iBindAddress = iAddress; }
    int GetPort() const { return m_iPort; }

private:
    std::uint32_t m_iBindAddress = 0;
    int m_iPort = 0;
    std::unique_ptr<CSocket> m_pSocket;  ///< null when closed
    ISocketListener* m_pListener = nullptr;
};
