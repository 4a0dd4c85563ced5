// The door that fuzzers of the remote control come in by: bytes as a local socket would receive them.
#pragma once

#include <string>
#include <string_view>

#include "FakeHost.h"
#include "FuzzTarget.h"
#include "IpcServer.h"
#include "LogCapture.h"
#include "RecordingNfsMain.h"

/// A listening server whose controller only writes down what it is told, with a host that answers callbacks. One input
/// is one connection's bytes; it is to be answered with one whole reply (or, being empty, not at all).
class IpcFuzzWorld : public FuzzTarget {
public:
    /// Listens on a channel that nobody else uses.
    explicit IpcFuzzWorld(std::string sChannel);

    std::string Run(std::string_view sInput) override;

private:
    void CountRecord(std::string_view sInput, std::string_view sReply);

    std::string m_sChannel;
    FakeHost m_Host;
    LogCapture m_Log;
    ControllerRecord m_Record;
    RecordingNfsMain m_Controller;
    CIpcServer m_Server;
};
