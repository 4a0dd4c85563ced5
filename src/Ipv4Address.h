// IPv4 addresses as texts and as numbers.
#pragma once

#include <cstdint>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>

/// The number, in host byte order, of a dotted address: four decimal numbers without leading zeros. Nothing for any
/// other text.
inline std::optional<std::uint32_t> ParseIpv4Address(const char* pcText) {
    in_addr address{};
    if (pcText == nullptr || ::inet_pton(AF_INET, pcText, &address) != 1) {
        return std::nullopt;
    }
    return ntohl(address.s_addr);
}
