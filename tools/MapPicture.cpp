// A map as a picture: bands, colours, ties.
#include "MapPicture.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <string_view>

#include "Utf8.h"

namespace {

// Places, in the picture's own units.
constexpr double kWidth = 1200;
constexpr double kLeft = 60;
constexpr double kBand = kWidth - 2 * kLeft;
constexpr double kBandHeight = 46;
constexpr double kFileTop = 92;
constexpr double kOverlapHeight = 6;
constexpr double kSourceHeight = 22;
constexpr double kSourceStep = 62;
constexpr double kSourceGap = 96;
constexpr double kNearGap = 34;  ///< where nothing is tied
constexpr double kLegendHeight = 46;
constexpr double kMarkStep = 20;
constexpr std::size_t kColumns = 2160;  ///< as fine as a band is painted

/// More sources than these share the last band's place: a picture is for looking at.
constexpr std::size_t kMostSources = 12;
/// More stretches than these are not tied to their sources: the ties would be a single smudge.
constexpr std::size_t kMostTies = 400;

constexpr std::array<const char*, kMostSources> kColours{"#4c78a8", "#f58518", "#54a24b", "#b279a2",
                                                         "#e45756", "#72b7b2", "#eeca3b", "#9d755d",
                                                         "#7f6dbd", "#ff9da6", "#8cd17d", "#8f8f8f"};
constexpr const char* kZeros = "#ffffff";
constexpr const char* kHole = "url(#hole)";
constexpr const char* kOverlap = "#d00000";

/// May a character of this many bytes stand in XML 1.0 (2.2)? No control character may, and neither may U+FFFE and
/// U+FFFF. Line ends and tabulators, which may, would be blanks in the picture.
bool IsShown(std::string_view sCharacter) {
    return sCharacter.size() == 1 ? static_cast<unsigned char>(sCharacter[0]) >= ' '
                                  : !sCharacter.starts_with("\xEF\xBF\xBE") && !sCharacter.starts_with("\xEF\xBF\xBF");
}

/// The text as XML in UTF-8, with "?" for what has no place in it.
std::string Escape(std::string_view sText) {
    std::string sEscaped;
    while (!sText.empty()) {
        const std::size_t nLength = GetUtf8Length(sText);
        const std::string_view sCharacter = sText.substr(0, std::max<std::size_t>(nLength, 1));
        sText.remove_prefix(sCharacter.size());
        if (nLength == 0 || !IsShown(sCharacter)) {
            sEscaped += '?';
        } else if (sCharacter == "&") {
            sEscaped += "&amp;";
        } else if (sCharacter == "<") {
            sEscaped += "&lt;";
        } else if (sCharacter == ">") {
            sEscaped += "&gt;";
        } else if (sCharacter == "\"") {
            sEscaped += "&quot;";
        } else {
            sEscaped += sCharacter;
        }
    }
    return sEscaped;
}

/// What is drawn of one source: how far it is used, and where.
struct SourceBand {
    std::int64_t iEnd = 0;  ///< of the bytes used
    std::int64_t nBytes = 0;
};

/// A band's colours, column by column, so that the picture stays small however many stretches there are. Each column
/// shows what takes most of it; what is wrong with a map is shown however small it is.
class Paint {
public:
    /// Paints a part of the band, from and to as fractions of it.
    void Add(double from, double to, const char* pcFill, bool bAlways) {
        const double first = std::clamp(from, 0.0, 1.0) * kColumns;
        const double end = std::clamp(to, 0.0, 1.0) * kColumns;
        const auto iFirst = std::min(static_cast<std::size_t>(first), kColumns - 1);
        for (std::size_t i = iFirst; i < kColumns && (static_cast<double>(i) < end || i == iFirst); ++i) {
            const double share = std::min(end, static_cast<double>(i) + 1) - std::max(first, static_cast<double>(i));
            const double weight = bAlways ? kColumns : share;
            if (weight >= m_vColumns[i].weight) {
                m_vColumns[i] = {weight, pcFill};
            }
        }
    }

    /// Calls back for each run of columns of one colour: from and to as fractions, and the colour.
    template <class Box>
    void ForEachRun(Box box) const {
        std::size_t iFrom = 0;
        for (std::size_t i = 1; i <= kColumns; ++i) {
            if (i < kColumns && m_vColumns[i].pcFill == m_vColumns[iFrom].pcFill) {
                continue;
            }
            if (m_vColumns[iFrom].pcFill != nullptr) {
                box(static_cast<double>(iFrom) / kColumns, static_cast<double>(i) / kColumns, m_vColumns[iFrom].pcFill);
            }
            iFrom = i;
        }
    }

private:
    struct Column {
        double weight = 0;
        const char* pcFill = nullptr;
    };
    std::vector<Column> m_vColumns = std::vector<Column>(kColumns);
};

/// Collects the picture's elements.
class Canvas {
public:
    __attribute__((format(printf, 2, 3))) void Add(const char* pcFormat, ...) {
        std::array<char, 1024> vcLine;
        std::va_list arguments;
        va_start(arguments, pcFormat);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
        const int nLine = std::vsnprintf(vcLine.data(), vcLine.size(), pcFormat, arguments);
        va_end(arguments);
        m_sElements.append(vcLine.data(), std::min(static_cast<std::size_t>(std::max(nLine, 0)), vcLine.size() - 1));
        m_sElements += '\n';
    }
    void AddText(double x, double y, const char* pcStyle, const std::string& sText) {
        Add("<text x=\"%.1f\" y=\"%.1f\" %s", x, y, pcStyle);
        m_sElements.back() = '>';  // in place of the line's end
        m_sElements += Escape(sText) + "</text>\n";
    }
    void AddBox(double x, double y, double width, double height, const char* pcFill, const char* pcMore = "") {
        Add("<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" fill=\"%s\" %s/>", x, y, width, height, pcFill,
            pcMore);
    }
    std::string TakeElements() { return std::move(m_sElements); }

private:
    std::string m_sElements;
};

class Drawing {
public:
    Drawing(const LaidOutMap& laidOut, const std::vector<std::int64_t>& viMarks)
        : m_LaidOut(laidOut), m_viMarks(viMarks) {
        for (const Stretch& stretch : laidOut.vStretches) {
            if (HasSource(stretch)) {
                SourceBand& band = m_Sources[GetBand(stretch)];
                band.iEnd = std::max(band.iEnd, GetSourceEnd(stretch));
                band.nBytes += stretch.GetLength();
            }
        }
    }

    std::string Draw(const std::string& sTitle) {
        m_Canvas.AddText(kLeft, 30, "class=\"title\"", sTitle);
        DrawAxis();
        DrawTies();
        DrawFile();
        PaintSources();
        DrawSources();
        DrawLegend();
        DrawMarks();
        return Wrap();
    }

private:
    bool HasSource(const Stretch& stretch) const { return !stretch.IsHole() && !m_LaidOut.IsZeros(stretch); }
    std::size_t GetBand(const Stretch& stretch) const {
        const auto iSource = static_cast<std::size_t>(m_LaidOut.map.GetSegments()[stretch.iSegment].iSource);
        return std::min(iSource, kMostSources - 1);
    }
    std::int64_t GetSourceBegin(const Stretch& stretch) const {
        return std::max<std::int64_t>(m_LaidOut.GetSourceOffset(stretch, stretch.iFrom), 0);
    }
    std::int64_t GetSourceEnd(const Stretch& stretch) const {
        return AddSaturated(GetSourceBegin(stretch), stretch.GetLength());
    }
    const char* GetFill(const Stretch& stretch) const {
        return stretch.IsHole() ? kHole : m_LaidOut.IsZeros(stretch) ? kZeros : kColours[GetBand(stretch)];
    }

    /// How far along a band of nAll bytes an offset lies.
    static double GetFraction(std::int64_t iOffset, std::int64_t nAll) {
        return nAll <= 0 ? 0 : static_cast<double>(iOffset) / static_cast<double>(nAll);
    }
    static double Place(std::int64_t iOffset, std::int64_t nAll) { return kLeft + kBand * GetFraction(iOffset, nAll); }
    double PlaceInFile(std::int64_t iOffset) const { return Place(iOffset, m_LaidOut.iSize); }
    bool IsTied() const { return m_LaidOut.vStretches.size() <= kMostTies; }
    double PlaceSource(std::size_t iRow) const {
        const double gap = IsTied() ? kSourceGap : kNearGap;
        return kFileTop + kBandHeight + gap + static_cast<double>(iRow) * kSourceStep;
    }
    double GetSourcesEnd() const { return PlaceSource(m_Sources.size()); }

    void DrawAxis() {
        constexpr int kTicks = 8;
        for (int i = 0; i <= kTicks; ++i) {
            const std::int64_t iOffset =
                i == kTicks ? m_LaidOut.iSize : m_LaidOut.iSize / kTicks * i + m_LaidOut.iSize % kTicks * i / kTicks;
            const double x = PlaceInFile(iOffset);
            m_Canvas.Add("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" class=\"tick\"/>", x, kFileTop - 8, x,
                         kFileTop);
            const char* pcAnchor = i == 0        ? "class=\"small\""
                                   : i == kTicks ? "class=\"small\" text-anchor=\"end\""
                                                 : "class=\"small\" text-anchor=\"middle\"";
            m_Canvas.AddText(x, kFileTop - 14, pcAnchor, FormatSize(iOffset));
        }
    }

    void DrawFile() {
        Paint file;
        Paint overlaps;
        for (const Stretch& stretch : m_LaidOut.vStretches) {
            const double from = GetFraction(stretch.iFrom, m_LaidOut.iSize);
            const double to = GetFraction(stretch.iTo, m_LaidOut.iSize);
            file.Add(from, to, GetFill(stretch), stretch.IsHole());
            if (stretch.bOverlap) {
                overlaps.Add(from, to, kOverlap, true);
            }
        }
        DrawPaint(file, kFileTop, kBandHeight);
        DrawPaint(overlaps, kFileTop + kBandHeight, kOverlapHeight);
        m_Canvas.AddBox(kLeft, kFileTop, kBand, kBandHeight, "none", "class=\"frame\"");
    }

    void DrawPaint(const Paint& paint, double y, double height) {
        paint.ForEachRun([&](double from, double to, const char* pcFill) {
            m_Canvas.AddBox(kLeft + kBand * from, y, kBand * (to - from), height, pcFill);
        });
    }

    void DrawTies() {
        if (!IsTied()) {
            return;
        }
        for (const Stretch& stretch : m_LaidOut.vStretches) {
            if (!HasSource(stretch)) {
                continue;
            }
            const std::size_t iBand = GetBand(stretch);
            const std::int64_t nSource = m_Sources[iBand].iEnd;
            const double top = kFileTop + kBandHeight;
            const double bottom = PlaceSource(GetRow(iBand));
            m_Canvas.Add("<polygon points=\"%.2f,%.1f %.2f,%.1f %.2f,%.1f %.2f,%.1f\" fill=\"%s\" class=\"tie\"/>",
                         PlaceInFile(stretch.iFrom), top, PlaceInFile(stretch.iTo), top,
                         Place(GetSourceEnd(stretch), nSource), bottom, Place(GetSourceBegin(stretch), nSource), bottom,
                         kColours[iBand]);
        }
    }

    std::size_t GetRow(std::size_t iBand) const {
        return static_cast<std::size_t>(std::distance(m_Sources.begin(), m_Sources.find(iBand)));
    }

    void PaintSources() {
        for (const Stretch& stretch : m_LaidOut.vStretches) {
            if (HasSource(stretch)) {
                const std::size_t iBand = GetBand(stretch);
                const std::int64_t iEnd = m_Sources[iBand].iEnd;
                m_Paints[iBand].Add(GetFraction(GetSourceBegin(stretch), iEnd),
                                    GetFraction(GetSourceEnd(stretch), iEnd), kColours[iBand], false);
            }
        }
    }

    void DrawSources() {
        for (const auto& [iBand, band] : m_Sources) {
            const double y = PlaceSource(GetRow(iBand));
            m_Canvas.AddBox(kLeft, y, kBand, kSourceHeight, "#f2f2f2");
            DrawPaint(m_Paints.at(iBand), y, kSourceHeight);
            m_Canvas.AddBox(kLeft, y, kBand, kSourceHeight, "none", "class=\"frame\"");
            m_Canvas.AddText(kLeft, y + kSourceHeight + 16, "", GetBandName(iBand));
            m_Canvas.AddText(kLeft + kBand, y + kSourceHeight + 16, "text-anchor=\"end\" class=\"small\"",
                             FormatSize(band.nBytes) + " used, up to " + FormatSize(band.iEnd));
        }
    }

    std::string GetBandName(std::size_t iBand) const {
        const std::vector<std::string>& vsSources = m_LaidOut.map.GetSources();
        if (iBand == kMostSources - 1 && vsSources.size() > kMostSources) {
            return vsSources[iBand] + " and " + std::to_string(vsSources.size() - kMostSources) + " further sources";
        }
        return vsSources[iBand];
    }

    /// A letter at its place in the file, and below the legend what is found there.
    void DrawMarks() {
        double y = GetSourcesEnd() + kLegendHeight;
        char cMark = 'A';
        for (const std::int64_t iMark : m_viMarks) {
            if (iMark < 0 || iMark > m_LaidOut.iSize || cMark > 'Z') {
                continue;
            }
            const double x = PlaceInFile(iMark);
            m_Canvas.Add("<line x1=\"%.2f\" y1=\"%.1f\" x2=\"%.2f\" y2=\"%.1f\" class=\"mark\"/>", x, kFileTop - 34, x,
                         kFileTop + kBandHeight + 14);
            const std::string sMark(1, cMark++);
            m_Canvas.AddText(x, kFileTop - 38, "text-anchor=\"middle\" class=\"point\"", sMark);
            m_Canvas.AddText(kLeft, y, "class=\"point\"", sMark + "  " + DescribeMark(iMark));
            y += kMarkStep;
        }
        m_Height = y;
    }

    std::string DescribeMark(std::int64_t iMark) const {
        std::string sText = DescribeOffset(m_LaidOut, iMark);
        sText.pop_back();  // the line's end
        return sText;
    }

    void DrawLegend() {
        const double y = GetSourcesEnd() + 4;
        double x = kLeft;
        const auto drawKey = [&](const char* pcFill, const char* pcText, double step) {
            m_Canvas.AddBox(x, y, 18, 14, pcFill, "class=\"frame\"");
            m_Canvas.AddText(x + 25, y + 12, "class=\"small\"", pcText);
            x += step;
        };
        drawKey(kZeros, "zeros (a segment without a source)", 270);
        drawKey(kHole, "hole (no segment)", 170);
        drawKey(kOverlap, "overlap: the segment added first holds", 290);
    }

    std::string Wrap() {
        Canvas frame;
        frame.Add("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" width=\"%.0f\" height=\"%.0f\">",
                  kWidth, m_Height, kWidth, m_Height);
        std::string sPicture = frame.TakeElements();
        sPicture +=
            "<style>text{font:14px sans-serif;fill:#222}.title{font-size:18px;font-weight:bold}.small{font-size:12px}"
            ".point{font-size:12px;fill:#b00020}.tick{stroke:#666}.mark{stroke:#b00020;stroke-width:1.5}"
            ".frame{stroke:#444;stroke-width:1}.tie{opacity:.28}</style>\n"
            "<defs><pattern id=\"hole\" width=\"8\" height=\"8\" patternUnits=\"userSpaceOnUse\" "
            "patternTransform=\"rotate(45)\"><rect width=\"8\" height=\"8\" fill=\"#eee\"/>"
            "<rect width=\"3\" height=\"8\" fill=\"#999\"/></pattern></defs>\n"
            "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
        return sPicture + m_Canvas.TakeElements() + "</svg>\n";
    }

    const LaidOutMap& m_LaidOut;
    const std::vector<std::int64_t>& m_viMarks;
    std::map<std::size_t, SourceBand> m_Sources;  ///< those that are used, by band
    std::map<std::size_t, Paint> m_Paints;        ///< of the same
    double m_Height = 0;                          ///< known when all is drawn
    Canvas m_Canvas;
};

}  // namespace

std::string DrawMap(const LaidOutMap& laidOut, const std::string& sTitle, const std::vector<std::int64_t>& viMarks) {
    return Drawing(laidOut, viMarks).Draw(sTitle);
}
