// CUtilitiesIpcServer: the external server's registries, which report to the process that the work is done for.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "IpcLineSender.h"
#include "IpcReceivers.h"
#include "Utilities.h"

class CIpcClient;
class CIpcTextFields;

/// Work done under a runtime parameter with an IPC ID belongs to a remote party: its log lines go to that party's
/// channel besides being logged here, and the notifications about redirected files go to it instead of to a host of
/// this process.
///
/// A notification waits for its answer at most kCallbackTimeout, and not at all while its receiver is silent
/// (CIpcReceivers). Lines are queued and sent by a thread of their own: whoever logs goes on at once. Callbacks are
/// sent, and their failure logged, under a runtime parameter without IPC ID, so that a line about a callback never
/// causes another one.
class CUtilitiesIpcServer : public CUtilities {
public:
    /// A receiver that has not answered by then counts as gone: work for everybody else waits behind it.
    static constexpr std::chrono::milliseconds kCallbackTimeout = std::chrono::seconds(30);

    CUtilitiesIpcServer();
    ~CUtilitiesIpcServer() override;

    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;
    using CUtilities::LogRemoveRedirectedFile;
    using CUtilities::LogRenameRedirectedFile;
    using CUtilities::LogUpdateRedirectedFileAttributes;
    using CUtilities::LogWriteRedirectedFile;

    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) EXCLUDES(kRegistryLocks) override;
    void LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) EXCLUDES(kRegistryLocks) override;
    void LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) EXCLUDES(kRegistryLocks) override;
    /// The answer of the remote party; -1 when it cannot be reached, does not answer, or a text does not fit its
    /// record: it is never told of another path.
    int LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize,
                                          unsigned long long iSize, bool bAccessTime, unsigned long lAccessTimeSec,
                                          bool bLastModifiedTime, unsigned long lLastModifiedTimeSec)
        EXCLUDES(kRegistryLocks) override;
    int LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) EXCLUDES(kRegistryLocks) override;
    int LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo)
        EXCLUDES(kRegistryLocks) override;
    int LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, unsigned long long iSeek,
                               int iSeekType, unsigned int iLen) EXCLUDES(kRegistryLocks) override;

    /// False for a path, or an ID of the parameter, that a remote party's record has no room for.
    bool CanTellOf(CRuntimeParam* pRuntimeParam, const char* pcPath) override;

    /// The callback channel of an IPC ID, into a buffer of kIpcChannelBufferSize (IpcChannel.h). False, with an empty
    /// text, for an ID that no client can have: the server's own, or one holding "/" or a blank.
    static bool GetIpcCallbackChannel(const char* pcIpcID, char* pcChannel);

    /// From the first call on nobody waits for a receiver longer than a second, until as many calls have ended it:
    /// whoever stops the server does not wait for a process that hangs.
    void BeginHurry() { m_Receivers.BeginHurry(); }
    void EndHurry() { m_Receivers.EndHurry(); }

    std::optional<ReceiverFigures> GetReceiverFigures() override;

    /// How long callbacks wait; tests shorten it before they start anything.
    void SetCallbackTimeout(std::chrono::milliseconds timeout) { m_CallbackTimeout = timeout; }

private:
    void SendLogMessage(CRuntimeParam* pRuntimeParam, const char* pcMessage, int iType);
    /// -1 at once, with an error line, when a text did not fit or the receiver is silent. Called with no registry's
    /// mutex held; lack of descriptors is met at the expense of the descriptor cache.
    template <typename Record>
    int SendNotification(CRuntimeParam* pRuntimeParam, int iType, const Record& record, const CIpcTextFields& texts);
    int Ask(const LogContext& log, const std::string& sIpcID, CIpcClient& client);
    bool SendInTurn(CIpcReceivers::Turn& turn, CIpcClient& client);

    std::chrono::milliseconds m_CallbackTimeout = kCallbackTimeout;
    CIpcReceivers m_Receivers;
    CIpcLineSender m_LineSender{this, &m_Receivers, &m_CallbackTimeout};  ///< its thread ends before all else goes
};
