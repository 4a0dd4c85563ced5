// The documents against the program: links lead somewhere, and every option, variable and command is told where people
// look for it.
#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConsoleCommands.h"
#include "ConsoleOptions.h"
#include "DocumentLinks.h"
#include "ServerOptions.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::string Document(const std::string& sName) {
    return ReadWholeFile(SourceTree() + "/" + sName);
}

/// A manual page as it is read: "\-" is a hyphen.
std::string ManualPage(const std::string& sName) {
    std::string sPage = Document("packaging/man/" + sName);
    std::erase(sPage, '\\');
    return sPage;
}

/// Does the text hold a word that is not part of a longer one? Hyphens belong to words.
bool HoldsWord(const std::string& sText, const std::string& sWord) {
    const auto isPart = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_'; };
    for (std::size_t i = sText.find(sWord); i != std::string::npos; i = sText.find(sWord, i + 1)) {
        const std::size_t iEnd = i + sWord.size();
        if ((i == 0 || !isPart(sText[i - 1])) && (iEnd == sText.size() || !isPart(sText[iEnd]))) {
            return true;
        }
    }
    return false;
}

TEST(DocumentsTest, EveryLinkLeadsToAFileAndAHeading) {
    EXPECT_THAT(BrokenLinks(SourceTree()), IsEmpty());
}

TEST(DocumentsTest, EveryOptionOfTheServerIsTold) {
    const std::string sGuide = Document("docs/operators-guide.md");
    const std::string sHostGuide = Document("docs/host-guide.md");
    const std::string sPage = ManualPage("nfsconsole.8");
    const std::string sCompletion = Document("packaging/completion/nfsconsole");
    for (const ServerOptionName& name : GetServerOptionNames()) {
        EXPECT_TRUE(HoldsWord(sGuide, name.pcOption)) << "operator's guide: " << name.pcOption;
        EXPECT_TRUE(HoldsWord(sPage, name.pcOption)) << "nfsconsole(8): " << name.pcOption;
        EXPECT_TRUE(HoldsWord(sCompletion, name.pcOption)) << "completion: " << name.pcOption;
        EXPECT_TRUE(HoldsWord(sGuide, name.pcVariable)) << "operator's guide: " << name.pcVariable;
        EXPECT_TRUE(HoldsWord(sHostGuide, name.pcVariable)) << "host guide: " << name.pcVariable;
        EXPECT_TRUE(HoldsWord(sPage, name.pcVariable)) << "nfsconsole(8): " << name.pcVariable;
    }
}

TEST(DocumentsTest, WhatAVariableOfAWrongValueSaysIsTold) {
    ServerOptions options;
    options.mWrongFlags["NFSLIB_..."] = "...";
    char vcReason[kReasonBufferSize] = "";
    ASSERT_FALSE(options.CheckFlags(vcReason));
    for (const char* pcGuide : {"docs/operators-guide.md", "docs/host-guide.md"}) {
        EXPECT_THAT(Document(pcGuide), HasSubstr(vcReason)) << pcGuide;
    }
}

TEST(DocumentsTest, EveryOptionOfTheConsoleIsTold) {
    const std::string sGuide = Document("docs/operators-guide.md");
    const std::string sPage = ManualPage("nfsconsole.8");
    const std::string sCompletion = Document("packaging/completion/nfsconsole");
    for (const char* pcOption : {kOptionHelp, kOptionShutdown, kOptionQuery, kOptionTest, kOptionID, kOptionLog,
                                 kOptionMode, kOptionLogFile, kOptionPidFile}) {
        EXPECT_TRUE(HoldsWord(sGuide, pcOption)) << "operator's guide: " << pcOption;
        EXPECT_TRUE(HoldsWord(sPage, pcOption)) << "nfsconsole(8): " << pcOption;
        EXPECT_TRUE(HoldsWord(sCompletion, pcOption)) << "completion: " << pcOption;
    }
}

TEST(DocumentsTest, EveryCommandOfTheConsoleIsTold) {
    const std::string sGuide = Document("docs/operators-guide.md");
    const std::string sPage = ManualPage("nfsconsole.8");
    for (const ConsoleCommand& command : GetConsoleCommands()) {
        std::string sKeyword = command.pcKeyword;
        if (command.bArgument) {
            sKeyword.pop_back();
        }
        const std::string sEnd = command.bArgument ? " " : "`";
        EXPECT_THAT(sGuide, HasSubstr("`" + sKeyword + sEnd)) << "operator's guide";
        EXPECT_THAT(sPage, HasSubstr((command.bArgument ? "\n.BI " : "\n.B ") + sKeyword)) << "nfsconsole(8)";
    }
}

// The guide's tables begin their rows with the methods' names.
TEST(DocumentsTest, EveryMethodOfTheHostsClassIsTold) {
    const std::string sGuide = Document("docs/host-guide.md");
    const std::string sClass = Document("examples/java-host/com/norvo/kbt/quickspin/nfs/NfsLibNative.java");
    static const std::regex kMethod(R"(public (?:native )?\w+ (\w+)\()");
    int nMethods = 0;
    for (std::sregex_iterator it(sClass.begin(), sClass.end(), kMethod); it != std::sregex_iterator();
         ++it, ++nMethods) {
        EXPECT_THAT(sGuide, ContainsRegex("[|,] `" + (*it)[1].str() + "[`(]"));
    }
    EXPECT_GT(nMethods, 40);
}

// What the first test would say of documents that are out of date.

TEST(DocumentsTest, ALinkToNoFileIsRefusedAndOneToNoHeading) {
    const TempFolder folder;
    WriteWholeFile(folder / "a.md",
                   "# One\n[b](b.md), [two](b.md#two--half), [gone](gone.md)\n[one](#one) [three](#three)\n"
                   "```\n[example](in-a-fence.md)\n```\n");
    WriteWholeFile(folder / "b.md", "## Two & `half`\n[out](https://example.org/x)\n[a](a.md#two)\n");
    EXPECT_THAT(BrokenLinks(folder.Path()),
                UnorderedElementsAre("a.md: there is no gone.md", "a.md: there is no heading #three",
                                     "b.md: there is no heading a.md#two"));
}

TEST(DocumentsTest, HeadingsOfOneNameAreNumbered) {
    EXPECT_THAT(HeadingAnchors("# Same\n## Same\n#no heading\n### Other, too\n"),
                ElementsAre("other-too", "same", "same-1"));
}

}  // namespace
