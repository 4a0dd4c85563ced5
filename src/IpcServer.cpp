// The listening end: one message per connection.
#include "IpcServer.h"

#include <cerrno>
#include <cstring>

#include "NfsMain.h"
#include "Reason.h"
#include "Texts.h"
#include "Utilities.h"

CIpcServer::CIpcServer(CNfsMain* pNfsHandle)
    : CIpcBasic(pNfsHandle->GetUtilities(), pNfsHandle->GetRuntimeParam()), m_pNfsHandle(pNfsHandle) {
    std::memset(&m_IpcServerInst.data, 0, sizeof(m_IpcServerInst.data));
}

CIpcServer::~CIpcServer() {
    Close();
}

bool CIpcServer::Open(const char* pcChannel, char* pcReason) {
    if (pcChannel == nullptr) {
        WriteReason(pcReason, "Channel is not defined");
        return false;
    }
    if (m_bOpened.exchange(true)) {
        WriteReason(pcReason, "Channel already opened");
        return false;
    }
    auto pListener = std::make_shared<CIpcListener>();
    if (!pListener->Open(pcChannel, pcReason)) {
        Close();
        return false;
    }
    m_bClosed = false;
    const MutexLock lock(m_hMutexInst);
    m_IpcServerInst.pListener = std::move(pListener);
    return true;
}

bool CIpcServer::Open(const char* pcChannel) {
    char vcReason[kReasonBufferSize] = "";
    if (Open(pcChannel, vcReason)) {
        return true;
    }
    LogFailure({"IpcServer.Open"}, vcReason);
    return false;
}

bool CIpcServer::Close(char* pcReason) {
    static_cast<void>(pcReason);  // never fails
    if (!m_bOpened) {
        return true;
    }
    m_bClosed = true;  // before the other flag, so that the serving thread never takes the end for a failure
    if (!m_bOpened.exchange(false)) {
        return true;
    }
    std::shared_ptr<CIpcListener> pListener;
    {
        const MutexLock lock(m_hMutexInst);
        pListener.swap(m_IpcServerInst.pListener);
    }
    if (!pListener) {
        return true;
    }
    pListener->Close();
    LogArgu logArgu{"IpcServer.Close"};
    const char* pcChannel = pListener->GetAddress().sun_path;
    if (pListener->IsFileLeft() && m_pUtilities->OS_IsFileExists(pcChannel, nullptr)) {
        m_pUtilities->OS_FileRemove(m_pRuntimeParam, &logArgu, pcChannel, nullptr);
    }
    return true;
}

bool CIpcServer::Close() {
    return Close(nullptr);
}

std::shared_ptr<CIpcListener> CIpcServer::GetListener() {
    const MutexLock lock(m_hMutexInst);
    return m_IpcServerInst.pListener;
}

void CIpcServer::WaitForClose() {
    if (const auto pListener = GetListener()) {
        pListener->WaitForClose();
    }
}

bool CIpcServer::ReadRequest() {
    LogArgu logArgu{"IpcServer.SendRequest"};
    if (m_bAutoShutdownRequested) {
        LogState(logArgu, "Waiting to auto shutdown");
        return false;
    }
    char vcReason[kReasonBufferSize] = "";
    const bool bServed = ReadRequest(vcReason);
    if (!bServed && !m_bClosed) {
        LogFailure(logArgu, vcReason);
    }
    if (m_bAutoShutdownRequested) {
        m_pNfsHandle->RequestAutoShutdown();
    }
    return bServed;
}

bool CIpcServer::ReadRequest(char* pcReason) {
    LogArgu logArgu{"IpcServer.ReadRequest"};
    const auto pListener = GetListener();
    if (!m_bOpened || !pListener) {
        WriteReason(pcReason, "Channel not yet opened.");
        return false;
    }
    LogState(logArgu, "Start");
    CIpcSocket connection;
    if (!AcceptConnection(logArgu, pListener.get(), &connection, pcReason)) {
        return false;
    }
    if (!m_bOpened) {
        LogState(logArgu, "Socket closed");
        return true;
    }
    return ServeConnection(&logArgu, *pListener, &connection, pcReason);
}

bool CIpcServer::AcceptConnection(const LogArgu& logArgu, CIpcListener* pListener, CIpcSocket* pConnection,
                                  char* pcReason) {
    LogState(logArgu, "Accept ipc request");
    const int iError = pListener->Accept(pConnection);
    if (iError == 0 || !m_bOpened) {
        return true;
    }
    WriteReason(pcReason, "Fail to accept ipc request. %s", CSystemErrorText(iError).Get());
    if (iError == EMFILE || iError == ENFILE) {
        LogArgu cacheLogArgu = logArgu;
        m_pUtilities->FreeCachedFileHandles(m_pRuntimeParam, &cacheLogArgu);
    }
    pListener->WaitForClose(kAcceptPause);
    return false;
}

bool CIpcServer::ServeConnection(const LogArgu* pLogArgu, const CIpcListener& listener, CIpcSocket* pConnection,
                                 char* pcReason) {
    LogState(*pLogArgu, "Read ipc request");
    IpcDataInst& data = m_IpcServerInst.data;
    std::memset(&data, 0, sizeof(data));
    const auto deadline = CIpcSocket::Clock::now() + kSilenceTimeout;
    const int iError = pConnection->Receive(&data.request, listener.GetWakeDescriptor(), deadline);
    if (iError == ECANCELED) {
        LogState(*pLogArgu, "Socket closed");
        return true;
    }
    if (iError != 0) {
        WriteReason(pcReason, "Fail to read ipc request. %s", CSystemErrorText(iError).Get());
        return false;
    }
    if (data.request.lDataLen == 0) {
        return true;  // somebody looked in and left
    }
    ParseData(pLogArgu, &data);
    const bool bSent = SendReply(*pLogArgu, pConnection, pcReason);
    pConnection->DiscardInput();
    return bSent;
}

bool CIpcServer::SendReply(const LogArgu& logArgu, CIpcSocket* pConnection, char* pcReason) {
    LogState(logArgu, "Send ipc reply");
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
    auto record = NewIpcRecord<IpcReply_Message>();
    CopyText(record.cMsg, pcText);
    InitialReplyData(&pInst->reply, iReplyType);
    SetIpcBody(&pInst->reply, record);
}
