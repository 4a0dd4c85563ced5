// CIpcClient: sends one request (or callback) and reads the reply to it.
#pragma once

#include <chrono>
#include <optional>

#include "IpcBasic.h"
#include "IpcSocket.h"

/// Made anew for each message, with a zeroed request and reply: fill the request, send it, read the reply. The
/// accessors of the reply answer with a failure value when no reply, or another kind of reply, came.
class CIpcClient : public CIpcBasic {
public:
    CIpcClient(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);

    /// A limit for all of connecting, sending and waiting for the reply. Without one the client waits as long as the
    /// peer lives.
    void SetTimeout(std::chrono::milliseconds timeout) { m_Timeout = timeout; }

    /// Fills a text field of the record that SetRequest will be given. A text that does not fit is not cut: the
    /// request is not sent then, and sending it fails with a reason that gives the field's name and limit.
    template <std::size_t n>
    void SetText(char (&cField)[n], const char* pcName, const char* pcText) {
        m_Texts.Set(cField, pcName, pcText);
    }

    /// Makes the request one of this type. Types of which nothing but the header is sent take no record.
    void SetRequest(int iType) { InitialRequestData(&m_IpcDataInst.request, iType); }
    template <typename Record>
    void SetRequest(int iType, const Record& record) {
        SetRequest(iType);
        SetIpcBody(&m_IpcDataInst.request, record);
    }
    /// The same for a callback.
    template <typename Record>
    void SetCallback(int iType, const Record& record) {
        InitialCallbackData(&m_IpcDataInst.request, iType);
        SetIpcBody(&m_IpcDataInst.request, record);
    }

    /// Sends the request to a channel and waits for the reply. False with a reason; the reply is all zero then.
    bool SendRequest(const char* pcChannel, char* pcReason);
    /// The same, with failures in the log.
    bool SendRequest(const char* pcChannel);
    /// The same, with both; the reason may be null.
    bool SendRequestLogged(const char* pcChannel, char* pcReason);

    IpcDataInst* GetDataInst() { return &m_IpcDataInst; }
    /// The error number of the last failure (0: none, or one without a number).
    int GetErrorNumber() const { return m_iError; }

    bool GetBoolReply() const;       ///< false without one
    long long GetLongReply() const;  ///< 0 without one
    int GetIntReply() const;         ///< -1 without one
    /// The reason of a failed operation, or null.
    const char* GetExptReply() const;
    /// The result text, or null.
    const char* GetMsgReply() const;

private:
    bool Exchange(const LogArgu& logArgu, const char* pcChannel, char* pcReason);
    bool SendAll(const LogArgu& logArgu, CIpcSocket* pSocket, char* pcReason);
    bool ReadReply(const LogArgu& logArgu, CIpcSocket* pSocket, const CIpcSocket::Deadline& deadline, char* pcReason);
    bool IsReply(int iType) const;
    const char* GetTextReply(int iType) const;

    IpcDataInst m_IpcDataInst{};
    CIpcTextFields m_Texts;
    std::optional<std::chrono::milliseconds> m_Timeout;
    int m_iError = 0;
};
