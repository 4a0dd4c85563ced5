// Known places in a redirected file's info file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Segment.h"

/// Check points in the order in which their records were written. While their offsets increase, which they do for a
/// host that adds segments in order, a lookup takes logarithmic time.
///
/// Not locked.
class CCheckPointList {
public:
    void Add(const CheckPointSegment& checkPoint);
    /// Copies the last added one that lies at or before the offset; false if there is none.
    bool FindLast(std::int64_t iOffset, CheckPointSegment* pCheckPoint) const;
    const std::vector<CheckPointSegment>& GetAll() const { return m_vCheckPoints; }
    void Clear();

private:
    std::vector<CheckPointSegment> m_vCheckPoints;
    bool m_bIncreasing = true;
};
