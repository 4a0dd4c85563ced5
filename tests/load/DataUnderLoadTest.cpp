// Clients work on files and redirected files, each with a model of what must be there, while the host replaces
// files, lists its state, changes the log control, closes cached descriptors, and stops and starts the server: not one
// byte differs from what was acknowledged, no call fails but for a stop, and the server does not grow: when its clients
// are gone it holds no more descriptors and threads than before they came.
//
// NFSLIB_LOAD_SECONDS makes it last, NFSLIB_LOAD_PAUSE (microseconds) makes the clients pause between two pieces of
// work, NFSLIB_LOAD_DISTURBANCE (milliseconds) sets the time between two of the host's, NFSLIB_LOAD_RESTARTS=0 leaves
// the server running, and NFSLIB_LOAD_CSV names a file, not below /tmp, which is the test's own, for the memory,
// threads and descriptors of the server over time.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "CallTap.h"
#include "ChildProcess.h"
#include "HostSide.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "ModelledClient.h"
#include "NfsClient.h"
#include "OpenDescriptors.h"
#include "RuntimeParam.h"
#include "ServerHoldings.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLibnfsClients = 4;
constexpr int kClients = kLibnfsClients + 1;  // one makes its calls by itself: also those that libnfs does not

long GetNumber(const char* pcVariable, long iDefault) {
    const char* pcValue = std::getenv(pcVariable);
    return pcValue == nullptr ? iDefault : std::atol(pcValue);
}

/// What a process takes of the machine.
struct Usage {
    double dSeconds = 0;
    long nResidentKiB = 0;
    long nThreads = 0;
    long nDescriptors = 0;
};

Usage Measure(pid_t iProcess) {
    Usage usage;
    std::ifstream status("/proc/" + std::to_string(iProcess) + "/status");
    for (std::string sLine; std::getline(status, sLine);) {
        if (sLine.starts_with("VmRSS:")) {
            usage.nResidentKiB = std::atol(sLine.c_str() + 6);
        } else if (sLine.starts_with("Threads:")) {
            usage.nThreads = std::atol(sLine.c_str() + 8);
        }
    }
    usage.nDescriptors = static_cast<long>(CountDescriptors(iProcess));
    return usage;
}

class DataUnderLoadTest : public testing::Test {
protected:
    static constexpr std::size_t kDiskSize = 500000;

    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_sLogFile = *m_pFolder / "log";
        m_sDisk.resize(kDiskSize);
        for (std::size_t i = 0; i < kDiskSize; ++i) {
            m_sDisk[i] = static_cast<char>('A' + i / 1000 % 26);
        }
        // The disk's pieces stand in two files, in turns.
        std::string sPieces[2];
        for (std::size_t i = 0; i < kDiskSize; i += kPieceSize) {
            sPieces[i / kPieceSize % 2] += m_sDisk.substr(i, kPieceSize);
        }
        WriteWholeFile(*m_pFolder / "source-0", sPieces[0]);
        WriteWholeFile(*m_pFolder / "source-1", sPieces[1]);
        for (int i = 0; i < kClients; ++i) {
            std::filesystem::create_directory(Export(i));
            WriteWholeFile(Export(i) + "/disk", "");
            WriteWholeFile(Export(i) + "/hosted", std::string(50000, 'a'));
        }
        std::filesystem::create_directory(*m_pFolder / "passing");
        StartConsole();
        m_pHostSide = std::make_unique<HostSide>("host");
        m_pHostSide->Log().SetHost([](const Notification& told) { return static_cast<int>(told.iLen); });
        char vcReason[kReasonBufferSize] = "";
        ASSERT_TRUE(m_pHostSide->Start(vcReason)) << vcReason;
        Start();
        NoteIdle();
    }
    void TearDown() override {
        m_pHostSide.reset();
        if (m_pServer && m_pServer->IsRunning()) {
            EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
        }
        m_pServer.reset();
        m_pFolder.reset();
    }

    std::string Export(int i) const { return *m_pFolder / ("export-" + std::to_string(i)); }
    static std::string Name(int i) { return "exp" + std::to_string(i); }

    void StartConsole() {
        m_pServer = std::make_unique<ConsoleProcess>(
            std::vector<std::string>{"-md", "svr", "-id", "srv", "-log", "1", "-logfile", m_sLogFile});
        ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
        m_pServer->Command("debug");
        m_pServer->Command("logfilesize 200000");
    }
    /// What a server holds that has no client and nothing left to do.
    void NoteIdle() {
        ASSERT_TRUE(m_pHostSide->AwaitListing(Export(0)));
        const std::size_t nThreads = ReadHoldings(m_pServer->GetPid()).nThreads;
        Tidy();
        ASSERT_TRUE(WaitUntil([&] { return (m_Idle = ReadHoldings(m_pServer->GetPid())).nThreads <= nThreads; }))
            << testing::PrintToString(m_Idle);
    }
    /// Has the server close what it may keep, so that its holdings can be compared.
    void Tidy() {
        m_pHostSide->Client().CloseAllCachedFileHandles(m_pFolder->Path().c_str());
        UseEachConnection();
    }
    /// The redirected files come first: no client must see what stands on disk under their paths.
    void Start() {
        char vcReason[kReasonBufferSize] = "";
        for (int i = 0; i < kClients; ++i) {
            const std::string sPath = Export(i) + "/disk";
            m_pHostSide->Client().OpenRedirectedFile(sPath.c_str(), kDiskSize, false, 0, 0);
            for (std::size_t iOffset = 0; iOffset < kDiskSize; iOffset += kPieceSize) {
                const std::size_t iPiece = iOffset / kPieceSize;
                const std::string sSource = *m_pFolder / ("source-" + std::to_string(iPiece % 2));
                ASSERT_TRUE(m_pHostSide->Client().AddRedirectedFileSegment(
                    sPath.c_str(), sSource.c_str(), static_cast<long long>(iPiece / 2 * kPieceSize),
                    static_cast<long long>(iOffset), static_cast<long long>(kPieceSize), vcReason))
                    << vcReason;
            }
        }
        ASSERT_TRUE(m_pHostSide->Client().StartServer(0, 0, 0, 0, false, vcReason)) << vcReason;
        for (int i = 0; i < kClients; ++i) {
            ASSERT_TRUE(m_pHostSide->Client().AddMountPoint(Export(i).c_str(), Name(i).c_str(), vcReason)) << vcReason;
        }
    }

    /// One of the things that a host and an operator do meanwhile.
    void Disturb(std::mt19937& random) {
        static constexpr int kLogControls[] = {0, 1, 33, 511};
        const int iExport = static_cast<int>(random() % kClients);
        switch (random() % 8) {
            case 0:
                if (m_bRestarts) {
                    ++m_Epochs.nStopping;
                    ASSERT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
                    ++m_Epochs.nStopped;
                    StartConsole();
                    Start();
                    ++m_nRestarts;
                }
                break;
            case 1:
                m_pHostSide->Client().SetLogControl(kLogControls[random() % std::size(kLogControls)]);
                break;
            case 2:
                m_pHostSide->Client().CloseAllCachedFileHandles(Export(iExport).c_str());
                break;
            case 3: {
                CRuntimeParam param("host", 0);
                m_pHostSide->Client().GetMountInfo(&param, false, true);
                break;
            }
            case 4:
                ServeInPassing();
                break;
            default:
                WriteWholeFile(*m_pFolder / "next", std::string(20000 + random() % 30000, NextLetter()));
                std::filesystem::rename(*m_pFolder / "next", Export(iExport) + "/hosted");
        }
        for (int i = 1; std::filesystem::remove(m_sLogFile + "." + std::to_string(i)); ++i) {
        }
        m_pHostSide->Log().Clear();
    }

    /// An export with a redirected file comes and goes.
    void ServeInPassing() {
        char vcReason[kReasonBufferSize] = "";
        CNfsIpcClientMain& client = m_pHostSide->Client();
        const std::string sExport = *m_pFolder / "passing";
        const std::string sPath = sExport + "/disk";
        WriteWholeFile(sPath, "");  // its info file
        client.OpenRedirectedFile(sPath.c_str(), kDiskSize, true, 0, 0);
        EXPECT_TRUE(client.AddRedirectedFileSegment(sPath.c_str(), (*m_pFolder / "source-0").c_str(), 0, 0,
                                                    static_cast<long long>(kPieceSize), vcReason))
            << vcReason;
        EXPECT_TRUE(client.AddMountPoint(sExport.c_str(), "passing", vcReason)) << vcReason;
        client.AddSessionInfo("session", sExport.c_str());
        EXPECT_TRUE(client.IsSessionExists("session"));
        WriteWholeFile(sExport + "/exported", "");
        client.ExportRedirectedFile(sPath.c_str(), (sExport + "/exported").c_str());
        EXPECT_TRUE(ReadWholeFile(sExport + "/exported").starts_with(m_sDisk.substr(0, kPieceSize)));
        client.RemoveSessionInfo("session");
        client.CloseRedirectedFile(sPath.c_str());
        client.RemoveMountPoint(sExport.c_str());
    }

    char NextLetter() {
        m_cLetter = m_cLetter == 'z' ? 'a' : static_cast<char>(m_cLetter + 1);
        return m_cLetter;
    }

private:
    static constexpr std::size_t kPieceSize = 10000;
    LeakGuard m_Leaks;

protected:
    std::unique_ptr<TempFolder> m_pFolder;
    std::unique_ptr<ConsoleProcess> m_pServer;
    std::unique_ptr<HostSide> m_pHostSide;
    std::string m_sLogFile;
    std::string m_sDisk;
    bool m_bRestarts = GetNumber("NFSLIB_LOAD_RESTARTS", 1) != 0;
    int m_nRestarts = 0;
    Holdings m_Idle;
    ServerEpochs m_Epochs;
    char m_cLetter = 'a';
};

/// The lines of memory, threads and descriptors that a plot is made of.
void WriteCsv(const char* pcPath, const std::vector<Usage>& vUsage) {
    std::ofstream csv(pcPath);
    csv << "seconds,resident_kib,threads,descriptors\n";
    for (const Usage& usage : vUsage) {
        csv << usage.dSeconds << ',' << usage.nResidentKiB << ',' << usage.nThreads << ',' << usage.nDescriptors
            << '\n';
    }
}

/// The most resident memory among some of the measurements.
long GetMostResident(std::vector<Usage>::const_iterator itBegin, std::vector<Usage>::const_iterator itEnd) {
    return std::max_element(itBegin, itEnd,
                            [](const Usage& a, const Usage& b) { return a.nResidentKiB < b.nResidentKiB; })
        ->nResidentKiB;
}

/// How much processor time a process has used.
double GetProcessorSeconds(pid_t iProcess) {
    std::ifstream status("/proc/" + std::to_string(iProcess) + "/stat");
    const std::string sAll((std::istreambuf_iterator<char>(status)), {});
    std::istringstream fields(sAll.substr(sAll.rfind(')') + 1));
    constexpr int kFieldsBefore = 11;
    std::string sSkipped;
    for (int i = 0; i < kFieldsBefore; ++i) {
        fields >> sSkipped;
    }
    double dUser = 0;
    double dSystem = 0;
    fields >> dUser >> dSystem;
    return (dUser + dSystem) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

/// Prints how often each procedure was called, and requires that each was. The number of all calls.
std::uint64_t ReportCalls() {
    struct Program {
        const char* pcName;
        std::uint32_t iNumber;
        std::uint32_t iFirst;
        std::uint32_t iLast;
    };
    constexpr std::uint32_t kGetPort = 3;
    static constexpr Program kPrograms[] = {{"NFS", kNfsProgram, kNfsNull, kNfsCommit},
                                            {"MOUNT", kMountProgram, kMountNull, kMountExport},
                                            {"portmapper", kPortmapProgram, kGetPort, kGetPort}};
    std::uint64_t nAll = 0;
    for (const Program& program : kPrograms) {
        std::printf("%s calls by procedure:", program.pcName);
        for (std::uint32_t i = program.iFirst; i <= program.iLast; ++i) {
            const std::uint64_t nCalls = GetSentCalls(program.iNumber, i);
            EXPECT_GT(nCalls, 0U) << program.pcName << ", procedure " << i;
            std::printf(" %u:%llu", i, static_cast<unsigned long long>(nCalls));
            nAll += nCalls;
        }
        std::printf("\n");
    }
    return nAll;
}

TEST_F(DataUnderLoadTest, NotOneByteDiffersFromWhatWasAcknowledged) {
    const std::chrono::seconds length(GetNumber("NFSLIB_LOAD_SECONDS", 8));
    const std::chrono::microseconds pause(GetNumber("NFSLIB_LOAD_PAUSE", 0));
    const std::chrono::milliseconds betweenDisturbances(GetNumber("NFSLIB_LOAD_DISTURBANCE", 100));
    std::atomic<bool> bStop{false};
    std::vector<std::unique_ptr<ModelledClient>> vpClients;
    std::vector<std::string> vsWrong(kClients);
    std::vector<std::thread> vThreads;
    for (int i = 0; i < kClients; ++i) {
        vpClients.push_back(std::make_unique<ModelledClient>(
            ModelledWorld{Name(i), m_sDisk, pause, &m_Epochs},
            i < kLibnfsClients ? MakeLibnfsFiles(Name(i)) : MakeRawFiles(Name(i), "127.0.0.10"),
            static_cast<std::uint32_t>(1 + i)));
        std::string* psWrong = &vsWrong[static_cast<std::size_t>(i)];
        vThreads.emplace_back([pClient = vpClients.back().get(), psWrong, &bStop] { *psWrong = pClient->Run(bStop); });
    }
    std::mt19937 random(7);
    std::vector<Usage> vUsage;
    const bool bRestarts = m_bRestarts;
    const auto begin = Clock::now();
    auto measured = begin;
    while (Clock::now() - begin < length && !HasFatalFailure() && m_pServer->IsRunning()) {
        std::this_thread::sleep_for(betweenDisturbances);
        m_bRestarts = bRestarts && Clock::now() - begin < length / 4 * 3;  // the last server has time to grow
        Disturb(random);
        if (Clock::now() >= measured) {
            vUsage.push_back(Measure(m_pServer->GetPid()));
            vUsage.back().dSeconds = std::chrono::duration<double>(Clock::now() - begin).count();
            measured += std::chrono::seconds(1);
        }
    }
    bStop = true;
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    ASSERT_TRUE(m_pServer->IsRunning()) << m_pServer->Output();

    for (int i = 0; i < kClients; ++i) {
        const ModelledClient& client = *vpClients[static_cast<std::size_t>(i)];
        EXPECT_EQ(vsWrong[static_cast<std::size_t>(i)], "");
        EXPECT_GT(client.GetWorkCount(), 20U) << Name(i);
        if (HasFailure()) {
            break;  // the client ended in the middle of something
        }
        for (const auto& [sName, sContent] : client.GetFiles()) {
            EXPECT_TRUE(std::filesystem::exists(Export(i) + "/" + sName)) << sName;
            EXPECT_TRUE(ReadWholeFile(Export(i) + "/" + sName) == sContent) << sName << " on disk";
        }
    }
    EXPECT_EQ(m_nRestarts > 0, bRestarts);
    vpClients.clear();
    Tidy();
    ExpectHoldingsWithin(m_pServer->GetPid(), m_Idle);
    const std::uint64_t nCalls = ReportCalls();
    RecordProperty("calls", std::to_string(nCalls));
    RecordProperty("restarts", m_nRestarts);
    if (const char* pcCsv = std::getenv("NFSLIB_LOAD_CSV")) {
        WriteCsv(pcCsv, vUsage);
        std::printf("%llu calls, %d restarts, %.1f seconds of processor for the last server, %.1f for the clients\n",
                    static_cast<unsigned long long>(nCalls), m_nRestarts, GetProcessorSeconds(m_pServer->GetPid()),
                    GetProcessorSeconds(::getpid()));
    }
    constexpr std::size_t kEnoughToJudge = 120;
    if (vUsage.size() >= kEnoughToJudge) {
        const auto itMiddle = vUsage.cbegin() + static_cast<std::ptrdiff_t>(vUsage.size() / 2);
        EXPECT_LE(GetMostResident(itMiddle, vUsage.cend()), GetMostResident(vUsage.cbegin(), itMiddle) + 2048);
    }
}

}  // namespace
