// The client controller: its life, its requests' ways, and the gates by the server's version.
#include "NfsIpcClientMain.h"

#include <cstring>

#include "IpcClient.h"
#include "ServerIdentity.h"
#include "Texts.h"
#include "Utilities.h"

// ---- Construction

CNfsIpcClientMain::CNfsIpcClientMain(const char* pcLogID, int iLogControl) {
    CNfsIpcClientMain::InitMemberVaribles(pcLogID, iLogControl);
}

CNfsIpcClientMain::~CNfsIpcClientMain() {
    CloseIpcServerThread();
}

void CNfsIpcClientMain::InitMemberVaribles(const char* pcLogID, int iLogControl) {
    CNfsIpcServerMain::InitMemberVaribles(pcLogID, iLogControl);
    GetIpcChannel(kIpcServerID, m_cIpcChannel);
}

std::unique_ptr<CUtilities> CNfsIpcClientMain::CreateUtilities() {
    return std::make_unique<CUtilities>();
}

bool CNfsIpcClientMain::InitialNetwork(char* /*pcStatus*/) {
    return true;
}

void CNfsIpcClientMain::TerminateNetwork() {}

int CNfsIpcClientMain::GetAccessMode() {
    return kAccessModeClient;
}

void CNfsIpcClientMain::GetIpcServerThreadChannel(char* pcChannel) {
    GetIpcChannel(m_pRuntimeParam->GetID(), pcChannel);
}

// ---- What stays local

void CNfsIpcClientMain::StopServer() {
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "[%s] Cannot stop NFS service in client mode.",
                              "NfsIpcClientMain.StopServer");
    }
}

void CNfsIpcClientMain::EnableAutoShutdown(bool /*bEnable*/) {
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "[%s] Auto shutdown is supported in client mode.",
                              "NfsIpcClientMain.EnableAutoShutdown");
    }
    CNfsMain::EnableAutoShutdown(false);
}

// ---- The ways of a request

bool CNfsIpcClientMain::SendForStatus(CIpcClient& client, char* pcStatus) {
    const bool bSent =
        pcStatus != nullptr ? client.SendRequestLogged(m_cIpcChannel, pcStatus) : client.SendRequest(m_cIpcChannel);
    if (!bSent) {
        return false;
    }
    if (const char* pcReason = client.GetExptReply(); pcReason != nullptr) {
        CopyText(pcStatus, kReasonBufferSize, pcReason);
        return false;
    }
    return client.GetBoolReply();
}

bool CNfsIpcClientMain::SendForBool(CIpcClient& client) {
    return client.SendRequest(m_cIpcChannel) && client.GetBoolReply();
}

int CNfsIpcClientMain::SendForInt(CIpcClient& client, int iFailed) {
    return client.SendRequest(m_cIpcChannel) ? client.GetIntReply() : iFailed;
}

void CNfsIpcClientMain::SendForText(int iType, char* pcText) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(iType);
    const char* pcReply = client.SendRequest(m_cIpcChannel) ? client.GetMsgReply() : nullptr;
    CopyText(pcText, kIdentityBufferSize, pcReply != nullptr ? pcReply : kUnknownServer);
}

// ---- The server

bool CNfsIpcClientMain::StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                                    char* pcStatus) {
    auto record = NewIpcRecord<IpcRequest_Start>();
    record.iMountPort = iMountPort;
    record.iNfsPort = iNfsPort;
    record.iUId = iUId;
    record.iGId = iGId;
    record.bReadOnly = bReadOnly ? 1 : 0;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcStartServer, record);
    return SendForStatus(client, pcStatus);
}

void CNfsIpcClientMain::GetVersion(char* pcVersion) {
    SendForText(kIpcGetVersion, pcVersion);
}

void CNfsIpcClientMain::GetDescription(char* pcDescription) {
    SendForText(kIpcGetDescription, pcDescription);
}

bool CNfsIpcClientMain::IsServerRunning() {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcIsServerRunning);
    return SendForBool(client);
}

void CNfsIpcClientMain::SetLogControl(int iLogControl) {
    auto record = NewIpcRecord<IpcRequest_SetLogControl>();
    record.iLogControl = iLogControl;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcSetLogControl, record);
    client.SendRequest(m_cIpcChannel);
}

bool CNfsIpcClientMain::RequestAutoShutdown() {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcRequestAutoShutdown);
    return SendForBool(client);
}

int CNfsIpcClientMain::GetServerStatus() {
    char cVersion[kIdentityBufferSize];
    GetVersion(cVersion);
    if (IsNotConnectable(cVersion)) {
        return 0;
    }
    if (IsNotSupportGetServerStatus(cVersion)) {
        return IsServerRunning() ? kStatusReachable | kStatusRunning : kStatusReachable;
    }
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcGetServerStatus);
    return SendForInt(client, kStatusReachable);
}

bool CNfsIpcClientMain::SetDebugActionEnabled(bool bEnabled) {
    if (IsNotSupportGetServerStatus(nullptr)) {
        return false;
    }
    auto record = NewIpcRecord<IpcRequest_SetBoolean>();
    record.bVal = bEnabled ? 1 : 0;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcSetDebugActionEnabled, record);
    return SendForBool(client);
}

// ---- Version gates

bool CNfsIpcClientMain::IsNotConnectable(const char* pcVersion) {
    if (pcVersion != nullptr) {
        return std::strcmp(pcVersion, kUnknownServer) == 0;
    }
    char cVersion[kIdentityBufferSize];
    GetVersion(cVersion);
    return IsNotConnectable(cVersion);
}

bool CNfsIpcClientMain::IsNotSupportGetServerStatus(const char* pcVersion) {
    if (pcVersion != nullptr) {
        return IsNotConnectable(pcVersion) || std::strcmp(pcVersion, "1.0") == 0;
    }
    char cVersion[kIdentityBufferSize];
    GetVersion(cVersion);
    return IsNotSupportGetServerStatus(cVersion);
}

bool CNfsIpcClientMain::IsNotSupportSetVSphereInfo(const char* pcVersion) {
    if (pcVersion != nullptr) {
        return IsNotSupportGetServerStatus(pcVersion) || std::strcmp(pcVersion, "1.1") == 0;
    }
    char cVersion[kIdentityBufferSize];
    GetVersion(cVersion);
    return IsNotSupportSetVSphereInfo(cVersion);
}

bool CNfsIpcClientMain::IsNotSupportNetDeviceAccess(const char* pcVersion) {
    if (pcVersion != nullptr) {
        return IsNotSupportSetVSphereInfo(pcVersion) || std::strcmp(pcVersion, "1.2") == 0;
    }
    char cVersion[kIdentityBufferSize];
    GetVersion(cVersion);
    return IsNotSupportNetDeviceAccess(cVersion);
}
