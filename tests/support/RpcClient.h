// A small ONC RPC client for tests (RFC 5531): sends any bytes, whole calls or pieces of them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Xdr.h"

enum class Transport { kTcp, kUdp };

inline constexpr std::uint32_t kPortmapProgram = 100000;
inline constexpr std::uint32_t kNfsProgram = 100003;
inline constexpr std::uint32_t kMountProgram = 100005;

/// RFC 5531 accept statuses.
inline constexpr std::uint32_t kAcceptSuccess = 0;
inline constexpr std::uint32_t kAcceptProgUnavail = 1;
inline constexpr std::uint32_t kAcceptProcUnavail = 3;
inline constexpr std::uint32_t kAcceptGarbageArgs = 4;

/// The fields of a call, with what an ordinary client sends as defaults.
struct RpcCall {
    std::uint32_t iXid = 0x01020304;
    std::uint32_t iProgram = 0;
    std::uint32_t iVersion = 3;
    std::uint32_t iProcedure = 0;
    std::string sArguments;
    std::uint32_t iCredFlavor = 0;
    std::string sCred;
    std::uint32_t iVerfFlavor = 0;
    std::string sVerf;

    /// The call as it goes over the transport: with its record mark for TCP.
    std::string Bytes(Transport transport) const;
};

/// A reply taken apart. The body is what follows the accept status.
struct RpcReply {
    std::uint32_t iRecordMark = 0;  ///< TCP only
    std::uint32_t iXid = 0;
    std::uint32_t iMessageType = 0;
    std::uint32_t iReplyStatus = 0;
    std::uint32_t iVerfFlavor = 0;
    std::uint32_t iVerfLength = 0;
    std::uint32_t iAcceptStatus = 0;
    std::string sBody;
    std::string sRaw;

    /// Throws std::out_of_range for a reply that is too short to be one.
    static RpcReply Parse(Transport transport, const std::string& sRaw);
};

/// One connection (TCP) or one socket (UDP) to a server. Operations throw std::runtime_error when the network does
/// not do what was asked within the time limit.
class RpcClient {
public:
    static constexpr std::chrono::milliseconds kLimit{20000};  ///< for what must come; slow machines included

    /// Connects; the source address decides which client the server takes this for (127.0.0.0/8).
    RpcClient(Transport transport, int iPort, const std::string& sSourceAddress = "127.0.0.1",
              const std::string& sServerAddress = "127.0.0.1");
    ~RpcClient();
    RpcClient(const RpcClient&) = delete;
    RpcClient& operator=(const RpcClient&) = delete;

    Transport GetTransport() const { return m_Transport; }
    int GetSocket() const { return m_iSocket; }

    /// Sends the bytes as they are: a piece of a stream, or one datagram.
    void Send(std::string_view sBytes);
    /// Sends a call and waits for its reply.
    RpcReply Call(const RpcCall& call);
    /// The same with the fields that vary; every call gets a new XID, and the reply's is checked.
    RpcReply Call(std::uint32_t iProgram, std::uint32_t iVersion, std::uint32_t iProcedure, std::string sArguments);

    /// Receives one record by its mark (TCP; the mark is part of the result) or one datagram (UDP).
    std::string Receive(std::chrono::milliseconds limit = kLimit);
    RpcReply ReceiveReply(std::chrono::milliseconds limit = kLimit) {
        return RpcReply::Parse(m_Transport, Receive(limit));
    }
    /// Shows each record or datagram that Receive gets, as it came, to the function before it is returned.
    void ShowReplies(std::function<void(const std::string&)> look) { m_Look = std::move(look); }
    /// Receives exactly that many bytes of a stream.
    std::string ReceiveBytes(std::size_t iSize, std::chrono::milliseconds limit = kLimit);
    /// Whatever comes within the time, up to the first pause of that length: for bytes behind a reply.
    std::string ReceiveUntilQuiet(std::chrono::milliseconds quiet);
    /// True if nothing comes, and the peer does not close, within the time.
    bool StaysSilent(std::chrono::milliseconds time);
    /// True if the peer closes (or resets) the connection within the time; bytes before that are dropped.
    bool IsClosedByPeer(std::chrono::milliseconds limit = kLimit);

    /// Half-closes: the server sees the end of the stream.
    void ShutdownSend();
    void Close();

private:
    bool WaitReadable(std::chrono::milliseconds limit);
    std::string ReceiveRecord(std::chrono::milliseconds limit);

    std::function<void(const std::string&)> m_Look;
    Transport m_Transport;
    int m_iSocket = -1;
    std::uint32_t m_iNextXid = 1;
};
