// Redirected files: random reads by the size of the map, beside reads of a plain file, and adding segments.
//
// All segments stand for the same 32 MiB, so that the map is the only thing that differs.
#include <cstdint>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "RedirectedFile.h"
#include "Utilities.h"

namespace {

constexpr long long kSegment = 32LL << 20;

/// Random numbers for a nanosecond each, so that the reads are measured and not their choice.
class Splitmix {
public:
    std::uint64_t operator()() {
        std::uint64_t i = (m_iState += 0x9E3779B97F4A7C15U);
        i = (i ^ (i >> 30U)) * 0xBF58476D1CE4E5B9U;
        i = (i ^ (i >> 27U)) * 0x94D049BB133111EBU;
        return i ^ (i >> 31U);
    }

private:
    std::uint64_t m_iState = 7;
};

/// A scratch folder with a source of random bytes and an empty info file.
class Scratch {
public:
    Scratch() {
        char vcFolder[] = "/tmp/nfslib-bench-XXXXXX";
        if (::mkdtemp(vcFolder) == nullptr) {
            throw std::runtime_error("no scratch folder below /tmp");
        }
        m_sFolder = vcFolder;
        std::string sContent(static_cast<std::size_t>(kSegment), '\0');
        std::mt19937_64 random(1);
        for (char& c : sContent) {
            c = static_cast<char>(random());
        }
        Write(Source(), sContent);
        Write(Info(), "");
    }
    ~Scratch() {
        ::unlink(Source().c_str());
        ::unlink(Info().c_str());
        ::rmdir(m_sFolder.c_str());
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string Source() const { return m_sFolder + "/source"; }
    std::string Info() const { return m_sFolder + "/info"; }
    void EmptyInfo() const { Write(Info(), ""); }

private:
    static void Write(const std::string& sPath, const std::string& sContent) {
        const int iFile = ::open(sPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (iFile == -1 || ::write(iFile, sContent.data(), sContent.size()) != static_cast<ssize_t>(sContent.size())) {
            throw std::runtime_error("cannot write " + sPath);
        }
        ::close(iFile);
    }

    std::string m_sFolder;
};

/// One for all benchmarks; gone with the process.
Scratch& GetScratch() {
    static Scratch scratch;
    return scratch;
}

/// A redirected file of so many segments, registered under its info file's path as a host does it.
class Map {
public:
    Map(bool bInfoFile, long long nSegments) : m_nSegments(nSegments) {
        m_Scratch.EmptyInfo();
        m_pFile = m_Utilities.OpenRedirectedFile(&m_Param, m_Scratch.Info().c_str(), (nSegments + 1000000) * kSegment,
                                                 bInfoFile, 0, 0);
        for (long long i = 0; i < nSegments; ++i) {
            Add(i);
        }
    }

    void Add(long long i) {
        m_Utilities.AddRedirectedFileSegment(&m_Param, m_Scratch.Info().c_str(), m_Scratch.Source().c_str(), 0,
                                             i * kSegment, kSegment, nullptr);
    }
    /// A random read through the operation that READ uses.
    void Read(benchmark::State& state) {
        const auto iLen = static_cast<unsigned int>(state.range(0));
        std::vector<char> vcBuffer(CRedirectedFile::GetReadRoom(iLen));
        Splitmix random;
        const auto iEnd = static_cast<unsigned long long>(m_nSegments * kSegment - iLen);
        for (auto _ : state) {
            ReadOnce(m_Scratch.Info(), random() % iEnd / 512 * 512, vcBuffer.data(), iLen, state);
        }
        state.counters["map bytes"] = static_cast<double>(m_pFile->GetMapMemory());
    }
    void ReadPlain(benchmark::State& state) {
        const auto iLen = static_cast<unsigned int>(state.range(0));
        std::vector<char> vcBuffer(iLen);
        Splitmix random;
        for (auto _ : state) {
            ReadOnce(m_Scratch.Source(), random() % static_cast<unsigned long long>(kSegment - iLen) / 512 * 512,
                     vcBuffer.data(), iLen, state);
        }
    }

private:
    void ReadOnce(const std::string& sPath, unsigned long long iOffset, char* pcBuffer, unsigned int iLen,
                  benchmark::State& state) {
        bool bEof = false;
        const int iRead =
            m_Utilities.ReadFile(&m_Param, &m_LogArgu, sPath.c_str(), iOffset, SEEK_SET, pcBuffer, iLen, &bEof);
        if (iRead != static_cast<int>(iLen)) {
            state.SkipWithError("a read fell short");
        }
    }

    Scratch& m_Scratch = GetScratch();
    CUtilities m_Utilities;
    CRuntimeParam m_Param{"bench", 0};
    LogArgu m_LogArgu{"bench"};
    std::shared_ptr<CRedirectedFile> m_pFile;
    long long m_nSegments;
};

void ReadOfAPlainFile(benchmark::State& state) {
    Map(false, 1).ReadPlain(state);
}
void ReadOfAMapInMemory(benchmark::State& state) {
    Map(false, state.range(1)).Read(state);
}
void ReadOfAMapInAnInfoFile(benchmark::State& state) {
    Map(true, state.range(1)).Read(state);
}

/// Adding to a map that holds so many segments already; at most a million are added.
void AddTo(benchmark::State& state, bool bInfoFile) {
    Map map(bInfoFile, state.range(0));
    long long i = state.range(0);
    for (auto _ : state) {
        map.Add(i++);
    }
}
void AddToAMapInMemory(benchmark::State& state) {
    AddTo(state, false);
}
void AddToAMapInAnInfoFile(benchmark::State& state) {
    AddTo(state, true);
}

constexpr int kAdded = 20000;

BENCHMARK(ReadOfAPlainFile)->Arg(4096)->Arg(65536)->ArgNames({"bytes"});
BENCHMARK(ReadOfAMapInMemory)->ArgsProduct({{4096, 65536}, {1, 1000, 100000}})->ArgNames({"bytes", "segments"});
BENCHMARK(ReadOfAMapInAnInfoFile)->ArgsProduct({{4096, 65536}, {1, 1000, 32768}})->ArgNames({"bytes", "segments"});
BENCHMARK(AddToAMapInMemory)->Arg(0)->Arg(100000)->Iterations(kAdded)->ArgNames({"segments"});
BENCHMARK(AddToAMapInAnInfoFile)->Arg(0)->Arg(32768)->Iterations(kAdded)->ArgNames({"segments"});

}  // namespace
