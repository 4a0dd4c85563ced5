// packaging/nfs-exports against lists of exports that somebody, or a script of his, got wrong, with a console that
// writes down what it is told: no text of a list is executed or expanded, and each line is passed on whole or refused.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <linux/capability.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Mutator.h"
#include "TempFolder.h"
#include "Trees.h"
#include "Xdr.h"

namespace {

using testing::HasSubstr;

/// Answers as nfsconsole does, and keeps what it was told beside itself. It refuses names with a blank.
constexpr const char* kConsole = R"(#!/bin/sh
export LC_ALL=C
printf '%s\n' "$@" >>"$0.arguments"
if [ "$1" = -query ]; then
    cat "$0.status"
    exit
fi
cat >"$0.input"
printf "Type 'help' to see help\n\nCommand: "
sed -n -e 's/^debug$/\nCommand: /p' -e 's/^start.*/Start NFS success\nCommand: /p' \
    -e 's/^print \(.*\)/[info] (exports) \1\n\nCommand: /p' -e 's/^quit$/\nExit/p' \
    -e 's/^mount .*=.* .*/Fail to add mount point to NFS. Reason=a blank\n\nCommand: /p' "$0.input"
)";

/// Folders that are there, below the test's own.
constexpr const char* kFolders[] = {
    "plain",    "two words", "a'b",         "a\"b",        "back\\slash\\n", "$(touch bad)",
    "`id`",     "*",         "[a-z]",       "-n",          "\x81\x82\x88",   "\xff\xfe",
    "\xc4\x81", "%s%n",      "a;touch bad", "a&touch bad", "tab\tname",      "NFS already running",
    "Exit",     "~"};

/// What the list comes to.
struct Expected {
    std::string sCommands = "debug\nstart\n";
    std::vector<std::string> vsRefused;  ///< "line N: " of each, before the console is asked and then by the console
    std::vector<std::string> vsRefusedByConsole;
};

class ExportsListTest : public testing::Test {
protected:
    void SetUp() override {
        for (const char* pcFolder : kFolders) {
            std::filesystem::create_directory(m_Folder / pcFolder);
        }
        WriteWholeFile(m_sConsole, kConsole);
        ASSERT_EQ(::chmod(m_sConsole.c_str(), 0755), 0);
        WriteWholeFile(m_sConsole + ".status",
                       "Server Status: Started\n  Mount 1 - " + (m_Folder / "plain") + " : served () [exports]\n");
        std::filesystem::create_directory(m_Folder / "here");
        WriteWholeFile(m_Folder / "here/file", "");
    }

    RunResult Apply(const std::vector<std::string>& vsArguments, ChildOptions options = {}) {
        std::filesystem::remove(m_sConsole + ".arguments");
        std::filesystem::remove(m_sConsole + ".input");
        options.sFolder = m_Folder / "here";
        options.vEnvironment.emplace_back("NFSCONSOLE", m_sConsole);
        std::vector<std::string> vsAll{SourceTree() + "/packaging/nfs-exports"};
        vsAll.insert(vsAll.end(), vsArguments.begin(), vsArguments.end());
        return RunProgram(vsAll, options);
    }
    std::string Told() const {
        return std::filesystem::exists(m_sConsole + ".input") ? ReadWholeFile(m_sConsole + ".input") : "";
    }
    /// Applies a list and compares all that came of it with a plain reading. Empty, or what is wrong.
    std::string Try(const std::string& sContent);
    Expected Read(const std::string& sContent) const;
    void ReadLine(const std::string& sLine, const std::string& sNumber, Expected& expected) const;

    TempFolder m_Folder;
    std::string m_sConsole = m_Folder / "the console";
    std::string m_sList = m_Folder / "the list";
};

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

std::string Trimmed(std::string sText) {
    while (!sText.empty() && IsBlank(sText.front())) {
        sText.erase(0, 1);
    }
    while (!sText.empty() && IsBlank(sText.back())) {
        sText.pop_back();
    }
    return sText;
}

bool HoldsControl(const std::string& sText) {
    for (const char c : sText) {
        const auto i = static_cast<unsigned char>(c);
        if ((i < 32 && c != '\t') || i == 127) {
            return true;
        }
    }
    return false;
}

bool IsFolder(const std::string& sPath) {
    struct stat status {};
    return ::stat(sPath.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// A line without the blanks in front of it.
void ExportsListTest::ReadLine(const std::string& sLine, const std::string& sNumber, Expected& expected) const {
    constexpr std::size_t kLongest = 1280;
    const std::string sEntry = Trimmed(sLine);
    const std::size_t iEqual = sEntry.find('=');
    if (sLine.size() > kLongest || HoldsControl(sEntry) || iEqual == std::string::npos ||
        sEntry.find('=', iEqual + 1) != std::string::npos || !sEntry.starts_with('/') || sEntry.ends_with('=')) {
        expected.vsRefused.push_back("line " + sNumber + ": ");
        return;
    }
    std::string sPath = sEntry.substr(0, iEqual);
    const std::string sName = Trimmed(sEntry.substr(iEqual + 1));
    sPath = IsFolder(sPath) ? sPath : Trimmed(sPath);
    if (!IsFolder(sPath)) {
        expected.vsRefused.push_back("line " + sNumber + ": ");
        return;
    }
    if (sName == "served" && std::filesystem::canonical(sPath) == m_Folder / "plain") {
        return;
    }
    expected.sCommands +=
        "print line " + sNumber + ": " + sPath + "=" + sName + "\nmount " + sPath + "=" + sName + "\n";
    if (sName.find(' ') != std::string::npos) {
        expected.vsRefusedByConsole.push_back("line " + sNumber + ": a blank: " + sPath + "=" + sName);
    }
}

Expected ExportsListTest::Read(const std::string& sContent) const {
    Expected expected;
    std::istringstream lines(sContent);
    int nLines = 0;
    for (std::string sLine; std::getline(lines, sLine);) {
        ++nLines;
        sLine.erase(0, std::min(sLine.find_first_not_of(" \t\r"), sLine.size()));
        if (!sLine.empty() && sLine[0] != '#') {
            ReadLine(sLine, std::to_string(nLines), expected);
        }
    }
    expected.sCommands += "quit\n";
    expected.vsRefused.insert(expected.vsRefused.end(), expected.vsRefusedByConsole.begin(),
                              expected.vsRefusedByConsole.end());
    return expected;
}

std::string ExportsListTest::Try(const std::string& sContent) {
    WriteWholeFile(m_sList, sContent);
    const RunResult result = Apply({m_sList});
    const Expected expected = Read(sContent);
    if (Told() != expected.sCommands) {
        return "the console was told\n" + Told() + "\ninstead of\n" + expected.sCommands;
    }
    if (ReadWholeFile(m_sConsole + ".arguments") != "-query\n-id\nexports\n-md\ncli\n-id\nexports\n") {
        return "the console was called otherwise";
    }
    std::istringstream lines(result.sOutput);
    std::string sLine;
    for (const std::string& sRefused : expected.vsRefused) {
        if (!std::getline(lines, sLine) || !sLine.starts_with("nfs-exports: " + m_sList + ", " + sRefused)) {
            return "not reported: " + sRefused + "\n" + result.sOutput;
        }
    }
    if (std::getline(lines, sLine)) {
        return "reported besides: " + sLine;
    }
    if (result.iStatus != (expected.vsRefused.empty() ? 0 : 2)) {
        return "exit status " + std::to_string(result.iStatus);
    }
    const std::filesystem::directory_iterator here(m_Folder / "here");
    return std::distance(begin(here), end(here)) == 1 ? "" : "something was made";
}

/// Lists to begin with.
std::vector<std::string> MakeCorpus(const std::string& sFolder) {
    std::vector<std::string> vsCorpus{"# comment\n\n  # another = one\n", "nonsense\nplain=relative\n/=\n=\n",
                                      "/missing=gone\n", sFolder + "/plain=served\n" + sFolder + "/plain = name\r\n",
                                      sFolder + "/here/../plain=served\n"};
    for (const char* pcFolder : kFolders) {
        vsCorpus.push_back(sFolder + "/" + pcFolder + "=name\n");
        vsCorpus.push_back("  " + sFolder + "/plain\t=\t" + pcFolder);
    }
    return vsCorpus;
}

FuzzVocabulary MakeVocabulary() {
    FuzzVocabulary vocabulary{.nHead = 0,
                              .vsWords = {"\n",
                                          "\r\n",
                                          "\\\n",
                                          " ",
                                          "=",
                                          "#",
                                          "/",
                                          "$(touch bad)",
                                          "`touch bad`",
                                          ";touch bad;",
                                          "\nquit\n",
                                          "*",
                                          "?",
                                          "'",
                                          "\"",
                                          "\\n",
                                          "\\c",
                                          "%s%n",
                                          "${IFS}",
                                          "$HOME",
                                          "~",
                                          "../here/",
                                          "\nexec touch bad\n",
                                          "\x81",
                                          "\x88",
                                          "\x1b[2J",
                                          "\xff",
                                          " Reason=",
                                          "&",
                                          "|",
                                          "\t",
                                          "\v",
                                          "\f"}};
    vocabulary.vsWords.emplace_back(1, '\0');
    vocabulary.vsWords.push_back(std::string(4095, 'x') + "exec touch bad");
    vocabulary.vsWords.push_back(std::string(1300, ' '));
    vocabulary.vsWords.push_back(std::string(70000, 'y'));
    return vocabulary;
}

}  // namespace

TEST_F(ExportsListTest, EveryLineIsPassedOnWholeOrRefusedWithAReason) {
    const std::string sPath = m_Folder / "plain";
    std::string sAll;
    for (const std::string& sInput : MakeCorpus(m_Folder.Path())) {
        sAll += sInput + "\n";
    }
    EXPECT_EQ(Try(sAll), "");
    EXPECT_EQ(Try(sPath + "=name"), "") << "no line end at the end";
    // What a shell, the console's line buffer or a terminal would make something else of.
    const std::vector<std::string> vsEntries{sPath + "=" + std::string(4095 - 7 - sPath.size(), 'x') + "exec touch bad",
                                             sPath + std::string("=n\0ame", 6),
                                             sPath.substr(0, sPath.size() - 3) + std::string("\0ain=name", 9),
                                             sPath + "=name\x1b[2J",
                                             sPath + "=na\\me",
                                             "/missing\\c=name",
                                             "/missing\\n=name",
                                             sPath + "=\xff x",
                                             sPath + "=\xc3 x",
                                             std::string("#\0", 2) + std::string(20000, '#'),
                                             std::string(5000, ' '),
                                             sPath + "=last"};
    sAll = "";
    for (const std::string& sEntry : vsEntries) {
        sAll += sEntry + "\n";
    }
    EXPECT_EQ(Try(sAll), "");
}

TEST_F(ExportsListTest, MutatedListsAreReadAsTheyStand) {
    const char* pcSeconds = std::getenv("NFSLIB_EXPORTS_SECONDS");
    const std::chrono::milliseconds limit(pcSeconds != nullptr ? std::atoll(pcSeconds) * 1000 : 2500);
    const std::vector<std::string> vsCorpus = MakeCorpus(m_Folder.Path());
    const FuzzVocabulary vocabulary = MakeVocabulary();
    const auto end = std::chrono::steady_clock::now() + limit;
    std::uint64_t nLists = 0;
    std::uint64_t nLines = 0;
    for (; std::chrono::steady_clock::now() < end; ++nLists) {
        std::string sList;
        for (std::uint64_t i = 0; i < 8; ++i) {
            sList += Mutator(20261122, nLists * 8 + i).Mutate(vsCorpus, vocabulary);
        }
        nLines += static_cast<std::uint64_t>(std::count(sList.begin(), sList.end(), '\n'));
        ASSERT_EQ(Try(sList), "") << "list " << nLists << ": " << Hex(sList);
    }
    RecordProperty("lists", static_cast<int>(nLists));
    RecordProperty("lines", static_cast<int>(nLines));
    EXPECT_GT(nLines, 10U);
}

TEST_F(ExportsListTest, AListThatCannotBeReadIsReportedBeforeAServerIsAsked) {
    const std::string sFolder = m_Folder / "plain";
    RunResult result = Apply({sFolder});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfs-exports: " + sFolder + " cannot be read\n");
    WriteWholeFile(m_sList, sFolder + "=name\n");
    ASSERT_EQ(::chmod(m_sList.c_str(), 0), 0);
    ChildOptions options;
    options.viDroppedCapabilities = {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH};
    result = Apply({m_sList}, options);
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfs-exports: " + m_sList + " cannot be read\n");
    EXPECT_FALSE(std::filesystem::exists(m_sConsole + ".arguments"));
}

TEST_F(ExportsListTest, PortsAreNumbersAndNoCommands) {
    WriteWholeFile(m_sList, m_Folder / "plain" + "=name\n");
    EXPECT_EQ(Apply({m_sList, "1=2\nexec touch bad"}).iStatus, 1);
    EXPECT_EQ(Apply({m_sList, "1=2\\nexec touch bad"}).iStatus, 1);
    EXPECT_EQ(Told(), "");
    EXPECT_EQ(Apply({m_sList, "1=2"}).iStatus, 0);
    EXPECT_THAT(Told(), HasSubstr("\nstart 1=2\nprint"));
}

TEST_F(ExportsListTest, AConsoleThatEndsEarlyOrDoesNotStartIsNoSuccess) {
    WriteWholeFile(m_sList, m_Folder / "NFS already running" + "=name\n");
    std::string sConsole = kConsole;
    WriteWholeFile(m_sConsole, sConsole.replace(sConsole.find("Start NFS success"), 17, "Fail to start NFS. No port"));
    RunResult result = Apply({m_sList});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfs-exports: Fail to start NFS. No port\n");
    sConsole = kConsole;
    WriteWholeFile(m_sConsole, sConsole.replace(sConsole.find("\\nExit"), 6, "\\n"));
    result = Apply({m_sList});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "nfs-exports: the console ended before all entries were taken\n");
}
