// The tools' usage texts against their manual pages and bash's completion.
#include <regex>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

using testing::Contains;
using testing::IsSupersetOf;

std::set<std::string> Words(const std::string& sText, const char* pcPattern) {
    const std::regex pattern(pcPattern, std::regex::multiline);
    std::set<std::string> words;
    for (std::sregex_iterator it(sText.begin(), sText.end(), pattern); it != std::sregex_iterator(); ++it) {
        words.insert((*it)[1]);
    }
    return words;
}

/// Each option, with its hyphens.
std::set<std::string> Options(const std::string& sText) {
    return Words(sText, R"((?:^|[^\w-])(--?[a-z][a-z-]*))");
}

std::string Usage(const std::string& sTool) {
    const RunResult result = RunProgram({BuildTree() + "/bin/" + sTool, "--help"});
    EXPECT_EQ(result.iStatus, 0);
    return result.sOutput;
}

std::string ManualPage(const std::string& sTool) {
    std::string sPage = ReadWholeFile(SourceTree() + "/packaging/man/" + sTool + ".1");
    std::erase(sPage, '\\');
    return sPage;
}

std::string Completion(const std::string& sTool) {
    return ReadWholeFile(SourceTree() + "/packaging/completion/" + sTool);
}

class UsageTest : public testing::TestWithParam<const char*> {};

TEST_P(UsageTest, EveryOptionStandsInTheManualPageAndIsCompleted) {
    std::set<std::string> options = Options(Usage(GetParam()));
    EXPECT_GT(options.size(), 4U);
    EXPECT_THAT(Options(ManualPage(GetParam())), IsSupersetOf(options));
    options.erase("-h");  // the long form is offered
    EXPECT_THAT(Options(Completion(GetParam())), IsSupersetOf(options));
}

INSTANTIATE_TEST_SUITE_P(Tools, UsageTest, testing::Values("nfsget", "nfsmap"),
                         [](const auto& tool) { return std::string(tool.param); });

TEST(NfsgetUsageTest, EveryCommandStandsInTheManualPageAndIsCompleted) {
    const std::set<std::string> commands = Words(Usage("nfsget"), R"(^  ([a-z]+) )");
    EXPECT_THAT(commands, Contains("release"));
    EXPECT_THAT(Words(ManualPage("nfsget"), R"(^\.BI ([a-z]+) )"), IsSupersetOf(commands));
    EXPECT_THAT(Words(Completion("nfsget"), R"(\b([a-z]+)\b)"), IsSupersetOf(commands));
}

}  // namespace
