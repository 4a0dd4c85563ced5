// CREATE, MKDIR, REMOVE, RMDIR, RENAME and the refused SYMLINK, MKNOD, LINK: replies byte by byte, and log lines.
#include <algorithm>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Nfs3ProgFixture.h"

namespace {

using testing::Contains;
using testing::StartsWith;
using Lines = std::vector<std::string>;

class Nfs3ProgNamespaceTest : public Nfs3ProgFixture {
protected:
    enum How : unsigned int { kUnchecked, kGuarded, kExclusive };

    std::string Create(const std::string& sName, unsigned int iHow) {
        XdrBuilder arguments = DirOp(sName);
        arguments.U32(iHow);
        if (iHow == kExclusive) {
            arguments.U64(0x1122334455667788);
        } else if (iHow < kExclusive) {
            arguments.Raw(m_sNoAttributes);
        }
        return Call(kNfsCreate, arguments);
    }
    std::string Mkdir(const std::string& sName) { return Call(kNfsMkdir, DirOp(sName).Raw(m_sNoAttributes)); }
    std::string Rename(const std::string& sFrom, const std::string& sTo) {
        return Call(kNfsRename, DirOp(sFrom).Opaque(Handle()).Opaque(sTo));
    }
    /// The reply of CREATE and MKDIR that made an entry.
    void ExpectMade(const std::string& sReply, const std::string& sName, unsigned int iType) {
        ASSERT_EQ(sReply.size(), 4U + 64 + 88 + 8) << Hex(sReply) << m_Log.Dump();
        XdrReader reader(sReply);
        EXPECT_EQ(reader.U32(), 0U);
        EXPECT_EQ(ReadPostOpHandle(reader), Handle(sName));
        const auto attributes = ReadPostOpAttr(reader);
        ASSERT_TRUE(attributes.has_value());
        EXPECT_EQ(attributes->iType, iType);
        EXPECT_EQ(reader.U64(), 0U) << "nothing of the directory";
    }
    bool Exists(const std::string& sName) const { return ::access(Path(sName).c_str(), F_OK) == 0; }
    unsigned int ModeOf(const std::string& sName) const {
        struct stat status {};
        EXPECT_EQ(::stat(Path(sName).c_str(), &status), 0) << sName;
        return status.st_mode & 07777U;
    }
};

// ---- CREATE

TEST_F(Nfs3ProgNamespaceTest, CreateMakesAFileInEveryMode) {
    ExpectMade(Create("unchecked", kUnchecked), "unchecked", 1);
    ExpectMade(Create("guarded", kGuarded), "guarded", 1);
    ExpectMade(Create("exclusive", kExclusive), "exclusive", 1);
    EXPECT_EQ(ReadWholeFile(Path("guarded")), "");
}

TEST_F(Nfs3ProgNamespaceTest, GuardedCreateOfAnExistingFileAnswers17) {
    WriteWholeFile(Path("file"), "content");
    ExpectBareFailure(Create("file", kGuarded), 17, 2);
    ExpectMade(Create("file", kUnchecked), "file", 1);
    ExpectMade(Create("file", kExclusive), "file", 1);
    EXPECT_EQ(ReadWholeFile(Path("file")), "content");
    ::mkdir(Path("dir").c_str(), 0755);
    ExpectBareFailure(Create("dir", kGuarded), 17, 2);
}

TEST_F(Nfs3ProgNamespaceTest, CreateSetsAttributes) {
    XdrBuilder arguments = DirOp("file");
    arguments.U32(kGuarded).U32(1).U32(01604).U32(0).U32(0).U32(1).U64(3).U32(1).U32(1);
    ExpectMade(Call(kNfsCreate, arguments), "file", 1);
    EXPECT_EQ(ModeOf("file"), 0604U) << "without the sticky bit";
    EXPECT_EQ(ReadWholeFile(Path("file")), std::string(3, '\0'));
}

TEST_F(Nfs3ProgNamespaceTest, CreateInAnyOtherModeAnswers5) {
    ExpectBareFailure(Create("file", 3), 5, 2);
    ExpectBareFailure(Create("file", 0xFFFFFFFFU), 5, 2);
    EXPECT_FALSE(Exists("file"));
}

TEST_F(Nfs3ProgNamespaceTest, CreateThatTheHostRefusesAnswers5) {
    ::mkdir(Path("dir").c_str(), 0755);
    ExpectBareFailure(Create("dir", kUnchecked), 5, 2);
    ExpectBareFailure(Create(std::string(256, 'n'), kUnchecked), 5, 2);
    ExpectBareFailure(Create("missing/file", kUnchecked), 5, 2);
    ExpectBareFailure(Create("", kUnchecked), 5, 2);
}

TEST_F(Nfs3ProgNamespaceTest, CreateUnderNothingKnownAnswers5) {
    const XdrBuilder how = XdrBuilder().U32(kUnchecked).Raw(m_sNoAttributes);
    ExpectBareFailure(Call(kNfsCreate, DirOp(m_sForged, "file").Raw(how.Bytes())), 5, 2);
    ExpectBareFailure(Call(kNfsCreate, DirOp("abc", "file").Raw(how.Bytes())), 5, 2);
    ExpectBareFailure(Call(kNfsMkdir, DirOp(m_sForged, "dir").Raw(m_sNoAttributes)), 5, 2);
}

TEST_F(Nfs3ProgNamespaceTest, CreateLogsItsNameItsModeAndWhetherTheFileWasThere) {
    const std::string sRoot = Handle();
    const std::string sTag = "[Nfs3Prog.ProcedureCREATE] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Call(kNfsCreate, DirOp(sRoot, "file").U32(kGuarded).Raw(m_sNoAttributes));
    std::vector<std::string> vsLog = TakeLog();
    ASSERT_EQ(vsLog.size(), 6U);
    EXPECT_EQ(vsLog[0], sTag + "Read path=" + m_Folder.Path() + ", name=file");
    EXPECT_EQ(vsLog[1], sTag + "Path = " + Path("file"));
    EXPECT_EQ(vsLog[2], sTag + "Mode: 1, Is file exist before create: 0");
    EXPECT_EQ(vsLog[3], sTag + "Is file exist after create: 1");
    EXPECT_EQ(vsLog[5], sTag + "End stat=0");
    Call(kNfsCreate, DirOp(sRoot, "file").U32(kGuarded).Raw(m_sNoAttributes));
    vsLog = TakeLog();
    EXPECT_EQ(std::vector<std::string>(vsLog.begin() + 2, vsLog.end()),
              (Lines{sTag + "Mode: 1, Is file exist before create: 1", sTag + "Is file exist after create: 1",
                     sTag + "End stat=17"}));
}

// A refused CREATE says nothing of the file: it was not looked for.
TEST_F(Nfs3ProgNamespaceTest, RefusedCreateLogsWhatItHadReadBeforeItsEnd) {
    const std::string sRoot = Handle();
    const std::string sTag = "[Nfs3Prog.ProcedureCREATE] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogError);
    Call(kNfsCreate, DirOp(m_sForged, "file").U32(kGuarded).Raw(m_sNoAttributes));
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Path record not found", sTag + "End stat=5"}));
    Call(kNfsCreate, DirOp(sRoot, "file").U32(7));
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Read path=" + m_Folder.Path() + ", name=file", sTag + "Path = " + Path("file"),
                                sTag + "Mode: 7, Is file exist before create: 0",
                                sTag + "Is file exist after create: 0", sTag + "End stat=5"}));
    m_Prog.SetReadOnly(true);
    Call(kNfsCreate, DirOp(sRoot, "file").U32(kGuarded).Raw(m_sNoAttributes));
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Read path=" + m_Folder.Path() + ", name=file", sTag + "Path = " + Path("file"),
                                sTag + "End stat=13"}));
}

TEST_F(Nfs3ProgNamespaceTest, AttributesOfCreateAreHandedOn) {
    const std::string sRoot = Handle();
    const std::string sTag = "[Nfs3Prog.ProcedureCREATE] Update file attributes, path=";
    SetLog(CRuntimeParam::kLogFileAccess);
    Call(kNfsCreate, DirOp(sRoot, "a").U32(kUnchecked).U32(1).U32(0600).U32(0).U32(1).U32(12).U32(0).U32(0).U32(1));
    EXPECT_THAT(TakeLog(), Contains(sTag + Path("a") +
                                    ", set_mode=1, mode=384, set_uid=0, uid=0, set_gid=1, gid=12, set_size=0, size=0, "
                                    "set_atime=0, atime.sec=0, atime.nsec=0, set_mtime=1, mtime.sec=0, mtime.nsec=0"));
    Call(kNfsCreate, DirOp(sRoot, "b").U32(kExclusive).U64(0x1111111122222222));
    EXPECT_THAT(TakeLog(), Contains(sTag + Path("b") +
                                    ", set_mode=0, mode=0, set_uid=0, uid=0, set_gid=0, gid=0, set_size=0, size=0, "
                                    "set_atime=0, atime.sec=0, atime.nsec=0, set_mtime=0, mtime.sec=0, mtime.nsec=0"));
}

// ---- MKDIR

TEST_F(Nfs3ProgNamespaceTest, MkdirWithoutAModeMakes0755) {
    const mode_t iMask = ::umask(0);
    ExpectMade(Mkdir("dir"), "dir", 2);
    ExpectMade(Call(kNfsMkdir, DirOp("other").U32(1).U32(0700).Raw(std::string(20, '\0'))), "other", 2);
    ::umask(iMask);
    EXPECT_EQ(ModeOf("dir"), 0755U);
    EXPECT_EQ(ModeOf("other"), 0700U);
}

// The mode of MKDIR goes to the host as it was sent, unlike that of SETATTR and CREATE.
TEST_F(Nfs3ProgNamespaceTest, MkdirHandsTheModeOnAsSent) {
    const mode_t iMask = ::umask(0);
    ExpectMade(Call(kNfsMkdir, DirOp("sticky").U32(1).U32(01777).Raw(std::string(20, '\0'))), "sticky", 2);
    ::umask(iMask);
    EXPECT_EQ(ModeOf("sticky"), 01777U);
}

TEST_F(Nfs3ProgNamespaceTest, MkdirOfWhatExistsAnswers5) {
    WriteWholeFile(Path("file"), "content");
    ExpectBareFailure(Mkdir("file"), 5, 2);
    ExpectBareFailure(Mkdir("."), 5, 2);
    ExpectBareFailure(Mkdir("missing/dir"), 5, 2);
    EXPECT_EQ(ReadWholeFile(Path("file")), "content");
}

// ---- REMOVE and RMDIR

TEST_F(Nfs3ProgNamespaceTest, RemoveRemoves) {
    WriteWholeFile(Path("file"), "");
    ExpectBareFailure(Call(kNfsRemove, DirOp("file")), 0, 2);
    EXPECT_FALSE(Exists("file"));
    ExpectBareFailure(Call(kNfsRemove, DirOp("file")), 2, 2);
}

TEST_F(Nfs3ProgNamespaceTest, RmdirRemovesEmptyDirectories) {
    ::mkdir(Path("dir").c_str(), 0755);
    WriteWholeFile(Path("dir/file"), "");
    ExpectBareFailure(Call(kNfsRmdir, DirOp("dir")), 5, 2);
    ExpectBareFailure(Call(kNfsRemove, DirOp("dir")), 5, 2);
    ExpectBareFailure(Call(kNfsRmdir, DirOp("dir/file")), 5, 2);
    ::unlink(Path("dir/file").c_str());
    ExpectBareFailure(Call(kNfsRmdir, DirOp("dir")), 0, 2);
    EXPECT_FALSE(Exists("dir"));
    ExpectBareFailure(Call(kNfsRmdir, DirOp("dir")), 2, 2);
}

TEST_F(Nfs3ProgNamespaceTest, RemovalUnderNothingKnownAnswers2) {
    ExpectBareFailure(Call(kNfsRemove, DirOp(m_sForged, "file")), 2, 2);
    ExpectBareFailure(Call(kNfsRmdir, DirOp(m_sForged, "file")), 2, 2);
}

TEST_F(Nfs3ProgNamespaceTest, RemovalOfARedirectedFileIsToldToTheHost) {
    WriteWholeFile(Path("virtual"), "");
    m_Utilities.OpenRedirectedFile(&m_Param, Path("virtual").c_str(), 100, false, 0, 0);
    m_Log.SetHost([](const Notification&) { return 0; });
    ExpectBareFailure(Call(kNfsRemove, DirOp("virtual")), 0, 2);
    ASSERT_EQ(m_Log.Notifications().size(), 1U);
    EXPECT_EQ(m_Log.Notifications()[0].sOperation, "remove");
    EXPECT_EQ(m_Log.Notifications()[0].sPath, Path("virtual"));
}

// ---- RENAME

TEST_F(Nfs3ProgNamespaceTest, RenameKeepsTheHandle) {
    WriteWholeFile(Path("old"), "content");
    const std::string sHandle = Handle("old");
    ExpectBareFailure(Rename("old", "new"), 0, 4);
    EXPECT_FALSE(Exists("old"));
    EXPECT_EQ(ReadWholeFile(Path("new")), "content");
    XdrReader reader(Call(kNfsLookup, DirOp("new")));
    EXPECT_EQ(reader.U32(), 0U);
    EXPECT_EQ(Hex(reader.Opaque()), Hex(sHandle));
    EXPECT_EQ(WordAt(Call(kNfsGetattr, XdrBuilder().Opaque(sHandle)), 0), 0U);
}

TEST_F(Nfs3ProgNamespaceTest, RenameOntoAnExistingFileReplacesIt) {
    WriteWholeFile(Path("old"), "old");
    WriteWholeFile(Path("new"), "new");
    Handle("old");
    ExpectBareFailure(Rename("old", "new"), 0, 4);
    EXPECT_EQ(ReadWholeFile(Path("new")), "old");
    EXPECT_FALSE(Exists("old"));
}

TEST_F(Nfs3ProgNamespaceTest, RenameOntoItselfSucceedsAndChangesNothing) {
    WriteWholeFile(Path("file"), "content");
    ::mkdir(Path("dir").c_str(), 0755);
    ExpectBareFailure(Rename("file", "file"), 0, 4);
    ExpectBareFailure(Rename("file", "dir/../file"), 0, 4);
    ExpectBareFailure(Rename("dir", "dir"), 0, 4);
    EXPECT_EQ(ReadWholeFile(Path("file")), "content");
}

TEST_F(Nfs3ProgNamespaceTest, RenameOfWhatIsMissingAnswers2) {
    ExpectBareFailure(Rename("missing", "new"), 2, 4);
    ExpectBareFailure(Call(kNfsRename, DirOp(m_sForged, "x").Opaque(Handle()).Opaque("y")), 2, 4);
}

TEST_F(Nfs3ProgNamespaceTest, RenameToWhereNoExportIsAnswers5) {
    WriteWholeFile(Path("file"), "");
    SetLog(CRuntimeParam::kLogError);
    ExpectBareFailure(Call(kNfsRename, DirOp("file").Opaque(m_sForged).Opaque("y")), 5, 4);
    EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureRENAME] Path record not found"}));
    ExpectBareFailure(Rename("file", "missing/new"), 5, 4);
    EXPECT_TRUE(Exists("file"));
}

TEST_F(Nfs3ProgNamespaceTest, RenameBetweenExportsCarriesTheSourcesIdentity) {
    const TempFolder other;
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, other.Path().c_str(), "other", "", nullptr));
    WriteWholeFile(Path("file"), "content");
    Handle("file");
    ExpectBareFailure(Call(kNfsRename, DirOp("file").Opaque(HandleOfPath(other.Path())).Opaque("file")), 0, 4);
    EXPECT_EQ(ReadWholeFile(other / "file"), "content");
    EXPECT_STREQ(m_Param.GetID(), kExportName);
}

// ---- Read only

TEST_F(Nfs3ProgNamespaceTest, ReadOnlyServerChangesNothing) {
    WriteWholeFile(Path("file"), "content");
    ::mkdir(Path("dir").c_str(), 0755);
    m_Prog.SetReadOnly(true);
    ExpectBareFailure(Create("new", kUnchecked), 13, 2);
    ExpectBareFailure(Create("file", kGuarded), 13, 2);
    ExpectBareFailure(Mkdir("new"), 13, 2);
    ExpectBareFailure(Call(kNfsMkdir, DirOp(m_sForged, "dir").Raw(m_sNoAttributes)), 13, 2);
    ExpectBareFailure(Call(kNfsRemove, DirOp("file")), 13, 2);
    ExpectBareFailure(Call(kNfsRemove, DirOp("missing")), 2, 2);
    ExpectBareFailure(Call(kNfsRmdir, DirOp("dir")), 13, 2);
    ExpectBareFailure(Call(kNfsRmdir, DirOp("missing")), 2, 2);
    ExpectBareFailure(Call(kNfsRemove, DirOp(".")), 13, 2);
    ExpectBareFailure(Rename("file", "new"), 13, 4);
    ExpectBareFailure(Rename("missing", "new"), 2, 4);
    ExpectBareFailure(Rename("file", "file"), 13, 4);
    EXPECT_TRUE(Exists("file") && Exists("dir") && !Exists("new"));
}

// ---- Log lines of the other procedures

TEST_F(Nfs3ProgNamespaceTest, MkdirLogsItsNameAndTheNewDirectorysAttributes) {
    const std::string sRoot = Handle();
    const std::string sTag = "[Nfs3Prog.ProcedureMKDIR] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Call(kNfsMkdir, DirOp(sRoot, "dir").Raw(m_sNoAttributes));
    const std::vector<std::string> vsLog = TakeLog();
    ASSERT_EQ(vsLog.size(), 4U) << m_Log.Dump();
    EXPECT_EQ(vsLog[0], sTag + "Read path=" + m_Folder.Path() + ", name=dir");
    EXPECT_EQ(vsLog[1], sTag + "Path = " + Path("dir"));
    EXPECT_THAT(vsLog[2], StartsWith(sTag + "Path=" + Path("dir") + ", type=2, "));
    EXPECT_EQ(vsLog[3], sTag + "End stat=0");
}

TEST_F(Nfs3ProgNamespaceTest, RenameLogsTheSourceBeforeTheTarget) {
    WriteWholeFile(Path("old"), "content");
    Handle("old");
    const std::string sRoot = Handle();
    const std::string sTag = "[Nfs3Prog.ProcedureRENAME] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Call(kNfsRename, DirOp(sRoot, "old").Opaque(sRoot).Opaque("new"));
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Read path=" + m_Folder.Path() + ", name=old", sTag + "Path = " + Path("old"),
                                sTag + "Read path=" + m_Folder.Path() + ", name=new", sTag + "Path = " + Path("new"),
                                sTag + "End stat=0"}));
}

TEST_F(Nfs3ProgNamespaceTest, RemovalsLogTheirNameOrThatTheirDirectoryIsUnknown) {
    const std::string sRoot = Handle();
    SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogError);
    for (const unsigned int iProc : {kNfsRemove, kNfsRmdir}) {
        const std::string sTag = iProc == kNfsRemove ? "[Nfs3Prog.ProcedureREMOVE] " : "[Nfs3Prog.ProcedureRMDIR] ";
        Call(iProc, DirOp(sRoot, "missing"));
        EXPECT_EQ(TakeLog(), (Lines{sTag + "Read path=" + m_Folder.Path() + ", name=missing",
                                    sTag + "Path = " + Path("missing"), sTag + "End stat=2"}));
        Call(iProc, DirOp(m_sForged, "file"));
        EXPECT_EQ(TakeLog(), (Lines{sTag + "Path record not found", sTag + "End stat=2"}));
    }
}

// What is asked beyond the checks of every call, so that no client leaves the exports, is asked quietly.
TEST_F(Nfs3ProgNamespaceTest, ThePathOfACallIsLookedUpInTheLogOnce) {
    WriteWholeFile(Path("old"), "");
    Handle("old");
    const std::string sRoot = Handle();
    SetLog(CRuntimeParam::kLogGeneralInfo);
    const auto lookUp = [this](const std::string& sTag, const std::string& sName) {
        const std::string sRootPath = m_Folder.Path();
        return std::vector<std::string>{sTag + "Path scan: \"" + Path(sName) + "/\" vs \"" + sRootPath + "\"",
                                        sTag + "Path compare: \"" + Path(sName) + "/\" vs \"" + sRootPath + "/\"",
                                        sTag + "Path match"};
    };
    const std::string sRename = "[Nfs3Prog.ProcedureRENAME] ";
    Call(kNfsRename, DirOp(sRoot, "old").Opaque(sRoot).Opaque("new"));
    std::vector<std::string> vsExpected{sRename + "Get canonical path successfully: " + Path("old"),
                                        sRename + "Fail to get canonical path from non-exist path: " + Path("new")};
    std::ranges::copy(lookUp(sRename, "old"), std::back_inserter(vsExpected));
    EXPECT_EQ(TakeLog(), vsExpected);

    const std::string sRemove = "[Nfs3Prog.ProcedureREMOVE] ";
    Call(kNfsRemove, DirOp(sRoot, "new"));
    vsExpected = {sRemove + "Get canonical path successfully: " + Path("new")};
    std::ranges::copy(lookUp(sRemove, "new"), std::back_inserter(vsExpected));
    EXPECT_EQ(TakeLog(), vsExpected);
}

// ---- Not served

TEST_F(Nfs3ProgNamespaceTest, SymlinkAnswers5) {
    SetLog(CRuntimeParam::kLogError);
    for (const std::string& sAttributes :
         {m_sNoAttributes, XdrBuilder().U32(1).U32(0777).Raw(std::string(20, '\0')).Bytes()}) {
        ExpectBareFailure(Call(kNfsSymlink, DirOp("link").Raw(sAttributes).Opaque("target")), 5, 2);
        EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureSYMLINK] Path record not found"}));
    }
    EXPECT_FALSE(Exists("link"));
}

TEST_F(Nfs3ProgNamespaceTest, LinkAnswers5) {
    WriteWholeFile(Path("file"), "");
    SetLog(CRuntimeParam::kLogError);
    ExpectBareFailure(Call(kNfsLink, XdrBuilder().Opaque(Handle("file")).Opaque(Handle()).Opaque("link")), 5, 3);
    EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureLINK] Path record not found"}));
    EXPECT_FALSE(Exists("link"));
}

TEST_F(Nfs3ProgNamespaceTest, MknodAnswersByTheType) {
    SetLog(CRuntimeParam::kLogError);
    for (const unsigned int iType : {3U, 4U}) {
        ExpectBareFailure(Call(kNfsMknod, DirOp("node").U32(iType).Raw(m_sNoAttributes).U32(1).U32(3)), 10004, 2);
    }
    for (const unsigned int iType : {6U, 7U}) {
        ExpectBareFailure(Call(kNfsMknod, DirOp("node").U32(iType).Raw(m_sNoAttributes)), 10004, 2);
    }
    TakeLog();
    for (const unsigned int iType : {0U, 1U, 2U, 5U, 8U, 0xFFFFFFFFU}) {
        ExpectBareFailure(Call(kNfsMknod, DirOp("node").U32(iType)), 10007, 2);
        EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureMKNOD] Path record not found"}));
    }
    EXPECT_FALSE(Exists("node"));
}

}  // namespace
