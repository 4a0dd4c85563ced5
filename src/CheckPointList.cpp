// Known places in a redirected file's info file.
#include "CheckPointList.h"

#include <algorithm>

#include "OffsetSearch.h"

void CCheckPointList::Add(const CheckPointSegment& checkPoint) {
    if (!m_vCheckPoints.empty() && checkPoint.iOffset < m_vCheckPoints.back().iOffset) {
        m_bIncreasing = false;
    }
    m_vCheckPoints.push_back(checkPoint);
}

bool CCheckPointList::FindLast(std::int64_t iOffset, CheckPointSegment* pCheckPoint) const {
    if (m_bIncreasing) {
        const std::size_t nUpTo = CountUpTo(
            m_vCheckPoints.size(), [this](std::size_t i) { return m_vCheckPoints[i].iOffset; }, iOffset);
        if (nUpTo > 0) {
            *pCheckPoint = m_vCheckPoints[nUpTo - 1];
        }
        return nUpTo > 0;
    }
    const auto itFound =
        std::find_if(m_vCheckPoints.rbegin(), m_vCheckPoints.rend(),
                     [iOffset](const CheckPointSegment& checkPoint) { return checkPoint.iOffset <= iOffset; });
    if (itFound == m_vCheckPoints.rend()) {
        return false;
    }
    *pCheckPoint = *itFound;
    return true;
}

void CCheckPointList::Clear() {
    std::vector<CheckPointSegment>().swap(m_vCheckPoints);
    m_bIncreasing = true;
}
