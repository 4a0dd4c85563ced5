// Reading a map, laying it out as reads find it, and finding what is wrong with it.
#include "SegmentMap.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>
#include <unordered_map>

namespace {

constexpr const char* kSegmentStart = "Segment path=";
constexpr const char* kMergedStart = "--> Merged Segment path=";
constexpr const char* kCheckPointStart = "--> CheckPoint Segment ";
constexpr const char* kSeparator = "-------------------";
/// What the dump writes for a segment without a source.
constexpr const char* kNoSource = "Null";

bool IsDump(const std::string& sContent) {
    return sContent.starts_with(kSegmentStart) || sContent.starts_with("--> ");
}

/// What a segment's line ends with: ", fox=1, ox=2, len=3".
struct LineNumbers {
    std::size_t iStart;
    std::array<std::string, 3> vsDigits;
};

/// Nothing where the line ends otherwise.
std::optional<LineNumbers> FindNumbers(std::string_view sLine) {
    constexpr std::size_t kMostDigits = 20;
    constexpr std::array<std::string_view, 3> kLabels{", fox=", ", ox=", ", len="};
    LineNumbers numbers{sLine.rfind(kLabels[0]), {}};
    std::size_t iNext = numbers.iStart;
    for (std::size_t i = 0; i < kLabels.size(); ++i) {
        if (iNext == std::string::npos || sLine.compare(iNext, kLabels[i].size(), kLabels[i]) != 0) {
            return std::nullopt;
        }
        iNext += kLabels[i].size();
        const std::size_t nDigits = std::min(sLine.find_first_not_of("0123456789", iNext), sLine.size()) - iNext;
        if (nDigits == 0 || nDigits > kMostDigits) {
            return std::nullopt;
        }
        numbers.vsDigits[i] = sLine.substr(iNext, nDigits);
        iNext += nDigits;
    }
    return iNext == sLine.size() ? std::optional(numbers) : std::nullopt;
}

std::int64_t ToNumber(const std::string& sDigits) {
    // Offsets beyond the signed range stand in damaged maps only; they wrap there as they do in the server's output.
    return static_cast<std::int64_t>(std::stoull(sDigits));
}

/// The end of a segment, cut where it cannot be held.
std::int64_t GetSegmentEnd(const Segment& segment) {
    return AddSaturated(segment.iOffset, segment.iLength);
}

bool CoversAnything(const Segment& segment) {
    return segment.iLength > 0 && GetSegmentEnd(segment) > 0;
}

/// Where a segment begins to cover bytes, or ceases to.
struct Border {
    std::int64_t iPosition;
    std::size_t iSegment;
    bool bBegins;
};

std::vector<Border> MakeBorders(const std::vector<Segment>& vSegments, std::int64_t iSize) {
    std::vector<Border> vBorders;
    for (std::size_t i = 0; i < vSegments.size(); ++i) {
        const std::int64_t iFrom = std::max<std::int64_t>(vSegments[i].iOffset, 0);
        if (CoversAnything(vSegments[i]) && iFrom < iSize) {
            vBorders.push_back({iFrom, i, true});
            vBorders.push_back({std::min(GetSegmentEnd(vSegments[i]), iSize), i, false});
        }
    }
    std::ranges::sort(vBorders, {}, &Border::iPosition);
    return vBorders;
}

/// Appends a stretch, or lengthens the last one where nothing but its end differs.
void Append(std::vector<Stretch>& vStretches, const Stretch& stretch) {
    if (stretch.iFrom == stretch.iTo) {
        return;
    }
    if (!vStretches.empty()) {
        Stretch& last = vStretches.back();
        if (last.iSegment == stretch.iSegment && last.bOverlap == stretch.bOverlap) {
            last.iTo = stretch.iTo;
            return;
        }
    }
    vStretches.push_back(stretch);
}

/// The check points that the server makes while records are added, in the order of the records.
class CheckPoints {
public:
    CheckPoints(const std::vector<Segment>& vSegments, const SearchSteps& steps) : m_Steps(steps) {
        for (std::size_t i = 0; i < vSegments.size(); ++i) {
            const std::int64_t iOffset = vSegments[i].iOffset;
            if (iOffset >= 1 && iOffset % steps.iCheckPointSize == 0) {
                m_vPoints.push_back({static_cast<std::int64_t>(i), iOffset, iOffset});
            }
        }
        for (std::size_t i = m_vPoints.size(); i-- > 1;) {
            m_vPoints[i - 1].iLeast = std::min(m_vPoints[i - 1].iLeast, m_vPoints[i].iLeast);
        }
    }

    /// The number of the record at which the search for a virtual offset begins.
    std::int64_t GetSearchStart(std::int64_t iOffset) const {
        if (m_Steps.iCheckPointSize <= iOffset) {
            // The last check point that does not lie behind the offset is the last one with such a point from it on.
            const auto itBehind = std::ranges::partition_point(
                m_vPoints, [iOffset](const Point& point) { return point.iLeast <= iOffset; });
            if (itBehind != m_vPoints.begin()) {
                const Point& last = *std::prev(itBehind);
                return (iOffset - last.iOffset) / m_Steps.iSegmentSize + last.iRecord;
            }
        }
        return iOffset / m_Steps.iSegmentSize;
    }

private:
    struct Point {
        std::int64_t iRecord;
        std::int64_t iOffset;
        std::int64_t iLeast;  ///< of the offsets of this one and those after it: it never falls from one to the next
    };

    SearchSteps m_Steps;
    std::vector<Point> m_vPoints;
};

}  // namespace

SegmentMap SegmentMap::Load(const std::string& sPath, Form form) {
    errno = 0;
    std::ifstream file(sPath, std::ios::binary);
    std::ostringstream content;
    if (!file || (file.peek() != std::ifstream::traits_type::eof() && !(content << file.rdbuf())) || file.bad()) {
        const std::string sReason = errno != 0 ? std::generic_category().message(errno) : "cannot be read";
        throw MapError("\"" + sPath + "\": " + sReason);
    }
    try {
        return Parse(content.str(), form);
    } catch (const MapError& error) {
        throw MapError("\"" + sPath + "\": " + error.what());
    }
}

SegmentMap SegmentMap::Parse(const std::string& sContent, Form form) {
    SegmentMap map;
    map.m_Form = form != Form::kGuess ? form : IsDump(sContent) ? Form::kInfoDump : Form::kInfoFile;
    if (map.m_Form == Form::kInfoDump) {
        map.ParseInfoDump(sContent);
    } else {
        map.ParseInfoFile(sContent);
    }
    return map;
}

void SegmentMap::ParseInfoFile(const std::string& sContent) {
    m_vSegments.resize(sContent.size() / kSegmentRecordSize);
    if (!m_vSegments.empty()) {
        std::memcpy(m_vSegments.data(), sContent.data(), m_vSegments.size() * kSegmentRecordSize);
    }
    m_nTail = sContent.size() % kSegmentRecordSize;
    // Only so many sources can be told apart in a picture or a table; a damaged record names any number.
    constexpr std::int64_t kMostSources = 1 << 20;
    std::int64_t iLast = -1;
    for (const Segment& segment : m_vSegments) {
        if (segment.iSource >= kMostSources) {
            throw MapError("no info file: a record names source " + std::to_string(segment.iSource));
        }
        iLast = std::max(iLast, segment.iSource);
    }
    for (std::int64_t i = 0; i <= iLast; ++i) {
        m_vsSources.push_back("source " + std::to_string(i));
    }
}

/// Reads a dump line by line. A path may hold anything, line ends too: a segment's entry ends with the line that ends
/// with its three numbers.
class SegmentMap::DumpReader {
public:
    explicit DumpReader(SegmentMap& map) : m_Map(map) {}

    void Read(const std::string& sContent) {
        std::istringstream lines(sContent);
        std::string sLine;
        for (std::size_t iLine = 1; std::getline(lines, sLine); ++iLine) {
            if (m_sEntry.empty() && (sLine.starts_with(kCheckPointStart) || sLine == kSeparator)) {
                continue;
            }
            m_sEntry += m_sEntry.empty() ? "" : "\n";
            const std::size_t nBefore = m_sEntry.size();
            m_sEntry += sLine;
            if (!m_sEntry.starts_with(kSegmentStart) && !m_sEntry.starts_with(kMergedStart)) {
                throw MapError("no info dump: line " + std::to_string(iLine) + " is none of its lines");
            }
            EndEntry(nBefore);
        }
        if (!m_sEntry.empty()) {
            throw MapError("the info dump ends within a line");
        }
    }

private:
    /// Takes the entry, if its last line, which begins behind so many bytes, ends it. The lines before are not looked
    /// at again.
    void EndEntry(std::size_t nBefore) {
        const std::optional<LineNumbers> numbers = FindNumbers(std::string_view(m_sEntry).substr(nBefore));
        if (!numbers) {
            return;
        }
        const std::size_t nStart = std::strlen(m_sEntry.starts_with(kSegmentStart) ? kSegmentStart : kMergedStart);
        const std::string sName = m_sEntry.substr(nStart, nBefore + numbers->iStart - nStart);
        const auto& [sSourceOffset, sOffset, sLength] = numbers->vsDigits;
        try {
            m_Map.m_vSegments.push_back(
                {GetSourceNumber(sName), ToNumber(sSourceOffset), ToNumber(sOffset), ToNumber(sLength)});
        } catch (const std::out_of_range&) {
            throw MapError("no info dump: a number is too great: " + m_sEntry);
        }
        m_sEntry.clear();
    }

    std::int64_t GetSourceNumber(const std::string& sName) {
        if (sName == kNoSource) {
            return -1;
        }
        const auto [itSource, bNew] = m_Numbers.try_emplace(sName, static_cast<std::int64_t>(m_Numbers.size()));
        if (bNew) {
            m_Map.m_vsSources.push_back(sName);
        }
        return itSource->second;
    }

    SegmentMap& m_Map;
    std::string m_sEntry;                                     ///< what has been read of an entry that has not ended
    std::unordered_map<std::string, std::int64_t> m_Numbers;  ///< of the sources, by name
};

void SegmentMap::ParseInfoDump(const std::string& sContent) {
    DumpReader(*this).Read(sContent);
}

std::int64_t SegmentMap::GetEnd() const {
    std::int64_t iEnd = 0;
    for (const Segment& segment : m_vSegments) {
        if (CoversAnything(segment)) {
            iEnd = std::max(iEnd, GetSegmentEnd(segment));
        }
    }
    return iEnd;
}

// One walk along the borders; between two of them the same segments claim every byte.
std::vector<Stretch> SegmentMap::MakeStretches(std::int64_t iSize) const {
    std::vector<Stretch> vStretches;
    std::set<std::size_t> claims;
    std::int64_t iFrom = 0;
    const auto appendUpTo = [&](std::int64_t iTo) {
        Append(vStretches, {iFrom, iTo, claims.empty() ? Stretch::kNoSegment : *claims.begin(), claims.size() > 1});
        iFrom = iTo;
    };
    for (const Border& border : MakeBorders(m_vSegments, iSize)) {
        appendUpTo(border.iPosition);
        if (border.bBegins) {
            claims.insert(border.iSegment);
        } else {
            claims.erase(border.iSegment);
        }
    }
    appendUpTo(std::max(iSize, iFrom));
    return vStretches;
}

std::size_t SegmentMap::FindDisorder() const {
    const auto itDisorder = std::ranges::is_sorted_until(m_vSegments, {}, &Segment::iOffset);
    return static_cast<std::size_t>(itDisorder - m_vSegments.begin());
}

// The server guesses where an offset's record stands (so many records of full size behind the last check point before
// it, or behind the file's start), and searches from there on, never back.
std::vector<std::size_t> SegmentMap::FindUnreachable(const SearchSteps& steps) const {
    const CheckPoints checkPoints(m_vSegments, steps);
    std::vector<std::size_t> viUnreachable;
    for (std::size_t i = 0; i < m_vSegments.size(); ++i) {
        const Segment& segment = m_vSegments[i];
        if (CoversAnything(segment) && segment.iOffset >= 0 &&
            std::max(checkPoints.GetSearchStart(segment.iOffset),
                     checkPoints.GetSearchStart(GetSegmentEnd(segment) - 1)) > static_cast<std::int64_t>(i)) {
            viUnreachable.push_back(i);
        }
    }
    return viUnreachable;
}
