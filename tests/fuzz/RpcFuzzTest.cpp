// Mutated calls, the same in every run, and the corpus of the fuzzer as an ordinary test.
#include "RpcFuzz.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Corpus.h"
#include "TempFolder.h"
#include "Xdr.h"

namespace {

/// Changes inputs as hostile clients and bad networks do; from one seed always the same way.
class Mutator {
public:
    explicit Mutator(std::uint64_t iSeed) : m_iState(iSeed) {}

    std::string Mutate(const std::vector<std::string>& vsCorpus) {
        std::string sInput = vsCorpus[Below(vsCorpus.size())];
        for (std::size_t n = Below(4) + 1; n > 0; --n) {
            Change(sInput, vsCorpus);
        }
        return sInput;
    }

private:
    std::size_t Below(std::size_t n) {
        m_iState ^= m_iState << 13U;
        m_iState ^= m_iState >> 7U;
        m_iState ^= m_iState << 17U;
        return m_iState % n;
    }

    void Change(std::string& sInput, const std::vector<std::string>& vsCorpus) {
        static constexpr std::uint32_t kWords[] = {
            0,    1,     2,     3,     4,     55,    56,     57,     64,         255,        256,        4095,
            4096, 16384, 16385, 65535, 65536, 65537, 100000, 100003, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFC, 0xFFFFFFFF};
        static constexpr const char* kNames[] = {"..", ".", "/", "../secret", "../export", "file", "folder/entry", ""};
        const std::size_t i = sInput.empty() ? 0 : Below(sInput.size());
        switch (Below(8)) {
            case 0:  // a bit
                if (!sInput.empty()) {
                    sInput[i] = static_cast<char>(sInput[i] ^ (1 << Below(8)));
                }
                break;
            case 1: {  // a word
                const std::size_t iWord = 2 + (i - std::min<std::size_t>(i, 2)) / 4 * 4;
                if (iWord + 4 <= sInput.size()) {
                    sInput.replace(iWord, 4, XdrBuilder().U32(kWords[Below(std::size(kWords))]).Bytes());
                }
                break;
            }
            case 2:  // the end is missing
                sInput.resize(i);
                break;
            case 3:  // something is missing
                sInput.erase(i, Below(16) + 1);
                break;
            case 4:  // garbage
                sInput.insert(i, std::string(Below(64), static_cast<char>(Below(256))));
                break;
            case 5:  // another call behind or within this one
                sInput.insert(Below(2) == 0 ? sInput.size() : i, vsCorpus[Below(vsCorpus.size())].substr(2));
                break;
            case 6:  // a name that leads somewhere else
                sInput.insert(i, XdrBuilder().Opaque(kNames[Below(std::size(kNames))]).Bytes());
                break;
            default:  // arrives in other pieces
                if (sInput.size() > 1) {
                    sInput[1] = static_cast<char>(Below(256));
                }
        }
    }

    std::uint64_t m_iState;
};

}  // namespace

TEST(RpcFuzz, TheCorpusIsAnsweredWithoutHarm) {
    const TempFolder folder;
    RpcFuzzWorld world(folder.Path());
    const std::vector<std::string> vsCorpus = ReadCorpus("corpus");
    ASSERT_GE(vsCorpus.size(), 30U);
    for (const std::string& sInput : vsCorpus) {
        EXPECT_EQ(world.Run(sInput), "") << Hex(sInput);
    }
}

TEST(RpcFuzz, WhatHappensOutsideTheExportIsNoticed) {
    const TempFolder folder;
    RpcFuzzWorld world(folder.Path());
    const std::string sInput = ReadCorpus("corpus").front();
    ASSERT_EQ(world.Run(sInput), "");
    const std::string sOutside = folder / ("rpc-fuzz-" + std::to_string(::getpid()));
    ReadWholeFile(sOutside + "/secret");
    EXPECT_EQ(world.Run(sInput), "a file outside the export was opened");
    EXPECT_EQ(world.Run(sInput), "");
    WriteWholeFile(sOutside + "/new", "");
    EXPECT_EQ(world.Run(sInput), "something outside the export, or the export itself, was made or removed");
}

TEST(RpcFuzz, MutatedCallsDoNoHarm) {
    constexpr int kInputs = 20000;
    constexpr std::chrono::seconds kLimit{8};  // for builds that are slowed down by sanitizers
    const TempFolder folder;
    RpcFuzzWorld world(folder.Path());
    const std::vector<std::string> vsCorpus = ReadCorpus("corpus");
    ASSERT_FALSE(vsCorpus.empty());
    Mutator mutator(20240607);
    const auto end = std::chrono::steady_clock::now() + kLimit;
    int nRun = 0;
    for (; nRun < kInputs && std::chrono::steady_clock::now() < end; ++nRun) {
        const std::string sInput = mutator.Mutate(vsCorpus);
        ASSERT_EQ(world.Run(sInput), "") << "input " << nRun << ": " << Hex(sInput);
    }
    RecordProperty("inputs", nRun);
    EXPECT_GT(nRun, 100);
}
