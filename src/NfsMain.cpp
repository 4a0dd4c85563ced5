// The server controller: its life, its status, and the operations it hands on to the registries.
#include "NfsMain.h"

#include <cstdarg>
#include <utility>

#include "Callback.h"
#include "DatagramSocket.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "Portmap.h"
#include "PortmapProg.h"
#include "Reason.h"
#include "RpcServer.h"
#include "RuntimeParam.h"
#include "ServerIdentity.h"
#include "ServerSocket.h"
#include "StatisticsFile.h"
#include "Texts.h"
#include "Utilities.h"

// ---- Construction

CNfsMain::CNfsMain() = default;

CNfsMain::CNfsMain(const char* pcLogID, int iLogControl) {
    CNfsMain::InitMemberVaribles(pcLogID, iLogControl);
}

void CNfsMain::InitMemberVaribles(const char* pcLogID, int iLogControl) {
    m_pRuntimeParam = std::make_unique<CRuntimeParam>(pcLogID, iLogControl);
    m_pUtilities = CreateUtilities();  // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall): each class its own
    SetOptions(ServerOptions::FromEnvironment());
    m_bNetworkInitialized = false;
    m_bServerRunning = false;
    m_bAutoShutdownEnabled = false;
    m_bAutoShutdownRequested = false;
    m_bDebugActionEnabled = false;
}

std::unique_ptr<CUtilities> CNfsMain::CreateUtilities() {
    return std::make_unique<CUtilities>();
}

CNfsMain::~CNfsMain() {
    const MutexLock lock(m_hMutexLifecycle);
    CloseServices();
}

// ---- Life

bool CNfsMain::Initial(char* pcStatus) {
    LogLifecycle("Initial NFS");
    if (*m_pRuntimeParam->GetID() == '\0') {
        WriteReason(pcStatus, "ID is not defined");
        return false;
    }
    return InitialNetwork(pcStatus);
}

void CNfsMain::Terminate() {
    LogLifecycle("Terminate NFS");
    m_pUtilities->GetRunningCommands().EndAll();  // whoever is in one is about to be waited for
    TerminateNetwork();
}

bool CNfsMain::InitialNetwork(char* /*pcStatus*/) {
    m_bNetworkInitialized = true;
    return true;
}

void CNfsMain::TerminateNetwork() {
    m_bNetworkInitialized = false;
}

bool CNfsMain::StartRemoteController(char* /*pcStatus*/) {
    LogLifecycle("Start Remote Controller");
    const LogArgu logArgu{"NfsMain.StartRemoteController"};
    NFS_LOG_INFO(GetLog(&logArgu), kLogGeneralInfo,
                 "[%s] No remote controller to start. It is NOT support in internal server mode.");
    return true;
}

void CNfsMain::StopRemoteController() {
    LogLifecycle("Stop Remote Controller");
    const LogArgu logArgu{"NfsMain.StopRemoteController"};
    NFS_LOG_INFO(GetLog(&logArgu), kLogGeneralInfo,
                 "[%s] No remote controller to stop. It is NOT support in internal server mode.");
}

LogContext CNfsMain::GetLog(const LogArgu* pLogArgu) const {
    return {m_pUtilities.get(), m_pRuntimeParam.get(), pLogArgu};
}

void CNfsMain::LogLifecycle(const char* pcFormat, ...) {
    if (m_pUtilities->GetFileLogger() == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, pcFormat);
    m_pUtilities->LogInfoList(m_pRuntimeParam.get(), pcFormat, arguments);
    va_end(arguments);
}

// ---- What the controller is

int CNfsMain::GetAccessMode() {
    return kAccessModeInternal;
}

void CNfsMain::GetVersion(char* pcVersion) {
    CopyText(pcVersion, kIdentityBufferSize, kServerVersion);
}

void CNfsMain::GetDescription(char* pcDescription) {
    CopyText(pcDescription, kIdentityBufferSize, "Internal NFS Server");
}

bool CNfsMain::IsServerRunning() {
    return m_bServerRunning;
}

// ---- Exports and sessions

bool CNfsMain::AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, const char* pcIpcID,
                             char* pcStatus) {
    const LogArgu logArgu{"NfsMain.AddMountPoint"};
    return m_pUtilities->AddMountInfo(m_pRuntimeParam.get(), &logArgu, pcLocalMountPath, pcExportName, pcIpcID,
                                      pcStatus);
}

bool CNfsMain::AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, char* pcStatus) {
    return AddMountPoint(pcLocalMountPath, pcExportName, "", pcStatus);
}

void CNfsMain::RemoveMountPoint(const char* pcLocalMountPath) {
    const LogArgu logArgu{"NfsMain.RemoveMountPoint"};
    m_pUtilities->RemoveMountInfoByLocalMountPath(m_pRuntimeParam.get(), &logArgu, pcLocalMountPath);
}

int CNfsMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails) {
    return m_pUtilities->GetMountInfo(pRuntimeParam, bClientMountedOnly, bPrintDetails);
}

int CNfsMain::GetMountInfo(bool bClientMountedOnly, bool bPrintDetails) {
    return GetMountInfo(m_pRuntimeParam.get(), bClientMountedOnly, bPrintDetails);
}

void CNfsMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    m_pUtilities->AddSessionInfo(pcSessionID, pcLocalMountPath);
}

void CNfsMain::RemoveSessionInfo(const char* pcSessionID) {
    m_pUtilities->RemoveSessionInfo(pcSessionID);
}

bool CNfsMain::IsSessionExists(const char* pcSessionID) {
    return IsLocalSessionExists(pcSessionID);
}

bool CNfsMain::IsLocalSessionExists(const char* pcSessionID) {
    return m_pUtilities->IsSessionExists(pcSessionID);
}

int CNfsMain::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return m_pUtilities->GetSessionInfo(pRuntimeParam, bPrintDetails);
}

int CNfsMain::GetSessionInfo(bool bPrintDetails) {
    return GetSessionInfo(m_pRuntimeParam.get(), bPrintDetails);
}

// ---- Redirected files and cached descriptors

void CNfsMain::OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                                  int iInfoFileCheckPointSizeMB) {
    m_pUtilities->OpenRedirectedFile(m_pRuntimeParam.get(), pcPath, iSize, bCreateInfoFile, iInfoFileSegmentSizeMB,
                                     iInfoFileCheckPointSizeMB);
}

void CNfsMain::CloseRedirectedFile(const char* pcPath) {
    m_pUtilities->CloseRedirectedFile(m_pRuntimeParam.get(), pcPath);
}

void CNfsMain::CloseAllRedirectedFiles(const char* pcPath) {
    m_pUtilities->CloseAllRedirectedFiles(m_pRuntimeParam.get(), pcPath);
}

bool CNfsMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath, long long iSrcFileOffset,
                                        long long iOffset, long long iLength, char* pcStatus) {
    return m_pUtilities->AddRedirectedFileSegment(m_pRuntimeParam.get(), pcPath, pcSourcePath, iSrcFileOffset, iOffset,
                                                  iLength, pcStatus);
}

void CNfsMain::ExportRedirectedFile(const char* pcPath, const char* pcExportPath) {
    m_pUtilities->ExportRedirectedFile(m_pRuntimeParam.get(), pcPath, pcExportPath);
}

void CNfsMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMergeRange) {
    m_pUtilities->ExportRedirectedFileInfo(m_pRuntimeParam.get(), pcPath, pcExportPath, bMergeRange);
}

void CNfsMain::CloseCachedFileHandle(const char* pcPath) {
    const LogArgu logArgu{"NfsMain.CloseCachedFileHandle"};
    m_pUtilities->CloseCachedFileHandle(m_pRuntimeParam.get(), &logArgu, pcPath);
}

void CNfsMain::CloseAllCachedFileHandles(const char* pcPath) {
    const LogArgu logArgu{"NfsMain.CloseAllCachedFileHandles"};
    m_pUtilities->CloseAllCachedFileHandles(m_pRuntimeParam.get(), &logArgu, pcPath);
}

// ---- Logging, automatic shutdown, status

void CNfsMain::SetLogControl(int iLogControl) {
    m_pRuntimeParam->SetLogControl(iLogControl);
    const MutexLock lock(m_hMutexRpcServer);
    if (m_pRpcServer) {
        m_pRpcServer->SetLogControl(iLogControl);
    }
}

void CNfsMain::SetCallback(std::shared_ptr<CCallback> pCallback) {
    m_pUtilities->SetCallback(std::move(pCallback));
}

std::shared_ptr<CCallback> CNfsMain::GetCallback() {
    return m_pUtilities->GetCallback();
}

void CNfsMain::SetFileLogger(CFileLogger* pFileLogger) {
    m_pUtilities->SetFileLogger(pFileLogger);
}

void CNfsMain::SetOptions(const ServerOptions& options) {
    m_Options = options;
    SetSyncWrites(options.bSyncWrites);
}

void CNfsMain::SetSyncWrites(bool bSyncWrites) {
    m_pUtilities->SetSyncWrites(bSyncWrites);
}

void CNfsMain::EnableAutoShutdown(bool bEnable) {
    m_bAutoShutdownEnabled = bEnable;
}

bool CNfsMain::RequestAutoShutdown() {
    if (!m_bAutoShutdownEnabled) {
        return false;
    }
    m_bAutoShutdownRequested = true;
    m_pUtilities->GetRunningCommands().EndAll();  // the owner may be waiting for one
    return true;
}

int CNfsMain::GetServerStatus() {
    int iStatus = kStatusReachable;
    if (IsServerRunning()) {
        iStatus |= kStatusRunning;
    }
    if (m_bDebugActionEnabled) {
        iStatus |= kStatusDebugAction;
    }
    return iStatus;
}

bool CNfsMain::SetDebugActionEnabled(bool bEnabled) {
    m_bDebugActionEnabled = bEnabled;
    return true;
}

// ---- Tests, shell commands, datastores, network devices

void CNfsMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize) {
    m_pUtilities->RunTestMode(pRuntimeParam, pcDirPath, iFileSize);
}

void CNfsMain::RunTestMode(const char* pcDirPath, long long iFileSize) {
    RunTestMode(m_pRuntimeParam.get(), pcDirPath, iFileSize);
}

bool CNfsMain::RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus) {
    return m_pUtilities->RunQuickTestMode(pRuntimeParam, pcPath, iMode, pcStatus);
}

bool CNfsMain::RunQuickTestMode(const char* pcPath, int iMode, char* pcStatus) {
    return RunQuickTestMode(m_pRuntimeParam.get(), pcPath, iMode, pcStatus);
}

int CNfsMain::ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogResult) {
    return m_pUtilities->ExecuteSystemCmd(pRuntimeParam, pcCmd, bLogResult);
}

int CNfsMain::ExecuteSystemCmd(const char* pcCmd, bool bLogResult) {
    return ExecuteSystemCmd(m_pRuntimeParam.get(), pcCmd, bLogResult);
}

int CNfsMain::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return m_pUtilities->GetVSphereInfo(pRuntimeParam, bPrintDetails);
}

int CNfsMain::GetVSphereInfo(bool bPrintDetails) {
    return GetVSphereInfo(m_pRuntimeParam.get(), bPrintDetails);
}

void CNfsMain::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                              const char* pcPwd) {
    m_pUtilities->AddVSphereInfo(pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd);
}

void CNfsMain::RemoveVSphereInfo(const char* pcDatastoreMoid) {
    m_pUtilities->RemoveVSphereInfo(pcDatastoreMoid);
}

int CNfsMain::GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return m_pUtilities->GetNetDeviceCredential(pRuntimeParam, bPrintDetails);
}

int CNfsMain::GetNetDeviceCredential(bool bPrintDetails) {
    return GetNetDeviceCredential(m_pRuntimeParam.get(), bPrintDetails);
}

bool CNfsMain::AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) {
    return m_pUtilities->AddNetDeviceCredential(m_pRuntimeParam.get(), pcPath, pcUser, pcPwd);
}

bool CNfsMain::RemoveNetDeviceCredential(const char* pcPath) {
    return m_pUtilities->RemoveNetDeviceCredential(m_pRuntimeParam.get(), pcPath);
}
