// The segments of a redirected file that are kept in memory.
#include "SegmentList.h"

#include <algorithm>

#include "OffsetSearch.h"

void CSegmentList::Add(const Segment& segment) {
    if (segment.iOffset < m_iEnd) {
        m_bOrdered = false;
    }
    m_iEnd = std::max(m_iEnd, AddSaturated(segment.iOffset, std::max<std::int64_t>(segment.iLength, 0)));
    m_vSegments.push_back(segment);
}

std::int64_t CSegmentList::Find(std::int64_t iOffset) const {
    if (m_bOrdered) {
        return FindOrdered(iOffset);
    }
    const auto itFound = std::find_if(m_vSegments.begin(), m_vSegments.end(),
                                      [iOffset](const Segment& segment) { return segment.Covers(iOffset); });
    return itFound == m_vSegments.end() ? -1 : itFound - m_vSegments.begin();
}

std::int64_t CSegmentList::FindOrdered(std::int64_t iOffset) const {
    // Only the last segment that begins at or before the offset can cover it: those before it end where it begins or
    // earlier, and an empty one at the same place precedes it.
    const std::size_t nUpTo = CountUpTo(m_vSegments, iOffset);
    if (nUpTo == 0 || !m_vSegments[nUpTo - 1].Covers(iOffset)) {
        return -1;
    }
    return static_cast<std::int64_t>(nUpTo) - 1;
}

bool CSegmentList::Get(std::int64_t iIndex, Segment* pSegment) const {
    if (iIndex < 0 || static_cast<std::uint64_t>(iIndex) >= m_vSegments.size()) {
        return false;
    }
    *pSegment = m_vSegments[static_cast<std::size_t>(iIndex)];
    return true;
}

void CSegmentList::Clear() {
    std::deque<Segment>().swap(m_vSegments);
    m_bOrdered = true;
    m_iEnd = INT64_MIN;
}
