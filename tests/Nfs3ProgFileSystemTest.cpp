// FSSTAT, FSINFO and PATHCONF: replies byte by byte.
#include <sys/statvfs.h>

#include <gmock/gmock.h>

#include "Nfs3ProgFixture.h"

namespace {

using Lines = std::vector<std::string>;

using Nfs3ProgFileSystemTest = Nfs3ProgFixture;

TEST_F(Nfs3ProgFileSystemTest, FsstatAnswersTheFiguresOfTheHost) {
    const std::string sReply = Call(kNfsFsstat, XdrBuilder().Opaque(Handle()));
    struct statvfs figures {};
    ASSERT_EQ(::statvfs(m_Folder.Path().c_str(), &figures), 0);
    ASSERT_EQ(sReply.size(), 4U + 88 + 6 * 8 + 4);
    XdrReader reader(sReply);
    EXPECT_EQ(reader.U32(), 0U);
    const auto attributes = ReadPostOpAttr(reader);
    ASSERT_TRUE(attributes.has_value());
    EXPECT_EQ(attributes->iType, 2U);
    const std::uint64_t iTotal = reader.U64();
    const std::uint64_t iFree = reader.U64();
    const std::uint64_t iAvailable = reader.U64();
    EXPECT_EQ(iTotal, figures.f_frsize * figures.f_blocks);
    EXPECT_LE(iAvailable, iFree);
    EXPECT_LE(iFree, iTotal);
    EXPECT_EQ(reader.U64(), figures.f_files);
    const std::uint64_t iFreeSlots = reader.U64();
    EXPECT_LE(iFreeSlots, figures.f_files);
    EXPECT_NEAR(static_cast<double>(reader.U64()), static_cast<double>(iFreeSlots), 1000) << "the same figure";
    EXPECT_EQ(reader.U32(), 0U);
}

// A root file system usually keeps blocks back for its administrator: free and available differ there.
TEST_F(Nfs3ProgFileSystemTest, FsstatKeepsTheOrderOfItsFigures) {
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, "/usr", "system", "", nullptr));
    const XdrBuilder arguments = XdrBuilder().Opaque(HandleOfPath("/usr"));
    std::string sExpected;
    std::string sSeen;
    for (int i = 0; i < 100 && (i == 0 || sSeen != sExpected); ++i) {  // others write to that file system meanwhile
        struct statvfs figures {};
        ASSERT_EQ(::statvfs("/usr", &figures), 0);
        sExpected = XdrBuilder()
                        .U64(figures.f_frsize * figures.f_blocks)
                        .U64(figures.f_frsize * figures.f_bfree)
                        .U64(figures.f_frsize * figures.f_bavail)
                        .U64(figures.f_files)
                        .U64(figures.f_ffree)
                        .U64(figures.f_ffree)
                        .U32(0)
                        .Bytes();
        sSeen = Call(kNfsFsstat, arguments).substr(92);
    }
    EXPECT_EQ(Hex(sSeen), Hex(sExpected));
}

TEST_F(Nfs3ProgFileSystemTest, FsinfoAnswersTheServersLimits) {
    const std::string sReply = Call(kNfsFsinfo, XdrBuilder().Opaque(Handle()));
    ASSERT_EQ(sReply.size(), 4U + 88 + 7 * 4 + 8 + 8 + 4);
    EXPECT_EQ(WordAt(sReply, 0), 0U);
    EXPECT_EQ(WordAt(sReply, 4), 1U);
    EXPECT_EQ(Hex(sReply.substr(92)), Hex(XdrBuilder()
                                              .U32(65536)
                                              .U32(65536)
                                              .U32(512)
                                              .U32(16384)
                                              .U32(16384)
                                              .U32(512)
                                              .U32(8192)
                                              .U64(1ULL << 41)
                                              .U32(1)
                                              .U32(0)
                                              .U32(24)
                                              .Bytes()));
}

TEST_F(Nfs3ProgFileSystemTest, FiguresOfNothingAnswer5) {
    for (const unsigned int iProc : {kNfsFsstat, kNfsFsinfo}) {
        ExpectBareFailure(Call(iProc, XdrBuilder().Opaque(m_sForged)), 5, 1);
        ExpectBareFailure(Call(iProc, XdrBuilder().Opaque(Handle("missing"))), 5, 1);
        ExpectBareFailure(Call(iProc, XdrBuilder().Opaque("")), 5, 1);
    }
}

TEST_F(Nfs3ProgFileSystemTest, PathconfAnswers5ForEveryHandle) {
    SetLog(CRuntimeParam::kLogError | CRuntimeParam::kLogProcFuncArgu);
    ExpectBareFailure(Call(kNfsPathconf, XdrBuilder().Opaque(Handle())), 5, 1);
    EXPECT_EQ(TakeLog(),
              (Lines{"[Nfs3Prog.ProcedurePATHCONF] Path record not found", "[Nfs3Prog.ProcedurePATHCONF] End stat=5"}));
    ExpectBareFailure(Call(kNfsPathconf, XdrBuilder().Opaque("ab")), 5, 1);
}

}  // namespace
