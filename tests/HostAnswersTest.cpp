// What counts as granted, refused and unanswered.
#include "HostAnswers.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::uint64_t> Read(const CHostAnswers& answers, CHostAnswers::Kind kind) {
    const CHostAnswers::Figures figures = answers.Read()[kind];
    return {figures.nGranted, figures.nRefused, figures.nUnanswered, figures.nUnderWay};
}

TEST(HostAnswersTest, AWriteIsGrantedByAByteCountAndAllElseByZero) {
    CHostAnswers answers;
    for (const CHostAnswers::Kind kind :
         {CHostAnswers::kWrite, CHostAnswers::kAttributes, CHostAnswers::kRemove, CHostAnswers::kRename}) {
        for (const int iAnswer : {0, 4096, -1, -1, -13}) {
            EXPECT_EQ(answers.Ask(kind, [iAnswer] { return iAnswer; }), iAnswer);
        }
        const std::vector<std::uint64_t> vExpected = kind == CHostAnswers::kWrite
                                                         ? std::vector<std::uint64_t>{2, 1, 2, 0}
                                                         : std::vector<std::uint64_t>{1, 2, 2, 0};
        EXPECT_EQ(Read(answers, kind), vExpected) << kind;
    }
}

TEST(HostAnswersTest, AQuestionIsUnderWayUntilItIsAnswered) {
    CHostAnswers answers;
    answers.Ask(CHostAnswers::kRename, [&answers] {
        EXPECT_EQ(Read(answers, CHostAnswers::kRename), (std::vector<std::uint64_t>{0, 0, 0, 1}));
        EXPECT_EQ(Read(answers, CHostAnswers::kRemove), (std::vector<std::uint64_t>{0, 0, 0, 0}));
        return 0;
    });
    EXPECT_EQ(Read(answers, CHostAnswers::kRename), (std::vector<std::uint64_t>{1, 0, 0, 0}));
}

TEST(HostAnswersTest, EachKindHasItsName) {
    const auto vFigures = CHostAnswers().Read();
    EXPECT_STREQ(vFigures[CHostAnswers::kWrite].pcKind, "write");
    EXPECT_STREQ(vFigures[CHostAnswers::kAttributes].pcKind, "attributes");
    EXPECT_STREQ(vFigures[CHostAnswers::kRemove].pcKind, "remove");
    EXPECT_STREQ(vFigures[CHostAnswers::kRename].pcKind, "rename");
}

}  // namespace
