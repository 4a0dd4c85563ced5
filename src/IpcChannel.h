// Names of the local sockets that processes reach each other by.
#pragma once

#include <cstddef>

/// Room for a channel name, terminator included.
inline constexpr std::size_t kIpcChannelBufferSize = 255;

/// The ID whose channel is the external server's; no other party may have it.
inline constexpr char kIpcServerID[] = "server";

/// Writes the channel of an ID, "/tmp/nfs-<ID>", into a buffer of kIpcChannelBufferSize. One that does not fit there
/// is cut; it does not fit a socket address either (108 characters), so that it is refused when it is used.
void GetIpcChannel(const char* pcID, char* pcChannel);
