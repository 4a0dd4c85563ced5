// nfsmap: draws the map of a redirected file, from its info file or its info dump.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MapPicture.h"
#include "MapReport.h"
#include "SegmentMap.h"

namespace {

constexpr int kExitIncomplete = 1;
constexpr int kExitUsage = 2;
constexpr int kExitFailed = 3;

constexpr const char* kUsage =
    "usage: nfsmap [OPTION...] FILE\n"
    "Tells what stands where in a redirected file. FILE is its info file, or a dump that the host had written of its\n"
    "map. Prints a table of the whole file in virtual order, and what is wrong with the map.\n"
    "  --at OFFSET           tell of this offset alone; can be given several times\n"
    "  --svg PICTURE         draw the map into a file, with the offsets given by --at marked\n"
    "  --summary             no table\n"
    "  --check               print nothing while the map is whole; exit status 1 if it is not\n"
    "  --size BYTES          the file's size (default: the end of the last segment)\n"
    "  --info, --dump        what FILE is (default: judged by its first bytes)\n"
    "  --segment-size MIB    of an info file, as the host opened it (32)\n"
    "  --checkpoint-size MIB likewise (1024)\n"
    "Offsets and sizes take K, M, G or T behind the number, and 0x in front of it.\n"
    "Exit status: 0 done, 1 with --check if the map is not whole, 2 wrong usage, 3 failed.\n";

/// A command line that makes no sense.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string sFile;
    std::string sPicture;
    std::vector<std::int64_t> viOffsets;
    std::optional<std::int64_t> iSize;
    SegmentMap::Form form = SegmentMap::Form::kGuess;
    SearchSteps steps;
    bool bSummaryOnly = false;
    bool bCheck = false;
};

/// A number with an optional unit behind it; at most the greatest offset a file can have.
std::int64_t ParseNumber(const std::string& sText, std::int64_t iUnit = 1) {
    static constexpr std::string_view kUnits = "KMGT";
    char* pcEnd = nullptr;
    errno = 0;
    const std::int64_t iNumber = std::strtoll(sText.c_str(), &pcEnd, 0);
    const std::size_t iLetter = *pcEnd != '\0' ? kUnits.find(*pcEnd) : std::string_view::npos;
    if (iLetter != std::string_view::npos) {
        iUnit *= std::int64_t{1} << (10 * (iLetter + 1));
        ++pcEnd;
    }
    const bool bNumber = pcEnd != sText.c_str() && *pcEnd == '\0' && errno == 0;
    if (!bNumber || iNumber < 0 || iNumber > std::numeric_limits<std::int64_t>::max() / iUnit) {
        throw UsageError("not a number of bytes: " + sText);
    }
    return iNumber * iUnit;
}

std::int64_t ParsePositive(const std::string& sText) {
    const std::int64_t iNumber = ParseNumber(sText, SearchSteps::kMiB);
    if (iNumber == 0) {
        throw UsageError("must be greater than 0: " + sText);
    }
    return iNumber;
}

/// Takes one option, with its value from the arguments behind it. False for what is none.
bool ParseOption(Options& options, const std::vector<std::string>& vsArguments, std::size_t& i) {
    const std::string& sOption = vsArguments[i];
    const auto getValue = [&]() -> const std::string& {
        if (i + 1 == vsArguments.size()) {
            throw UsageError("no value behind " + sOption);
        }
        return vsArguments[++i];
    };
    if (sOption == "--at") {
        options.viOffsets.push_back(ParseNumber(getValue()));
    } else if (sOption == "--svg") {
        options.sPicture = getValue();
    } else if (sOption == "--summary") {
        options.bSummaryOnly = true;
    } else if (sOption == "--check") {
        options.bCheck = true;
    } else if (sOption == "--size") {
        options.iSize = ParseNumber(getValue());
    } else if (sOption == "--info") {
        options.form = SegmentMap::Form::kInfoFile;
    } else if (sOption == "--dump") {
        options.form = SegmentMap::Form::kInfoDump;
    } else if (sOption == "--segment-size") {
        options.steps.iSegmentSize = ParsePositive(getValue());
    } else if (sOption == "--checkpoint-size") {
        options.steps.iCheckPointSize = ParsePositive(getValue());
    } else {
        return false;
    }
    return true;
}

Options ParseArguments(const std::vector<std::string>& vsArguments) {
    Options options;
    for (std::size_t i = 0; i < vsArguments.size(); ++i) {
        if (ParseOption(options, vsArguments, i)) {
            continue;
        }
        const std::string& sArgument = vsArguments[i];
        if (sArgument.starts_with("-")) {
            throw UsageError("unknown option: " + sArgument);
        }
        if (!options.sFile.empty()) {
            throw UsageError("one file at a time: " + sArgument);
        }
        options.sFile = sArgument;
    }
    if (options.sFile.empty()) {
        throw UsageError("no file named");
    }
    return options;
}

void WritePicture(const Options& options, const LaidOutMap& laidOut) {
    const std::string sTitle = options.sFile.substr(options.sFile.rfind('/') + 1);
    std::ofstream file(options.sPicture, std::ios::binary | std::ios::trunc);
    file << DrawMap(laidOut, sTitle, options.viOffsets);
    file.close();
    if (!file) {
        throw MapError("\"" + options.sPicture + "\": cannot be written");
    }
}

int Run(const Options& options) {
    const SegmentMap map = SegmentMap::Load(options.sFile, options.form);
    const LaidOutMap laidOut(map, options.iSize.value_or(map.GetEnd()));
    const MapSummary summary = Summarize(laidOut, options.steps);
    if (!options.sPicture.empty()) {
        WritePicture(options, laidOut);
    }
    if (options.bCheck) {
        std::fputs(summary.bComplete ? "" : summary.sText.c_str(), stdout);
        return summary.bComplete ? 0 : kExitIncomplete;
    }
    for (const std::int64_t iOffset : options.viOffsets) {
        std::fputs(DescribeOffset(laidOut, iOffset).c_str(), stdout);
    }
    if (options.viOffsets.empty()) {
        const std::string sTable = options.bSummaryOnly ? "" : MakeTable(laidOut) + "\n";
        std::fputs((sTable + summary.sText).c_str(), stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> vsArguments(argv + 1, argv + argc);
    try {
        if (vsArguments.size() == 1 && vsArguments[0] == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        const int iStatus = Run(ParseArguments(vsArguments));
        if (std::fflush(stdout) != 0) {
            throw MapError(std::string("standard output: ") + std::strerror(errno));
        }
        return iStatus;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "%snfsmap: %s\n", kUsage, error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nfsmap: %s\n", error.what());
        return kExitFailed;
    }
}
