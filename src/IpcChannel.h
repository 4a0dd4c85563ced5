// Names of the local sockets that processes reach each other by.
#pragma once

#include <cstddef>
#include <optional>

#include <sys/types.h>
#include <time.h>

/// Room for a channel name, terminator included.
inline constexpr std::size_t kIpcChannelBufferSize = 255;

/// The ID whose channel is the external server's; no other party may have it.
inline constexpr char kIpcServerID[] = "server";

/// Writes the channel of an ID, "/tmp/nfs-<ID>", into a buffer of kIpcChannelBufferSize. One that does not fit there
/// is cut; it does not fit a socket address either (108 characters), so that it is refused when it is used.
void GetIpcChannel(const char* pcID, char* pcChannel);

/// What tells a channel's socket file from another one that takes its place. A file's number may be given out again at
/// once, the time of its last change not.
struct IpcChannelFile {
    dev_t iDevice;
    ino_t iNumber;
    timespec changed;

    bool operator==(const IpcChannelFile& other) const;
};

/// The socket file of a channel as it is now; nothing where there is none.
std::optional<IpcChannelFile> FindIpcChannelFile(const char* pcChannel);
