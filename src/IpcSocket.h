// CIpcSocket: one end of a local stream socket that carries one record each way.
#pragma once

#include <chrono>
#include <optional>
#include <utility>

#include <sys/un.h>

#include "Descriptor.h"

struct IpcDataBuf;

/// Owns a descriptor (close-on-exec, never one of the three standard ones) and closes it once, at the end of its life
/// or in Close.
///
/// Results are 0 or an error number. One thread uses an object at a time, except for Shutdown.
class CIpcSocket {
public:
    using Clock = std::chrono::steady_clock;
    /// A point in time after which an operation gives up with ETIMEDOUT; none: it waits for ever.
    using Deadline = std::optional<Clock::time_point>;

    /// How long a peer that has sent the beginning of a record may pause before what came is taken for all of it.
    static constexpr std::chrono::milliseconds kPauseTimeout = std::chrono::seconds(2);
    /// How long it may take for the rest of a record altogether, so that a trickle holds up nobody.
    static constexpr std::chrono::milliseconds kRestTimeout = std::chrono::seconds(5);

    CIpcSocket() = default;
    /// Takes the descriptor over.
    explicit CIpcSocket(CDescriptor descriptor) : m_Descriptor(std::move(descriptor)) {}

    /// The address of a path; ENAMETOOLONG if it does not fit.
    static int MakeAddress(const char* pcPath, sockaddr_un* pAddress);
    /// Waits until a descriptor has something to read; ECANCELED when the wake descriptor (or -1) has. See poll(2).
    static int WaitReadable(int iSocket, int iWake, const Deadline& deadline);

    int Create();
    /// Waits while the listener's queue is full.
    int Connect(const char* pcPath, const Deadline& deadline);
    /// Without waiting: EAGAIN while the listener's queue is full; may be tried again. The socket is non-blocking then.
    int TryConnect(const char* pcPath);
    /// Writes the whole record. How many bytes of it went goes to piSent: fewer if the peer went away meanwhile, or if
    /// a non-blocking socket takes no more; an error only if none did. A peer that is gone is EPIPE, not a signal.
    int Send(const IpcDataBuf& data, long* piSent);
    /// Reads one record, at most a whole buffer, until it is complete by its type, the peer ends, or the peer pauses
    /// too long; lDataLen is the number of bytes that came (0: the peer ended without a message). The deadline is for
    /// the first byte.
    int Receive(IpcDataBuf* pData, int iWake, const Deadline& deadline);
    /// Goes on with a record out of which ECANCELED came: what has come until the deadline is all of it. ETIMEDOUT if
    /// that is nothing.
    int ReceiveRest(IpcDataBuf* pData, const Deadline& deadline);
    /// Reads what there is of a record, without waiting; ETIMEDOUT if nothing has come.
    int ReceiveAtOnce(IpcDataBuf* pData);
    /// True if something has come, the peer's end and failures included.
    bool IsReadable() const;
    /// Takes what else the peer has sent, up to a bound: closing with unread input would make the peer lose the reply.
    void DiscardInput();
    void Shutdown();
    void Close() { m_Descriptor.Close(); }

    bool IsOpen() const { return m_Descriptor.IsOpen(); }
    int Get() const { return m_Descriptor.Get(); }

private:
    CDescriptor m_Descriptor;
};
