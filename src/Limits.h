// Sizes that more than one class relies on.
#pragma once

#include <cstddef>

/// A path buffer, terminator included (the platform's PATH_MAX).
inline constexpr std::size_t kPathBufferSize = 4096;

/// A reason buffer: the one-line text that a failing operation leaves for its caller, terminator included.
inline constexpr std::size_t kReasonBufferSize = 2048;

/// A log message, terminator included; longer ones are cut.
inline constexpr std::size_t kMessageBufferSize = 2048;

/// An NFS version 3 file handle on the wire, in bytes (RFC 1813 allows up to 64).
inline constexpr unsigned int kNfs3HandleSize = 56;

/// A MOUNT version 1 file handle, in bytes.
inline constexpr unsigned int kMount1HandleSize = 32;

/// The file ID that stands for "no ID".
inline constexpr unsigned int kNoFileID = 0xFFFFFFFFU;
