// Every fuzzer's corpus, and inputs mutated the same way in every run, as ordinary tests.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Corpus.h"
#include "FuzzEntries.h"
#include "Isolation.h"
#include "RpcFuzz.h"
#include "SilentOutput.h"
#include "TempFolder.h"
#include "Xdr.h"

/// For failure texts.
void PrintTo(const FuzzEntry& entry, std::ostream* pStream) {
    *pStream << entry.pcName;
}

namespace {

class FuzzTest : public testing::TestWithParam<FuzzEntry> {
protected:
    void SetUp() override {
        ASSERT_TRUE(IsIsolated()) << kNotIsolated;
        m_pTarget = GetParam().pfnMakeTarget(m_Folder.Path());
    }

    /// The console prints, the test framework too.
    std::string Feed(const std::string& sInput) {
        const SilentOutput silence;
        return m_pTarget->Run(sInput);
    }

    TempFolder m_Folder;
    std::unique_ptr<FuzzTarget> m_pTarget;
};

TEST_P(FuzzTest, TheCorpusDoesNoHarmAndReachesAllThatThereIs) {
    const std::vector<std::string> vsCorpus = ReadCorpus(GetParam().pcCorpus);
    ASSERT_GE(vsCorpus.size(), 10U);
    for (const std::string& sInput : vsCorpus) {
        EXPECT_EQ(Feed(sInput), "") << Hex(sInput);
    }
    EXPECT_EQ(Feed(""), "");
    for (const std::string& sWanted : GetParam().pfnMakeWanted()) {
        EXPECT_TRUE(m_pTarget->GetReached().contains(sWanted)) << sWanted;
    }
}

TEST_P(FuzzTest, MutatedInputsDoNoHarm) {
    constexpr int kInputs = 10000;
    constexpr std::chrono::milliseconds kLimit{1200};  // for slow worlds, and builds that are slowed down by sanitizers
    const std::vector<std::string> vsCorpus = ReadCorpus(GetParam().pcCorpus);
    const FuzzVocabulary vocabulary = GetParam().pfnMakeVocabulary();
    const auto end = std::chrono::steady_clock::now() + kLimit;
    std::uint64_t nRun = 0;
    for (; nRun < kInputs && std::chrono::steady_clock::now() < end; ++nRun) {
        const std::string sInput = Mutator(20240607, nRun).Mutate(vsCorpus, vocabulary);
        ASSERT_EQ(Feed(sInput), "") << "input " << nRun << ": " << Hex(sInput);
    }
    RecordProperty("inputs", static_cast<int>(nRun));
    EXPECT_GT(nRun, 10U);
}

INSTANTIATE_TEST_SUITE_P(Entries, FuzzTest, testing::ValuesIn(GetFuzzEntries().begin(), GetFuzzEntries().end()),
                         [](const auto& entry) { return std::string(entry.param.pcName); });

}  // namespace

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

TEST(Mutator, MakesTheSameInputsFromTheSameNumbersAndOthersFromOthers) {
    const std::vector<std::string> vsCorpus{"one input", "another, longer input"};
    const FuzzVocabulary vocabulary{.nHead = 1, .vsWords = {"word"}};
    int nDifferent = 0;
    for (std::uint64_t i = 0; i < 100; ++i) {
        const std::string sInput = Mutator(1, i).Mutate(vsCorpus, vocabulary);
        EXPECT_EQ(sInput, Mutator(1, i).Mutate(vsCorpus, vocabulary));
        nDifferent += sInput != Mutator(2, i).Mutate(vsCorpus, vocabulary) ? 1 : 0;
    }
    EXPECT_GT(nDifferent, 90);
}
