// One request and its reply.
#include "IpcClient.h"

#include <cerrno>

#include "Limits.h"
#include "Reason.h"

namespace {

/// The tag of everything that a client logs.
constexpr LogArgu kLogArgu{"IpcClient.SendRequest"};

}  // namespace

CIpcClient::CIpcClient(CLog* pUtilities, CRuntimeParam* pRuntimeParam) : CIpcBasic(pUtilities, pRuntimeParam) {}

// ---- Sending

bool CIpcClient::SendRequest(const char* pcChannel, char* pcReason) {
    if (pcChannel == nullptr) {
        WriteReason(pcReason, "Channel is not defined");
        return false;
    }
    if (const char* pcTooLong = m_Texts.GetReason(); pcTooLong != nullptr) {
        m_iError = EMSGSIZE;  // a cut text would name something else
        WriteReason(pcReason, "%s", pcTooLong);
        return false;
    }
    const LogContext log = GetLog(&kLogArgu);
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Open channel: %s", pcChannel);
    PrintData(&kLogArgu, &m_IpcDataInst.request);
    if (!Exchange(log, pcChannel, pcReason)) {
        return false;
    }
    PrintData(&kLogArgu, &m_IpcDataInst.reply);
    return true;
}

bool CIpcClient::SendRequest(const char* pcChannel) {
    char vcReason[kReasonBufferSize] = "";
    return SendRequestLogged(pcChannel, vcReason);
}

bool CIpcClient::SendRequestLogged(const char* pcChannel, char* pcReason) {
    if (SendRequest(pcChannel, pcReason)) {
        return true;
    }
    NFS_LOG_ERROR(GetLog(&kLogArgu), "[%s] %s", pcReason);
    return false;
}

bool CIpcClient::Exchange(const LogContext& log, const char* pcChannel, char* pcReason) {
    CIpcSocket::Deadline deadline;
    if (m_Timeout) {
        deadline = CIpcSocket::Clock::now() + *m_Timeout;
    }
    CIpcSocket socket;
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Open ipc client socket");
    m_iError = socket.Create();
    if (m_iError != 0) {
        WriteReason(pcReason, "Fail to open ipc client socket. %s", CSystemErrorText(m_iError).Get());
        return false;
    }
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Connect ipc client socket");
    m_iError = socket.Connect(pcChannel, deadline);
    if (m_iError != 0) {
        WriteReason(pcReason, "Fail to connect ipc client socket. %s", CSystemErrorText(m_iError).Get());
        return false;
    }
    const bool bDone = SendAll(log, &socket, pcReason) && ReadReply(log, &socket, deadline, pcReason);
    socket.Shutdown();  // in every case; the end of the scope closes it
    return bDone;
}

bool CIpcClient::SendAll(const LogContext& log, CIpcSocket* pSocket, char* pcReason) {
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Send ipc client request");
    long iSent = 0;
    m_iError = pSocket->Send(m_IpcDataInst.request, &iSent);
    if (m_iError != 0) {
        WriteReason(pcReason, "Fail to send ipc client request. %s", CSystemErrorText(m_iError).Get());
        return false;
    }
    // A short write is told, and no failure: the server takes what came for the message.
    if (iSent != m_IpcDataInst.request.lDataLen) {
        NFS_LOG_ERROR(log, "[%s] Fail to send complete ipc client request. (Send = %d, Target = %ld)",
                      static_cast<int>(iSent), static_cast<long>(m_IpcDataInst.request.lDataLen));
    }
    return true;
}

bool CIpcClient::ReadReply(const LogContext& log, CIpcSocket* pSocket, const CIpcSocket::Deadline& deadline,
                           char* pcReason) {
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Read ipc server reply");
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

// ---- The reply

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
