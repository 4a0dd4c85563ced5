// Two client processes' exports on one server: each is told of what NFS clients do to the redirected files in its own.
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "IpcProcesses.h"

namespace {

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kIoError = 5;

class TwoOwnersTest : public IpcProcesses {
protected:
    using Lines = std::vector<std::string>;

    void SetUp() override {
        IpcProcesses::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        m_pOtherFolder = std::make_unique<TempFolder>();
        m_pOther = std::make_unique<CNfsIpcClientMain>("other", 0);
        m_pOther->SetCallback(m_OtherHost.Callback());
        ASSERT_TRUE(m_pOther->Initial(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pOther->StartRemoteController(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pOther->AddMountPoint(m_pOtherFolder->Path().c_str(), "other-exp", m_vcReason)) << m_vcReason;
        m_pNfs = std::make_unique<NfsClient>();
        m_sRoot = m_pNfs->Mnt("exp").value_or("");
        m_sOtherRoot = m_pNfs->Mnt("other-exp").value_or("");
        ASSERT_NE(m_sRoot, "");
        ASSERT_NE(m_sOtherRoot, "");
        Answer(m_Host, 0);
        Answer(m_OtherHost, 0);
    }
    void TearDown() override {
        m_pNfs.reset();
        if (m_pOther) {
            m_pOther->StopRemoteController();
            m_pOther->Terminate();
            m_pOther->SetCallback(nullptr);
            m_pOther.reset();
        }
        m_pOtherFolder.reset();
        IpcProcesses::TearDown();
    }

    /// Writes are granted in any case.
    static void Answer(FakeHost& host, int iAnswer) {
        host.Log().Clear();
        host.Log().SetHost([iAnswer](const Notification& notification) {
            return notification.sOperation == "write" ? static_cast<int>(notification.iLen) : iAnswer;
        });
    }
    static Lines Told(FakeHost& host) {
        Lines vsTold;
        for (const Notification& told : host.Log().Notifications()) {
            vsTold.push_back(told.sID + ": " + told.sOperation + " " + told.sPath +
                             (told.sPathTo.empty() ? "" : " " + told.sPathTo));
        }
        host.Log().Clear();
        return vsTold;
    }
    /// A redirected file of one owner; its handle.
    std::string Open(CNfsIpcClientMain& owner, const std::string& sRoot, const std::string& sPath) {
        WriteWholeFile(sPath, "on disk");
        owner.OpenRedirectedFile(sPath.c_str(), 1000, false, 0, 0);
        std::string sHandle;
        EXPECT_EQ(m_pNfs->Lookup(sRoot, sPath.substr(sPath.rfind('/') + 1), sHandle), kOk);
        return sHandle;
    }
    void Write(const std::string& sHandle) {
        std::uint32_t iCount = 0;
        EXPECT_EQ(m_pNfs->Write(sHandle, 0, "x", iCount), kOk);
        EXPECT_EQ(iCount, 1U);
    }

    FakeHost m_OtherHost;
    std::unique_ptr<TempFolder> m_pOtherFolder;
    std::unique_ptr<CNfsIpcClientMain> m_pOther;
    std::unique_ptr<NfsClient> m_pNfs;
    std::string m_sRoot, m_sOtherRoot;
};

TEST_F(TwoOwnersTest, ARenameFromOneToTheOtherIsToldToBothAndLaterWritesToTheNewOwner) {
    const std::string sFrom = *m_pFolder / "disk";
    const std::string sTo = *m_pOtherFolder / "moved";
    const std::string sHandle = Open(*m_pClient, m_sRoot, sFrom);
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "disk", m_sOtherRoot, "moved"), kOk);
    EXPECT_EQ(Told(m_Host), Lines{"exp: rename " + sFrom + " " + sTo});
    EXPECT_EQ(Told(m_OtherHost), Lines{"other-exp: rename " + sFrom + " " + sTo});
    Write(sHandle);
    EXPECT_EQ(Told(m_Host), Lines{});
    EXPECT_EQ(Told(m_OtherHost), Lines{"other-exp: write " + sTo});
}

TEST_F(TwoOwnersTest, ARefusalByEitherLeavesTheFileWithItsFirstOwner) {
    const std::string sFrom = *m_pFolder / "disk";
    const std::string sTo = *m_pOtherFolder / "moved";
    const std::string sHandle = Open(*m_pClient, m_sRoot, sFrom);
    for (const bool bOldOwner : {true, false}) {
        Answer(m_Host, bOldOwner ? 1 : 0);
        Answer(m_OtherHost, bOldOwner ? 0 : 1);
        EXPECT_EQ(m_pNfs->Rename(m_sRoot, "disk", m_sOtherRoot, "moved"), kIoError);
        const std::string sForth = "rename " + sFrom + " " + sTo;
        const std::string sBack = "rename " + sTo + " " + sFrom;
        EXPECT_EQ(Told(m_Host), bOldOwner ? Lines{"exp: " + sForth} : (Lines{"exp: " + sForth, "exp: " + sBack}));
        EXPECT_EQ(Told(m_OtherHost), bOldOwner ? Lines{} : Lines{"other-exp: " + sForth});
        EXPECT_EQ(ReadWholeFile(sFrom), "on disk");
        EXPECT_NE(::access(sTo.c_str(), F_OK), 0);
        Write(sHandle);
        EXPECT_EQ(Told(m_Host), Lines{"exp: write " + sFrom});
        EXPECT_EQ(Told(m_OtherHost), Lines{});
    }
}

/// An owner that is gone cannot agree.
TEST_F(TwoOwnersTest, ARenameToAnOwnerThatIsGoneIsRefused) {
    const std::string sHandle = Open(*m_pClient, m_sRoot, *m_pFolder / "disk");
    m_pOther->StopRemoteController();
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "disk", m_sOtherRoot, "moved"), kIoError);
    EXPECT_EQ(Told(m_Host).size(), 2U) << "there and back";
    Write(sHandle);
    EXPECT_EQ(Told(m_Host), Lines{"exp: write " + *m_pFolder / "disk"});
}

TEST_F(TwoOwnersTest, ReplacingAFileOfTheOthersIsToldToTheOther) {
    const std::string sTarget = *m_pOtherFolder / "disk";
    Open(*m_pOther, m_sOtherRoot, sTarget);
    WriteWholeFile(*m_pFolder / "plain", "plain");
    std::string sPlain;
    ASSERT_EQ(m_pNfs->Lookup(m_sRoot, "plain", sPlain), kOk);
    Answer(m_OtherHost, 1);
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "plain", m_sOtherRoot, "disk"), kIoError);
    EXPECT_EQ(Told(m_OtherHost), Lines{"other-exp: remove " + sTarget});
    EXPECT_EQ(ReadWholeFile(*m_pFolder / "plain"), "plain") << "the source stays";

    Open(*m_pOther, m_sOtherRoot, sTarget);
    Answer(m_OtherHost, 0);
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "plain", m_sOtherRoot, "disk"), kOk);
    EXPECT_EQ(Told(m_OtherHost), Lines{"other-exp: remove " + sTarget});
    EXPECT_EQ(Told(m_Host), Lines{});
    EXPECT_EQ(ReadWholeFile(sTarget), "plain");
}

TEST_F(TwoOwnersTest, WhatIsDoneInOneExportIsToldToItsOwnerAlone) {
    const std::string sOwn = Open(*m_pClient, m_sRoot, *m_pFolder / "disk");
    const std::string sOther = Open(*m_pOther, m_sOtherRoot, *m_pOtherFolder / "disk");
    Write(sOther);
    Write(sOwn);
    Write(sOther);
    EXPECT_EQ(m_pNfs->Remove(m_sOtherRoot, "disk"), kOk);
    EXPECT_EQ(Told(m_Host), Lines{"exp: write " + *m_pFolder / "disk"});
    EXPECT_EQ(Told(m_OtherHost),
              (Lines{"other-exp: write " + *m_pOtherFolder / "disk", "other-exp: write " + *m_pOtherFolder / "disk",
                     "other-exp: remove " + *m_pOtherFolder / "disk"}));
}

}  // namespace
