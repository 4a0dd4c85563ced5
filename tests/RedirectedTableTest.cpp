// The redirected files that are open, found by path and by canonical path.
#include "RedirectedTable.h"

#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Paths.h"
#include "RedirectedFile.h"

namespace {

std::shared_ptr<CRedirectedFile> NewFile() {
    return std::make_shared<CRedirectedFile>(nullptr);
}

TEST(RedirectedTableTest, FileIsFoundUnderItsPathUntilItIsTaken) {
    CRedirectedTable table;
    const auto pFile = NewFile();
    EXPECT_EQ(table.Put("/link/disk", "/e/disk", pFile), nullptr);
    EXPECT_EQ(table.Find("/link/disk"), pFile);
    EXPECT_EQ(table.Find("/e/disk"), nullptr);
    EXPECT_TRUE(table.HasCanonicalPath("/e/disk"));
    EXPECT_FALSE(table.HasCanonicalPath("/link/disk"));
    EXPECT_EQ(table.Take("/e/disk"), nullptr);
    EXPECT_EQ(table.Take("/link/disk"), pFile);
    EXPECT_EQ(table.Take("/link/disk"), nullptr);
    EXPECT_FALSE(table.HasCanonicalPath("/e/disk"));
    EXPECT_TRUE(table.GetAll().empty());
}

TEST(RedirectedTableTest, FileThatTakesAnothersPlaceTakesItsCanonicalPathToo) {
    CRedirectedTable table;
    const auto pFirst = NewFile();
    const auto pSecond = NewFile();
    table.Put("/link/disk", "/e/disk", pFirst);
    EXPECT_EQ(table.Put("/link/disk", "/f/disk", pSecond), pFirst);
    EXPECT_EQ(table.Find("/link/disk"), pSecond);
    EXPECT_FALSE(table.HasCanonicalPath("/e/disk"));
    EXPECT_TRUE(table.HasCanonicalPath("/f/disk"));
}

TEST(RedirectedTableTest, CanonicalPathOfTwoFilesStaysUntilBothAreGone) {
    CRedirectedTable table;
    table.Put("/link/disk", "/e/disk", NewFile());
    table.Put("/e/disk", "/e/disk", NewFile());
    table.Take("/e/disk");
    EXPECT_TRUE(table.HasCanonicalPath("/e/disk"));
    table.Take("/link/disk");
    EXPECT_FALSE(table.HasCanonicalPath("/e/disk"));
}

TEST(RedirectedTableTest, FilesThatMovedToAnotherTableAreTakenThere) {
    CRedirectedTable table;
    table.Put("/e/a", "/e/a", NewFile());
    table.Put("/e/b", "/e/b", NewFile());
    CRedirectedTable other;
    std::swap(table, other);
    EXPECT_FALSE(table.HasCanonicalPath("/e/a"));
    EXPECT_NE(other.Take("/e/a"), nullptr);
    EXPECT_FALSE(other.HasCanonicalPath("/e/a"));
    EXPECT_TRUE(other.HasCanonicalPath("/e/b"));
}

/// What a walk from the first file on comes upon first.
TEST(RedirectedTableTest, FirstFileAtOrBelowAFolderIsThatOfAWalk) {
    std::mt19937 random(1);
    const auto pick = [&random](std::size_t n) { return static_cast<std::size_t>(random()) % n; };
    const auto makePath = [&] {
        // What sorts before and after a slash, slashes at the end and in a row, and no path at all.
        const char* const vpcPieces[] = {"/", "/e", "/f", "!", "0", "e", "//"};
        std::string sPath;
        for (std::size_t n = pick(5); n > 0; --n) {
            sPath += vpcPieces[pick(std::size(vpcPieces))];
        }
        return sPath;
    };
    int nFound = 0;
    for (int iRound = 0; iRound < 2000; ++iRound) {
        CRedirectedTable table;
        for (std::size_t n = pick(12); n > 0; --n) {
            const std::string sPath = makePath();
            table.Put(sPath, sPath, NewFile());
        }
        const std::string sFolder = GetFolderPrefix(makePath());
        auto itExpected = table.GetAll().begin();
        while (itExpected != table.GetAll().end() && !sFolder.empty() && !IsAtOrBelow(itExpected->first, sFolder)) {
            ++itExpected;
        }
        ASSERT_EQ(table.FindFirstAtOrBelow(sFolder), itExpected) << sFolder << ", round " << iRound;
        nFound += itExpected == table.GetAll().end() ? 0 : 1;
    }
    EXPECT_GT(nFound, 500);
    EXPECT_LT(nFound, 1500);
}

}  // namespace
