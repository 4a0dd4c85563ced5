// What a socket thread calls when bytes have arrived.
#pragma once

#include <memory>

class CSocket;

/// Receives every batch of bytes that any socket thread takes in. Called on that socket's own thread; several socket
/// threads call at the same time.
class ISocketListener {
public:
    virtual ~ISocketListener() = default;

    /// New bytes stand in the socket's input stream; replies are left in its output stream and sent by CSocket::Send.
    /// Bytes that are not consumed stay (stream sockets) until more have come.
    virtual void SocketReceived(CSocket* pSocket) = 0;

    /// A socket is about to begin receiving, on whatever thread. What is returned is dropped when its receiving has
    /// ended, on its own thread as a rule; the listener need not be there any more.
    virtual std::shared_ptr<void> SocketOpened(CSocket* /*pSocket*/) { return nullptr; }
};
