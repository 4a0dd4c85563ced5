// Records of datastores on vSphere hosts and their clean-up. What the clean-up tool is told is tested with the console
// (tests/console), beside which a tool can stand.
#include "Utilities.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"

namespace {

using Lines = std::vector<std::string>;

class VSphereRecords : public testing::Test {
protected:
    Lines Details() {
        m_Log.Clear();
        m_Utilities.GetVSphereInfo(&m_Param, true);
        return m_Log.Texts('r');
    }

    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"tester", 0};
};

}  // namespace

TEST_F(VSphereRecords, AreListedByMoidWithHostAndPortOnly) {
    EXPECT_EQ(m_Utilities.GetVSphereInfo(&m_Param, true), 0);
    m_Utilities.AddVSphereInfo("datastore-2", "esx2", "443", "root", "secret");
    m_Utilities.AddVSphereInfo("datastore-1", "esx1", "8443", "root", "secret");
    EXPECT_EQ(m_Utilities.GetVSphereInfo(&m_Param, false), 2);
    EXPECT_EQ(m_Log.Texts(), Lines{}) << "nothing is printed unasked";
    EXPECT_EQ(Details(),
              (Lines{" NFS datastore 1 - datastore-1 (esx1:8443)", " NFS datastore 2 - datastore-2 (esx2:443)"}));
}

TEST_F(VSphereRecords, SecondRecordOfAMoidReplacesTheFirst) {
    m_Utilities.AddVSphereInfo("datastore-1", "esx1", "443", "root", "secret");
    m_Utilities.AddVSphereInfo("datastore-1", "esx9", "444", "admin", "other");
    EXPECT_EQ(Details(), Lines{" NFS datastore 1 - datastore-1 (esx9:444)"});
}

TEST_F(VSphereRecords, AreRemovedByMoid) {
    m_Utilities.AddVSphereInfo("datastore-1", "esx1", "443", "root", "secret");
    m_Utilities.RemoveVSphereInfo("datastore-9");
    EXPECT_EQ(m_Utilities.GetVSphereInfo(&m_Param, false), 1);
    m_Utilities.RemoveVSphereInfo("datastore-1");
    EXPECT_EQ(m_Utilities.GetVSphereInfo(&m_Param, false), 0);
}

TEST_F(VSphereRecords, AreNotTouchedByReset) {
    LogArgu tag{"Test"};
    m_Utilities.AddVSphereInfo("datastore-1", "esx1", "443", "root", "secret");
    m_Utilities.Reset(&m_Param, &tag);
    EXPECT_EQ(m_Utilities.GetVSphereInfo(&m_Param, false), 1);
}

TEST_F(VSphereRecords, CleanUpSaysWhatItUnmountsWithoutALogBitAndForgetsIt) {
    m_Utilities.AddVSphereInfo("datastore-2", "esx2", "443", "", "");  // without a user nothing is run
    m_Utilities.AddVSphereInfo("datastore-1", "esx1", "8443", "", "");
    m_Utilities.RemoveAllVSphereInfoWithWebCtrl(&m_Param);
    EXPECT_EQ(m_Log.Texts('i'), (Lines{"Start cleanup mounted NFS datastores",
                                       "Unmount NFS datastore with MOID \"datastore-1\" on host \"esx1:8443\"",
                                       "Unmount NFS datastore with MOID \"datastore-2\" on host \"esx2:443\""}));
    EXPECT_EQ(m_Utilities.GetVSphereInfo(&m_Param, false), 0);
}

namespace {

/// Replaces a record at the moment when its unmounting is announced for the first time.
class ReplacingUtilities : public CaptureUtilities {
public:
    using CaptureUtilities::CaptureUtilities;
    using CaptureUtilities::LogInfo;
    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
        if (std::string(pcMessage).find("esx1") != std::string::npos) {
            AddVSphereInfo("datastore-1", "esx9", "444", "", "");
        }
        if (std::string(pcMessage).find("datastore-2") != std::string::npos) {
            RemoveVSphereInfo("datastore-2");
        }
    }
};

}  // namespace

TEST_F(VSphereRecords, CleanUpMeetsARecordThatChangesUnderItsHands) {
    ReplacingUtilities utilities(&m_Log);
    utilities.AddVSphereInfo("datastore-1", "esx1", "443", "", "");
    utilities.AddVSphereInfo("datastore-2", "esx2", "443", "", "");
    utilities.RemoveAllVSphereInfoWithWebCtrl(&m_Param);
    EXPECT_EQ(m_Log.Texts('i'), (Lines{"Start cleanup mounted NFS datastores",
                                       "Unmount NFS datastore with MOID \"datastore-1\" on host \"esx1:443\"",
                                       "Unmount NFS datastore with MOID \"datastore-1\" on host \"esx9:444\"",
                                       "Unmount NFS datastore with MOID \"datastore-2\" on host \"esx2:443\""}));
    EXPECT_EQ(utilities.GetVSphereInfo(&m_Param, false), 0);
}

TEST_F(VSphereRecords, CleanUpOfNothingSaysNothing) {
    m_Utilities.RemoveAllVSphereInfoWithWebCtrl(&m_Param);
    EXPECT_EQ(m_Log.Texts(), Lines{});
}

TEST_F(VSphereRecords, MissingTextsCountAsEmpty) {
    m_Utilities.AddVSphereInfo(nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(Details(), Lines{" NFS datastore 1 -  (:)"});
    m_Utilities.RemoveVSphereInfo(nullptr);
    EXPECT_EQ(m_Utilities.GetVSphereInfo(&m_Param, false), 0);
}
