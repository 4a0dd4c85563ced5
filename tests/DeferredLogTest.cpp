// Log lines that wait for a lock to be released, and that no line of the registries goes out under one of theirs.
#include "DeferredLog.h"

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "RedirectedFile.h"
#include "ThrowingUtilities.h"
#include "UtilitiesFixture.h"

namespace {

using Lines = std::vector<std::string>;

class DeferredLogTest : public UtilitiesFixture {};

TEST_F(DeferredLogTest, LinesGoOutAtTheEndInTheirOrderAndAsTheyWere) {
    {
        CRuntimeParam shortLived("10.0.0.6", 0);
        const CDeferredLog deferred;
        m_Utilities.LogInfo(&m_Param, "%s", "one");
        m_Utilities.LogError(&shortLived, "%s", "two");
        m_Utilities.LogRaw(&m_Param, "%s", "three");
        shortLived.SetID("changed");
        EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
    }
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<LogLine>{{'i', "10.0.0.5", "one"}, {'e', "10.0.0.6", "two"}, {'r', "10.0.0.5", "three"}}));
    m_Utilities.LogInfo(&m_Param, "%s", "four");
    EXPECT_EQ(m_Log.Lines().size(), 4U) << "and from then on at once";
}

TEST_F(DeferredLogTest, OnlyTheOutermostLetsThemGo) {
    {
        const CDeferredLog outer;
        m_Utilities.LogInfo(&m_Param, "%s", "one");
        {
            const CDeferredLog inner;
            m_Utilities.LogInfo(&m_Param, "%s", "two");
        }
        m_Utilities.LogInfo(&m_Param, "%s", "three");
        EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
    }
    EXPECT_EQ(m_Log.Texts(), (Lines{"one", "two", "three"}));
}

TEST_F(DeferredLogTest, LinesOfOtherThreadsDoNotWait) {
    const CDeferredLog deferred;
    std::thread([this] { m_Utilities.LogInfo(&m_Param, "%s", "another's"); }).join();
    EXPECT_EQ(m_Log.Texts(), Lines{"another's"});
}

/// Keeps the IPC ID and the log control that a line came with.
class RoutedUtilities : public CUtilities {
public:
    using CUtilities::LogInfo;
    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        m_sSeen = std::string(pRuntimeParam->GetID()) + "/" + pRuntimeParam->GetIpcID() + "/" +
                  std::to_string(pRuntimeParam->GetLogControl()) + ": " + pcMessage;
    }
    std::string m_sSeen;
};

TEST_F(DeferredLogTest, LinesKeepTheirReceiver) {
    RoutedUtilities utilities;
    {
        CRuntimeParam param("exp", 3);
        const CDeferredLog deferred;
        param.SetIpcID("client");
        utilities.LogInfo(&param, "%s", "hello");
        param.SetIpcID("another");
    }
    EXPECT_EQ(utilities.m_sSeen, "exp/client/3: hello");
}

TEST_F(DeferredLogTest, ALineThatCannotGoOutIsLost) {
    ThrowingUtilities utilities(&m_Log);
    {
        const CDeferredLog deferred;
        CUtilities& base = utilities;
        base.LogInfo(&m_Param, "%s", "one");
        base.LogError(&m_Param, "%s", "two");
    }
    EXPECT_EQ(m_Log.Texts(), Lines{"two"});
}

// ---- The registries

/// At every line another thread does something, which must be possible just then.
class ProbingUtilities : public CaptureUtilities {
public:
    using CaptureUtilities::CaptureUtilities;
    using CaptureUtilities::LogError;
    using CaptureUtilities::LogInfo;
    using CaptureUtilities::LogRaw;

    ~ProbingUtilities() override { EndProbes(); }

    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
        Probe(pcMessage);
    }
    void LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogError(pRuntimeParam, pcMessage);
        Probe(pcMessage);
    }
    void LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogRaw(pRuntimeParam, pcMessage);
        Probe(pcMessage);
    }

    void SetProbe(std::function<void()> probe) { m_Probe = std::move(probe); }
    /// The lines at which the probe was not possible.
    Lines Blocked() {
        EndProbes();
        return m_vsBlocked;
    }

private:
    void Probe(const char* pcMessage) {
        if (!m_Probe || !m_vsBlocked.empty()) {
            return;
        }
        m_vProbes.push_back(std::async(std::launch::async, m_Probe));
        if (m_vProbes.back().wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            m_vsBlocked.push_back(pcMessage);
        }
    }
    void EndProbes() { m_vProbes.clear(); }

    std::function<void()> m_Probe;
    std::vector<std::future<void>> m_vProbes;
    Lines m_vsBlocked;
};

class LinesOfTheRegistries : public UtilitiesFixture {
protected:
    /// Uses every registry as long as it takes to find it unlocked.
    void TouchEverything() {
        CRuntimeParam quiet("probe", 0);
        LogArgu tag{"Probe"};
        m_Probed.GetMountInfo(&quiet, false, false);
        m_Probed.GetSessionInfo(&quiet, false);
        m_Probed.CloseCachedFileHandle(&quiet, &tag, "/no such file");
        m_Probed.GetRedirectedFile("/no such file");
        m_Probed.GetVSphereInfo(&quiet, false);
        m_Probed.GetNetDeviceCredential(&quiet, false);
        m_Probed.GetCanonicalFileID("/probe");
    }

    void ExpectLine(const std::string& sText) { EXPECT_TRUE(m_Log.Has(sText)) << sText << "\n" << m_Log.Dump(); }

    ProbingUtilities m_Probed{&m_Log};
};

TEST_F(LinesOfTheRegistries, OfTheExportsGoOutWithoutALock) {
    m_Probed.SetProbe([this] { TouchEverything(); });
    const std::string sPath = m_Folder.Path();
    EXPECT_TRUE(m_Probed.AddMountInfo(&m_Param, &m_Tag, sPath.c_str(), "exp", "", m_vcReason));
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Get canonical path successfully: " + sPath,
                                "[Test] Get canonical path successfully: " + sPath}));
    EXPECT_TRUE(m_Probed.IsMountInfoExists(&m_Param, &m_Tag, sPath.c_str(), nullptr, m_vcReason));
    EXPECT_EQ(TakeLog(), Lines{"[Test] Get canonical path successfully: " + sPath});
    MountInfo info;
    EXPECT_TRUE(m_Probed.GetMountInfoByPath(&m_Param, &m_Tag, (sPath + "/x").c_str(), &info));
    EXPECT_EQ(info.sExportName, "exp");
    ExpectLine("[Test] Path match");
    EXPECT_EQ(m_Probed.GetMountInfo(&m_Param, false, true), 1);
    m_Probed.RemoveMountInfoByLocalMountPath(&m_Param, &m_Tag, sPath.c_str());
    EXPECT_EQ(m_Probed.Blocked(), Lines{});
}

TEST_F(LinesOfTheRegistries, OfTheDescriptorCacheGoOutWithoutALock) {
    const std::string sPath = MakeFile("file", "x");
    ASSERT_TRUE(m_Probed.AddMountInfo(&m_Param, &m_Tag, m_Folder.Path().c_str(), "exp", "", m_vcReason));
    m_Probed.SetProbe([this] { TouchEverything(); });
    m_Log.Clear();
    EXPECT_TRUE(m_Probed.GetCachedFileHandle(&m_Param, &m_Tag, sPath.c_str(), false).IsOpen());
    EXPECT_EQ(TakeLog(),
              (Lines{"[Test] Path scan: \"" + sPath + "/\" vs \"" + m_Folder.Path() + "\"",
                     "[Test] Path compare: \"" + sPath + "/\" vs \"" + m_Folder.Path() + "/\"", "[Test] Path match",
                     "[Test] open read/write mode " + sPath, "[Test] OS open file \"" + sPath + "\""}));
    m_Probed.CloseCachedFileHandle(&m_Param, &m_Tag, sPath.c_str());
    EXPECT_EQ(TakeLog(), Lines{"[Test] OS close file \"" + sPath + "\""});
    EXPECT_FALSE(m_Probed.GetCachedFileHandle(&m_Param, &m_Tag, (sPath + "x").c_str(), true).IsOpen());
    ExpectLine("[Test] OS open file \"" + sPath + "x\". Error=No such file or directory (2)");
    EXPECT_TRUE(m_Probed.GetCachedFileHandle(&m_Param, &m_Tag, sPath.c_str(), false).IsOpen());
    m_Log.Clear();
    m_Probed.CloseAllCachedFileHandles(&m_Param, &m_Tag, m_Folder.Path().c_str());
    ExpectLine("[Test] OS close file \"" + sPath + "\"");
    EXPECT_TRUE(m_Probed.GetCachedFileHandle(&m_Param, &m_Tag, sPath.c_str(), false).IsOpen());
    m_Log.Clear();
    m_Probed.FreeCachedFileHandles(&m_Param, &m_Tag);
    ExpectLine("[Test] Close exceeded cached file handle: ALL");
    EXPECT_TRUE(m_Probed.GetCachedFileHandle(&m_Param, &m_Tag, sPath.c_str(), false).IsOpen());
    m_Log.Clear();
    m_Probed.CloseAllCachedFileHandles(&m_Param, &m_Tag);
    ExpectLine("[Test] OS close file \"" + sPath + "\"");
    EXPECT_EQ(m_Probed.Blocked(), Lines{});
}

TEST_F(LinesOfTheRegistries, OfTheAdministrationGoOutWithoutALock) {
    m_Probed.AddVSphereInfo("datastore-1", "esx1", "443", "", "");  // without a user nothing is run
    m_Probed.AddSessionInfo("session", "/folder");
    m_Probed.SetProbe([this] { TouchEverything(); });
    EXPECT_EQ(m_Probed.GetVSphereInfo(&m_Param, true), 1);
    ExpectLine(" NFS datastore 1 - datastore-1 (esx1:443)");
    EXPECT_EQ(m_Probed.GetSessionInfo(&m_Param, true), 1);
    m_Probed.RemoveAllVSphereInfoWithWebCtrl(&m_Param);
    ExpectLine("Unmount NFS datastore with MOID \"datastore-1\" on host \"esx1:443\"");
    m_Log.Clear();
    EXPECT_FALSE(m_Probed.AddNetDeviceCredential(&m_Param, "//nas/a", "user", "secret"));
    const Lines vsAdd = TakeLog();
    ASSERT_FALSE(vsAdd.empty());
    EXPECT_EQ(vsAdd.front(), "Add_Net_Device_Credential_Command_Not_Defined");
    EXPECT_EQ(vsAdd.back(), "Process returned 32512\n");
    EXPECT_FALSE(m_Probed.RemoveNetDeviceCredential(&m_Param, "//nas/a"));
    ExpectLine("Remove_Net_Device_Credential_Command_Not_Defined");
    EXPECT_EQ(m_Probed.Blocked(), Lines{});
}

TEST_F(LinesOfTheRegistries, OfRedirectedFilesGoOutWithoutALock) {
    const std::string sSource = MakeFile("source", "0123456789");
    const std::string sPath = m_Folder / "virtual";
    m_Probed.SetProbe([this] { TouchEverything(); });
    const auto pFile = m_Probed.OpenRedirectedFile(&m_Param, sPath.c_str(), 10, false, 0, 0);
    ExpectLine("[RedirectedFile.Open] id=0, size=10 (path=)");
    EXPECT_TRUE(m_Probed.AddRedirectedFileSegment(&m_Param, sPath.c_str(), sSource.c_str(), 0, 0, 10, m_vcReason));
    // Whoever takes the line of the source's opening has the file closed, which must not wait for that very line.
    m_Probed.SetProbe([this, &sPath] {
        CRuntimeParam quiet("probe", 0);
        m_Probed.CloseRedirectedFile(&quiet, sPath.c_str());
    });
    m_Log.Clear();
    std::vector<char> vcData(CRedirectedFile::GetReadRoom(10));
    bool bEof = false;
    EXPECT_LE(m_Probed.ReadFile(&m_Param, &m_Tag, sPath.c_str(), 0, SEEK_SET, vcData.data(), 10, &bEof), 10);
    EXPECT_EQ(m_Probed.Blocked(), Lines{});
    EXPECT_TRUE(pFile->IsClosed());
}

TEST_F(LinesOfTheRegistries, OfASegmentThatIsAddedGoOutWithoutALock) {
    const std::string sPath = MakeFile("virtual", "");
    const auto pFile = m_Probed.OpenRedirectedFile(&m_Param, sPath.c_str(), 10LL << 20, true, 1, 0);
    m_Probed.SetProbe([this, &sPath] {
        CRuntimeParam quiet("probe", 0);
        m_Probed.CloseRedirectedFile(&quiet, sPath.c_str());
    });
    m_Log.Clear();
    EXPECT_TRUE(m_Probed.AddRedirectedFileSegment(&m_Param, sPath.c_str(), "", 0, 0, 10LL << 20, m_vcReason));
    ExpectLine("[RedirectedFile.AddSegment] Reference src (0): Null");
    ExpectLine("[RedirectedFile.AddSegment] Segment id=0, fox=0, ox=0, len=10485760");
    EXPECT_EQ(m_Probed.Blocked(), Lines{});
    EXPECT_TRUE(pFile->IsClosed());
    EXPECT_EQ(ReadWholeFile(sPath).size(), 320U);
}

TEST_F(LinesOfTheRegistries, OfAClosingRedirectedFileGoOutWithoutALock) {
    const std::string sSource = MakeFile("source", "0123456789");
    const std::string sPath = m_Folder / "virtual";
    const auto pFile = m_Probed.OpenRedirectedFile(&m_Param, sPath.c_str(), 10, false, 0, 0);
    ASSERT_TRUE(m_Probed.AddRedirectedFileSegment(&m_Param, sPath.c_str(), sSource.c_str(), 0, 0, 10, m_vcReason));
    ASSERT_TRUE(m_Probed.GetCachedFileHandle(&m_Param, &m_Tag, sSource.c_str(), false).IsOpen());
    m_Probed.SetProbe([&pFile, &sSource] {
        CRuntimeParam quiet("probe", 0);
        char vcReason[kReasonBufferSize];
        EXPECT_FALSE(pFile->AddSegment(&quiet, sSource.c_str(), 0, 0, 10, vcReason)) << "it is closed";
    });
    m_Log.Clear();
    m_Probed.CloseRedirectedFile(&m_Param, sPath.c_str());
    ExpectLine("[RedirectedFile.Close] OS close file \"" + sSource + "\"");
    EXPECT_EQ(m_Probed.Blocked(), Lines{});
}

}  // namespace
