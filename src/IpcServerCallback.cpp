// CIpcServer: handing callbacks to the registries of the process that receives them.
#include "IpcServer.h"

#include "Reason.h"
#include "Utilities.h"

namespace {

void LogMessage(CUtilities& utilities, IpcDataInst* pInst) {
    const auto record = GetIpcRecord<IpcCb_LogMessage>(pInst->request);
    const std::string sID = GetIpcText(record.cID);
    const std::string sMsg = GetIpcText(record.cMsg);
    switch (record.iType) {
        case kIpcLogError:
            utilities.LogError(sID.c_str(), sMsg.c_str());
            break;
        case kIpcLogRaw:
            utilities.LogRaw(sID.c_str(), sMsg.c_str());
            break;
        default:
            utilities.LogInfo(sID.c_str(), sMsg.c_str());
            break;
    }
    CIpcServer::ReplyBool(pInst, true);
}

int SetRedirectedFileAttributes(CUtilities& utilities, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_SetRedirectedFileAttributes>(request);
    return utilities.LogUpdateRedirectedFileAttributes(
        GetIpcText(record.cID).c_str(), GetIpcText(record.cPath).c_str(), record.bSize != 0, record.iSize,
        record.bAccessTime != 0, record.lAccessTimeSec, record.bLastModifiedTime != 0, record.lLastModifiedTimeSec);
}

int RemoveRedirectedFile(CUtilities& utilities, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_RemoveRedirectedFile>(request);
    return utilities.LogRemoveRedirectedFile(GetIpcText(record.cID).c_str(), GetIpcText(record.cPath).c_str());
}

int RenameRedirectedFile(CUtilities& utilities, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_RenameRedirectedFile>(request);
    return utilities.LogRenameRedirectedFile(GetIpcText(record.cID).c_str(), GetIpcText(record.cPathFm).c_str(),
                                             GetIpcText(record.cPathTo).c_str());
}

int WriteRedirectedFile(CUtilities& utilities, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_WriteRedirectedFile>(request);
    return utilities.LogWriteRedirectedFile(GetIpcText(record.cID).c_str(), GetIpcText(record.cPath).c_str(),
                                            record.iSeek, record.iSeekType, record.iLen);
}

}  // namespace

void CIpcServer::ProcessCallback(IpcDataInst* pInst, int iType) {
    char vcReason[kReasonBufferSize];
    switch (iType) {
        case kIpcCbLogMessage:
            LogMessage(*m_pUtilities, pInst);
            break;
        case kIpcCbSetRedirectedFileAttributes:
            ReplyInt(pInst, SetRedirectedFileAttributes(*m_pUtilities, pInst->request));
            break;
        case kIpcCbRemoveRedirectedFile:
            ReplyInt(pInst, RemoveRedirectedFile(*m_pUtilities, pInst->request));
            break;
        case kIpcCbRenameRedirectedFile:
            ReplyInt(pInst, RenameRedirectedFile(*m_pUtilities, pInst->request));
            break;
        case kIpcCbWriteRedirectedFile:
            ReplyInt(pInst, WriteRedirectedFile(*m_pUtilities, pInst->request));
            break;
        default:
            WriteReason(vcReason, "Unknown callback type (%d)", iType);
            ReplyText(pInst, kIpcReplyException, vcReason);
            break;
    }
}
