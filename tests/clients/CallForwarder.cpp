// A forwarder between a client and a server's port that shows every call and every reply to a test.
#include "CallForwarder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace {

constexpr int kLookMilliseconds = 20;
constexpr std::size_t kMark = 4;

sockaddr_in Loopback(std::uint16_t iPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(iPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

CDescriptor Listen(std::uint16_t iPort) {
    CDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    constexpr int kOn = 1;
    EXPECT_EQ(::setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &kOn, sizeof(kOn)), 0);
    const sockaddr_in address = Loopback(iPort);
    EXPECT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener.Get(), 8), 0);
    return listener;
}

std::uint32_t Word(const std::string& sBytes, std::size_t iAt) {
    std::uint32_t iWord = 0;
    if (iAt + sizeof(iWord) <= sBytes.size()) {
        std::memcpy(&iWord, sBytes.data() + iAt, sizeof(iWord));
    }
    return ntohl(iWord);
}

/// Takes a whole record with its mark off the front; empty while there is none.
std::string TakeRecord(std::string& sReceived) {
    const std::size_t nSize = kMark + (Word(sReceived, 0) & 0x7fffffffU);
    if (sReceived.size() < kMark || sReceived.size() < nSize) {
        return "";
    }
    std::string sRecord = sReceived.substr(0, nSize);
    sReceived.erase(0, nSize);
    return sRecord;
}

bool SendAll(const CDescriptor& socket, const std::string& sBytes) {
    std::size_t nSent = 0;
    while (nSent < sBytes.size()) {
        const ssize_t nTaken = ::send(socket.Get(), sBytes.data() + nSent, sBytes.size() - nSent, MSG_NOSIGNAL);
        if (nTaken <= 0) {
            return false;
        }
        nSent += static_cast<std::size_t>(nTaken);
    }
    return true;
}

}  // namespace

CallForwarder::CallForwarder(std::uint16_t iPort, std::uint16_t iServerPort, Judge judge)
    : m_iServerPort(iServerPort), m_Judge(std::move(judge)), m_Listener(Listen(iPort)) {
    m_Thread = std::thread([this] { Run(); });
}

CallForwarder::~CallForwarder() {
    m_bStop = true;
    m_Thread.join();
}

int CallForwarder::Seen(const PassingRecord& record) const {
    const std::lock_guard<std::mutex> lock(m_hMutex);
    return static_cast<int>(std::count(m_Seen.begin(), m_Seen.end(), record));
}

void CallForwarder::Run() {
    while (!m_bStop) {
        std::vector<pollfd> vEntries{{m_Listener.Get(), POLLIN, 0}};
        for (const Connection& connection : m_Connections) {
            vEntries.push_back({connection.client.socket.Get(), POLLIN, 0});
            vEntries.push_back({connection.server.socket.Get(), POLLIN, 0});
        }
        ::poll(vEntries.data(), vEntries.size(), kLookMilliseconds);
        std::size_t iEntry = 1;
        for (auto it = m_Connections.begin(); it != m_Connections.end(); iEntry += 2) {
            const bool bOpen = (vEntries[iEntry].revents == 0 || Forward(*it, false)) &&
                               (vEntries[iEntry + 1].revents == 0 || Forward(*it, true));
            it = bOpen ? std::next(it) : m_Connections.erase(it);
        }
        if (vEntries[0].revents != 0) {
            Accept();
        }
    }
}

void CallForwarder::Accept() {
    Connection connection;
    connection.client.socket = CDescriptor(::accept4(m_Listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    connection.server.socket = CDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Loopback(m_iServerPort);
    if (::connect(connection.server.socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        m_Connections.push_back(std::move(connection));
    }
}

bool CallForwarder::Forward(Connection& connection, bool bReplies) {
    Stream& from = bReplies ? connection.server : connection.client;
    const Stream& to = bReplies ? connection.client : connection.server;
    std::array<char, 65536> vcBytes{};
    const ssize_t nGot = ::recv(from.socket.Get(), vcBytes.data(), vcBytes.size(), 0);
    if (nGot <= 0) {
        return false;
    }
    from.sReceived.append(vcBytes.data(), static_cast<std::size_t>(nGot));
    for (std::string sRecord = TakeRecord(from.sReceived); !sRecord.empty(); sRecord = TakeRecord(from.sReceived)) {
        const Fate fate = Show(connection, sRecord, bReplies);
        if (fate == Fate::kClose || (fate == Fate::kPass && !SendAll(to.socket, sRecord))) {
            return false;
        }
    }
    return true;
}

CallForwarder::Fate CallForwarder::Show(Connection& connection, const std::string& sRecord, bool bReply) {
    constexpr std::size_t kProgram = 16;
    constexpr std::size_t kProcedure = 24;
    const std::string sXid = sRecord.substr(kMark, 4);
    PassingRecord record{Word(sRecord, kProgram), Word(sRecord, kProcedure), false};
    if (bReply) {
        record = connection.calls[sXid];
        record.bReply = true;
    } else {
        connection.calls[sXid] = record;
    }
    {
        const std::lock_guard<std::mutex> lock(m_hMutex);
        m_Seen.push_back(record);
    }
    return m_Judge(record);
}
