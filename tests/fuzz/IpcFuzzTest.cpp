// Mutated records, the same in every run, and the corpus of the fuzzer as an ordinary test.
#include "IpcFuzz.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Corpus.h"
#include "Isolation.h"

namespace {

constexpr char kChannel[] = "/tmp/nfs-fuzz";
constexpr int kRounds = 4000;

/// Cuts, lengthens, overwrites, and puts odd groups and types in.
std::string Mutate(std::string sInput, std::mt19937& random) {
    switch (random() % 4) {
        case 0:
            sInput.resize(random() % (sInput.size() + 1));
            break;
        case 1:
            sInput.append(random() % 5000, static_cast<char>(random()));
            break;
        case 2:
            sInput[random() % std::min<std::size_t>(8, sInput.size())] = static_cast<char>(random());
            break;
        default:
            const std::size_t iFrom = random() % sInput.size();
            std::fill(sInput.begin() + static_cast<std::ptrdiff_t>(iFrom), sInput.end(), static_cast<char>(random()));
            break;
    }
    return sInput;
}

class IpcFuzzTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        testing::internal::CaptureStdout();  // log callbacks end up there
    }
    void TearDown() override {
        if (!IsSkipped()) {
            testing::internal::GetCapturedStdout();
        }
    }
};

TEST_F(IpcFuzzTest, TheCorpusIsAnswered) {
    IpcFuzzWorld world(kChannel);
    const std::vector<std::string> vsCorpus = ReadCorpus("corpus-ipc");
    EXPECT_EQ(vsCorpus.size(), 37U) << "every request and callback";
    for (const std::string& sInput : vsCorpus) {
        EXPECT_EQ(world.Run(sInput), "");
    }
    EXPECT_EQ(world.Run(""), "");
}

TEST_F(IpcFuzzTest, MutatedRecordsAreAnswered) {
    IpcFuzzWorld world(kChannel);
    const std::vector<std::string> vsCorpus = ReadCorpus("corpus-ipc");
    std::mt19937 random(20240229);
    for (int i = 0; i < kRounds; ++i) {
        const std::string sInput = Mutate(vsCorpus[random() % vsCorpus.size()], random);
        ASSERT_EQ(world.Run(sInput), "") << "round " << i;
    }
}

}  // namespace
