// nfsmap's command line.
#include "MapOptions.h"

#include <limits>
#include <string_view>

#include "CommandLine.h"

namespace {

/// A number with an optional unit behind it; at most the greatest offset a file can have.
std::int64_t ParseNumber(const std::string& sText, std::int64_t iUnit = 1) {
    static constexpr std::string_view kUnits = "KMGT";
    std::string_view sDigits = sText;
    const std::size_t iLetter = sDigits.empty() ? std::string_view::npos : kUnits.find(sDigits.back());
    if (iLetter != std::string_view::npos) {
        iUnit *= std::int64_t{1} << (10 * (iLetter + 1));
        sDigits.remove_suffix(1);
    }
    const bool bHexadecimal = sDigits.starts_with("0x") || sDigits.starts_with("0X");
    const std::optional<std::uint64_t> oiNumber =
        bHexadecimal ? ReadNumber(sDigits.substr(2), 16) : ReadNumber(sDigits);
    if (!oiNumber || *oiNumber > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max() / iUnit)) {
        throw UsageError("not a number of bytes: " + sText);
    }
    return static_cast<std::int64_t>(*oiNumber) * iUnit;
}

std::int64_t ParsePositive(const std::string& sText) {
    const std::int64_t iNumber = ParseNumber(sText, SearchSteps::kMiB);
    if (iNumber == 0) {
        throw UsageError("must be greater than 0: " + sText);
    }
    return iNumber;
}

/// Takes one option, with its value from the arguments behind it. False for what is none.
bool ParseOption(MapOptions& options, const std::vector<std::string>& vsArguments, std::size_t& i) {
    const std::string& sOption = vsArguments[i];
    const auto getValue = [&]() -> const std::string& {
        if (i + 1 == vsArguments.size() || vsArguments[i + 1].empty()) {
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

}  // namespace

MapOptions MapOptions::Parse(const std::vector<std::string>& vsArguments) {
    MapOptions options;
    for (std::size_t i = 0; i < vsArguments.size(); ++i) {
        if (ParseOption(options, vsArguments, i)) {
            continue;
        }
        const std::string& sArgument = vsArguments[i];
        if (sArgument.starts_with("-")) {
            throw UsageError("unknown option: " + sArgument);
        }
        if (sArgument.empty()) {
            throw UsageError("a file without a name");
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
