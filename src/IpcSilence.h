// CIpcSilence: a receiver of callbacks that hangs or is not there, and how one learns that it is back.
#pragma once

#include <optional>
#include <string>

#include "IpcChannel.h"
#include "IpcSocket.h"

/// Of a receiver that let a callback run into the time limit, keeps the connection of the callback, on which the answer
/// may still come, and what the channel's socket file was when it was sent; of one that could not be reached at all the
/// latter alone. Owns the connection. One thread uses an object at a time.
///
/// That a process sends requests of its own is no sign: its callbacks are served by another thread, which may hang.
class CIpcSilence {
public:
    /// The connection may be closed: then the receiver's queue was full for all of the time.
    CIpcSilence(std::string sChannel, std::optional<IpcChannelFile> file, CIpcSocket connection);

    /// For a receiver that nobody could send to.
    static CIpcSilence OfAbsent(std::string sChannel, std::optional<IpcChannelFile> file);

    /// True for one of those: whoever tries to send to it does not wait.
    bool IsAbsence() const { return m_bAbsent; }
    /// True once the receiver has answered, late as it is, or ended, or listens on another socket (it was started
    /// again), or its full queue has room; or once the absent one can be reached. Looks without waiting.
    bool HasEnded();

private:
    std::string m_sChannel;
    std::optional<IpcChannelFile> m_File;  ///< none: there was no file
    CIpcSocket m_Connection;
    bool m_bAbsent = false;
};
