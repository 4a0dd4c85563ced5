// IpcSocketAccess: who may connect to a local socket.
#pragma once

#include <sys/types.h>

struct ServerOptions;

/// The mode and group that a socket file gets. As it is made here: processes of every user may steer the server,
/// whoever runs it.
struct IpcSocketAccess {
    static constexpr mode_t kEverybody = 0777;
    static constexpr gid_t kOwnGroup = static_cast<gid_t>(-1);

    mode_t iMode = kEverybody;
    gid_t iGroup = kOwnGroup;

    /// Takes over what the options say of it. False with a reason for a mode that is no octal number up to 0777, and
    /// for a group that there is not.
    bool Set(const ServerOptions& options, char* pcReason);
};
