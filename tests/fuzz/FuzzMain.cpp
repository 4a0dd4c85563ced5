// fuzz: feeds a world mutated inputs, as many as are asked for, and says what came of it.
//
//   fuzz ENTRY [--runs N] [--seconds N] [--seed N] [--from N] [--limit SECONDS] [--keep FOLDER] [FILE...]
//
// The inputs follow from seed and number: --from N --runs 1 makes the N-th again. With files, these are fed instead. An
// input that does harm, crashes the process or takes longer than the limit is kept in a file, and the status is not 0.
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "Corpus.h"
#include "Descriptor.h"
#include "FuzzEntries.h"
#include "Isolation.h"
#include "OpenDescriptors.h"
#include "SilentOutput.h"
#include "TempFolder.h"

/// Present in builds with a sanitizer: what it reports ends the process through this.
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*pfnCallback)());  // NOLINT

namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
    const FuzzEntry* pEntry = nullptr;
    std::uint64_t nRuns = 100000;
    std::uint64_t iSeed = 1;
    std::uint64_t iFrom = 0;
    std::chrono::seconds longest{std::chrono::hours(24 * 365)};  ///< of all inputs together
    std::chrono::seconds limit{30};                              ///< of one
    std::string sKeep = ".";
    std::vector<std::string> vsInputs;  ///< of files named
};

// ---- Keeping the input at hand, also from a signal handler

std::string g_sInput;
std::atomic<std::uint64_t> g_iInput{0};
int g_iKeep = -1;  ///< the folder to keep it in: opened before /tmp is another one
char g_vcName[64];

void KeepInput() {
    const int iFile = ::openat(g_iKeep, g_vcName, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (iFile >= 0) {
        [[maybe_unused]] const ssize_t nWritten = ::write(iFile, g_sInput.data(), g_sInput.size());
        ::close(iFile);
    }
}

void KeepAndDie(int iSignal) {
    KeepInput();
    std::signal(iSignal, SIG_DFL);
    ::raise(iSignal);
}

void CatchDeath(const Settings& settings) {
    g_iKeep = ::open(settings.sKeep.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    std::snprintf(g_vcName, sizeof(g_vcName), "%s-harmful-input", settings.pEntry->pcName);
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(KeepInput);
        return;
    }
    for (const int iSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        std::signal(iSignal, KeepAndDie);
    }
}

/// Ends the process when one input takes too long.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit) : m_Limit(limit), m_Thread([this] { Watch(); }) {}
    ~Watchdog() {
        m_bEnd = true;
        m_Thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void Watch() {
        std::uint64_t iLast = 0;
        Clock::time_point since = Clock::now();
        while (!m_bEnd) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (const std::uint64_t iInput = g_iInput; iInput != iLast) {
                iLast = iInput;
                since = Clock::now();
            } else if (Clock::now() - since > m_Limit) {
                std::fprintf(stderr, "input %" PRIu64 " hangs\n", iLast);
                KeepInput();
                ::_exit(1);
            }
        }
    }

    std::chrono::seconds m_Limit;
    std::atomic<bool> m_bEnd{false};
    std::thread m_Thread;
};

// ---- What the process holds

/// Resident memory in KiB.
long GetMemory() {
    long nAll = 0;
    long nResident = 0;
    if (std::FILE* pFile = std::fopen("/proc/self/statm", "re"); pFile != nullptr) {
        if (std::fscanf(pFile, "%ld %ld", &nAll, &nResident) != 2) {
            nResident = 0;
        }
        std::fclose(pFile);
    }
    return nResident * (::sysconf(_SC_PAGESIZE) / 1024);
}

// ---- The run

/// By then a world has all that it needs.
constexpr std::uint64_t kEarly = 5000;

struct Outcome {
    std::uint64_t nDone = 0;
    std::string sFailure;
    std::chrono::microseconds slowest{0};
    std::uint64_t iSlowest = 0;
    long nEarlyMemory = 0;  ///< after the first inputs
};

void FeedOne(FuzzTarget& target, std::string sInput, std::uint64_t iInput, Outcome& outcome) {
    g_sInput = std::move(sInput);
    g_iInput = iInput + 1;
    const Clock::time_point start = Clock::now();
    outcome.sFailure = target.Run(g_sInput);
    const auto taken = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
    if (taken > outcome.slowest) {
        outcome.slowest = taken;
        outcome.iSlowest = iInput;
    }
    ++outcome.nDone;
}

Outcome Feed(const Settings& settings, FuzzTarget& target) {
    Outcome outcome;
    for (const std::string& sInput : settings.vsInputs) {
        FeedOne(target, sInput, outcome.nDone, outcome);
        if (!outcome.sFailure.empty()) {
            return outcome;
        }
    }
    if (!settings.vsInputs.empty()) {
        return outcome;
    }
    const std::vector<std::string> vsCorpus = ReadCorpus(settings.pEntry->pcCorpus);
    const FuzzVocabulary vocabulary = settings.pEntry->pfnMakeVocabulary();
    const Clock::time_point end = Clock::now() + settings.longest;
    for (std::uint64_t i = settings.iFrom;
         outcome.nDone < settings.nRuns && outcome.sFailure.empty() && Clock::now() < end; ++i) {
        FeedOne(target, Mutator(settings.iSeed, i).Mutate(vsCorpus, vocabulary), i, outcome);
        if (outcome.nDone == kEarly) {
            outcome.nEarlyMemory = GetMemory();
        }
    }
    return outcome;
}

void Report(const Settings& settings, const Outcome& outcome, double fSeconds) {
    std::fprintf(stderr, "%s: %" PRIu64 " inputs in %.0f s (%.0f a second), seed %" PRIu64 " from %" PRIu64 "\n",
                 settings.pEntry->pcName, outcome.nDone, fSeconds, static_cast<double>(outcome.nDone) / fSeconds,
                 settings.iSeed, settings.iFrom);
    std::fprintf(stderr, "slowest: %.1f ms, input %" PRIu64 "\n", static_cast<double>(outcome.slowest.count()) / 1000,
                 outcome.iSlowest);
    std::fprintf(stderr, "memory: %ld KiB after %" PRIu64 " inputs, %ld KiB at the end\n", outcome.nEarlyMemory, kEarly,
                 GetMemory());
}

int Run(const Settings& settings) {
    const SilentOutput silence;
    std::size_t nDescriptors = CountDescriptors();
    Outcome outcome;
    {
        const TempFolder folder;
        const Watchdog watchdog(settings.limit);
        const std::unique_ptr<FuzzTarget> pTarget = settings.pEntry->pfnMakeTarget(folder.Path());
        const Clock::time_point start = Clock::now();
        outcome = Feed(settings, *pTarget);
        Report(settings, outcome, std::chrono::duration<double>(Clock::now() - start).count());
        for (const auto& [sWhat, n] : pTarget->GetReached()) {
            std::fprintf(stderr, "  %12" PRIu64 "  %s\n", n, sWhat.c_str());
        }
    }
    if (const std::size_t nLeft = CountDescriptors(); outcome.sFailure.empty() && nLeft != nDescriptors) {
        outcome.sFailure = std::to_string(nLeft) + " descriptors are open, " + std::to_string(nDescriptors) + " were";
    }
    if (!outcome.sFailure.empty()) {
        std::fprintf(stderr, "HARM at input %" PRIu64 ": %s\n", g_iInput - 1, outcome.sFailure.c_str());
        KeepInput();
        return 1;
    }
    std::fprintf(stderr, "no harm; %zu descriptors before and after\n", nDescriptors);
    return 0;
}

// ---- The command line

void PrintUsage() {
    std::fprintf(stderr,
                 "usage: fuzz ENTRY [--runs N] [--seconds N] [--seed N] [--from N] [--limit SECONDS] [--keep FOLDER] "
                 "[FILE...]\n"
                 "ENTRY is one of");
    for (const FuzzEntry& entry : GetFuzzEntries()) {
        std::fprintf(stderr, " %s", entry.pcName);
    }
    std::fprintf(stderr, "\n");
}

bool ReadArguments(int argc, char** argv, Settings& settings) {
    settings.pEntry = argc > 1 ? FindFuzzEntry(argv[1]) : nullptr;
    for (int i = 2; i < argc; ++i) {
        const std::string sWord = argv[i];
        if (!sWord.starts_with("--")) {
            settings.vsInputs.push_back(ReadWholeFile(sWord));
            continue;
        }
        if (++i >= argc) {
            return false;
        }
        const std::uint64_t iValue = std::strtoull(argv[i], nullptr, 10);
        if (sWord == "--runs") {
            settings.nRuns = iValue;
        } else if (sWord == "--seed") {
            settings.iSeed = iValue;
        } else if (sWord == "--from") {
            settings.iFrom = iValue;
        } else if (sWord == "--seconds") {
            settings.longest = std::chrono::seconds(iValue);
        } else if (sWord == "--limit") {
            settings.limit = std::chrono::seconds(iValue);
        } else if (sWord == "--keep") {
            settings.sKeep = argv[i];
        } else {
            return false;
        }
    }
    return settings.pEntry != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Settings settings;
        if (!ReadArguments(argc, argv, settings)) {
            PrintUsage();
            return 2;
        }
        CatchDeath(settings);
        if (const char* pcWhy = IsolateProcess(); pcWhy != nullptr) {
            std::fprintf(stderr, "not isolated: %s\n", pcWhy);
            return 2;
        }
        return Run(settings);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fuzz: %s\n", error.what());
        KeepInput();
        return 1;
    }
}
