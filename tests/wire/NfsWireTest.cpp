// Whole replies of a whole server, byte by byte: record mark, reply head, result, and not one byte more.
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

constexpr int kMountPort = 1058;
constexpr int kNfsPort = 2049;
constexpr std::uint32_t kXid = 0xABCD1234;

class NfsWireTest : public ServerFixture, public testing::WithParamInterface<Transport> {
protected:
    std::string Send(int iPort, std::uint32_t iProgram, std::uint32_t iVersion, std::uint32_t iProc,
                     const std::string& sArguments) {
        RpcCall call;
        call.iXid = kXid;
        call.iProgram = iProgram;
        call.iVersion = iVersion;
        call.iProcedure = iProc;
        call.sArguments = sArguments;
        RpcClient client(GetParam(), iPort);
        client.Send(call.Bytes(GetParam()));
        std::string sReply = client.Receive();
        EXPECT_TRUE(client.StaysSilent(std::chrono::milliseconds(1))) << "more bytes behind the reply";
        return sReply;
    }
    std::string Nfs(std::uint32_t iProc, const XdrBuilder& arguments) {
        return Send(kNfsPort, kNfsProgram, 3, iProc, arguments.Bytes());
    }
    std::string Mount(std::uint32_t iProc, const std::string& sName, std::uint32_t iVersion = 3) {
        return Send(kMountPort, kMountProgram, iVersion, iProc, XdrBuilder().Opaque(sName).Bytes());
    }
    /// A reply with this accept status and result, as it goes over the transport.
    static std::string Reply(const std::string& sResult, std::uint32_t iAcceptStatus = 0) {
        XdrBuilder reply;
        if (GetParam() == Transport::kTcp) {
            reply.U32(0x80000000U + 24 + static_cast<std::uint32_t>(sResult.size()));
        }
        reply.U32(kXid).U32(1).U32(0).U32(0).U32(0).U32(iAcceptStatus).Raw(sResult);
        return reply.Bytes();
    }
    static std::string Reply(const XdrBuilder& result) { return Reply(result.Bytes()); }

    /// The server's first ID is that of the export that was mounted first.
    static std::string Handle(unsigned char cID) {
        std::string sHandle(56, '\0');
        sHandle[0] = static_cast<char>(cID);
        return sHandle;
    }
    void MountFirst() { ASSERT_EQ(Hex(Mount(kMountMnt, "data")), Hex(Reply(MountedRoot()))); }
    static XdrBuilder MountedRoot() { return XdrBuilder().U32(0).Opaque(Handle(0)).U32(0); }

    /// fattr3 as the host's lstat and statvfs have it.
    static std::string Attributes(const std::string& sPath) {
        struct stat status {};
        EXPECT_EQ(::lstat(sPath.c_str(), &status), 0) << sPath;
        struct statvfs figures {};
        EXPECT_EQ(::statvfs(sPath.c_str(), &figures), 0) << sPath;
        const auto lSize = static_cast<std::uint64_t>(status.st_size);
        const std::uint32_t iType = S_ISDIR(status.st_mode) ? 2 : 1;
        return XdrBuilder()
            .U32(iType)
            .U32(status.st_mode & 06777U)
            .U32(static_cast<std::uint32_t>(status.st_nlink))
            .U32(status.st_uid)
            .U32(status.st_gid)
            .U64(lSize)
            .U64(lSize)
            .U32(major(status.st_dev))
            .U32(minor(status.st_dev))
            .U64(figures.f_fsid)
            .U64(status.st_ino)
            .U32(static_cast<std::uint32_t>(status.st_atime))
            .U32(0)
            .U32(static_cast<std::uint32_t>(status.st_mtime))
            .U32(0)
            .U32(static_cast<std::uint32_t>(status.st_ctime))
            .U32(0)
            .Bytes();
    }
};

INSTANTIATE_TEST_SUITE_P(Transports, NfsWireTest, testing::Values(Transport::kTcp, Transport::kUdp),
                         [](const testing::TestParamInfo<Transport>& transport) {
                             return std::string(transport.param == Transport::kTcp ? "Tcp" : "Udp");
                         });

TEST_P(NfsWireTest, MountsOfBothVersionsAreAnsweredToTheByte) {
    MountFirst();
    EXPECT_EQ(Hex(Mount(kMountMnt, "data")), Hex(Reply(XdrBuilder().U32(13))));
    EXPECT_EQ(Hex(Mount(kMountUmnt, "data")), Hex(Reply("")));
    EXPECT_EQ(Hex(Mount(kMountMnt, "data", 1)), Hex(Reply(XdrBuilder().U32(0).Raw(Handle(0).substr(0, 32)))));
    EXPECT_EQ(Hex(Mount(kMountMnt, "nothing")), Hex(Reply(XdrBuilder().U32(13))));
    EXPECT_EQ(Hex(Mount(kMountUmnt, "nothing")), Hex(Reply("")));
    EXPECT_EQ(Hex(Send(kMountPort, kMountProgram, 3, kMountNull, "")), Hex(Reply("")));
}

TEST_P(NfsWireTest, RefusedMountProceduresAreUnavailable) {
    for (const std::uint32_t iProc : {kMountDump, kMountUmntall, kMountExport}) {
        EXPECT_EQ(Hex(Send(kMountPort, kMountProgram, 3, iProc, "")), Hex(Reply("", kAcceptProcUnavail))) << iProc;
    }
}

TEST_P(NfsWireTest, OtherVersionsOfNfsAreNotAvailable) {
    EXPECT_EQ(Hex(Send(kNfsPort, kNfsProgram, 2, 0, "")), Hex(Reply("", kAcceptProcUnavail)));
    EXPECT_EQ(Hex(Send(kNfsPort, kNfsProgram, 3, 0, "")), Hex(Reply("")));
}

TEST_P(NfsWireTest, AttributesAndLookupsAreAnsweredToTheByte) {
    WriteWholeFile(Folder() / "file", "12345");
    MountFirst();
    EXPECT_EQ(Hex(Nfs(kNfsGetattr, XdrBuilder().Opaque(Handle(0)))),
              Hex(Reply(XdrBuilder().U32(0).Raw(Attributes(Folder().Path())))));
    EXPECT_EQ(Hex(Nfs(kNfsLookup, XdrBuilder().Opaque(Handle(0)).Opaque("file"))),
              Hex(Reply(XdrBuilder().U32(0).Opaque(Handle(1)).U32(1).Raw(Attributes(Folder() / "file")).U32(0))));
    EXPECT_EQ(Hex(Nfs(kNfsLookup, XdrBuilder().Opaque(Handle(0)).Opaque("missing"))),
              Hex(Reply(XdrBuilder().U32(2).U32(0))));
    EXPECT_EQ(Hex(Nfs(kNfsAccess, XdrBuilder().Opaque(Handle(1)).U32(0x3F))),
              Hex(Reply(XdrBuilder().U32(0).U32(1).Raw(Attributes(Folder() / "file")).U32(0x3F))));
    EXPECT_EQ(Hex(Nfs(kNfsSetattr, XdrBuilder().Opaque(Handle(1)).U32(1).U32(0600).Raw(std::string(24, '\0')))),
              Hex(Reply(XdrBuilder().U32(0).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsGetattr, XdrBuilder().Opaque(Handle(99)))), Hex(Reply(XdrBuilder().U32(5))));
}

TEST_P(NfsWireTest, ReadsAndWritesAreAnsweredToTheByte) {
    WriteWholeFile(Folder() / "file", "");
    MountFirst();
    Nfs(kNfsLookup, XdrBuilder().Opaque(Handle(0)).Opaque("file"));
    const std::string sWritten = Nfs(kNfsWrite, XdrBuilder().Opaque(Handle(1)).U64(0).U32(5).U32(1).Opaque("hello"));
    const std::string sExpected = Reply(XdrBuilder().U32(0).U64(0).U32(5).U32(2).U64(0));
    ASSERT_EQ(sWritten.size(), sExpected.size());
    EXPECT_EQ(Hex(sWritten.substr(0, sWritten.size() - 8)), Hex(sExpected.substr(0, sExpected.size() - 8)));
    EXPECT_EQ(Hex(Nfs(kNfsRead, XdrBuilder().Opaque(Handle(1)).U64(1).U32(2))),
              Hex(Reply(XdrBuilder().U32(0).U32(0).U32(2).U32(0).Opaque("el"))));
    EXPECT_EQ(Hex(Nfs(kNfsRead, XdrBuilder().Opaque(Handle(1)).U64(0).U32(512))),
              Hex(Reply(XdrBuilder().U32(0).U32(0).U32(5).U32(1).Opaque("hello"))))
        << "with its padding, which are the reply's last bytes";
    EXPECT_EQ(Hex(Nfs(kNfsRead, XdrBuilder().Opaque(Handle(1)).U64(0).U32(0xFFFFFFFFU))),
              Hex(Reply(XdrBuilder().U32(22).U32(0))));
    EXPECT_EQ(Hex(Nfs(kNfsRead, XdrBuilder().Opaque(Handle(0)).U64(0).U32(10))),
              Hex(Reply(XdrBuilder().U32(22).U32(0))));
    EXPECT_EQ(Hex(Nfs(kNfsWrite, XdrBuilder().Opaque(Handle(1)).U64(1ULL << 41).U32(1).U32(0).Opaque("x"))),
              Hex(Reply(XdrBuilder().U32(27).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsCommit, XdrBuilder().Opaque(Handle(1)).U64(0).U32(0))),
              Hex(Reply(XdrBuilder().U32(5).U64(0))));
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "hello");
}

TEST_P(NfsWireTest, MakingListingAndRemovingAreAnsweredToTheByte) {
    MountFirst();
    const XdrBuilder entry = XdrBuilder().Opaque(Handle(0)).Opaque("dir");
    const std::string sNothingSet(24, '\0');
    const std::string sMade = Nfs(kNfsMkdir, XdrBuilder(entry).Raw(sNothingSet));
    EXPECT_EQ(Hex(sMade),
              Hex(Reply(XdrBuilder().U32(0).U32(1).Opaque(Handle(1)).U32(1).Raw(Attributes(Folder() / "dir")).U64(0))));
    const std::string sCreated = Nfs(kNfsCreate, XdrBuilder().Opaque(Handle(1)).Opaque("f").U32(1).Raw(sNothingSet));
    const std::string sFile = Attributes(Folder() / "dir/f");
    EXPECT_EQ(Hex(sCreated), Hex(Reply(XdrBuilder().U32(0).U32(1).Opaque(Handle(2)).U32(1).Raw(sFile).U64(0))));
    // Taken before each call: listing changes the access time.
    std::string sDir = Attributes(Folder() / "dir");
    EXPECT_EQ(Hex(Nfs(kNfsReaddir, XdrBuilder().Opaque(Handle(1)).U64(0).U64(77).U32(4096))),
              Hex(Reply(XdrBuilder().U32(0).U32(1).Raw(sDir).U64(77).U32(1).U64(2).Opaque("f").U64(1).U32(0).U32(1))));
    sDir = Attributes(Folder() / "dir");
    EXPECT_EQ(Hex(Nfs(kNfsReaddirplus, XdrBuilder().Opaque(Handle(1)).U64(0).U64(77).U32(4096).U32(4096))),
              Hex(Reply(XdrBuilder()
                            .U32(0)
                            .U32(1)
                            .Raw(sDir)
                            .U64(77)
                            .U32(1)
                            .U64(2)
                            .Opaque("f")
                            .U64(1)
                            .U32(1)
                            .Raw(sFile)
                            .U32(1)
                            .Opaque(Handle(2))
                            .U32(0)
                            .U32(1))));
    EXPECT_EQ(Hex(Nfs(kNfsRename, XdrBuilder().Opaque(Handle(1)).Opaque("f").Opaque(Handle(0)).Opaque("g"))),
              Hex(Reply(XdrBuilder().U32(0).U64(0).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsRemove, XdrBuilder().Opaque(Handle(0)).Opaque("g"))), Hex(Reply(XdrBuilder().U32(0).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsRemove, XdrBuilder().Opaque(Handle(0)).Opaque("g"))), Hex(Reply(XdrBuilder().U32(2).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsRmdir, entry)), Hex(Reply(XdrBuilder().U32(0).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsRmdir, entry)), Hex(Reply(XdrBuilder().U32(2).U64(0))));
}

TEST_P(NfsWireTest, ProceduresThatAreNotServedAnswerTheirRefusals) {
    MountFirst();
    const XdrBuilder root = XdrBuilder().Opaque(Handle(0));
    const XdrBuilder entry = XdrBuilder(root).Opaque("new");
    const std::string sNothingSet(24, '\0');
    EXPECT_EQ(Hex(Nfs(kNfsReadlink, root)), Hex(Reply(XdrBuilder().U32(5).U32(0))));
    EXPECT_EQ(Hex(Nfs(kNfsPathconf, root)), Hex(Reply(XdrBuilder().U32(5).U32(0))));
    EXPECT_EQ(Hex(Nfs(kNfsSymlink, XdrBuilder(entry).Raw(sNothingSet).Opaque("target"))),
              Hex(Reply(XdrBuilder().U32(5).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsMknod, XdrBuilder(entry).U32(7).Raw(sNothingSet))),
              Hex(Reply(XdrBuilder().U32(10004).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsMknod, XdrBuilder(entry).U32(1))), Hex(Reply(XdrBuilder().U32(10007).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsLink, XdrBuilder(root).Raw(entry.Bytes()))), Hex(Reply(XdrBuilder().U32(5).U32(0).U64(0))));
}

TEST_P(NfsWireTest, FileSystemFiguresAreAnsweredToTheByte) {
    MountFirst();
    const std::string sRoot = Attributes(Folder().Path());
    EXPECT_EQ(Hex(Nfs(kNfsFsinfo, XdrBuilder().Opaque(Handle(0)))), Hex(Reply(XdrBuilder()
                                                                                  .U32(0)
                                                                                  .U32(1)
                                                                                  .Raw(sRoot)
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
                                                                                  .U32(24))));
    const std::string sFigures = Nfs(kNfsFsstat, XdrBuilder().Opaque(Handle(0)));
    const std::string sHead = Reply(XdrBuilder().U32(0).U32(1).Raw(sRoot).Raw(std::string(52, '\0')));
    ASSERT_EQ(sFigures.size(), sHead.size());
    EXPECT_EQ(Hex(sFigures.substr(0, sFigures.size() - 52)), Hex(sHead.substr(0, sHead.size() - 52)));
}

TEST_P(NfsWireTest, ReadOnlyServerRefusesEveryChange) {
    WriteWholeFile(Folder() / "file", "content");
    Server().StopServer();
    Start(true);
    MountFirst();
    const XdrBuilder entry = XdrBuilder().Opaque(Handle(0)).Opaque("file");
    const std::string sNothingSet(24, '\0');
    const std::string sRefused = Reply(XdrBuilder().U32(13).U64(0));
    EXPECT_EQ(Hex(Nfs(kNfsCreate, XdrBuilder(entry).U32(0).Raw(sNothingSet))), Hex(sRefused));
    EXPECT_EQ(Hex(Nfs(kNfsMkdir, XdrBuilder(entry).Raw(sNothingSet))), Hex(sRefused));
    EXPECT_EQ(Hex(Nfs(kNfsRemove, entry)), Hex(sRefused));
    EXPECT_EQ(Hex(Nfs(kNfsRmdir, entry)), Hex(sRefused));
    EXPECT_EQ(Hex(Nfs(kNfsRename, XdrBuilder(entry).Raw(entry.Bytes()))),
              Hex(Reply(XdrBuilder().U32(13).U64(0).U64(0))));
    EXPECT_EQ(Hex(Nfs(kNfsWrite, XdrBuilder().Opaque(Handle(99)).U64(0).U32(1).U32(0).Opaque("x"))), Hex(sRefused));
    EXPECT_EQ(Hex(Nfs(kNfsSetattr, XdrBuilder().Opaque(Handle(99)).U32(1).U32(0).Raw(std::string(24, '\0')))),
              Hex(sRefused));
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "content");
}

}  // namespace
