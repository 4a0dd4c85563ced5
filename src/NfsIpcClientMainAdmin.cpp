// The client controller: listings, tests and administration.
#include "IpcClient.h"
#include "NfsIpcClientMain.h"
#include "Utilities.h"

// ==== Listings =======================================================================================================

int CNfsIpcClientMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails) {
    auto record = NewIpcRecord<IpcRequest_GetMountInfo>();
    SetIpcText(record.cIpcID, pRuntimeParam->GetID());
    record.bClientMountedOnly = bClientMountedOnly ? 1 : 0;
    record.bPrintDetails = bPrintDetails ? 1 : 0;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcGetMountInfo, record);
    return SendForInt(client, 0);
}

int CNfsIpcClientMain::SendForCount(int iType, CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    auto record = NewIpcRecord<IpcRequest_GetSessionInfo>();
    SetIpcText(record.cIpcID, pRuntimeParam->GetID());
    record.bPrintDetails = bPrintDetails ? 1 : 0;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
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

// ==== Tests and shell commands =======================================================================================

void CNfsIpcClientMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize) {
    auto record = NewIpcRecord<IpcRequest_RunTestMode>();
    SetIpcText(record.cIpcID, pRuntimeParam->GetID());
    SetIpcText(record.cDirPath, pcDirPath);
    record.iFileSize = iFileSize;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
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
    auto record = NewIpcRecord<IpcRequest_RunQuickTestMode>();
    SetIpcText(record.cIpcID, pRuntimeParam->GetID());
    SetIpcText(record.cPath, pcPath);
    record.iMode = iMode;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
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
    auto record = NewIpcRecord<IpcRequest_ExecuteSystemCmd>();
    SetIpcText(record.cIpcID, pRuntimeParam->GetID());
    SetIpcText(record.cCmd, pcCmd);
    record.bLogResult = bLogResult ? 1 : 0;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcExecuteSystemCmd, record);
    return SendForInt(client, -1);
}

// ==== Datastores and network devices =================================================================================

void CNfsIpcClientMain::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                       const char* pcUser, const char* pcPwd) {
    if (IsNotSupportSetVSphereInfo(nullptr)) {
        return;
    }
    auto record = NewIpcRecord<IpcRequest_AddVSphereInfo>();
    SetIpcText(record.cDatastoreMoid, pcDatastoreMoid);
    SetIpcText(record.cHost, pcHost);
    SetIpcText(record.cPort, pcPort);
    SetIpcText(record.cUser, pcUser);
    SetIpcText(record.cPwd, pcPwd);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcAddVSphereInfo, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::RemoveVSphereInfo(const char* pcDatastoreMoid) {
    if (IsNotSupportSetVSphereInfo(nullptr)) {
        return;
    }
    auto record = NewIpcRecord<IpcRequest_RemoveVSphereInfo>();
    SetIpcText(record.cDatastoreMoid, pcDatastoreMoid);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcRemoveVSphereInfo, record);
    client.SendRequest(m_cIpcChannel);
}

bool CNfsIpcClientMain::AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) {
    if (IsNotSupportNetDeviceAccess(nullptr)) {
        return false;
    }
    auto record = NewIpcRecord<IpcRequest_AddNetDeviceCredential>();
    SetIpcText(record.cPath, pcPath);
    SetIpcText(record.cUser, pcUser);
    SetIpcText(record.cPwd, pcPwd);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcAddNetDeviceCredential, record);
    return SendForBool(client);
}

bool CNfsIpcClientMain::RemoveNetDeviceCredential(const char* pcPath) {
    if (IsNotSupportNetDeviceAccess(nullptr)) {
        return false;
    }
    auto record = NewIpcRecord<IpcRequest_RemoveNetDeviceCredential>();
    SetIpcText(record.cPath, pcPath);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcRemoveNetDeviceCredential, record);
    return SendForBool(client);
}
