// The segments of a redirected file that are kept in memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Segment.h"

/// Segments in the order in which they were added. While each begins no earlier than all before it end, the one that
/// covers an offset is found in logarithmic time; otherwise the list is searched for the first.
///
/// Segment n stands in chunk n / kChunkSize at n % kChunkSize and never moves, so adding the millionth costs what
/// adding the first does. A segment never straddles two lines of the processor's cache: a lookup in a large map waits
/// for memory once.
///
/// Not locked.
class CSegmentList {
public:
    void Add(const Segment& segment);
    /// The number of the first segment that covers the offset, or -1.
    std::int64_t Find(std::int64_t iOffset) const;
    /// Copies a segment; false if there is none of that number.
    bool Get(std::int64_t iIndex, Segment* pSegment) const;
    void Clear();
    std::size_t GetCount() const { return m_nSegments; }

private:
    static constexpr std::size_t kChunkSize = 128;  ///< 4 KiB
    static constexpr std::size_t kCacheLine = 64;
    struct alignas(kCacheLine) Chunk {
        std::array<Segment, kChunkSize> vSegments;
    };

    const Segment& At(std::size_t i) const { return m_vpChunks[i / kChunkSize]->vSegments[i % kChunkSize]; }
    std::int64_t FindOrdered(std::int64_t iOffset) const;

    std::vector<std::unique_ptr<Chunk>> m_vpChunks;
    std::size_t m_nSegments = 0;
    bool m_bOrdered = true;           ///< no segment begins before the end of an earlier one
    std::int64_t m_iEnd = INT64_MIN;  ///< while ordered: the greatest end so far
};
