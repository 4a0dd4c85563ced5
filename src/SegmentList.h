// The segments of a redirected file that are kept in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "Segment.h"

/// Segments in the order in which they were added. While each begins no earlier than all before it end, the one that
/// covers an offset is found in logarithmic time; otherwise the list is searched for the first.
///
/// Not locked. A deque, so that adding the millionth costs what adding the first does.
class CSegmentList {
public:
    void Add(const Segment& segment);
    /// The number of the first segment that covers the offset, or -1.
    std::int64_t Find(std::int64_t iOffset) const;
    /// Copies a segment; false if there is none of that number.
    bool Get(std::int64_t iIndex, Segment* pSegment) const;
    void Clear();
    std::size_t GetCount() const { return m_vSegments.size(); }

private:
    std::int64_t FindOrdered(std::int64_t iOffset) const;

    std::deque<Segment> m_vSegments;
    bool m_bOrdered = true;           ///< no segment begins before the end of an earlier one
    std::int64_t m_iEnd = INT64_MIN;  ///< while ordered: the greatest end so far
};
