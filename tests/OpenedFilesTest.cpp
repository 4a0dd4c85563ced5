// The entries of the descriptor cache: found by path, and taken in the order of their last use.
#include "OpenedFiles.h"

#include <string>
#include <vector>

#include <fcntl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OpenedFilesTest : public testing::Test {
protected:
    /// Files an entry that has a file open.
    OpenedFileInfo& Open(const std::string& sPath, std::time_t iNow) {
        return Store(sPath, ::open("/dev/null", O_RDONLY | O_CLOEXEC), iNow);
    }
    /// Files an entry whose open failed.
    OpenedFileInfo& Fail(const std::string& sPath, std::time_t iNow) { return Store(sPath, -1, iNow); }

    std::vector<std::string> Paths() {
        std::vector<std::string> vPaths;
        for (const auto& [sPath, info] : m_Files) {
            vPaths.push_back(sPath);
        }
        return vPaths;
    }
    std::vector<std::string> PathsInOrderOfUse() {
        std::vector<std::string> vPaths;
        for (const auto& [sTimeKey, sPath] : m_Files.GetLastAccessList()) {
            vPaths.push_back(sPath);
        }
        return vPaths;
    }
    std::vector<std::string> TakeOldest(std::size_t nWanted) {
        std::vector<std::string> vPaths;
        for (const OpenedFileInfo& info : m_Files.TakeOldest(nWanted)) {
            vPaths.push_back(info.sPath);
        }
        return vPaths;
    }

    COpenedFiles m_Files;

private:
    OpenedFileInfo& Store(const std::string& sPath, int iFile, std::time_t iNow) {
        OpenedFileInfo info;
        info.sPath = sPath;
        info.iFile = CCachedFile(iFile);
        return m_Files.Store(info, iNow);
    }
};

TEST_F(OpenedFilesTest, AnEntryIsFoundByItsPathAsGiven) {
    Open("/a/x", 1);
    ASSERT_NE(m_Files.Find("/a/x"), m_Files.end());
    EXPECT_EQ(m_Files.Find("/a/x")->second.sPath, "/a/x");
    EXPECT_EQ(m_Files.Find("/a//x"), m_Files.end());
}

TEST_F(OpenedFilesTest, AnEntryWithoutDescriptorIsNoOpenOne) {
    Fail("/a", 1);
    EXPECT_NE(m_Files.Find("/a"), m_Files.end());
    EXPECT_EQ(m_Files.FindOpen("/a"), m_Files.end());
    Open("/a", 1);
    EXPECT_NE(m_Files.FindOpen("/a"), m_Files.end());
}

TEST_F(OpenedFilesTest, TheTimeKeyIsTheSecondInSixteenDigitsAndTheDescriptor) {
    const OpenedFileInfo& info = Open("/a", 1234567890);
    EXPECT_EQ(info.sTimeKey, "0000001234567890" + std::to_string(info.iFile.Get()));
    EXPECT_EQ(Fail("/b", 7).sTimeKey, "0000000000000007-1");
}

TEST_F(OpenedFilesTest, UseInALaterSecondMovesAnEntryToTheEnd) {
    OpenedFileInfo& first = Open("/a", 1);
    Open("/b", 2);
    m_Files.Touch(first, 3);
    EXPECT_THAT(PathsInOrderOfUse(), ElementsAre("/b", "/a"));
}

TEST_F(OpenedFilesTest, UseInTheSameSecondKeepsTheKey) {
    OpenedFileInfo& info = Open("/a", 1);
    const std::string sTimeKey = info.sTimeKey;
    m_Files.Touch(info, 1);
    EXPECT_EQ(info.sTimeKey, sTimeKey);
    EXPECT_THAT(PathsInOrderOfUse(), ElementsAre("/a"));
}

TEST_F(OpenedFilesTest, AnEntryStoredAnewUnderItsOldKeyLeavesNoTraceOfIt) {
    OpenedFileInfo info = Fail("/a", 1);
    info.iFile = CCachedFile(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    m_Files.Store(info, 2);
    EXPECT_THAT(Paths(), ElementsAre("/a"));
    EXPECT_THAT(PathsInOrderOfUse(), ElementsAre("/a"));
}

TEST_F(OpenedFilesTest, ErasingTakesTheKeyAlongAndGivesTheNext) {
    Open("/a", 1);
    Open("/b", 2);
    const COpenedFiles::Iterator itNext = m_Files.Erase(m_Files.Find("/a"));
    ASSERT_NE(itNext, m_Files.end());
    EXPECT_EQ(itNext->first, "/b");
    EXPECT_THAT(Paths(), ElementsAre("/b"));
    EXPECT_THAT(PathsInOrderOfUse(), ElementsAre("/b"));
}

TEST_F(OpenedFilesTest, TheOldestAreTakenFirst) {
    Open("/a", 3);
    Open("/b", 1);
    Open("/c", 2);
    EXPECT_THAT(TakeOldest(2), ElementsAre("/b", "/c"));
    EXPECT_THAT(Paths(), ElementsAre("/a"));
    EXPECT_THAT(PathsInOrderOfUse(), ElementsAre("/a"));
}

TEST_F(OpenedFilesTest, FailedOpensThatShareAKeyGoWhenTheIndexRunsOut) {
    Fail("/a", 1);
    Fail("/b", 1);
    Open("/c", 2);
    EXPECT_THAT(TakeOldest(3), ElementsAre("/b", "/c")) << "/a has no key of its own";
    EXPECT_THAT(Paths(), IsEmpty());
}

TEST_F(OpenedFilesTest, ATenthAreVictimsOnceItIsFull) {
    for (std::size_t i = 0; i < COpenedFiles::kMaxFiles; ++i) {
        EXPECT_FALSE(m_Files.IsFull());
        Fail("/" + std::to_string(i), static_cast<std::time_t>(i));
    }
    EXPECT_TRUE(m_Files.IsFull());
    EXPECT_EQ(m_Files.CountVictims(), 102U);
    m_Files.Clear();
    EXPECT_EQ(m_Files.CountVictims(), 0U);
    EXPECT_THAT(PathsInOrderOfUse(), IsEmpty());
}

TEST_F(OpenedFilesTest, AWalkBelowAFolderBeginsAtItsPrefix) {
    Open("/a/x", 1);
    Open("/ab/x", 1);
    Open("/a", 1);
    const COpenedFiles::Iterator itFirst = m_Files.FindFrom("/a/");
    ASSERT_NE(itFirst, m_Files.end());
    EXPECT_EQ(itFirst->first, "/a/x");
}

}  // namespace
