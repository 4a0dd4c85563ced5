// An access file on disk: its first reading, and what becomes of its rules when it changes.
#include "AccessFile.h"

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "SoftLimit.h"
#include "UtilitiesFixture.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;

class AccessFileTest : public UtilitiesFixture {
protected:
    /// May the address read the export "data", by the rules in force once the file was looked at again?
    bool IsAdmitted(CAccessFile& file, const char* pcAddress = "10.0.0.1") {
        file.Refresh({&m_Utilities, &m_Param, &m_Tag});
        return file.GetRules().Find("data", pcAddress).IsAdmitted();
    }
    /// Puts a new file in the place of the old one.
    void Replace(const std::string& sText) {
        WriteWholeFile(m_sPath + ".new", sText);
        ASSERT_EQ(std::rename((m_sPath + ".new").c_str(), m_sPath.c_str()), 0);
    }
    /// Until the file has not been touched for so long that the next change shows in its times.
    void WaitUntilOld() const {
        struct stat status {};
        ASSERT_EQ(::stat(m_sPath.c_str(), &status), 0);
        EXPECT_TRUE(WaitUntil([&] { return std::time(nullptr) >= status.st_ctime + 3; }));
    }
    std::string Complaint(const std::string& sReason) const {
        return "[Test] Access file \"" + m_sPath + "\": " + sReason + ". The rules of before stay in force";
    }

    const std::string m_sPath = m_Folder / "access";
    static constexpr const char* kRules = "data 10.0.0.1 rw\n";
    static constexpr const char* kOther = "data 10.0.0.2 rw\n";
};

// ---- The first reading

TEST_F(AccessFileTest, RulesAreReadAtTheStart) {
    WriteWholeFile(m_sPath, kRules);
    CAccessFile file(m_sPath);
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    EXPECT_TRUE(IsAdmitted(file));
    EXPECT_FALSE(IsAdmitted(file, "10.0.0.2"));
}

TEST_F(AccessFileTest, AWrongLineRefusesToStartWithItsNumber) {
    WriteWholeFile(m_sPath, "# clients\ndata 10.0.0.1 rw\ndata 10.0.0.300 rw\n");
    EXPECT_FALSE(CAccessFile(m_sPath).Load(m_vcReason));
    EXPECT_EQ(m_vcReason, "Access file \"" + m_sPath + "\": line 3: \"10.0.0.300\" is no IPv4 address");
    EXPECT_FALSE(CAccessFile(m_sPath).Load(nullptr));
}

TEST_F(AccessFileTest, WhatIsNoReadableFileRefusesToStart) {
    EXPECT_FALSE(CAccessFile(m_sPath).Load(m_vcReason));
    EXPECT_EQ(m_vcReason, "Access file \"" + m_sPath + "\": No such file or directory (2)");
    EXPECT_FALSE(CAccessFile(m_Folder.Path()).Load(m_vcReason));
    EXPECT_EQ(m_vcReason, "Access file \"" + m_Folder.Path() + "\": Is a directory (21)");
    ASSERT_EQ(::mkfifo(m_sPath.c_str(), 0666), 0);
    EXPECT_FALSE(CAccessFile(m_sPath).Load(m_vcReason)) << "and nothing waits for a writer";
    EXPECT_EQ(m_vcReason, "Access file \"" + m_sPath + "\": Operation not supported (95)");
}

TEST_F(AccessFileTest, SizeIsBounded) {
    std::string sText(CAccessFile::kMaxSize - 18, '#');
    sText += "\n" + std::string(kRules);
    ASSERT_EQ(sText.size(), CAccessFile::kMaxSize);
    WriteWholeFile(m_sPath, sText);
    CAccessFile file(m_sPath);
    EXPECT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    EXPECT_TRUE(IsAdmitted(file));
    WriteWholeFile(m_sPath, sText + "\n");
    EXPECT_FALSE(CAccessFile(m_sPath).Load(m_vcReason));
    EXPECT_EQ(m_vcReason, "Access file \"" + m_sPath + "\": has more than 1048576 bytes");
}

// ---- Changes

TEST_F(AccessFileTest, AChangedFileIsReadAgain) {
    WriteWholeFile(m_sPath, kRules);
    WaitUntilOld();
    CAccessFile file(m_sPath, milliseconds(0));
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    TakeLog();
    EXPECT_TRUE(IsAdmitted(file));
    WriteWholeFile(m_sPath, kOther);  // in place
    EXPECT_FALSE(IsAdmitted(file));
    EXPECT_TRUE(IsAdmitted(file, "10.0.0.2"));
    Replace(kRules);
    EXPECT_TRUE(IsAdmitted(file));
    const std::string sLine = "[Test] Access file \"" + m_sPath + "\" read again: 1 rules in force";
    EXPECT_EQ(TakeLog(), (std::vector<std::string>{sLine, sLine}));
}

TEST_F(AccessFileTest, ItIsLookedAtOnceInAnInterval) {
    WriteWholeFile(m_sPath, kRules);
    CAccessFile patient(m_sPath, std::chrono::hours(1));
    ASSERT_TRUE(patient.Load(m_vcReason)) << m_vcReason;
    CAccessFile file(m_sPath, milliseconds(50));
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    WriteWholeFile(m_sPath, kOther);
    EXPECT_TRUE(WaitUntil([&] { return IsAdmitted(file, "10.0.0.2"); }));
    EXPECT_FALSE(IsAdmitted(patient, "10.0.0.2"));
    EXPECT_TRUE(IsAdmitted(patient));
}

TEST_F(AccessFileTest, ChangesThatLeaveSizeAndTimesAsTheyWereAreSeenWhileTheFileIsYoung) {
    WriteWholeFile(m_sPath, kRules);
    CAccessFile file(m_sPath, milliseconds(0));
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    // As often as it takes to have two changes within one tick of the file system's clock.
    for (int i = 0; i < 200; ++i) {
        WriteWholeFile(m_sPath, kOther);
        EXPECT_TRUE(IsAdmitted(file, "10.0.0.2"));
        WriteWholeFile(m_sPath, kRules);
        EXPECT_TRUE(IsAdmitted(file));
    }
}

TEST_F(AccessFileTest, AFileThatHasBecomeWrongChangesNothingAndIsComplainedOfOnce) {
    WriteWholeFile(m_sPath, kRules);
    CAccessFile file(m_sPath, milliseconds(0));
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    WriteWholeFile(m_sPath, std::string(kOther) + "data 10.0.0.2 write\n");
    TakeLog();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(IsAdmitted(file));
        EXPECT_FALSE(IsAdmitted(file, "10.0.0.2"));
    }
    EXPECT_EQ(TakeLog('e'), std::vector<std::string>{Complaint(
                                "line 2: \"write\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\"")});
    WriteWholeFile(m_sPath, "data\n");
    EXPECT_TRUE(IsAdmitted(file));
    EXPECT_EQ(TakeLog('e'), std::vector<std::string>{
                                Complaint("line 1: wants an export, clients and rights, and has the first alone")});
    WriteWholeFile(m_sPath, kOther);
    EXPECT_TRUE(IsAdmitted(file, "10.0.0.2"));
    EXPECT_EQ(TakeLog('e'), std::vector<std::string>{});
}

TEST_F(AccessFileTest, AFileThatHasGoneChangesNothingUntilItIsBack) {
    WriteWholeFile(m_sPath, kRules);
    CAccessFile file(m_sPath, milliseconds(0));
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    ASSERT_EQ(std::rename(m_sPath.c_str(), (m_Folder / "away").c_str()), 0);
    TakeLog();
    EXPECT_TRUE(IsAdmitted(file));
    EXPECT_TRUE(IsAdmitted(file));
    EXPECT_EQ(TakeLog('e'), std::vector<std::string>{Complaint("No such file or directory (2)")});
    ASSERT_EQ(std::rename((m_Folder / "away").c_str(), m_sPath.c_str()), 0);
    EXPECT_TRUE(IsAdmitted(file));
    EXPECT_EQ(TakeLog('i'),
              std::vector<std::string>{"[Test] Access file \"" + m_sPath + "\" read again: 1 rules in force"});
}

TEST_F(AccessFileTest, WhatCouldNotBeReadForAMomentIsReadTheNextTime) {
    WriteWholeFile(m_sPath, kRules);
    CAccessFile file(m_sPath, milliseconds(0));
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    WriteWholeFile(m_sPath, kOther);
    WaitUntilOld();
    EXPECT_TRUE(WithoutDescriptors([&] { return IsAdmitted(file); }));
    EXPECT_TRUE(IsAdmitted(file, "10.0.0.2"));
}

TEST_F(AccessFileTest, WithoutLogBitsAChangeIsTakenInSilence) {
    m_Param.SetLogControl(0);
    WriteWholeFile(m_sPath, kRules);
    CAccessFile file(m_sPath, milliseconds(0));
    ASSERT_TRUE(file.Load(m_vcReason)) << m_vcReason;
    WriteWholeFile(m_sPath, "data\n");
    EXPECT_TRUE(IsAdmitted(file));
    WriteWholeFile(m_sPath, kOther);
    EXPECT_TRUE(IsAdmitted(file, "10.0.0.2"));
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

}  // namespace
