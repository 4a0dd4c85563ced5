// The place of a virtual operation in its class's table: programs built against a class call it by that.
#pragma once

#include <array>
#include <bit>
#include <cstddef>

/// By the Itanium C++ ABI, 2.3; -1 for an operation that is not virtual.
template <typename Operation>
std::ptrdiff_t SlotOf(Operation pOperation) {
    const auto vWords = std::bit_cast<std::array<std::ptrdiff_t, 2>>(pOperation);
    const auto iSize = static_cast<std::ptrdiff_t>(sizeof(void*));
    return vWords[0] % 2 != 0 ? (vWords[0] - 1) / iSize : -1;
}
