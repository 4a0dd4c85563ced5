// src/ keeps to its plan: every file in a wing and in the document, no include of a higher wing, every mutex in the
// order.
#include "Plan.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TempFolder.h"
#include "Trees.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using Lines = std::vector<std::string>;

const Sources& ReadSources() {
    static const Sources kSources = [] {
        Sources sources;
        for (const auto& entry : std::filesystem::directory_iterator(SourceTree() + "/src")) {
            if (entry.path().extension() == ".h" || entry.path().extension() == ".cpp") {
                sources[entry.path().filename()] = ReadWholeFile(entry.path());
            }
        }
        return sources;
    }();
    return kSources;
}

Wings ReadWings() {
    return WingsOfLists(ReadWholeFile(BuildTree() + "/src/wings.txt"));
}

std::string ReadDocument() {
    return ReadWholeFile(SourceTree() + "/docs/architecture.md");
}

TEST(PlanTest, EveryFileStandsInOneOfNineWings) {
    EXPECT_THAT(ReadWings(), SizeIs(9));
    EXPECT_THAT(MisplacedFiles(ReadWings(), ReadSources()), IsEmpty());
}

TEST(PlanTest, NoFileIncludesOneOfAHigherWing) {
    EXPECT_THAT(UpwardIncludes(ReadWings(), ReadSources()), IsEmpty());
}

TEST(PlanTest, DocumentNamesEveryFileInItsWing) {
    EXPECT_THAT(UntrueTables(ReadWings(), WingsOfDocument(ReadDocument())), IsEmpty());
}

TEST(PlanTest, LockOrderNamesEveryMutex) {
    EXPECT_THAT(UntrueLocks(ReadSources(), ReadDocument()), IsEmpty());
}

// What the tests above would say of a house that is out of plan.

const Wings kTwoWings{{"base", {"Low.h", "Low.cpp"}}, {"host binding", {"High.h"}}};

TEST(PlanTest, AnIncludeOfAHigherWingIsRefused) {
    const Sources sources{{"Low.h", "#include <map>\n"},
                          {"Low.cpp", "#include \"Low.h\"\n#include \"High.h\"\n"},
                          {"High.h", "#include \"Low.h\"\n"}};
    EXPECT_EQ(UpwardIncludes(kTwoWings, sources), (Lines{"Low.cpp (base) includes High.h (host binding)"}));
}

TEST(PlanTest, AFileWithoutAWingIsRefusedAndOneWithTwoAndANameWithoutAFile) {
    const Wings wings{{"base", {"Low.h", "Gone.h"}}, {"host binding", {"Low.h"}}};
    EXPECT_EQ(MisplacedFiles(wings, {{"Low.h", ""}, {"New.cpp", ""}}),
              (Lines{"Gone.h stands in the wing base, but there is no such file", "Low.h stands in two wings",
                     "New.cpp stands in no wing"}));
}

TEST(PlanTest, ListsAreReadLineByLine) {
    const Wings wings = WingsOfLists("base: Low.h Low.cpp\nhost binding: High.h\n");
    ASSERT_THAT(wings, SizeIs(2));
    EXPECT_EQ(wings[0].sName, "base");
    EXPECT_EQ(wings[0].vsMembers, (Lines{"Low.h", "Low.cpp"}));
    EXPECT_EQ(wings[1].sName, "host binding");
    EXPECT_EQ(wings[1].vsMembers, (Lines{"High.h"}));
}

TEST(PlanTest, ATableThatLacksAFileOrPutsItElsewhereIsRefused) {
    const std::string sDocument =
        "# House\n## The nine wings\n### Base\n| File | What it is |\n|---|---|\n"
        "| `High` | a text |\n| `Gone` | a text |\n### Host\n"
        "## Locks\n### Third\n| `Low` | not a table of wings |\n";
    EXPECT_EQ(UntrueTables(kTwoWings, WingsOfDocument(sDocument)),
              (Lines{"Gone: src/CMakeLists.txt says no wing, docs/architecture.md the wing base",
                     "High: src/CMakeLists.txt says the wing host binding, docs/architecture.md the wing base",
                     "Low: src/CMakeLists.txt says the wing base, docs/architecture.md no wing",
                     "As wing 2 src/CMakeLists.txt has host binding, docs/architecture.md host"}));
}

TEST(PlanTest, AMutexWithoutAPlaceInTheLockOrderIsRefused) {
    const Sources sources{{"Low.h",
                           "class CAPABILITY(\"mutex\") CLow : public CBase {\n"
                           "    struct Part {\n        std::mutex hMutexPart;\n    };\n"
                           "    mutable Mutex m_hMutex;\n    Mutex m_hMutexNew GUARDED_BY(m_hMutex);\n};\n"},
                          {"High.cpp", "class COther;\nclass CHigh final {\n    Mutex m_hMutex;  ///< a word\n};\n"}};
    const std::string sDocument = "`CLow::m_hMutexNew` first\n## Locks\n1. `CLow::m_hMutex`, `CGone::m_hMutex`\n";
    EXPECT_EQ(UntrueLocks(sources, sDocument),
              (Lines{"CHigh::m_hMutex has no place in the lock order",
                     "CLow::Part::hMutexPart has no place in the lock order",
                     "CLow::m_hMutexNew has no place in the lock order",
                     "CGone::m_hMutex has a place in the lock order, but there is no such mutex"}));
}

}  // namespace
