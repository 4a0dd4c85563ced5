// What variables of the environment ask for, in a real virtual machine.
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "FigureReaders.h"
#include "JavaHost.h"
#include "NfsClient.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

constexpr const char* kIOException = "!java.io.IOException: ";
constexpr std::uint32_t kAccess = 13;

/// Variables that virtual machines started meanwhile have.
class Environment {
public:
    using Variables = std::vector<std::pair<const char*, std::string>>;

    explicit Environment(Variables vVariables) : m_vVariables(std::move(vVariables)) {
        for (const auto& [pcName, sValue] : m_vVariables) {
            ::setenv(pcName, sValue.c_str(), 1);
        }
    }
    ~Environment() {
        for (const auto& [pcName, sValue] : m_vVariables) {
            ::unsetenv(pcName);
        }
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    Variables m_vVariables;
};

class HostEnvironmentTest : public JavaTest {
protected:
    static bool IsListening(int iPort, const std::string& sAddress) {
        try {
            const RpcClient client(Transport::kTcp, iPort, "127.0.0.1", sAddress);
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }

    TempFolder m_Folder;
};

TEST_F(HostEnvironmentTest, VariablesReachTheServer) {
    WriteWholeFile(m_Folder / "access", "data 127.0.0.1 rw\n");
    const Environment environment(Environment::Variables{{"NFSLIB_BIND", "127.0.0.2"},
                                                         {"NFSLIB_READONLY", "1"},
                                                         {"NFSLIB_NOPORTMAP", "1"},
                                                         {"NFSLIB_ACCESS", m_Folder / "access"}});
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    ASSERT_EQ(host.Call("A", "startServer", sHandle, 0, 0, false), "true");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, m_Folder.Path(), "data"), "true");
    EXPECT_FALSE(IsListening(2049, "127.0.0.1"));
    EXPECT_FALSE(IsListening(111, "127.0.0.2"));
    {
        NfsClient client(Transport::kTcp, "127.0.0.1", 2049, 1058, "127.0.0.2");
        NfsClient stranger(Transport::kTcp, "127.0.0.3", 2049, 1058, "127.0.0.2");
        EXPECT_FALSE(stranger.Mnt("data"));
        EXPECT_EQ(stranger.GetMountStatus(), kAccess);
        std::string sNew;
        EXPECT_EQ(client.Create(client.Mnt("data").value_or(""), "new", sNew), kAccess);
    }
    host.Call("A", "stopServer", sHandle);
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostEnvironmentTest, AHostsServerWritesItsFiguresToAFile) {
    const std::string sFile = m_Folder / "figures.json";
    const Environment environment(Environment::Variables{{"NFSLIB_STATS", sFile}});
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    ASSERT_EQ(host.Call("A", "startServer", sHandle, 0, 0, false), "true");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, m_Folder.Path(), "data"), "true");
    EXPECT_TRUE(WaitUntil([&] { return ReadJson(ReadWholeFile(sFile)).at("serving") == "true"; }));
    {
        NfsClient client;
        Fattr3 attributes;
        EXPECT_EQ(client.Getattr(client.Mnt("data").value_or(""), attributes), 0U);
    }
    host.Call("A", "stopServer", sHandle);
    const auto figures = ReadJson(ReadWholeFile(sFile));
    EXPECT_EQ(figures.at("id"), "host");
    EXPECT_EQ(figures.at("serving"), "false");
    EXPECT_EQ(figures.at("procedures[8].procedure"), "GETATTR");
    EXPECT_EQ(figures.at("procedures[8].calls"), "1");
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostEnvironmentTest, WrongValuesAreThrownByTheStart) {
    WriteWholeFile(m_Folder / "access", "data 127.0.0.1 rw\ndata everybody rw\n");
    const std::pair<const char*, std::pair<std::string, std::string>> vWrong[] = {
        {"NFSLIB_READONLY", {"yes", "Variable NFSLIB_READONLY is \"yes\", which is neither 1 nor 0"}},
        {"NFSLIB_SYNC", {"on", "Variable NFSLIB_SYNC is \"on\", which is neither 1 nor 0"}},
        {"NFSLIB_NOPORTMAP", {"true", "Variable NFSLIB_NOPORTMAP is \"true\", which is neither 1 nor 0"}},
        {"NFSLIB_BIND", {"everywhere", "Bind address \"everywhere\" is no IPv4 address"}},
        {"NFSLIB_ACCESS",
         {m_Folder / "access",
          "Access file \"" + (m_Folder / "access") + "\": line 2: \"everybody\" is no IPv4 address"}},
        {"NFSLIB_STATS",
         {m_Folder / "missing/figures", "Statistics file \"" + (m_Folder / "missing/figures") + "\": Folder \"" +
                                            (m_Folder / "missing/") + "\": No such file or directory (2)"}},
    };
    for (const auto& [pcName, wrong] : vWrong) {
        const Environment environment(Environment::Variables{{pcName, wrong.first}});
        JavaHost host;
        const std::string sHandle = host.Initial("A", "host", 0, 0);
        EXPECT_EQ(host.Call("A", "startServer", sHandle, 0, 0, false), kIOException + wrong.second);
        EXPECT_EQ(host.Call("A", "isServerRunning", sHandle), "false");
        host.Call("A", "terminate", sHandle);
    }
}

TEST_F(HostEnvironmentTest, ControlSocketsOfServersAndClientsGetTheirMode) {
    const Environment environment(Environment::Variables{{"NFSLIB_SOCKET_MODE", "0600"}});
    JavaHost host;
    const std::string sServer = host.Initial("S", "host", 1, 0);
    EXPECT_EQ(host.Call("S", "startRemoteController", sServer), "true");
    const std::string sClient = host.Initial("C", "client", 2, 0);
    EXPECT_EQ(host.Call("C", "startRemoteController", sClient), "true");
    for (const char* pcSocket : {"/tmp/nfs-server", "/tmp/nfs-client"}) {
        struct stat status {};
        ASSERT_EQ(::stat(pcSocket, &status), 0) << pcSocket;
        EXPECT_EQ(status.st_mode, S_IFSOCK | 0600U) << pcSocket;
    }
    EXPECT_EQ(host.Call("C", "getServerStatus", sClient), "1");
    host.Call("C", "stopRemoteController", sClient);
    host.Call("C", "terminate", sClient);
    host.Call("S", "stopRemoteController", sServer);
    host.Call("S", "terminate", sServer);
}

TEST_F(HostEnvironmentTest, WrongModeOfControlSocketsIsThrownWhereThereAreSome) {
    const Environment environment(Environment::Variables{{"NFSLIB_SOCKET_MODE", "everybody"}});
    JavaHost host;
    for (const int iMode : {0, 1, 2}) {
        const std::string sHandle = host.Initial("A", "host", iMode, 0);
        EXPECT_EQ(host.Call("A", "startRemoteController", sHandle),
                  iMode == 0 ? std::string("true")
                             : std::string(kIOException) + "Socket mode \"everybody\" is no octal number up to 0777")
            << iMode;
        host.Call("A", "terminate", sHandle);
    }
}

TEST_F(HostEnvironmentTest, AStartThatFailsWithoutAReasonAtTheExternalServerSaysWhereToLook) {
    JavaHost host;
    const std::string sServer = host.Initial("S", "host", 1, 0);
    EXPECT_EQ(host.Call("S", "startRemoteController", sServer), "true");
    const std::string sClient = host.Initial("C", "client", 2, 0);
    {
        const CDescriptor holder = CDescriptor::OpenSocket(SOCK_STREAM);
        int iPort = 111;
        ASSERT_TRUE(holder.BindToPort(&iPort));
        EXPECT_EQ(host.Call("C", "startServer", sClient, 0, 0, false),
                  std::string(kIOException) + "The external server gave no reason; its log tells it");
    }
    host.Call("C", "terminate", sClient);
    host.Call("S", "stopRemoteController", sServer);
    host.Call("S", "terminate", sServer);
}

}  // namespace
