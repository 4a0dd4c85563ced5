// CRpcServer: finds ONC RPC version 2 calls (RFC 5531) in what the sockets receive and answers them.
#pragma once

#include <array>
#include <chrono>
#include <memory>

#include "CallStatistics.h"
#include "FairMutex.h"
#include "RecordMark.h"
#include "ReplyCache.h"
#include "RpcNumbers.h"
#include "SocketListener.h"
#include "ThreadAnnotations.h"

class CInputStream;
class CLog;
class COutputStream;
class CRpcProg;
class CRuntimeParam;
class CSocket;
struct LogArgu;
struct LogContext;
struct ProcessParam;
struct RPC_HEADER;

/// The one listener of all sockets. Calls of all clients are decoded and executed strictly one at a time, under one
/// mutex, which nobody waits for while others are served again and again.
///
/// Replies to calls that were received together leave together, yet none waits long for a later one: not while the host
/// is asked, not while another client is due. They are sent without the mutex. A batch of calls ends when its socket is
/// told to stop or its peer is gone.
///
/// Records are not delimited by their marks: a call is complete when its header and the program's arguments can be
/// read, and is tried again from its start when more bytes have come. Bytes in front of a plausible call header are
/// skipped. Yet nothing in a call's data is taken for a call: where a call runs short, or its arguments stay unread, a
/// plausible mark tells how far its data reaches, and no header is looked for there. Records in several fragments are
/// not put together: the connection ends at the first call that would need it.
class CRpcServer : public ISocketListener {
public:
    /// The log (may be null) is not owned; of the runtime parameter only the log control is taken.
    CRpcServer(CLog* pUtilities, CRuntimeParam* pRuntimeParam);
    ~CRpcServer() override;
    CRpcServer(const CRpcServer&) = delete;
    CRpcServer& operator=(const CRpcServer&) = delete;

    /// Registers a program (not owned; null removes it) before any socket is opened, if its number is one that can be
    /// registered (RpcNumbers.h).
    void Set(int iProgId, CRpcProg* pProg);
    /// May be called at any time, by any thread.
    void SetLogControl(int iLogControl);

    /// Answers every complete call in the socket's input (a datagram socket: the first, unless it repeats one that has
    /// had its reply). Called on socket threads.
    void SocketReceived(CSocket* pSocket) override;
    /// Counts connections.
    std::shared_ptr<void> SocketOpened(CSocket* pSocket) override;

    /// What is counted here; may be read at any time, also when the server has gone.
    std::shared_ptr<const CCallStatistics> GetStatistics() const { return m_pStatistics; }

protected:
    /// Moves the read position to the next plausible start of a call for the program; false (nothing moved) if there
    /// is none in the unread bytes. The socket type is a CSocket::Type.
    bool LookForValidHeader(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, unsigned long lProgId,
                            int iSocketType, CInputStream* pInput, COutputStream* pOutput) REQUIRES(m_hMutex);
    /// Decodes one call and leaves its reply in the output. Returns a ProgramStatus.
    int Process(CRuntimeParam* pRuntimeParam, unsigned long lProgId, int iSocketType, CInputStream* pInput,
                COutputStream* pOutput, const char* pcRemoteAddress) REQUIRES(m_hMutex);

private:
    /// The call being answered.
    struct Current {
        CRecordMark mark;
        unsigned int iStart = 0;      ///< its first byte's position in the input
        bool bArgumentsLeft = false;  ///< there may be arguments that nobody has read
        bool bDone = false;           ///< executed, and not counted yet
        CCallStatistics::Call call;   ///< what is to be counted of it

        unsigned int GetRecordEnd() const { return iStart + mark.GetSize(); }  ///< for a plausible mark
    };

    /// What comes after a call.
    enum class Next {
        kCall,     ///< the next call, if there is any input left
        kReceive,  ///< nothing before more has been received
        kBroken    ///< nothing at all: the connection cannot be understood any more
    };
    using Clock = std::chrono::steady_clock;

    /// No reply waits longer for those that may leave with it.
    static constexpr std::chrono::milliseconds kLongestWaitForLater{1};
    /// From here on a batch lasts so long that it is worth looking whether its peer is still there.
    static constexpr std::chrono::milliseconds kLongBatch{100};

    Next ProcessSome(CSocket* pSocket);
    Next ProcessNext(const LogContext& log, CSocket* pSocket) REQUIRES(m_hMutex);
    bool FindNext(const LogContext& log, CSocket* pSocket) REQUIRES(m_hMutex);
    Next ProcessFound(const LogContext& log, CSocket* pSocket) REQUIRES(m_hMutex);
    int ProcessCurrent(CSocket* pSocket) REQUIRES(m_hMutex);
    int AnswerDatagram(CSocket* pSocket) REQUIRES(m_hMutex);
    CReplyCache* FindReplyCache(CSocket* pSocket) REQUIRES(m_hMutex);
    unsigned int GetStillToCome(const CInputStream& input) const REQUIRES(m_hMutex);
    bool WaitForRest(const LogContext& log, CSocket* pSocket) REQUIRES(m_hMutex);
    bool PassUnread(CInputStream* pInput) REQUIRES(m_hMutex);
    void NoteExecuted(const RPC_HEADER& call, unsigned int iReply, unsigned int iAcceptStatus, COutputStream* pOutput)
        REQUIRES(m_hMutex);
    void CountExecuted(Clock::duration time) REQUIRES(m_hMutex);
    int Dispatch(const LogContext& log, int iStatus, const RPC_HEADER& call, ProcessParam* pParam, CInputStream* pInput,
                 COutputStream* pOutput) REQUIRES(m_hMutex);
    CRpcProg* FindProgram(unsigned long lProgId) const REQUIRES(m_hMutex);

    CFairMutex m_hMutex;  ///< held while a call is executed; replies leave without it
    std::array<CRpcProg*, kProgramIdCount> m_pProgTable GUARDED_BY(m_hMutex){};
    Current m_Current GUARDED_BY(m_hMutex);
    std::array<CReplyCache, kProgramIdCount> m_Replies GUARDED_BY(m_hMutex);  ///< of the programs' UDP ports
    CLog* m_pUtilities;                                                       ///< of the utilities only the log is used
    /// Its ID, the client's address, and its IPC ID change under the mutex only.
    std::unique_ptr<CRuntimeParam> m_pRuntimeParam;
    const std::shared_ptr<CCallStatistics> m_pStatistics = std::make_shared<CCallStatistics>();
};
