// The client controller: its life, its requests' ways, and the gates by the server's version.
#include "NfsIpcClientMain.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "IpcClient.h"
#include "ServerIdentity.h"
#include "Texts.h"
#include "Utilities.h"

namespace {

/// Versions that lack requests, in the order in which requests were added; first the one of no server at all. Whatever
/// stands nowhere here has them all.
constexpr std::array<const char*, 4> kLackingVersions = {kUnknownServer, "1.0", "1.1", "1.2"};

}  // namespace

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
    const LogArgu logArgu{"NfsIpcClientMain.StopServer"};
    NFS_LOG_INFO(GetLog(&logArgu), kLogGeneralInfo, "[%s] Cannot stop NFS service in client mode.");
}

void CNfsIpcClientMain::StopServerOf(std::uint64_t /*iMoment*/) {
    StopServer();
}

void CNfsIpcClientMain::EnableAutoShutdown(bool /*bEnable*/) {
    const LogArgu logArgu{"NfsIpcClientMain.EnableAutoShutdown"};
    NFS_LOG_INFO(GetLog(&logArgu), kLogGeneralInfo, "[%s] Auto shutdown is supported in client mode.");
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
    char vcVersion[kIdentityBufferSize];
    GetVersion(vcVersion);
    if (IsNotConnectable(vcVersion)) {
        return 0;
    }
    if (IsNotSupportGetServerStatus(vcVersion)) {
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

bool CNfsIpcClientMain::IsAmongFirst(std::size_t nVersions, const char* pcVersion) {
    char vcVersion[kIdentityBufferSize];
    if (pcVersion == nullptr) {
        GetVersion(vcVersion);
        pcVersion = vcVersion;
    }
    return std::any_of(kLackingVersions.begin(), kLackingVersions.begin() + nVersions,
                       [pcVersion](const char* pcLacking) { return std::strcmp(pcVersion, pcLacking) == 0; });
}

bool CNfsIpcClientMain::IsNotConnectable(const char* pcVersion) {
    return IsAmongFirst(1, pcVersion);
}

bool CNfsIpcClientMain::IsNotSupportGetServerStatus(const char* pcVersion) {
    return IsAmongFirst(2, pcVersion);
}

bool CNfsIpcClientMain::IsNotSupportSetVSphereInfo(const char* pcVersion) {
    return IsAmongFirst(3, pcVersion);
}

bool CNfsIpcClientMain::IsNotSupportNetDeviceAccess(const char* pcVersion) {
    return IsAmongFirst(4, pcVersion);
}
