// nfsload: loads a running NFS server over loopback, checks every reply, and prints speed and latencies; beside a
// bareserver also the ratio between the two. See Usage.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include <getopt.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ListingRun.h"
#include "LoadConnection.h"
#include "Measurement.h"
#include "MountedExport.h"
#include "NfsMessages.h"

namespace {

struct Options {
    int iNfsPort = 2049;
    int iMountPort = 1058;
    int iBarePort = 0;
    int iProcessor = -1;
    int nRounds = 15;
    int iServerPid = 0;
    double dTarget = 0;
    std::size_t nListed = 0;
    double dListSeconds = 0;
    std::string sExport = "data";
    std::string sFolder;
    std::set<std::string> rows;
    LoadShape shape;
};

void Usage() {
    std::printf(
        "usage: nfsload --folder PATH [options] [ROW...]\n"
        "  --folder PATH      the exported folder, on this machine; test files are made in it\n"
        "  --export NAME      its export name (data)\n"
        "  --nfs-port N       (2049)      --mount-port N  (1058)\n"
        "  --connections N    (1)         --depth N       calls in flight on each connection (1)\n"
        "  --operations N     calls for each row and round (5000)\n"
        "  --bare-port N      measures a bareserver on that port in turns with the server\n"
        "  --rounds N         rounds beside a bareserver; the fastest counts (15)\n"
        "  --target R         exit status 1 if a row's ratio (but READDIRPLUS's) stays below\n"
        "  --processor N      stay on one processor\n"
        "  --server-pid N     prints the server's memory before and after; exit status 1 if it grew by 1 MiB\n"
        "  --list N           instead of the rows: lists a folder of N files by READDIRPLUS, three times\n"
        "  --within S         exit status 1 if the fastest of them takes S seconds or more\n"
        "rows: NULL GETATTR LOOKUP READ4K READ64K WRITE16K READDIRPLUS (all)\n");
}

// ---- Options

Options ParseOptions(int argc, char** argv) {
    enum {
        kFolder,
        kExport,
        kNfs,
        kMount,
        kConnections,
        kDepth,
        kOperations,
        kBare,
        kRounds,
        kTarget,
        kCpu,
        kPid,
        kList,
        kWithin
    };
    static const option options[] = {
        {"folder", 1, nullptr, kFolder},
        {"export", 1, nullptr, kExport},
        {"nfs-port", 1, nullptr, kNfs},
        {"mount-port", 1, nullptr, kMount},
        {"connections", 1, nullptr, kConnections},
        {"depth", 1, nullptr, kDepth},
        {"operations", 1, nullptr, kOperations},
        {"bare-port", 1, nullptr, kBare},
        {"rounds", 1, nullptr, kRounds},
        {"target", 1, nullptr, kTarget},
        {"processor", 1, nullptr, kCpu},
        {"server-pid", 1, nullptr, kPid},
        {"list", 1, nullptr, kList},
        {"within", 1, nullptr, kWithin},
        {nullptr, 0, nullptr, 0},
    };
    Options parsed;
    for (int iOption = 0; (iOption = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (iOption) {
            case kFolder:
                parsed.sFolder = optarg;
                break;
            case kExport:
                parsed.sExport = optarg;
                break;
            case kNfs:
                parsed.iNfsPort = std::atoi(optarg);
                break;
            case kMount:
                parsed.iMountPort = std::atoi(optarg);
                break;
            case kConnections:
                parsed.shape.nConnections = std::atoi(optarg);
                break;
            case kDepth:
                parsed.shape.nDepth = std::atoi(optarg);
                break;
            case kOperations:
                parsed.shape.nOperations = std::strtoull(optarg, nullptr, 10);
                break;
            case kBare:
                parsed.iBarePort = std::atoi(optarg);
                break;
            case kRounds:
                parsed.nRounds = std::max(1, std::atoi(optarg));
                break;
            case kTarget:
                parsed.dTarget = std::atof(optarg);
                break;
            case kCpu:
                parsed.iProcessor = std::atoi(optarg);
                break;
            case kPid:
                parsed.iServerPid = std::atoi(optarg);
                break;
            case kList:
                parsed.nListed = std::strtoull(optarg, nullptr, 10);
                break;
            case kWithin:
                parsed.dListSeconds = std::atof(optarg);
                break;
            default:
                Usage();
                std::exit(2);
        }
    }
    parsed.rows.insert(argv + optind, argv + argc);
    if (parsed.sFolder.empty() || parsed.shape.nConnections < 1 || parsed.shape.nDepth < 1 ||
        parsed.shape.nOperations < 1) {
        Usage();
        std::exit(2);
    }
    return parsed;
}

void StayOnProcessor(int iProcessor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(iProcessor), &set);
    if (::sched_setaffinity(0, sizeof(set), &set) != 0) {
        throw std::runtime_error("processor " + std::to_string(iProcessor) + " is not to be had");
    }
}

// ---- Test files and handles

/// Content that differs from block to block, so that data from a wrong offset is noticed.
std::string MakeContent() {
    std::string sContent(kFileSize, '\0');
    std::uint64_t iValue = 1;
    for (std::size_t i = 0; i + sizeof(iValue) <= sContent.size(); i += sizeof(iValue)) {
        iValue = iValue * 6364136223846793005ULL + 1442695040888963407ULL;
        std::memcpy(sContent.data() + i, &iValue, sizeof(iValue));
    }
    return sContent;
}

void MakeFiles(const LoadFolder& folder) {
    std::ofstream(folder.sPath + "/" + folder.sReadName, std::ios::binary) << folder.sContent;
    // Written once beforehand: the rows measure the servers, not the file system's allocation.
    std::ofstream(folder.sPath + "/" + folder.sWriteName, std::ios::binary) << std::string(kLoadSize, '\0');
    const std::string sList = folder.sPath + "/" + folder.sListName;
    ::mkdir(sList.c_str(), 0755);
    for (int i = 0; i < kListEntries; ++i) {
        std::ofstream(sList + "/entry-" + std::to_string(i)) << i;
    }
}

void RemoveFiles(const LoadFolder& folder) {
    ::unlink((folder.sPath + "/" + folder.sReadName).c_str());
    ::unlink((folder.sPath + "/" + folder.sWriteName).c_str());
    const std::string sList = folder.sPath + "/" + folder.sListName;
    for (int i = 0; i < kListEntries; ++i) {
        ::unlink((sList + "/entry-" + std::to_string(i)).c_str());
    }
    ::rmdir(sList.c_str());
}

/// What was written through the server must be what the file holds now.
void CheckWrittenFile(const LoadFolder& folder, const LoadShape& shape) {
    std::ifstream file(folder.sPath + "/" + folder.sWriteName, std::ios::binary);
    std::string sWritten(std::min<std::size_t>(kLoadSize, shape.nOperations * 16384), '\0');
    file.read(sWritten.data(), static_cast<std::streamsize>(sWritten.size()));
    if (shape.nConnections == 1 && (!file || sWritten != folder.sContent.substr(0, sWritten.size()))) {
        throw WrongReply("the file does not hold what was written");
    }
}

/// Looks the test files up and keeps their handles.
void FindHandles(const MountedExport& mounted, LoadFolder* pFolder) {
    pFolder->sRootHandle = mounted.GetRootHandle();
    pFolder->sReadHandle = mounted.Lookup(pFolder->sReadName);
    pFolder->sWriteHandle = mounted.Lookup(pFolder->sWriteName);
    pFolder->sListHandle = mounted.Lookup(pFolder->sListName);
}

// ---- Measuring

/// The server's resident memory in KiB.
long ReadMemory(int iPid) {
    std::ifstream status("/proc/" + std::to_string(iPid) + "/status");
    for (std::string sLine; std::getline(status, sLine);) {
        if (sLine.starts_with("VmRSS:")) {
            return std::atol(sLine.c_str() + 6);
        }
    }
    throw std::runtime_error("no process " + std::to_string(iPid));
}

/// Makes one real call, so that the bare server can send the same reply.
std::string RecordReply(const Options& options, const Row& row, const LoadFolder& folder, BareSetup* pSetup) {
    const int iSocket = ConnectTo(options.iNfsPort);
    std::string sCall = row.sCall;
    if (row.work == BareWork::kWrite) {
        sCall += folder.sContent.substr(0, row.nData);
    }
    std::string sReply = Exchange(iSocket, sCall);
    ::close(iSocket);
    const std::uint32_t iDataInReply = row.Check(sReply, 0, 0);
    pSetup->work = row.work;
    pSetup->iCallSize = row.CallSize();
    pSetup->iReplySize = static_cast<std::uint32_t>(sReply.size());
    pSetup->iOffsetAt = row.iOffsetAt;
    pSetup->iDataAt = row.work == BareWork::kWrite ? static_cast<std::uint32_t>(row.sCall.size()) : iDataInReply;
    pSetup->nData = row.nData;
    const std::string sPath =
        folder.sPath + "/" + (row.work == BareWork::kWrite ? folder.sWriteName : folder.sReadName);
    std::snprintf(pSetup->cPath, sizeof(pSetup->cPath), "%s", sPath.c_str());
    return sReply;
}

void PrintMeasurement(const char* pcServer, const Row& row, const Measurement& measurement) {
    const double dSpeed = measurement.OperationsPerSecond();
    std::printf("%-12s %-5s %10.0f %9.1f %9.1f %9.1f %9.1f %9.1f", row.sName.c_str(), pcServer, dSpeed,
                dSpeed * row.nData / 1e6, measurement.Percentile(0.5), measurement.Percentile(0.9),
                measurement.Percentile(0.99), measurement.Percentile(1));
}

/// The fastest run: the one that the rest of the machine disturbed least.
const Measurement& Fastest(const std::vector<Measurement>& vRuns) {
    return *std::max_element(vRuns.begin(), vRuns.end(), [](const Measurement& left, const Measurement& right) {
        return left.OperationsPerSecond() < right.OperationsPerSecond();
    });
}

Measurement RunServer(const Options& options, const Row& row, const LoadFolder& folder) {
    Measurement measurement = RunRow(options.iNfsPort, row, folder, options.shape, nullptr, "");
    if (row.work == BareWork::kWrite) {
        CheckWrittenFile(folder, options.shape);
    }
    return measurement;
}

/// Both servers in turns. False if the row stays below its target.
bool CompareRow(const Options& options, const Row& row, const LoadFolder& folder) {
    BareSetup setup;
    const std::string sReply = RecordReply(options, row, folder, &setup);
    std::vector<Measurement> vServer;
    std::vector<Measurement> vBare;
    for (int i = 0; i < options.nRounds; ++i) {
        vServer.push_back(RunServer(options, row, folder));
        vBare.push_back(RunRow(options.iBarePort, row, folder, options.shape, &setup, sReply));
    }
    const Measurement& server = Fastest(vServer);
    const Measurement& bare = Fastest(vBare);
    const double dRatio = server.OperationsPerSecond() / bare.OperationsPerSecond();
    PrintMeasurement("bare", row, bare);
    std::printf("\n");
    PrintMeasurement("nfs", row, server);
    const bool bMet = !row.bCompared || dRatio >= options.dTarget;
    std::printf("   %.2f%s\n", dRatio, bMet ? "" : "  BELOW TARGET");
    return bMet;
}

bool MeasureRow(const Options& options, const Row& row, const LoadFolder& folder) {
    if (options.iBarePort != 0) {
        return CompareRow(options, row, folder);
    }
    PrintMeasurement("nfs", row, RunServer(options, row, folder));
    std::printf("\n");
    return true;
}

bool MeasureRows(const Options& options, const LoadFolder& folder) {
    std::printf("%d connection(s), %d call(s) in flight on each, %llu calls for each row\n", options.shape.nConnections,
                options.shape.nDepth, static_cast<unsigned long long>(options.shape.nOperations));
    std::printf("%-12s %-5s %10s %9s %9s %9s %9s %9s%s\n", "row", "", "ops/s", "MB/s", "p50 us", "p90 us", "p99 us",
                "max us", options.iBarePort != 0 ? "   ratio" : "");
    bool bMet = true;
    for (const Row& row : MakeRows(folder)) {
        if (options.rows.empty() || options.rows.contains(row.sName)) {
            bMet = MeasureRow(options, row, folder) && bMet;
            std::fflush(stdout);
        }
    }
    return bMet;
}

constexpr int kListRuns = 3;

/// Lists a large folder. False if it takes too long. The first run has the server give out the IDs of the files.
bool MeasureListing(const Options& options, const LoadFolder& folder) {
    const std::string sName = folder.sListName + "-large";
    const LargeFolder large(folder.sPath + "/" + sName, options.nListed);
    const MountedExport mounted(options.iMountPort, options.iNfsPort, options.sExport);
    const std::string sHandle = mounted.Lookup(sName);
    std::vector<double> vdSeconds;
    for (int i = 0; i < kListRuns; ++i) {
        vdSeconds.push_back(ListFolder(options.iNfsPort, sHandle, options.nListed));
    }
    const double dFastest = *std::min_element(vdSeconds.begin(), vdSeconds.end());
    const bool bMet = options.dListSeconds == 0 || dFastest < options.dListSeconds;
    std::printf("READDIRPLUS of %zu files: %.3f s, %.0f entries/s (first run %.3f s)%s\n", options.nListed, dFastest,
                static_cast<double>(options.nListed) / dFastest, vdSeconds.front(), bMet ? "" : "  TOO SLOW");
    return bMet;
}

/// Growth below this is the allocator's business.
constexpr long kAllowedGrowthKib = 1024;

bool Run(const Options& options, LoadFolder& folder) {
    if (options.iProcessor >= 0) {
        StayOnProcessor(options.iProcessor);
    }
    if (options.nListed != 0) {
        return MeasureListing(options, folder);
    }
    folder.sContent = MakeContent();
    MakeFiles(folder);
    const MountedExport mounted(options.iMountPort, options.iNfsPort, options.sExport);
    FindHandles(mounted, &folder);
    if (options.iServerPid == 0) {
        return MeasureRows(options, folder);
    }
    Options warmUp = options;
    warmUp.shape.nOperations = 2000;
    MeasureRows(warmUp, folder);
    const long iBefore = ReadMemory(options.iServerPid);
    const bool bMet = MeasureRows(options, folder);
    const long iAfter = ReadMemory(options.iServerPid);
    std::printf("server memory: %ld KiB before, %ld KiB after\n", iBefore, iAfter);
    return bMet && iAfter - iBefore < kAllowedGrowthKib;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    LoadFolder folder;
    folder.sPath = options.sFolder;
    int iStatus = 1;
    try {
        iStatus = Run(options, folder) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "nfsload: %s\n", error.what());
    }
    RemoveFiles(folder);
    return iStatus;
}
