// One request and its reply.
#include "IpcClient.h"

#include <cerrno>

#include "Limits.h"
#include "Reason.h"
#include "Texts.h"

CIpcClient::CIpcClient(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam) : CIpcBasic(pUtilities, pRuntimeParam) {}

bool CIpcClient::SendRequest(const char* pcChannel, char* pcReason) {
    LogArgu logArgu{"IpcClient.SendRequest"};
    if (pcChannel == nullptr) {
        WriteReason(pcReason, "Channel is not defined");
        return false;
    }
    if (const char* pcTooLong = m_Texts.GetReason(); pcTooLong != nullptr) {
        m_iError = EMSGSIZE;
        WriteReason(pcReason, "%s", pcTooLong);
        return false;
    }
    if (m_pRuntimeParam->IsLogIpcState()) {
        LogInfoFormat("[%s] Open channel: %s", logArgu.pcName, pcChannel);
    }
    PrintData(&logArgu, &m_IpcDataInst.request);
    if (!Exchange(logArgu, pcChannel, pcReason)) {
        return false;
    }
    PrintData(&logArgu, &m_IpcDataInst.reply);
    return true;
}

bool CIpcClient::SendRequest(const char* pcChannel) {
    return SendRequestLogged(pcChannel, nullptr);
}

bool CIpcClient::SendRequestLogged(const char* pcChannel, char* pcReason) {
    char vcReason[kReasonBufferSize] = "";
    if (SendRequest(pcChannel, vcReason)) {
        return true;
    }
    CopyText(pcReason, kReasonBufferSize, vcReason);
    LogFailure({"IpcClient.SendRequest"}, vcReason);
    return false;
}

bool CIpcClient::Exchange(const LogArgu& logArgu, const char* pcChannel, char* pcReason) {
    CIpcSocket::Deadline deadline;
    if (m_Timeout) {
        deadline = CIpcSocket::Clock::now() + *m_Timeout;
    }
    CIpcSocket socket;
    LogState(logArgu, "Open ipc client socket");
    m_iError = socket.Create();
    if (m_iError != 0) {
        WriteReason(pcReason, "Fail to open ipc client socket. %s", CSystemErrorText(m_iError).Get());
        return false;
    }
    LogState(logArgu, "Connect ipc client socket");
    m_iError = socket.Connect(pcChannel, deadline);
    if (m_iError != 0) {
        WriteReason(pcReason, "Fail to connect ipc client socket. %s", CSystemErrorText(m_iError).Get());
        return false;
    }
    const bool bDone = SendAll(logArgu, &socket, pcReason) && ReadReply(logArgu, &socket, deadline, pcReason);
    socket.Shutdown();
    return bDone;
}

bool CIpcClient::SendAll(const LogArgu& logArgu, CIpcSocket* pSocket, char* pcReason) {
    LogState(logArgu, "Send ipc client request");
    long iSent = 0;
    m_iError = pSocket->Send(m_IpcDataInst.request, &iSent);
    if (m_iError != 0) {
        WriteReason(pcReason, "Fail to send ipc client request. %s", CSystemErrorText(m_iError).Get());
        return false;
    }
    if (iSent != m_IpcDataInst.request.lDataLen && m_pRuntimeParam->IsLogError()) {
        LogErrorFormat("[%s] Fail to send complete ipc client request. (Send = %d, Target = %ld)", logArgu.pcName,
                       static_cast<int>(iSent), static_cast<long>(m_IpcDataInst.request.lDataLen));
    }
    return true;
}

bool CIpcClient::ReadReply(const LogArgu& logArgu, CIpcSocket* pSocket, const CIpcSocket::Deadline& deadline,
                           char* pcReason) {
    LogState(logArgu, "Read ipc server reply");
    IpcDataBuf& reply = m_IpcDataInst.reply;
    m_iError = pSocket->Receive(&reply, -1, deadline);
    if (m_iError == 0 && reply.lDataLen == 0) {
        m_iError = ECONNRESET;  // the peer ended without an answer
    }
    if (m_iError != 0) {
        WriteReason(pcReason, "Fail to read ipc server reply. %s", CSystemErrorText(m_iError).Get());
        return false;
    }
    // Texts are handed out as pointers into the buffer: they end with their field at the latest.
    reply.cBuf[sizeof(IpcReply_Message) - 1] = '\0';
    return true;
}

bool CIpcClient::GetBoolReply() const {
    return IsReply(kIpcReplyBool) && GetIpcRecord<IpcReply_Bool>(m_IpcDataInst.reply).bVal != 0;
}

long long CIpcClient::GetLongReply() const {
    return IsReply(kIpcReplyLong) ? GetIpcRecord<IpcReply_Long>(m_IpcDataInst.reply).lVal : 0;
}

int CIpcClient::GetIntReply() const {
    return IsReply(kIpcReplyInt) ? GetIpcRecord<IpcReply_Int>(m_IpcDataInst.reply).iVal : -1;
}

const char* CIpcClient::GetExptReply() const {
    return GetTextReply(kIpcReplyException);
}

const char* CIpcClient::GetMsgReply() const {
    return GetTextReply(kIpcReplyMessage);
}

bool CIpcClient::IsReply(int iType) const {
    const auto header = GetIpcRecord<Ipc_Header>(m_IpcDataInst.reply);
    return header.iGroup == kIpcGroupReply && header.iType == iType;
}

const char* CIpcClient::GetTextReply(int iType) const {
    return IsReply(iType) ? m_IpcDataInst.reply.cBuf + offsetof(IpcReply_Message, cMsg) : nullptr;
}
