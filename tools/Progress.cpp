// A line on the terminal that tells how far a transfer is.
#include "Progress.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include <unistd.h>

namespace {

constexpr auto kInterval = std::chrono::milliseconds(250);
constexpr const char* kClearLine = "\r\033[K";

std::string Size(double dBytes) {
    constexpr std::array<const char*, 5> vpcUnits{"B", "KiB", "MiB", "GiB", "TiB"};
    constexpr double kStep = 1024;
    std::size_t iUnit = 0;
    while (dBytes >= kStep && iUnit + 1 < vpcUnits.size()) {
        dBytes /= kStep;
        ++iUnit;
    }
    std::array<char, 32> vcText{};
    std::snprintf(vcText.data(), vcText.size(), iUnit == 0 ? "%.0f %s" : "%.1f %s", dBytes, vpcUnits[iUnit]);
    return vcText.data();
}

std::string Duration(double dSeconds) {
    constexpr double kLongest = 360000;  // a hundred hours: beyond that nobody waits
    if (dSeconds > kLongest) {
        return "days";
    }
    const auto iSeconds = static_cast<unsigned long>(dSeconds + 1);
    std::array<char, 32> vcText{};
    if (iSeconds < 60) {
        std::snprintf(vcText.data(), vcText.size(), "%lu s", iSeconds);
    } else if (iSeconds < 3600) {
        std::snprintf(vcText.data(), vcText.size(), "%lu:%02lu min", iSeconds / 60, iSeconds % 60);
    } else {
        std::snprintf(vcText.data(), vcText.size(), "%lu:%02lu h", iSeconds / 3600, iSeconds / 60 % 60);
    }
    return vcText.data();
}

}  // namespace

Progress::Progress(std::optional<std::uint64_t> oiTotal, bool bQuiet)
    : m_oiTotal(oiTotal), m_bShown(!bQuiet && ::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (m_bLine) {
        std::fputs(kClearLine, stderr);
    }
}

void Progress::Skip(std::uint64_t iBytes) {
    m_iDone += iBytes;
}

void Progress::Advance(std::uint64_t iBytes) {
    m_iDone += iBytes;
    m_iMoved += iBytes;
}

void Progress::Show() {
    const auto tNow = Clock::now();
    if (!m_bShown || tNow < m_tNext) {
        return;
    }
    m_tNext = tNow + kInterval;
    m_bLine = true;
    std::fprintf(stderr, "%s%s", kClearLine, Line(m_iDone, m_oiTotal, m_iMoved, tNow - m_tStart).c_str());
}

std::string Progress::Line(std::uint64_t iDone, std::optional<std::uint64_t> oiTotal, std::uint64_t iMoved,
                           std::chrono::duration<double> elapsed) {
    std::string sLine = Size(static_cast<double>(iDone));
    const double dRate = elapsed.count() > 0 ? static_cast<double>(iMoved) / elapsed.count() : 0;
    if (oiTotal) {
        sLine += " of " + Size(static_cast<double>(*oiTotal));
    }
    sLine += ", " + Size(dRate) + "/s";
    if (oiTotal && *oiTotal >= iDone && dRate >= 1) {
        sLine += ", " + Duration(static_cast<double>(*oiTotal - iDone) / dRate) + " left";
    }
    return sLine;
}
