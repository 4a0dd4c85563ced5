// A map as text: a table for people, and what is wrong with it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SegmentMap.h"

/// "1.5 GiB": binary units, one decimal; bytes below 1,024 as they are.
std::string FormatSize(std::int64_t iBytes);

/// What one looks at: the map, laid out for a file of iSize bytes.
struct LaidOutMap {
    LaidOutMap(const SegmentMap& mapGiven, std::int64_t iSizeGiven)
        : map(mapGiven), iSize(iSizeGiven), vStretches(mapGiven.MakeStretches(iSizeGiven)) {}

    const SegmentMap& map;
    std::int64_t iSize;
    std::vector<Stretch> vStretches;

    /// Zeros stand where a segment names no source.
    bool IsZeros(const Stretch& stretch) const;
    /// The name of a stretch's source; "zeros" and "hole" where there is none.
    std::string GetSourceName(const Stretch& stretch) const;
    /// Where a virtual offset of a stretch with a source lies in that source.
    std::int64_t GetSourceOffset(const Stretch& stretch, std::int64_t iOffset) const;
};

/// One line for each stretch, in virtual order.
std::string MakeTable(const LaidOutMap& laidOut);
/// One line: what a read at the offset finds.
std::string DescribeOffset(const LaidOutMap& laidOut, std::int64_t iOffset);

/// Counts, and whether anything is wrong.
struct MapSummary {
    std::string sText;       ///< some lines
    bool bComplete = false;  ///< in order, without holes, overlaps, lost records or an odd tail
};
MapSummary Summarize(const LaidOutMap& laidOut, const SearchSteps& steps);
