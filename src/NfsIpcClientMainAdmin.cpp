// The client controller: listings, tests and administration.
#include "NfsIpcClientMain.h"

#include "IpcClient.h"
#include "Utilities.h"

// ---- Listings

int CNfsIpcClientMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_GetMountInfo>();
    client.SetText(record.cIpcID, "IPC ID", pRuntimeParam->GetID());
    record.bClientMountedOnly = bClientMountedOnly ? 1 : 0;
    record.bPrintDetails = bPrintDetails ? 1 : 0;
    client.SetRequest(kIpcGetMountInfo, record);
    return SendForInt(client, 0);
}

int CNfsIpcClientMain::SendForCount(int iType, CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_GetSessionInfo>();
    client.SetText(record.cIpcID, "IPC ID", pRuntimeParam->GetID());
    record.bPrintDetails = bPrintDetails ? 1 : 0;
    client.SetRequest(iType, record);
    return SendForInt(client, 0);
}

int CNfsIpcClientMain::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return SendForCount(kIpcGetSessionInfo, pRuntimeParam, bPrintDetails);
}

int CNfsIpcClientMain::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return IsNotSupportSetVSphereInfo(nullptr) ? 0 : SendForCount(kIpcGetVSphereInfo, pRuntimeParam, bPrintDetails);
}

int CNfsIpcClientMain::GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return IsNotSupportNetDeviceAccess(nullptr)
               ? 0
               : SendForCount(kIpcGetNetDeviceCredential, pRuntimeParam, bPrintDetails);
}

// ---- Tests and shell commands

void CNfsIpcClientMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_RunTestMode>();
    client.SetText(record.cIpcID, "IPC ID", pRuntimeParam->GetID());
    client.SetText(record.cDirPath, "Directory", pcDirPath);
    record.iFileSize = iFileSize;
    client.SetRequest(kIpcRunTestMode, record);
    client.SendRequest(m_cIpcChannel);
}

bool CNfsIpcClientMain::RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus) {
    if (IsNotSupportNetDeviceAccess(nullptr)) {
        if (pRuntimeParam->IsLogGeneralInfo()) {
            m_pUtilities->LogInfo(pRuntimeParam, "%s", "Server does not support to run quick test.");
        }
        return true;
    }
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_RunQuickTestMode>();
    client.SetText(record.cIpcID, "IPC ID", pRuntimeParam->GetID());
    client.SetText(record.cPath, "Path", pcPath);
    record.iMode = iMode;
    client.SetRequest(kIpcRunQuickTestMode, record);
    return SendForStatus(client, pcStatus);
}

int CNfsIpcClientMain::ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogResult) {
    if (IsNotSupportNetDeviceAccess(nullptr)) {
        if (bLogResult || pRuntimeParam->IsLogGeneralInfo()) {
            m_pUtilities->LogInfo(pRuntimeParam, "%s", "Server does not support to run execute system cmd.");
        }
        return 0;
    }
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_ExecuteSystemCmd>();
    client.SetText(record.cIpcID, "IPC ID", pRuntimeParam->GetID());
    client.SetText(record.cCmd, "Command", pcCmd);
    record.bLogResult = bLogResult ? 1 : 0;
    client.SetRequest(kIpcExecuteSystemCmd, record);
    return SendForInt(client, -1);
}

// ---- Datastores and network devices

void CNfsIpcClientMain::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                       const char* pcUser, const char* pcPwd) {
    if (IsNotSupportSetVSphereInfo(nullptr)) {
        return;
    }
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_AddVSphereInfo>();
    client.SetText(record.cDatastoreMoid, "Datastore MOID", pcDatastoreMoid);
    client.SetText(record.cHost, "Host", pcHost);
    client.SetText(record.cPort, "Port", pcPort);
    client.SetText(record.cUser, "User", pcUser);
    client.SetText(record.cPwd, "Password", pcPwd);
    client.SetRequest(kIpcAddVSphereInfo, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::RemoveVSphereInfo(const char* pcDatastoreMoid) {
    if (IsNotSupportSetVSphereInfo(nullptr)) {
        return;
    }
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_RemoveVSphereInfo>();
    client.SetText(record.cDatastoreMoid, "Datastore MOID", pcDatastoreMoid);
    client.SetRequest(kIpcRemoveVSphereInfo, record);
    client.SendRequest(m_cIpcChannel);
}

bool CNfsIpcClientMain::AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) {
    if (IsNotSupportNetDeviceAccess(nullptr)) {
        return false;
    }
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_AddNetDeviceCredential>();
    client.SetText(record.cPath, "Path", pcPath);
    client.SetText(record.cUser, "User", pcUser);
    client.SetText(record.cPwd, "Password", pcPwd);
    client.SetRequest(kIpcAddNetDeviceCredential, record);
    return SendForBool(client);
}

bool CNfsIpcClientMain::RemoveNetDeviceCredential(const char* pcPath) {
    if (IsNotSupportNetDeviceAccess(nullptr)) {
        return false;
    }
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_RemoveNetDeviceCredential>();
    client.SetText(record.cPath, "Path", pcPath);
    client.SetRequest(kIpcRemoveNetDeviceCredential, record);
    return SendForBool(client);
}
