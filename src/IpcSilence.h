// CIpcSilence: a receiver of callbacks that let one run into the time limit, and how one learns that it is back.
#pragma once

#include <optional>
#include <string>

#include "IpcChannel.h"
#include "IpcSocket.h"

/// Keeps the connection of the unanswered callback, on which the answer may still come, and what the channel's socket
/// file was when it was sent. Owns the connection. One thread uses an object at a time.
///
/// That a process sends requests of its own is no sign: its callbacks are served by another thread, which may hang.
class CIpcSilence {
public:
    /// The connection may be closed: then the receiver's queue was full for all of the time.
    CIpcSilence(std::string sChannel, std::optional<IpcChannelFile> file, CIpcSocket connection);

    /// True once the receiver has answered, late as it is, or ended, or listens on another socket (it was started
    /// again), or its full queue has room. Looks without waiting.
    bool HasEnded();

private:
    std::string m_sChannel;
    std::optional<IpcChannelFile> m_File;  ///< none: there was no file
    CIpcSocket m_Connection;
};
