// The external server's reports to the process that the work is done for.
#include "UtilitiesIpcServer.h"

#include <cerrno>
#include <cstring>

#include "BeforeAsking.h"
#include "IpcChannel.h"
#include "IpcClient.h"
#include "RegistryFigures.h"
#include "Texts.h"

namespace {

bool HasReceiver(const CRuntimeParam* pRuntimeParam) {
    return *pRuntimeParam->GetIpcID() != '\0';
}

}  // namespace

CUtilitiesIpcServer::CUtilitiesIpcServer() = default;
CUtilitiesIpcServer::~CUtilitiesIpcServer() = default;

bool CUtilitiesIpcServer::GetIpcCallbackChannel(const char* pcIpcID, char* pcChannel) {
    // The ID comes from a record: it must not lead to another folder, nor back to the server, which would wait for
    // itself.
    if (std::strpbrk(pcIpcID, "/ ") != nullptr || std::strcmp(pcIpcID, kIpcServerID) == 0) {
        *pcChannel = '\0';
        return false;
    }
    GetIpcChannel(pcIpcID, pcChannel);
    return true;
}

// ---- Log lines

void CUtilitiesIpcServer::LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    CUtilities::LogInfo(pRuntimeParam->GetID(), pcMessage);
    SendLogMessage(pRuntimeParam, pcMessage, kIpcLogInfo);
}

void CUtilitiesIpcServer::LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    CUtilities::LogError(pRuntimeParam->GetID(), pcMessage);
    SendLogMessage(pRuntimeParam, pcMessage, kIpcLogError);
}

void CUtilitiesIpcServer::LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    CUtilities::LogRaw(pRuntimeParam->GetID(), pcMessage);
    SendLogMessage(pRuntimeParam, pcMessage, kIpcLogRaw);
}

void CUtilitiesIpcServer::SendLogMessage(CRuntimeParam* pRuntimeParam, const char* pcMessage, int iType) {
    if (!HasReceiver(pRuntimeParam)) {
        return;
    }
    m_LineSender.Send(pRuntimeParam->GetIpcID(),
                      {pRuntimeParam->GetID(), pRuntimeParam->GetLogControl(), pcMessage, iType});
}

// ---- Notifications

bool CUtilitiesIpcServer::CanTellOf(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    return !HasReceiver(pRuntimeParam) ||
           (std::strlen(pcPath) < kIpcPathSize && std::strlen(pRuntimeParam->GetID()) < kIpcNameSize);
}

template <typename Record>
int CUtilitiesIpcServer::SendNotification(CRuntimeParam* pRuntimeParam, int iType, const Record& record,
                                          const CIpcTextFields& texts) {
    const LogArgu logArgu{"UtilitiesIpcServer.SendNotification"};
    CRuntimeParam own(pRuntimeParam->GetID(), pRuntimeParam->GetLogControl());
    const LogContext log{this, &own, &logArgu};
    if (const char* pcTooLong = texts.GetReason(); pcTooLong != nullptr) {
        NFS_LOG_ERROR(log, "[%s] %s", pcTooLong);
        return -1;
    }
    CIpcClient client(this, &own);
    client.SetCallback(iType, record);
    return Ask(log, pRuntimeParam->GetIpcID(), client);
}

int CUtilitiesIpcServer::LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize,
                                                           unsigned long long iSize, bool bAccessTime,
                                                           unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                                           unsigned long lLastModifiedTimeSec) {
    if (!HasReceiver(pRuntimeParam)) {
        return CUtilities::LogUpdateRedirectedFileAttributes(pRuntimeParam, pcPath, bSize, iSize, bAccessTime,
                                                             lAccessTimeSec, bLastModifiedTime, lLastModifiedTimeSec);
    }
    auto record = NewIpcRecord<IpcCb_SetRedirectedFileAttributes>();
    CIpcTextFields texts;
    texts.Set(record.cID, "ID", pRuntimeParam->GetID());
    texts.Set(record.cPath, "Path", pcPath);
    record.bSize = bSize ? 1 : 0;
    record.iSize = iSize;
    record.bAccessTime = bAccessTime ? 1 : 0;
    record.lAccessTimeSec = lAccessTimeSec;
    record.bLastModifiedTime = bLastModifiedTime ? 1 : 0;
    record.lLastModifiedTimeSec = lLastModifiedTimeSec;
    return SendNotification(pRuntimeParam, kIpcCbSetRedirectedFileAttributes, record, texts);
}

int CUtilitiesIpcServer::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    if (!HasReceiver(pRuntimeParam)) {
        return CUtilities::LogRemoveRedirectedFile(pRuntimeParam, pcPath);
    }
    auto record = NewIpcRecord<IpcCb_RemoveRedirectedFile>();
    CIpcTextFields texts;
    texts.Set(record.cID, "ID", pRuntimeParam->GetID());
    texts.Set(record.cPath, "Path", pcPath);
    return SendNotification(pRuntimeParam, kIpcCbRemoveRedirectedFile, record, texts);
}

int CUtilitiesIpcServer::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                                                 const char* pcPathTo) {
    if (!HasReceiver(pRuntimeParam)) {
        return CUtilities::LogRenameRedirectedFile(pRuntimeParam, pcPathFrom, pcPathTo);
    }
    auto record = NewIpcRecord<IpcCb_RenameRedirectedFile>();
    CIpcTextFields texts;
    texts.Set(record.cID, "ID", pRuntimeParam->GetID());
    texts.Set(record.cPathFm, "Old path", pcPathFrom);
    texts.Set(record.cPathTo, "New path", pcPathTo);
    return SendNotification(pRuntimeParam, kIpcCbRenameRedirectedFile, record, texts);
}

int CUtilitiesIpcServer::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                unsigned long long iSeek, int iSeekType, unsigned int iLen) {
    if (!HasReceiver(pRuntimeParam)) {
        return CUtilities::LogWriteRedirectedFile(pRuntimeParam, pcPath, iSeek, iSeekType, iLen);
    }
    auto record = NewIpcRecord<IpcCb_WriteRedirectedFile>();
    CIpcTextFields texts;
    texts.Set(record.cID, "ID", pRuntimeParam->GetID());
    texts.Set(record.cPath, "Path", pcPath);
    record.iSeek = iSeek;
    record.iSeekType = iSeekType;
    record.iLen = iLen;
    return SendNotification(pRuntimeParam, kIpcCbWriteRedirectedFile, record, texts);
}

std::optional<ReceiverFigures> CUtilitiesIpcServer::GetReceiverFigures() {
    return m_Receivers.GetFigures();
}

// ---- Asking

/// The one place from which a receiver is asked. Its answer, or -1.
int CUtilitiesIpcServer::Ask(const LogContext& log, const std::string& sIpcID, CIpcClient& client) {
    CBeforeAsking::Run();
    auto turn = m_Receivers.BeginNotification(sIpcID);
    if (!turn) {
        NFS_LOG_ERROR(log, "[%s] \"%s\" has not answered in time, and is not asked again until it does",
                      sIpcID.c_str());
        return -1;
    }
    bool bAnswered = SendInTurn(*turn, client);
    if (!bAnswered && (client.GetErrorNumber() == EMFILE || client.GetErrorNumber() == ENFILE)) {
        // The descriptor cache grows until there are none left: a busy server is often in this state.
        FreeCachedFileHandles(log.pRuntimeParam, log.pLogArgu);
        bAnswered = SendInTurn(*turn, client);
    }
    return bAnswered ? client.GetIntReply() : -1;
}

/// A failure is logged here. Without an answer in time the receiver is silent once the turn is over.
bool CUtilitiesIpcServer::SendInTurn(CIpcReceivers::Turn& turn, CIpcClient& client) {
    char vcChannel[kIpcChannelBufferSize];
    const bool bReachable = GetIpcCallbackChannel(turn.GetIpcID().c_str(), vcChannel);
    const auto file = FindIpcChannelFile(vcChannel);
    client.SetTimeout(m_CallbackTimeout);
    client.SetHurry(m_Receivers.GetHurryDescriptor(), CIpcReceivers::kHurry);
    const bool bAnswered = client.SendRequest(bReachable ? vcChannel : nullptr);
    if (!bAnswered && client.GetErrorNumber() == ETIMEDOUT) {
        turn.NotAnswered(CIpcSilence(vcChannel, file, client.TakeConnection()));
    }
    return bAnswered;
}
