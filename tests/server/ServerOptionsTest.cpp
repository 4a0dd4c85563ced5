// Bind address, read-only server and no portmapper: whole servers and consoles.
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "Isolation.h"
#include "ServerFixture.h"
#include "WaitUntil.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kAccess = 13;
constexpr int kPortmapPort = 111;
constexpr int kNfsPort = 2049;
constexpr int kMountPort = 1058;

/// Does somebody listen on a TCP port of an address?
bool IsListening(int iPort, const std::string& sAddress = "127.0.0.1") {
    try {
        const RpcClient client(Transport::kTcp, iPort, "127.0.0.1", sAddress);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

/// Is a UDP port of an address taken?
bool IsTaken(int iPort, const std::string& sAddress = "127.0.0.1") {
    const CDescriptor socket = CDescriptor::OpenSocket(SOCK_DGRAM);
    return !socket.BindToPort(&iPort, ntohl(::inet_addr(sAddress.c_str())));
}

class ServerOptionsServerTest : public ServerFixture {
protected:
    void Restart(const ServerOptions& options) {
        Server().StopServer();
        Server().SetOptions(options);
        Start();
    }
};

// ---- Bind address

TEST_F(ServerOptionsServerTest, BoundServerIsReachedAtItsAddressAlone) {
    for (const int iPort : {kPortmapPort, kNfsPort, kMountPort}) {
        EXPECT_TRUE(IsListening(iPort, "127.0.0.1") && IsListening(iPort, "127.0.0.2")) << "all, unless asked for";
    }
    ServerOptions options;
    options.sBindAddress = "127.0.0.2";
    Restart(options);
    for (const int iPort : {kPortmapPort, kNfsPort, kMountPort}) {
        EXPECT_TRUE(IsListening(iPort, "127.0.0.2")) << iPort;
        EXPECT_TRUE(IsTaken(iPort, "127.0.0.2")) << iPort;
        for (const char* pcOther : {"127.0.0.1", "127.0.0.3"}) {
            EXPECT_FALSE(IsListening(iPort, pcOther)) << iPort << " of " << pcOther;
            EXPECT_FALSE(IsTaken(iPort, pcOther)) << iPort << " of " << pcOther;
        }
    }
    for (const Transport transport : {Transport::kTcp, Transport::kUdp}) {
        NfsClient client(transport, "127.0.0.5", kNfsPort, kMountPort, "127.0.0.2");
        Fattr3 attributes;
        EXPECT_EQ(client.Getattr(MountRoot(client), attributes), kOk);
        client.Umnt(kExportName);
    }
    RpcClient portmapper(Transport::kUdp, kPortmapPort, "127.0.0.5", "127.0.0.2");
    const std::string sAsk = XdrBuilder().U32(kNfsProgram).U32(3).U32(IPPROTO_TCP).U32(0).Bytes();
    EXPECT_EQ(WordAt(portmapper.Call(kPortmapProgram, 2, 3, sAsk).sBody, 0), static_cast<std::uint32_t>(kNfsPort));
}

TEST_F(ServerOptionsServerTest, TwoServersServeBesideEachOtherOnAddressesOfTheirOwn) {
    ServerOptions options;
    options.sBindAddress = "127.0.0.2";
    Restart(options);
    LogCapture log;
    CapturingNfsMain second("second", CRuntimeParam::kLogError, &log);
    options.sBindAddress = "127.0.0.3";
    second.SetOptions(options);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(second.Initial(vcReason)) << vcReason;
    ASSERT_TRUE(second.StartServer(0, 0, 0, 0, false, vcReason)) << vcReason;
    const TempFolder folder;
    ASSERT_TRUE(second.AddMountPoint(folder.Path().c_str(), "second", vcReason)) << vcReason;
    {
        NfsClient client(Transport::kTcp, "127.0.0.1", kNfsPort, kMountPort, "127.0.0.3");
        EXPECT_TRUE(client.Mnt("second"));
        EXPECT_FALSE(client.Mnt(kExportName));
        NfsClient other(Transport::kTcp, "127.0.0.1", kNfsPort, kMountPort, "127.0.0.2");
        EXPECT_TRUE(other.Mnt(kExportName));
    }
    second.StopServer();
    second.Terminate();
}

TEST_F(ServerOptionsServerTest, WrongBindAddressRefusesToStart) {
    Server().StopServer();
    Log().Clear();
    ServerOptions options;
    char vcReason[kReasonBufferSize] = "";
    for (const auto& [pcAddress, pcReason] :
         {std::pair{"host.example.org", "Bind address \"host.example.org\" is no IPv4 address"},
          std::pair{"192.0.2.1", "Bind address \"192.0.2.1\" cannot be used. Cannot assign requested address (99)"}}) {
        options.sBindAddress = pcAddress;
        Server().SetOptions(options);
        EXPECT_FALSE(Server().StartServer(0, 0, 0, 0, false, vcReason));
        EXPECT_STREQ(vcReason, pcReason);
        EXPECT_TRUE(Log().Has("[NfsMain.StartServer] " + std::string(pcReason), 'e')) << Log().Dump();
        EXPECT_FALSE(IsListening(kNfsPort));
        EXPECT_FALSE(IsListening(kPortmapPort));
    }
    Restart({});
}

// ---- Read-only

TEST_F(ServerOptionsServerTest, ReadOnlyServerRefusesEveryChangeWhateverItsStartAsksFor) {
    WriteWholeFile(Folder() / "f", "content");
    ServerOptions options;
    options.bReadOnly = true;
    Restart(options);  // asks for one that is not
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sFile;
    ASSERT_EQ(client.Lookup(sRoot, "f", sFile), kOk);
    std::string sData;
    bool bEof = false;
    EXPECT_EQ(client.Read(sFile, 0, 100, sData, bEof), kOk);
    EXPECT_EQ(sData, "content");
    std::uint32_t iCount = 0;
    std::string sNew;
    Sattr3 attributes;
    attributes.iSize = 0;
    EXPECT_EQ(client.Write(sFile, 0, "x", iCount), kAccess);
    EXPECT_EQ(client.Setattr(sFile, attributes), kAccess);
    EXPECT_EQ(client.Create(sRoot, "new", sNew), kAccess);
    EXPECT_EQ(client.Mkdir(sRoot, "new", sNew), kAccess);
    EXPECT_EQ(client.Remove(sRoot, "f"), kAccess);
    EXPECT_EQ(client.Rename(sRoot, "f", sRoot, "g"), kAccess);
    EXPECT_EQ(ReadWholeFile(Folder() / "f"), "content");
}

// ---- No portmapper

TEST_F(ServerOptionsServerTest, WithoutPortmapperPort111IsLeftAloneAndThePortsStayTheDefaultOnes) {
    ServerOptions options;
    options.bNoPortmapper = true;
    Restart(options);
    EXPECT_FALSE(IsListening(kPortmapPort));
    EXPECT_FALSE(IsTaken(kPortmapPort));
    NfsClient client;
    EXPECT_TRUE(client.Mnt(kExportName));
    client.Umnt(kExportName);
    // A system's portmapper, or what looks like it, is not asked either: it would be waited for.
    const CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = kPortmapPort;
    Server().StopServer();
    ASSERT_TRUE(holder.BindToPort(&iPort));
    Start();
    NfsClient again;
    EXPECT_TRUE(again.Mnt(kExportName));
}

class ServerOptionsConsoleTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }
    /// A console at its prompt, in debug mode.
    static std::unique_ptr<ConsoleProcess> Open(std::vector<std::string> vsOptions, const ChildOptions& options = {}) {
        vsOptions.insert(vsOptions.end(), {"-md", "int", "-id", "test", "-log", "1"});
        auto pConsole = std::make_unique<ConsoleProcess>(vsOptions, options);
        EXPECT_TRUE(pConsole->WaitForPrompt()) << pConsole->Output();
        pConsole->Command("debug");
        return pConsole;
    }
    /// Surroundings of a user without any right.
    static ChildOptions WithoutRights() {
        WriteWholeFile("/proc/sys/net/ipv4/ip_unprivileged_port_start", "1024");
        ChildOptions options;
        options.viDroppedCapabilities = {CAP_NET_BIND_SERVICE};
        return options;
    }

    LeakGuard m_Leaks;
    TempFolder m_Folder;
};

TEST_F(ServerOptionsConsoleTest, WithoutPortmapperNoRightIsNeeded) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to give the right up";
    }
    for (const bool bByVariable : {false, true}) {
        ChildOptions options = WithoutRights();
        std::vector<std::string> vsOptions;
        if (bByVariable) {
            options.vEnvironment = {{"NFSLIB_NOPORTMAP", "1"}};
        } else {
            vsOptions = {"-noportmap"};
        }
        auto pConsole = Open(vsOptions, options);
        EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success"));
        pConsole->Command("mount " + m_Folder.Path() + "=data");
        NfsClient client;
        EXPECT_TRUE(client.Mnt("data"));
        EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
    }
}

TEST_F(ServerOptionsConsoleTest, WithoutRightsTheLogTellsWhatTheReasonLeavesOpen) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to give the right up";
    }
    auto pConsole = Open({}, WithoutRights());
    EXPECT_EQ(pConsole->Command("start"),
              "[erro] (test) [NfsMain.StartServer] Port 111 cannot be opened (Permission denied (13)), so a system "
              "portmapper was asked to register the server. Fail to register socket for port 1059. Reason=Unable to "
              "register UDP for 100005 ver=3\nFail to start NFS. \n");
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
}

TEST_F(ServerOptionsConsoleTest, OptionsOfTheCommandLineReachTheServerAndGoBeforeTheEnvironment) {
    WriteWholeFile(m_Folder / "access", "data 127.0.0.0/8 rw\n");
    ASSERT_EQ(::mkdir((m_Folder / "files").c_str(), 0755), 0);
    ChildOptions options;
    options.vEnvironment = {{"NFSLIB_BIND", "127.0.0.9"}, {"NFSLIB_ACCESS", "/nonexistent"}};
    auto pConsole = Open({"-bind", "127.0.0.2", "-access", m_Folder / "access", "-readonly"}, options);
    EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success"));
    pConsole->Command("mount " + (m_Folder / "files") + "=data");
    EXPECT_FALSE(IsListening(kNfsPort, "127.0.0.9"));
    {
        NfsClient client(Transport::kTcp, "127.0.0.1", kNfsPort, kMountPort, "127.0.0.2");
        std::string sNew;
        EXPECT_EQ(client.Create(client.Mnt("data").value_or(""), "new", sNew), kAccess);
        WriteWholeFile(m_Folder / "access", "data 127.0.0.7 rw\n");
        NfsClient other(Transport::kTcp, "127.0.0.7", kNfsPort, kMountPort, "127.0.0.2");
        EXPECT_TRUE(WaitUntil([&] {
            pConsole->Output();  // each refusal is a line, and the pipe holds not many
            return other.Mnt("data").has_value();
        }));
    }
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
}

TEST_F(ServerOptionsConsoleTest, WrongValuesAreToldAtTheStart) {
    WriteWholeFile(m_Folder / "access", "data 127.0.0.1 rw\ndata 127.0.0.2\n");
    auto pConsole = Open({"-bind", "127.0.0.1", "-access", m_Folder / "access"});
    EXPECT_THAT(pConsole->Command("start"),
                HasSubstr("Fail to start NFS. Access file \"" + (m_Folder / "access") +
                          "\": line 2: wants an export, clients and rights, and has no rights\n"));
    WriteWholeFile(m_Folder / "access", "data 127.0.0.1 rw\n");
    EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success")) << "once it is put right";
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
    ChildOptions options;
    options.vEnvironment = {{"NFSLIB_READONLY", "yes"}};
    pConsole = Open({}, options);
    EXPECT_THAT(pConsole->Command("start"),
                HasSubstr("Fail to start NFS. Variable NFSLIB_READONLY is \"yes\", which is neither 1 nor 0\n"));
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
    pConsole = Open({"-readonly"}, options);
    EXPECT_THAT(pConsole->Command("start"), HasSubstr("Start NFS success")) << "the option goes before the variable";
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
    pConsole = Open({"-bind", "127.0.0"});
    EXPECT_THAT(pConsole->Command("start"),
                HasSubstr("Fail to start NFS. Bind address \"127.0.0\" is no IPv4 address\n"));
    EXPECT_EQ(pConsole->Quit(), 0) << pConsole->Output();
}

// ---- Control sockets

TEST_F(ServerOptionsConsoleTest, ControlSocketsGetModeAndGroup) {
    struct stat status {};
    {
        ConsoleProcess server(
            {"-md", "svr", "-id", "server1", "-socketmode", "0660", "-socketgroup", std::to_string(::getegid())});
        ASSERT_TRUE(server.WaitForPrompt()) << server.Output();
        ASSERT_EQ(::stat("/tmp/nfs-server", &status), 0);
        EXPECT_EQ(status.st_mode, S_IFSOCK | 0660U);
        EXPECT_EQ(status.st_gid, ::getegid());
        ChildOptions options;
        options.vEnvironment = {{"NFSLIB_SOCKET_MODE", "600"}};
        ConsoleProcess client({"-md", "cli", "-id", "c"}, options);
        ASSERT_TRUE(client.WaitForPrompt()) << client.Output();
        ASSERT_EQ(::stat("/tmp/nfs-c", &status), 0);
        EXPECT_EQ(status.st_mode, S_IFSOCK | 0600U);
        EXPECT_THAT(client.Command("status"), HasSubstr("Server Status: Stopped"));
        EXPECT_EQ(client.Quit(), 0);
        EXPECT_EQ(server.Quit(), 0);
    }
    ConsoleProcess server({"-md", "svr"});
    ASSERT_TRUE(server.WaitForPrompt()) << server.Output();
    ASSERT_EQ(::stat("/tmp/nfs-server", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0777U) << "everybody's, unless asked otherwise";
    EXPECT_EQ(server.Quit(), 0);
}

TEST_F(ServerOptionsConsoleTest, WrongModesAndGroupsOfControlSocketsEndTheProgram) {
    for (const auto& [vsOptions, pcReason] :
         {std::pair{std::vector<std::string>{"-md", "svr", "-socketmode", "rw"},
                    "Terminated. Reason=Socket mode \"rw\" is no octal number up to 0777\n"},
          std::pair{std::vector<std::string>{"-socketgroup", "no such group"},
                    "Terminated. Reason=Socket group \"no such group\" does not exist\n"}}) {
        const RunResult result = RunProgram([&] {
            std::vector<std::string> vsArguments{ConsoleProcess::ProgramPath()};
            vsArguments.insert(vsArguments.end(), vsOptions.begin(), vsOptions.end());
            return vsArguments;
        }());
        EXPECT_EQ(result.iStatus, 1);
        EXPECT_THAT(result.sOutput, HasSubstr(pcReason));
        EXPECT_NE(::access("/tmp/nfs-server", F_OK), 0);
    }
}

}  // namespace
