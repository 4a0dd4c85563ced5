// The client controller: exports, sessions and redirected files.
#include "NfsIpcClientMain.h"

#include "IpcClient.h"
#include "Utilities.h"

// ---- Exports and sessions

bool CNfsIpcClientMain::AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, const char* /*pcIpcID*/,
                                      char* pcStatus) {
    return AddMountPoint(pcLocalMountPath, pcExportName, pcStatus);
}

bool CNfsIpcClientMain::AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, char* pcStatus) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_AddMountPoint>();
    client.SetText(record.cLocalMountFolder, "Local mount path", pcLocalMountPath);
    client.SetText(record.cExportName, "Export name", pcExportName);
    client.SetText(record.cIpcID, "IPC ID", m_pRuntimeParam->GetID());
    client.SetRequest(kIpcAddMountPoint, record);
    return SendForStatus(client, pcStatus);
}

void CNfsIpcClientMain::RemoveMountPoint(const char* pcLocalMountPath) {
    SendPath(kIpcRemoveMountPoint, pcLocalMountPath);
}

void CNfsIpcClientMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_AddSession>();
    client.SetText(record.cSessionID, "Session ID", pcSessionID);
    client.SetText(record.cLocalMountFolder, "Local mount path", pcLocalMountPath);
    client.SetRequest(kIpcAddSessionInfo, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::RemoveSessionInfo(const char* pcSessionID) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_RemoveSession>();
    client.SetText(record.cSessionID, "Session ID", pcSessionID);
    client.SetRequest(kIpcRemoveSessionInfo, record);
    client.SendRequest(m_cIpcChannel);
}

bool CNfsIpcClientMain::IsSessionExists(const char* pcSessionID) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_IsSessionExists>();
    client.SetText(record.cSessionID, "Session ID", pcSessionID);
    client.SetRequest(kIpcIsSessionExists, record);
    return SendForBool(client);
}

// ---- Redirected files and cached descriptors

void CNfsIpcClientMain::SendPath(int iType, const char* pcPath) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_CloseRedirectedFile>();
    client.SetText(record.cPath, "Path", pcPath);
    client.SetRequest(iType, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                                           int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_OpenRedirectedFile>();
    client.SetText(record.cPath, "Path", pcPath);
    record.iSize = iSize;
    record.bCreateInfoFile = bCreateInfoFile ? 1 : 0;
    record.iInfoFileSegmentSizeMB = iInfoFileSegmentSizeMB;
    record.iInfoFileCheckPointSizeMB = iInfoFileCheckPointSizeMB;
    client.SetRequest(kIpcOpenRedirectedFile, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::CloseRedirectedFile(const char* pcPath) {
    SendPath(kIpcCloseRedirectedFile, pcPath);
}

void CNfsIpcClientMain::CloseAllRedirectedFiles(const char* pcPath) {
    SendPath(kIpcCloseAllRedirectedFiles, pcPath);
}

bool CNfsIpcClientMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath, long long iSrcFileOffset,
                                                 long long iOffset, long long iLength, char* pcStatus) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_AddRedirectedFileSegment>();
    client.SetText(record.cPath, "Path", pcPath);
    client.SetText(record.cSrcPath, "Source path", pcSourcePath);
    record.iSrcFileOffset = iSrcFileOffset;
    record.iOffset = iOffset;
    record.iLength = iLength;
    client.SetRequest(kIpcAddRedirectedFileSegment, record);
    return SendForStatus(client, pcStatus);
}

void CNfsIpcClientMain::ExportRedirectedFile(const char* pcPath, const char* pcExportPath) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_ExportRedirectedFile>();
    client.SetText(record.cPath, "Path", pcPath);
    client.SetText(record.cExportPath, "Export path", pcExportPath);
    client.SetRequest(kIpcExportRedirectedFile, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMergeRange) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    auto record = NewIpcRecord<IpcRequest_ExportRedirectedFileInfo>();
    client.SetText(record.cPath, "Path", pcPath);
    client.SetText(record.cExportPath, "Export path", pcExportPath);
    record.bMergeRange = bMergeRange ? 1 : 0;
    client.SetRequest(kIpcExportRedirectedFileInfo, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::CloseCachedFileHandle(const char* pcPath) {
    SendPath(kIpcCloseCachedFileHandle, pcPath);
}

void CNfsIpcClientMain::CloseAllCachedFileHandles(const char* pcPath) {
    SendPath(kIpcCloseAllCachedFileHandles, pcPath);
}
