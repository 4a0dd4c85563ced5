// GETATTR, SETATTR, LOOKUP, ACCESS and READLINK: replies byte by byte, and log lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Nfs3ProgFixture.h"
#include "PathProbe.h"

namespace {

using testing::Contains;
using testing::Not;
using Lines = std::vector<std::string>;

class Nfs3ProgAttributesTest : public Nfs3ProgFixture {
protected:
    /// The attributes that a GETATTR reply carries; the reply is nothing but the status and them.
    Fattr3 Getattr(const std::string& sHandle) {
        const std::string sReply = Call(kNfsGetattr, XdrBuilder().Opaque(sHandle));
        EXPECT_EQ(sReply.size(), 88U);
        EXPECT_EQ(WordAt(sReply, 0), 0U);
        XdrReader reader(sReply.substr(4));
        return Fattr3::Read(reader);
    }
    std::string Setattr(const std::string& sHandle, const XdrBuilder& attributes, const XdrBuilder& guard) {
        return Call(kNfsSetattr, XdrBuilder().Opaque(sHandle).Raw(attributes.Bytes()).Raw(guard.Bytes()));
    }
    /// sattr3 that sets one thing.
    static XdrBuilder SetMode(unsigned int iMode) { return XdrBuilder().U32(1).U32(iMode).Raw(std::string(20, '\0')); }
    static XdrBuilder SetSize(unsigned long lSize) {
        return XdrBuilder().U32(0).U32(0).U32(0).U32(1).U64(lSize).U32(0).U32(0);
    }
    XdrBuilder SetNothing() const { return XdrBuilder().Raw(m_sNoAttributes); }
    static XdrBuilder NoGuard() { return XdrBuilder().U32(0); }
    static XdrBuilder Guard(unsigned int iSeconds, unsigned int iNseconds = 0) {
        return XdrBuilder().U32(1).U32(iSeconds).U32(iNseconds);
    }
    struct stat Stat(const std::string& sName) const {
        struct stat status {};
        EXPECT_EQ(::lstat(Path(sName).c_str(), &status), 0) << sName;
        return status;
    }
};

// ---- File-system IDs

/// What statvfs says, whatever was asked before.
TEST_F(Nfs3ProgAttributesTest, EachFileCarriesTheIdOfItsOwnFileSystem) {
    for (int iRound = 0; iRound < 3; ++iRound) {
        for (const char* pcPath : {"/proc", "/sys", "/tmp"}) {
            LogArgu tag{"test"};
            CRuntimeParam param("test", 0);
            struct statvfs figures {};
            fattr3 attributes;
            ASSERT_EQ(::statvfs(pcPath, &figures), 0);
            ASSERT_TRUE(m_Prog.GetNfsFileAttributes(&param, &tag, pcPath, &attributes));
            EXPECT_EQ(attributes.fsid, figures.f_fsid) << pcPath;
        }
    }
}

/// Clients take a changed ID for another file system.
TEST_F(Nfs3ProgAttributesTest, FileThatVanishesMeanwhileDoesNotSpoilTheIdOfItsNeighbours) {
    WriteWholeFile(Path("file"), "");
    LogArgu tag{"test"};
    CRuntimeParam param("test", 0);
    fattr3 attributes;
    ASSERT_TRUE(m_Prog.GetNfsFileAttributes(&param, &tag, "/proc", &attributes));  // elsewhere
    FoundStatus found;
    found.bKnown = true;
    found.status = Stat("file");
    ASSERT_TRUE(m_Prog.GetNfsFileAttributes(&param, &tag, Path("gone").c_str(), &attributes, &found));
    EXPECT_EQ(attributes.fsid, 4U);
    struct statvfs figures {};
    ASSERT_EQ(::statvfs(Path("file").c_str(), &figures), 0);
    ASSERT_NE(figures.f_fsid, 4U);
    ASSERT_TRUE(m_Prog.GetNfsFileAttributes(&param, &tag, Path("file").c_str(), &attributes));
    EXPECT_EQ(attributes.fsid, figures.f_fsid);
}

// ---- GETATTR

TEST_F(Nfs3ProgAttributesTest, AttributesAreThoseOfTheHostFile) {
    WriteWholeFile(Path("file"), "12345");
    ASSERT_EQ(::chmod(Path("file").c_str(), 0640), 0);
    const Fattr3 attributes = Getattr(Handle("file"));
    const struct stat status = Stat("file");
    struct statvfs figures {};
    ASSERT_EQ(::statvfs(Path("file").c_str(), &figures), 0);
    EXPECT_EQ(attributes.iType, 1U);
    EXPECT_EQ(attributes.iMode, 0640U);
    EXPECT_EQ(attributes.iNlink, 1U);
    EXPECT_EQ(attributes.iUid, status.st_uid);
    EXPECT_EQ(attributes.iGid, status.st_gid);
    EXPECT_EQ(attributes.iSize, 5U);
    EXPECT_EQ(attributes.iUsed, 5U);
    EXPECT_EQ(attributes.iRdevMajor, major(status.st_dev)) << "the device that holds the file";
    EXPECT_EQ(attributes.iRdevMinor, minor(status.st_dev));
    EXPECT_EQ(attributes.iFsid, figures.f_fsid);
    EXPECT_EQ(attributes.iFileid, status.st_ino);
    EXPECT_EQ(attributes.iAtimeSec, static_cast<std::uint32_t>(status.st_atime));
    EXPECT_EQ(attributes.iMtimeSec, static_cast<std::uint32_t>(status.st_mtime));
    EXPECT_EQ(attributes.iCtimeSec, static_cast<std::uint32_t>(status.st_ctime));
    EXPECT_EQ(attributes.iAtimeNsec + attributes.iMtimeNsec + attributes.iCtimeNsec, 0U);
}

// Owner and group, and the three times, differ: a mix-up shows.
TEST_F(Nfs3ProgAttributesTest, OwnersAndTimesAreNotMixedUp) {
    WriteWholeFile(Path("file"), "12345");
    ASSERT_EQ(::chown(Path("file").c_str(), 1011, 1022), 0);
    ASSERT_EQ(::link(Path("file").c_str(), Path("other name").c_str()), 0);
    const timespec times[2] = {{1000000001, 123456789}, {1100000002, 987654321}};
    ASSERT_EQ(::utimensat(AT_FDCWD, Path("file").c_str(), times, 0), 0);
    const struct stat status = Stat("file");
    const std::string sReply = Call(kNfsGetattr, XdrBuilder().Opaque(Handle("file")));
    ASSERT_EQ(sReply.size(), 88U);
    EXPECT_EQ(WordAt(sReply, 12), 2U) << "nlink";
    EXPECT_EQ(WordAt(sReply, 16), 1011U) << "uid";
    EXPECT_EQ(WordAt(sReply, 20), 1022U) << "gid";
    EXPECT_EQ(Hex(sReply.substr(64)), Hex(XdrBuilder()
                                              .U32(1000000001)
                                              .U32(0)
                                              .U32(1100000002)
                                              .U32(0)
                                              .U32(static_cast<unsigned int>(status.st_ctime))
                                              .U32(0)
                                              .Bytes()))
        << "atime, mtime, ctime in whole seconds";
}

TEST_F(Nfs3ProgAttributesTest, EveryKindOfFileHasItsType) {
    ::mkdir(Path("dir").c_str(), 0755);
    ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mknod(Path("socket").c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_EQ(Getattr(Handle("dir")).iType, 2U);
    EXPECT_EQ(Getattr(Handle("socket")).iType, 6U);
    EXPECT_EQ(Getattr(Handle("fifo")).iType, 7U);
}

TEST_F(Nfs3ProgAttributesTest, DevicesCarryTheirOwnNumbers) {
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, "/dev", "dev", "", vcReason)) << vcReason;
    const Fattr3 attributes = Getattr(HandleOfPath("/dev/null"));
    EXPECT_EQ(attributes.iType, 4U);
    EXPECT_EQ(attributes.iRdevMajor, 1U);
    EXPECT_EQ(attributes.iRdevMinor, 3U);
}

TEST_F(Nfs3ProgAttributesTest, BlockDevicesCarryTheirOwnNumbersToo) {
    if (::mknod(Path("disk").c_str(), S_IFBLK | 0600, makedev(7, 300)) != 0) {
        GTEST_SKIP() << "no right to make a device";
    }
    const Fattr3 attributes = Getattr(Handle("disk"));
    EXPECT_EQ(attributes.iType, 3U);
    EXPECT_EQ(attributes.iRdevMajor, 7U);
    EXPECT_EQ(attributes.iRdevMinor, 300U);
}

TEST_F(Nfs3ProgAttributesTest, StickyBitIsNotReportedAndSetIdBitsAre) {
    WriteWholeFile(Path("file"), "");
    ASSERT_EQ(::chmod(Path("file").c_str(), 01777), 0);
    EXPECT_EQ(Getattr(Handle("file")).iMode, 0777U);
    ASSERT_EQ(::chmod(Path("file").c_str(), 06755), 0);
    EXPECT_EQ(Getattr(Handle("file")).iMode, 06755U);
    EXPECT_EQ(CNfs3Prog::ConvertFileModeToNfsFileMode(S_IFREG | 07777), 06777U);
    EXPECT_EQ(CNfs3Prog::ConvertNfsFileModeToFileMode(0xFFFFFFFFU), 06777U);
}

TEST_F(Nfs3ProgAttributesTest, HandleThatResolvesToNothingAnswers5Not70) {
    for (const std::string& sHandle : {m_sForged, std::string(56, '\xff'), std::string(), std::string(1, '\0'),
                                       std::string(2, '\0'), std::string(3, '\0')}) {
        ExpectBareFailure(Call(kNfsGetattr, XdrBuilder().Opaque(sHandle)), 5, 0);
    }
}

TEST_F(Nfs3ProgAttributesTest, OnlyTheFirstFourBytesOfAHandleCount) {
    const std::string sHandle = Handle();
    EXPECT_EQ(Getattr(sHandle.substr(0, 4)).iType, 2U);
    EXPECT_EQ(Getattr(sHandle.substr(0, 4) + std::string(60, 'x')).iType, 2U);
}

TEST_F(Nfs3ProgAttributesTest, MissingFileAnswers5) {
    WriteWholeFile(Path("file"), "");
    const std::string sHandle = Handle("file");
    ::unlink(Path("file").c_str());
    ExpectBareFailure(Call(kNfsGetattr, XdrBuilder().Opaque(sHandle)), 5, 0);
}

TEST_F(Nfs3ProgAttributesTest, GetattrLogsItsPathAndEveryAttribute) {
    WriteWholeFile(Path("file"), "12345");
    ASSERT_EQ(::chmod(Path("file").c_str(), 0640), 0);
    const std::string sHandle = Handle("file");
    const struct stat status = Stat("file");
    SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogProcFuncName);
    const Fattr3 seen = Getattr(sHandle);
    const std::string sTime = std::to_string(status.st_mtime);
    const std::string sTag = "[Nfs3Prog.ProcedureGETATTR]";
    EXPECT_EQ(TakeLog(),
              (Lines{"[Nfs3Prog.Process]", sTag, sTag + " Path = " + Path("file"),
                     sTag + " Path=" + Path("file") + ", type=1, mode=1a0, nlink=1, uid=" + std::to_string(seen.iUid) +
                         ", gid=" + std::to_string(seen.iGid) +
                         ", size=5, used=5, rdev.1=" + std::to_string(seen.iRdevMajor) +
                         ", rdev.2=" + std::to_string(seen.iRdevMinor) + ", fsid=" + std::to_string(seen.iFsid) +
                         ", atime.s=" + std::to_string(seen.iAtimeSec) + ", atime.ns=0, mtime.s=" + sTime +
                         ", mtime.ns=0, ctime.s=" + std::to_string(seen.iCtimeSec) + ", ctime.ns=0",
                     sTag + " End stat=0"}));
}

TEST_F(Nfs3ProgAttributesTest, RedirectedFileHasItsVirtualSize) {
    WriteWholeFile(Path("virtual"), "on disk");
    m_Utilities.OpenRedirectedFile(&m_Param, Path("virtual").c_str(), 5000000000, false, 0, 0);
    const Fattr3 attributes = Getattr(Handle("virtual"));
    EXPECT_EQ(attributes.iSize, 5000000000U);
    EXPECT_EQ(attributes.iUsed, 5000000000U);
    EXPECT_EQ(attributes.iType, 1U);
}

// ---- SETATTR

TEST_F(Nfs3ProgAttributesTest, SetattrSetsModeAndSize) {
    WriteWholeFile(Path("file"), "12345");
    ExpectBareFailure(Setattr(Handle("file"), SetMode(0600), NoGuard()), 0, 2);
    EXPECT_EQ(Stat("file").st_mode & 07777U, 0600U);
    ExpectBareFailure(Setattr(Handle("file"), SetSize(2), NoGuard()), 0, 2);
    EXPECT_EQ(ReadWholeFile(Path("file")), "12");
    ExpectBareFailure(Setattr(Handle("file"), SetSize(4), NoGuard()), 0, 2);
    EXPECT_EQ(ReadWholeFile(Path("file")), std::string("12\0\0", 4));
}

TEST_F(Nfs3ProgAttributesTest, SetattrDoesNotSetTheStickyBit) {
    ::mkdir(Path("dir").c_str(), 0755);
    ExpectBareFailure(Setattr(Handle("dir"), SetMode(01777), NoGuard()), 0, 2);
    EXPECT_EQ(Stat("dir").st_mode & 07777U, 0777U);
}

TEST_F(Nfs3ProgAttributesTest, OwnerAndTimesAreAcceptedAndIgnored) {
    WriteWholeFile(Path("file"), "");
    const struct stat before = Stat("file");
    const XdrBuilder attributes = XdrBuilder()
                                      .U32(0)
                                      .U32(1)
                                      .U32(before.st_uid + 1)
                                      .U32(1)
                                      .U32(before.st_gid + 1)
                                      .U32(0)
                                      .U32(2)
                                      .U32(1)
                                      .U32(2)
                                      .U32(1);
    ExpectBareFailure(Setattr(Handle("file"), attributes, NoGuard()), 0, 2);
    EXPECT_EQ(Stat("file").st_uid, before.st_uid);
    EXPECT_EQ(Stat("file").st_mtime, before.st_mtime);
}

TEST_F(Nfs3ProgAttributesTest, GuardHoldsOnlyForTimeZero) {
    SetLog(CRuntimeParam::kLogError);
    WriteWholeFile(Path("file"), "12345");
    const auto iChanged = static_cast<unsigned int>(Stat("file").st_ctime);
    ExpectBareFailure(Setattr(Handle("file"), SetSize(0), Guard(iChanged)), 10002, 2);
    EXPECT_EQ(TakeLog(),
              (Lines{"[Nfs3Prog.ProcedureSETATTR] Guard check fail, client: 0, server: " + std::to_string(iChanged)}));
    EXPECT_EQ(Stat("file").st_size, 5);
    ExpectBareFailure(Setattr(Handle("file"), SetSize(0), Guard(0, 7)), 0, 2);
    EXPECT_EQ(Stat("file").st_size, 0) << "nanoseconds are not compared";
}

TEST_F(Nfs3ProgAttributesTest, SetattrThatFailsAnswers22) {
    SetLog(CRuntimeParam::kLogError);
    ExpectBareFailure(Setattr(Handle(), SetSize(5), NoGuard()), 22, 2);
    EXPECT_EQ(TakeLog().back(), "[Nfs3Prog.ProcedureSETATTR] Update file attribute to " + m_Folder.Path() + " fail");
}

TEST_F(Nfs3ProgAttributesTest, SetattrOfNothingOrOfAMissingFileAnswers5) {
    ExpectBareFailure(Setattr(m_sForged, SetMode(0600), NoGuard()), 5, 2);
    ExpectBareFailure(Setattr(Handle("missing"), SetMode(0600), NoGuard()), 5, 2);
    ExpectBareFailure(Setattr(Handle("missing"), SetMode(0600), Guard(5)), 5, 2);
}

TEST_F(Nfs3ProgAttributesTest, ReadOnlyServerRefusesEveryChangeOfAttributes) {
    WriteWholeFile(Path("file"), "12345");
    m_Prog.SetReadOnly(true);
    ExpectBareFailure(Setattr(Handle("file"), SetSize(0), NoGuard()), 13, 2);
    ExpectBareFailure(Setattr(Handle("file"), SetMode(0), Guard(5)), 13, 2);
    ExpectBareFailure(Setattr(m_sForged, SetMode(0), NoGuard()), 13, 2);
    ExpectBareFailure(Setattr(m_sForged, XdrBuilder().Raw(std::string(16, '\0')).U32(1).U32(0), NoGuard()), 13, 2);
    ExpectBareFailure(Setattr(Handle("file"), SetNothing(), NoGuard()), 0, 2);
    ExpectBareFailure(Setattr(Handle("file"), SetNothing(), Guard(5)), 10002, 2);
    ExpectBareFailure(Setattr(m_sForged, SetNothing(), NoGuard()), 5, 2);
    EXPECT_EQ(ReadWholeFile(Path("file")), "12345");
}

TEST_F(Nfs3ProgAttributesTest, SetattrLogsItsPathAndItsGuard) {
    WriteWholeFile(Path("file"), "");
    const std::string sHandle = Handle("file");
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Setattr(sHandle, SetNothing(), Guard(5, 6));
    const std::string sTag = "[Nfs3Prog.ProcedureSETATTR]";
    EXPECT_EQ(TakeLog(),
              (Lines{sTag + " Path = " + Path("file"), sTag + " Guard check: 1, time: 5", sTag + " End stat=10002"}));
}

// Owner, group and times change nothing on disk: whether they are handed on rightly shows in this line alone.
TEST_F(Nfs3ProgAttributesTest, EveryAttributeIsHandedOnInItsPlace) {
    WriteWholeFile(Path("file"), "");
    const std::string sHandle = Handle("file");
    const std::string sTag = "[Nfs3Prog.ProcedureSETATTR] Update file attributes, path=" + Path("file");
    const auto setattr = [&](const XdrBuilder& attributes) {
        SetLog(CRuntimeParam::kLogFileAccess);
        ExpectBareFailure(Setattr(sHandle, attributes, NoGuard()), 0, 2);
        return TakeLog().front();
    };
    EXPECT_EQ(setattr(XdrBuilder()
                          .U32(1)
                          .U32(0640)
                          .U32(1)
                          .U32(11)
                          .U32(1)
                          .U32(12)
                          .U32(1)
                          .U64(13)
                          .U32(2)
                          .U32(14)
                          .U32(15)
                          .U32(2)
                          .U32(16)
                          .U32(17)),
              sTag +
                  ", set_mode=1, mode=416, set_uid=1, uid=11, set_gid=1, gid=12, set_size=1, size=13, set_atime=1, "
                  "atime.sec=14, atime.nsec=15, set_mtime=1, mtime.sec=16, mtime.nsec=17");
    EXPECT_EQ(setattr(XdrBuilder().U32(0).U32(0).U32(1).U32(12).U32(0).U32(1).U32(0)),
              sTag +
                  ", set_mode=0, mode=0, set_uid=0, uid=0, set_gid=1, gid=12, set_size=0, size=0, set_atime=1, "
                  "atime.sec=0, atime.nsec=0, set_mtime=0, mtime.sec=0, mtime.nsec=0")
        << "the server's time goes as 0";
    EXPECT_EQ(setattr(XdrBuilder().U32(0).U32(1).U32(11).U32(0).U32(0).U32(0).U32(2).U32(16).U32(17)),
              sTag +
                  ", set_mode=0, mode=0, set_uid=1, uid=11, set_gid=0, gid=0, set_size=0, size=0, set_atime=0, "
                  "atime.sec=0, atime.nsec=0, set_mtime=1, mtime.sec=16, mtime.nsec=17");
    EXPECT_EQ(setattr(XdrBuilder().U32(2).U32(2).U32(2).U32(2).U32(0).U32(3)),
              sTag +
                  ", set_mode=0, mode=0, set_uid=0, uid=0, set_gid=0, gid=0, set_size=0, size=0, set_atime=0, "
                  "atime.sec=0, atime.nsec=0, set_mtime=1, mtime.sec=0, mtime.nsec=0")
        << "only 1 is true; any word but 0 sets a time";
}

TEST_F(Nfs3ProgAttributesTest, ChangesOfARedirectedFileAreTheHostsToGrant) {
    WriteWholeFile(Path("virtual"), "on disk");
    m_Utilities.OpenRedirectedFile(&m_Param, Path("virtual").c_str(), 100, false, 0, 0);
    const XdrBuilder attributes = XdrBuilder().U32(1).U32(0).U32(0).U32(0).U32(1).U64(50).U32(1).U32(2).U32(77).U32(1);
    ExpectBareFailure(Setattr(Handle("virtual"), attributes, NoGuard()), 22, 2);
    m_Log.SetHost([](const Notification&) { return 0; });
    m_Log.Clear();
    ExpectBareFailure(Setattr(Handle("virtual"), attributes, NoGuard()), 0, 2);
    ASSERT_EQ(m_Log.Notifications().size(), 1U);
    const Notification told = m_Log.Notifications()[0];
    EXPECT_EQ(told.sOperation, "update");
    EXPECT_EQ(told.sID, kExportName);
    EXPECT_EQ(told.sIpcID, kIpcID);
    EXPECT_TRUE(told.bSize && told.bAccessTime && told.bLastModifiedTime);
    EXPECT_EQ(told.iSize, 50U);
    EXPECT_EQ(told.lAccessTimeSec, 0U) << "the server's time goes as 0";
    EXPECT_EQ(told.lLastModifiedTimeSec, 77U);
    EXPECT_EQ(ReadWholeFile(Path("virtual")), "on disk");
}

// ---- LOOKUP

TEST_F(Nfs3ProgAttributesTest, LookupAnswersHandleAttributesAndNothingOfTheDirectory) {
    WriteWholeFile(Path("file"), "12345");
    const std::string sReply = Call(kNfsLookup, DirOp("file"));
    ASSERT_EQ(sReply.size(), 4U + 60 + 88 + 4);
    XdrReader reader(sReply);
    EXPECT_EQ(reader.U32(), 0U);
    EXPECT_EQ(Hex(reader.Opaque()), Hex(Handle("file")));
    const auto attributes = ReadPostOpAttr(reader);
    ASSERT_TRUE(attributes.has_value());
    EXPECT_EQ(attributes->iSize, 5U);
    EXPECT_FALSE(ReadPostOpAttr(reader).has_value());
}

TEST_F(Nfs3ProgAttributesTest, LookupOfAMissingNameAnswers2) {
    ExpectBareFailure(Call(kNfsLookup, DirOp("missing")), 2, 1);
    ExpectBareFailure(Call(kNfsLookup, DirOp(m_sForged, "file")), 2, 1);
    ExpectBareFailure(Call(kNfsLookup, DirOp("abc", "file")), 2, 1);
}

TEST_F(Nfs3ProgAttributesTest, LookupOfDotsGoesByTheirMeaning) {
    ::mkdir(Path("dir").c_str(), 0755);
    EXPECT_EQ(LookupStatus("."), 0U);
    EXPECT_EQ(LookupStatus(".."), 2U) << "the parent of the export lies outside";
    XdrReader reader(Call(kNfsLookup, DirOp(Handle("dir"), "..")));
    EXPECT_EQ(reader.U32(), 0U);
    EXPECT_EQ(Hex(reader.Opaque()), Hex(Handle()));
}

TEST_F(Nfs3ProgAttributesTest, LookupOfANameOf4096BytesAnswersTheDirectoryItself) {
    XdrReader reader(Call(kNfsLookup, DirOp(std::string(4096, 'x'))));
    EXPECT_EQ(reader.U32(), 0U);
    EXPECT_EQ(Hex(reader.Opaque()), Hex(Handle()));
    ExpectBareFailure(Call(kNfsLookup, DirOp(std::string(4095, 'x'))), 2, 1);
}

TEST_F(Nfs3ProgAttributesTest, LookupOfALinkAnswersItsTarget) {
    WriteWholeFile(Path("file"), "");
    ASSERT_EQ(::symlink("file", Path("link").c_str()), 0);
    XdrReader reader(Call(kNfsLookup, DirOp("link")));
    EXPECT_EQ(reader.U32(), 0U);
    EXPECT_EQ(Hex(reader.Opaque()), Hex(Handle("file")));
}

TEST_F(Nfs3ProgAttributesTest, AnyBytesMayStandInAName) {
    const std::string sName = "\xff\xfe %s%n\x01\n\\";
    WriteWholeFile(Path(sName), "");
    SetLog(0x3FF);
    EXPECT_EQ(LookupStatus(sName), 0U);
    EXPECT_THAT(TakeLog(), Contains("[Nfs3Prog.ProcedureLOOKUP] Path = " + Path(sName)));
}

TEST_F(Nfs3ProgAttributesTest, LookupLogsHowItsPathWasMatchedToAnExport) {
    WriteWholeFile(Path("file"), "");
    const std::string sRoot = Handle();
    SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogGeneralInfo);
    Call(kNfsLookup, DirOp(sRoot, "file"));
    const std::string sTag = "[Nfs3Prog.ProcedureLOOKUP] ";
    const std::vector<std::string> vsLog = TakeLog();
    ASSERT_GE(vsLog.size(), 8U);
    EXPECT_EQ(std::vector<std::string>(vsLog.begin(), vsLog.begin() + 7),
              (Lines{sTag + "Read path=" + m_Folder.Path() + ", name=file",
                     sTag + "Get canonical path successfully: " + Path("file"), sTag + "Path = " + Path("file"),
                     sTag + "Path scan: \"" + Path("file") + "/\" vs \"" + m_Folder.Path() + "\"",
                     sTag + "Path compare: \"" + Path("file") + "/\" vs \"" + m_Folder.Path() + "/\"",
                     sTag + "Path match", sTag + "Get canonical path successfully: " + Path("file")}));
    EXPECT_EQ(vsLog.back(), sTag + "End stat=0");
}

TEST_F(Nfs3ProgAttributesTest, LookupOfAMissingNameLogsThatItsPathDoesNotExist) {
    const std::string sRoot = Handle();
    SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogGeneralInfo);
    Call(kNfsLookup, DirOp(sRoot, "missing"));
    const std::string sTag = "[Nfs3Prog.ProcedureLOOKUP] ";
    const std::vector<std::string> vsLog = TakeLog();
    EXPECT_EQ(vsLog[1], sTag + "Fail to get canonical path from non-exist path: " + Path("missing"));
    EXPECT_EQ(vsLog[2], sTag + "Path = " + Path("missing"));
    EXPECT_EQ(vsLog.back(), sTag + "End stat=2");
}

// ---- ACCESS

TEST_F(Nfs3ProgAttributesTest, AccessGrantsWhatIsAsked) {
    for (const unsigned int iMask : {0U, 1U, 0x3FU, 0xFFFFFFFFU}) {
        const std::string sReply = Call(kNfsAccess, XdrBuilder().Opaque(Handle()).U32(iMask));
        ASSERT_EQ(sReply.size(), 4U + 88 + 4);
        EXPECT_EQ(WordAt(sReply, 0), 0U);
        EXPECT_EQ(WordAt(sReply, 4), 1U);
        EXPECT_EQ(WordAt(sReply, 92), iMask);
    }
}

TEST_F(Nfs3ProgAttributesTest, ReadOnlyServerGrantsReadingAndLookingUp) {
    m_Prog.SetReadOnly(true);
    EXPECT_EQ(WordAt(Call(kNfsAccess, XdrBuilder().Opaque(Handle()).U32(0x3F)), 92), 0x3U);
    EXPECT_EQ(WordAt(Call(kNfsAccess, XdrBuilder().Opaque(Handle()).U32(0x20)), 92), 0U);
    EXPECT_EQ(WordAt(Call(kNfsAccess, XdrBuilder().Opaque(Handle()).U32(0xFFFFFFFFU)), 92), 0xFFFFFFC3U);
}

TEST_F(Nfs3ProgAttributesTest, AccessToNothingAnswers5) {
    ExpectBareFailure(Call(kNfsAccess, XdrBuilder().Opaque(m_sForged).U32(1)), 5, 1);
    ExpectBareFailure(Call(kNfsAccess, XdrBuilder().Opaque(Handle("missing")).U32(1)), 5, 1);
}

TEST_F(Nfs3ProgAttributesTest, AccessLogsReadOnlyAndWhatIsAskedFor) {
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Call(kNfsAccess, XdrBuilder().Opaque(m_sForged).U32(0x3F));
    EXPECT_EQ(TakeLog(),
              (Lines{"[Nfs3Prog.ProcedureACCESS] Readonly: 0, access: 3f", "[Nfs3Prog.ProcedureACCESS] End stat=5"}));
    m_Prog.SetReadOnly(true);
    Call(kNfsAccess, XdrBuilder().Opaque(m_sForged).U32(0x1));
    EXPECT_THAT(TakeLog(), Contains("[Nfs3Prog.ProcedureACCESS] Readonly: 1, access: 1"));
}

// ---- READLINK

TEST_F(Nfs3ProgAttributesTest, ReadlinkAnswers5ForEveryHandle) {
    SetLog(CRuntimeParam::kLogError | CRuntimeParam::kLogProcFuncArgu);
    ExpectBareFailure(Call(kNfsReadlink, XdrBuilder().Opaque(Handle())), 5, 1);
    EXPECT_EQ(TakeLog(),
              (Lines{"[Nfs3Prog.ProcedureREADLINK] Path record not found", "[Nfs3Prog.ProcedureREADLINK] End stat=5"}));
    ExpectBareFailure(Call(kNfsReadlink, XdrBuilder().Opaque("")), 5, 1);
}

TEST_F(Nfs3ProgAttributesTest, NothingOfAnErrorIsLoggedWithoutItsBit) {
    SetLog(~CRuntimeParam::kLogError);
    Call(kNfsReadlink, XdrBuilder().Opaque(Handle()));
    EXPECT_THAT(m_Log.Texts(), Not(Contains("[Nfs3Prog.ProcedureREADLINK] Path record not found")));
}

}  // namespace
