// The largest file that a type of file system can hold, as clients are told.
#pragma once

#include <cstdint>

// Types of file systems as statfs reports them.
inline constexpr std::uint64_t kTypeReiserFs = 0x52654973;
inline constexpr std::uint64_t kTypeMsDos = 0x4D44;

/// In bytes. Types that are not told apart, and a type that cannot be had (0), count as the ext family.
constexpr unsigned long long GetMaxFileSizeOfType(std::uint64_t iType) {
    switch (iType) {
        case kTypeReiserFs:
            return 1ULL << 43;
        case kTypeMsDos:
            return 1ULL << 32;
        default:
            return 1ULL << 41;
    }
}
