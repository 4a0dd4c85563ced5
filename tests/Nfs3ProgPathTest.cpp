// What of the host a client can reach: nothing outside the exports, whatever names, links and handles it uses.
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Nfs3NamesFixture.h"
#include "SoftLimit.h"

namespace {

class Nfs3ProgPathTest : public Nfs3NamesFixture {
protected:
    /// Every procedure that makes, removes or renames is refused under the name.
    void ExpectOutOfReach(const std::string& sName) {
        WriteWholeFile(Path("mine"), "mine");
        Handle("mine");
        EXPECT_EQ(LookupStatus(sName), 2U) << sName;
        for (const unsigned int iHow : {0U, 1U, 2U}) {
            EXPECT_NE(Create(sName, iHow), 0U) << sName;
        }
        EXPECT_NE(Mkdir(sName), 0U) << sName;
        EXPECT_EQ(Remove(sName), 2U) << sName;
        EXPECT_EQ(Rmdir(sName), 2U) << sName;
        EXPECT_EQ(Rename(sName, "stolen"), 2U) << sName;
        EXPECT_EQ(Rename("mine", sName), 5U) << sName;
        EXPECT_EQ(ReadWholeFile(Path("mine")), "mine");
        EXPECT_FALSE(Exists("stolen"));
    }
    /// A link can be removed, renamed and replaced, and that is all: nothing is found or made by its name.
    void ExpectOnlyTheLinkIsReached(const std::string& sName) {
        const std::string sTarget = std::filesystem::read_symlink(Path(sName));
        WriteWholeFile(Path("mine"), "mine");
        Handle("mine");
        EXPECT_EQ(LookupStatus(sName), 2U) << sName;
        for (const unsigned int iHow : {0U, 1U, 2U}) {
            EXPECT_NE(Create(sName, iHow), 0U) << sName;
        }
        EXPECT_EQ(Mkdir(sName), 5U) << sName;
        EXPECT_EQ(Rmdir(sName), 5U) << sName;
        EXPECT_TRUE(IsLink(sName)) << sName;
        EXPECT_EQ(Rename(sName, "moved"), 0U) << sName;
        EXPECT_FALSE(Exists(sName));
        EXPECT_EQ(std::filesystem::read_symlink(Path("moved")), sTarget);
        EXPECT_EQ(Remove("moved"), 0U) << sName;
        EXPECT_FALSE(Exists("moved"));
        Link(sTarget, sName);
        EXPECT_EQ(Rename("mine", sName), 0U) << sName;
        EXPECT_EQ(ReadWholeFile(Path(sName)), "mine");
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(Path(sName)))) << sName;
        ::unlink(Path(sName).c_str());
        Link(sTarget, sName);
    }
};

TEST_F(Nfs3ProgPathTest, NamesThatLeadUpAreOutOfReach) {
    ExpectOutOfReach("..");
    ExpectOutOfReach("../..");
    ExpectOutOfReach("../new");
    ExpectOutOfReach(m_sUp);
    ExpectOutOfReach(m_sUp + "/secret");
    ExpectOutOfReach(m_sUp + "/new");
    ExpectOutOfReach("./" + m_sUp + "/new");
    ExpectOutOfReach("missing/../" + m_sUp + "/new");
    ExpectOutOfReach("/" + m_sUp + "//new/");
    ExpectOutOfReach(m_sUp + "/new/");
    ExpectOutOfReach(m_sUp + "/new/..");
}

TEST_F(Nfs3ProgPathTest, WhatLinksLeadToOutsideIsOutOfReach) {
    Link(m_Outside.Path(), "dir");
    Link(m_Outside / "secret", "file");
    Link("dir", "again");
    ExpectOutOfReach("dir/secret");
    ExpectOutOfReach("dir/new");
    ExpectOutOfReach("dir/new/");
    ExpectOutOfReach("dir/");
    ExpectOutOfReach("dir/.");
    ExpectOutOfReach("again/new");
    ExpectOnlyTheLinkIsReached("dir");
    ExpectOnlyTheLinkIsReached("file");
    EXPECT_TRUE(Exists("dir") && Exists("file") && Exists("again"));
}

TEST_F(Nfs3ProgPathTest, WhatDanglingLinksLeadToOutsideIsOutOfReach) {
    Link(m_Outside / "new", "absolute");
    Link(m_sUp + "/new", "relative");
    Link("absolute", "chain");
    Link("../" + std::filesystem::path(m_Outside.Path()).filename().string() + "/./new", "dotted");
    MakeFolder("sub");
    ASSERT_EQ(::symlink(("../" + m_sUp + "/new").c_str(), Path("sub/link").c_str()), 0);
    for (const char* pcName : {"absolute/", "absolute/new", "sub/link/", "./chain/"}) {
        ExpectOutOfReach(pcName);
    }
    for (const char* pcName : {"absolute", "relative", "chain", "dotted", "sub/link", "./chain"}) {
        ExpectOnlyTheLinkIsReached(pcName);
    }
}

TEST_F(Nfs3ProgPathTest, DanglingLinkToTheBeginningOfItsOwnPathIsOutOfReach) {
    const std::string sTarget = m_Folder.Path().substr(0, m_Folder.Path().size() - 1);
    Link(sTarget, "link");
    ExpectOnlyTheLinkIsReached("link");
    EXPECT_FALSE(std::filesystem::exists(sTarget));
}

TEST_F(Nfs3ProgPathTest, LinksInCirclesLeadNowhere) {
    Link("two", "one");
    Link("one", "two");
    ExpectOutOfReach("one/new");
    ExpectOnlyTheLinkIsReached("one");
}

TEST_F(Nfs3ProgPathTest, DanglingLinkWithinTheExportIsFollowedByCreate) {
    Link("target", "link");
    EXPECT_EQ(Create("link"), 0U);
    EXPECT_TRUE(std::filesystem::is_regular_file(Path("target")));
    EXPECT_TRUE(std::filesystem::is_symlink(Path("link")));
    Link("elsewhere", "second");
    EXPECT_EQ(Mkdir("second"), 5U) << "as the host has it";
}

TEST_F(Nfs3ProgPathTest, DanglingLinkIntoAnotherExportIsFollowed) {
    const TempFolder other;
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, other.Path().c_str(), "other", "", nullptr));
    Link(other / "new", "link");
    EXPECT_EQ(Create("link"), 0U);
    EXPECT_TRUE(std::filesystem::exists(other / "new"));
}

TEST_F(Nfs3ProgPathTest, SlashesWithinTheExportAreAllowed) {
    ::mkdir(Path("sub").c_str(), 0755);
    Link("sub", "link");
    EXPECT_EQ(Create("sub/file"), 0U);
    EXPECT_EQ(Create("link/second"), 0U);
    EXPECT_EQ(Create("sub/../third"), 0U);
    EXPECT_EQ(Mkdir("sub//dir"), 0U);
    EXPECT_TRUE(Exists("sub/file") && Exists("sub/second") && Exists("third") && Exists("sub/dir"));
    EXPECT_EQ(LookupStatus("link/file"), 0U);
    EXPECT_EQ(Remove("link/file"), 0U) << "the folder's links are followed";
    XdrReader reader(Call(kNfsCreate, DirOp("link/fourth").U32(0).Raw(m_sNoAttributes)));
    EXPECT_EQ(reader.U32(), 0U);
    EXPECT_EQ(ReadPostOpHandle(reader), Handle("sub/fourth"));
}

TEST_F(Nfs3ProgPathTest, RootOfAnExportIsNeitherRemovedNorRenamed) {
    ::mkdir(Path("sub").c_str(), 0755);
    ::mkdir(Path("inner").c_str(), 0755);
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, Path("inner").c_str(), "inner", "", nullptr));
    EXPECT_EQ(Rmdir("inner"), 5U);
    EXPECT_EQ(Remove("inner"), 5U);
    EXPECT_EQ(Rename("inner", "other"), 5U);
    EXPECT_EQ(Rename("sub", "inner"), 5U);
    EXPECT_TRUE(Exists("inner") && Exists("sub"));
    ::rmdir(Path("sub").c_str());
    ::rmdir(Path("inner").c_str());
    for (const char* pcName : {".", "", "./."}) {
        EXPECT_EQ(Rmdir(pcName), 5U);
        EXPECT_EQ(Remove(pcName), 5U);
        EXPECT_EQ(Rename(pcName, "other"), 5U);
    }
    EXPECT_TRUE(std::filesystem::is_directory(m_Folder.Path()));
}

// ---- Handles

TEST_F(Nfs3ProgPathTest, HandleWhoseFolderBecameALinkOutIsOutOfReach) {
    ::mkdir(Path("dir").c_str(), 0755);
    WriteWholeFile(Path("dir/secret"), "inside");
    const std::string sDir = Handle("dir");
    const std::string sFile = Handle("dir/secret");
    std::filesystem::rename(Path("dir"), Path("moved"));
    Link(m_Outside.Path(), "dir");
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sFile)), 5U);
    EXPECT_EQ(Status(kNfsAccess, XdrBuilder().Opaque(sFile).U32(1)), 5U);
    EXPECT_EQ(Status(kNfsRead, XdrBuilder().Opaque(sFile).U64(0).U32(10)), 5U);
    EXPECT_EQ(Status(kNfsWrite, XdrBuilder().Opaque(sFile).U64(0).U32(1).U32(0).Opaque("x")), 5U);
    EXPECT_EQ(Status(kNfsSetattr, XdrBuilder().Opaque(sFile).U32(1).U32(0).Raw(std::string(24, '\0'))), 5U);
    EXPECT_EQ(Status(kNfsReaddirplus, XdrBuilder().Opaque(sDir).U64(0).U64(0).U32(1).U32(1)), 5U);
    EXPECT_EQ(Status(kNfsFsstat, XdrBuilder().Opaque(sDir)), 5U);
    EXPECT_EQ(Status(kNfsLookup, DirOp(sDir, "secret")), 2U);
    EXPECT_EQ(Status(kNfsCreate, DirOp(sDir, "new").U32(0).Raw(m_sNoAttributes)), 5U);
    EXPECT_EQ(Status(kNfsMkdir, DirOp(sDir, "new").Raw(m_sNoAttributes)), 5U);
    EXPECT_EQ(Status(kNfsRemove, DirOp(sDir, "secret")), 2U);
}

TEST_F(Nfs3ProgPathTest, HandleOfALinkThatDangledIsOutOfReachOnceItLeadsOut) {
    const std::string sTarget = m_Outside.Path() + "-late";
    Link(sTarget, "link");
    const std::string sHandle = Handle("link");
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sHandle)), 5U) << "it dangles";
    WriteWholeFile(sTarget, "secret");
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sHandle)), 5U);
    EXPECT_EQ(Status(kNfsRead, XdrBuilder().Opaque(sHandle).U64(0).U32(10)), 5U);
    ::unlink(sTarget.c_str());
}

TEST_F(Nfs3ProgPathTest, HandleThroughALinkWithinTheExportIsServed) {
    ::mkdir(Path("dir").c_str(), 0755);
    WriteWholeFile(Path("dir/file"), "inside");
    const std::string sFile = Handle("dir/file");
    std::filesystem::rename(Path("dir"), Path("moved"));
    Link("moved", "dir");
    const std::string sReply = Call(kNfsRead, XdrBuilder().Opaque(sFile).U64(0).U32(10));
    EXPECT_EQ(Hex(sReply), Hex(XdrBuilder().U32(0).U32(0).U32(6).U32(1).Opaque("inside").Bytes()));
}

TEST_F(Nfs3ProgPathTest, HandleOfAPathOutsideIsOutOfReach) {
    EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(HandleOfPath(m_Outside / "secret"))), 5U);
    EXPECT_EQ(Status(kNfsLookup, DirOp(HandleOfPath(m_Outside.Path()), "secret")), 2U);
    EXPECT_EQ(Status(kNfsLookup, DirOp(HandleOfPath("/"), m_Folder.Path())), 0U) << "a way in is no way out";
}

TEST_F(Nfs3ProgPathTest, ShortHandleReadsNothingBehindItself) {
    // What follows a handle of three bytes would make it the root's.
    for (std::size_t i = 0; i < 4; ++i) {
        const std::string sShort = Handle().substr(0, i);
        EXPECT_EQ(Status(kNfsGetattr, XdrBuilder().Opaque(sShort)), 5U) << i;
        EXPECT_EQ(Status(kNfsLookup, DirOp(sShort, ".")), 2U) << i;
    }
}

TEST_F(Nfs3ProgPathTest, FilesAreFoundWithoutADescriptorToSpare) {
    WriteWholeFile(Path("file"), "content");
    const std::string sHandle = Handle("file");
    const XdrBuilder arguments = XdrBuilder().Opaque(sHandle).U32(1);
    const FullDescriptorTable full;
    EXPECT_EQ(Status(kNfsAccess, arguments), 0U);
    EXPECT_EQ(Status(kNfsAccess, arguments), 0U) << "once more";
}

TEST_F(Nfs3ProgPathTest, JoinIsBounded) {
    char vcOut[kPathBufferSize];
    EXPECT_TRUE(CNfs3Prog::AppendFilePath("/a", "b", vcOut));
    EXPECT_STREQ(vcOut, "/a/b");
    EXPECT_TRUE(CNfs3Prog::AppendFilePath("", "", vcOut));
    EXPECT_STREQ(vcOut, "/");
    EXPECT_TRUE(CNfs3Prog::AppendFilePath(std::string(2000, 'd').c_str(), std::string(2094, 'n').c_str(), vcOut));
    EXPECT_EQ(std::string(vcOut).size(), 4095U);
    EXPECT_FALSE(CNfs3Prog::AppendFilePath(std::string(2000, 'd').c_str(), std::string(2095, 'n').c_str(), vcOut));
    EXPECT_FALSE(CNfs3Prog::AppendFilePath(nullptr, "b", vcOut));
    EXPECT_FALSE(CNfs3Prog::AppendFilePath("/a", nullptr, vcOut));
    EXPECT_FALSE(CNfs3Prog::AppendFilePath("/a", "b", nullptr));
}

}  // namespace
