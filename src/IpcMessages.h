// The records of the remote control: every request, reply and callback at its exact place.
//
// Both ends run on the same machine, so integers are in its own byte order and the layouts are those of its natural
// alignment; the assertions below pin every offset, because other programs rely on them. A boolean is one byte, 0 or 1
// when sent; it is declared as a byte, not as bool, because a received one may hold anything.
#pragma once

#include <cstddef>
#include <cstdint>

/// Room for one record; the longest is 3352 bytes.
inline constexpr std::size_t kIpcDataBufSize = 4096;

/// Text fields, terminator included.
inline constexpr std::size_t kIpcNameSize = 256;        ///< IDs, export names, users
inline constexpr std::size_t kIpcPathSize = 1024;       ///< paths, shell commands
inline constexpr std::size_t kIpcMessageSize = 2048;    ///< log lines, reasons, results
inline constexpr std::size_t kIpcTestPathSize = 3072;   ///< the platform test's directory
inline constexpr std::size_t kIpcCredentialSize = 255;  ///< a network device's user and password; not 256

/// One message in memory.
struct IpcDataBuf {
    alignas(8) char cBuf[kIpcDataBufSize];  ///< a record, from its start
    std::int64_t lDataLen;                  ///< how many bytes of it mean something
};

/// A request and the reply to it.
struct IpcDataInst {
    IpcDataBuf request;
    IpcDataBuf reply;
};

/// Action groups.
enum IpcGroup : int { kIpcGroupReply = 1, kIpcGroupRequest = 2, kIpcGroupCallback = 3 };

/// Reply types. What a type is followed by is told by its record.
enum IpcReplyType : int {
    kIpcReplyBool = 1,
    kIpcReplyLong = 2,
    kIpcReplyInt = 3,
    kIpcReplyException = 4,
    kIpcReplyMessage = 5,
};

/// Request types, named after the controller's operations.
enum IpcRequestType : int {
    kIpcGetVersion = 1,
    kIpcGetDescription = 2,
    kIpcIsServerRunning = 3,
    kIpcStartServer = 4,
    kIpcAddMountPoint = 5,
    kIpcRemoveMountPoint = 6,
    kIpcAddSessionInfo = 7,
    kIpcRemoveSessionInfo = 8,
    kIpcIsSessionExists = 9,
    kIpcOpenRedirectedFile = 10,
    kIpcCloseRedirectedFile = 11,
    kIpcCloseAllRedirectedFiles = 12,
    kIpcAddRedirectedFileSegment = 13,
    kIpcExportRedirectedFile = 14,
    kIpcExportRedirectedFileInfo = 15,
    kIpcCloseCachedFileHandle = 16,
    kIpcCloseAllCachedFileHandles = 17,
    kIpcSetLogControl = 18,
    kIpcGetMountInfo = 19,
    kIpcGetSessionInfo = 20,
    kIpcRunTestMode = 21,
    kIpcRequestAutoShutdown = 22,
    kIpcGetServerStatus = 23,
    kIpcSetDebugActionEnabled = 24,
    kIpcGetVSphereInfo = 25,
    kIpcAddVSphereInfo = 26,
    kIpcRemoveVSphereInfo = 27,
    kIpcRunQuickTestMode = 28,
    kIpcExecuteSystemCmd = 29,
    kIpcGetNetDeviceCredential = 30,
    kIpcAddNetDeviceCredential = 31,
    kIpcRemoveNetDeviceCredential = 32,
};

/// Callback types.
enum IpcCallbackType : int {
    kIpcCbLogMessage = 1,
    kIpcCbSetRedirectedFileAttributes = 2,
    kIpcCbRemoveRedirectedFile = 3,
    kIpcCbRenameRedirectedFile = 4,
    kIpcCbWriteRedirectedFile = 5,
};

/// What a log callback carries.
enum IpcLogType : std::int32_t { kIpcLogInfo = 1, kIpcLogError = 2, kIpcLogRaw = 3 };

/// A boolean as it stands in a record: 0 is false, any other byte true.
using IpcBool = unsigned char;

/// Stands at the start of every record.
struct Ipc_Header {
    std::int32_t iGroup;
    std::int32_t iType;  ///< 0 for a type that the sender did not know
    char cVersion[8];
};

// ---- Replies

struct IpcReply_Bool {
    Ipc_Header header;
    IpcBool bVal;
};

struct IpcReply_Long {
    Ipc_Header header;
    std::int64_t lVal;
};

struct IpcReply_Int {
    Ipc_Header header;
    std::int32_t iVal;
};

/// A result text, or, as an exception, the reason of a failure.
struct IpcReply_Message {
    Ipc_Header header;
    char cMsg[kIpcMessageSize];
};

// ---- Requests

struct IpcRequest_Start {
    Ipc_Header header;
    std::int32_t iMountPort;
    std::int32_t iNfsPort;
    std::uint32_t iUId;
    std::uint32_t iGId;
    IpcBool bReadOnly;
};

struct IpcRequest_AddMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[kIpcPathSize];
    char cExportName[kIpcNameSize];
    char cIpcID[kIpcNameSize];  ///< whose channel gets the notifications of this export
};

struct IpcRequest_RemoveMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[kIpcPathSize];
};

struct IpcRequest_AddSession {
    Ipc_Header header;
    char cSessionID[kIpcNameSize];
    char cLocalMountFolder[kIpcPathSize];
};

/// Also IpcRequest_IsSessionExists.
struct IpcRequest_RemoveSession {
    Ipc_Header header;
    char cSessionID[kIpcNameSize];
};
using IpcRequest_IsSessionExists = IpcRequest_RemoveSession;

struct IpcRequest_OpenRedirectedFile {
    Ipc_Header header;
    char cPath[kIpcPathSize];
    std::int64_t iSize;
    IpcBool bCreateInfoFile;
    std::int32_t iInfoFileSegmentSizeMB;
    std::int32_t iInfoFileCheckPointSizeMB;
};

/// A request that names a path and nothing else.
struct IpcRequest_CloseRedirectedFile {
    Ipc_Header header;
    char cPath[kIpcPathSize];
};
using IpcRequest_CloseAllRedirectedFiles = IpcRequest_CloseRedirectedFile;
using IpcRequest_CloseOpenedFile = IpcRequest_CloseRedirectedFile;
using IpcRequest_CloseAllOpenedFiles = IpcRequest_CloseRedirectedFile;
using IpcRequest_RemoveNetDeviceCredential = IpcRequest_CloseRedirectedFile;

struct IpcRequest_AddRedirectedFileSegment {
    Ipc_Header header;
    char cPath[kIpcPathSize];
    char cSrcPath[kIpcPathSize];
    std::int64_t iSrcFileOffset;
    std::int64_t iOffset;
    std::int64_t iLength;
};

struct IpcRequest_ExportRedirectedFile {
    Ipc_Header header;
    char cPath[kIpcPathSize];
    char cExportPath[kIpcPathSize];
};

struct IpcRequest_ExportRedirectedFileInfo {
    Ipc_Header header;
    char cPath[kIpcPathSize];
    char cExportPath[kIpcPathSize];
    IpcBool bMergeRange;
};

struct IpcRequest_SetLogControl {
    Ipc_Header header;
    std::int32_t iLogControl;
};

/// The cIpcID of this and the following requests names the channel that what the operation prints is sent to.
struct IpcRequest_GetMountInfo {
    Ipc_Header header;
    char cIpcID[kIpcNameSize];
    IpcBool bClientMountedOnly;
    IpcBool bPrintDetails;
};

struct IpcRequest_GetSessionInfo {
    Ipc_Header header;
    char cIpcID[kIpcNameSize];
    IpcBool bPrintDetails;
};
using IpcRequest_GetVSphereInfo = IpcRequest_GetSessionInfo;
using IpcRequest_GetNetDeviceCredential = IpcRequest_GetSessionInfo;

struct IpcRequest_RunTestMode {
    Ipc_Header header;
    char cIpcID[kIpcNameSize];
    char cDirPath[kIpcTestPathSize];
    std::int64_t iFileSize;
};

struct IpcRequest_SetBoolean {
    Ipc_Header header;
    IpcBool bVal;
};

struct IpcRequest_AddVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[kIpcNameSize];
    char cHost[kIpcNameSize];
    char cPort[kIpcNameSize];  ///< as text
    char cUser[kIpcNameSize];
    char cPwd[kIpcNameSize];
};

struct IpcRequest_RemoveVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[kIpcNameSize];
};

struct IpcRequest_RunQuickTestMode {
    Ipc_Header header;
    char cIpcID[kIpcNameSize];
    char cPath[kIpcPathSize];
    std::int32_t iMode;
};

struct IpcRequest_ExecuteSystemCmd {
    Ipc_Header header;
    char cIpcID[kIpcNameSize];
    char cCmd[kIpcPathSize];
    IpcBool bLogResult;
};

struct IpcRequest_AddNetDeviceCredential {
    Ipc_Header header;
    char cPath[kIpcPathSize];
    char cUser[kIpcCredentialSize];
    char cPwd[kIpcCredentialSize];  ///< at the odd offset 1295
};

// ---- Callbacks
// cID is the ID of the runtime parameter under which the event happened.

struct IpcCb_LogMessage {
    Ipc_Header header;
    char cID[kIpcNameSize];
    char cMsg[kIpcMessageSize];
    std::int32_t iType;  ///< an IpcLogType; any other value counts as information
};

struct IpcCb_SetRedirectedFileAttributes {
    Ipc_Header header;
    char cID[kIpcNameSize];
    char cPath[kIpcPathSize];
    IpcBool bSize;
    std::uint64_t iSize;
    IpcBool bAccessTime;
    std::uint64_t lAccessTimeSec;
    IpcBool bLastModifiedTime;
    std::uint64_t lLastModifiedTimeSec;
};

struct IpcCb_RemoveRedirectedFile {
    Ipc_Header header;
    char cID[kIpcNameSize];
    char cPath[kIpcPathSize];
};

struct IpcCb_RenameRedirectedFile {
    Ipc_Header header;
    char cID[kIpcNameSize];
    char cPathFm[kIpcPathSize];
    char cPathTo[kIpcPathSize];
};

struct IpcCb_WriteRedirectedFile {
    Ipc_Header header;
    char cID[kIpcNameSize];
    char cPath[kIpcPathSize];
    std::uint64_t iSeek;
    std::int32_t iSeekType;
    std::uint32_t iLen;
};

// ---- The layouts are part of the format

// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define IPC_ASSERT_FIELD(record, field, place) static_assert(offsetof(record, field) == (place))
#define IPC_ASSERT_SIZE(record, size) static_assert(sizeof(record) == (size))
// NOLINTEND(cppcoreguidelines-macro-usage)

IPC_ASSERT_SIZE(Ipc_Header, 16);
IPC_ASSERT_FIELD(Ipc_Header, iGroup, 0);
IPC_ASSERT_FIELD(Ipc_Header, iType, 4);
IPC_ASSERT_FIELD(Ipc_Header, cVersion, 8);

IPC_ASSERT_SIZE(IpcReply_Bool, 20);
IPC_ASSERT_FIELD(IpcReply_Bool, bVal, 16);
IPC_ASSERT_SIZE(IpcReply_Long, 24);
IPC_ASSERT_FIELD(IpcReply_Long, lVal, 16);
IPC_ASSERT_SIZE(IpcReply_Int, 20);
IPC_ASSERT_FIELD(IpcReply_Int, iVal, 16);
IPC_ASSERT_SIZE(IpcReply_Message, 2064);
IPC_ASSERT_FIELD(IpcReply_Message, cMsg, 16);

IPC_ASSERT_SIZE(IpcRequest_Start, 36);
IPC_ASSERT_FIELD(IpcRequest_Start, iMountPort, 16);
IPC_ASSERT_FIELD(IpcRequest_Start, iNfsPort, 20);
IPC_ASSERT_FIELD(IpcRequest_Start, iUId, 24);
IPC_ASSERT_FIELD(IpcRequest_Start, iGId, 28);
IPC_ASSERT_FIELD(IpcRequest_Start, bReadOnly, 32);
IPC_ASSERT_SIZE(IpcRequest_AddMountPoint, 1552);
IPC_ASSERT_FIELD(IpcRequest_AddMountPoint, cLocalMountFolder, 16);
IPC_ASSERT_FIELD(IpcRequest_AddMountPoint, cExportName, 1040);
IPC_ASSERT_FIELD(IpcRequest_AddMountPoint, cIpcID, 1296);
IPC_ASSERT_SIZE(IpcRequest_RemoveMountPoint, 1040);
IPC_ASSERT_FIELD(IpcRequest_RemoveMountPoint, cLocalMountFolder, 16);
IPC_ASSERT_SIZE(IpcRequest_AddSession, 1296);
IPC_ASSERT_FIELD(IpcRequest_AddSession, cSessionID, 16);
IPC_ASSERT_FIELD(IpcRequest_AddSession, cLocalMountFolder, 272);
IPC_ASSERT_SIZE(IpcRequest_RemoveSession, 272);
IPC_ASSERT_FIELD(IpcRequest_RemoveSession, cSessionID, 16);
IPC_ASSERT_SIZE(IpcRequest_OpenRedirectedFile, 1064);
IPC_ASSERT_FIELD(IpcRequest_OpenRedirectedFile, cPath, 16);
IPC_ASSERT_FIELD(IpcRequest_OpenRedirectedFile, iSize, 1040);
IPC_ASSERT_FIELD(IpcRequest_OpenRedirectedFile, bCreateInfoFile, 1048);
IPC_ASSERT_FIELD(IpcRequest_OpenRedirectedFile, iInfoFileSegmentSizeMB, 1052);
IPC_ASSERT_FIELD(IpcRequest_OpenRedirectedFile, iInfoFileCheckPointSizeMB, 1056);
IPC_ASSERT_SIZE(IpcRequest_CloseRedirectedFile, 1040);
IPC_ASSERT_FIELD(IpcRequest_CloseRedirectedFile, cPath, 16);
IPC_ASSERT_SIZE(IpcRequest_AddRedirectedFileSegment, 2088);
IPC_ASSERT_FIELD(IpcRequest_AddRedirectedFileSegment, cPath, 16);
IPC_ASSERT_FIELD(IpcRequest_AddRedirectedFileSegment, cSrcPath, 1040);
IPC_ASSERT_FIELD(IpcRequest_AddRedirectedFileSegment, iSrcFileOffset, 2064);
IPC_ASSERT_FIELD(IpcRequest_AddRedirectedFileSegment, iOffset, 2072);
IPC_ASSERT_FIELD(IpcRequest_AddRedirectedFileSegment, iLength, 2080);
IPC_ASSERT_SIZE(IpcRequest_ExportRedirectedFile, 2064);
IPC_ASSERT_FIELD(IpcRequest_ExportRedirectedFile, cPath, 16);
IPC_ASSERT_FIELD(IpcRequest_ExportRedirectedFile, cExportPath, 1040);
IPC_ASSERT_SIZE(IpcRequest_ExportRedirectedFileInfo, 2068);
IPC_ASSERT_FIELD(IpcRequest_ExportRedirectedFileInfo, cPath, 16);
IPC_ASSERT_FIELD(IpcRequest_ExportRedirectedFileInfo, cExportPath, 1040);
IPC_ASSERT_FIELD(IpcRequest_ExportRedirectedFileInfo, bMergeRange, 2064);
IPC_ASSERT_SIZE(IpcRequest_SetLogControl, 20);
IPC_ASSERT_FIELD(IpcRequest_SetLogControl, iLogControl, 16);
IPC_ASSERT_SIZE(IpcRequest_GetMountInfo, 276);
IPC_ASSERT_FIELD(IpcRequest_GetMountInfo, cIpcID, 16);
IPC_ASSERT_FIELD(IpcRequest_GetMountInfo, bClientMountedOnly, 272);
IPC_ASSERT_FIELD(IpcRequest_GetMountInfo, bPrintDetails, 273);
IPC_ASSERT_SIZE(IpcRequest_GetSessionInfo, 276);
IPC_ASSERT_FIELD(IpcRequest_GetSessionInfo, cIpcID, 16);
IPC_ASSERT_FIELD(IpcRequest_GetSessionInfo, bPrintDetails, 272);
IPC_ASSERT_SIZE(IpcRequest_RunTestMode, 3352);
IPC_ASSERT_FIELD(IpcRequest_RunTestMode, cIpcID, 16);
IPC_ASSERT_FIELD(IpcRequest_RunTestMode, cDirPath, 272);
IPC_ASSERT_FIELD(IpcRequest_RunTestMode, iFileSize, 3344);
IPC_ASSERT_SIZE(IpcRequest_SetBoolean, 20);
IPC_ASSERT_FIELD(IpcRequest_SetBoolean, bVal, 16);
IPC_ASSERT_SIZE(IpcRequest_AddVSphereInfo, 1296);
IPC_ASSERT_FIELD(IpcRequest_AddVSphereInfo, cDatastoreMoid, 16);
IPC_ASSERT_FIELD(IpcRequest_AddVSphereInfo, cHost, 272);
IPC_ASSERT_FIELD(IpcRequest_AddVSphereInfo, cPort, 528);
IPC_ASSERT_FIELD(IpcRequest_AddVSphereInfo, cUser, 784);
IPC_ASSERT_FIELD(IpcRequest_AddVSphereInfo, cPwd, 1040);
IPC_ASSERT_SIZE(IpcRequest_RemoveVSphereInfo, 272);
IPC_ASSERT_FIELD(IpcRequest_RemoveVSphereInfo, cDatastoreMoid, 16);
IPC_ASSERT_SIZE(IpcRequest_RunQuickTestMode, 1300);
IPC_ASSERT_FIELD(IpcRequest_RunQuickTestMode, cIpcID, 16);
IPC_ASSERT_FIELD(IpcRequest_RunQuickTestMode, cPath, 272);
IPC_ASSERT_FIELD(IpcRequest_RunQuickTestMode, iMode, 1296);
IPC_ASSERT_SIZE(IpcRequest_ExecuteSystemCmd, 1300);
IPC_ASSERT_FIELD(IpcRequest_ExecuteSystemCmd, cIpcID, 16);
IPC_ASSERT_FIELD(IpcRequest_ExecuteSystemCmd, cCmd, 272);
IPC_ASSERT_FIELD(IpcRequest_ExecuteSystemCmd, bLogResult, 1296);
IPC_ASSERT_SIZE(IpcRequest_AddNetDeviceCredential, 1552);
IPC_ASSERT_FIELD(IpcRequest_AddNetDeviceCredential, cPath, 16);
IPC_ASSERT_FIELD(IpcRequest_AddNetDeviceCredential, cUser, 1040);
IPC_ASSERT_FIELD(IpcRequest_AddNetDeviceCredential, cPwd, 1295);

IPC_ASSERT_SIZE(IpcCb_LogMessage, 2324);
IPC_ASSERT_FIELD(IpcCb_LogMessage, cID, 16);
IPC_ASSERT_FIELD(IpcCb_LogMessage, cMsg, 272);
IPC_ASSERT_FIELD(IpcCb_LogMessage, iType, 2320);
IPC_ASSERT_SIZE(IpcCb_SetRedirectedFileAttributes, 1344);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, cID, 16);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, cPath, 272);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, bSize, 1296);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, iSize, 1304);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, bAccessTime, 1312);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, lAccessTimeSec, 1320);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, bLastModifiedTime, 1328);
IPC_ASSERT_FIELD(IpcCb_SetRedirectedFileAttributes, lLastModifiedTimeSec, 1336);
IPC_ASSERT_SIZE(IpcCb_RemoveRedirectedFile, 1296);
IPC_ASSERT_FIELD(IpcCb_RemoveRedirectedFile, cID, 16);
IPC_ASSERT_FIELD(IpcCb_RemoveRedirectedFile, cPath, 272);
IPC_ASSERT_SIZE(IpcCb_RenameRedirectedFile, 2320);
IPC_ASSERT_FIELD(IpcCb_RenameRedirectedFile, cID, 16);
IPC_ASSERT_FIELD(IpcCb_RenameRedirectedFile, cPathFm, 272);
IPC_ASSERT_FIELD(IpcCb_RenameRedirectedFile, cPathTo, 1296);
IPC_ASSERT_SIZE(IpcCb_WriteRedirectedFile, 1312);
IPC_ASSERT_FIELD(IpcCb_WriteRedirectedFile, cID, 16);
IPC_ASSERT_FIELD(IpcCb_WriteRedirectedFile, cPath, 272);
IPC_ASSERT_FIELD(IpcCb_WriteRedirectedFile, iSeek, 1296);
IPC_ASSERT_FIELD(IpcCb_WriteRedirectedFile, iSeekType, 1304);
IPC_ASSERT_FIELD(IpcCb_WriteRedirectedFile, iLen, 1308);

#undef IPC_ASSERT_FIELD
#undef IPC_ASSERT_SIZE

/// The length of the record of a group and type; 16 (the header alone) for a type that has none.
std::size_t GetIpcRecordLength(int iGroup, int iType);
/// The type as it is sent: itself if the group knows it, else 0.
int GetKnownIpcType(int iGroup, int iType);
