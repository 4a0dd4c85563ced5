// nfsget: a small NFS version 3 client, for trying out a server and for scripts.
//
// It unmounts at its end, also after a failure and when it is interrupted, because the server binds an export to one
// client until that client unmounts it.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Commands.h"
#include "Interruption.h"
#include "NfsError.h"
#include "NfsSession.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kUsage =
    "usage: nfsget [OPTION...] COMMAND\n"
    "  list HOST:EXPORT[/DIRECTORY]              entries by name: size, then name\n"
    "  stat HOST:EXPORT[/PATH]                   mode, size, time of last change, path\n"
    "  get HOST:EXPORT/FILE [LOCAL_FILE]         copy from the server (\"-\": standard output)\n"
    "  put LOCAL_FILE HOST:EXPORT/FILE           copy to the server (\"-\": standard input)\n"
    "  write LOCAL_FILE HOST:EXPORT/FILE OFFSET  change an existing file from byte OFFSET on, in place\n"
    "  mkdir HOST:EXPORT/DIRECTORY\n"
    "  remove HOST:EXPORT/PATH                   a file or an empty directory\n"
    "  release HOST:EXPORT                       unmount what a run that was cut short left mounted\n"
    "Options:\n"
    "  -p NFS_PORT, -m MOUNT_PORT   without them the host's portmapper is asked; if it does not answer: 2049 and 1058\n"
    "  --resume     get, put: go on where a run that was cut short stopped. What is there must begin as the file "
    "does:\n"
    "               64 KiB are compared, and the last MiB is copied again; if they differ, all is copied anew.\n"
    "               A get that is to be resumed keeps what has come as LOCAL_FILE.nfsget-part.\n"
    "  --           what follows is no option\n"
    "  -h, --help   --version\n"
    "A get that is cut short leaves no file, unless with --resume; a put leaves an incomplete one, and says so.\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage.\n";

/// A command line that makes no sense.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// ---- The command line

struct CommandLine {
    NfsTarget ports;
    bool bResume = false;
    bool bHelp = false;
    bool bVersion = false;
    std::vector<std::string> vsWords;  ///< the command and its arguments
};

int ParsePort(const std::string& sText) {
    char* pcEnd = nullptr;
    const long iPort = std::strtol(sText.c_str(), &pcEnd, 10);
    constexpr long kLargestPort = 65535;
    if (sText.empty() || *pcEnd != '\0' || iPort < 1 || iPort > kLargestPort) {
        throw UsageError("not a port: " + sText);
    }
    return static_cast<int>(iPort);
}

std::uint64_t ParseOffset(const std::string& sText) {
    char* pcEnd = nullptr;
    errno = 0;
    const long long iOffset = std::strtoll(sText.c_str(), &pcEnd, 10);
    if (sText.empty() || *pcEnd != '\0' || errno != 0 || iOffset < 0) {
        throw UsageError("not a place in a file: " + sText);
    }
    return static_cast<std::uint64_t>(iOffset);
}

CommandLine Parse(const std::vector<std::string>& vsArguments) {
    CommandLine line;
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

// ---- Running it

void RunGet(const CommandLine& line, int iInterrupt) {
    const Place place = ParseEntry(line.vsWords[1], line.ports);
    const std::string sLocal =
        line.vsWords.size() == 3 ? line.vsWords[2] : place.sPath.substr(place.sPath.rfind('/') + 1);
    if (line.bResume && sLocal == "-") {
        throw UsageError("--resume goes with a file, not with standard output");
    }
    Get(place, sLocal, line.bResume, iInterrupt);
}

void Run(const CommandLine& line) {
    const Interruption interruption;
    const int iInterrupt = interruption.Get();
    const std::string& sCommand = line.vsWords.front();
    const std::size_t nArguments = line.vsWords.size() - 1;
    const auto argument = [&](std::size_t iAt) { return line.vsWords[iAt]; };
    if (line.bResume && sCommand != "get" && sCommand != "put") {
        throw UsageError("--resume goes with get and put");
    }
    if (sCommand == "list" && nArguments == 1) {
        List(ParsePlace(argument(1), line.ports), iInterrupt);
    } else if (sCommand == "stat" && nArguments == 1) {
        Stat(ParsePlace(argument(1), line.ports), iInterrupt);
    } else if (sCommand == "get" && (nArguments == 1 || nArguments == 2)) {
        RunGet(line, iInterrupt);
    } else if (sCommand == "put" && nArguments == 2) {
        Put(argument(1), ParseEntry(argument(2), line.ports), line.bResume, iInterrupt);
    } else if (sCommand == "write" && nArguments == 3) {
        Write(argument(1), ParseEntry(argument(2), line.ports), ParseOffset(argument(3)), iInterrupt);
    } else if (sCommand == "mkdir" && nArguments == 1) {
        MakeDirectory(ParseEntry(argument(1), line.ports), iInterrupt);
    } else if (sCommand == "remove" && nArguments == 1) {
        Remove(ParseEntry(argument(1), line.ports), iInterrupt);
    } else if (sCommand == "release" && nArguments == 1) {
        NfsSession::Release(ParsePlace(argument(1), line.ports).target, iInterrupt);
    } else {
        throw UsageError("not a command, or not its arguments: " + sCommand);
    }
}

int Main(const std::vector<std::string>& vsArguments) {
    const CommandLine line = Parse(vsArguments);
    if (line.bHelp) {
        std::fputs(kUsage, stdout);
    } else if (line.bVersion) {
        std::puts("nfsget " NFSLIB_VERSION);
    } else if (line.vsWords.empty()) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    } else {
        Run(line);
    }
    if (std::fflush(stdout) != 0) {
        throw NfsError(std::string("standard output: ") + std::strerror(errno));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main({argv + 1, argv + argc});
    } catch (const UsageError& error) {
        std::fprintf(stderr, "usage: nfsget [OPTION...] COMMAND (nfsget --help tells all)\nnfsget: %s\n", error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nfsget: %s\n", error.what());
        return kExitFailed;
    }
}
