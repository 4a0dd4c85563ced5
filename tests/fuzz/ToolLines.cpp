// The tools' command lines, read twice.
#include "ToolLines.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>

#include "CommandLine.h"
#include "GetRequest.h"
#include "MapOptions.h"

namespace {

using Words = std::vector<std::string>;
using Verb = GetRequest::Verb;

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();

/// A number of digits alone that is not greater than a limit, digit by digit.
std::optional<std::int64_t> ReadDigits(std::string_view sText, std::string_view sDigits, std::int64_t iLimit) {
    const auto iBase = static_cast<std::int64_t>(sDigits.size());
    std::int64_t iNumber = 0;
    for (const char c : sText) {
        const char cLower = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
        const std::size_t iDigit = sDigits.find(cLower);
        if (iDigit == std::string_view::npos || iNumber > iLimit / iBase ||
            iNumber * iBase > iLimit - static_cast<std::int64_t>(iDigit)) {
            return std::nullopt;
        }
        iNumber = iNumber * iBase + static_cast<std::int64_t>(iDigit);
    }
    return sText.empty() ? std::nullopt : std::optional(iNumber);
}

constexpr std::string_view kDecimal = "0123456789";

// ---- nfsmap

std::optional<std::int64_t> ReadBytes(std::string_view sText, std::int64_t iUnit) {
    for (const char cUnit : {'T', 'G', 'M', 'K'}) {
        if (sText.ends_with(cUnit)) {
            sText.remove_suffix(1);
            for (const char cLess : {'K', 'M', 'G', 'T'}) {
                iUnit *= 1024;
                if (cLess == cUnit) {
                    break;
                }
            }
            break;
        }
    }
    const bool bHexadecimal = sText.size() >= 2 && sText[0] == '0' && (sText[1] == 'x' || sText[1] == 'X');
    const auto oiNumber = bHexadecimal ? ReadDigits(sText.substr(2), "0123456789abcdef", kLargest / iUnit)
                                       : ReadDigits(sText, kDecimal, kLargest / iUnit);
    return oiNumber ? std::optional(*oiNumber * iUnit) : std::nullopt;
}

/// Takes one of nfsmap's options with a value; false for a value that is wrong.
bool TakeMapValue(MapOptions& options, const std::string& sOption, const std::string& sValue) {
    const bool bMiB = sOption == "--segment-size" || sOption == "--checkpoint-size";
    const auto oiBytes = ReadBytes(sValue, bMiB ? 1048576 : 1);
    if (sOption == "--svg") {
        options.sPicture = sValue;
        return !sValue.empty();
    }
    if (!oiBytes || (bMiB && *oiBytes == 0)) {
        return false;
    }
    if (sOption == "--at") {
        options.viOffsets.push_back(*oiBytes);
    } else if (sOption == "--size") {
        options.iSize = oiBytes;
    } else {
        (sOption == "--segment-size" ? options.steps.iSegmentSize : options.steps.iCheckPointSize) = *oiBytes;
    }
    return true;
}

/// Takes one of nfsmap's options without a value; false for what is none.
bool TakeMapFlag(MapOptions& options, const std::string& sWord) {
    if (sWord == "--summary") {
        options.bSummaryOnly = true;
    } else if (sWord == "--check") {
        options.bCheck = true;
    } else if (sWord == "--info" || sWord == "--dump") {
        options.form = sWord == "--info" ? SegmentMap::Form::kInfoFile : SegmentMap::Form::kInfoDump;
    } else {
        return false;
    }
    return true;
}

std::optional<MapOptions> ReadMapLine(const Words& vsWords) {
    static constexpr std::array<std::string_view, 5> kWithValue{"--at", "--svg", "--size", "--segment-size",
                                                                "--checkpoint-size"};
    MapOptions options;
    int nFiles = 0;
    for (auto itWord = vsWords.begin(); itWord != vsWords.end(); ++itWord) {
        if (std::ranges::find(kWithValue, *itWord) != kWithValue.end()) {
            const std::string& sOption = *itWord;
            if (++itWord == vsWords.end() || !TakeMapValue(options, sOption, *itWord)) {
                return std::nullopt;
            }
        } else if (!TakeMapFlag(options, *itWord)) {
            options.sFile = *itWord;
            ++nFiles;
            if (itWord->empty() || itWord->front() == '-') {
                return std::nullopt;
            }
        }
    }
    return nFiles == 1 ? std::optional(options) : std::nullopt;
}

bool AreSame(const MapOptions& one, const MapOptions& other) {
    return one.sFile == other.sFile && one.sPicture == other.sPicture && one.viOffsets == other.viOffsets &&
           one.iSize == other.iSize && one.form == other.form && one.steps.iSegmentSize == other.steps.iSegmentSize &&
           one.steps.iCheckPointSize == other.steps.iCheckPointSize && one.bSummaryOnly == other.bSummaryOnly &&
           one.bCheck == other.bCheck;
}

// ---- nfsget

/// A command, and what its arguments are: r a remote entry, e an export or an entry, l a local file, o an offset.
struct PlainCommand {
    const char* pcName;
    Verb verb;
    std::string_view sArguments;
};

constexpr PlainCommand kCommands[] = {
    {"list", Verb::kList, "e"},
    {"stat", Verb::kStat, "e"},
    {"get", Verb::kGet, "r"},
    {"get", Verb::kGet, "rl"},
    {"put", Verb::kPut, "lr"},
    {"write", Verb::kWrite, "lro"},
    {"mkdir", Verb::kMakeDirectory, "r"},
    {"remove", Verb::kRemove, "r"},
    {"release", Verb::kRelease, "e"},
    {"nothing", Verb::kUsage, "-"},
    {"--help", Verb::kHelp, "-"},
    {"--version", Verb::kVersion, "-"},
};

/// Host, export and path are what stands in front of the first colon, from there to a slash, and behind that.
bool TakePlace(Place& place, const std::string& sText, bool bEntry) {
    std::array<std::string*, 3> vpsParts{&place.target.sHost, &place.target.sExport, &place.sPath};
    std::size_t iPart = 0;
    for (const char c : sText) {
        if ((iPart == 0 && c == ':') || (iPart == 1 && c == '/')) {
            ++iPart;
        } else {
            *vpsParts[iPart] += c;
        }
    }
    return !place.target.sHost.empty() && !place.target.sExport.empty() && (!bEntry || !place.sPath.empty());
}

bool TakeArgument(GetRequest& request, char cKind, const std::string& sText) {
    switch (cKind) {
        case 'r':
        case 'e':
            return TakePlace(request.place, sText, cKind == 'r');
        case 'l':
            request.sLocal = sText;
            return !sText.empty();
        default:
            const auto oiOffset = ReadDigits(sText, kDecimal, kLargest);
            request.iOffset = static_cast<std::uint64_t>(oiOffset.value_or(0));
            return oiOffset.has_value();
    }
}

/// Takes the options out of the words; false for a wrong one.
bool TakeGetOptions(GetRequest& request, Words& vsWords) {
    Words vsRest;
    bool bHelp = false;
    bool bVersion = false;
    for (auto itWord = vsWords.begin(); itWord != vsWords.end(); ++itWord) {
        if (*itWord == "--") {
            vsRest.insert(vsRest.end(), itWord + 1, vsWords.end());
            break;
        }
        if (*itWord == "-p" || *itWord == "-m") {
            NfsTarget& target = request.place.target;
            int& iPort = *itWord == "-p" ? target.iNfsPort : target.iMountPort;
            const auto oiPort = ++itWord == vsWords.end() ? std::nullopt : ReadDigits(*itWord, kDecimal, 65535);
            if (oiPort.value_or(0) == 0) {
                return false;
            }
            iPort = static_cast<int>(*oiPort);
        } else if (*itWord == "--resume") {
            request.bResume = true;
        } else if (*itWord == "-h" || *itWord == "--help") {
            bHelp = true;
        } else if (*itWord == "--version") {
            bVersion = true;
        } else if (itWord->size() > 1 && itWord->front() == '-') {
            return false;
        } else {
            vsRest.push_back(*itWord);
        }
    }
    vsWords = std::move(vsRest);
    request.verb = bHelp ? Verb::kHelp : bVersion ? Verb::kVersion : Verb::kUsage;
    return true;
}

/// What a get that names no local file makes: an entry of the current directory.
bool NameLocal(GetRequest& request) {
    std::string sName;
    for (const char c : request.place.sPath) {
        sName = c == '/' ? "" : sName + c;
    }
    request.sLocal = sName == "-" ? "./-" : sName;
    return !sName.empty() && sName != "." && sName != "..";
}

std::optional<GetRequest> ReadGetLine(Words vsWords) {
    GetRequest request;
    if (!TakeGetOptions(request, vsWords)) {
        return std::nullopt;
    }
    if (request.verb != Verb::kUsage || vsWords.empty()) {
        request.bResume = false;
        request.place = {};
        return request;
    }
    for (const PlainCommand& command : kCommands) {
        if (vsWords[0] != command.pcName || vsWords.size() != command.sArguments.size() + 1 ||
            command.sArguments == "-") {
            continue;
        }
        request.verb = command.verb;
        bool bRight = !request.bResume || command.verb == Verb::kGet || command.verb == Verb::kPut;
        for (std::size_t i = 1; i < vsWords.size(); ++i) {
            bRight = bRight && TakeArgument(request, command.sArguments[i - 1], vsWords[i]);
        }
        bRight = bRight && (command.verb != Verb::kGet || vsWords.size() == 3 || NameLocal(request));
        bRight = bRight && !(command.verb == Verb::kGet && request.bResume && request.sLocal == "-");
        return bRight ? std::optional(request) : std::nullopt;
    }
    return std::nullopt;
}

bool AreSame(const GetRequest& one, const GetRequest& other) {
    const NfsTarget& target = one.place.target;
    const NfsTarget& otherTarget = other.place.target;
    return one.verb == other.verb && one.sLocal == other.sLocal && one.iOffset == other.iOffset &&
           one.bResume == other.bResume && one.place.sPath == other.place.sPath && target.sHost == otherTarget.sHost &&
           target.sExport == otherTarget.sExport && target.iNfsPort == otherTarget.iNfsPort &&
           target.iMountPort == otherTarget.iMountPort;
}

// ---- Both

/// What both readings must agree on.
template <class Request>
std::string Judge(const std::string& sTool, const Words& vsWords, const std::optional<Request>& plain,
                  const std::function<std::string(const Request&)>& describe, const ReachedReport& report) {
    try {
        const Request request = Request::Parse(vsWords);
        if (!plain) {
            return sTool + " took a wrong command line";
        }
        report(sTool + ": " + describe(request));
        return AreSame(request, *plain) ? "" : sTool + " understood something else";
    } catch (const UsageError& error) {
        report(sTool + ": refused");
        if (plain) {
            return sTool + " refused a command line: " + error.what();
        }
        return error.what()[0] != '\0' ? "" : sTool + " refused a command line without a reason";
    }
}

}  // namespace

std::string JudgeMapLine(const Words& vsWords, const ReachedReport& report) {
    return Judge<MapOptions>(
        "nfsmap", vsWords, ReadMapLine(vsWords), [](const MapOptions&) { return "taken"; }, report);
}

std::string JudgeGetLine(const Words& vsWords, const ReachedReport& report) {
    return Judge<GetRequest>(
        "nfsget", vsWords, ReadGetLine(vsWords),
        [](const GetRequest& request) {
            return std::ranges::find(kCommands, request.verb, &PlainCommand::verb)->pcName;
        },
        report);
}

std::vector<std::string> GetToolCommands() {
    std::vector<std::string> vsNames;
    for (const PlainCommand& command : kCommands) {
        vsNames.emplace_back(command.pcName);
    }
    return vsNames;
}
