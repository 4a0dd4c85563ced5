// A map as text.
#include "MapReport.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

namespace {

__attribute__((format(printf, 1, 2))) std::string Format(const char* pcFormat, ...) {
    std::va_list arguments;
    va_start(arguments, pcFormat);
    std::va_list again;
    va_copy(again, arguments);
    const int nText = std::vsnprintf(nullptr, 0, pcFormat, arguments);
    va_end(arguments);
    std::string sText(static_cast<std::size_t>(std::max(nText, 0)) + 1, '\0');
    std::vsnprintf(sText.data(), sText.size(), pcFormat, again);
    va_end(again);
    sText.pop_back();
    return sText;
}

/// How often something was met, over how many bytes, and where first.
struct Tally {
    std::size_t nCount = 0;
    std::int64_t nBytes = 0;
    std::int64_t iFirst = 0;

    void Add(const Stretch& stretch) {
        iFirst = nCount == 0 ? stretch.iFrom : iFirst;
        ++nCount;
        nBytes += stretch.GetLength();
    }
};

std::string DescribeTally(const char* pcName, const Tally& tally, const char* pcMeaning) {
    if (tally.nCount == 0) {
        return Format("%-10s none\n", pcName);
    }
    return Format("%-10s %zu, %s in all; the first at %" PRId64 ": %s\n", pcName, tally.nCount,
                  FormatSize(tally.nBytes).c_str(), tally.iFirst, pcMeaning);
}

std::string DescribeOrder(const SegmentMap& map, std::size_t iDisorder) {
    if (iDisorder >= map.GetSegments().size()) {
        return Format("%-10s increasing\n", "order");
    }
    return Format("%-10s segment %zu (at %" PRId64 ") begins before the one in front of it (at %" PRId64 ")\n", "order",
                  iDisorder, map.GetSegments()[iDisorder].iOffset, map.GetSegments()[iDisorder - 1].iOffset);
}

std::string DescribeSearch(const SegmentMap& map, const std::vector<std::size_t>& viUnreachable) {
    if (viUnreachable.empty()) {
        return Format("%-10s every record is found\n", "search");
    }
    return Format("%-10s %zu records are not found, the first is record %zu (at %" PRId64 "): reads there give zeros\n",
                  "search", viUnreachable.size(), viUnreachable.front(),
                  map.GetSegments()[viUnreachable.front()].iOffset);
}

}  // namespace

std::string FormatSize(std::int64_t iBytes) {
    static constexpr std::array<const char*, 6> kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    constexpr double kStep = 1024;
    if (iBytes < static_cast<std::int64_t>(kStep)) {
        return Format("%" PRId64 " B", iBytes);
    }
    double fValue = static_cast<double>(iBytes) / kStep;
    std::size_t iUnit = 0;
    while (fValue >= kStep && iUnit + 1 < kUnits.size()) {
        fValue /= kStep;
        ++iUnit;
    }
    return Format("%.1f %s", fValue, kUnits[iUnit]);
}

bool LaidOutMap::IsZeros(const Stretch& stretch) const {
    return !stretch.IsHole() && map.GetSegments()[stretch.iSegment].iSource < 0;
}

std::string LaidOutMap::GetSourceName(const Stretch& stretch) const {
    if (stretch.IsHole()) {
        return "hole";
    }
    const std::int64_t iSource = map.GetSegments()[stretch.iSegment].iSource;
    return iSource < 0 ? "zeros" : map.GetSources()[static_cast<std::size_t>(iSource)];
}

std::int64_t LaidOutMap::GetSourceOffset(const Stretch& stretch, std::int64_t iOffset) const {
    const Segment& segment = map.GetSegments()[stretch.iSegment];
    return AddSaturated(segment.iFileOffset, iOffset - segment.iOffset);
}

std::string MakeTable(const LaidOutMap& laidOut) {
    std::string sTable = Format("%20s %20s %10s  %s\n", "from", "to", "length", "what stands there");
    for (const Stretch& stretch : laidOut.vStretches) {
        sTable += Format("%20" PRId64 " %20" PRId64 " %10s  %s", stretch.iFrom, stretch.iTo,
                         FormatSize(stretch.GetLength()).c_str(), laidOut.GetSourceName(stretch).c_str());
        if (!stretch.IsHole() && !laidOut.IsZeros(stretch)) {
            sTable += Format(" from %" PRId64 " on", laidOut.GetSourceOffset(stretch, stretch.iFrom));
        }
        if (!stretch.IsHole()) {
            sTable += Format(" (segment %zu%s)", stretch.iSegment, stretch.bOverlap ? ", others lie under it" : "");
        }
        sTable += "\n";
    }
    return sTable;
}

std::string DescribeOffset(const LaidOutMap& laidOut, std::int64_t iOffset) {
    const auto itStretch = std::ranges::find_if(
        laidOut.vStretches, [&](const Stretch& stretch) { return stretch.iFrom <= iOffset && iOffset < stretch.iTo; });
    if (itStretch == laidOut.vStretches.end()) {
        return Format("%" PRId64 ": at or behind the end (%" PRId64 ")\n", iOffset, laidOut.iSize);
    }
    if (itStretch->IsHole()) {
        return Format("%" PRId64 ": hole, from %" PRId64 " to %" PRId64 "\n", iOffset, itStretch->iFrom,
                      itStretch->iTo);
    }
    const std::string sPlace = laidOut.IsZeros(*itStretch)
                                   ? "zeros"
                                   : Format("%s at %" PRId64, laidOut.GetSourceName(*itStretch).c_str(),
                                            laidOut.GetSourceOffset(*itStretch, iOffset));
    return Format("%" PRId64 ": %s (segment %zu, from %" PRId64 " to %" PRId64 "%s)\n", iOffset, sPlace.c_str(),
                  itStretch->iSegment, itStretch->iFrom, itStretch->iTo,
                  itStretch->bOverlap ? ", others lie under it" : "");
}

MapSummary Summarize(const LaidOutMap& laidOut, const SearchSteps& steps) {
    const SegmentMap& map = laidOut.map;
    const bool bInfoFile = map.GetForm() == SegmentMap::Form::kInfoFile;
    Tally data;
    Tally zeros;
    Tally holes;
    Tally overlaps;
    for (const Stretch& stretch : laidOut.vStretches) {
        (stretch.IsHole() ? holes : laidOut.IsZeros(stretch) ? zeros : data).Add(stretch);
        if (stretch.bOverlap) {
            overlaps.Add(stretch);
        }
    }
    const std::size_t iDisorder = map.FindDisorder();
    const std::vector<std::size_t> viUnreachable = bInfoFile ? map.FindUnreachable(steps) : std::vector<std::size_t>();
    MapSummary summary;
    summary.sText = Format("%-10s %s, %zu %s, %zu sources, %s\n", "map", bInfoFile ? "info file" : "info dump",
                           map.GetSegments().size(), bInfoFile ? "records" : "segments", map.GetSources().size(),
                           FormatSize(laidOut.iSize).c_str());
    summary.sText += Format("%-10s %s\n", "data", FormatSize(data.nBytes).c_str());
    summary.sText += Format("%-10s %s\n", "zeros", FormatSize(zeros.nBytes).c_str());
    summary.sText += DescribeTally("holes", holes, "name zeros by segments with an empty source");
    summary.sText += DescribeTally("overlaps", overlaps, "the segment added first holds");
    summary.sText += DescribeOrder(map, iDisorder);
    if (bInfoFile) {
        summary.sText += DescribeSearch(map, viUnreachable);
    }
    if (map.GetTail() > 0) {
        summary.sText += Format("%-10s %zu bytes behind the last whole record: the file was cut, or is none of these\n",
                                "tail", map.GetTail());
    }
    summary.bComplete = holes.nCount == 0 && overlaps.nCount == 0 && iDisorder >= map.GetSegments().size() &&
                        viUnreachable.empty() && map.GetTail() == 0;
    return summary;
}
