// The listening end: one message per connection.
#include "IpcServer.h"

#include <cerrno>
#include <cstring>

#include "EndWatch.h"
#include "NfsMain.h"
#include "Reason.h"
#include "Texts.h"
#include "Utilities.h"

CIpcServer::CIpcServer(CNfsMain* pNfsHandle)
    : CIpcBasic(pNfsHandle->GetUtilities(), pNfsHandle->GetRuntimeParam()), m_pNfsHandle(pNfsHandle) {}

CIpcServer::~CIpcServer() {
    Close();
}

// ---- The channel

bool CIpcServer::Open(const char* pcChannel, char* pcReason) {
    if (pcChannel == nullptr) {
        WriteReason(pcReason, "Channel is not defined");
        return false;
    }
    // Claimed before the work, so that of two who open it at a time one does.
    if (m_bOpened.exchange(true)) {
        WriteReason(pcReason, "Channel already opened");
        return false;
    }
    auto pListener = std::make_shared<CIpcListener>();
    IpcSocketAccess access;
    if (!access.Set(m_pNfsHandle->GetOptions(), pcReason) || !pListener->Open(pcChannel, pcReason, access)) {
        Close();
        return false;
    }
    m_bClosed = false;
    const MutexLock lock(m_IpcServerInst.hMutexListener);
    m_IpcServerInst.pListener = std::move(pListener);
    return true;
}

bool CIpcServer::Open(const char* pcChannel) {
    char vcReason[kReasonBufferSize] = "";
    if (Open(pcChannel, vcReason)) {
        return true;
    }
    const LogArgu logArgu{"IpcServer.Open"};
    NFS_LOG_ERROR(GetLog(&logArgu), "[%s] %s", vcReason);
    return false;
}

bool CIpcServer::Close(char* /*pcReason*/) {  // never fails
    if (!m_bOpened) {
        return true;
    }
    m_bClosed = true;  // before the other flag, so that the serving thread never takes the end for a failure
    if (!m_bOpened.exchange(false)) {
        return true;
    }
    std::shared_ptr<CIpcListener> pListener;
    {
        const MutexLock lock(m_IpcServerInst.hMutexListener);
        pListener.swap(m_IpcServerInst.pListener);
    }
    if (!pListener) {
        return true;
    }
    pListener->Close();
    // The file layer's attempt at a file that would not go says in the log why.
    CUtilities* pFiles = m_pNfsHandle->GetUtilities();
    const char* pcChannel = pListener->GetAddress().sun_path;
    if (pListener->IsFileLeft() && pFiles->OS_IsFileExists(pcChannel, nullptr)) {
        const LogArgu logArgu{"IpcServer.Close"};
        pFiles->OS_FileRemove(m_pRuntimeParam, &logArgu, pcChannel, nullptr);
    }
    return true;
}

bool CIpcServer::Close() {
    return Close(nullptr);
}

std::shared_ptr<CIpcListener> CIpcServer::GetListener() {
    const MutexLock lock(m_IpcServerInst.hMutexListener);
    return m_IpcServerInst.pListener;
}

void CIpcServer::WaitForClose() {
    if (const auto pListener = GetListener()) {
        pListener->WaitForClose();
    }
}

// ---- Serving

bool CIpcServer::ReadRequest() {
    const LogArgu logArgu{"IpcServer.SendRequest"};  // an odd tag, but the one that stands in the logs
    const LogContext log = GetLog(&logArgu);
    if (m_bAutoShutdownRequested) {
        NFS_LOG_INFO(log, kLogIpcState, "[%s] Waiting to auto shutdown");
        return false;
    }
    char vcReason[kReasonBufferSize] = "";
    const bool bServed = ReadRequest(vcReason);
    if (!bServed && !m_bClosed) {
        NFS_LOG_ERROR(log, "[%s] %s", vcReason);
    }
    // The controller is told once the requester has its reply.
    if (m_bAutoShutdownRequested) {
        m_pNfsHandle->RequestAutoShutdown();
    }
    return bServed;
}

bool CIpcServer::ReadRequest(char* pcReason) {
    const LogArgu logArgu{"IpcServer.ReadRequest"};
    const LogContext log = GetLog(&logArgu);
    const auto pListener = GetListener();
    if (!m_bOpened || !pListener) {
        WriteReason(pcReason, "Channel not yet opened.");
        return false;
    }
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Start");
    CIpcSocket connection;
    if (!AcceptConnection(log, pListener.get(), &connection, pcReason)) {
        return false;
    }
    if (!m_bOpened) {  // Close woke the accept
        NFS_LOG_INFO(log, kLogIpcState, "[%s] Socket closed");
        return true;
    }
    return ServeConnection(log, *pListener, &connection, pcReason);
}

bool CIpcServer::AcceptConnection(const LogContext& log, CIpcListener* pListener, CIpcSocket* pConnection,
                                  char* pcReason) {
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Accept ipc request");
    const int iError = pListener->Accept(pConnection);
    if (iError == 0 || !m_bOpened) {
        return true;
    }
    WriteReason(pcReason, "Fail to accept ipc request. %s", CSystemErrorText(iError).Get());
    // Without descriptors nobody can be served: the cache gives up its own, and the next turn tries again.
    if (iError == EMFILE || iError == ENFILE) {
        m_pNfsHandle->GetUtilities()->FreeCachedFileHandles(m_pRuntimeParam, log.pLogArgu);
    }
    pListener->WaitForClose(kAcceptPause);
    return false;
}

bool CIpcServer::ServeConnection(const LogContext& log, const CIpcListener& listener, CIpcSocket* pConnection,
                                 char* pcReason) {
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Read ipc request");
    IpcDataInst& data = m_IpcServerInst.data;
    std::memset(&data.reply, 0, sizeof(data.reply));  // the request is cleared when it is received
    const auto deadline = CIpcSocket::Clock::now() + kSilenceTimeout;
    const int iError = pConnection->Receive(&data.request, listener.GetWakeDescriptor(), deadline);
    if (iError == ECANCELED) {
        NFS_LOG_INFO(log, kLogIpcState, "[%s] Socket closed");
        return true;
    }
    if (iError != 0) {
        WriteReason(pcReason, "Fail to read ipc request. %s", CSystemErrorText(iError).Get());
        return false;
    }
    if (data.request.lDataLen == 0) {
        return true;  // somebody looked in and left
    }
    {
        const CEndWatch watch(pConnection->Get(), listener.GetWakeDescriptor());
        ParseData(log.pLogArgu, &data);
    }
    const bool bSent = SendReply(log, pConnection, pcReason);
    pConnection->DiscardInput();  // what lies unread at the close would cost the requester the reply
    return bSent;
}

bool CIpcServer::SendReply(const LogContext& log, CIpcSocket* pConnection, char* pcReason) {
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Send ipc reply");
    const IpcDataBuf& reply = m_IpcServerInst.data.reply;
    long iSent = 0;
    if (const int iError = pConnection->Send(reply, &iSent); iError != 0) {
        WriteReason(pcReason, "Fail to send ipc reply. %s", CSystemErrorText(iError).Get());
        return false;
    }
    if (iSent != reply.lDataLen && m_pRuntimeParam->IsLogError()) {
        LogErrorFormat("Fail to send ipc complete reply. (Send = %d, Target = %ld)", static_cast<int>(iSent),
                       static_cast<long>(reply.lDataLen));
    }
    return true;
}

// ---- A message and its reply

void CIpcServer::ParseData(const LogArgu* pLogArgu, IpcDataInst* pInst) {
    PrintData(pLogArgu, &pInst->request);
    const auto header = GetIpcRecord<Ipc_Header>(pInst->request);
    char vcReason[kReasonBufferSize];
    switch (header.iGroup) {
        case kIpcGroupRequest:
            ProcessRequest(pInst, header.iType);
            break;
        case kIpcGroupCallback:
            ProcessCallback(pInst, header.iType);
            break;
        case kIpcGroupReply:
            WriteReason(vcReason, "Reply action group is not support (%d)", header.iType);
            ReplyText(pInst, kIpcReplyException, vcReason);
            break;
        default:
            WriteReason(vcReason, "Unknown action group: %d (%d)", header.iGroup, header.iType);
            ReplyText(pInst, kIpcReplyException, vcReason);
            break;
    }
    PrintData(pLogArgu, &pInst->reply);
}

void CIpcServer::ReplyBool(IpcDataInst* pInst, bool bVal) {
    auto record = NewIpcRecord<IpcReply_Bool>();
    record.bVal = bVal ? 1 : 0;
    InitialReplyData(&pInst->reply, kIpcReplyBool);
    SetIpcBody(&pInst->reply, record);
}

void CIpcServer::ReplyInt(IpcDataInst* pInst, int iVal) {
    auto record = NewIpcRecord<IpcReply_Int>();
    record.iVal = iVal;
    InitialReplyData(&pInst->reply, kIpcReplyInt);
    SetIpcBody(&pInst->reply, record);
}

void CIpcServer::ReplyText(IpcDataInst* pInst, IpcReplyType iReplyType, const char* pcText) {
    InitialReplyData(&pInst->reply, iReplyType);
    // Straight into the message: a reason is long, and nothing may follow its end.
    char* pcMsg = pInst->reply.cBuf + offsetof(IpcReply_Message, cMsg);
    std::memset(pcMsg, 0, sizeof(IpcReply_Message::cMsg));
    CopyText(pcMsg, sizeof(IpcReply_Message::cMsg), pcText);
}
