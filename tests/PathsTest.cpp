// Paths as texts, and what they lead to.
#include "Paths.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TempFolder.h"

namespace {

// ---- As texts

TEST(PathsTest, ASlashIsAppendedToATextThatHasNone) {
    for (const auto& [pcGiven, pcExpected] : {std::pair{"", ""}, {"/", "/"}, {"/a", "/a/"}, {"/a/", "/a/"}}) {
        std::string sPath = pcGiven;
        AppendSlash(sPath);
        EXPECT_EQ(sPath, pcExpected);
        EXPECT_EQ(GetFolderPrefix(pcGiven), pcExpected);
        char vcPath[kPathBufferSize] = "";
        std::strcpy(vcPath, pcGiven);
        AppendSlash(vcPath);
        EXPECT_STREQ(vcPath, pcExpected);
    }
}

TEST(PathsTest, NoSlashIsAppendedBehindAFullBuffer) {
    const std::string sFits(kPathBufferSize - 2, 'x');
    std::string sBuffer(kPathBufferSize, '\0');
    sBuffer.replace(0, sFits.size(), sFits);
    AppendSlash(sBuffer.data());
    EXPECT_STREQ(sBuffer.c_str(), (sFits + "/").c_str());
    sBuffer.assign(kPathBufferSize - 1, 'x');
    AppendSlash(sBuffer.data());
    EXPECT_EQ(sBuffer, std::string(kPathBufferSize - 1, 'x'));
}

TEST(PathsTest, SlashesAtTheEndAreTakenOffButTheRootsOwn) {
    EXPECT_EQ(WithoutTrailingSlashes("/a/b//"), "/a/b");
    EXPECT_EQ(WithoutTrailingSlashes("/a/b"), "/a/b");
    EXPECT_EQ(WithoutTrailingSlashes("/"), "/");
    EXPECT_EQ(WithoutTrailingSlashes("///"), "/");
    EXPECT_EQ(WithoutTrailingSlashes(""), "");
}

TEST(PathsTest, FolderPartEndsWithTheLastSlash) {
    EXPECT_EQ(GetFolderPart("/a/b"), "/a/");
    EXPECT_EQ(GetFolderPart("/a/b/"), "/a/b/");
    EXPECT_EQ(GetFolderPart("/b"), "/");
    EXPECT_EQ(GetFolderPart("b"), "");
    EXPECT_EQ(GetFolderPart(""), "");
}

TEST(PathsTest, APathLiesBelowAFolderAtTheBoundaryOfAComponentOnly) {
    EXPECT_TRUE(IsAtOrBelow("/data", "/data"));
    EXPECT_TRUE(IsAtOrBelow("/data/", "/data"));
    EXPECT_TRUE(IsAtOrBelow("/data/file", "/data"));
    EXPECT_TRUE(IsAtOrBelow("/data/x/y", "/data"));
    EXPECT_FALSE(IsAtOrBelow("/database", "/data"));
    EXPECT_FALSE(IsAtOrBelow("/database/data", "/data"));
    EXPECT_FALSE(IsAtOrBelow("/dat", "/data"));
    EXPECT_FALSE(IsAtOrBelow("/", "/data"));
    EXPECT_FALSE(IsAtOrBelow("data", "/data"));
}

TEST(PathsTest, ASlashBehindAFolderChangesNothing) {
    EXPECT_TRUE(IsAtOrBelow("/data", "/data/"));
    EXPECT_TRUE(IsAtOrBelow("/data/", "/data/"));
    EXPECT_TRUE(IsAtOrBelow("/data/file", "/data/"));
    EXPECT_FALSE(IsAtOrBelow("/database", "/data/"));
    EXPECT_FALSE(IsAtOrBelow("/dat", "/data/"));
}

TEST(PathsTest, EveryAbsolutePathLiesBelowTheRoot) {
    EXPECT_TRUE(IsAtOrBelow("/", "/"));
    EXPECT_TRUE(IsAtOrBelow("/a", "/"));
    EXPECT_FALSE(IsAtOrBelow("a", "/"));
    EXPECT_FALSE(IsAtOrBelow("", "/"));
}

TEST(PathsTest, NothingLiesBelowAFolderWithoutAName) {
    EXPECT_FALSE(IsAtOrBelow("/a", ""));
    EXPECT_FALSE(IsAtOrBelow("a", ""));
    EXPECT_FALSE(IsAtOrBelow("", ""));
}

TEST(PathsTest, OnlyAWholeComponentOfTwoDotsIsTheParent) {
    for (const char* pcPath : {"..", "../a", "/..", "/a/..", "/a/../b", "a/../", "/a...b/.."}) {
        EXPECT_TRUE(HasParentComponent(pcPath)) << pcPath;
    }
    for (const char* pcPath : {"", ".", "...", "/a..", "/..a", "/a..b/c", "/a/.../b", "/a/./b"}) {
        EXPECT_FALSE(HasParentComponent(pcPath)) << pcPath;
    }
}

TEST(PathsTest, DotsSlashesAndNothingAreNoNamesOfEntries) {
    for (const char* pcName : {"a", "...", ".a", "a..", "a/", "a/b", "/a/b//"}) {
        EXPECT_TRUE(IsEntryName(pcName)) << pcName;
    }
    for (const char* pcName : {"", ".", "..", "/", "//", "./", "..//", "a/..", "/a/./"}) {
        EXPECT_FALSE(IsEntryName(pcName)) << pcName;
    }
}

TEST(PathsTest, JoinedPathHasOneSlashOfItsOwn) {
    char vcPath[kPathBufferSize];
    ASSERT_TRUE(JoinPath("/a", "b", vcPath));
    EXPECT_STREQ(vcPath, "/a/b");
    ASSERT_TRUE(JoinPath("/", "", vcPath));
    EXPECT_STREQ(vcPath, "//");
    ASSERT_TRUE(JoinPath("", "b", vcPath));
    EXPECT_STREQ(vcPath, "/b");
    EXPECT_FALSE(JoinPath(nullptr, "b", vcPath));
    EXPECT_FALSE(JoinPath("/a", nullptr, vcPath));
    EXPECT_FALSE(JoinPath("/a", "b", nullptr));
}

TEST(PathsTest, AJoinThatDoesNotFitWritesNothing) {
    char vcPath[kPathBufferSize + 1];
    vcPath[kPathBufferSize] = '#';
    const std::string sFolder = "/" + std::string(kPathBufferSize - 4, 'x');
    ASSERT_TRUE(JoinPath(sFolder.c_str(), "b", vcPath));
    EXPECT_EQ(vcPath, sFolder + "/b");
    EXPECT_FALSE(JoinPath(sFolder.c_str(), "bc", vcPath));
    EXPECT_EQ(vcPath, sFolder + "/b");
    EXPECT_EQ(vcPath[kPathBufferSize], '#');
}

// ---- As what they lead to

class PathsOnDiskTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir((m_Folder / "d").c_str(), 0755), 0);
        WriteWholeFile(m_Folder / "d/f", "12345");
        ASSERT_EQ(::symlink("d", (m_Folder / "link").c_str()), 0);
        ASSERT_EQ(::symlink("f", (m_Folder / "d/inner").c_str()), 0);
    }
    /// Empty if there is none.
    std::string FindCanonical(const std::string& sPath, FoundStatus* pStatus = nullptr) {
        char vcCanonical[kPathBufferSize];
        return FindCanonicalPath(sPath.c_str(), vcCanonical, pStatus) ? vcCanonical : "";
    }
    /// The error if there is none.
    static std::string Resolve(const std::string& sPath, bool bFolderPart) {
        errno = 0;
        const auto sResolved = bFolderPart ? ResolveFolderPart(sPath) : ResolveLinks(sPath);
        return sResolved ? *sResolved : "error " + std::to_string(errno);
    }

    TempFolder m_Folder;
};

TEST_F(PathsOnDiskTest, CanonicalPathHasItsLinksResolved) {
    EXPECT_EQ(FindCanonical(m_Folder / "d/f"), m_Folder / "d/f");
    EXPECT_EQ(FindCanonical(m_Folder / "link/inner"), m_Folder / "d/f");
    EXPECT_EQ(FindCanonical(m_Folder / "d/../link//./f"), m_Folder / "d/f");
    EXPECT_EQ(FindCanonical(m_Folder / "d/"), m_Folder / "d");
    EXPECT_EQ(FindCanonical("/"), "/");
    EXPECT_EQ(FindCanonical(m_Folder / "d/none"), "");
    EXPECT_EQ(FindCanonical(""), "");
}

TEST_F(PathsOnDiskTest, StatusOfACanonicalPathIsThatOfTheFile) {
    FoundStatus status;
    EXPECT_EQ(FindCanonical(m_Folder / "d/f", &status), m_Folder / "d/f");
    ASSERT_TRUE(status.bKnown);
    EXPECT_EQ(status.status.st_size, 5);
}

TEST_F(PathsOnDiskTest, APathThatNoBufferHoldsHasNoCanonicalForm) {
    std::string sPath = m_Folder / "d";
    while (sPath.size() < kPathBufferSize) {
        sPath += "/.";
    }
    EXPECT_EQ(FindCanonical(sPath), "");
    EXPECT_EQ(FindCanonical(std::string(9000, '/')), "");
}

TEST_F(PathsOnDiskTest, LinksThatLeadNowhereTellWhy) {
    EXPECT_EQ(Resolve(m_Folder / "link/inner", false), m_Folder / "d/f");
    EXPECT_EQ(Resolve(m_Folder / "none", false), "error " + std::to_string(ENOENT));
    EXPECT_EQ(Resolve(m_Folder / "d/f/x", false), "error " + std::to_string(ENOTDIR));
    EXPECT_EQ(Resolve("", false), "error " + std::to_string(ENOENT));
}

TEST_F(PathsOnDiskTest, AnEntryStaysAsItIsInItsResolvedFolder) {
    EXPECT_EQ(Resolve(m_Folder / "link/inner", true), m_Folder / "d/inner");
    EXPECT_EQ(Resolve(m_Folder / "link", true), m_Folder / "link");
    EXPECT_EQ(Resolve(m_Folder / "link//new", true), m_Folder / "d/new");
    EXPECT_EQ(Resolve(m_Folder / "link/new//", true), m_Folder / "d/new//") << "the slashes say that it is a folder";
    EXPECT_EQ(Resolve("/new", true), "/new");
}

TEST_F(PathsOnDiskTest, ABareNameStandsInTheWorkingFolder) {
    char vcWorking[kPathBufferSize];
    ASSERT_NE(::getcwd(vcWorking, sizeof(vcWorking)), nullptr);
    EXPECT_EQ(Resolve("new", true), GetFolderPrefix(vcWorking) + "new");
}

TEST_F(PathsOnDiskTest, AnEntryWithoutAFolderOrANameTellsWhy) {
    EXPECT_EQ(Resolve(m_Folder / "none/new", true), "error " + std::to_string(ENOENT));
    EXPECT_EQ(Resolve(m_Folder / "d/f/new", true), "error " + std::to_string(ENOTDIR));
    EXPECT_EQ(Resolve("/", true), "error " + std::to_string(EINVAL));
    EXPECT_EQ(Resolve("", true), "error " + std::to_string(EINVAL));
    EXPECT_EQ(Resolve(m_Folder / std::string(kPathBufferSize, 'x'), true), "error " + std::to_string(ENAMETOOLONG));
}

}  // namespace
