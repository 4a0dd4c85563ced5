// nfsget's command line.
#include "GetRequest.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <string_view>

#include "CommandLine.h"

namespace {

using Verb = GetRequest::Verb;
using Words = std::vector<std::string>;

// ---- Options

/// A command line without its options.
struct Line {
    NfsTarget ports;
    bool bResume = false;
    bool bHelp = false;
    bool bVersion = false;
    Words vsWords;  ///< the command and its arguments
};

int ParsePort(const std::string& sText) {
    constexpr std::uint64_t kLargestPort = 65535;
    const std::optional<std::uint64_t> oiPort = ReadNumber(sText);
    if (!oiPort || *oiPort < 1 || *oiPort > kLargestPort) {
        throw UsageError("not a port: " + sText);
    }
    return static_cast<int>(*oiPort);
}

Line TakeOptions(const Words& vsArguments) {
    Line line;
    for (std::size_t i = 0; i < vsArguments.size(); ++i) {
        const std::string& sWord = vsArguments[i];
        if (sWord == "--") {
            line.vsWords.insert(line.vsWords.end(), vsArguments.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                vsArguments.end());
            break;
        }
        if (sWord.size() < 2 || sWord[0] != '-') {
            line.vsWords.push_back(sWord);
        } else if (sWord == "-p" || sWord == "-m") {
            if (++i == vsArguments.size()) {
                throw UsageError("no port behind " + sWord);
            }
            (sWord == "-p" ? line.ports.iNfsPort : line.ports.iMountPort) = ParsePort(vsArguments[i]);
        } else if (sWord == "--resume") {
            line.bResume = true;
        } else if (sWord == "-h" || sWord == "--help") {
            line.bHelp = true;
        } else if (sWord == "--version") {
            line.bVersion = true;
        } else {
            throw UsageError("unknown option: " + sWord);
        }
    }
    return line;
}

// ---- Arguments

std::uint64_t ParseOffset(const std::string& sText) {
    const std::optional<std::uint64_t> oiOffset = ReadNumber(sText);
    if (!oiOffset || *oiOffset > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw UsageError("not a place in a file: " + sText);
    }
    return *oiOffset;
}

Place ParsePlace(const std::string& sText, const NfsTarget& ports) {
    const std::size_t iColon = sText.find(':');
    if (iColon == std::string::npos || iColon == 0) {
        throw UsageError("not HOST:EXPORT/PATH: " + sText);
    }
    const std::size_t iSlash = sText.find('/', iColon + 1);
    Place place{ports, ""};
    place.target.sHost = sText.substr(0, iColon);
    place.target.sExport = sText.substr(iColon + 1, iSlash == std::string::npos ? iSlash : iSlash - iColon - 1);
    if (iSlash != std::string::npos) {
        place.sPath = sText.substr(iSlash + 1);
    }
    if (place.target.sExport.empty()) {
        throw UsageError("no export named: " + sText);
    }
    return place;
}

/// The path of an entry below the export, which has to be named.
Place ParseEntry(const std::string& sText, const NfsTarget& ports) {
    Place place = ParsePlace(sText, ports);
    if (place.sPath.empty()) {
        throw UsageError("no path behind the export: " + sText);
    }
    return place;
}

const std::string& ParseLocal(const std::string& sText) {
    if (sText.empty()) {
        throw UsageError("a local file without a name");
    }
    return sText;
}

/// The local file of a get that names none: called as the remote one is, in the current directory.
std::string NameAsThere(const std::string& sPath) {
    const std::string sName = sPath.substr(sPath.rfind('/') + 1);
    if (sName.empty() || sName == "." || sName == "..") {
        throw UsageError("no name for the local file: " + sPath);
    }
    return sName == "-" ? "./-" : sName;  // not the standard output, which nobody asked for
}

// ---- Commands

GetRequest MakeCopy(const Line& line, Verb verb, const std::string& sLocal, const std::string& sRemote) {
    GetRequest request{verb, ParseEntry(sRemote, line.ports), "", 0, line.bResume};
    request.sLocal = line.vsWords.size() == 2 ? NameAsThere(request.place.sPath) : ParseLocal(sLocal);
    if (line.bResume && verb == Verb::kGet && request.sLocal == "-") {
        throw UsageError("--resume goes with a file, not with standard output");
    }
    return request;
}

/// The request of a command with as many arguments as it takes.
GetRequest MakeRequest(const Line& line, Verb verb) {
    const Words& vsWords = line.vsWords;
    switch (verb) {
        case Verb::kGet:
            return MakeCopy(line, verb, vsWords.back(), vsWords[1]);
        case Verb::kPut:
            return MakeCopy(line, verb, vsWords[1], vsWords[2]);
        case Verb::kWrite:
            return {verb, ParseEntry(vsWords[2], line.ports), ParseLocal(vsWords[1]), ParseOffset(vsWords[3]), false};
        case Verb::kMakeDirectory:
        case Verb::kRemove:
            return {verb, ParseEntry(vsWords[1], line.ports), "", 0, false};
        default:
            return {verb, ParsePlace(vsWords[1], line.ports), "", 0, false};
    }
}

struct Command {
    std::string_view sName;
    Verb verb;
    std::size_t nFewest;  ///< arguments
    std::size_t nMost;
};

constexpr Command kCommands[] = {
    {"list", Verb::kList, 1, 1},     {"stat", Verb::kStat, 1, 1},       {"get", Verb::kGet, 1, 2},
    {"put", Verb::kPut, 2, 2},       {"write", Verb::kWrite, 3, 3},     {"mkdir", Verb::kMakeDirectory, 1, 1},
    {"remove", Verb::kRemove, 1, 1}, {"release", Verb::kRelease, 1, 1},
};

}  // namespace

GetRequest GetRequest::Parse(const std::vector<std::string>& vsArguments) {
    const Line line = TakeOptions(vsArguments);
    GetRequest request;
    if (line.bHelp || line.bVersion || line.vsWords.empty()) {
        request.verb = line.bHelp ? Verb::kHelp : line.bVersion ? Verb::kVersion : Verb::kUsage;
        return request;
    }
    const std::string& sCommand = line.vsWords.front();
    if (line.bResume && sCommand != "get" && sCommand != "put") {
        throw UsageError("--resume goes with get and put");
    }
    const std::size_t nArguments = line.vsWords.size() - 1;
    const auto* pCommand = std::ranges::find(kCommands, sCommand, &Command::sName);
    if (pCommand == std::end(kCommands) || nArguments < pCommand->nFewest || nArguments > pCommand->nMost) {
        throw UsageError("not a command, or not its arguments: " + sCommand);
    }
    return MakeRequest(line, pCommand->verb);
}
