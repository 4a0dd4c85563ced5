// The entries of a redirected file's map, and the cursor that walks them.
#pragma once

#include <cstdint>

/// The sum, or the nearest value that can be held.
inline std::int64_t AddSaturated(std::int64_t iLeft, std::int64_t iRight) {
    std::int64_t iSum = 0;
    if (__builtin_add_overflow(iLeft, iRight, &iSum)) {
        return iLeft < 0 ? INT64_MIN : INT64_MAX;
    }
    return iSum;
}

/// One piece of a redirected file: which bytes of which source stand for a range of virtual bytes. Any value may
/// stand in any field (a map may come from a damaged info file); the operations here never overflow.
struct Segment {
    std::int64_t iSource = -1;     ///< index into the source list; -1 for none (the bytes read as zeros)
    std::int64_t iFileOffset = 0;  ///< where the bytes lie in the source ("fox")
    std::int64_t iOffset = 0;      ///< the virtual offset of the first byte ("ox")
    std::int64_t iLength = 0;      ///< bytes; a segment of zero or less covers nothing

    /// Is the virtual offset one of the segment's?
    bool Covers(std::int64_t iPos) const { return GetRest(iPos) > 0; }
    /// How many bytes the segment holds from a virtual offset on; 0 for an offset before it or past it.
    std::int64_t GetRest(std::int64_t iPos) const {
        if (iPos < iOffset || iLength <= 0) {
            return 0;
        }
        const std::uint64_t iWithin = static_cast<std::uint64_t>(iPos) - static_cast<std::uint64_t>(iOffset);
        const std::uint64_t iWhole = static_cast<std::uint64_t>(iLength);
        return iWithin < iWhole ? static_cast<std::int64_t>(iWhole - iWithin) : 0;
    }
};

/// A record of the info file is a segment as it lies in memory: four little-endian 64-bit fields.
inline constexpr unsigned int kSegmentRecordSize = 32;
static_assert(sizeof(Segment) == kSegmentRecordSize && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

/// A known place in the info file: the record that begins at a multiple of the check-point distance.
struct CheckPointSegment {
    std::int64_t iFileOffset = 0;  ///< byte position of the record in the info file
    std::int64_t iOffset = 0;      ///< the virtual offset at which that record begins
};

/// A place in the walk along a map.
struct ProcSegment {
    std::int64_t index = -1;        ///< -1: no segment here. Otherwise the segment's number in the list or info file
    Segment segment;                ///< a copy of the segment
    std::int64_t iNextRecord = -1;  ///< where the walk goes on in the info file; -1: it goes along the list in memory
};
