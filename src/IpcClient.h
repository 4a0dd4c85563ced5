// CIpcClient: sends one request (or callback) and reads the reply to it.
#pragma once

#include <chrono>
#include <optional>
#include <utility>

#include "IpcBasic.h"
#include "IpcSocket.h"
#include "ThreadAnnotations.h"

/// One exchange, from its making to its end: fill the request, send it, read the reply. Each exchange has a client of
/// its own, whose request and reply are all zero at first, and a connection of its own, open while it is under way.
///
/// Owns both records; the channel, the log and the runtime parameter are the caller's. One thread uses it. Whatever
/// became of the sending, the accessors of the reply may be asked: they give a failure value when no reply, or another
/// kind of reply, came.
class CIpcClient : public CIpcBasic {
public:
    static constexpr std::chrono::milliseconds kStopRest{1000};

    CIpcClient(CLog* pUtilities, CRuntimeParam* pRuntimeParam);

    /// A limit for all of connecting, sending and waiting for the reply. Without one the client waits as long as the
    /// peer lives.
    void SetTimeout(std::chrono::milliseconds timeout) { m_Timeout = timeout; }
    /// From when the descriptor is readable on the reply is waited for no longer than the rest; for who may have to
    /// hurry. At first it is that of the thread's CEndWatch, with a rest of kStopRest.
    void SetHurry(int iDescriptor, std::chrono::milliseconds rest) {
        m_iHurry = iDescriptor;
        m_HurryRest = rest;
    }

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

    // Sending: to a channel, and waiting for the reply. The forms differ in who learns why it failed; the reply is all
    // zero then. Reasons have kReasonBufferSize characters.

    /// The caller does.
    bool SendRequest(const char* pcChannel, char* pcReason) EXCLUDES(kRegistryLocks);
    /// The log does.
    bool SendRequest(const char* pcChannel) EXCLUDES(kRegistryLocks);
    /// Both do.
    bool SendRequestLogged(const char* pcChannel, char* pcReason) EXCLUDES(kRegistryLocks);

    // Sending without waiting, for who has several exchanges under way. Failures go to the log.

    /// Sends the request. False with the error number EAGAIN, and not logged, while the receiver's queue is full: may
    /// be tried again then.
    bool Begin(const char* pcChannel);
    /// Takes the reply as far as it has come. ETIMEDOUT if nothing has, or if the request was not sent.
    bool Finish();
    bool IsSent() const { return m_bSent; }

    /// What the reply comes on, once the request was sent.
    const CIpcSocket& GetConnection() const { return m_Connection; }
    /// The same to keep, after a reply that did not come in time; closed after any other outcome.
    CIpcSocket TakeConnection() { return std::move(m_Connection); }

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
    // The steps of sending, each with its reason when it fails.
    bool Open(const char* pcChannel, char* pcReason);
    bool Connect(const char* pcChannel, const CIpcSocket::Deadline& deadline, char* pcReason);
    bool SendAll(char* pcReason);
    bool ReadReply(const CIpcSocket::Deadline& deadline, char* pcReason);
    bool EndReply(char* pcReason);

    int ConnectInTime(const char* pcChannel, const CIpcSocket::Deadline& deadline);
    bool EndExchange(bool bDone);
    bool Fail(int iError, const char* pcWhat, char* pcReason);
    bool IsReply(int iType) const;
    const char* GetTextReply(int iType) const;

    IpcDataInst m_IpcDataInst{};
    CIpcTextFields m_Texts;  ///< whether every text fit its field
    std::optional<std::chrono::milliseconds> m_Timeout;
    int m_iHurry;
    std::chrono::milliseconds m_HurryRest = kStopRest;
    CIpcSocket m_Connection;
    bool m_bSent = false;
    int m_iError = 0;
};
