// Gives a test process a network, /tmp and /run of its own.
#pragma once

/// Moves the calling process (before it starts any thread) into new network and mount namespaces: loopback is up,
/// every port is free, /tmp and /run are empty and vanish with the process. Without root a user namespace is made
/// first. Returns null, or why it could not be done.
const char* IsolateProcess();

/// True if IsolateProcess() succeeded in this process. Tests that need ports below 1024 or /tmp/nfs-server of their
/// own skip aloud without it, saying kNotIsolated.
bool IsIsolated();

inline constexpr const char* kNotIsolated = "needs network and mount namespaces of its own";
