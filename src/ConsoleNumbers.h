// Numbers that an operator types.
#pragma once

#include <cstdlib>

/// The decimal number a text starts with, 0 without one. Defined for every text: what does not fit is cut to its low
/// bits (int) or to the largest or smallest value (long).
inline int ToInt(const char* pcText) {
    return static_cast<int>(std::strtol(pcText, nullptr, 10));
}
inline long ToLong(const char* pcText) {
    return std::strtol(pcText, nullptr, 10);
}
