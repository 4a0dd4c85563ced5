// The length of every record, by group and type.
#include "IpcMessages.h"

#include <array>

namespace {

// Indexed by type; type 0 is the header alone, sent for a type that has no record.

constexpr std::array<std::size_t, 6> kReplyLengths = {
    sizeof(Ipc_Header),        //
    sizeof(IpcReply_Bool),     // kIpcReplyBool
    sizeof(IpcReply_Long),     // kIpcReplyLong
    sizeof(IpcReply_Int),      // kIpcReplyInt
    sizeof(IpcReply_Message),  // kIpcReplyException
    sizeof(IpcReply_Message),  // kIpcReplyMessage
};

constexpr std::array<std::size_t, 33> kRequestLengths = {
    sizeof(Ipc_Header),                            //
    sizeof(Ipc_Header),                            // kIpcGetVersion
    sizeof(Ipc_Header),                            // kIpcGetDescription
    sizeof(Ipc_Header),                            // kIpcIsServerRunning
    sizeof(IpcRequest_Start),                      // kIpcStartServer
    sizeof(IpcRequest_AddMountPoint),              // kIpcAddMountPoint
    sizeof(IpcRequest_RemoveMountPoint),           // kIpcRemoveMountPoint
    sizeof(IpcRequest_AddSession),                 // kIpcAddSessionInfo
    sizeof(IpcRequest_RemoveSession),              // kIpcRemoveSessionInfo
    sizeof(IpcRequest_IsSessionExists),            // kIpcIsSessionExists
    sizeof(IpcRequest_OpenRedirectedFile),         // kIpcOpenRedirectedFile
    sizeof(IpcRequest_CloseRedirectedFile),        // kIpcCloseRedirectedFile
    sizeof(IpcRequest_CloseAllRedirectedFiles),    // kIpcCloseAllRedirectedFiles
    sizeof(IpcRequest_AddRedirectedFileSegment),   // kIpcAddRedirectedFileSegment
    sizeof(IpcRequest_ExportRedirectedFile),       // kIpcExportRedirectedFile
    sizeof(IpcRequest_ExportRedirectedFileInfo),   // kIpcExportRedirectedFileInfo
    sizeof(IpcRequest_CloseOpenedFile),            // kIpcCloseCachedFileHandle
    sizeof(IpcRequest_CloseAllOpenedFiles),        // kIpcCloseAllCachedFileHandles
    sizeof(IpcRequest_SetLogControl),              // kIpcSetLogControl
    sizeof(IpcRequest_GetMountInfo),               // kIpcGetMountInfo
    sizeof(IpcRequest_GetSessionInfo),             // kIpcGetSessionInfo
    sizeof(IpcRequest_RunTestMode),                // kIpcRunTestMode
    sizeof(Ipc_Header),                            // kIpcRequestAutoShutdown
    sizeof(Ipc_Header),                            // kIpcGetServerStatus
    sizeof(IpcRequest_SetBoolean),                 // kIpcSetDebugActionEnabled
    sizeof(IpcRequest_GetVSphereInfo),             // kIpcGetVSphereInfo
    sizeof(IpcRequest_AddVSphereInfo),             // kIpcAddVSphereInfo
    sizeof(IpcRequest_RemoveVSphereInfo),          // kIpcRemoveVSphereInfo
    sizeof(IpcRequest_RunQuickTestMode),           // kIpcRunQuickTestMode
    sizeof(IpcRequest_ExecuteSystemCmd),           // kIpcExecuteSystemCmd
    sizeof(IpcRequest_GetNetDeviceCredential),     // kIpcGetNetDeviceCredential
    sizeof(IpcRequest_AddNetDeviceCredential),     // kIpcAddNetDeviceCredential
    sizeof(IpcRequest_RemoveNetDeviceCredential),  // kIpcRemoveNetDeviceCredential
};

constexpr std::array<std::size_t, 6> kCallbackLengths = {
    sizeof(Ipc_Header),                         //
    sizeof(IpcCb_LogMessage),                   // kIpcCbLogMessage
    sizeof(IpcCb_SetRedirectedFileAttributes),  // kIpcCbSetRedirectedFileAttributes
    sizeof(IpcCb_RemoveRedirectedFile),         // kIpcCbRemoveRedirectedFile
    sizeof(IpcCb_RenameRedirectedFile),         // kIpcCbRenameRedirectedFile
    sizeof(IpcCb_WriteRedirectedFile),          // kIpcCbWriteRedirectedFile
};

template <std::size_t n>
constexpr std::size_t LengthAt(const std::array<std::size_t, n>& lengths, int iType) {
    return iType > 0 && static_cast<std::size_t>(iType) < n ? lengths[static_cast<std::size_t>(iType)] : lengths[0];
}

template <std::size_t n>
constexpr int KnownType(const std::array<std::size_t, n>&, int iType) {
    return iType > 0 && static_cast<std::size_t>(iType) < n ? iType : 0;
}

}  // namespace

std::size_t GetIpcRecordLength(int iGroup, int iType) {
    switch (iGroup) {
        case kIpcGroupReply:
            return LengthAt(kReplyLengths, iType);
        case kIpcGroupRequest:
            return LengthAt(kRequestLengths, iType);
        case kIpcGroupCallback:
            return LengthAt(kCallbackLengths, iType);
        default:
            return sizeof(Ipc_Header);
    }
}

int GetKnownIpcType(int iGroup, int iType) {
    switch (iGroup) {
        case kIpcGroupReply:
            return KnownType(kReplyLengths, iType);
        case kIpcGroupRequest:
            return KnownType(kRequestLengths, iType);
        case kIpcGroupCallback:
            return KnownType(kCallbackLengths, iType);
        default:
            return 0;
    }
}
