// An external server and a client that steers it: in two virtual machines, and in one.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostMethods.h"
#include "JavaHost.h"
#include "NfsClient.h"
#include "TempFolder.h"

namespace {

using Lines = std::vector<std::string>;
constexpr std::uint32_t kNfs3Ok = 0;
constexpr std::uint32_t kNfs3ErrInval = 22;
constexpr const char* kIOException = "!java.io.IOException: ";

/// The server's host object is "S" (in m_Server), the client's "C" (in Client()).
class RemoteHostTest : public JavaTest {
protected:
    /// Brings both controllers up, each with a lasting callback.
    void Bring(JavaHost& server, JavaHost& client) {
        m_sServer = server.Initial("S", "external", 1, 1);
        EXPECT_EQ(server.Call("S", "startRemoteController", m_sServer), "true");
        m_sClient = client.Initial("C", "steering", 2, 1);
        EXPECT_EQ(client.Call("C", "startRemoteController", m_sClient), "true");
        server.Start("server-loop", "S", "receiveCallbackLoop", m_sServer, -1);
        client.Start("client-loop", "C", "receiveCallbackLoop", m_sClient, -1);
        EXPECT_TRUE(server.WaitForEvent("S", "isInterrupted()"));
        EXPECT_TRUE(client.WaitForEvent("C", "isInterrupted()"));
    }

    void TakeDown(JavaHost& server, JavaHost& client) {
        client.Do({"answer", "C", "isInterrupted", "true"});
        server.Do({"answer", "S", "isInterrupted", "true"});
        EXPECT_EQ(client.Join("client-loop"), "false");
        EXPECT_EQ(server.Join("server-loop"), "false");
        client.Call("C", "stopServer", m_sClient);
        client.Call("C", "stopRemoteController", m_sClient);
        client.Call("C", "terminate", m_sClient);
        EXPECT_EQ(server.Call("S", "isServerRunning", m_sServer), "true") << "a client stops no server";
        server.Call("S", "stopServer", m_sServer);
        server.Call("S", "stopRemoteController", m_sServer);
        server.Call("S", "terminate", m_sServer);
    }

    /// The client starts the server, exports, presents a file, and decides what happens to it.
    void Steer(JavaHost& server, JavaHost& client) {
        const TempFolder folder;
        EXPECT_EQ(client.Call("C", "getVersion", m_sClient), "1.4");
        EXPECT_EQ(client.Call("C", "getDescription", m_sClient), "External NFS Server");
        EXPECT_EQ(client.Call("C", "getServerStatus", m_sClient), "1");
        EXPECT_EQ(client.Call("C", "startServer", m_sClient, 0, 0, false), "true");
        EXPECT_EQ(client.Call("C", "startServer", m_sClient, 0, 0, false),
                  std::string(kIOException) + "NFS already running");
        EXPECT_EQ(client.Call("C", "getServerStatus", m_sClient), "3");
        EXPECT_EQ(client.Call("C", "isServerRunning", m_sClient), "true");
        EXPECT_EQ(server.Call("S", "isServerRunning", m_sServer), "true");
        EXPECT_EQ(client.Call("C", "addMountPoint", m_sClient, folder.Path(), "data"), "true");
        EXPECT_EQ(client.Call("C", "addMountPoint", m_sClient, folder.Path(), "data"),
                  std::string(kIOException) + "Export name \"data\" already defined");
        client.Call("C", "addSession", m_sClient, "s1", folder.Path());
        EXPECT_EQ(client.Call("C", "isSessionExists", m_sClient, "s1"), "true") << "the server's table";
        EXPECT_EQ(client.Call("C", "isLocalSessionExists", m_sClient, "s1"), "false") << "the client's own table";
        EXPECT_EQ(server.Call("S", "isLocalSessionExists", m_sServer, "s1"), "true");
        client.Events("C");
        EXPECT_EQ(client.Call("C", "getMountInfo", m_sClient, false, true), "1");
        EXPECT_TRUE(client.WaitForEvent("C", "logRaw(external,  Mount 1 - " + folder.Path() + " : data () [steering])"))
            << "the listing comes back as log lines";
        Present(client, folder);
        Decide(server, client, folder);
    }

    void Present(JavaHost& client, const TempFolder& folder) {
        WriteWholeFile(folder / "disk", "");
        WriteWholeFile(folder / "pieces", "0123456789");
        client.Call("C", "openRedirectedFile", m_sClient, folder / "disk", 10, false, 0, 0);
        EXPECT_EQ(client.Call("C", "addRedirectedFileSegment", m_sClient, folder / "disk", folder / "pieces", 5, 0, 5),
                  "void");
        EXPECT_EQ(client.Call("C", "addRedirectedFileSegment", m_sClient, folder / "disk", folder / "pieces", 0, 5, 5),
                  "void");
        EXPECT_EQ(client.Call("C", "addRedirectedFileSegment", m_sClient, folder / "none", folder / "pieces", 0, 5, 5),
                  kIOException + ("Redirected file \"" + folder / "none" + "\" is not open"));
    }

    void Decide(JavaHost& server, JavaHost& client, const TempFolder& folder) {
        NfsClient nfs;
        const std::string sRoot = nfs.Mnt("data").value_or("");
        std::string sFile;
        ASSERT_EQ(nfs.Lookup(sRoot, "disk", sFile), kNfs3Ok);
        std::string sData;
        bool bEof = false;
        EXPECT_EQ(nfs.Read(sFile, 0, 100, sData, bEof), kNfs3Ok);
        EXPECT_EQ(sData, "5678901234");

        client.Do({"answer", "C", "writeRedirectedFile", "length"});
        std::uint32_t iCount = 0;
        EXPECT_EQ(nfs.Write(sFile, 3, "xyz", iCount), kNfs3Ok);
        EXPECT_EQ(iCount, 3U);
        client.Do({"throw", "C", "writeRedirectedFile", "java.lang.IllegalStateException"});
        EXPECT_EQ(nfs.Write(sFile, 4, "x", iCount), kNfs3ErrInval);
        Sattr3 size;
        size.iSize = 5000000000;
        EXPECT_EQ(nfs.Setattr(sFile, size), kNfs3Ok);
        EXPECT_EQ(nfs.Rename(sRoot, "disk", sRoot, "moved"), kNfs3Ok);
        EXPECT_EQ(nfs.Remove(sRoot, "moved"), kNfs3Ok);
        EXPECT_EQ(
            client.Notifications("C"),
            Lines({"writeRedirectedFile(data, " + folder / "disk" + ", 3, 0, 3)",
                   "writeRedirectedFile(data, " + folder / "disk" + ", 4, 0, 1)",
                   "setRedirectedFileAttributes(data, " + folder / "disk" + ", true, 5000000000, false, 0, false, 0)",
                   "renameRedirectedFile(data, " + folder / "disk" + ", " + folder / "moved" + ")",
                   "removeRedirectedFile(data, " + folder / "moved" + ")"}));
        EXPECT_EQ(server.Notifications("S"), Lines()) << "the server's own host is not asked";
    }

    std::string m_sServer;
    std::string m_sClient;
};

TEST_F(RemoteHostTest, AClientInAnotherMachineSteersTheServerAndDecides) {
    JavaHost server;
    JavaHost client;
    Bring(server, client);
    Steer(server, client);
    TakeDown(server, client);
}

TEST_F(RemoteHostTest, ServerAndClientShareOneMachine) {
    JavaHost host;
    Bring(host, host);
    Steer(host, host);
    TakeDown(host, host);
}

/// Nulls, empty and very long texts from another process: neither end takes harm, nor does what clients use.
TEST_F(RemoteHostTest, BadArgumentsOfAClientHarmNobody) {
    JavaHost server;
    JavaHost client;
    Bring(server, client);
    server.Do({"record", "S", "off"});
    client.Do({"record", "C", "off"});
    EXPECT_EQ(client.Call("C", "startServer", m_sClient, -1, -1, true), "true");
    CallWithBadArguments(client, "C", m_sClient);
    client.Call("C", "setLogControl", m_sClient, 1);
    EXPECT_EQ(client.Call("C", "getServerStatus", m_sClient), "3");
    EXPECT_EQ(server.Call("S", "isServerRunning", m_sServer), "true");
    const TempFolder folder;
    EXPECT_EQ(client.Call("C", "addMountPoint", m_sClient, folder.Path(), "data"), "true");
    NfsClient nfs;
    EXPECT_TRUE(nfs.Mnt("data").has_value());
    TakeDown(server, client);
}

/// Counted in bytes of UTF-8: 512 letters with an accent are 1024.
TEST_F(RemoteHostTest, ATextThatDoesNotFitARequestThrowsWhichAndByHowMuch) {
    JavaHost host;
    Bring(host, host);
    EXPECT_EQ(host.Call("C", "startServer", m_sClient, 0, 0, false), "true");
    std::string sLong;
    for (int i = 0; i < 512; ++i) {
        sLong += "\\u00E9";
    }
    const auto reason = [](const std::string& sName) {
        return kIOException + sName + " is too long for the remote control (1024 bytes, at most 1023)";
    };
    EXPECT_EQ(host.Call("C", "addMountPoint", m_sClient, sLong, "data"), reason("Local mount path"));
    EXPECT_EQ(host.Call("C", "addRedirectedFileSegment", m_sClient, sLong, "/y", 0, 0, 1), reason("Path"));
    EXPECT_EQ(host.Call("C", "addRedirectedFileSegment", m_sClient, "/x", sLong, 0, 0, 1), reason("Source path"));
    EXPECT_EQ(host.Call("C", "runQuickTestMode", m_sClient, sLong, 0), reason("Path"));
    host.Events("C");
    EXPECT_EQ(host.Call("C", "openRedirectedFile", m_sClient, sLong, 1, false, 0, 0), "void");
    EXPECT_TRUE(host.WaitForEvent("C",
                                  "logError(steering, [IpcClient.SendRequest] Path is too long for the remote control "
                                  "(1024 bytes, at most 1023))"));
    EXPECT_EQ(host.Call("C", "isSessionExists", m_sClient, sLong), "false");
    EXPECT_EQ(host.Call("C", "getMountInfo", m_sClient, false, false), "0") << "nothing was exported";
    TakeDown(host, host);
}

TEST_F(RemoteHostTest, AClientWithoutAServerSaysWhyItFails) {
    JavaHost host;
    const std::string sHandle = host.Initial("C", "lonely", 2, 0);
    const std::string sReason = std::string(kIOException) +
                                "Fail to connect ipc client socket. No such file or "
                                "directory (2)";
    EXPECT_EQ(host.Call("C", "startServer", sHandle, 0, 0, false), sReason);
    EXPECT_EQ(host.Call("C", "addMountPoint", sHandle, "/", "data"), sReason);
    EXPECT_EQ(host.Call("C", "addRedirectedFileSegment", sHandle, "/x", "/y", 0, 0, 1), sReason);
    EXPECT_EQ(host.Call("C", "isServerRunning", sHandle), "false");
    EXPECT_EQ(host.Call("C", "isSessionExists", sHandle, "s"), "false");
    EXPECT_EQ(host.Call("C", "getMountInfo", sHandle, false, true), "0");
    EXPECT_EQ(host.Call("C", "getServerStatus", sHandle), "0");
    EXPECT_EQ(host.Call("C", "runQuickTestMode", sHandle, "/", 0), "true") << "taken for a server that is too old";
    EXPECT_EQ(host.Call("C", "addNetDeviceCredential", sHandle, "//nas/share", "user", "secret"), "false");
    host.Call("C", "terminate", sHandle);
}

TEST_F(RemoteHostTest, TwoClientsOfTheSameNameAreOneTooMany) {
    JavaHost host;
    const std::string sFirst = host.Initial("C", "same", 2, 0);
    const std::string sSecond = host.Initial("C", "same", 2, 0);
    EXPECT_EQ(host.Call("C", "startRemoteController", sFirst), "true");
    EXPECT_EQ(host.Call("C", "startRemoteController", sSecond),
              std::string(kIOException) + "Ipc channel is already created by others.");
    host.Call("C", "stopRemoteController", sFirst);
    host.Call("C", "terminate", sFirst);
    host.Call("C", "terminate", sSecond);
}

}  // namespace
