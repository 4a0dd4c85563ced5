// The door that fuzzers of the remote control come in by: bytes as a local socket would receive them.
#pragma once

#include <string>
#include <string_view>

#include "IpcServer.h"
#include "LogCapture.h"
#include "RecordingNfsMain.h"

/// A listening server whose controller only writes down what it is told. One input is one connection's bytes.
class IpcFuzzWorld {
public:
    /// Listens on a channel that nobody else uses.
    explicit IpcFuzzWorld(std::string sChannel);

    /// Feeds one input. Empty if it was answered with one whole reply (or, being empty, not at all), else what went
    /// wrong.
    std::string Run(std::string_view sInput);

private:
    std::string m_sChannel;
    LogCapture m_Log;
    ControllerRecord m_Record;
    RecordingNfsMain m_Controller;
    CIpcServer m_Server;
};
