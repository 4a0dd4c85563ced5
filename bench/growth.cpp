// growth: what grows with exports, known paths and saves, and how much: times of calls through a whole server, and the
// memory of the table of file handles. See Usage.
//
// The server runs in this process, where paths can be made known without a file for each. It takes the default ports,
// so the program wants a network of its own: unshare --net, and "ip link set lo up" in it.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FileTable.h"
#include "ListingRun.h"
#include "MountedExport.h"
#include "NfsMain.h"
#include "NfsMessages.h"
#include "TcpExchange.h"
#include "Utilities.h"

namespace {

constexpr std::uint32_t kProcGetattr = 1;
constexpr std::uint32_t kProcLookup = 3;
constexpr std::uint32_t kProcRename = 14;

void Usage() {
    std::printf(
        "usage: growth [options]\n"
        "  --folder PATH     where a scratch folder is made (/dev/shm)\n"
        "  --operations N    calls for each figure and round (2000)\n"
        "  --rounds N        rounds, in turns between the figures that are compared; the fastest counts (9)\n"
        "  --most N          known paths at most (1000000)\n"
        "  --csv             lines of figure,size,value,unit\n"
        "  --check           exit status 1 if a figure is above its target\n");
}

struct Options {
    std::string sFolder = "/dev/shm";
    int nOperations = 2000;
    int nRounds = 9;
    unsigned int nMost = 1000000;
    bool bCsv = false;
    bool bCheck = false;
};

Options ParseOptions(int argc, char** argv) {
    enum { kFolder, kOperations, kRounds, kMost, kCsv, kCheck };
    static const option options[] = {{"folder", 1, nullptr, kFolder}, {"operations", 1, nullptr, kOperations},
                                     {"rounds", 1, nullptr, kRounds}, {"most", 1, nullptr, kMost},
                                     {"csv", 0, nullptr, kCsv},       {"check", 0, nullptr, kCheck},
                                     {nullptr, 0, nullptr, 0}};
    Options parsed;
    for (int iOption = 0; (iOption = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (iOption) {
            case kFolder:
                parsed.sFolder = optarg;
                break;
            case kOperations:
                parsed.nOperations = std::max(1, std::atoi(optarg));
                break;
            case kRounds:
                parsed.nRounds = std::max(1, std::atoi(optarg));
                break;
            case kMost:
                parsed.nMost = static_cast<unsigned int>(std::max(1000, std::atoi(optarg)));
                break;
            case kCsv:
                parsed.bCsv = true;
                break;
            case kCheck:
                parsed.bCheck = true;
                break;
            default:
                Usage();
                std::exit(2);
        }
    }
    return parsed;
}

// ---- What is reported

/// Prints figures as they come, and remembers whether all kept to their targets.
class Report {
public:
    explicit Report(bool bCsv) : m_bCsv(bCsv) { std::printf(bCsv ? "figure,size,value,unit\n" : ""); }

    /// The size is that of what grows. No target: 0.
    void Add(const char* pcFigure, unsigned int nSize, double dValue, const char* pcUnit, double dTarget = 0) {
        const bool bHeld = dTarget == 0 || dValue <= dTarget;
        m_bMet = m_bMet && bHeld;
        if (m_bCsv) {
            std::printf("%s,%u,%.4g,%s\n", pcFigure, nSize, dValue, pcUnit);
        } else {
            std::printf("%-32s %9u %10.4g %-8s%s\n", pcFigure, nSize, dValue, pcUnit, bHeld ? "" : "  ABOVE TARGET");
        }
        std::fflush(stdout);
    }
    bool IsMet() const { return m_bMet; }

private:
    bool m_bCsv;
    bool m_bMet = true;
};

// ---- The server and its client

/// A scratch folder, gone at the end with the folders and files made in it.
class Scratch {
public:
    explicit Scratch(const std::string& sParent) : m_sFolder(sParent + "/growth-XXXXXX") {
        if (::mkdtemp(m_sFolder.data()) == nullptr) {
            throw std::runtime_error("no scratch folder below " + sParent);
        }
    }
    ~Scratch() {
        for (auto itPath = m_vsPaths.rbegin(); itPath != m_vsPaths.rend(); ++itPath) {
            if (::unlink(itPath->c_str()) != 0) {
                ::rmdir(itPath->c_str());
            }
        }
        ::rmdir(m_sFolder.c_str());
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string PathOf(const std::string& sName) const { return m_sFolder + "/" + sName; }
    /// Both also take note of what a call will make.
    std::string MakeFolder(const std::string& sName) {
        ::mkdir(PathOf(sName).c_str(), 0755);
        return m_vsPaths.emplace_back(PathOf(sName));
    }
    std::string MakeFile(const std::string& sName) {
        ::close(::open(PathOf(sName).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        return m_vsPaths.emplace_back(PathOf(sName));
    }

private:
    std::string m_sFolder;
    std::vector<std::string> m_vsPaths;
};

/// A running server; stopped at the end.
class Server {
public:
    Server() : m_Main("growth", 0) {
        char vcReason[kReasonBufferSize] = "";
        if (!m_Main.Initial(vcReason) || !m_Main.StartServer(0, 0, 0, 0, false, vcReason)) {
            throw std::runtime_error(std::string("the server did not start: ") + vcReason);
        }
    }
    ~Server() {
        m_Main.StopServer();
        m_Main.Terminate();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void Export(const std::string& sFolder, const std::string& sName) {
        char vcReason[kReasonBufferSize] = "";
        if (!m_Main.AddMountPoint(sFolder.c_str(), sName.c_str(), vcReason)) {
            throw std::runtime_error(vcReason);
        }
    }
    /// Makes a path known as if a client had seen the file, which need not exist.
    void Know(const std::string& sPath) { m_Main.GetUtilities()->GetCanonicalFileID(sPath.c_str()); }

private:
    CNfsMain m_Main;
};

MountedExport Mount(const std::string& sName) {
    return {CNfsMain::kDefaultMountPort, CNfsMain::kDefaultNfsPort, sName};
}

/// Calls over one connection, each of which must succeed.
class Client {
public:
    using Microseconds = std::chrono::duration<double, std::micro>;

    Client() : m_iSocket(ConnectTo(CNfsMain::kDefaultNfsPort)) {}
    ~Client() { ::close(m_iSocket); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    double Call(const std::string& sCall) {
        const auto start = std::chrono::steady_clock::now();
        const std::string sReply = Exchange(m_iSocket, sCall);
        const Microseconds time = std::chrono::steady_clock::now() - start;
        ReplyReader reader(sReply);
        reader.ExpectHead(0);
        reader.Expect("status", 0);
        return time.count();
    }
    double Rename(const std::string& sFolder, const std::string& sFrom, const std::string& sTo) {
        CallBuilder builder(kNfsProgram, kProcRename);
        return Call(builder.Opaque(sFolder).Opaque(sFrom).Opaque(sFolder).Opaque(sTo).Finish());
    }

private:
    int m_iSocket;
};

std::string Getattr(const std::string& sHandle) {
    return CallBuilder(kNfsProgram, kProcGetattr).Opaque(sHandle).Finish();
}

std::string Lookup(const std::string& sFolder, const std::string& sName) {
    return CallBuilder(kNfsProgram, kProcLookup).Opaque(sFolder).Opaque(sName).Finish();
}

/// One figure among those that are compared: calls, and the median of their times in the fastest round.
struct Target {
    Target(const char* pcName, unsigned int nOfWhat, std::vector<std::string> vsCallsToMake)
        : pcFigure(pcName), nSize(nOfWhat), vsCalls(std::move(vsCallsToMake)) {}

    const char* pcFigure;
    unsigned int nSize;
    std::vector<std::string> vsCalls;
    double dMicroseconds = 1e9;
};

void RunRound(Client& client, Target& target, int nOperations) {
    std::vector<double> vdTimes;
    for (int i = 0; i < nOperations; ++i) {
        vdTimes.push_back(client.Call(target.vsCalls[static_cast<std::size_t>(i) % target.vsCalls.size()]));
    }
    const auto itMedian = vdTimes.begin() + nOperations / 2;
    std::ranges::nth_element(vdTimes, itMedian);
    target.dMicroseconds = std::min(target.dMicroseconds, *itMedian);
}

// ---- The figures

/// GETATTR and LOOKUP in the first and the last of many exports.
void MeasureExports(const Options& options, Report& report) {
    constexpr int kExports = 1000;
    constexpr double kLastToFirst = 1.15;
    Scratch scratch(options.sFolder);
    Server server;
    const auto nameOf = [](int i) { return "e" + std::to_string(kExports + i); };
    for (int i = 0; i < kExports; ++i) {
        server.Export(scratch.MakeFolder(nameOf(i)), nameOf(i));
    }
    std::vector<Target> vTargets;
    std::vector<std::unique_ptr<MountedExport>> vMounted;
    for (const int i : {0, kExports - 1}) {
        scratch.MakeFile(nameOf(i) + "/file");
        vMounted.push_back(
            std::make_unique<MountedExport>(CNfsMain::kDefaultMountPort, CNfsMain::kDefaultNfsPort, nameOf(i)));
        const bool bFirst = i == 0;
        vTargets.emplace_back(bFirst ? "getattr_first_export" : "getattr_last_export", kExports,
                              std::vector{Getattr(vMounted.back()->Lookup("file"))});
        vTargets.emplace_back(bFirst ? "lookup_first_export" : "lookup_last_export", kExports,
                              std::vector{Lookup(vMounted.back()->GetRootHandle(), "file")});
    }
    Client client;
    for (int iRound = 0; iRound < options.nRounds; ++iRound) {
        for (Target& target : vTargets) {
            RunRound(client, target, options.nOperations);
        }
    }
    for (const Target& target : vTargets) {
        report.Add(target.pcFigure, target.nSize, target.dMicroseconds, "us");
    }
    report.Add("getattr_last_to_first", kExports, vTargets[2].dMicroseconds / vTargets[0].dMicroseconds, "ratio",
               kLastToFirst);
    report.Add("lookup_last_to_first", kExports, vTargets[3].dMicroseconds / vTargets[1].dMicroseconds, "ratio",
               kLastToFirst);
}

/// GETATTR and LOOKUP of files whose IDs are spread among those of all known paths.
void MeasureKnownPaths(const Options& options, Report& report) {
    constexpr unsigned int kFiles = 500;
    for (unsigned int nKnown = 10; nKnown <= options.nMost; nKnown *= 10) {
        Scratch scratch(options.sFolder);
        Server server;
        server.Export(scratch.MakeFolder("data"), "data");
        const MountedExport mounted = Mount("data");
        Target getattr("getattr_known_paths", nKnown, {});
        Target lookup("lookup_known_paths", nKnown, {});
        const unsigned int nFiles = std::min(nKnown, kFiles);
        for (unsigned int i = 0; i < nKnown; ++i) {
            const unsigned int iFile = i / (nKnown / nFiles);
            if (i % (nKnown / nFiles) == 0 && iFile < nFiles) {
                const std::string sName = "file-" + std::to_string(iFile);
                scratch.MakeFile("data/" + sName);
                getattr.vsCalls.push_back(Getattr(mounted.Lookup(sName)));
                lookup.vsCalls.push_back(Lookup(mounted.GetRootHandle(), sName));
            } else {
                server.Know(scratch.PathOf("data/known-" + std::to_string(i)));
            }
        }
        std::ranges::shuffle(getattr.vsCalls, std::mt19937(1));
        std::ranges::shuffle(lookup.vsCalls, std::mt19937(2));
        Client client;
        for (int iRound = 0; iRound < options.nRounds; ++iRound) {
            RunRound(client, getattr, options.nOperations);
            RunRound(client, lookup, options.nOperations);
        }
        report.Add(getattr.pcFigure, nKnown, getattr.dMicroseconds, "us");
        report.Add(lookup.pcFigure, nKnown, lookup.dMicroseconds, "us");
    }
}

/// The memory for each of many paths of 40 characters, so many of them in a folder.
void MeasureMemory(const Options& options, Report& report) {
    constexpr double kBytes = 120;
    const auto getAllocated = [] {
        const struct mallinfo2 info = ::mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    for (const unsigned int nInFolder : {10U, 1000U, 1000000U}) {
        const std::size_t nBefore = getAllocated();
        CFileTable table;
        for (unsigned int i = 0; i < options.nMost; ++i) {
            char vcPath[64];
            std::snprintf(vcPath, sizeof(vcPath), "/srv/export/folder-%08u/file%08u", i / nInFolder, i);
            if (table.GetIDByPath(vcPath) != i) {
                throw WrongReply("a known path has another ID");
            }
        }
        const double dBytes = static_cast<double>(getAllocated() - nBefore) / options.nMost;
        const std::string sFigure = "memory_" + std::to_string(nInFolder) + "_in_a_folder";
        report.Add(sFigure.c_str(), options.nMost, dBytes, "bytes", nInFolder == 10 ? 0 : kBytes);
    }
}

/// RENAME of a folder with known paths below, there and back; to a name that is new, and to one below which as many
/// paths are known from earlier.
void MeasureFolderRenames(const Options& options, Report& report) {
    constexpr double kMilliseconds = 20;
    for (const bool bMeets : {false, true}) {
        for (const unsigned int nBelow : {10U, 1000U, 100000U}) {
            double dFastest = 1e9;
            for (int iRound = 0; iRound < std::min(options.nRounds, 5); ++iRound) {
                Scratch scratch(options.sFolder);
                Server server;
                server.Export(scratch.MakeFolder("data"), "data");
                const MountedExport mounted = Mount("data");
                scratch.MakeFolder("data/moved");
                const std::string sBelow = scratch.MakeFolder("data/folder") + "/sub/known-";
                mounted.Lookup("folder");
                for (unsigned int i = 0; i < nBelow; ++i) {
                    server.Know(sBelow + std::to_string(i));
                    if (bMeets) {
                        server.Know(scratch.PathOf("data/moved/sub/known-") + std::to_string(i));
                    }
                }
                ::rmdir(scratch.PathOf("data/moved").c_str());
                dFastest = std::min(dFastest, Client().Rename(mounted.GetRootHandle(), "folder", "moved"));
            }
            report.Add(bMeets ? "rename_folder_onto_known_paths" : "rename_folder_known_paths_below", nBelow,
                       dFastest / 1000, "ms", bMeets ? 0 : kMilliseconds);
        }
    }
}

/// RENAME of a file that has been saved many times by "write a temporary file, rename it over the old one".
void MeasureSaves(const Options& options, Report& report) {
    constexpr unsigned int kMostSaves = 40000;
    Scratch scratch(options.sFolder);
    Server server;
    server.Export(scratch.MakeFolder("data"), "data");
    const MountedExport mounted = Mount("data");
    const std::string& sFolder = mounted.GetRootHandle();
    Client client;
    scratch.MakeFile("data/file");
    scratch.MakeFile("data/renamed");
    ::unlink(scratch.PathOf("data/renamed").c_str());
    mounted.Lookup("file");
    unsigned int nSaves = 0;
    for (const unsigned int nGoal : {10U, 1000U, kMostSaves}) {
        for (; nSaves < nGoal; ++nSaves) {
            const std::string sName = "temporary-" + std::to_string(nSaves);
            ::close(::open(scratch.PathOf("data/" + sName).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
            client.Call(Lookup(sFolder, sName));
            client.Rename(sFolder, sName, "file");
        }
        double dFastest = 1e9;
        for (int iRound = 0; iRound < options.nRounds * 10; ++iRound) {
            dFastest = std::min(dFastest, client.Rename(sFolder, "file", "renamed"));
            client.Rename(sFolder, "renamed", "file");
        }
        report.Add("rename_file_after_saves", nSaves, dFastest / 1000, "ms");
    }
}

/// READDIRPLUS of a whole folder.
void MeasureListings(const Options& options, Report& report) {
    for (const unsigned int nFiles : {1000U, 10000U, 100000U}) {
        Scratch scratch(options.sFolder);
        Server server;
        server.Export(scratch.MakeFolder("data"), "data");
        const MountedExport mounted = Mount("data");
        const LargeFolder folder(scratch.PathOf("data/list"), nFiles);
        const std::string sHandle = mounted.Lookup("list");
        double dFastest = 1e9;
        for (int iRound = 0; iRound < std::min(options.nRounds, 5); ++iRound) {
            dFastest = std::min(dFastest, ListFolder(CNfsMain::kDefaultNfsPort, sHandle, nFiles));
        }
        report.Add("readdirplus_entries", nFiles, nFiles / dFastest, "per_s");
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options = ParseOptions(argc, argv);
        Report report(options.bCsv);
        MeasureExports(options, report);
        MeasureKnownPaths(options, report);
        MeasureMemory(options, report);
        MeasureFolderRenames(options, report);
        MeasureSaves(options, report);
        MeasureListings(options, report);
        return report.IsMet() || !options.bCheck ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "growth: %s\n", error.what());
        return 2;
    }
}
