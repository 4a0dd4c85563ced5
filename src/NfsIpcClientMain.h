// CNfsIpcClientMain: the controller that has an external server do the work.
#pragma once

#include <memory>

#include "IpcChannel.h"
#include "NfsIpcServerMain.h"

class CIpcClient;

/// Runs no NFS server (access mode 2): every operation becomes one request to the external server's channel. Its own
/// channel, /tmp/nfs-<ID>, receives the log lines and notifications that concern this client, which are handed to its
/// CUtilities.
///
/// Any thread may call any operation; each request travels on a connection of its own and waits for its reply as long
/// as the server lives. A request that cannot be sent gives the operation's failure value, and its reason where the
/// operation has one.
class CNfsIpcClientMain : public CNfsIpcServerMain {
public:
    CNfsIpcClientMain(const char* pcLogID, int iLogControl);
    ~CNfsIpcClientMain() override;

    // ---- Forwarded operations, in the order of CNfsMain

    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                     char* pcStatus) override;
    /// Stays local: a client cannot stop the server.
    void StopServer() override;
    void StopServerOf(std::uint64_t iMoment) override;
    int GetAccessMode() override;
    /// "Unknown" when no server answers. The buffers hold kIdentityBufferSize characters.
    void GetVersion(char* pcVersion) override;
    void GetDescription(char* pcDescription) override;
    bool IsServerRunning() override;
    /// The export is always this client's own: whatever IPC ID is given, its own ID is sent.
    bool AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, const char* pcIpcID,
                       char* pcStatus) override;
    bool AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, char* pcStatus) override;
    void RemoveMountPoint(const char* pcLocalMountPath) override;
    void AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) override;
    void RemoveSessionInfo(const char* pcSessionID) override;
    bool IsSessionExists(const char* pcSessionID) override;
    void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                            int iInfoFileCheckPointSizeMB) override;
    void CloseRedirectedFile(const char* pcPath) override;
    void CloseAllRedirectedFiles(const char* pcPath) override;
    bool AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath, long long iSrcFileOffset,
                                  long long iOffset, long long iLength, char* pcStatus) override;
    void ExportRedirectedFile(const char* pcPath, const char* pcExportPath) override;
    void ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMergeRange) override;
    void CloseCachedFileHandle(const char* pcPath) override;
    void CloseAllCachedFileHandles(const char* pcPath) override;
    /// The server's; this process's own log control stays.
    void SetLogControl(int iLogControl) override;

    // The listings: the server's count; what they print comes back as log lines. 0 when the request failed.
    using CNfsMain::GetMountInfo;
    using CNfsMain::GetNetDeviceCredential;
    using CNfsMain::GetSessionInfo;
    using CNfsMain::GetVSphereInfo;
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails) override;
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override;
    using CNfsMain::RunTestMode;
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize) override;

    /// Stays local and switches automatic shutdown off: it belongs to the server.
    void EnableAutoShutdown(bool bEnable) override;
    bool RequestAutoShutdown() override;
    /// 0 when no server answers, else the server's status (bit 1: reachable).
    int GetServerStatus() override;
    bool SetDebugActionEnabled(bool bEnabled) override;

    // From here on older servers lack the request; see the gates below.
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override;
    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                        const char* pcPwd) override;
    void RemoveVSphereInfo(const char* pcDatastoreMoid) override;
    using CNfsMain::RunQuickTestMode;
    bool RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus) override;
    using CNfsMain::ExecuteSystemCmd;
    int ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogResult) override;
    int GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override;
    bool AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) override;
    bool RemoveNetDeviceCredential(const char* pcPath) override;

    void GetIpcServerThreadChannel(char* pcChannel) override;

    // ---- Version gates
    // What a server of a given version does not know. Null asks the server, each time. Each gate includes the one
    // before it.

    bool IsNotConnectable(const char* pcVersion);
    bool IsNotSupportGetServerStatus(const char* pcVersion);
    bool IsNotSupportSetVSphereInfo(const char* pcVersion);
    bool IsNotSupportNetDeviceAccess(const char* pcVersion);

protected:
    void InitMemberVaribles(const char* pcLogID, int iLogControl) override;
    std::unique_ptr<CUtilities> CreateUtilities() override;
    bool InitialNetwork(char* pcStatus) override;
    void TerminateNetwork() override;

private:
    /// Is the version one of the first so many that lack requests? Null asks the server.
    bool IsAmongFirst(std::size_t nVersions, const char* pcVersion);

    // One request and what becomes of its reply.
    bool SendForStatus(CIpcClient& client, char* pcStatus);
    bool SendForBool(CIpcClient& client);
    int SendForInt(CIpcClient& client, int iFailed);
    void SendForText(int iType, char* pcText);
    void SendPath(int iType, const char* pcPath);
    int SendForCount(int iType, CRuntimeParam* pRuntimeParam, bool bPrintDetails);

    /// The server's channel. Never changes after construction.
    char m_cIpcChannel[kIpcChannelBufferSize] = {};
};
