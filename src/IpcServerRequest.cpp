// CIpcServer: carrying out requests on the controller.
//
// One function per request type: it takes the record out of the message, has the controller do the work, and replies.
// Texts are taken out bounded by their fields, as nothing that arrives is trusted to end.
#include "IpcServer.h"

#include <array>
#include <string>

#include "IpcPatience.h"
#include "NfsMain.h"
#include "Reason.h"
#include "ServerIdentity.h"

namespace {

/// One request: who carries it out, the exchange it belongs to, and the server's own runtime parameter.
struct Call {
    CNfsMain& controller;
    const CRuntimeParam& own;
    IpcDataInst& inst;
    std::atomic<bool>& bAutoShutdownRequested;

    template <typename Record>
    Record Get() const {
        return GetIpcRecord<Record>(inst.request);
    }
    void Reply(bool bVal) const { CIpcServer::ReplyBool(&inst, bVal); }
    void Reply(int iVal) const { CIpcServer::ReplyInt(&inst, iVal); }
    void ReplyMessage(const char* pcText) const { CIpcServer::ReplyText(&inst, kIpcReplyMessage, pcText); }
    /// True, or an exception with the reason that the operation left.
    void Reply(bool bDone, const char* pcReason) const {
        if (bDone) {
            Reply(true);
        } else {
            CIpcServer::ReplyText(&inst, kIpcReplyException, pcReason);
        }
    }
};

/// Work under the server's name whose output goes back to the requester: to the last line before the reply does.
class CRequesterParam : public CRuntimeParam {
public:
    CRequesterParam(const Call& call, const std::string& sIpcID, int iMoreLogControl = 0)
        : CRuntimeParam(call.own.GetID(), call.own.GetLogControl() | iMoreLogControl) {
        SetIpcID(sIpcID.c_str());
    }

private:
    CIpcPatience m_Patience;
};

// ---- The server

/// The operations that write a text about the server.
template <void (CNfsMain::*operation)(char*)>
void GetText(const Call& call) {
    char vcText[kIdentityBufferSize] = "";
    (call.controller.*operation)(vcText);
    call.ReplyMessage(vcText);
}

void IsServerRunning(const Call& call) {
    call.Reply(call.controller.IsServerRunning());
}

void StartServer(const Call& call) {
    const auto record = call.Get<IpcRequest_Start>();
    char vcReason[kReasonBufferSize] = "";
    const bool bDone = call.controller.StartServer(record.iMountPort, record.iNfsPort, record.iUId, record.iGId,
                                                   record.bReadOnly != 0, vcReason);
    call.Reply(bDone, vcReason);
}

void SetLogControl(const Call& call) {
    call.controller.SetLogControl(call.Get<IpcRequest_SetLogControl>().iLogControl);
    call.Reply(true);
}

void RequestAutoShutdown(const Call& call) {
    const bool bAllowed = call.controller.IsAutoShutdownEnabled();
    if (bAllowed) {
        call.bAutoShutdownRequested = true;
    }
    call.Reply(bAllowed);
}

void GetServerStatus(const Call& call) {
    call.Reply(call.controller.GetServerStatus());
}

void SetDebugActionEnabled(const Call& call) {
    call.controller.SetDebugActionEnabled(call.Get<IpcRequest_SetBoolean>().bVal != 0);
    call.Reply(true);
}

// ---- Exports and sessions

void AddMountPoint(const Call& call) {
    const auto record = call.Get<IpcRequest_AddMountPoint>();
    char vcReason[kReasonBufferSize] = "";
    const bool bDone = call.controller.AddMountPoint(GetIpcText(record.cLocalMountFolder).c_str(),
                                                     GetIpcText(record.cExportName).c_str(),
                                                     GetIpcText(record.cIpcID).c_str(), vcReason);
    call.Reply(bDone, vcReason);
}

void RemoveMountPoint(const Call& call) {
    call.controller.RemoveMountPoint(GetIpcText(call.Get<IpcRequest_RemoveMountPoint>().cLocalMountFolder).c_str());
    call.Reply(true);
}

void AddSessionInfo(const Call& call) {
    const auto record = call.Get<IpcRequest_AddSession>();
    call.controller.AddSessionInfo(GetIpcText(record.cSessionID).c_str(), GetIpcText(record.cLocalMountFolder).c_str());
    call.Reply(true);
}

void RemoveSessionInfo(const Call& call) {
    call.controller.RemoveSessionInfo(GetIpcText(call.Get<IpcRequest_RemoveSession>().cSessionID).c_str());
    call.Reply(true);
}

void IsSessionExists(const Call& call) {
    const auto record = call.Get<IpcRequest_IsSessionExists>();
    call.Reply(call.controller.IsSessionExists(GetIpcText(record.cSessionID).c_str()));
}

// ---- Redirected files and cached descriptors

void OpenRedirectedFile(const Call& call) {
    const auto record = call.Get<IpcRequest_OpenRedirectedFile>();
    call.controller.OpenRedirectedFile(GetIpcText(record.cPath).c_str(), record.iSize, record.bCreateInfoFile != 0,
                                       record.iInfoFileSegmentSizeMB, record.iInfoFileCheckPointSizeMB);
    call.Reply(true);
}

/// The operations that take a path and tell nothing.
template <void (CNfsMain::*operation)(const char*)>
void DoWithPath(const Call& call) {
    (call.controller.*operation)(GetIpcText(call.Get<IpcRequest_CloseRedirectedFile>().cPath).c_str());
    call.Reply(true);
}

void AddRedirectedFileSegment(const Call& call) {
    const auto record = call.Get<IpcRequest_AddRedirectedFileSegment>();
    char vcReason[kReasonBufferSize] = "";
    const bool bDone =
        call.controller.AddRedirectedFileSegment(GetIpcText(record.cPath).c_str(), GetIpcText(record.cSrcPath).c_str(),
                                                 record.iSrcFileOffset, record.iOffset, record.iLength, vcReason);
    call.Reply(bDone, vcReason);
}

void ExportRedirectedFile(const Call& call) {
    const auto record = call.Get<IpcRequest_ExportRedirectedFile>();
    call.controller.ExportRedirectedFile(GetIpcText(record.cPath).c_str(), GetIpcText(record.cExportPath).c_str());
    call.Reply(true);
}

void ExportRedirectedFileInfo(const Call& call) {
    const auto record = call.Get<IpcRequest_ExportRedirectedFileInfo>();
    call.controller.ExportRedirectedFileInfo(GetIpcText(record.cPath).c_str(), GetIpcText(record.cExportPath).c_str(),
                                             record.bMergeRange != 0);
    call.Reply(true);
}

// ---- Listings

void GetMountInfo(const Call& call) {
    const auto record = call.Get<IpcRequest_GetMountInfo>();
    CRequesterParam param(call, GetIpcText(record.cIpcID));
    call.Reply(call.controller.GetMountInfo(&param, record.bClientMountedOnly != 0, record.bPrintDetails != 0));
}

template <int (CNfsMain::*operation)(CRuntimeParam*, bool)>
void List(const Call& call) {
    const auto record = call.Get<IpcRequest_GetSessionInfo>();
    CRequesterParam param(call, GetIpcText(record.cIpcID));
    call.Reply((call.controller.*operation)(&param, record.bPrintDetails != 0));
}

// ---- Tests and administration

void RunTestMode(const Call& call) {
    const auto record = call.Get<IpcRequest_RunTestMode>();
    CRequesterParam param(call, GetIpcText(record.cIpcID));
    call.controller.RunTestMode(&param, GetIpcText(record.cDirPath).c_str(), record.iFileSize);
    call.Reply(true);
}

void AddVSphereInfo(const Call& call) {
    const auto record = call.Get<IpcRequest_AddVSphereInfo>();
    call.controller.AddVSphereInfo(GetIpcText(record.cDatastoreMoid).c_str(), GetIpcText(record.cHost).c_str(),
                                   GetIpcText(record.cPort).c_str(), GetIpcText(record.cUser).c_str(),
                                   GetIpcText(record.cPwd).c_str());
    call.Reply(true);
}

void RemoveVSphereInfo(const Call& call) {
    call.controller.RemoveVSphereInfo(GetIpcText(call.Get<IpcRequest_RemoveVSphereInfo>().cDatastoreMoid).c_str());
    call.Reply(true);
}

void RunQuickTestMode(const Call& call) {
    const auto record = call.Get<IpcRequest_RunQuickTestMode>();
    CRequesterParam param(call, GetIpcText(record.cIpcID));
    char vcReason[kReasonBufferSize] = "";
    const bool bDone =
        call.controller.RunQuickTestMode(&param, GetIpcText(record.cPath).c_str(), record.iMode, vcReason);
    call.Reply(bDone, vcReason);
}

void ExecuteSystemCmd(const Call& call) {
    const auto record = call.Get<IpcRequest_ExecuteSystemCmd>();
    // What the command prints is wanted, whatever else is logged.
    CRequesterParam param(call, GetIpcText(record.cIpcID), CRuntimeParam::kLogGeneralInfo);
    call.Reply(call.controller.ExecuteSystemCmd(&param, GetIpcText(record.cCmd).c_str(), record.bLogResult != 0));
}

void AddNetDeviceCredential(const Call& call) {
    const auto record = call.Get<IpcRequest_AddNetDeviceCredential>();
    call.Reply(call.controller.AddNetDeviceCredential(
        GetIpcText(record.cPath).c_str(), GetIpcText(record.cUser).c_str(), GetIpcText(record.cPwd).c_str()));
}

void RemoveNetDeviceCredential(const Call& call) {
    const auto record = call.Get<IpcRequest_RemoveNetDeviceCredential>();
    call.Reply(call.controller.RemoveNetDeviceCredential(GetIpcText(record.cPath).c_str()));
}

/// Indexed by request type.
constexpr std::array<void (*)(const Call&), 33> kHandlers = {
    nullptr,
    GetText<&CNfsMain::GetVersion>,
    GetText<&CNfsMain::GetDescription>,
    IsServerRunning,
    StartServer,
    AddMountPoint,
    RemoveMountPoint,
    AddSessionInfo,
    RemoveSessionInfo,
    IsSessionExists,
    OpenRedirectedFile,
    DoWithPath<&CNfsMain::CloseRedirectedFile>,
    DoWithPath<&CNfsMain::CloseAllRedirectedFiles>,
    AddRedirectedFileSegment,
    ExportRedirectedFile,
    ExportRedirectedFileInfo,
    DoWithPath<&CNfsMain::CloseCachedFileHandle>,
    DoWithPath<&CNfsMain::CloseAllCachedFileHandles>,
    SetLogControl,
    GetMountInfo,
    List<&CNfsMain::GetSessionInfo>,
    RunTestMode,
    RequestAutoShutdown,
    GetServerStatus,
    SetDebugActionEnabled,
    List<&CNfsMain::GetVSphereInfo>,
    AddVSphereInfo,
    RemoveVSphereInfo,
    RunQuickTestMode,
    ExecuteSystemCmd,
    List<&CNfsMain::GetNetDeviceCredential>,
    AddNetDeviceCredential,
    RemoveNetDeviceCredential,
};
static_assert(kHandlers.size() == kIpcRemoveNetDeviceCredential + 1);

}  // namespace

void CIpcServer::ProcessRequest(IpcDataInst* pInst, int iType) {
    const int iKnown = GetKnownIpcType(kIpcGroupRequest, iType);
    if (iKnown == 0) {
        char vcReason[kReasonBufferSize];
        WriteReason(vcReason, "Unknown request type (%d)", iType);
        ReplyText(pInst, kIpcReplyException, vcReason);
        return;
    }
    kHandlers[static_cast<std::size_t>(iKnown)]({*m_pNfsHandle, *m_pRuntimeParam, *pInst, m_bAutoShutdownRequested});
}
