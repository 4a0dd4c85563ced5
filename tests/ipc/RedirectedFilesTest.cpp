// What an NFS client does to a redirected file that a client process opened: that process is told, and its answers
// decide what the NFS client sees.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpcProcesses.h"
#include "RuntimeParam.h"

namespace {

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kIoError = 5;
constexpr std::uint32_t kInvalid = 22;

class RedirectedFilesTest : public IpcProcesses {
protected:
    void SetUp() override {
        IpcProcesses::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        m_sPath = *m_pFolder / "disk.vmdk";
        WriteWholeFile(m_sPath, "on disk");
        m_pClient->OpenRedirectedFile(m_sPath.c_str(), 1000, false, 0, 0);
        m_pNfs = std::make_unique<NfsClient>();
        m_sRoot = m_pNfs->Mnt("exp").value_or("");
        ASSERT_NE(m_sRoot, "") << "MNT status " << m_pNfs->GetMountStatus();
        ASSERT_EQ(m_pNfs->Lookup(m_sRoot, "disk.vmdk", m_sHandle), kOk);
    }
    void TearDown() override {
        m_pNfs.reset();
        IpcProcesses::TearDown();
    }

    void Answer(int iAnswer) {
        m_Host.Log().Clear();
        m_Host.Log().SetHost([iAnswer](const Notification&) { return iAnswer; });
    }

    /// The one notification the client process got, which came under the export's name.
    Notification Told() {
        const std::vector<Notification> v = m_Host.Log().Notifications();
        EXPECT_EQ(v.size(), 1U);
        if (v.size() != 1) {
            return {};
        }
        EXPECT_EQ(v[0].sID, "exp");
        EXPECT_EQ(v[0].sPath, m_sPath);
        return v[0];
    }

    std::string m_sPath, m_sRoot, m_sHandle;
    std::unique_ptr<NfsClient> m_pNfs;
};

TEST_F(RedirectedFilesTest, AWriteIsReportedAndItsAnswerIsTheCount) {
    for (const int iAnswer : {5, 3, 0}) {
        Answer(iAnswer);
        std::uint32_t iCount = 99;
        EXPECT_EQ(m_pNfs->Write(m_sHandle, 123, "hello", iCount), kOk);
        EXPECT_EQ(iCount, static_cast<std::uint32_t>(iAnswer));
        const Notification told = Told();
        EXPECT_EQ(told.sOperation, "write");
        EXPECT_EQ(told.iSeek, 123U);
        EXPECT_EQ(told.iSeekType, 0);
        EXPECT_EQ(told.iLen, 5U);
    }
    EXPECT_EQ(ReadWholeFile(m_sPath), "on disk") << "nothing is written anywhere";
}

TEST_F(RedirectedFilesTest, ARefusedWriteFails) {
    Answer(-1);
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pNfs->Write(m_sHandle, 0, "hello", iCount), kInvalid);
    EXPECT_EQ(Told().sOperation, "write");
}

TEST_F(RedirectedFilesTest, SettingTheSizeIsReportedAndItsAnswerDecides) {
    Sattr3 attributes;
    attributes.iSize = 0x123456789aULL;
    Answer(0);
    EXPECT_EQ(m_pNfs->Setattr(m_sHandle, attributes), kOk);
    const Notification told = Told();
    EXPECT_EQ(told.sOperation, "update");
    EXPECT_TRUE(told.bSize);
    EXPECT_EQ(told.iSize, 0x123456789aULL);
    EXPECT_FALSE(told.bAccessTime);
    EXPECT_FALSE(told.bLastModifiedTime);
    for (const int iAnswer : {1, -1}) {
        Answer(iAnswer);
        EXPECT_EQ(m_pNfs->Setattr(m_sHandle, attributes), kInvalid) << "answer " << iAnswer;
        EXPECT_EQ(Told().sOperation, "update");
    }
    EXPECT_EQ(ReadWholeFile(m_sPath), "on disk");
}

TEST_F(RedirectedFilesTest, TimesAreReportedInSeconds) {
    Sattr3 attributes;
    attributes.atime = {100, 5};
    attributes.mtime = {4294967295U, 6};
    Answer(0);
    EXPECT_EQ(m_pNfs->Setattr(m_sHandle, attributes), kOk);
    const Notification told = Told();
    EXPECT_FALSE(told.bSize);
    EXPECT_TRUE(told.bAccessTime);
    EXPECT_EQ(told.lAccessTimeSec, 100U);
    EXPECT_TRUE(told.bLastModifiedTime);
    EXPECT_EQ(told.lLastModifiedTimeSec, 4294967295U);
}

TEST_F(RedirectedFilesTest, ARenameIsReportedAndItsAnswerDecides) {
    Answer(0);
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "disk.vmdk", m_sRoot, "renamed.vmdk"), kOk);
    EXPECT_EQ(Told().sOperation, "rename");
    EXPECT_EQ(Told().sPathTo, *m_pFolder / "renamed.vmdk");
    // The file goes on being redirected under its new name.
    m_sPath = *m_pFolder / "renamed.vmdk";
    Answer(2);
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pNfs->Write(m_sHandle, 0, "hi", iCount), kOk);
    EXPECT_EQ(Told().sOperation, "write");
    Answer(1);
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "renamed.vmdk", m_sRoot, "again.vmdk"), kIoError);
    EXPECT_EQ(Told().sOperation, "rename");
}

/// A path that the record of a notification has no room for is not told shortened: nothing is renamed at all.
TEST_F(RedirectedFilesTest, ARenameThatCannotBeToldChangesNothing) {
    Answer(0);
    std::string sFolder = m_sRoot, sFolderPath = m_pFolder->Path();
    while (sFolderPath.size() + 1 + 200 < 1024) {
        ASSERT_EQ(m_pNfs->Mkdir(sFolder, std::string(200, 'd'), sFolder), kOk);
        sFolderPath += "/" + std::string(200, 'd');
    }
    const std::string sFits(1023 - sFolderPath.size() - 1, 'f');
    const std::string sTooLong = sFits + "f";
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "disk.vmdk", sFolder, sTooLong), kIoError);
    EXPECT_TRUE(m_Host.Log().Notifications().empty());
    EXPECT_EQ(ReadWholeFile(m_sPath), "on disk");
    Answer(2);
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pNfs->Write(m_sHandle, 0, "hi", iCount), kOk);
    EXPECT_EQ(Told().sOperation, "write") << "redirected under its old path as before";

    Answer(0);
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "disk.vmdk", sFolder, sFits), kOk) << "one byte less";
    EXPECT_EQ(Told().sPathTo, sFolderPath + "/" + sFits);
}

TEST_F(RedirectedFilesTest, AFolderIsNotRenamedWhenAFileBelowItCouldNotBeTold) {
    std::string sHandle;
    ASSERT_EQ(m_pNfs->Mkdir(m_sRoot, "folder", sHandle), kOk);
    const std::string sInside = *m_pFolder / "folder/" + std::string(200, 'a') + "/" + std::string(200, 'b');
    std::filesystem::create_directories(sInside);
    m_sPath = sInside + "/" + std::string(200, 'c');
    WriteWholeFile(m_sPath, "on disk");
    m_pClient->OpenRedirectedFile(m_sPath.c_str(), 1000, false, 0, 0);
    std::string sFar = *m_pFolder / std::string(250, 'e');
    std::string sFarHandle;
    ASSERT_EQ(m_pNfs->Mkdir(m_sRoot, std::string(250, 'e'), sFarHandle), kOk);
    Answer(0);
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "folder", sFarHandle, std::string(250, 'f')), kIoError);
    EXPECT_TRUE(m_Host.Log().Notifications().empty());
    EXPECT_EQ(ReadWholeFile(m_sPath), "on disk");
    EXPECT_EQ(m_pNfs->Rename(m_sRoot, "folder", sFarHandle, "f"), kOk) << "a path that fits";
    EXPECT_EQ(Told().sPathTo, sFar + "/f" + m_sPath.substr((*m_pFolder / "folder").size()));
}

TEST_F(RedirectedFilesTest, ARemovalIsReported) {
    Answer(0);
    EXPECT_EQ(m_pNfs->Remove(m_sRoot, "disk.vmdk"), kOk);
    EXPECT_EQ(Told().sOperation, "remove");
}

TEST_F(RedirectedFilesTest, ARefusedRemovalFails) {
    Answer(7);
    EXPECT_EQ(m_pNfs->Remove(m_sRoot, "disk.vmdk"), kIoError);
    EXPECT_EQ(Told().sOperation, "remove");
}

TEST_F(RedirectedFilesTest, ReadsComeFromTheSegmentsThatTheClientProcessAdded) {
    const std::string sSource = *m_pFolder / "backup";
    WriteWholeFile(sSource, "0123456789abcdef");
    ASSERT_TRUE(m_pClient->AddRedirectedFileSegment(m_sPath.c_str(), sSource.c_str(), 4, 0, 8, m_vcReason))
        << m_vcReason;
    std::string sData;
    bool bEof = false;
    EXPECT_EQ(m_pNfs->Read(m_sHandle, 2, 4, sData, bEof), kOk);
    EXPECT_EQ(sData, "6789");
    EXPECT_FALSE(m_pClient->AddRedirectedFileSegment(m_sPath.c_str(), sSource.c_str(), 0, 5000, 8, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Offset 5000 is not inside the file (size = 1000)");
    EXPECT_FALSE(m_pClient->AddRedirectedFileSegment("/no/such", sSource.c_str(), 0, 0, 8, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Redirected file \"/no/such\" is not open");
}

TEST_F(RedirectedFilesTest, AClientProcessThatIsGoneFailsItsWritesAtOnce) {
    Answer(5);
    m_pClient->StopRemoteController();
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pNfs->Write(m_sHandle, 0, "hello", iCount), kInvalid);
    EXPECT_TRUE(m_Host.Log().Notifications().empty());
    ASSERT_TRUE(m_pClient->StartRemoteController(m_vcReason)) << m_vcReason;
    EXPECT_EQ(m_pNfs->Write(m_sHandle, 0, "hello", iCount), kOk) << "back again";
    EXPECT_EQ(iCount, 5U);
}

TEST_F(RedirectedFilesTest, LogLinesOfAnExportsCallsComeToItsClientProcess) {
    m_pClient->SetLogControl(CRuntimeParam::kLogProcFuncArgu);
    Fattr3 attributes;
    EXPECT_EQ(m_pNfs->Getattr(m_sHandle, attributes), kOk);
    EXPECT_TRUE(m_Host.Log().WaitFor("[Nfs3Prog.ProcedureGETATTR] End stat=0")) << m_Host.Log().Dump();
    m_pClient->SetLogControl(0);
    EXPECT_EQ(m_Host.Log().Lines().back().sID, "exp");
}

}  // namespace
