// RPCBPROC_NULL, RPCBPROC_SET and RPCBPROC_UNSET over a local stream (RFC 1833, 2.1; RFC 5531, 11).
#include "FakeRpcbind.h"

#include <array>
#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t kNull = 0;
constexpr std::uint32_t kSet = 1;
constexpr std::uint32_t kUnset = 2;
constexpr std::uint32_t kReply = 1;
constexpr std::uint32_t kLastFragment = 0x80000000U;
constexpr int kPortmapPort = 111;

void Require(bool bHolds, const char* pcWhat) {
    if (!bHolds) {
        throw std::runtime_error(std::string("fake rpcbind: ") + pcWhat);
    }
}

/// All of that many bytes; false at the end of the stream.
bool ReceiveAll(int iSocket, std::string& sBytes, std::size_t nBytes) {
    sBytes.resize(nBytes);
    return ::recv(iSocket, sBytes.data(), nBytes, MSG_WAITALL) == static_cast<ssize_t>(nBytes);
}

}  // namespace

FakeRpcbind::FakeRpcbind()
    : m_Port(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      m_Listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      m_Stop(::eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in port{};
    port.sin_family = AF_INET;
    port.sin_port = htons(kPortmapPort);
    Require(::bind(m_Port.Get(), reinterpret_cast<const sockaddr*>(&port), sizeof(port)) == 0, "port 111");
    Require(::listen(m_Port.Get(), 1) == 0, "listen on port 111");
    sockaddr_un path{};
    path.sun_family = AF_UNIX;
    std::strncpy(path.sun_path, kPath, sizeof(path.sun_path) - 1);
    Require(::bind(m_Listener.Get(), reinterpret_cast<const sockaddr*>(&path), sizeof(path)) == 0, kPath);
    Require(::listen(m_Listener.Get(), 8) == 0, "listen");
    m_Thread = std::thread([this] { Run(); });
}

FakeRpcbind::~FakeRpcbind() {
    Hang(false);
    static_cast<void>(::eventfd_write(m_Stop.Get(), 1));
    m_Thread.join();
    ::unlink(kPath);
}

void FakeRpcbind::Refuse(std::optional<Service> service) {
    const std::lock_guard lock(m_Mutex);
    m_Refused = std::move(service);
}

void FakeRpcbind::Hang(bool bHangs) {
    const std::lock_guard lock(m_Mutex);
    m_bHangs = bHangs;
    m_Revived.notify_all();
}

void FakeRpcbind::AwaitLife() {
    std::unique_lock lock(m_Mutex);
    m_Revived.wait(lock, [this] { return !m_bHangs; });
}

std::set<FakeRpcbind::Service> FakeRpcbind::GetRegistered() const {
    const std::lock_guard lock(m_Mutex);
    return m_Registered;
}

void FakeRpcbind::Run() {
    for (;;) {
        std::array<pollfd, 2> entries{{{m_Listener.Get(), POLLIN, 0}, {m_Stop.Get(), POLLIN, 0}}};
        if (::poll(entries.data(), entries.size(), -1) < 0 || entries[1].revents != 0) {
            return;
        }
        const CDescriptor connection(::accept4(m_Listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.IsOpen()) {
            Serve(connection.Get());
        }
    }
}

void FakeRpcbind::Serve(int iConnection) {
    std::string sMark;
    std::string sCall;
    while (ReceiveAll(iConnection, sMark, 4) && ReceiveAll(iConnection, sCall, WordAt(sMark, 0) & ~kLastFragment)) {
        AwaitLife();
        XdrReader call(sCall);
        const std::uint32_t iXid = call.U32();
        call.Skip(4 * sizeof(std::uint32_t));  // call, RPC version, program, version
        const std::uint32_t iProcedure = call.U32();
        for (int i = 0; i < 2; ++i) {  // credential and verifier
            call.U32();
            call.Opaque();
        }
        XdrBuilder reply;
        reply.U32(iXid).U32(kReply).U32(0).U32(0).U32(0).U32(0);
        if (iProcedure != kNull) {
            reply.Bool(Answer(iProcedure, call));
        }
        const std::string sReply = reply.Bytes();
        const std::string sRecord =
            XdrBuilder().U32(kLastFragment | static_cast<std::uint32_t>(sReply.size())).Raw(sReply).Bytes();
        if (::send(iConnection, sRecord.data(), sRecord.size(), MSG_NOSIGNAL) < 0) {
            return;
        }
    }
}

bool FakeRpcbind::Answer(std::uint32_t iProcedure, XdrReader& arguments) {
    Service service;
    service.first = arguments.U32();
    arguments.U32();  // version
    service.second = arguments.Opaque();
    const std::lock_guard lock(m_Mutex);
    if (iProcedure == kSet) {
        return service != m_Refused && m_Registered.insert(service).second;
    }
    return iProcedure == kUnset && m_Registered.erase(service) > 0;
}
