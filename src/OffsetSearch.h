// Finding a place in a list that is ordered by virtual offsets.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

/// How many of the list's elements begin at or before the offset. Their iOffset must not decrease; the list has
/// operator[], like a vector or a deque.
///
/// The place is guessed as if the elements lay at even distances, as those of most maps nearly do, and searched for
/// from there in growing steps: one or two elements are touched, where halving the whole list would touch one in each
/// of its halves. However the elements lie, the search takes logarithmic time.
template <typename List>
std::size_t CountUpTo(const List& list, std::int64_t iOffset) {
    const std::size_t nElements = list.size();
    if (nElements == 0 || iOffset < list[0].iOffset) {
        return 0;
    }
    const std::int64_t iLast = list[nElements - 1].iOffset;
    if (iOffset >= iLast) {
        return nElements;
    }
    // In floating point, where extreme offsets do not overflow. The first begins at or before the offset, the last
    // behind it, so they differ; a difference lost in rounding makes the quotient one.
    const auto rFirst = static_cast<double>(list[0].iOffset);
    const double rPart = (static_cast<double>(iOffset) - rFirst) / std::max(static_cast<double>(iLast) - rFirst, 1.0);
    std::size_t iLow = std::min(static_cast<std::size_t>(rPart * static_cast<double>(nElements - 1)), nElements - 1);
    std::size_t iHigh = iLow;
    // Widen until the element at iLow begins at or before the offset and the one at iHigh behind it.
    for (std::size_t iStep = 1; list[iLow].iOffset > iOffset; iStep *= 2) {
        iHigh = iLow;
        iLow -= std::min(iStep, iLow);
    }
    for (std::size_t iStep = 1; list[iHigh].iOffset <= iOffset; iStep *= 2) {
        iLow = iHigh;
        iHigh = std::min(iHigh + iStep, nElements - 1);
    }
    while (iHigh - iLow > 1) {
        const std::size_t iMiddle = iLow + (iHigh - iLow) / 2;
        (list[iMiddle].iOffset <= iOffset ? iLow : iHigh) = iMiddle;
    }
    return iHigh;
}
