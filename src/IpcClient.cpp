// One request and its reply.
#include "IpcClient.h"

#include <algorithm>
#include <cerrno>

#include "EndWatch.h"
#include "Limits.h"
#include "Reason.h"

namespace {

/// The tag of everything that a client logs.
constexpr LogArgu kLogArgu{"IpcClient.SendRequest"};

/// The pause between two attempts to reach a receiver whose queue is full.
constexpr std::chrono::milliseconds kFullPause{20};

}  // namespace

CIpcClient::CIpcClient(CLog* pUtilities, CRuntimeParam* pRuntimeParam)
    : CIpcBasic(pUtilities, pRuntimeParam), m_iHurry(CEndWatch::GetStop()) {}

// ---- Sending

bool CIpcClient::SendRequest(const char* pcChannel, char* pcReason) {
    CIpcSocket::Deadline deadline;
    if (m_Timeout) {
        deadline = CIpcSocket::Clock::now() + *m_Timeout;
    }
    return EndExchange(Open(pcChannel, pcReason) && Connect(pcChannel, deadline, pcReason) && SendAll(pcReason) &&
                       ReadReply(deadline, pcReason));
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

bool CIpcClient::Begin(const char* pcChannel) {
    char vcReason[kReasonBufferSize] = "";
    bool bDone = m_Connection.IsOpen() || Open(pcChannel, vcReason);
    if (bDone) {
        m_iError = m_Connection.TryConnect(pcChannel);
        if (m_iError == EAGAIN) {
            return false;
        }
        bDone = m_iError == 0 ? SendAll(vcReason) : Fail(m_iError, "Fail to connect ipc client socket.", vcReason);
    }
    if (!bDone) {
        NFS_LOG_ERROR(GetLog(&kLogArgu), "[%s] %s", vcReason);
        EndExchange(false);
    }
    return bDone;
}

bool CIpcClient::Finish() {
    char vcReason[kReasonBufferSize] = "";
    bool bDone = false;
    if (m_bSent) {
        NFS_LOG_INFO(GetLog(&kLogArgu), kLogIpcState, "[%s] Read ipc server reply");
        m_iError = m_Connection.ReceiveAtOnce(&m_IpcDataInst.reply);
        bDone = EndReply(vcReason);
    } else {
        Fail(ETIMEDOUT, "Fail to connect ipc client socket.", vcReason);
    }
    if (!bDone) {
        NFS_LOG_ERROR(GetLog(&kLogArgu), "[%s] %s", vcReason);
    }
    return EndExchange(bDone);
}

// ---- The steps

bool CIpcClient::Open(const char* pcChannel, char* pcReason) {
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
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Open ipc client socket");
    m_iError = m_Connection.Create();
    if (m_iError != 0) {
        return Fail(m_iError, "Fail to open ipc client socket.", pcReason);
    }
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Connect ipc client socket");
    return true;
}

bool CIpcClient::Connect(const char* pcChannel, const CIpcSocket::Deadline& deadline, char* pcReason) {
    m_iError = m_iHurry == -1 ? m_Connection.Connect(pcChannel, deadline) : ConnectInTime(pcChannel, deadline);
    return m_iError == 0 || Fail(m_iError, "Fail to connect ipc client socket.", pcReason);
}

/// Connects as long as there is no hurry: a receiver whose queue is full then does not answer in time in any case.
int CIpcClient::ConnectInTime(const char* pcChannel, const CIpcSocket::Deadline& deadline) {
    for (;;) {
        const int iError = m_Connection.TryConnect(pcChannel);
        if (iError != EAGAIN) {
            return iError;
        }
        const auto now = CIpcSocket::Clock::now();
        if (deadline && now >= *deadline) {
            return ETIMEDOUT;
        }
        if (CIpcSocket::WaitReadable(m_iHurry, -1, now + kFullPause) != ETIMEDOUT) {
            return ETIMEDOUT;
        }
    }
}

bool CIpcClient::SendAll(char* pcReason) {
    const LogContext log = GetLog(&kLogArgu);
    NFS_LOG_INFO(log, kLogIpcState, "[%s] Send ipc client request");
    long iSent = 0;
    m_iError = m_Connection.Send(m_IpcDataInst.request, &iSent);
    if (m_iError != 0) {
        return Fail(m_iError, "Fail to send ipc client request.", pcReason);
    }
    m_bSent = true;
    // A short write is told, and no failure: the server takes what came for the message.
    if (iSent != m_IpcDataInst.request.lDataLen) {
        NFS_LOG_ERROR(log, "[%s] Fail to send complete ipc client request. (Send = %d, Target = %ld)",
                      static_cast<int>(iSent), static_cast<long>(m_IpcDataInst.request.lDataLen));
    }
    return true;
}

bool CIpcClient::ReadReply(const CIpcSocket::Deadline& deadline, char* pcReason) {
    NFS_LOG_INFO(GetLog(&kLogArgu), kLogIpcState, "[%s] Read ipc server reply");
    m_iError = m_Connection.Receive(&m_IpcDataInst.reply, m_iHurry, deadline);
    if (m_iError == ECANCELED) {
        const auto hurryEnd = CIpcSocket::Clock::now() + m_HurryRest;
        m_iError = m_Connection.ReceiveRest(&m_IpcDataInst.reply, deadline ? std::min(*deadline, hurryEnd) : hurryEnd);
    }
    return EndReply(pcReason);
}

/// What is to be done with a reply that came, or did not.
bool CIpcClient::EndReply(char* pcReason) {
    IpcDataBuf& reply = m_IpcDataInst.reply;
    if (m_iError == 0 && reply.lDataLen == 0) {
        m_iError = ECONNRESET;  // the peer ended without an answer
    }
    if (m_iError != 0) {
        return Fail(m_iError, "Fail to read ipc server reply.", pcReason);
    }
    // Texts are handed out as pointers into the buffer: they end with their field at the latest.
    reply.cBuf[sizeof(IpcReply_Message) - 1] = '\0';
    PrintData(&kLogArgu, &reply);
    return true;
}

/// Closes the connection, unless the reply may still come on it.
bool CIpcClient::EndExchange(bool bDone) {
    if (bDone || !m_bSent || m_iError != ETIMEDOUT) {
        m_Connection.Shutdown();
        m_Connection.Close();
    }
    return bDone;
}

/// A step's failure: what failed, and the system's text. Always false.
bool CIpcClient::Fail(int iError, const char* pcWhat, char* pcReason) {
    m_iError = iError;
    WriteReason(pcReason, "%s %s", pcWhat, CSystemErrorText(iError).Get());
    return false;
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
