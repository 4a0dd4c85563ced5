// CNfsMain: what it hands on to the registries, and under which ID and tag that is logged.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Isolation.h"
#include "RuntimeParam.h"
#include "ServerFixture.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

class NfsMainForwardingTest : public testing::Test {
protected:
    /// Raw and information lines since last asked, as "ID: text".
    std::vector<std::string> TakeLines() {
        std::vector<std::string> vsLines;
        for (const LogLine& line : m_Log.Lines()) {
            vsLines.push_back(line.sID + ": " + line.sText);
        }
        m_Log.Clear();
        return vsLines;
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    CapturingNfsMain m_Main{"own", CRuntimeParam::kLogError, &m_Log};
    CRuntimeParam m_Other{"other", CRuntimeParam::kLogError};
    char m_vcReason[kReasonBufferSize] = "";
    TempFolder m_Folder;
};

TEST_F(NfsMainForwardingTest, ListingsGoOutUnderTheGivenParameterOrTheControllersOwn) {
    EXPECT_TRUE(m_Main.AddMountPoint(m_Folder.Path().c_str(), "data", "ipc", m_vcReason)) << m_vcReason;
    m_Main.AddSessionInfo("s1", "/x");
    m_Main.AddVSphereInfo("moid", "esx", "443", "user", "secret");
    const std::string sMount = " Mount 1 - " + m_Folder.Path() + " : data () [ipc]";
    const std::string sSession = " Session 1 - s1 : /x";
    const std::string sDatastore = " NFS datastore 1 - moid (esx:443)";

    EXPECT_EQ(m_Main.GetMountInfo(&m_Other, false, true), 1);
    EXPECT_EQ(m_Main.GetSessionInfo(&m_Other, true), 1);
    EXPECT_EQ(m_Main.GetVSphereInfo(&m_Other, true), 1);
    EXPECT_EQ(m_Main.GetNetDeviceCredential(&m_Other, true), 0);
    EXPECT_EQ(TakeLines(), (Lines{"other: " + sMount, "other: " + sSession, "other: " + sDatastore}));
    EXPECT_EQ(m_Main.GetMountInfo(false, true), 1);
    EXPECT_EQ(m_Main.GetSessionInfo(true), 1);
    EXPECT_EQ(m_Main.GetVSphereInfo(true), 1);
    EXPECT_EQ(m_Main.GetNetDeviceCredential(true), 0);
    EXPECT_EQ(TakeLines(), (Lines{"own: " + sMount, "own: " + sSession, "own: " + sDatastore}));
    EXPECT_EQ(m_Main.GetMountInfo(true, true), 0) << "no client has it mounted";
    EXPECT_EQ(m_Main.GetMountInfo(false, false), 1);
    EXPECT_EQ(m_Main.GetSessionInfo(false), 1);
    EXPECT_EQ(m_Main.GetVSphereInfo(false), 1);
    EXPECT_THAT(TakeLines(), IsEmpty());

    m_Main.RemoveMountPoint(m_Folder.Path().c_str());
    m_Main.RemoveSessionInfo("s1");
    m_Main.RemoveVSphereInfo("moid");
    EXPECT_EQ(m_Main.GetMountInfo(false, false), 0);
    EXPECT_EQ(m_Main.GetSessionInfo(false), 0);
    EXPECT_EQ(m_Main.GetVSphereInfo(false), 0);
}

TEST_F(NfsMainForwardingTest, TestsAndCommandsRunUnderTheGivenParameterOrTheControllersOwn) {
    EXPECT_EQ(m_Main.ExecuteSystemCmd(&m_Other, "exit 1", true), 256);
    EXPECT_EQ(TakeLines(),
              (Lines{"other: exit 1", "other: \n------\n", "other: \n------\n", "other: Process returned 256\n"}));
    EXPECT_EQ(m_Main.ExecuteSystemCmd("exit 0", true), 0);
    EXPECT_THAT(TakeLines(), Contains("own: exit 0"));
    EXPECT_EQ(m_Main.ExecuteSystemCmd("exit 1", false), 256);
    EXPECT_THAT(TakeLines(), IsEmpty());

    m_Main.RunTestMode(&m_Other, "", 1);
    m_Main.RunTestMode(m_Folder.Path().c_str(), 0);
    EXPECT_EQ(TakeLines(), (Lines{"other: Cannot start platrorm test. Error=Target directory is NULL",
                                  "own: Cannot start platrorm test. Error=File size is ZERO"}));

    const std::string sNone = m_Folder / "none";
    EXPECT_TRUE(m_Main.RunQuickTestMode(&m_Other, m_Folder.Path().c_str(), 0, m_vcReason));
    EXPECT_TRUE(m_Main.RunQuickTestMode(m_Folder.Path().c_str(), 0, m_vcReason));
    EXPECT_FALSE(m_Main.RunQuickTestMode(m_Folder.Path().c_str(), 3, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Unknown mode (3)");
    m_Other.SetLogControl(CRuntimeParam::kLogGeneralInfo);
    EXPECT_FALSE(m_Main.RunQuickTestMode(&m_Other, sNone.c_str(), 0, m_vcReason));
    EXPECT_THAT(TakeLines(), Contains("other: Quick exist test failed. Error=\"" + sNone + "\""));

    EXPECT_FALSE(m_Main.AddNetDeviceCredential("//nas/share", "user", "secret")) << "no such command is installed";
    EXPECT_FALSE(m_Main.RemoveNetDeviceCredential("//nas/share"));
}

TEST_F(NfsMainForwardingTest, RedirectedFilesGetEveryArgumentInItsPlace) {
    const std::string sDisk = m_Folder / "disk";
    const std::string sPieces = m_Folder / "pieces";
    const std::string sOut = m_Folder / "out";
    WriteWholeFile(sDisk, "");
    WriteWholeFile(sPieces, "0123456789");
    WriteWholeFile(sOut, "");
    ASSERT_TRUE(m_Main.AddMountPoint(m_Folder.Path().c_str(), "data", m_vcReason)) << m_vcReason;
    m_Main.OpenRedirectedFile(sDisk.c_str(), 8, false, 0, 0);
    EXPECT_TRUE(m_Main.AddRedirectedFileSegment(sDisk.c_str(), sPieces.c_str(), 6, 0, 3, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(m_Main.AddRedirectedFileSegment(sDisk.c_str(), sPieces.c_str(), 0, 3, 2, m_vcReason)) << m_vcReason;
    EXPECT_TRUE(m_Main.AddRedirectedFileSegment(sDisk.c_str(), sPieces.c_str(), 2, 5, 3, m_vcReason)) << m_vcReason;
    EXPECT_FALSE(m_Main.AddRedirectedFileSegment(sDisk.c_str(), sPieces.c_str(), 0, 8, 1, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Offset 8 is not inside the file (size = 8)");

    m_Main.ExportRedirectedFileInfo(sDisk.c_str(), sOut.c_str(), true);
    const std::string sMerged = ReadWholeFile(sOut);
    EXPECT_EQ(sMerged, "--> Merged Segment path=" + sPieces + ", fox=6, ox=0, len=8\n");
    m_Main.CloseAllCachedFileHandles(m_Folder.Path().c_str());
    WriteWholeFile(sOut, "");
    m_Main.ExportRedirectedFileInfo(sDisk.c_str(), sOut.c_str(), false);
    EXPECT_NE(ReadWholeFile(sOut), sMerged) << "the form without merging";
    m_Main.CloseAllCachedFileHandles(m_Folder.Path().c_str());
    WriteWholeFile(sOut, "");
    m_Main.ExportRedirectedFile(sDisk.c_str(), sOut.c_str());
    EXPECT_EQ(ReadWholeFile(sOut), "67801234");

    m_Main.OpenRedirectedFile((m_Folder / "other").c_str(), 8, false, 0, 0);
    m_Main.CloseRedirectedFile(sDisk.c_str());
    EXPECT_EQ(m_Main.GetUtilities()->GetRedirectedFile(sDisk.c_str()), nullptr);
    EXPECT_NE(m_Main.GetUtilities()->GetRedirectedFile((m_Folder / "other").c_str()), nullptr);
    m_Main.CloseAllRedirectedFiles(m_Folder.Path().c_str());
    EXPECT_EQ(m_Main.GetUtilities()->GetRedirectedFile((m_Folder / "other").c_str()), nullptr);
}

/// On a server whose clients have left descriptors in the cache.
class NfsMainCachedHandlesTest : public NfsMainForwardingTest {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        ASSERT_TRUE(m_Main.StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_Main.AddMountPoint(m_Folder.Path().c_str(), "data", m_vcReason)) << m_vcReason;
        NfsClient client;
        const std::string sRoot = client.Mnt("data").value_or("");
        for (const char* pcName : {"a", "b"}) {
            WriteWholeFile(m_Folder / pcName, "content");
            std::string sFile;
            std::string sData;
            bool bEof = false;
            ASSERT_EQ(client.Lookup(sRoot, pcName, sFile), 0U);
            ASSERT_EQ(client.Read(sFile, 0, 7, sData, bEof), 0U);
        }
        EXPECT_EQ(Opened(), 2);
        m_Log.Clear();
        m_Main.SetLogControl(CRuntimeParam::kLogFileAccess);
    }

    /// Descriptors of this process for files of the folder.
    int Opened() const {
        int nOpened = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;  // the walk's own
            nOpened += std::filesystem::read_symlink(entry, ignored).string().starts_with(m_Folder.Path()) ? 1 : 0;
        }
        return nOpened;
    }

    std::string Closed(const std::string& sTag, const std::string& sName) const {
        return "own: [" + sTag + "] OS close file \"" + m_Folder / sName + "\"";
    }
};

TEST_F(NfsMainCachedHandlesTest, OneIsClosedUnderItsTag) {
    m_Main.CloseCachedFileHandle((m_Folder / "a").c_str());
    EXPECT_EQ(TakeLines(), (Lines{Closed("NfsMain.CloseCachedFileHandle", "a")}));
    EXPECT_EQ(Opened(), 1);
}

TEST_F(NfsMainCachedHandlesTest, AllBelowAPathAreClosedUnderTheirTag) {
    m_Main.CloseAllCachedFileHandles(m_Folder.Path().c_str());
    EXPECT_EQ(TakeLines(), (Lines{Closed("NfsMain.CloseAllCachedFileHandles", "a"),
                                  Closed("NfsMain.CloseAllCachedFileHandles", "b")}));
    EXPECT_EQ(Opened(), 0);
}

TEST_F(NfsMainCachedHandlesTest, AStopClosesThemUnderItsTag) {
    m_Main.StopServer();
    EXPECT_EQ(TakeLines(), (Lines{Closed("NfsMain.StopServer", "a"), Closed("NfsMain.StopServer", "b")}));
    EXPECT_EQ(Opened(), 0);
}

}  // namespace
