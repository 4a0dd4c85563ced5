// The segments of a redirected file that are kept in memory.
#include "SegmentList.h"

#include <algorithm>

#include "OffsetSearch.h"

void CSegmentList::Add(const Segment& segment) {
    if (segment.iOffset < m_iEnd) {
        m_bOrdered = false;
    }
    m_iEnd = std::max(m_iEnd, AddSaturated(segment.iOffset, std::max<std::int64_t>(segment.iLength, 0)));
    if (m_nSegments % kChunkSize == 0) {
        m_vpChunks.push_back(std::make_unique<Chunk>());
    }
    m_vpChunks.back()->vSegments[m_nSegments % kChunkSize] = segment;
    ++m_nSegments;
}

std::int64_t CSegmentList::Find(std::int64_t iOffset) const {
    if (m_bOrdered) {
        return FindOrdered(iOffset);
    }
    for (std::size_t i = 0; i < m_nSegments; ++i) {
        if (At(i).Covers(iOffset)) {
            return static_cast<std::int64_t>(i);
        }
    }
    return -1;
}

std::int64_t CSegmentList::FindOrdered(std::int64_t iOffset) const {
    const auto offsetOf = [this](std::size_t i) { return At(i).iOffset; };
    // In a map of even pieces the guess is the segment itself, and no neighbour has to be looked at.
    const std::size_t iGuess = GuessPlace(m_nSegments, offsetOf, iOffset);
    if (iGuess < m_nSegments && At(iGuess).Covers(iOffset)) {
        return static_cast<std::int64_t>(iGuess);
    }
    // Only the last segment that begins at or before the offset can cover it: those before it end where it begins or
    // earlier, and an empty one at the same place precedes it.
    const std::size_t nUpTo = CountUpTo(m_nSegments, offsetOf, iOffset);
    if (nUpTo == 0 || !At(nUpTo - 1).Covers(iOffset)) {
        return -1;
    }
    return static_cast<std::int64_t>(nUpTo) - 1;
}

bool CSegmentList::Get(std::int64_t iIndex, Segment* pSegment) const {
    if (iIndex < 0 || static_cast<std::uint64_t>(iIndex) >= m_nSegments) {
        return false;
    }
    *pSegment = At(static_cast<std::size_t>(iIndex));
    return true;
}

void CSegmentList::Clear() {
    std::vector<std::unique_ptr<Chunk>>().swap(m_vpChunks);
    m_nSegments = 0;
    m_bOrdered = true;
    m_iEnd = INT64_MIN;
}
