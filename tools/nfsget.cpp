// nfsget: a small NFS version 3 client, for trying out a server and for scripts.
//
// It unmounts at its end, also after a failure and when it is interrupted, because the server binds an export to one
// client until that client unmounts it.
#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "NfsSession.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr mode_t kLocalFileMode = 0644;

constexpr const char* kUsage =
    "usage: nfsget [-p NFS_PORT] [-m MOUNT_PORT] COMMAND\n"
    "  list HOST:EXPORT[/DIRECTORY]              entries by name: size, then name\n"
    "  stat HOST:EXPORT[/PATH]                   mode, size, time of last change, path\n"
    "  get HOST:EXPORT/FILE [LOCAL_FILE]         copy from the server (\"-\": standard output)\n"
    "  put LOCAL_FILE HOST:EXPORT/FILE           copy to the server (\"-\": standard input)\n"
    "  mkdir HOST:EXPORT/DIRECTORY\n"
    "  remove HOST:EXPORT/PATH                   a file or an empty directory\n"
    "  release HOST:EXPORT                       unmount what a run that was cut short left mounted\n"
    "Ports: 2049 and 1058 unless given (2050 and 1059 beside a system portmapper).\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage.\n";

/// A command line that makes no sense.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What HOST:EXPORT/PATH names.
struct Place {
    NfsTarget target;
    std::string sPath;
};

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

int ParsePort(const char* pcText) {
    char* pcEnd = nullptr;
    const long iPort = std::strtol(pcText, &pcEnd, 10);
    constexpr long kLargestPort = 65535;
    if (*pcText == '\0' || *pcEnd != '\0' || iPort < 1 || iPort > kLargestPort) {
        throw UsageError(std::string("not a port: ") + pcText);
    }
    return static_cast<int>(iPort);
}

/// A local descriptor, closed at the end of the scope unless it is a standard stream.
class LocalFile {
public:
    LocalFile(const std::string& sPath, int iFlags, int iStandard)
        : m_iFile(sPath == "-" ? iStandard : open(sPath.c_str(), iFlags | O_CLOEXEC, kLocalFileMode)),
          m_bOwned(sPath != "-") {
        if (m_iFile < 0) {
            throw NfsError("\"" + sPath + "\": " + std::strerror(errno));
        }
    }
    ~LocalFile() {
        if (m_bOwned && m_iFile >= 0) {
            close(m_iFile);  // closed already, and checked, where it was written to
        }
    }
    LocalFile(const LocalFile&) = delete;
    LocalFile& operator=(const LocalFile&) = delete;

    int Get() const { return m_iFile; }
    /// The file system may report a failed write only now.
    void Close(const std::string& sPath) {
        const int iFile = m_iFile;
        m_iFile = -1;
        if (m_bOwned && close(iFile) != 0) {
            throw NfsError("\"" + sPath + "\": " + std::strerror(errno));
        }
    }

private:
    int m_iFile;
    bool m_bOwned;
};

/// Whether the user wants the program to end. SIGINT, SIGTERM and SIGHUP no longer do so by themselves: what is under
/// way notices them at its next wait, fails, and unmounts on its way out.
class Interruption {
public:
    Interruption() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGHUP);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        m_iSignals = signalfd(-1, &signals, SFD_CLOEXEC);
        if (m_iSignals < 0) {
            throw NfsError(std::string("signalfd: ") + std::strerror(errno));
        }
        std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is a failed local write
    }
    ~Interruption() { close(m_iSignals); }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Readable from the first such signal on; nothing is to be read from it.
    int Get() const { return m_iSignals; }

private:
    int m_iSignals;
};

// ==== Commands =======================================================================================================

void List(const Place& place, const Interruption& interruption) {
    NfsSession session(place.target, interruption.Get());
    for (const NfsEntry& entry : session.List(place.sPath)) {
        std::printf("%12llu  %s%s\n", static_cast<unsigned long long>(entry.iSize), entry.sName.c_str(),
                    S_ISDIR(entry.iMode) ? "/" : "");
    }
    session.End();
}

void Stat(const Place& place, const Interruption& interruption) {
    NfsSession session(place.target, interruption.Get());
    const NfsEntry entry = session.Stat(place.sPath);
    session.End();
    char vcTime[32] = "";
    const std::time_t iTime = entry.iModified;
    std::tm local{};
    std::strftime(vcTime, sizeof(vcTime), "%Y-%m-%d %H:%M:%S", localtime_r(&iTime, &local));
    constexpr unsigned int kPermissions = 07777;
    std::printf("%c%04o %12llu  %s  /%s\n", S_ISDIR(entry.iMode) ? 'd' : '-', entry.iMode & kPermissions,
                static_cast<unsigned long long>(entry.iSize), vcTime, place.sPath.c_str());
}

/// A file appears under its name only when it is whole.
void Get(const Place& place, const std::string& sLocal, const Interruption& interruption) {
    NfsSession session(place.target, interruption.Get());
    if (sLocal == "-") {
        session.Get(place.sPath, STDOUT_FILENO);
        session.End();
        return;
    }
    const std::string sPart = sLocal + ".nfsget-part";
    try {
        LocalFile file(sPart, O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
        session.Get(place.sPath, file.Get());
        file.Close(sPart);
        if (std::rename(sPart.c_str(), sLocal.c_str()) != 0) {
            throw NfsError("\"" + sLocal + "\": " + std::strerror(errno));
        }
    } catch (const NfsError&) {
        unlink(sPart.c_str());  // may not exist
        throw;
    }
    session.End();
}

void Put(const std::string& sLocal, const Place& place, const Interruption& interruption) {
    const LocalFile file(sLocal, O_RDONLY, STDIN_FILENO);
    NfsSession session(place.target, interruption.Get());
    session.Put(file.Get(), place.sPath);
    session.End();
}

void MakeDirectory(const Place& place, const Interruption& interruption) {
    NfsSession session(place.target, interruption.Get());
    session.MakeDirectory(place.sPath);
    session.End();
}

void Remove(const Place& place, const Interruption& interruption) {
    NfsSession session(place.target, interruption.Get());
    session.Remove(place.sPath);
    session.End();
}

void Run(const std::vector<std::string>& vsWords, const NfsTarget& ports) {
    const Interruption interruption;
    const std::string& sCommand = vsWords.front();
    const std::size_t nArguments = vsWords.size() - 1;
    if (sCommand == "list" && nArguments == 1) {
        List(ParsePlace(vsWords[1], ports), interruption);
    } else if (sCommand == "stat" && nArguments == 1) {
        Stat(ParsePlace(vsWords[1], ports), interruption);
    } else if (sCommand == "get" && (nArguments == 1 || nArguments == 2)) {
        const Place place = ParseEntry(vsWords[1], ports);
        Get(place, nArguments == 2 ? vsWords[2] : place.sPath.substr(place.sPath.rfind('/') + 1), interruption);
    } else if (sCommand == "put" && nArguments == 2) {
        Put(vsWords[1], ParseEntry(vsWords[2], ports), interruption);
    } else if (sCommand == "mkdir" && nArguments == 1) {
        MakeDirectory(ParseEntry(vsWords[1], ports), interruption);
    } else if (sCommand == "remove" && nArguments == 1) {
        Remove(ParseEntry(vsWords[1], ports), interruption);
    } else if (sCommand == "release" && nArguments == 1) {
        NfsSession::Release(ParsePlace(vsWords[1], ports).target, interruption.Get());
    } else {
        throw UsageError("not a command, or not its arguments: " + sCommand);
    }
}

int Main(int argc, char** argv) {
    NfsTarget ports;
    int i = 1;
    for (; i + 1 < argc && argv[i][0] == '-'; i += 2) {
        if (std::strcmp(argv[i], "-p") == 0) {
            ports.iNfsPort = ParsePort(argv[i + 1]);
        } else if (std::strcmp(argv[i], "-m") == 0) {
            ports.iMountPort = ParsePort(argv[i + 1]);
        } else {
            throw UsageError(std::string("unknown option: ") + argv[i]);
        }
    }
    const std::vector<std::string> vsWords(argv + i, argv + argc);
    if (vsWords.empty() || vsWords.front() == "-h" || vsWords.front() == "--help") {
        std::fputs(kUsage, vsWords.empty() ? stderr : stdout);
        return vsWords.empty() ? kExitUsage : 0;
    }
    Run(vsWords, ports);
    if (std::fflush(stdout) != 0) {
        throw NfsError(std::string("standard output: ") + std::strerror(errno));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "nfsget: %s\n%s", error.what(), kUsage);
        return kExitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nfsget: %s\n", error.what());
        return kExitFailed;
    }
}
