// What a server may send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Xdr.h"

/// True for one reply (datagram) or any number of them in whole records (stream), each accepted with a status that the
/// server knows.
inline bool AreReplies(std::string_view sSent, bool bStream) {
    constexpr std::size_t kHead = 24;
    while (!sSent.empty()) {
        std::size_t nReply = sSent.size();
        if (bStream) {
            if (sSent.size() < 4 || (WordAt(sSent, 0) & 0x80000000U) == 0) {
                return false;
            }
            nReply = WordAt(sSent, 0) & 0x7FFFFFFFU;
            sSent.remove_prefix(4);
        }
        if (nReply < kHead || nReply > sSent.size() || WordAt(sSent, 4) != 1 || WordAt(sSent, 8) != 0) {
            return false;
        }
        const std::uint32_t iAcceptStatus = WordAt(sSent, 20);
        if (iAcceptStatus > 4 || iAcceptStatus == 2 || (iAcceptStatus != 0 && nReply != kHead)) {
            return false;
        }
        sSent.remove_prefix(nReply);
    }
    return true;
}
