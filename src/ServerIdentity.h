// What a controller says of itself: where its server runs, its version and description, its status.
#pragma once

#include <cstddef>

/// Where the server runs: the access modes, numbered as hosts and operators know them.
enum AccessMode : int {
    kAccessModeInternal = 0,  ///< in the process of the front end (CNfsMain)
    kAccessModeServer = 1,    ///< there too, and other processes may steer it (CNfsIpcServerMain)
    kAccessModeClient = 2,    ///< in another process, which is steered from here (CNfsIpcClientMain)
};

/// The version of the server and of the remote-control protocol.
inline constexpr char kServerVersion[] = "1.4";

/// The version and the description of a server that does not answer.
inline constexpr char kUnknownServer[] = "Unknown";

/// The buffers of GetVersion and GetDescription, terminator included.
inline constexpr std::size_t kIdentityBufferSize = 256;

/// The bits of GetServerStatus.
enum ServerStatus : int { kStatusReachable = 1, kStatusRunning = 2, kStatusDebugAction = 4 };
