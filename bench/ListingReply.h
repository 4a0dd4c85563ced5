// Replies to READDIRPLUS (RFC 1813, 3.3.17).
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

inline constexpr std::uint32_t kProcReaddirplus = 17;
/// How much a call asks for: of names, and in all.
inline constexpr std::uint32_t kListDirCount = 4096;
inline constexpr std::uint32_t kListMaxCount = 32768;

/// One reply, taken apart. The names point into it.
struct ListingReply {
    std::vector<std::string_view> vsNames;  ///< without "." and "..", which some servers list
    std::uint64_t iVerifier = 0;
    std::uint64_t iCookie = 0;  ///< of the last entry
    bool bEof = false;
};

/// Throws WrongReply unless every entry but "." and ".." comes with attributes and handle.
ListingReply ReadListing(std::string_view sReply, std::uint32_t iXid);
