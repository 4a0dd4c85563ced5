// A forwarder between a client and a server's port that shows every call and every reply to a test.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Descriptor.h"

/// What passes: the procedure that a call asks for, or that a reply answers.
struct PassingRecord {
    std::uint32_t iProgram = 0;
    std::uint32_t iProcedure = 0;
    bool bReply = false;

    bool operator==(const PassingRecord&) const = default;
};

/// Takes any number of connections at a port of 127.0.0.1 and makes each one to the server's port. A test decides of
/// every record, on the forwarder's thread, what becomes of it. Serves until it is destroyed.
class CallForwarder {
public:
    enum class Fate {
        kPass,
        kDrop,   ///< it goes nowhere; the connection stays
        kClose,  ///< it goes nowhere, and both sides are closed
    };
    using Judge = std::function<Fate(const PassingRecord&)>;

    /// Fails the test if the port is taken.
    CallForwarder(std::uint16_t iPort, std::uint16_t iServerPort, Judge judge);
    ~CallForwarder();
    CallForwarder(const CallForwarder&) = delete;
    CallForwarder& operator=(const CallForwarder&) = delete;

    /// Such records seen so far, whatever became of them.
    int Seen(const PassingRecord& record) const;

private:
    /// One direction of a connection: where it comes from, and what has not come whole yet.
    struct Stream {
        CDescriptor socket;
        std::string sReceived;
    };
    struct Connection {
        Stream client;
        Stream server;
        std::map<std::string, PassingRecord> calls;  ///< by their XID
    };
    void Run();
    void Accept();
    /// Takes what has come on one side; false when the connection is to end.
    bool Forward(Connection& connection, bool bReplies);
    Fate Show(Connection& connection, const std::string& sRecord, bool bReply);

    const std::uint16_t m_iServerPort;
    Judge m_Judge;
    CDescriptor m_Listener;
    std::list<Connection> m_Connections;
    mutable std::mutex m_hMutex;  ///< guards m_Seen
    std::vector<PassingRecord> m_Seen;
    std::atomic<bool> m_bStop = false;
    std::thread m_Thread;  // last: it begins when all else is there
};
