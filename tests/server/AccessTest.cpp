// An access file in force: whole servers, and clients at several addresses.
#include <cstdio>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Isolation.h"
#include "ServerFixture.h"
#include "WaitUntil.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kHost = "127.0.0.1";
constexpr const char* kSecond = "127.0.0.2";
constexpr const char* kThird = "127.0.0.3";

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kIo = 5;
constexpr std::uint32_t kAccess = 13;

/// A procedure and its arguments.
using Call = std::pair<std::uint32_t, std::string>;

/// One call of every procedure but NULL: on a folder, its file "f" and its folder "d".
std::vector<Call> CallsOfAllProcedures(const std::string& sRoot, const std::string& sFile) {
    const std::string sNothing(24, '\0');  // sattr3 that sets nothing
    const auto entry = [&](const char* pcName) { return XdrBuilder().Opaque(sRoot).Opaque(pcName).Bytes(); };
    const std::string sFromStart(16, '\0');  // cookie and verifier
    return {
        {kNfsGetattr, XdrBuilder().Opaque(sFile).Bytes()},
        {kNfsSetattr, XdrBuilder().Opaque(sFile).U32(1).U32(0600).Raw(std::string(20, '\0')).Bool(false).Bytes()},
        {kNfsLookup, entry("f")},
        {kNfsAccess, XdrBuilder().Opaque(sFile).U32(0x3F).Bytes()},
        {kNfsReadlink, XdrBuilder().Opaque(sFile).Bytes()},
        {kNfsRead, XdrBuilder().Opaque(sFile).U64(0).U32(100).Bytes()},
        {kNfsWrite, XdrBuilder().Opaque(sFile).U64(0).U32(3).U32(0).Opaque("bad").Bytes()},
        {kNfsCreate, entry("new") + XdrBuilder().U32(0).Raw(sNothing).Bytes()},
        {kNfsMkdir, entry("newdir") + sNothing},
        {kNfsSymlink, entry("link") + sNothing + XdrBuilder().Opaque("f").Bytes()},
        {kNfsMknod, entry("fifo") + XdrBuilder().U32(7).Raw(sNothing).Bytes()},
        {kNfsRemove, entry("f")},
        {kNfsRmdir, entry("d")},
        {kNfsRename, entry("f") + entry("g")},
        {kNfsLink, XdrBuilder().Opaque(sFile).Bytes() + entry("hard")},
        {kNfsReaddir, XdrBuilder().Opaque(sRoot).Raw(sFromStart).U32(4096).Bytes()},
        {kNfsReaddirplus, XdrBuilder().Opaque(sRoot).Raw(sFromStart).U32(4096).U32(8192).Bytes()},
        {kNfsFsstat, XdrBuilder().Opaque(sRoot).Bytes()},
        {kNfsFsinfo, XdrBuilder().Opaque(sRoot).Bytes()},
        {kNfsPathconf, XdrBuilder().Opaque(sRoot).Bytes()},
        {kNfsCommit, XdrBuilder().Opaque(sFile).U64(0).U32(0).Bytes()},
    };
}

class AccessTest : public ServerFixture {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (!IsIsolated()) {
            return;
        }
        WriteWholeFile(Folder() / "f", "content");
        ASSERT_EQ(::mkdir((Folder() / "d").c_str(), 0755), 0);
    }

    std::string AccessFile() const { return m_Own / "access"; }
    /// Starts anew with these rules in force, and the export "data".
    void Allow(const std::string& sRules) {
        WriteWholeFile(AccessFile(), sRules);
        ServerOptions options;
        options.sAccessFile = AccessFile();
        Restart(options);
    }
    void Restart(const ServerOptions& options, bool bReadOnly = false) {
        Server().StopServer();
        Server().SetOptions(options);
        Start(bReadOnly);
        Log().Clear();
    }
    /// Makes a folder of the test's own and exports it.
    std::string ExportNew(const std::string& sName) {
        const std::string sPath = m_Own / sName;
        EXPECT_EQ(::mkdir(sPath.c_str(), 0755), 0);
        Export(sPath, sName);
        return sPath;
    }
    /// A client's status of a look at a handle.
    static std::uint32_t Look(NfsClient& client, const std::string& sHandle) {
        Fattr3 attributes;
        return client.Getattr(sHandle, attributes);
    }
    static std::uint32_t Store(NfsClient& client, const std::string& sHandle) {
        std::uint32_t iCount = 0;
        return client.Write(sHandle, 0, "stored", iCount);
    }
    /// The replies to one call of each procedure.
    static std::vector<std::string> AskAll(NfsClient& client, const std::string& sRoot, const std::string& sFile) {
        std::vector<std::string> vsReplies;
        for (const auto& [iProcedure, sArguments] : CallsOfAllProcedures(sRoot, sFile)) {
            const RpcReply reply = client.Nfs().Call(kNfsProgram, 3, iProcedure, sArguments);
            EXPECT_EQ(reply.iAcceptStatus, kAcceptSuccess) << iProcedure;
            vsReplies.push_back(Hex(reply.sBody));
        }
        return vsReplies;
    }
    /// The same from an address on an export that another one has mounted and looked at.
    std::vector<std::string> AskAllFrom(const char* pcAddress, const char* pcHolder = kHost) {
        NfsClient holder(Transport::kTcp, pcHolder);
        const std::string sRoot = MountRoot(holder);
        std::string sFile;
        EXPECT_EQ(holder.Lookup(sRoot, "f", sFile), kOk);
        NfsClient client(Transport::kTcp, pcAddress);
        return AskAll(client, sRoot, sFile);
    }
    /// From now on no reading changes a time: one that lies in the future is not brought forward.
    void SettleReadingTimes() {
        constexpr std::time_t kHour = 3600;
        const timespec times[2] = {{std::time(nullptr) + kHour, 0}, {0, UTIME_OMIT}};
        for (const std::string& sPath : {Folder().Path(), Folder() / "f", Folder() / "d"}) {
            ASSERT_EQ(::utimensat(AT_FDCWD, sPath.c_str(), times, 0), 0) << sPath;
        }
    }
    void ExpectFolderUntouched() {
        EXPECT_EQ(ReadWholeFile(Folder() / "f"), "content");
        for (const char* pcNew : {"new", "newdir", "link", "fifo", "g", "hard"}) {
            EXPECT_NE(::access((Folder() / pcNew).c_str(), F_OK), 0) << pcNew;
        }
        EXPECT_EQ(::access((Folder() / "d").c_str(), F_OK), 0);
        struct stat status {};
        ASSERT_EQ(::stat((Folder() / "f").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0644U);
    }

    TempFolder m_Own;
};

// ---- Who may mount

TEST_F(AccessTest, MntIsRefusedToWhomTheFileDoesNotName) {
    Allow("data 127.0.0.1 rw\n");
    for (const Transport transport : {Transport::kTcp, Transport::kUdp}) {
        NfsClient other(transport, kSecond);
        EXPECT_FALSE(other.Mnt("data"));
        EXPECT_EQ(other.GetMountStatus(), kAccess);
    }
    EXPECT_THAT(Log().Texts('e'), Contains("[MountProg.ProcedureMNT] The access file does not admit 127.0.0.2 to "
                                           "export \"data\""));
    NfsClient host(Transport::kTcp, kHost);
    EXPECT_TRUE(host.Mnt("data"));
}

TEST_F(AccessTest, NetworksAndAllExportsAreUnderstoodWhereverTheClientIs) {
    Allow("data 127.0.0.2/31 ro\n* 127.0.1.0/24,127.9.9.9 rw\n");
    ExportNew("second");
    const struct {
        const char* pcAddress;
        bool bData, bSecond;
    } vClients[] = {{"127.0.0.2", true, false}, {"127.0.0.3", true, false}, {"127.0.0.4", false, false},
                    {"127.0.1.1", true, true},  {"127.9.9.9", true, true},  {"127.9.9.8", false, false}};
    for (const auto& tried : vClients) {
        NfsClient client(Transport::kTcp, tried.pcAddress);
        EXPECT_EQ(client.Mnt("data").has_value(), tried.bData) << tried.pcAddress;
        client.Umnt("data");
        EXPECT_EQ(client.Mnt("second").has_value(), tried.bSecond) << tried.pcAddress;
        client.Umnt("second");
    }
}

TEST_F(AccessTest, AnotherUmntSetsNothingFree) {
    Allow("data 127.0.0.0/8 rw\n");
    NfsClient host(Transport::kTcp, kHost);
    NfsClient other(Transport::kTcp, kSecond);
    const std::string sRoot = MountRoot(host);
    other.Umnt("data");
    EXPECT_FALSE(other.Mnt("data"));
    EXPECT_EQ(Look(other, sRoot), kIo);
    EXPECT_EQ(Look(host, sRoot), kOk);
    host.Umnt("data");
    EXPECT_TRUE(other.Mnt("data"));
}

// ---- Every call

TEST_F(AccessTest, EveryProcedureAnswersADeniedClientAsItDoesOnAnExportThatAnotherHolds) {
    const std::vector<std::string> vsHeld = AskAllFrom(kThird);
    Allow("data 127.0.0.1 rw\n");
    const std::vector<std::string> vsDenied = AskAllFrom(kThird);
    EXPECT_EQ(vsDenied, vsHeld);
    EXPECT_EQ(vsDenied.size(), 21U);
    EXPECT_THAT(vsDenied, Each(Not(testing::StartsWith("00 00 00 00"))));
    EXPECT_EQ(vsDenied.front(), Hex(XdrBuilder().U32(kIo).Bytes()));
    EXPECT_THAT(Log().Texts('e'),
                Contains("[Nfs3Prog.ProcedureGETATTR] The access file does not admit 127.0.0.3 to export \"data\""));
    ExpectFolderUntouched();
}

TEST_F(AccessTest, AHandleIsOfNoUseToADeniedClientOverUdpEitherAndWhenNobodyHasMounted) {
    Allow("data 127.0.0.1 rw\n");
    NfsClient host(Transport::kTcp, kHost);
    const std::string sRoot = MountRoot(host);
    host.Umnt("data");
    NfsClient other(Transport::kUdp, kSecond);
    EXPECT_EQ(Look(other, sRoot), kIo);
    EXPECT_EQ(Look(host, sRoot), kOk);
}

TEST_F(AccessTest, EveryProcedureAnswersAClientForReadingAsAReadOnlyServerDoes) {
    Restart({}, true);
    SettleReadingTimes();
    const std::vector<std::string> vsReadOnly = AskAllFrom(kHost);
    Allow("data 127.0.0.1 ro\n");
    const std::vector<std::string> vsAdmitted = AskAllFrom(kHost);
    for (std::size_t i = 0; i < vsReadOnly.size(); ++i) {
        // The figures of a file system change by themselves.
        EXPECT_EQ(vsAdmitted[i].substr(0, i + 1 == kNfsFsstat ? 11 : std::string::npos),
                  vsReadOnly[i].substr(0, i + 1 == kNfsFsstat ? 11 : std::string::npos))
            << "procedure " << i + 1;
    }
    EXPECT_EQ(vsAdmitted[kNfsWrite - 1].substr(0, 11), "00 00 00 0d");
    EXPECT_EQ(vsAdmitted[kNfsRead - 1].substr(0, 11), "00 00 00 00");
    ExpectFolderUntouched();
}

TEST_F(AccessTest, OneClientWritesWhatAnotherMayOnlyRead) {
    Allow("data 127.0.0.1 rw\ndata 127.0.0.2 ro,shared\n");
    NfsClient writer(Transport::kTcp, kHost);
    NfsClient reader(Transport::kTcp, kSecond);
    const std::string sRoot = MountRoot(writer);
    EXPECT_EQ(MountRoot(reader), sRoot);
    std::string sFile;
    ASSERT_EQ(writer.Lookup(sRoot, "f", sFile), kOk);
    EXPECT_EQ(Store(writer, sFile), kOk);
    std::string sData;
    bool bEof = false;
    EXPECT_EQ(reader.Read(sFile, 0, 100, sData, bEof), kOk);
    EXPECT_EQ(sData, "storedt");
    EXPECT_EQ(Store(reader, sFile), kAccess);
    reader.Umnt("data");
    NfsClient third(Transport::kTcp, kThird);
    EXPECT_EQ(Look(third, sRoot), kIo);
    EXPECT_EQ(Store(writer, sFile), kOk) << "it holds the export still";
}

// ---- Exports beside and in each other

TEST_F(AccessTest, NothingIsMovedIntoAnExportForReadingNorOutOfOne) {
    Allow("data 127.0.0.1 rw\narchive 127.0.0.1 ro\n");
    const std::string sArchive = ExportNew("archive");
    WriteWholeFile(sArchive + "/old", "old");
    NfsClient client(Transport::kTcp, kHost);
    const std::string sData = MountRoot(client);
    const std::string sRoot = MountRoot(client, "archive");
    EXPECT_EQ(client.Rename(sData, "f", sRoot, "f"), kAccess);
    EXPECT_EQ(client.Rename(sRoot, "old", sData, "old"), kAccess);
    std::string sHandle;
    EXPECT_EQ(client.Lookup(sData, "f", sHandle), kOk);
    EXPECT_EQ(client.Rename(sData, "f", sData, "g"), kOk);
    EXPECT_EQ(ReadWholeFile(sArchive + "/old"), "old");
    EXPECT_NE(::access((sArchive + "/f").c_str(), F_OK), 0);
}

TEST_F(AccessTest, ALinkLeadsNowhereThatTheFileDoesNotOpen) {
    Allow("data 127.0.0.1 rw\narchive 127.0.0.1 ro\nprivate 127.0.0.2 rw\n");
    for (const char* pcName : {"archive", "private"}) {
        const std::string sPath = ExportNew(pcName);
        WriteWholeFile(sPath + "/target", "target");
        ASSERT_EQ(::symlink((sPath + "/target").c_str(), (Folder() / pcName).c_str()), 0);
    }
    NfsClient client(Transport::kTcp, kHost);
    const std::string sRoot = MountRoot(client);
    std::string sHandle;
    ASSERT_EQ(client.Lookup(sRoot, "archive", sHandle), kOk);
    EXPECT_EQ(Look(client, sHandle), kOk);
    EXPECT_EQ(Store(client, sHandle), kAccess);
    EXPECT_EQ(client.Create(sRoot, "archive", sHandle), kAccess);
    EXPECT_EQ(client.Lookup(sRoot, "private", sHandle), kIo);
    EXPECT_EQ(client.Create(sRoot, "private", sHandle), kIo);
    EXPECT_EQ(ReadWholeFile(m_Own / "archive" + "/target"), "target");
}

TEST_F(AccessTest, AnExportInsideAnotherHasRulesOfItsOwn) {
    Allow("data 127.0.0.1 rw\ninner 127.0.0.2 rw\n");
    WriteWholeFile(Folder() / "d/secret", "secret");
    Export(Folder() / "d", "inner");
    NfsClient outer(Transport::kTcp, kHost);
    NfsClient inner(Transport::kTcp, kSecond);
    const std::string sOuter = MountRoot(outer);
    const std::string sInner = MountRoot(inner, "inner");
    std::string sHandle;
    EXPECT_EQ(outer.Lookup(sOuter, "d", sHandle), kIo);
    EXPECT_EQ(outer.Lookup(sOuter, "d/secret", sHandle), kIo);
    EXPECT_EQ(Look(outer, sInner), kIo);
    EXPECT_EQ(outer.Lookup(sOuter, "f", sHandle), kOk);
    EXPECT_EQ(inner.Lookup(sInner, "secret", sHandle), kOk);
    EXPECT_EQ(Look(inner, sOuter), kIo);

    // A listing of what holds it gives its name alone.
    XdrReader listing =
        outer.Nfs3(kNfsReaddirplus, XdrBuilder().Opaque(sOuter).Raw(std::string(16, '\0')).U32(4096).U32(8192).Bytes());
    EXPECT_EQ(listing.U32(), kOk);
    ReadPostOpAttr(listing);
    listing.U64();
    std::set<std::string> names;
    while (listing.Bool()) {
        listing.U64();
        const std::string sName = listing.Opaque();
        listing.U64();
        EXPECT_EQ(ReadPostOpAttr(listing).has_value(), sName != "d") << sName;
        EXPECT_EQ(ReadPostOpHandle(listing).has_value(), sName != "d") << sName;
        names.insert(sName);
    }
    EXPECT_EQ(names, (std::set<std::string>{"d", "f"}));
}

// ---- Changes while it serves

TEST_F(AccessTest, ChangedRulesHoldWithinMomentsForWhoIsThereAlready) {
    Allow("data 127.0.0.1 rw\n");
    NfsClient client(Transport::kTcp, kHost);
    const std::string sRoot = MountRoot(client);
    std::string sFile;
    ASSERT_EQ(client.Lookup(sRoot, "f", sFile), kOk);
    EXPECT_EQ(Store(client, sFile), kOk);
    WriteWholeFile(AccessFile(), "data 127.0.0.1 ro\n");
    EXPECT_TRUE(WaitUntil([&] { return Store(client, sFile) == kAccess; }));
    EXPECT_EQ(Look(client, sFile), kOk);
    WriteWholeFile(AccessFile(), "data 127.0.0.2 rw\n");
    EXPECT_TRUE(WaitUntil([&] { return Look(client, sFile) == kIo; }));
    NfsClient other(Transport::kTcp, kSecond);
    EXPECT_TRUE(other.Mnt("data")) << "the holder of before holds nothing";
    WriteWholeFile(AccessFile(), "data 127.0.0.0/8 rw\n");
    const std::string sHeld = "[Nfs3Prog.ProcedureGETATTR] Export \"data\" is mounted by 127.0.0.2";
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_EQ(Look(client, sFile), kIo);
        return Log().Has(sHeld, 'e');
    })) << "it is admitted again, and another holds the export by now";
}

TEST_F(AccessTest, RulesThatHaveBecomeWrongLeaveThoseOfBeforeInForce) {
    Allow("data 127.0.0.1 rw\n");
    NfsClient client(Transport::kTcp, kHost);
    NfsClient other(Transport::kTcp, kSecond);
    const std::string sRoot = MountRoot(client);
    WriteWholeFile(AccessFile(), "data 127.0.0.2 rw\ndata 127.0.0.1 rwx\n");
    const std::string sLine = "Access file \"" + AccessFile() +
                              "\": line 2: \"rwx\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\". The rules "
                              "of before stay in force";
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_EQ(Look(client, sRoot), kOk);
        EXPECT_EQ(Look(other, sRoot), kIo);
        return Log().Has("[Nfs3Prog.Process] " + sLine, 'e');
    })) << Log().Dump();
}

// ---- The start

TEST_F(AccessTest, AWrongLineRefusesToStart) {
    Server().StopServer();
    WriteWholeFile(AccessFile(), "# none\n\ndata 127.0.0.1/33 rw\n");
    ServerOptions options;
    options.sAccessFile = AccessFile();
    Server().SetOptions(options);
    char vcReason[kReasonBufferSize] = "";
    EXPECT_FALSE(Server().StartServer(0, 0, 0, 0, false, vcReason));
    const std::string sReason =
        "Access file \"" + AccessFile() + "\": line 3: \"127.0.0.1/33\" has no number from 0 to 32 behind its slash";
    EXPECT_EQ(vcReason, sReason);
    EXPECT_TRUE(Log().Has("[NfsMain.StartServer] " + sReason, 'e')) << Log().Dump();
    EXPECT_FALSE(Server().IsServerRunning());
    EXPECT_THROW(RpcClient(Transport::kTcp, 2049), std::runtime_error);
    WriteWholeFile(AccessFile(), "data 127.0.0.1 rw\n");
    Start();
}

TEST_F(AccessTest, RulesEndWithTheServerThatHadThem) {
    Allow("data 127.0.0.2 rw\n");
    {
        NfsClient client(Transport::kTcp, kHost);
        EXPECT_FALSE(client.Mnt("data"));
    }
    Restart({});
    NfsClient client(Transport::kTcp, kHost);
    EXPECT_TRUE(client.Mnt("data"));
}

}  // namespace
