// File handles.
#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "UtilitiesFixture.h"

namespace {

class UtilitiesFileHandleTest : public UtilitiesFixture {
protected:
    void SetUp() override { m_Param.SetLogControl(0); }
};

TEST_F(UtilitiesFileHandleTest, HandleHoldsTheIDInLittleEndianOrderAndZeros) {
    for (unsigned int iPath = 0; iPath < 258; ++iPath) {
        m_Utilities.GetFileID(&m_Param, &m_Tag, ("/none/" + std::to_string(iPath)).c_str());
    }
    char vcHandle[kNfs3HandleSize];
    std::memset(vcHandle, '#', sizeof(vcHandle));
    ASSERT_TRUE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, "/none/258", vcHandle, sizeof(vcHandle)));
    char vcExpected[kNfs3HandleSize] = {2, 1};
    EXPECT_EQ(std::memcmp(vcHandle, vcExpected, sizeof(vcHandle)), 0);
}

TEST_F(UtilitiesFileHandleTest, HandleResolvesToTheCanonicalPath) {
    const std::string sFile = MakeFile("file", "");
    ASSERT_EQ(::symlink("file", (m_Folder / "link").c_str()), 0);
    char vcHandle[kNfs3HandleSize];
    char vcPath[kPathBufferSize];
    ASSERT_TRUE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, (m_Folder / "link").c_str(), vcHandle, sizeof(vcHandle)));
    ASSERT_TRUE(m_Utilities.GetFilePath(&m_Param, vcHandle, vcPath, sizeof(vcPath)));
    EXPECT_EQ(vcPath, sFile);
    EXPECT_EQ(m_Utilities.GetFileID(&m_Param, &m_Tag, sFile.c_str()),
              m_Utilities.GetFileID(&m_Param, &m_Tag, (m_Folder.Path() + "/./link").c_str()));
}

TEST_F(UtilitiesFileHandleTest, LengthOfFourIsRefusedWithTheBufferZeroedAndFiveIsEnough) {
    m_Utilities.GetFileID(&m_Param, &m_Tag, "/none/0");
    char vcHandle[8];
    std::memset(vcHandle, '#', sizeof(vcHandle));
    EXPECT_FALSE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, "/none/1", vcHandle, 4));
    EXPECT_EQ(std::string(vcHandle, 8), std::string(4, '\0') + "####");
    EXPECT_TRUE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, "/none/1", vcHandle, 5));
    EXPECT_EQ(std::string(vcHandle, 8), std::string("\1\0\0\0\0", 5) + "###");
}

TEST_F(UtilitiesFileHandleTest, NullBuffersAndPathsAreRefused) {
    char vcHandle[kNfs3HandleSize];
    char vcPath[kPathBufferSize];
    EXPECT_FALSE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, "/a", nullptr, kNfs3HandleSize));
    EXPECT_FALSE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, nullptr, vcHandle, sizeof(vcHandle)));
    EXPECT_EQ(m_Utilities.GetFileID(&m_Param, &m_Tag, nullptr), kNoFileID);
    EXPECT_FALSE(m_Utilities.GetFilePath(&m_Param, nullptr, vcPath, sizeof(vcPath)));
}

TEST_F(UtilitiesFileHandleTest, HandleOfAllOnesAndForgedOnesResolveToNothing) {
    m_Utilities.GetFileID(&m_Param, &m_Tag, "/a");
    char vcPath[kPathBufferSize];
    for (const unsigned int iID : {0xFFFFFFFFU, 1U, 1024U, 0x80000000U}) {
        char vcHandle[kNfs3HandleSize] = {};
        std::memcpy(vcHandle, &iID, sizeof(iID));
        EXPECT_FALSE(m_Utilities.GetFilePath(&m_Param, vcHandle, vcPath, sizeof(vcPath))) << iID;
    }
}

TEST_F(UtilitiesFileHandleTest, OnlyTheFirstFourBytesCount) {
    m_Utilities.GetFileID(&m_Param, &m_Tag, "/a/none");
    char vcHandle[kNfs3HandleSize];
    std::memset(vcHandle, '#', sizeof(vcHandle));
    std::memset(vcHandle, 0, 4);
    char vcPath[kPathBufferSize];
    ASSERT_TRUE(m_Utilities.GetFilePath(&m_Param, vcHandle, vcPath, sizeof(vcPath)));
    EXPECT_STREQ(vcPath, "/a/none");
    EXPECT_FALSE(m_Utilities.GetFilePath(&m_Param, vcHandle, vcPath, 7)) << "no room for the terminator";
    EXPECT_TRUE(m_Utilities.GetFilePath(&m_Param, vcHandle, nullptr, 0)) << "the existence test";
}

TEST_F(UtilitiesFileHandleTest, FileMadeAgainUnderItsPathGetsItsIDBack) {
    const std::string sFile = MakeFile("file", "");
    const unsigned int iID = m_Utilities.GetFileID(&m_Param, &m_Tag, sFile.c_str());
    ASSERT_TRUE(m_Utilities.RemoveFile(&m_Param, &m_Tag, sFile.c_str()));
    EXPECT_EQ(m_Utilities.GetFileID(&m_Param, &m_Tag, sFile.c_str()), iID);
    MakeFile("file", "again");
    EXPECT_EQ(m_Utilities.GetFileID(&m_Param, &m_Tag, sFile.c_str()), iID);
}

TEST_F(UtilitiesFileHandleTest, EveryPathKeepsOneIDForAllThreads) {
    std::vector<std::vector<unsigned int>> vvIDs(4);
    std::vector<std::thread> vThreads;
    for (auto& vIDs : vvIDs) {
        vThreads.emplace_back([this, &vIDs] {
            CRuntimeParam param("thread", 0);
            LogArgu tag{"Thread"};
            for (unsigned int iPath = 0; iPath < 500; ++iPath) {
                vIDs.push_back(m_Utilities.GetFileID(&param, &tag, ("/none/" + std::to_string(iPath)).c_str()));
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    for (const auto& vIDs : vvIDs) {
        EXPECT_EQ(vIDs, vvIDs.front());
    }
    std::vector<unsigned int> vSorted = vvIDs.front();
    std::ranges::sort(vSorted);
    EXPECT_EQ(std::unique(vSorted.begin(), vSorted.end()), vSorted.end());
    EXPECT_EQ(vSorted.back(), 499U);
}

}  // namespace
