// CIpcServer: handing callbacks to the log of the process that receives them, and through it to that process's host.
//
// The server waits for the reply. Log lines are answered with true; the host's answer to a notification is the reply.
#include "IpcServer.h"

#include "Reason.h"

namespace {

void LogMessage(CLog& log, IpcDataInst* pInst) {
    const auto record = GetIpcRecord<IpcCb_LogMessage>(pInst->request);
    const std::string sID = GetIpcText(record.cID);
    const std::string sMsg = GetIpcText(record.cMsg);
    switch (record.iType) {
        case kIpcLogError:
            log.LogError(sID.c_str(), sMsg.c_str());
            break;
        case kIpcLogRaw:
            log.LogRaw(sID.c_str(), sMsg.c_str());
            break;
        default:
            log.LogInfo(sID.c_str(), sMsg.c_str());
            break;
    }
    CIpcServer::ReplyBool(pInst, true);
}

int SetRedirectedFileAttributes(CLog& log, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_SetRedirectedFileAttributes>(request);
    return log.LogUpdateRedirectedFileAttributes(
        GetIpcText(record.cID).c_str(), GetIpcText(record.cPath).c_str(), record.bSize != 0, record.iSize,
        record.bAccessTime != 0, record.lAccessTimeSec, record.bLastModifiedTime != 0, record.lLastModifiedTimeSec);
}

int RemoveRedirectedFile(CLog& log, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_RemoveRedirectedFile>(request);
    return log.LogRemoveRedirectedFile(GetIpcText(record.cID).c_str(), GetIpcText(record.cPath).c_str());
}

int RenameRedirectedFile(CLog& log, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_RenameRedirectedFile>(request);
    return log.LogRenameRedirectedFile(GetIpcText(record.cID).c_str(), GetIpcText(record.cPathFm).c_str(),
                                       GetIpcText(record.cPathTo).c_str());
}

int WriteRedirectedFile(CLog& log, const IpcDataBuf& request) {
    const auto record = GetIpcRecord<IpcCb_WriteRedirectedFile>(request);
    return log.LogWriteRedirectedFile(GetIpcText(record.cID).c_str(), GetIpcText(record.cPath).c_str(), record.iSeek,
                                      record.iSeekType, record.iLen);
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
