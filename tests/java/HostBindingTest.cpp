// Every native method, in every mode, from a real virtual machine.
#include <chrono>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "HostMethods.h"
#include "IpcPeer.h"
#include "JavaHost.h"
#include "NfsClient.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kIOException = "!java.io.IOException: ";

/// A port that somebody else holds.
class OccupiedPort {
public:
    OccupiedPort(int iPort, int iType) : m_iSocket(::socket(AF_INET, iType | SOCK_CLOEXEC, 0)) {
        const int iOn = 1;  // connections of earlier tests may linger
        ::setsockopt(m_iSocket, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(iPort));
        EXPECT_EQ(::bind(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(iType == SOCK_STREAM ? ::listen(m_iSocket, 1) : 0, 0);
    }
    ~OccupiedPort() { ::close(m_iSocket); }
    OccupiedPort(const OccupiedPort&) = delete;
    OccupiedPort& operator=(const OccupiedPort&) = delete;

private:
    int m_iSocket;
};

/// The judge of every test here: what counts as a complaint about the library.
TEST(ComplaintsTest, ThoseAboutTheMachinesOwnNativeCodeAreNotOurs) {
    EXPECT_EQ(ComplaintsIn("WARNING in native method: JNI call made without checking exceptions when required to\n"
                           "\tat java.lang.Object.wait(Native Method)\n"),
              std::vector<std::string>());
    EXPECT_EQ(ComplaintsIn("WARNING in native method: JNI call made without checking exceptions when required to\n"
                           "\tat com.norvo.kbt.quickspin.nfs.NfsLibNative.getVersion(Native Method)\n")
                  .size(),
              1U);
    EXPECT_EQ(ComplaintsIn("WARNING: JNI local refs: 66, exceeds capacity: 32\n").size(), 1U) << "on our own threads";
    EXPECT_EQ(ComplaintsIn("FATAL ERROR in native method: Bad global or local ref passed to JNI\n").size(), 1U);
}

class HostBindingTest : public JavaTest {};

TEST_F(HostBindingTest, TheHandleZeroAnswersTheZeroValueOfEveryMethod) {
    JavaHost host;
    host.New("A");
    for (const Method& method : MethodsWithHandle()) {
        EXPECT_EQ(CallOn(host, "A", "0", method.vsCall), method.sWithoutController) << method.vsCall[0];
    }
    EXPECT_TRUE(host.Events("A").empty());
}

TEST_F(HostBindingTest, AHandleThatIsNotInUseIsTakenForNone) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    EXPECT_EQ(host.Call("A", "terminate", sHandle), "void");
    for (const std::string& sStale :
         {sHandle, std::string("1"), std::string("-1"), std::string("4611686018427387904")}) {
        for (const Method& method : MethodsWithHandle()) {
            EXPECT_EQ(CallOn(host, "A", sStale, method.vsCall), method.sWithoutController)
                << method.vsCall[0] << " on " << sStale;
        }
    }
}

TEST_F(HostBindingTest, AccessModesChooseTheController) {
    JavaHost host;
    const std::pair<int, int> vModes[] = {{0, 0}, {1, 1}, {2, 2}, {7, 0}, {-1, 0}, {3, 0}};
    for (const auto& [iAsked, iGiven] : vModes) {
        const std::string sHandle = host.Initial("A", "mode", iAsked, 0);
        EXPECT_EQ(host.Call("A", "getAccessMode", sHandle), std::to_string(iGiven)) << iAsked;
        const char* vcDescriptions[] = {"Internal NFS Server", "External NFS Server", "Unknown"};
        EXPECT_EQ(host.Call("A", "getDescription", sHandle), vcDescriptions[iGiven]) << iAsked;
        EXPECT_EQ(host.Call("A", "getVersion", sHandle), iGiven == 2 ? "Unknown" : "1.4") << iAsked;
        EXPECT_EQ(host.Call("A", "getServerStatus", sHandle), iGiven == 2 ? "0" : "1") << iAsked;
        EXPECT_EQ(host.Call("A", "terminate", sHandle), "void");
    }
}

TEST_F(HostBindingTest, InitialThrowsTheControllersReason) {
    JavaHost host;
    host.New("A");
    const std::string sUndefined = std::string(kIOException) + "ID is not defined";
    EXPECT_EQ(host.Call("A", "initial", kNull, 0, 1), sUndefined);
    EXPECT_EQ(host.Call("A", "initial", "", 0, 1), sUndefined);
    for (const int iMode : {1, 2}) {
        EXPECT_EQ(host.Call("A", "initial", kNull, iMode, 1), sUndefined) << iMode;
        EXPECT_EQ(host.Call("A", "initial", "server", iMode, 1),
                  std::string(kIOException) + "Cannot use \"server\" as ID");
        EXPECT_EQ(host.Call("A", "initial", "a b", iMode, 1),
                  std::string(kIOException) + "Invalid char \" \" inside ID");
        EXPECT_EQ(host.Call("A", "initial", "a/b", iMode, 1),
                  std::string(kIOException) + "Invalid char \"/\" inside ID");
    }
    const std::string sHandle = host.Call("A", "initial", "server", 0, 1);
    EXPECT_EQ(host.Call("A", "getAccessMode", sHandle), "0") << "the internal server takes any ID";
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, AServerStartsStopsAndStartsAgain) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    EXPECT_EQ(host.Call("A", "startRemoteController", sHandle), "true");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(host.Call("A", "startServer", sHandle, 0, 0, i == 1), "true");
        EXPECT_EQ(host.Call("A", "isServerRunning", sHandle), "true");
        EXPECT_EQ(host.Call("A", "getServerStatus", sHandle), "3");
        EXPECT_EQ(host.Call("A", "startServer", sHandle, 0, 0, false),
                  std::string(kIOException) + "NFS already running");
        EXPECT_EQ(host.Call("A", "isServerRunning", sHandle), "true") << "the running server stays as it is";
        host.Call("A", "stopServer", sHandle);
        EXPECT_EQ(host.Call("A", "isServerRunning", sHandle), "false");
        EXPECT_EQ(host.Call("A", "getServerStatus", sHandle), "1");
    }
    host.Call("A", "stopServer", sHandle);
    host.Call("A", "stopRemoteController", sHandle);
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, StartServerThrowsWhichPortFailed) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 0);
    const struct {
        int iPort;
        int iType;
        const char* pcReason;
    } vPorts[] = {
        {111, SOCK_DGRAM, "PortMap daemon failed to open port 111"},
        {111, SOCK_STREAM,  // taken for a system portmapper
         "Port 111 cannot be opened (Address already in use (98)), so a system portmapper was asked to register the "
         "server. Fail to register socket for port 1059. Reason=Unable to register UDP for 100005 ver=3"},
        {2049, SOCK_STREAM, "NFS daemon failed to open port 2049"},
        {2049, SOCK_DGRAM, "NFS daemon failed to open port 2049"},
        {1058, SOCK_STREAM, "Mount daemon failed to open port 1058"},
        {3049, SOCK_STREAM, "NFS daemon failed to open port 3049"},
        {3058, SOCK_DGRAM, "Mount daemon failed to open port 3058"},
    };
    for (const auto& occupied : vPorts) {
        const OccupiedPort port(occupied.iPort, occupied.iType);
        const bool bOwnPorts = occupied.iPort > 3000;
        EXPECT_EQ(host.Call("A", "startServer", sHandle, bOwnPorts ? 3058 : 0, bOwnPorts ? 3049 : -1, false),
                  std::string(kIOException) + occupied.pcReason);
        EXPECT_EQ(host.Call("A", "isServerRunning", sHandle), "false");
    }
    EXPECT_EQ(host.Call("A", "startServer", sHandle, -5, -5, false), "true") << "nothing was left open";
    host.Call("A", "stopServer", sHandle);
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, AStartFromInsideALineOfAStartIsRefused) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    const OccupiedPort port(2049, SOCK_STREAM);
    host.Do({"react", "A", "logError", "call\tA\tstartServer\t" + sHandle + "\t3058\t3049\tfalse"});
    EXPECT_EQ(host.Call("A", "startServer", sHandle, 0, 0, false),
              std::string(kIOException) + "NFS daemon failed to open port 2049");
    EXPECT_EQ(host.Join("reaction"), std::string(kIOException) + "NFS cannot be started from inside a host callback");
    EXPECT_EQ(host.Call("A", "isServerRunning", sHandle), "false");
    EXPECT_EQ(host.Call("A", "startServer", sHandle, 3058, 3049, false), "true") << "but afterwards it works";
    host.Call("A", "stopServer", sHandle);
    host.Call("A", "terminate", sHandle);
}

/// On the host's own thread, which holds what it would wait for.
TEST_F(HostBindingTest, TheRemoteControllerIsNotStartedFromInsideALineOfItsStart) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 1, 129);
    host.Do({"react", "A", "logInfo", "call\tA\tstartRemoteController\t" + sHandle});
    host.Start("starter", "A", "startRemoteController", sHandle);
    EXPECT_EQ(host.Join("starter"), "true");
    EXPECT_EQ(host.Join("reaction"),
              std::string(kIOException) + "Remote controller cannot be started from inside a host callback");
    host.Call("A", "setLogControl", sHandle, 0);
    host.Call("A", "stopRemoteController", sHandle);
    host.Call("A", "terminate", sHandle);
}

/// On the library's thread, which the stop under way waits for.
TEST_F(HostBindingTest, TheRemoteControllerIsNeitherStartedNorStoppedFromInsideALineOfItsStop) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 1, 1);
    for (const char* pcMethod : {"startRemoteController", "stopRemoteController"}) {
        SCOPED_TRACE(pcMethod);
        EXPECT_EQ(host.Call("A", "startRemoteController", sHandle), "true");
        IpcConnection request("/tmp/nfs-server");
        ASSERT_TRUE(request.Send("half a request"));
        ASSERT_TRUE(WaitUntil([&] { return request.IsTaken(); }));  // in the middle of which it is told to end
        host.Call("A", "setLogControl", sHandle, 129);
        host.Events("A");
        host.Do({"react", "A", "logInfo", "call\tA\t" + std::string(pcMethod) + "\t" + sHandle});
        host.Start("stopper", "A", "stopRemoteController", sHandle);
        EXPECT_EQ(host.Join("stopper"), "void");
        const std::string sReaction = host.Join("reaction");
        if (std::string(pcMethod) == "startRemoteController") {
            EXPECT_EQ(sReaction,
                      std::string(kIOException) + "Remote controller cannot be started from inside a host callback");
        } else {
            EXPECT_EQ(sReaction, "void");
            EXPECT_TRUE(host.WaitForEvent("A",
                                          "logError(host, [NfsJNI.StopRemoteController] Remote controller cannot "
                                          "be stopped from inside a host callback)"));
        }
        host.Call("A", "setLogControl", sHandle, 1);
    }
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, ASecondExternalServerIsRefused) {
    JavaHost host;
    const std::string sFirst = host.Initial("A", "one", 1, 0);
    const std::string sSecond = host.Initial("A", "two", 1, 0);
    EXPECT_EQ(host.Call("A", "startRemoteController", sFirst), "true");
    EXPECT_EQ(host.Call("A", "startRemoteController", sSecond),
              std::string(kIOException) + "Ipc channel is already created by others.");
    host.Call("A", "stopRemoteController", sFirst);
    EXPECT_EQ(host.Call("A", "startRemoteController", sSecond), "true");
    host.Call("A", "stopRemoteController", sSecond);
    host.Call("A", "terminate", sFirst);
    host.Call("A", "terminate", sSecond);
}

TEST_F(HostBindingTest, AddMountPointThrowsTheReasonAndAddsNothing) {
    JavaHost host;
    const TempFolder folder;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, folder.Path(), "data"), "true");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, folder.Path(), "other"),
              kIOException + ("Local mount path \"" + folder.Path() + "\" already defined"));
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, "/", "data"),
              std::string(kIOException) + "Export name \"data\" already defined");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, "/", "a/b"),
              std::string(kIOException) + "Invalid char \"/\" inside export name");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, "/", "a b"),
              std::string(kIOException) + "Invalid char \" \" inside export name");
    EXPECT_EQ(host.Call("A", "getMountInfo", sHandle, false, false), "1");
    host.Call("A", "removeMountPoint", sHandle, folder.Path());
    EXPECT_EQ(host.Call("A", "getMountInfo", sHandle, false, false), "0");
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, AMissingDirectoryIsExportedAllTheSameAndItsClientsGetIOErrors) {
    JavaHost host;
    const TempFolder folder;
    const std::string sHandle = host.Serve("A", folder.Path());
    const std::string sMissing = folder / "missing";
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, sMissing, 0), std::string(kIOException) + "ErrCode=2");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, sMissing, "later"), "true");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, "", "never"), "true");
    NfsClient client;
    Fattr3 attributes;
    for (const char* pcName : {"later", "never"}) {
        const auto sRoot = client.Mnt(pcName);
        ASSERT_TRUE(sRoot) << pcName;
        EXPECT_EQ(client.Getattr(*sRoot, attributes), 5U) << pcName;
        client.Umnt(pcName);
    }
    ASSERT_EQ(::mkdir(sMissing.c_str(), 0755), 0);
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, sMissing, 0), "true");
    EXPECT_EQ(client.Getattr(client.Mnt("later").value_or(""), attributes), 0U);
    host.StopServing("A", sHandle);
}

TEST_F(HostBindingTest, ListingsGoToTheObjectThatAsked) {
    JavaHost host;
    const TempFolder folder;
    host.New("B");
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    host.Call("A", "addMountPoint", sHandle, folder.Path(), "data");
    host.Call("A", "addSession", sHandle, "s1", folder.Path());
    EXPECT_EQ(host.Call("A", "isSessionExists", sHandle, "s1"), "true");
    EXPECT_EQ(host.Call("A", "isLocalSessionExists", sHandle, "s1"), "true");
    EXPECT_EQ(host.Call("A", "isSessionExists", sHandle, "s2"), "false");

    EXPECT_EQ(host.Call("B", "getMountInfo", sHandle, false, true), "1");
    EXPECT_EQ(host.Events("B"),
              std::vector<std::string>({"logRaw(host,  Mount 1 - " + folder.Path() + " : data () [])"}));
    EXPECT_EQ(host.Call("B", "getMountInfo", sHandle, true, true), "0") << "no client has it mounted";
    EXPECT_EQ(host.Call("A", "getSessionInfo", sHandle, true), "1");
    EXPECT_EQ(host.Events("A"), std::vector<std::string>({"logRaw(host,  Session 1 - s1 : " + folder.Path() + ")"}));
    EXPECT_TRUE(host.Events("B").empty());

    host.Call("A", "removeSession", sHandle, "s1");
    EXPECT_EQ(host.Call("A", "getSessionInfo", sHandle, true), "0");
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, ALastingCallbackGetsTheLinesOfEveryCall) {
    JavaHost host;
    const TempFolder folder;
    const std::string sHandle = host.Serve("A", folder.Path());
    host.New("B");
    EXPECT_EQ(host.Call("B", "getMountInfo", sHandle, false, true), "1");
    EXPECT_TRUE(host.Events("B").empty());
    EXPECT_EQ(host.Events("A"),
              std::vector<std::string>({"logRaw(host,  Mount 1 - " + folder.Path() + " : data () [])"}));
    host.StopServing("A", sHandle);
}

TEST_F(HostBindingTest, TheLoopEndsAfterItsSeconds) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 0);
    const auto start = Clock::now();
    EXPECT_EQ(host.Call("A", "receiveCallbackLoop", sHandle, 3), "false");
    const auto lasted = Clock::now() - start;
    EXPECT_GE(lasted, std::chrono::milliseconds(2900));
    EXPECT_LT(lasted, std::chrono::seconds(8));
    EXPECT_EQ(host.Call("A", "receiveCallbackLoop", sHandle, 0), "false") << "no seconds, no turn";
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, TheLoopEndsWhenTheHostIsInterrupted) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 0);
    host.Do({"answer", "A", "isInterrupted", "true"});
    const auto start = Clock::now();
    EXPECT_EQ(host.Call("A", "receiveCallbackLoop", sHandle, 1000), "false");
    EXPECT_EQ(host.Call("A", "receiveCallbackLoop", sHandle, -1), "false");
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5)) << "it asks before it sleeps";

    host.Do({"answer", "A", "isInterrupted", "false"});
    host.Start("loop", "A", "receiveCallbackLoop", sHandle, -1);
    EXPECT_EQ(host.Join("loop", std::chrono::milliseconds(1500)), "running");
    host.Do({"answer", "A", "isInterrupted", "true"});
    EXPECT_EQ(host.Join("loop"), "false");
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, ALoopWhoseControllerIsTerminatedEnds) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 0);
    host.Start("loop", "A", "receiveCallbackLoop", sHandle, -1);
    EXPECT_TRUE(host.WaitForEvent("A", "isInterrupted()"));
    EXPECT_EQ(host.Call("A", "terminate", sHandle), "void");
    EXPECT_EQ(host.Join("loop"), "false");
}

TEST_F(HostBindingTest, QuickTestAnswersOrThrows) {
    JavaHost host;
    const TempFolder folder;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, folder.Path(), 0), "true");
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, folder / "none", 0), std::string(kIOException) + "ErrCode=2");
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, folder.Path(), 5),
              std::string(kIOException) + "Unknown mode (5)");
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, folder.Path(), -1),
              std::string(kIOException) + "Unknown mode (-1)");
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, kNull, 0), std::string(kIOException) + "Invalid argument");
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, "", 0), std::string(kIOException) + "Invalid argument");
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, ThePlatformTestReportsItsStepsAsLogLines) {
    JavaHost host;
    const TempFolder folder;
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    EXPECT_EQ(host.Call("A", "runTestMode", sHandle, folder.Path(), 4096), "void");
    const std::vector<std::string> vsEvents = host.Events("A");
    ASSERT_GT(vsEvents.size(), 20U);
    EXPECT_EQ(vsEvents.front(),
              "logInfo(host, =============================== START TEST ===============================)");
    EXPECT_EQ(vsEvents.back(),
              "logInfo(host, ================================ END TEST ================================)");
    for (const std::string& sEvent : vsEvents) {
        EXPECT_EQ(sEvent.find("[FAIL]"), std::string::npos) << sEvent;
    }
    host.Call("A", "runTestMode", sHandle, kNull, 4096);
    EXPECT_EQ(host.Events("A"),
              std::vector<std::string>({"logInfo(host, Cannot start platrorm test. Error=Target directory is NULL)"}));
    host.Call("A", "runTestMode", sHandle, folder.Path(), -1);
    EXPECT_EQ(host.Events("A"),
              std::vector<std::string>({"logInfo(host, Cannot start platrorm test. Error=File size is ZERO)"}));
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, DatastoresAndCredentialsAreKept) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 0);
    EXPECT_EQ(host.Call("A", "addVSphereInfo", sHandle, "moid-1", "vc", "443", "user", "secret"), "void");
    EXPECT_EQ(host.Call("A", "removeVSphereInfo", sHandle, "moid-1"), "void");
    EXPECT_EQ(host.Call("A", "addNetDeviceCredential", sHandle, "//nas/share", "user", "secret"), "false")
        << "no such command is installed";
    EXPECT_EQ(host.Call("A", "removeNetDeviceCredential", sHandle, "//nas/share"), "false");
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, LogControlTakesEffect) {
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 0);
    EXPECT_EQ(host.Call("A", "startRemoteController", sHandle), "true");
    EXPECT_TRUE(host.Events("A").empty());
    host.Call("A", "setLogControl", sHandle, 3);
    EXPECT_EQ(host.Call("A", "startRemoteController", sHandle), "true");
    EXPECT_EQ(host.Events("A"),
              std::vector<std::string>({"logInfo(host, [NfsMain.StartRemoteController] No remote controller to start. "
                                        "It is NOT support in internal server mode.)"}));
    host.Call("A", "stopRemoteController", sHandle);
    EXPECT_EQ(host.Events("A"),
              std::vector<std::string>({"logInfo(host, [NfsMain.StopRemoteController] No remote controller to stop. "
                                        "It is NOT support in internal server mode.)"}));
    host.Call("A", "setLogControl", sHandle, -2147483648);
    host.Call("A", "startRemoteController", sHandle);
    EXPECT_TRUE(host.Events("A").empty()) << "the top bit switches on no category";
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostBindingTest, PathsKeepTheirCharactersInBothDirections) {
    JavaHost host;
    const TempFolder folder;
    const std::string sHandle = host.Initial("A", "host", 0, 0);
    const std::pair<const char*, const char*> vNames[] = {
        {"gr\xC3\xBC\xC3\x9F", "gr\\u00FC\\u00DF"},
        {"\xE6\x97\xA5\xE6\x9C\xAC", "\\u65E5\\u672C"},
        {"\xF0\x9F\x98\x80", "\\uD83D\\uDE00"},
    };
    for (const auto& [pcOnDisk, pcInHost] : vNames) {
        ASSERT_EQ(::mkdir((folder / pcOnDisk).c_str(), 0755), 0);
        const std::string sPath = folder.Path() + "/" + pcInHost;
        EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, sPath, 0), "true")
            << pcInHost << " names the folder on disk";
        EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, sPath, pcInHost), "true");
        EXPECT_EQ(host.Call("A", "getMountInfo", sHandle, false, true), "1");
        EXPECT_EQ(host.Events("A"),
                  std::vector<std::string>({"logRaw(host,  Mount 1 - " + sPath + " : " + pcInHost + " () [])"}));
        host.Call("A", "removeMountPoint", sHandle, sPath);
    }
    // What no file name holds stays harmless: a zero does not cut the path, an unpaired surrogate is just a name.
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, folder.Path() + "\\u0000x", 0),
              std::string(kIOException) + "ErrCode=2");
    EXPECT_EQ(host.Call("A", "runQuickTestMode", sHandle, folder.Path() + "/\\uD800", 0),
              std::string(kIOException) + "ErrCode=2");
    host.Call("A", "terminate", sHandle);
}

/// Nulls, empty and very long texts, extreme numbers: on a fresh, a running, and a stopped controller of every mode.
TEST_F(HostBindingTest, EveryMethodSurvivesBadArguments) {
    JavaHost host;
    for (const int iMode : {0, 1, 2}) {
        SCOPED_TRACE("mode " + std::to_string(iMode));
        const std::string sHandle = host.Initial("A", "bad" + std::to_string(iMode), iMode, 1);
        for (const char* pcState : {"fresh", "running", "stopped"}) {
            SCOPED_TRACE(pcState);
            if (std::string(pcState) == "running" && iMode != 2) {
                EXPECT_EQ(host.Call("A", "startServer", sHandle, 0, 0, false), "true");
            }
            CallWithBadArguments(host, "A", sHandle);
            if (std::string(pcState) == "running") {
                host.Call("A", "stopServer", sHandle);
            }
        }
        host.Call("A", "setLogControl", sHandle, 1);
        EXPECT_EQ(host.Call("A", "getAccessMode", sHandle), std::to_string(iMode)) << "still alive";
        host.Call("A", "stopRemoteController", sHandle);
        host.Call("A", "terminate", sHandle);
    }
}

TEST_F(HostBindingTest, AHostThatThrowsFromItsLogMethodsDoesNoHarm) {
    JavaHost host;
    const TempFolder folder;
    const std::string sHandle = host.Initial("A", "host", 0, 3);
    host.Call("A", "addMountPoint", sHandle, folder.Path(), "data");
    for (const char* pcMethod : {"logInfo", "logError", "logRaw"}) {
        host.Do({"throw", "A", pcMethod, "java.lang.IllegalStateException"});
    }
    EXPECT_EQ(host.Call("A", "getMountInfo", sHandle, false, true), "1");
    EXPECT_EQ(host.Call("A", "addMountPoint", sHandle, folder.Path(), "data"),
              std::string(kIOException) + "Export name \"data\" already defined")
        << "the controller's reason, not the host's own exception";
    host.Do({"throw", "A", "isInterrupted", "java.lang.StackOverflowError"});
    EXPECT_EQ(host.Call("A", "receiveCallbackLoop", sHandle, 1), "false");
    host.Call("A", "terminate", sHandle);
    const std::string sOutput = host.Quit();
    EXPECT_NE(sOutput.find("java.lang.IllegalStateException: thrown by the host"), std::string::npos)
        << "described on standard error";
    EXPECT_NE(sOutput.find(" Mount 1 - " + folder.Path() + " : data () []"), std::string::npos)
        << "a line that was not taken goes to standard output\n"
        << sOutput;
}

TEST_F(HostBindingTest, ALateTerminateLeavesTheNextServerAlone) {
    JavaHost host;
    const std::string sFirst = host.Initial("A", "first", 0, 1);
    host.Call("A", "terminate", sFirst);
    const std::string sSecond = host.Initial("A", "second", 0, 1);
    EXPECT_EQ(host.Call("A", "startServer", sSecond, 0, 0, false), "true");
    EXPECT_EQ(host.Call("A", "terminate", sFirst), "void");
    EXPECT_EQ(host.Call("A", "stopServer", sFirst), "void");
    EXPECT_EQ(host.Call("A", "isServerRunning", sSecond), "true");
    host.Call("A", "terminate", sSecond);
}

TEST_F(HostBindingTest, CallsInTheWrongOrderDoNoHarm) {
    JavaHost host;
    for (const int iMode : {0, 1, 2}) {
        const std::string sHandle = host.Initial("A", "order", iMode, 1);
        host.Call("A", "stopServer", sHandle);
        host.Call("A", "stopRemoteController", sHandle);
        EXPECT_EQ(host.Call("A", "startRemoteController", sHandle), "true") << iMode;
        EXPECT_EQ(host.Call("A", "startRemoteController", sHandle), "true") << iMode;
        if (iMode != 2) {
            EXPECT_EQ(host.Call("A", "startServer", sHandle, 0, 0, false), "true") << iMode;
        }
        host.Call("A", "stopRemoteController", sHandle);
        host.Call("A", "stopRemoteController", sHandle);
        EXPECT_EQ(host.Call("A", "terminate", sHandle), "void") << "without stopping first, mode " << iMode;
        EXPECT_EQ(host.Call("A", "terminate", sHandle), "void") << "twice, mode " << iMode;
    }
    EXPECT_EQ(host.Call("A", "terminate", 0), "void");
}

}  // namespace
