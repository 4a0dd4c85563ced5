// The remote control's wire, independent of the code under test: raw records, a raw client and a fake server.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// A record built byte by byte, zero where nothing is put (little-endian).
class RawRecord {
public:
    /// A record of that length with a header of that group and type and the version "1.4".
    RawRecord(std::int32_t iGroup, std::int32_t iType, std::size_t iLength);

    RawRecord& I32(std::size_t iOffset, std::int32_t iValue);
    RawRecord& U64(std::size_t iOffset, std::uint64_t iValue);
    RawRecord& Byte(std::size_t iOffset, unsigned char cValue);
    RawRecord& Text(std::size_t iOffset, std::string_view sText);
    const std::string& Bytes() const { return m_sBytes; }

private:
    std::string m_sBytes;
};

inline RawRecord RawReply(std::int32_t iType, std::size_t iLength) {
    return RawRecord(1, iType, iLength);
}
inline RawRecord RawRequest(std::int32_t iType, std::size_t iLength) {
    return RawRecord(2, iType, iLength);
}
inline RawRecord RawCallback(std::int32_t iType, std::size_t iLength) {
    return RawRecord(3, iType, iLength);
}
std::string RawBoolReply(bool bVal);
std::string RawIntReply(std::int32_t iVal);
/// Type 4 (an exception) or 5 (a message).
std::string RawTextReply(std::int32_t iType, std::string_view sText);

std::int32_t I32At(std::string_view sBytes, std::size_t iOffset);
std::uint64_t U64At(std::string_view sBytes, std::size_t iOffset);
/// The text of a field, up to its first zero byte.
std::string TextAt(std::string_view sBytes, std::size_t iOffset, std::size_t iSize);
/// Where two byte strings first differ, with both values and the lengths; empty if they are equal.
std::string Difference(std::string_view sExpected, std::string_view sSeen);

/// One raw connection to a channel. Throws std::runtime_error when it cannot be made.
class IpcConnection {
public:
    explicit IpcConnection(const std::string& sChannel);
    ~IpcConnection();
    IpcConnection(const IpcConnection&) = delete;
    IpcConnection& operator=(const IpcConnection&) = delete;

    /// True if all bytes were taken.
    bool Send(std::string_view sBytes);
    void ShutdownSend();
    /// True when the peer has read all that was sent.
    bool IsTaken() const;
    /// Everything up to the peer's end; nothing when the peer has not ended within the limit.
    std::optional<std::string> ReceiveAll(std::chrono::milliseconds limit = std::chrono::seconds(20));

private:
    int m_iSocket;
};

/// Sends a record and returns all that comes back ("" also when the peer ends without a reply).
std::string IpcExchange(const std::string& sChannel, std::string_view sBytes);

/// Listens on a channel and answers every connection's message on a thread of its own.
class FakeIpcServer {
public:
    /// Gets a message as it came (up to 4096 bytes); what it returns is sent back.
    using Answer = std::function<std::string(const std::string&)>;

    FakeIpcServer(const std::string& sChannel, Answer answer);
    ~FakeIpcServer();
    FakeIpcServer(const FakeIpcServer&) = delete;
    FakeIpcServer& operator=(const FakeIpcServer&) = delete;

    std::vector<std::string> Messages() const;
    /// The messages but those that ask for the version.
    std::vector<std::string> MessagesButVersion() const;
    bool WaitForMessages(std::size_t iCount, std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    void Clear();
    /// From now on connections are accepted and their messages read, but not answered until the server goes.
    void Hang() { m_bHang = true; }
    /// Answers what is not answered yet, and all that comes from now on.
    void Recover();

private:
    void Run();
    std::string Read(int iConnection);
    void Reply(int iConnection, const std::string& sMessage);

    std::string m_sChannel;
    Answer m_Answer;
    int m_iSocket = -1;
    int m_iWake = -1;
    std::atomic<bool> m_bHang{false};
    std::atomic<bool> m_bEnd{false};
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    std::vector<std::string> m_vsMessages;
    std::thread m_Thread;
};
