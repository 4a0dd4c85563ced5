// CServerSocket: a TCP listener with a fixed number of connections.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include <netinet/in.h>

#include "Descriptor.h"

class CDescriptorCache;
class CSocket;
class ISocketListener;

/// Accepts IPv4 connections on one port and serves each by one of its CSocket slots.
///
/// The number of slots is a hard invariant: a connection beyond it fails the assertion "i < m_nMaxNum" and ends the
/// process, in every build. A connection whose peer has already closed does not count: the new one waits for its
/// slot, and a new one that is closed again before there is a slot for it is dropped. What the peers have done is
/// judged a second later, as the end of a connection may be lost on the way and be sent again.
///
/// Open, Close and SetListener are called by one thread at a time. The accept thread is the only user of the slots
/// while it runs.
class CServerSocket {
public:
    CServerSocket();
    virtual ~CServerSocket();
    CServerSocket(const CServerSocket&) = delete;
    CServerSocket& operator=(const CServerSocket&) = delete;

    /// Listens on the port (0: any free one) for the RPC program, serving up to nMaxNum connections. On failure a
    /// one-line reason is left in the buffer of kReasonBufferSize characters (may be null). Of the utilities (may be
    /// null) only the descriptor cache is used: it gives descriptors back when accepting runs out of them.
    bool Open(unsigned long lProgId, int iPort, int nMaxNum, CDescriptorCache* pUtilities, char* pcStatus);
    /// Ends the accept thread and every connection, then closes all descriptors. Safe on a closed listener.
    void Close();

    /// The listener is handed to every connection accepted from now on. Not owned; set before Open.
    void SetListener(ISocketListener* pListener) { m_pListener = pListener; }
    /// The IPv4 address, in host byte order, to listen on from the next Open on; 0: all of the machine's.
    void SetBindAddress(std::uint32_t iAddress) { m_iBindAddress = iAddress; }
    int GetPort() const { return m_nPort; }
    /// The listening descriptor, -1 when closed. It stays owned by this object.
    int GetSocket() const { return m_ServerSocket.Get(); }

private:
    bool Listen(char* pcStatus);
    void Run();
    /// The next connection, ready for use; empty if there is none.
    CDescriptor Accept(sockaddr_in* pPeer);
    void RecoverFromAcceptFailure(int iError);
    /// The index of a slot that is not in use, m_nMaxNum if there is none. It waits for the slots of peers that have
    /// gone, and a second for one of them, or the new connection's own, to go.
    int WaitForFreeSlot(int iNewcomer) const;
    int FindFreeSlot() const;
    void SetKeepAliveIdle(int iSeconds) const;
    bool IsAnyPeerGone() const;

    std::uint32_t m_iBindAddress = 0;
    int m_nPort = 0;
    int m_nMaxNum = 0;
    CDescriptor m_ServerSocket;
    CDescriptor m_Standard;  ///< keeps descriptor 0 taken while listening
    std::atomic<bool> m_bClosed{true};
    ISocketListener* m_pListener = nullptr;
    CDescriptorCache* m_pUtilities = nullptr;
    std::thread m_hThread;
    std::vector<std::unique_ptr<CSocket>> m_pSockets;
};
