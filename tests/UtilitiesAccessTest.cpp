// What an access file says to clients' calls: who may use which export, beside who holds it.
#include <memory>
#include <string>

#include <sys/stat.h>

#include "AccessFile.h"
#include "UtilitiesFixture.h"

namespace {

constexpr const char* kHost = "10.0.0.1";
constexpr const char* kOther = "10.0.0.2";
constexpr const char* kThird = "10.0.0.3";

class UtilitiesAccessTest : public UtilitiesFixture {
protected:
    void SetUp() override {
        for (const char* pcFolder : {"outer", "outer/inner", "outer2"}) {
            ASSERT_EQ(::mkdir((m_Folder / pcFolder).c_str(), 0755), 0);
        }
        Export("outer", "outer");
    }
    void Export(const std::string& sFolder, const std::string& sName) {
        ASSERT_TRUE(
            m_Utilities.AddMountInfo(&m_Param, &m_Tag, (m_Folder / sFolder).c_str(), sName.c_str(), "ipc", m_vcReason))
            << m_vcReason;
    }
    void Allow(const std::string& sRules) {
        WriteWholeFile(m_Folder / "access", sRules);
        auto pFile = std::make_unique<CAccessFile>(m_Folder / "access");
        ASSERT_TRUE(pFile->Load(m_vcReason)) << m_vcReason;
        m_Utilities.SetAccessFile(std::move(pFile));
        TakeLog();
    }
    /// What a client's call on a path below the scratch folder meets; the export goes to m_Mount.
    MountAccess Access(const std::string& sPath, const char* pcClient) {
        m_Mount = {};
        m_bReadOnly = false;
        return m_Utilities.GetClientAccess(&m_Param, &m_Tag, (m_Folder / sPath).c_str(), pcClient, &m_Mount,
                                           &m_bReadOnly);
    }
    bool Mount(const std::string& sName, const char* pcClient) {
        m_vcReason[0] = '\0';
        return m_Utilities.MountExport(sName.c_str(), pcClient, &m_Mount, m_vcReason);
    }
    /// Who has an export mounted.
    std::string Holder(const std::string& sName) {
        TakeLog();
        m_Utilities.GetMountInfo(&m_Param, false, true);
        for (const std::string& sLine : TakeLog('r')) {
            if (const std::size_t iName = sLine.find(" : " + sName + " ("); iName != std::string::npos) {
                const std::size_t iBegin = sLine.find('(', iName) + 1;
                return sLine.substr(iBegin, sLine.find(')', iBegin) - iBegin);
            }
        }
        return "none";
    }

    MountInfo m_Mount;
    bool m_bReadOnly = false;
};

TEST_F(UtilitiesAccessTest, WithoutAFileTheHolderAloneDecides) {
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kServed);
    EXPECT_TRUE(Mount("outer", kHost)) << m_vcReason;
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kServed);
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kHeld);
    EXPECT_FALSE(Mount("outer", kHost)) << "not even twice";
    m_Utilities.UnmountExport("outer", kOther);
    EXPECT_EQ(Holder("outer"), "") << "UMNT asks nobody who he is";
    EXPECT_FALSE(m_bReadOnly);
}

TEST_F(UtilitiesAccessTest, WhomTheFileDoesNotAdmitIsDeniedAndNamedItsExport) {
    Allow("outer 10.0.0.1 rw\n");
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kServed);
    EXPECT_EQ(m_Mount.sIcpID, "ipc");
    EXPECT_FALSE(m_bReadOnly);
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kDenied);
    EXPECT_EQ(m_Mount.sExportName, "outer");
    EXPECT_EQ(Access("elsewhere", kHost), MountAccess::kNone);
    EXPECT_EQ(Access("outer2", kHost), MountAccess::kNone) << "a name that goes on is another folder";
    EXPECT_FALSE(Mount("outer", kOther));
    EXPECT_STREQ(m_vcReason, "The access file does not admit 10.0.0.2 to export \"outer\"");
    EXPECT_EQ(Holder("outer"), "");
    EXPECT_TRUE(Mount("outer", kHost)) << m_vcReason;
    EXPECT_EQ(Holder("outer"), kHost);
}

TEST_F(UtilitiesAccessTest, AnExportThatTheFileDoesNotNameAdmitsNobody) {
    Allow("other 0.0.0.0/0 rw\n");
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kDenied);
    EXPECT_FALSE(Mount("outer", kHost));
    EXPECT_FALSE(Mount("other", kHost));
    EXPECT_STREQ(m_vcReason, "Undefined export name \"other\"");
}

TEST_F(UtilitiesAccessTest, ReadOnlyIsTold) {
    Allow("outer 10.0.0.1 ro\nouter 10.0.0.2 rw\n");
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kServed);
    EXPECT_TRUE(m_bReadOnly);
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kServed);
    EXPECT_FALSE(m_bReadOnly);
}

TEST_F(UtilitiesAccessTest, TheHolderStillKeepsOthersOutWhoAreAdmitted) {
    Allow("outer 10.0.0.0/24 rw\n");
    EXPECT_TRUE(Mount("outer", kHost)) << m_vcReason;
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kHeld);
    EXPECT_EQ(m_Mount.sRemoteIpAddr, kHost);
    EXPECT_FALSE(Mount("outer", kOther));
    EXPECT_STREQ(m_vcReason, "This mount point \"outer\" already mounted by 10.0.0.1");
    EXPECT_EQ(Access("outer/f", "10.0.1.1"), MountAccess::kDenied);
    EXPECT_EQ(m_Mount.sExportName, "outer");
}

TEST_F(UtilitiesAccessTest, WhoMaySharesAnExportBesideItsHolder) {
    Allow("outer 10.0.0.2 ro,shared\nouter 10.0.0.0/24 rw\n");
    EXPECT_TRUE(Mount("outer", kHost)) << m_vcReason;
    EXPECT_TRUE(Mount("outer", kOther)) << m_vcReason;
    EXPECT_TRUE(Mount("outer", kOther)) << "as often as it likes";
    EXPECT_EQ(m_Mount.sLocalMountPath, m_Folder / "outer");
    EXPECT_EQ(Holder("outer"), kHost);
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kServed);
    EXPECT_TRUE(m_bReadOnly);
    EXPECT_EQ(m_Mount.sExportName, "outer");
    EXPECT_EQ(m_Mount.sIcpID, "ipc");
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kServed);
    EXPECT_FALSE(m_bReadOnly);
    EXPECT_EQ(Access("outer/f", kThird), MountAccess::kHeld) << "who may not share waits for the holder";
}

TEST_F(UtilitiesAccessTest, TheFirstWhoMountsHoldsTheExportAlsoIfHeMayShareIt) {
    Allow("outer 10.0.0.2 rw,shared\nouter 10.0.0.0/24 rw\n");
    EXPECT_TRUE(Mount("outer", kOther)) << m_vcReason;
    EXPECT_EQ(Holder("outer"), kOther);
    EXPECT_TRUE(Mount("outer", kOther)) << "a client that has started again";
    EXPECT_FALSE(Mount("outer", kHost));
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kHeld);
}

TEST_F(UtilitiesAccessTest, OnlyTheHolderSetsAnExportFree) {
    Allow("outer 10.0.0.2 rw,shared\nouter 10.0.0.0/24 rw\n");
    EXPECT_TRUE(Mount("outer", kHost)) << m_vcReason;
    for (const char* pcOther : {kOther, kThird, "10.0.9.9", ""}) {
        m_Utilities.UnmountExport("outer", pcOther);
        EXPECT_EQ(Holder("outer"), kHost) << pcOther;
    }
    m_Utilities.UnmountExport("unknown", kHost);
    m_Utilities.UnmountExport("outer", kHost);
    EXPECT_EQ(Holder("outer"), "");
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kServed) << "who shared it goes on";
}

TEST_F(UtilitiesAccessTest, AHolderWhoIsNotAdmittedAnyMoreHoldsNothing) {
    EXPECT_TRUE(Mount("outer", kHost)) << m_vcReason;
    Allow("outer 10.0.0.2 rw,shared\nouter 10.0.0.3 rw\n");
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kDenied);
    EXPECT_EQ(Access("outer/f", kThird), MountAccess::kHeld) << "until it mounts";
    EXPECT_TRUE(Mount("outer", kThird)) << m_vcReason;
    EXPECT_EQ(Holder("outer"), kThird);
    EXPECT_EQ(Access("outer/f", kThird), MountAccess::kServed);
}

TEST_F(UtilitiesAccessTest, OfExportsInEachOtherTheInnermostDecides) {
    Export("outer/inner", "inner");
    Allow("outer 10.0.0.1 rw\ninner 10.0.0.2 ro\n");
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kServed);
    EXPECT_EQ(Access("outer/inner/f", kHost), MountAccess::kDenied) << "the outer export does not open the inner";
    EXPECT_EQ(m_Mount.sExportName, "inner");
    EXPECT_EQ(Access("outer/inner", kHost), MountAccess::kDenied);
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kDenied);
    EXPECT_EQ(Access("outer/inner/f", kOther), MountAccess::kServed);
    EXPECT_TRUE(m_bReadOnly);
    EXPECT_TRUE(Mount("outer", kHost)) << m_vcReason;
    EXPECT_EQ(Access("outer/inner/f", kHost), MountAccess::kDenied) << "nor does mounting it";
}

TEST_F(UtilitiesAccessTest, TheFileIsReadAgainBeforeACallIsJudged) {
    WriteWholeFile(m_Folder / "access", "outer 10.0.0.1 rw\n");
    auto pFile = std::make_unique<CAccessFile>(m_Folder / "access", std::chrono::milliseconds(0));
    ASSERT_TRUE(pFile->Load(m_vcReason)) << m_vcReason;
    m_Utilities.SetAccessFile(std::move(pFile));
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kDenied);
    WriteWholeFile(m_Folder / "access", "outer 10.0.0.2 rw\n");
    m_Utilities.RefreshAccess({&m_Utilities, &m_Param, &m_Tag});
    EXPECT_EQ(Access("outer/f", kOther), MountAccess::kServed);
    m_Utilities.SetAccessFile(nullptr);
    m_Utilities.RefreshAccess({&m_Utilities, &m_Param, &m_Tag});
    EXPECT_EQ(Access("outer/f", kHost), MountAccess::kServed) << "without a file nobody is kept out";
}

}  // namespace
