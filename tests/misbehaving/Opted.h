// How long a test runs: short by default, as long as an environment variable says when somebody wants to know.
#pragma once

#include <cstdlib>

/// The number that the variable holds, or the default.
inline long GetOpted(const char* pcVariable, long iDefault) {
    const char* pcValue = std::getenv(pcVariable);
    return pcValue == nullptr ? iDefault : std::atol(pcValue);
}
