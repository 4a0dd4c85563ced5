// How many descriptors a process has open.
#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>

#include <sys/types.h>
#include <unistd.h>

/// Of this process without an argument; one more, the look's own, is counted then, and every time.
inline std::size_t CountDescriptors(pid_t iProcess = ::getpid()) {
    const std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(iProcess) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}
