// Looking for paths without following links: the answer is what resolving them says.
#include "PathProbe.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TempFolder.h"

namespace {

class PathProbeTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir((m_Folder / "d").c_str(), 0755), 0);
        WriteWholeFile(m_Folder / "d/f", "");
        ASSERT_EQ(::symlink("d", (m_Folder / "link").c_str()), 0);
        ASSERT_EQ(::symlink("nowhere", (m_Folder / "dangling").c_str()), 0);
    }
    Finding Find(const std::string& sPath) const { return FindWithoutLinks((m_Folder / sPath).c_str()); }

    TempFolder m_Folder;
};

TEST_F(PathProbeTest, WhatExistsIsFoundAndWhatDoesNotIsMissing) {
    EXPECT_EQ(Find("d"), Finding::kFound);
    EXPECT_EQ(Find("d/f"), Finding::kFound);
    EXPECT_EQ(Find("d/none"), Finding::kMissing);
    EXPECT_EQ(Find("none/f"), Finding::kMissing);
    EXPECT_EQ(Find("d/f/below-a-file"), Finding::kMissing);
}

TEST_F(PathProbeTest, LinksAreNotJudgedWhereverTheyStand) {
    EXPECT_EQ(Find("link"), Finding::kUnknown);
    EXPECT_EQ(Find("link/f"), Finding::kUnknown);
    EXPECT_EQ(Find("link/none"), Finding::kUnknown);
    EXPECT_EQ(Find("dangling"), Finding::kUnknown);
}

TEST_F(PathProbeTest, StatusIsThatOfLstatWhereThePathIsFound) {
    for (const char* pcPath : {"d", "d/f"}) {
        FoundStatus found;
        struct stat expected {};
        EXPECT_EQ(FindWithoutLinks((m_Folder / pcPath).c_str(), &found), Finding::kFound);
        ASSERT_EQ(::lstat((m_Folder / pcPath).c_str(), &expected), 0);
        EXPECT_TRUE(found.bKnown);
        EXPECT_EQ(found.status.st_ino, expected.st_ino);
        EXPECT_EQ(found.status.st_dev, expected.st_dev);
        EXPECT_EQ(found.status.st_mode, expected.st_mode);
        EXPECT_EQ(found.status.st_size, expected.st_size);
        EXPECT_EQ(found.status.st_nlink, expected.st_nlink);
    }
    FoundStatus found;
    FindWithoutLinks((m_Folder / "none").c_str(), &found);
    EXPECT_FALSE(found.bKnown);
    FindWithoutLinks((m_Folder / "link").c_str(), &found);
    EXPECT_FALSE(found.bKnown);
}

// A kernel before Linux 5.6 gets there step by step.
TEST_F(PathProbeTest, StepByStepIsOpenedWhatOneStepOpens) {
    ASSERT_EQ(::symlink("f", (m_Folder / "d/inner").c_str()), 0);
    for (const char* pcPath : {"", "/", "d", "d/", "d//", "d/f", "d//f", "./d/./f", "d/../d/f", "d/f/", "d/none",
                               "none/f", "d/f/below", "link", "link/", "link/f", "link/..", "dangling", "d/inner"}) {
        for (const int iFlags : {O_PATH | O_CLOEXEC, O_RDONLY | O_CLOEXEC}) {
            for (const std::string& sPrefix : {m_Folder.Path() + "/", "//" + m_Folder.Path() + "//"}) {
                const std::string sPath = sPrefix + pcPath;
                const CDescriptor atOnce(OpenWithoutLinks(AT_FDCWD, sPath.c_str(), iFlags));
                const int iError = atOnce.IsOpen() ? 0 : errno;
                const CDescriptor stepByStep(OpenStepByStep(AT_FDCWD, sPath.c_str(), iFlags));
                EXPECT_EQ(stepByStep.IsOpen() ? 0 : errno, iError) << sPath;
                struct stat one {};
                struct stat other {};
                ::fstat(atOnce.Get(), &one);
                ::fstat(stepByStep.Get(), &other);
                EXPECT_EQ(one.st_ino, other.st_ino) << sPath;
            }
        }
    }
}

TEST_F(PathProbeTest, NoDescriptorIsLeft) {
    const int iBefore = ::dup(0);
    ::close(iBefore);
    Find("d/f");
    const int iAfter = ::dup(0);
    ::close(iAfter);
    EXPECT_EQ(iAfter, iBefore);
}

TEST_F(PathProbeTest, PlainPathsAreAbsoluteAndMadeOfNames) {
    for (const char* pcPath : {"/a", "/a/b", "/a/b.c/..d", "/.a", "/..."}) {
        EXPECT_TRUE(IsPlainPath(pcPath)) << pcPath;
    }
    for (const char* pcPath : {"", "/", "a", "a/b", "//a", "/a/", "/a//b", "/.", "/..", "/a/.", "/a/..", "/./a",
                               "/../a", "/a/./b", "/a/../b"}) {
        EXPECT_FALSE(IsPlainPath(pcPath)) << pcPath;
    }
}

}  // namespace
