// The registry of sessions, and starting over.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "PathGuard.h"
#include "UtilitiesFixture.h"

namespace {

using UtilitiesSessionTest = UtilitiesFixture;

/// A host that looks something up whenever it is sent a line of a listing.
class AskingUtilities : public CUtilities {
public:
    void LogRaw(CRuntimeParam* /*pRuntimeParam*/, const char* /*pcMessage*/) override {
        m_nFound += IsSessionExists("s1") && IsRemoteAddrExists("") ? 1 : 0;
    }
    int m_nFound = 0;
};

TEST_F(UtilitiesSessionTest, SessionsAreKnownByTheirID) {
    EXPECT_FALSE(m_Utilities.IsSessionExists("s1"));
    m_Utilities.AddSessionInfo("s1", "/data");
    EXPECT_TRUE(m_Utilities.IsSessionExists("s1"));
    EXPECT_FALSE(m_Utilities.IsSessionExists("s"));
    m_Utilities.RemoveSessionInfo("s1");
    m_Utilities.RemoveSessionInfo("s1");
    EXPECT_FALSE(m_Utilities.IsSessionExists("s1"));
}

TEST_F(UtilitiesSessionTest, PathIsKeptAsGivenAndOverwritten) {
    m_Utilities.AddSessionInfo("s1", "/tmp/.");
    m_Utilities.AddSessionInfo("s1", "/tmp/../x/");
    EXPECT_EQ(m_Utilities.GetSessionInfo(&m_Param, true), 1);
    EXPECT_EQ(TakeLog('r'), std::vector<std::string>{" Session 1 - s1 : /tmp/../x/"});
}

TEST_F(UtilitiesSessionTest, ListingIsInTheOrderOfTheIDs) {
    m_Utilities.AddSessionInfo("b", "/2");
    m_Utilities.AddSessionInfo("a", "/1");
    m_Utilities.AddSessionInfo("B", "/3");
    EXPECT_EQ(m_Utilities.GetSessionInfo(&m_Param, true), 3);
    EXPECT_EQ(TakeLog('r'),
              (std::vector<std::string>{" Session 1 - B : /3", " Session 2 - a : /1", " Session 3 - b : /2"}));
    EXPECT_EQ(m_Utilities.GetSessionInfo(&m_Param, false), 3);
    EXPECT_EQ(TakeLog(), std::vector<std::string>());
}

TEST_F(UtilitiesSessionTest, RemovalByPathTakesEveryEqualOne) {
    m_Utilities.AddSessionInfo("a", "/data");
    m_Utilities.AddSessionInfo("b", "/data/");
    m_Utilities.AddSessionInfo("c", "/data");
    m_Utilities.RemoveSessionInfoByLocalMountPath("/data");
    EXPECT_FALSE(m_Utilities.IsSessionExists("a"));
    EXPECT_TRUE(m_Utilities.IsSessionExists("b"));
    EXPECT_FALSE(m_Utilities.IsSessionExists("c"));
    m_Utilities.RemoveAllSessionInfo();
    EXPECT_EQ(m_Utilities.GetSessionInfo(&m_Param, false), 0);
}

// A listing that held its registry meanwhile would never end.
TEST_F(UtilitiesSessionTest, ListingsKeepNobodyOutOfTheirRegistries) {
    AskingUtilities utilities;
    utilities.AddSessionInfo("s1", "/data");
    ASSERT_TRUE(utilities.AddMountInfo(&m_Param, &m_Tag, "/", "root", "", nullptr));
    EXPECT_EQ(utilities.GetSessionInfo(&m_Param, true), 1);
    EXPECT_EQ(utilities.GetMountInfo(&m_Param, false, true), 1);
    EXPECT_EQ(utilities.m_nFound, 2);
}

TEST_F(UtilitiesSessionTest, ResetEmptiesEveryRegistry) {
    ExportFolder();
    m_Utilities.AddSessionInfo("s1", "/data");
    const std::string sFile = MakeFile("f", "x");
    ASSERT_TRUE(m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, sFile.c_str(), false).IsOpen());
    m_Utilities.OpenRedirectedFile(&m_Param, "/virtual", 100, false, 0, 0);
    const PathGuard path(m_Folder.Path());
    InstallCommand(m_Folder / kAddCredentialCommand, "exit 0");
    ASSERT_TRUE(m_Utilities.AddNetDeviceCredential(&m_Param, "//nas/share", "user", "secret"));
    char vcHandle[kNfs3HandleSize];
    ASSERT_TRUE(m_Utilities.GetFileHandle(&m_Param, &m_Tag, sFile.c_str(), vcHandle, sizeof(vcHandle)));
    m_Log.Clear();
    m_Utilities.Reset(&m_Param, &m_Tag);
    EXPECT_TRUE(m_Log.Has("[Test] OS close file \"" + sFile + "\"")) << m_Log.Dump();
    EXPECT_EQ(m_Utilities.GetMountInfo(&m_Param, false, false), 0);
    EXPECT_EQ(m_Utilities.GetSessionInfo(&m_Param, false), 0);
    EXPECT_EQ(m_Utilities.GetRedirectedFile("/virtual"), nullptr);
    EXPECT_EQ(m_Utilities.GetNetDeviceCredential(&m_Param, false), 0);
    char vcPath[kPathBufferSize];
    EXPECT_FALSE(m_Utilities.GetFilePath(&m_Param, vcHandle, vcPath, sizeof(vcPath)));
}

// A redirected file that was closed first would close its source under a tag of its own.
TEST_F(UtilitiesSessionTest, ResetClosesCachedDescriptorsBeforeRedirectedFiles) {
    const std::string sSource = MakeFile("source", "content");
    m_Utilities.OpenRedirectedFile(&m_Param, "/virtual", 7, false, 0, 0);
    ASSERT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/virtual", sSource.c_str(), 0, 0, 7, m_vcReason))
        << m_vcReason;
    ASSERT_TRUE(m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, sSource.c_str(), false).IsOpen());
    m_Log.Clear();
    m_Utilities.Reset(&m_Param, &m_Tag);
    EXPECT_TRUE(m_Log.Has("[Test] OS close file \"" + sSource + "\"")) << m_Log.Dump();
}

}  // namespace
