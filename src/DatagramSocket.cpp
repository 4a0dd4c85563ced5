// Opening and closing a UDP port.
#include "DatagramSocket.h"

#include <cerrno>
#include <new>

#include <sys/socket.h>

#include "Descriptor.h"
#include "Reason.h"
#include "Socket.h"

CDatagramSocket::CDatagramSocket() = default;

CDatagramSocket::~CDatagramSocket() {
    Close();
}

bool CDatagramSocket::Open(unsigned long lProgId, int iPort, CUtilities* /*pUtilities*/, char* pcStatus) {
    Close();
    CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_DGRAM);
    if (!descriptor.IsOpen()) {
        WriteReason(pcStatus, "Fail to create datagram socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    m_iPort = iPort;
    if (!descriptor.BindToPort(&m_iPort, m_iBindAddress)) {
        WriteReason(pcStatus, "Fail to bind datagram socket. %s", CSystemErrorText(errno).Get());
        return false;
    }
    int iError = 0;
    try {
        m_pSocket = std::make_unique<CSocket>(CSocket::kDatagram, lProgId);
        iError = m_pSocket->Open(descriptor.Release(), m_pListener, nullptr) ? 0 : EAGAIN;
    } catch (const std::bad_alloc&) {
        iError = ENOMEM;
    }
    if (iError != 0) {
        WriteReason(pcStatus, "Fail to create datagram socket. %s", CSystemErrorText(iError).Get());
        Close();
    }
    return iError == 0;
}

void CDatagramSocket::Close() {
    m_pSocket.reset();
}
