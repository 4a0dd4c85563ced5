// Finding a place in a list that is ordered by virtual offsets.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

/// The number of the element at which the offset lies if the elements lie at even distances, as those of most maps
/// nearly do; 0 for an empty list. offsetOf(i) is the offset of element i; offsets must not decrease.
template <typename OffsetOf>
std::size_t GuessPlace(std::size_t nElements, const OffsetOf& offsetOf, std::int64_t iOffset) {
    if (nElements == 0) {
        return 0;
    }
    // In floating point, where extreme offsets do not overflow; a difference of nothing, or lost in rounding, is one.
    const auto rFirst = static_cast<double>(offsetOf(0));
    const double rSpan = std::max(static_cast<double>(offsetOf(nElements - 1)) - rFirst, 1.0);
    const double rPart = (static_cast<double>(iOffset) - rFirst) / rSpan;
    const auto rLast = static_cast<double>(nElements - 1);
    return static_cast<std::size_t>(std::clamp(rPart * rLast, 0.0, rLast));
}

/// How many of the list's elements begin at or before the offset.
///
/// The search starts at the guessed place and widens in growing steps: one or two elements are touched, where halving
/// the whole list would touch one in each of its halves. However the elements lie, it takes logarithmic time.
template <typename OffsetOf>
std::size_t CountUpTo(std::size_t nElements, const OffsetOf& offsetOf, std::int64_t iOffset) {
    if (nElements == 0 || iOffset < offsetOf(0)) {
        return 0;
    }
    if (iOffset >= offsetOf(nElements - 1)) {
        return nElements;
    }
    std::size_t iLow = GuessPlace(nElements, offsetOf, iOffset);
    std::size_t iHigh = iLow;
    // Widen until the element at iLow begins at or before the offset and the one at iHigh behind it.
    for (std::size_t iStep = 1; offsetOf(iLow) > iOffset; iStep *= 2) {
        iHigh = iLow;
        iLow -= std::min(iStep, iLow);
    }
    for (std::size_t iStep = 1; offsetOf(iHigh) <= iOffset; iStep *= 2) {
        iLow = iHigh;
        iHigh = std::min(iHigh + iStep, nElements - 1);
    }
    while (iHigh - iLow > 1) {
        const std::size_t iMiddle = iLow + (iHigh - iLow) / 2;
        (offsetOf(iMiddle) <= iOffset ? iLow : iHigh) = iMiddle;
    }
    return iHigh;
}
