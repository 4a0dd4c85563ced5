// redirectedload: reads redirected files through a whole server over loopback, by the size of their maps, beside a
// plain file; checks every byte. See Usage.
//
// The server runs in this process, because only its host can open redirected files. It takes the default ports, so the
// program wants a network of its own: run.sh gives it one.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Measurement.h"
#include "MountedExport.h"
#include "NfsMain.h"
#include "NfsMessages.h"
#include "TcpExchange.h"

namespace {

constexpr std::uint32_t kProcRead = 6;
constexpr long long kSegment = 32LL << 20;  ///< every segment stands for the whole source
constexpr int kBlock = 512;                 ///< reads begin at multiples of this

void Usage() {
    std::printf(
        "usage: redirectedload [options]\n"
        "  --folder PATH     where a scratch folder is made (/dev/shm)\n"
        "  --operations N    reads for each map, size and round (3000)\n"
        "  --rounds N        rounds, in turns between the maps; the median counts (15)\n"
        "  --csv FILE        appends lines of figure,size,value,unit: size of the file in GiB, time of a read as a\n"
        "                    multiple of the plain file's\n");
}

struct Options {
    std::string sFolder = "/dev/shm";
    int nOperations = 3000;
    int nRounds = 15;
    std::string sCsv;
};

Options ParseOptions(int argc, char** argv) {
    enum { kFolder, kOperations, kRounds, kCsv };
    static const option options[] = {{"folder", 1, nullptr, kFolder},
                                     {"operations", 1, nullptr, kOperations},
                                     {"rounds", 1, nullptr, kRounds},
                                     {"csv", 1, nullptr, kCsv},
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
            case kCsv:
                parsed.sCsv = optarg;
                break;
            default:
                Usage();
                std::exit(2);
        }
    }
    return parsed;
}

// ---- The files

/// A folder with the source and an empty info file for each map, gone at the end.
class Scratch {
public:
    explicit Scratch(const std::string& sParent) : m_sFolder(sParent + "/redirectedload-XXXXXX") {
        if (::mkdtemp(m_sFolder.data()) == nullptr) {
            throw std::runtime_error("no scratch folder below " + sParent);
        }
        m_sContent.resize(static_cast<std::size_t>(kSegment));
        std::mt19937_64 random(1);
        for (std::size_t i = 0; i < m_sContent.size(); i += sizeof(std::uint64_t)) {
            const std::uint64_t iValue = random();
            std::memcpy(m_sContent.data() + i, &iValue, sizeof(iValue));
        }
        Make("source", m_sContent);
    }
    ~Scratch() {
        for (const std::string& sName : m_vsNames) {
            ::unlink(PathOf(sName).c_str());
        }
        ::rmdir(m_sFolder.c_str());
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::string& GetFolder() const { return m_sFolder; }
    const std::string& GetContent() const { return m_sContent; }
    std::string PathOf(const std::string& sName) const { return m_sFolder + "/" + sName; }
    void Make(const std::string& sName, const std::string& sContent) {
        m_vsNames.push_back(sName);
        const int iFile = ::open(PathOf(sName).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const bool bOk =
            iFile != -1 && ::write(iFile, sContent.data(), sContent.size()) == static_cast<ssize_t>(sContent.size());
        if (iFile == -1 || ::close(iFile) != 0 || !bOk) {
            throw std::runtime_error("cannot write " + PathOf(sName));
        }
    }

private:
    std::string m_sFolder;
    std::string m_sContent;
    std::vector<std::string> m_vsNames;
};

// ---- The server and its client

/// A server that exports the scratch folder; stopped at the end.
class Server {
public:
    explicit Server(const Scratch& scratch) : m_Main("redirectedload", 0) {
        char vcReason[kReasonBufferSize] = "";
        if (!m_Main.Initial(vcReason) || !m_Main.StartServer(0, 0, 0, 0, false, vcReason) ||
            !m_Main.AddMountPoint(scratch.GetFolder().c_str(), "data", vcReason)) {
            throw std::runtime_error(std::string("the server did not start: ") + vcReason);
        }
    }
    ~Server() {
        m_Main.StopServer();
        m_Main.Terminate();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void OpenMap(const std::string& sPath, const std::string& sSource, long long nSegments, bool bInfoFile) {
        m_Main.OpenRedirectedFile(sPath.c_str(), nSegments * kSegment, bInfoFile, 0, 0);
        for (long long i = 0; i < nSegments; ++i) {
            char vcReason[kReasonBufferSize] = "";
            if (!m_Main.AddRedirectedFileSegment(sPath.c_str(), sSource.c_str(), 0, i * kSegment, kSegment, vcReason)) {
                throw std::runtime_error(vcReason);
            }
        }
    }

private:
    CNfsMain m_Main;
};

/// READs over one connection.
class Client {
public:
    Client() : m_iSocket(ConnectTo(CNfsMain::kDefaultNfsPort)) {}
    ~Client() { ::close(m_iSocket); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// One READ, which must bring exactly these bytes.
    void Read(const std::string& sHandle, unsigned long long iOffset, std::string_view sExpected) {
        const auto nBytes = static_cast<std::uint32_t>(sExpected.size());
        const std::string sReply =
            Exchange(m_iSocket, CallBuilder(kNfsProgram, kProcRead).Opaque(sHandle).U64(iOffset).U32(nBytes).Finish());
        ReplyReader reader(sReply);
        reader.ExpectHead(0);
        reader.Expect("status of READ", 0);
        reader.SkipAttributes();
        reader.Expect("count", nBytes);
        reader.Skip(4);  // end of file
        if (reader.Opaque() != sExpected) {
            throw WrongReply("wrong data at offset " + std::to_string(iOffset));
        }
        reader.ExpectEnd();
    }

private:
    int m_iSocket;
};

// ---- Measuring

/// One file that is read.
struct Target {
    Target(const std::string& sFile, long long nSegmentsOfMap, bool bWithInfoFile)
        : sName(sFile), nSegments(nSegmentsOfMap), bInfoFile(bWithInfoFile) {}

    std::string sName;
    long long nSegments;
    bool bInfoFile;
    std::string sHandle;
    std::vector<double> vdMicroseconds;  ///< for each read, by round
};

void RunRound(Client& client, const Scratch& scratch, Target& target, std::size_t nBytes, int nOperations) {
    std::mt19937_64 random(2);
    const std::size_t nPlaces = (scratch.GetContent().size() - nBytes) / kBlock;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < nOperations; ++i) {
        const std::size_t iWithin = random() % nPlaces * kBlock;
        const unsigned long long iSegment = random() % static_cast<unsigned long long>(target.nSegments);
        client.Read(target.sHandle, iSegment * static_cast<unsigned long long>(kSegment) + iWithin,
                    std::string_view(scratch.GetContent()).substr(iWithin, nBytes));
    }
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
    target.vdMicroseconds.push_back(time.count() / nOperations);
}

/// Prints all files beside the first, the plain one; ratios are taken round by round.
void Report(const std::vector<Target>& vTargets, std::size_t nBytes, std::FILE* pCsv) {
    for (const Target& target : vTargets) {
        std::vector<double> vdToPlain;
        for (std::size_t i = 0; i < target.vdMicroseconds.size(); ++i) {
            vdToPlain.push_back(target.vdMicroseconds[i] / vTargets.front().vdMicroseconds[i]);
        }
        const double dMicroseconds = SpreadOf(target.vdMicroseconds).dMedian;
        const Spread toPlain = SpreadOf(std::move(vdToPlain));
        std::printf("%-16s %6zu %10.0f %9.1f %9.2f (%.2f to %.2f)\n", target.sName.c_str(), nBytes, 1e6 / dMicroseconds,
                    dMicroseconds, toPlain.dMedian, toPlain.dLower, toPlain.dUpper);
        if (pCsv != nullptr && &target != &vTargets.front()) {
            std::fprintf(pCsv, "redirected_%s_%zu,%lld,%.4f,ratio\n", target.bInfoFile ? "info" : "memory", nBytes,
                         target.nSegments * (kSegment >> 20) / 1024, toPlain.dMedian);
        }
    }
}

void Run(const Options& options, std::FILE* pCsv) {
    Scratch scratch(options.sFolder);
    Server server(scratch);
    std::vector<Target> vTargets{{"source", 1, false}};
    for (const long long nSegments : {32LL, 1024LL, 32768LL}) {
        vTargets.emplace_back("memory-" + std::to_string(nSegments), nSegments, false);
    }
    for (const long long nSegments : {32LL, 1024LL, 32768LL}) {
        vTargets.emplace_back("info-" + std::to_string(nSegments), nSegments, true);
    }
    for (std::size_t i = 1; i < vTargets.size(); ++i) {
        scratch.Make(vTargets[i].sName, "");
        server.OpenMap(scratch.PathOf(vTargets[i].sName), scratch.PathOf("source"), vTargets[i].nSegments,
                       vTargets[i].bInfoFile);
    }
    const MountedExport mounted(CNfsMain::kDefaultMountPort, CNfsMain::kDefaultNfsPort, "data");
    for (Target& target : vTargets) {
        target.sHandle = mounted.Lookup(target.sName);
    }
    Client client;
    std::printf("%-16s %6s %10s %9s %9s\n", "file", "bytes", "reads/s", "us", "to plain");
    for (const std::size_t nBytes : {std::size_t{4096}, std::size_t{65536}}) {
        for (Target& target : vTargets) {
            target.vdMicroseconds.clear();
        }
        for (int iRound = 0; iRound < options.nRounds; ++iRound) {
            for (Target& target : vTargets) {
                RunRound(client, scratch, target, nBytes, options.nOperations);
            }
        }
        Report(vTargets, nBytes, pCsv);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options = ParseOptions(argc, argv);
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pCsv(
            options.sCsv.empty() ? nullptr : std::fopen(options.sCsv.c_str(), "ae"), &std::fclose);
        if (pCsv == nullptr && !options.sCsv.empty()) {
            FailWithErrno("cannot write " + options.sCsv);
        }
        if (pCsv != nullptr) {
            std::fprintf(pCsv.get(), "figure,size,value,unit\n");
        }
        Run(options, pCsv.get());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "redirectedload: %s\n", error.what());
        return 1;
    }
}
