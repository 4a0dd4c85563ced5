// CNfsMain: the server controller, the one face through which a front end drives everything.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Limits.h"
#include "ServerOptions.h"
#include "ThreadAnnotations.h"

class CCallStatistics;
class CCallback;
class CDatagramSocket;
class CFileLogger;
class CMountProg;
class CNfsProg;
class CPortmap;
class CPortmapProg;
class CRpcServer;
class CRuntimeParam;
class CServerSocket;
class CStatisticsFile;
class CUtilities;
struct LogArgu;
struct LogContext;
struct ServerStatistics;

/// Runs the whole NFS server inside the calling process (access mode 0) and fronts every registry of CUtilities.
///
/// A front end constructs it, calls Initial, StartRemoteController, works with it, and ends with StopServer,
/// StopRemoteController and Terminate. It owns the registries, the RPC programs, the RPC server and the sockets.
///
/// Any thread may call any operation: starting and stopping exclude each other (m_hMutexLifecycle), the flags are
/// atomic, and the registries lock themselves. Neither StartServer nor StopServer may be called from a socket thread
/// (that is, from inside a host notification): stopping waits for those threads.
///
/// Reason buffers (pcStatus) hold kReasonBufferSize characters; they are written only on failure.
class CNfsMain {
public:
    /// Ports used when the front end names none, without a system portmapper; with one, each is one higher.
    static constexpr int kDefaultMountPort = 1058;
    static constexpr int kDefaultNfsPort = 2049;  ///< IANA "nfs"

    /// Connections served at a time. A client's mount traffic is a handful of calls; each NFS client holds one
    /// connection, some a few.
    static constexpr int kMaxPortmapConnections = 3;
    static constexpr int kMaxNfsConnections = 10;
    static constexpr int kMaxMountConnections = 3;

    /// The ID stands in every log line of this controller; the log control is a bit set of CRuntimeParam::LogBit.
    CNfsMain(const char* pcLogID, int iLogControl);
    CNfsMain(const CNfsMain&) = delete;
    CNfsMain& operator=(const CNfsMain&) = delete;

    // ---- Virtual operations, in this order (the derived controllers override them)

    /// Closes the sockets, deletes programs, registration and RPC server, then the registries. Registries are not
    /// emptied first and datastores are not unmounted: that is StopServer's work.
    virtual ~CNfsMain();

    // ---- Life of the controller (NfsMain.cpp)

    /// Makes the controller ready for use. Fails for an empty ID ("ID is not defined").
    virtual bool Initial(char* pcStatus);
    virtual void Terminate();
    /// There is no remote controller in internal mode: both only say so in the log.
    virtual bool StartRemoteController(char* pcStatus);
    virtual void StopRemoteController();

    // ---- Start and stop of the RPC services (NfsMainServer.cpp)

    /// Opens the services and serves from then on. A port below 1 means the default port. The user and group ID are
    /// kept by the NFS programs; owners are reported as the files have them. Refused with "NFS already running" on a
    /// running server, which stays as it is; after any other failure the controller is stopped as by StopServer and
    /// nothing is left open.
    virtual bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                             char* pcStatus);
    /// Unmounts recorded vSphere datastores, ends all services and shell commands and empties every registry. Safe on a
    /// stopped server.
    virtual void StopServer();

    // ---- What the controller is

    /// One of AccessMode (ServerIdentity.h).
    virtual int GetAccessMode();
    /// The text buffers hold kIdentityBufferSize characters.
    virtual void GetVersion(char* pcVersion);
    virtual void GetDescription(char* pcDescription);
    virtual bool IsServerRunning();

    // ---- The registries (CUtilities' operations of the same names)

    /// Exports a directory under a name; the IPC ID names the remote party that asked and gets its notifications.
    virtual bool AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, const char* pcIpcID,
                               char* pcStatus);
    /// The same with no remote party.
    virtual bool AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, char* pcStatus);
    virtual void RemoveMountPoint(const char* pcLocalMountPath);
    virtual void AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath);
    virtual void RemoveSessionInfo(const char* pcSessionID);
    virtual bool IsSessionExists(const char* pcSessionID);
    virtual void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                                    int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);
    virtual void CloseRedirectedFile(const char* pcPath);
    virtual void CloseAllRedirectedFiles(const char* pcPath);
    virtual bool AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath, long long iSrcFileOffset,
                                          long long iOffset, long long iLength, char* pcStatus);
    virtual void ExportRedirectedFile(const char* pcPath, const char* pcExportPath);
    virtual void ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMergeRange);
    virtual void CloseCachedFileHandle(const char* pcPath);
    virtual void CloseAllCachedFileHandles(const char* pcPath);
    /// Takes effect at once, also for calls in flight.
    virtual void SetLogControl(int iLogControl);
    virtual int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails);
    virtual int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    virtual void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize);

    // ---- Automatic shutdown and status

    /// The owner allows others to request the end of the program; a request stays until the program ends.
    virtual void EnableAutoShutdown(bool bEnable);
    /// False while it is not enabled.
    virtual bool RequestAutoShutdown();
    /// Bits of ServerStatus: reachable always, running, debug action while debug actions are enabled.
    virtual int GetServerStatus();
    virtual bool SetDebugActionEnabled(bool bEnabled);

    // ---- Datastores, quick test, shell commands, network devices (CUtilities' operations of the same names)

    virtual int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    virtual void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                                const char* pcPwd);
    virtual void RemoveVSphereInfo(const char* pcDatastoreMoid);
    virtual bool RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus);
    virtual int ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogResult);
    virtual int GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    virtual bool AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd);
    virtual bool RemoveNetDeviceCredential(const char* pcPath);

protected:
    /// Gives a newly constructed controller its runtime parameter and registries. Each class's constructor that takes
    /// an ID calls it once, so that its own CreateUtilities is used. (The name is spelled as the hosts know it.)
    virtual void InitMemberVaribles(const char* pcLogID, int iLogControl);
    /// The registries of this kind of controller.
    virtual std::unique_ptr<CUtilities> CreateUtilities();
    virtual bool InitialNetwork(char* pcStatus);
    virtual void TerminateNetwork();

public:
    // ---- A stop that comes later

    /// A number that is another one after every start that has begun and every stop that has ended.
    std::uint64_t GetMoment() const { return m_nMoments; }
    /// StopServer as if called when GetMoment gave this number. What was there then is over if a start has begun or a
    /// stop has ended since: it does nothing then, so that a stop that had to wait never hits a later run.
    virtual void StopServerOf(std::uint64_t iMoment);

    // ---- Conveniences under the controller's own runtime parameter

    int GetMountInfo(bool bClientMountedOnly, bool bPrintDetails);
    int GetSessionInfo(bool bPrintDetails);
    void RunTestMode(const char* pcDirPath, long long iFileSize);
    int GetVSphereInfo(bool bPrintDetails);
    bool RunQuickTestMode(const char* pcPath, int iMode, char* pcStatus);
    int ExecuteSystemCmd(const char* pcCmd, bool bLogResult);
    int GetNetDeviceCredential(bool bPrintDetails);

    /// Asks this process's registry, whatever the access mode.
    bool IsLocalSessionExists(const char* pcSessionID);

    bool IsAutoShutdownEnabled() const { return m_bAutoShutdownEnabled; }
    bool IsAutoShutdownRequested() const { return m_bAutoShutdownRequested; }

    /// The host that gets log lines and notifications; replacing it during a call into the host is safe.
    void SetCallback(std::shared_ptr<CCallback> pCallback);
    std::shared_ptr<CCallback> GetCallback();
    /// Not owned; it outlives the controller, or null is set before it goes.
    void SetFileLogger(CFileLogger* pFileLogger);

    /// What the operator asks for; at first what the environment of the process asked for when the controller was made.
    /// Set before Initial. A server that runs keeps what it was started with, but for synchronous writes.
    void SetOptions(const ServerOptions& options);
    const ServerOptions& GetOptions() const { return m_Options; }
    /// The one option that takes effect at once.
    void SetSyncWrites(bool bSyncWrites);

    /// Why the last start failed, where the reason it left is empty: a text for whom an empty one would not do. Empty
    /// if the reason says it.
    std::string GetStartFailure();

    /// The figures of the server in this process, as of now (NfsMainStatistics.cpp). Never waits for a start or stop, a
    /// call in progress, a host or a client.
    void GetStatistics(ServerStatistics* pStatistics);

    /// The registries and the runtime parameter; both live as long as the controller.
    CUtilities* GetUtilities() { return m_pUtilities.get(); }
    CRuntimeParam* GetRuntimeParam() { return m_pRuntimeParam.get(); }

protected:
    /// For derived classes, whose constructors call their own InitMemberVaribles.
    CNfsMain();

    /// What the controller's own lines are logged with, under a tag.
    LogContext GetLog(const LogArgu* pLogArgu) const;
    /// Emits a lifecycle line: only while a file logger is set, whatever the log bits.
    void LogLifecycle(const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));

    std::unique_ptr<CRuntimeParam> m_pRuntimeParam;
    std::unique_ptr<CUtilities> m_pUtilities;
    ServerOptions m_Options;

    std::atomic<bool> m_bNetworkInitialized{false};
    std::atomic<bool> m_bServerRunning{false};
    std::atomic<bool> m_bAutoShutdownEnabled{false};
    std::atomic<bool> m_bAutoShutdownRequested{false};
    std::atomic<bool> m_bDebugActionEnabled{false};

private:
    /// The TCP listener and the UDP socket of one port.
    struct SocketHandle {
        std::unique_ptr<CServerSocket> pServerSocket;
        std::unique_ptr<CDatagramSocket> pDatagramSocket;
    };
    /// Places in m_Sockets; sockets are closed in this order.
    enum SocketIndex : unsigned int { kPortmapSockets = 0, kNfsSockets = 1, kMountSockets = 2, kSocketPairs = 3 };

    /// Makes ready what the options ask for. False with a reason.
    bool ApplyOptions(char* pcStatus) REQUIRES(m_hMutexLifecycle);
    bool LoadAccessFile(char* pcStatus) REQUIRES(m_hMutexLifecycle);
    /// Writes the statistics file for the first time, if there is to be one; then has it written again and again.
    bool MakeStatisticsFile(char* pcStatus) REQUIRES(m_hMutexLifecycle);
    bool StartStatisticsFile(char* pcStatus) REQUIRES(m_hMutexLifecycle);
    std::shared_ptr<const CCallStatistics> GetCallStatistics();
    void CreatePrograms() REQUIRES(m_hMutexLifecycle);
    bool IsPortmapperRunning() const REQUIRES(m_hMutexLifecycle);
    /// The port, or for one below 1 the default, as it is beside the portmapper that runs.
    int GetPort(int iPort, int iDefaultPort) const REQUIRES(m_hMutexLifecycle);
    /// Logs the ports, and tells them to our own portmapper if it is the one that clients ask.
    void AnnouncePorts(int iMountPort, int iNfsPort) REQUIRES(m_hMutexLifecycle);
    void CreateSockets() REQUIRES(m_hMutexLifecycle);
    bool OpenServices(int iMountPort, int iNfsPort, char* pcStatus) REQUIRES(m_hMutexLifecycle);
    bool OpenPortmapService(char* pcStatus) REQUIRES(m_hMutexLifecycle);
    bool OpenNfsService(int iNfsPort, char* pcStatus) REQUIRES(m_hMutexLifecycle);
    bool OpenMountService(int iMountPort, char* pcStatus) REQUIRES(m_hMutexLifecycle);
    /// Opens the TCP listener, then the UDP socket, of one port.
    bool OpenPort(SocketHandle& handle, unsigned long lProgId, int iPort, int iMaxConnections, char* pcReason);
    bool RegisterServices() REQUIRES(m_hMutexLifecycle);
    void ReportUnregistered(const char* pcReason) REQUIRES(m_hMutexLifecycle);
    void StopLocked() REQUIRES(m_hMutexLifecycle);
    /// Closes the sockets, then deletes what they served.
    void CloseServices() REQUIRES(m_hMutexLifecycle);
    /// Puts an RPC server in the place of another, which the caller gets.
    std::unique_ptr<CRpcServer> ExchangeRpcServer(std::unique_ptr<CRpcServer> pRpcServer);

    /// Makes starting and stopping exclude each other; held for the whole of either. The first in the lock order.
    Mutex m_hMutexLifecycle;
    std::atomic<std::uint64_t> m_nMoments{0};  ///< see GetMoment; changed under m_hMutexLifecycle
    std::unique_ptr<CMountProg> m_pMountProg GUARDED_BY(m_hMutexLifecycle);
    std::array<SocketHandle, kSocketPairs> m_Sockets GUARDED_BY(m_hMutexLifecycle);
    std::unique_ptr<CPortmapProg> m_pPortmapProg GUARDED_BY(m_hMutexLifecycle);  ///< without a system portmapper only
    std::unique_ptr<CPortmap> m_pPortmap GUARDED_BY(m_hMutexLifecycle);          ///< null without any portmapper
    std::uint32_t m_iBindAddress GUARDED_BY(m_hMutexLifecycle) = 0;              ///< in host byte order; 0: all
    std::string m_sStartFailure GUARDED_BY(m_hMutexLifecycle);
    std::unique_ptr<CNfsProg> m_pNfsProg GUARDED_BY(m_hMutexLifecycle);
    std::unique_ptr<CStatisticsFile> m_pStatisticsFile GUARDED_BY(m_hMutexLifecycle);  ///< while one is to be written

    /// The RPC server has a mutex of its own, so that SetLogControl and GetStatistics never wait for a start or stop in
    /// progress, also when a call into the host asks for it. A leaf: held to look at the pointer and to change it.
    Mutex m_hMutexRpcServer;
    std::unique_ptr<CRpcServer> m_pRpcServer GUARDED_BY(m_hMutexRpcServer);
    std::shared_ptr<const CCallStatistics> m_pStatistics GUARDED_BY(m_hMutexRpcServer);  ///< of the last RPC server
};
