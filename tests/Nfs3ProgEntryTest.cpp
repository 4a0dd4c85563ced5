// What REMOVE, RMDIR and RENAME act on: the entry that is named, and never something that the name leads to or is cut
// to.
#include <gmock/gmock.h>

#include "Nfs3NamesFixture.h"

namespace {

using Lines = std::vector<std::string>;

class Nfs3ProgEntryTest : public Nfs3NamesFixture {
protected:
    std::string LinkOf(const std::string& sName) const { return std::filesystem::read_symlink(Path(sName)); }
    std::size_t CountEntries() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(m_Folder.Path()), {}));
    }
};

// ---- Links

TEST_F(Nfs3ProgEntryTest, RemovalOfALinkLeavesWhatItLeadsTo) {
    WriteWholeFile(Path("file"), "content");
    MakeFolder("dir");
    Link("file", "toFile");
    Link("dir", "toDir");
    Link("nowhere", "dangling");
    Link(m_Outside.Path(), "out");
    Link("toFile", "toLink");
    for (const char* pcName : {"toLink", "toFile", "toDir", "dangling", "out"}) {
        EXPECT_EQ(Remove(pcName), 0U) << pcName;
        EXPECT_FALSE(Exists(pcName));
        EXPECT_EQ(Remove(pcName), 2U) << pcName << " is gone";
    }
    EXPECT_EQ(ReadWholeFile(Path("file")), "content");
    EXPECT_TRUE(IsFolder("dir"));
}

TEST_F(Nfs3ProgEntryTest, RmdirOfALinkFails) {
    MakeFolder("dir");
    Link("dir", "toDir");
    Link("nowhere", "dangling");
    EXPECT_EQ(Rmdir("toDir"), 5U);
    EXPECT_EQ(Rmdir("dangling"), 5U);
    EXPECT_EQ(Rmdir("toDir/"), 2U) << "with the slash behind it, it is a folder or nothing";
    EXPECT_EQ(Remove("toDir/"), 2U);
    EXPECT_EQ(Rename("toDir/", "other"), 2U);
    EXPECT_TRUE(IsLink("toDir") && IsLink("dangling") && IsFolder("dir"));
}

TEST_F(Nfs3ProgEntryTest, RenameOfALinkLeavesWhatItLeadsTo) {
    WriteWholeFile(Path("file"), "content");
    MakeFolder("dir");
    Link("file", "toFile");
    Link("dir", "toDir");
    Link("nowhere", "dangling");
    for (const std::string sName : {"toFile", "toDir", "dangling"}) {
        const std::string sTarget = LinkOf(sName);
        EXPECT_EQ(Rename(sName, sName + "2"), 0U) << sName;
        EXPECT_FALSE(Exists(sName));
        EXPECT_EQ(LinkOf(sName + "2"), sTarget);
    }
    EXPECT_EQ(ReadWholeFile(Path("file")), "content");
    EXPECT_TRUE(IsFolder("dir"));
}

TEST_F(Nfs3ProgEntryTest, RenameOntoALinkReplacesTheLink) {
    for (const char* pcTarget : {"precious", "folder", "nowhere"}) {
        WriteWholeFile(Path("new"), "new");
        Handle("new");
        WriteWholeFile(Path("precious"), "precious");
        std::filesystem::create_directory(Path("folder"));
        Link(pcTarget, "link");
        EXPECT_EQ(Rename("new", "link"), 0U) << pcTarget;
        EXPECT_FALSE(IsLink("link"));
        EXPECT_EQ(ReadWholeFile(Path("link")), "new");
        EXPECT_EQ(ReadWholeFile(Path("precious")), "precious");
        EXPECT_TRUE(IsFolder("folder"));
        EXPECT_FALSE(Exists("new") || Exists("nowhere"));
        EXPECT_EQ(Remove("link"), 0U);
    }
}

// A client that removes a tree goes into what LOOKUP shows as folders and removes what is left by its name.
TEST_F(Nfs3ProgEntryTest, TreeIsRemovedWithoutWhatItsLinksLeadTo) {
    MakeFolder("precious");
    WriteWholeFile(Path("precious/file"), "precious");
    MakeFolder("tree");
    WriteWholeFile(Path("tree/file"), "");
    Link("../precious", "tree/shortcut");
    Link("../precious/file", "tree/copy");
    for (const char* pcName : {"tree/file", "tree/shortcut", "tree/copy"}) {
        EXPECT_EQ(Remove(pcName), 0U) << pcName;
    }
    EXPECT_EQ(Rmdir("tree"), 0U);
    EXPECT_EQ(ReadWholeFile(Path("precious/file")), "precious");
}

TEST_F(Nfs3ProgEntryTest, LinksOnTheWayAreFollowed) {
    MakeFolder("dir");
    WriteWholeFile(Path("dir/file"), "content");
    Link("file", "dir/inner");
    Link("dir", "way");
    EXPECT_EQ(Remove("way/inner"), 0U);
    EXPECT_FALSE(Exists("dir/inner"));
    Handle("dir/file");
    EXPECT_EQ(Rename("way/file", "way/../moved"), 0U);
    EXPECT_EQ(ReadWholeFile(Path("moved")), "content");
    EXPECT_EQ(Mkdir("way/new"), 0U);
    EXPECT_EQ(Rmdir("way/new/"), 0U) << "a slash behind a folder is no harm";
    EXPECT_TRUE(IsLink("way"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Path("dir")), {}), 0);
}

TEST_F(Nfs3ProgEntryTest, WhatALinkLeadsToIsStillFoundByItsName) {
    WriteWholeFile(Path("file"), "content");
    Link("file", "link");
    XdrReader reader(Call(kNfsLookup, DirOp("link")));
    EXPECT_EQ(reader.U32(), 0U);
    EXPECT_EQ(Hex(reader.Opaque()), Hex(Handle("file")));
    EXPECT_EQ(Create("link"), 0U) << "opens what is there";
    EXPECT_EQ(Create("link", 1), 17U);
    EXPECT_EQ(Mkdir("link"), 5U);
    EXPECT_TRUE(IsLink("link"));
    EXPECT_EQ(ReadWholeFile(Path("file")), "content");
}

TEST_F(Nfs3ProgEntryTest, PathInTheLogIsThatOfTheEntry) {
    MakeFolder("dir");
    Link("dir", "way");
    Link("nowhere", "dir/link");
    const std::string sRoot = Handle();
    const std::string sTag = "[Nfs3Prog.ProcedureREMOVE] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Call(kNfsRemove, DirOp(sRoot, "way/link"));
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Read path=" + m_Folder.Path() + ", name=way/link",
                                sTag + "Path = " + Path("dir/link"), sTag + "End stat=0"}));
}

// ---- Names of no entry

TEST_F(Nfs3ProgEntryTest, NameThatStandsForTheFolderChangesNothing) {
    MakeFolder("sub");
    const std::string sSub = Handle("sub");
    WriteWholeFile(Path("file"), "content");
    Handle("file");
    for (const char* pcName : {"", ".", "..", "/", "./", "./.", "../sub/.", "../sub//."}) {
        EXPECT_NE(Status(kNfsRemove, DirOp(sSub, pcName)), 0U) << pcName;
        EXPECT_NE(Status(kNfsRmdir, DirOp(sSub, pcName)), 0U) << pcName;
        EXPECT_NE(Status(kNfsRename, DirOp(sSub, pcName).Opaque(Handle()).Opaque("moved")), 0U) << pcName;
        EXPECT_EQ(Status(kNfsRename, DirOp("file").Opaque(sSub).Opaque(pcName)), 5U) << pcName;
        for (const unsigned int iHow : {0U, 1U}) {
            EXPECT_EQ(Status(kNfsCreate, DirOp(sSub, pcName).U32(iHow).Raw(m_sNoAttributes)), 5U) << pcName;
        }
        EXPECT_EQ(Status(kNfsCreate, DirOp(sSub, pcName).U32(2).U64(0)), 5U) << pcName;
        EXPECT_EQ(Status(kNfsMkdir, DirOp(sSub, pcName).Raw(m_sNoAttributes)), 5U) << pcName;
        EXPECT_TRUE(IsFolder("sub") && Exists("file")) << pcName;
        EXPECT_EQ(CountEntries(), 2U) << pcName;
    }
    EXPECT_EQ(Status(kNfsLookup, DirOp(sSub, ".")), 0U);
    EXPECT_EQ(Status(kNfsLookup, DirOp(sSub, "..")), 0U) << "LOOKUP finds folders by them as ever";
    EXPECT_EQ(Status(kNfsLookup, DirOp(sSub, "")), 0U);
}

TEST_F(Nfs3ProgEntryTest, NameThatIsTooLongChangesNothing) {
    MakeFolder("sub");
    const std::string sSub = Handle("sub");
    WriteWholeFile(Path("file"), "content");
    Handle("file");
    for (const std::size_t nSize : {256U, 257U, 4095U, 4096U, 4097U, 70000U}) {
        const std::string sName(nSize, 'x');
        EXPECT_EQ(Status(kNfsRemove, DirOp(sSub, sName)), 2U) << nSize;
        EXPECT_EQ(Status(kNfsRmdir, DirOp(sSub, sName)), 2U) << nSize;
        EXPECT_EQ(Status(kNfsRename, DirOp(sSub, sName).Opaque(Handle()).Opaque("moved")), 2U) << nSize;
        EXPECT_EQ(Status(kNfsRename, DirOp("file").Opaque(sSub).Opaque(sName)), 5U) << nSize;
        EXPECT_EQ(Status(kNfsCreate, DirOp(sSub, sName).U32(0).Raw(m_sNoAttributes)), 5U) << nSize;
        EXPECT_EQ(Status(kNfsMkdir, DirOp(sSub, sName).Raw(m_sNoAttributes)), 5U) << nSize;
        EXPECT_TRUE(IsFolder("sub") && Exists("file")) << nSize;
        EXPECT_EQ(CountEntries(), 2U) << nSize;
    }
}

TEST_F(Nfs3ProgEntryTest, NameWithANulInsideIsNotTheOneBeforeIt) {
    const std::string sNul("\0", 1);
    MakeFolder("dir");
    WriteWholeFile(Path("file"), "content");
    Handle("file");
    EXPECT_EQ(Remove("file" + sNul), 2U);
    EXPECT_EQ(Remove("file" + sNul + "more"), 2U);
    EXPECT_EQ(Rmdir("dir" + sNul + "more"), 2U);
    EXPECT_EQ(Rename("file" + sNul + "more", "moved"), 2U);
    EXPECT_EQ(Rename("file", "moved" + sNul), 5U);
    EXPECT_EQ(Rename("file", sNul), 5U);
    EXPECT_EQ(Create("new" + sNul + "more"), 5U);
    EXPECT_EQ(Create("file" + sNul + "more", 1), 5U);
    EXPECT_EQ(Mkdir("new" + sNul + "more"), 5U);
    EXPECT_EQ(ReadWholeFile(Path("file")), "content");
    EXPECT_TRUE(IsFolder("dir"));
    EXPECT_EQ(CountEntries(), 2U);
}

TEST_F(Nfs3ProgEntryTest, LongestNameIsAName) {
    const std::string sName(255, 'x');
    EXPECT_EQ(Create(sName), 0U);
    EXPECT_EQ(Rename(sName, std::string(255, 'y')), 0U);
    EXPECT_EQ(Remove(std::string(255, 'y')), 0U);
    for (const char* pcName : {"...", ".hidden", "..more", "a.", "sub/.."}) {
        EXPECT_NE(Remove(pcName), 0U) << pcName << " is not there";
    }
    EXPECT_EQ(Create("..."), 0U);
    EXPECT_EQ(Remove("..."), 0U);
}

TEST_F(Nfs3ProgEntryTest, ReadOnlyServerTellsMissingNamesFromOthers) {
    WriteWholeFile(Path("file"), "content");
    Link("nowhere", "link");
    m_Prog.SetReadOnly(true);
    EXPECT_EQ(Remove("link"), 13U) << "the link is there";
    EXPECT_EQ(Rename("link", "other"), 13U);
    EXPECT_EQ(Remove(std::string(4096, 'x')), 2U);
    EXPECT_EQ(Remove(std::string("file\0", 5)), 2U);
    EXPECT_EQ(Create(std::string("new\0", 4)), 13U);
}

// ---- Folders that hold an export

TEST_F(Nfs3ProgEntryTest, FolderThatHoldsAnExportIsNotRenamed) {
    std::filesystem::create_directories(Path("a/b/export"));
    Export(Path("a/b/export"), "inner");
    Link("a", "way");
    MakeFolder("free");
    Handle("a");
    Handle("a/b");
    Handle("free");
    for (const char* pcName : {"a", "a/", "./a", "a/b", "a/b/", "way/b", "way/../a", "free/../a/b", "a/b/export"}) {
        EXPECT_EQ(Rename(pcName, "moved"), 5U) << pcName;
        EXPECT_FALSE(Exists("moved"));
        EXPECT_EQ(Rename("free", pcName), 5U) << "it is not replaced either: " << pcName;
        EXPECT_TRUE(IsFolder("free") && IsFolder("a/b/export")) << pcName;
    }
    EXPECT_EQ(Rename("a", "a"), 0U) << "onto itself: nothing is changed";
    EXPECT_EQ(Rename("a/b", "way/b"), 0U);
    EXPECT_EQ(Rename("a/b/export", "a/b/export"), 0U);
    EXPECT_EQ(Rename("free", "a/free"), 0U) << "beside it is free";
    m_Utilities.RemoveMountInfoByExportName("inner");
    EXPECT_EQ(Rename("a/b", "moved"), 0U);
    EXPECT_TRUE(IsFolder("moved/export"));
}

TEST_F(Nfs3ProgEntryTest, LinkThatLeadsToAnExportIsALinkLikeAnyOther) {
    std::filesystem::create_directories(Path("a/export"));
    Export(Path("a/export"), "inner");
    Link("a/export", "link");
    Link("a", "way");
    EXPECT_EQ(Rename("link", "moved"), 0U);
    EXPECT_EQ(Remove("moved"), 0U);
    EXPECT_EQ(Remove("way"), 0U);
    EXPECT_TRUE(IsFolder("a/export"));
}

TEST_F(Nfs3ProgEntryTest, LinkOnTheWayToAnExportIsNotRemoved) {
    std::filesystem::create_directories(Path("a/export"));
    Export(Path("a/export"), "inner");
    std::filesystem::rename(Path("a"), Path("b"));
    Link("b", "a");
    EXPECT_EQ(Remove("a"), 5U) << "a client that made a folder in its place would decide what is exported";
    EXPECT_EQ(Rename("a", "c"), 5U);
    EXPECT_TRUE(IsLink("a"));
}

// ---- The export of another client

/// The fixture's export "data" and a second one, "other", each mounted by a client of its own.
class Nfs3ProgClientTest : public Nfs3NamesFixture {
protected:
    static constexpr const char* kStranger = "10.0.0.6";

    Nfs3ProgClientTest() {
        WriteWholeFile(Path("file"), "mine");
        WriteWholeFile(m_Other / "file", "theirs");
        Export(m_Other.Path(), "other");
        Mount("data", kClientID);
        Mount("other", kStranger);
        for (const std::string& sPath : {Path("file"), m_Other / "file"}) {
            HandleOfPath(sPath);
        }
    }
    void Mount(const char* pcName, const char* pcClient) {
        EXPECT_TRUE(m_Utilities.UpdateMountClientIpAddrByExportName(pcName, pcClient, nullptr, nullptr));
    }
    void ExpectRefusal(const std::string& sProcedure) {
        EXPECT_THAT(TakeLog(), testing::Contains("[Nfs3Prog.Procedure" + sProcedure +
                                                 "] Export \"other\" is mounted by 10.0.0.6"));
    }

    TempFolder m_Other;
};

TEST_F(Nfs3ProgClientTest, MountedExportServesItsClientAlone) {
    const std::string sFile = HandleOfPath(m_Other / "file");
    const std::string sRoot = HandleOfPath(m_Other.Path());
    const XdrBuilder how = XdrBuilder().U32(0).Raw(m_sNoAttributes);
    struct Case {
        unsigned int iProc;
        const char* pcName;
        std::string sArguments;
        unsigned int iStatus;
    };
    const std::vector<Case> vCases{
        {kNfsGetattr, "GETATTR", XdrBuilder().Opaque(sFile).Bytes(), 5},
        {kNfsSetattr, "SETATTR",
         XdrBuilder().Opaque(sFile).U32(0).U32(0).U32(0).U32(1).U64(0).U32(0).U32(0).U32(0).Bytes(), 5},
        {kNfsLookup, "LOOKUP", DirOp(sRoot, "file").Bytes(), 5},
        {kNfsAccess, "ACCESS", XdrBuilder().Opaque(sFile).U32(1).Bytes(), 5},
        {kNfsRead, "READ", XdrBuilder().Opaque(sFile).U64(0).U32(10).Bytes(), 5},
        {kNfsWrite, "WRITE", XdrBuilder().Opaque(sFile).U64(0).U32(1).U32(0).Opaque("x").Bytes(), 5},
        {kNfsCreate, "CREATE", DirOp(sRoot, "new").Raw(how.Bytes()).Bytes(), 5},
        {kNfsMkdir, "MKDIR", DirOp(sRoot, "new").Raw(m_sNoAttributes).Bytes(), 5},
        {kNfsRemove, "REMOVE", DirOp(sRoot, "file").Bytes(), 5},
        {kNfsRmdir, "RMDIR", DirOp(sRoot, "file").Bytes(), 5},
        {kNfsReaddir, "READDIR", XdrBuilder().Opaque(sRoot).U64(0).U64(0).U32(100).Bytes(), 5},
        {kNfsReaddirplus, "READDIRPLUS", XdrBuilder().Opaque(sRoot).U64(0).U64(0).U32(100).U32(100).Bytes(), 5},
        {kNfsFsstat, "FSSTAT", XdrBuilder().Opaque(sRoot).Bytes(), 5},
        {kNfsFsinfo, "FSINFO", XdrBuilder().Opaque(sRoot).Bytes(), 5},
    };
    SetLog(CRuntimeParam::kLogError);
    for (const Case& call : vCases) {
        EXPECT_EQ(WordAt(Call(call.iProc, call.sArguments), 0), call.iStatus) << call.pcName;
        ExpectRefusal(call.pcName);
        EXPECT_STREQ(m_Param.GetID(), kClientID) << "the line is not the export's business";
    }
    EXPECT_EQ(ReadWholeFile(m_Other / "file"), "theirs");
    m_sRemoteAddr = kStranger;
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sFile)), 0U);
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(Handle("file"))), 5U);
    EXPECT_EQ(Status(kNfsRemove, DirOp(sRoot, "file")), 0U);
}

TEST_F(Nfs3ProgClientTest, ExportThatNobodyHasMountedServesEverybody) {
    Mount("other", nullptr);
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(HandleOfPath(m_Other / "file"))), 0U);
}

TEST_F(Nfs3ProgClientTest, RenameServesBothItsEnds) {
    const std::string sOther = HandleOfPath(m_Other.Path());
    SetLog(CRuntimeParam::kLogError);
    EXPECT_EQ(Status(kNfsRename, DirOp(sOther, "file").Opaque(Handle()).Opaque("stolen")), 5U);
    ExpectRefusal("RENAME");
    EXPECT_EQ(Status(kNfsRename, DirOp("file").Opaque(sOther).Opaque("file")), 5U);
    ExpectRefusal("RENAME");
    EXPECT_EQ(ReadWholeFile(Path("file")), "mine");
    EXPECT_EQ(ReadWholeFile(m_Other / "file"), "theirs");
    EXPECT_FALSE(Exists("stolen"));
    Mount("other", nullptr);
    EXPECT_EQ(Status(kNfsRename, DirOp("file").Opaque(sOther).Opaque("file")), 0U);
}

TEST_F(Nfs3ProgClientTest, LinkIntoTheExportOfAnotherClientLeadsNowhere) {
    Link(m_Other / "file", "link");
    Link(m_Other / "new", "dangling");
    Link(m_Other.Path(), "dir");
    EXPECT_EQ(LookupStatus("link"), 5U);
    EXPECT_EQ(LookupStatus("dir/file"), 5U);
    EXPECT_EQ(Create("link"), 5U);
    EXPECT_EQ(Create("dangling"), 5U);
    EXPECT_EQ(Create("dir/new"), 5U);
    EXPECT_EQ(Mkdir("dir/new"), 5U);
    EXPECT_EQ(Remove("dir/file"), 5U);
    EXPECT_EQ(Rename("dir/file", "stolen"), 5U);
    EXPECT_EQ(Rename("file", "dir/file"), 5U);
    EXPECT_EQ(Remove("link"), 0U) << "the link itself lies here";
    EXPECT_EQ(ReadWholeFile(m_Other / "file"), "theirs");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_Other.Path()), {}), 1);
}

TEST_F(Nfs3ProgClientTest, ListingShowsNothingOfTheExportOfAnotherClient) {
    ::unlink(Path("file").c_str());
    Link(m_Other / "file", "link");
    const auto showsTarget = [this] {
        XdrReader reader(Call(kNfsReaddirplus, XdrBuilder().Opaque(Handle()).U64(0).U64(0).U32(100).U32(100)));
        EXPECT_EQ(reader.U32(), 0U);
        ReadPostOpAttr(reader);
        reader.U64();                 // the verifier
        EXPECT_EQ(reader.U32(), 1U);  // the one entry
        reader.U64();
        EXPECT_EQ(reader.Opaque(), "link");
        reader.U64();
        const bool bAttributes = ReadPostOpAttr(reader).has_value();
        EXPECT_EQ(ReadPostOpHandle(reader).has_value(), bAttributes);
        return bAttributes;
    };
    EXPECT_FALSE(showsTarget());
    Mount("other", nullptr);
    EXPECT_TRUE(showsTarget());
}

TEST_F(Nfs3ProgClientTest, HandleWhoseFolderBecameALinkIntoTheExportOfAnotherClientIsRefused) {
    MakeFolder("dir");
    WriteWholeFile(Path("dir/file"), "mine");
    const std::string sFile = Handle("dir/file");
    std::filesystem::rename(Path("dir"), Path("moved"));
    Link(m_Other.Path(), "dir");
    SetLog(CRuntimeParam::kLogError);
    EXPECT_EQ(Status(kNfsRead, XdrBuilder().Opaque(sFile).U64(0).U32(10)), 5U);
    ExpectRefusal("READ");
    Mount("other", nullptr);
    EXPECT_EQ(Status(kNfsRead, XdrBuilder().Opaque(sFile).U64(0).U32(10)), 0U);
}

TEST_F(Nfs3ProgClientTest, OfNestedExportsOneOfTheClientsOwnIsEnough) {
    MakeFolder("inner");
    WriteWholeFile(Path("inner/file"), "");
    Export(Path("inner"), "a-inner");
    Mount("a-inner", kStranger);
    const std::string sFile = Handle("inner/file");
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sFile)), 0U) << "by the outer one";
    EXPECT_STREQ(m_Param.GetID(), "a-inner") << "the first in name order, as ever";
    m_sRemoteAddr = kStranger;
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sFile)), 0U) << "by the inner one";
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(Handle("file"))), 5U);
    m_sRemoteAddr = "10.0.0.7";
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sFile)), 5U);
}

TEST_F(Nfs3ProgClientTest, ReadOnlyServerAnswersAsToAnyOtherPathOutOfReach) {
    const std::string sOther = HandleOfPath(m_Other.Path());
    m_Prog.SetReadOnly(true);
    EXPECT_EQ(Status(kNfsMkdir, DirOp(sOther, "new").Raw(m_sNoAttributes)), 13U);
    EXPECT_EQ(Status(kNfsRemove, DirOp(sOther, "file")), 5U);
    EXPECT_EQ(Status(kNfsRemove, DirOp(sOther, "missing")), 5U);
}

}  // namespace
