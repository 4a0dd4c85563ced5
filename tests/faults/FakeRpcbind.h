// A system portmapper that refuses what the test says, or answers nothing at all.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "Descriptor.h"
#include "Xdr.h"

/// Holds port 111 and answers registrations on rpcbind's local socket, from its construction to its end.
class FakeRpcbind {
public:
    /// A program and a transport, "udp" or "tcp".
    using Service = std::pair<std::uint32_t, std::string>;

    FakeRpcbind();
    ~FakeRpcbind();
    FakeRpcbind(const FakeRpcbind&) = delete;
    FakeRpcbind& operator=(const FakeRpcbind&) = delete;

    void Refuse(std::optional<Service> service);
    /// While it hangs, connections come about and calls are taken, and nothing is answered.
    void Hang(bool bHangs);
    std::set<Service> GetRegistered() const;

private:
    static constexpr const char* kPath = "/run/rpcbind.sock";

    void Run();
    /// Answers the calls of one connection, to its end.
    void Serve(int iConnection);
    void AwaitLife();
    bool Answer(std::uint32_t iProcedure, XdrReader& arguments);

    CDescriptor m_Port;
    CDescriptor m_Listener;
    CDescriptor m_Stop;
    mutable std::mutex m_Mutex;
    std::condition_variable m_Revived;
    bool m_bHangs = false;
    std::optional<Service> m_Refused;
    std::set<Service> m_Registered;
    std::thread m_Thread;  // last: it begins when all else is there
};
