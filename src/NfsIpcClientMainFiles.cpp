// The client controller: exports, sessions and redirected files.
#include "IpcClient.h"
#include "NfsIpcClientMain.h"
#include "Utilities.h"

// ==== Exports and sessions ===========================================================================================

bool CNfsIpcClientMain::AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, const char* /*pcIpcID*/,
                                      char* pcStatus) {
    return AddMountPoint(pcLocalMountPath, pcExportName, pcStatus);
}

bool CNfsIpcClientMain::AddMountPoint(const char* pcLocalMountPath, const char* pcExportName, char* pcStatus) {
    auto record = NewIpcRecord<IpcRequest_AddMountPoint>();
    SetIpcText(record.cLocalMountFolder, pcLocalMountPath);
    SetIpcText(record.cExportName, pcExportName);
    SetIpcText(record.cIpcID, m_pRuntimeParam->GetID());
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcAddMountPoint, record);
    return SendForStatus(client, pcStatus);
}

void CNfsIpcClientMain::RemoveMountPoint(const char* pcLocalMountPath) {
    SendPath(kIpcRemoveMountPoint, pcLocalMountPath);
}

void CNfsIpcClientMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    auto record = NewIpcRecord<IpcRequest_AddSession>();
    SetIpcText(record.cSessionID, pcSessionID);
    SetIpcText(record.cLocalMountFolder, pcLocalMountPath);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcAddSessionInfo, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::RemoveSessionInfo(const char* pcSessionID) {
    auto record = NewIpcRecord<IpcRequest_RemoveSession>();
    SetIpcText(record.cSessionID, pcSessionID);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcRemoveSessionInfo, record);
    client.SendRequest(m_cIpcChannel);
}

bool CNfsIpcClientMain::IsSessionExists(const char* pcSessionID) {
    auto record = NewIpcRecord<IpcRequest_IsSessionExists>();
    SetIpcText(record.cSessionID, pcSessionID);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcIsSessionExists, record);
    return SendForBool(client);
}

// ==== Redirected files and cached descriptors ========================================================================

void CNfsIpcClientMain::SendPath(int iType, const char* pcPath) {
    auto record = NewIpcRecord<IpcRequest_CloseRedirectedFile>();
    SetIpcText(record.cPath, pcPath);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(iType, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                                           int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) {
    auto record = NewIpcRecord<IpcRequest_OpenRedirectedFile>();
    SetIpcText(record.cPath, pcPath);
    record.iSize = iSize;
    record.bCreateInfoFile = bCreateInfoFile ? 1 : 0;
    record.iInfoFileSegmentSizeMB = iInfoFileSegmentSizeMB;
    record.iInfoFileCheckPointSizeMB = iInfoFileCheckPointSizeMB;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
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
    auto record = NewIpcRecord<IpcRequest_AddRedirectedFileSegment>();
    SetIpcText(record.cPath, pcPath);
    SetIpcText(record.cSrcPath, pcSourcePath);
    record.iSrcFileOffset = iSrcFileOffset;
    record.iOffset = iOffset;
    record.iLength = iLength;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcAddRedirectedFileSegment, record);
    return SendForStatus(client, pcStatus);
}

void CNfsIpcClientMain::ExportRedirectedFile(const char* pcPath, const char* pcExportPath) {
    auto record = NewIpcRecord<IpcRequest_ExportRedirectedFile>();
    SetIpcText(record.cPath, pcPath);
    SetIpcText(record.cExportPath, pcExportPath);
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcExportRedirectedFile, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMergeRange) {
    auto record = NewIpcRecord<IpcRequest_ExportRedirectedFileInfo>();
    SetIpcText(record.cPath, pcPath);
    SetIpcText(record.cExportPath, pcExportPath);
    record.bMergeRange = bMergeRange ? 1 : 0;
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcExportRedirectedFileInfo, record);
    client.SendRequest(m_cIpcChannel);
}

void CNfsIpcClientMain::CloseCachedFileHandle(const char* pcPath) {
    SendPath(kIpcCloseCachedFileHandle, pcPath);
}

void CNfsIpcClientMain::CloseAllCachedFileHandles(const char* pcPath) {
    SendPath(kIpcCloseAllCachedFileHandles, pcPath);
}
