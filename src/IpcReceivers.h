// CIpcReceivers: the processes that callbacks go to: who answers, whose turn it is, and the lines that wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "IpcSilence.h"
#include "RegistryFigures.h"
#include "ThreadAnnotations.h"
#include "Wake.h"

/// A log line on its way to a remote process.
struct IpcLine {
    std::string sID;      ///< of the runtime parameter under which it was logged
    int iLogControl = 0;  ///< likewise
    std::string sMessage;
    int iType = 0;             ///< an IpcLogMessageType
    std::uint64_t nLines = 1;  ///< how many lines it stands for: one that tells of dropped ones stands for all of these
};

/// Keeps order among the callbacks to each receiver, an IPC ID, and between threads that must not wait for one another.
/// Sends nothing itself.
///
/// - A receiver serves one callback at a time, so it is sent one at a time: whoever has its Turn sends. Lines go
///   in their order, a notification behind the lines that were queued before it.
/// - A receiver that lets a callback run into the time limit is silent until its CIpcSilence ends. Nobody waits for
///   a silent one: it gets no turn, and its lines are dropped and counted.
/// - A receiver to which a line could not be sent is absent until its CIpcSilence ends: its lines are dropped and
///   counted without being tried. Notifications are tried: they fail at once.
/// - Lines wait in a bounded queue. One that has no room is dropped and counted, except on a thread that is patient
///   (CIpcPatience). The next line that goes through stands behind one that says how many were dropped.
///
/// Any thread may call anything. The mutex is never held while something is sent or waited for.
class CIpcReceivers {
public:
    using Clock = CIpcSocket::Clock;

    /// Lines that wait for one receiver: what a server with all log bits on says in about a second, and more than any
    /// listing has.
    static constexpr std::size_t kMaxLines = 4096;
    /// Their size, so that long lines take no more than short ones.
    static constexpr std::size_t kMaxBytes = std::size_t{1} << 20;
    /// The size of all receivers' lines: IDs come from outside, and anybody may bring new ones.
    static constexpr std::size_t kMaxAllBytes = 16 * kMaxBytes;
    /// What patient threads may use beyond that: they wait for their own receiver, and not for those of others.
    static constexpr std::size_t kPatientBytes = kMaxBytes;
    /// Silent receivers that are known as such: each holds a descriptor. Those that came first are forgotten.
    static constexpr std::size_t kMaxSilent = 64;
    /// Absent receivers that are known as such. Those that came first are forgotten, with the number of their lines.
    static constexpr std::size_t kMaxAbsent = 256;
    /// How long a notification waits for the lines before it: long enough for some hundreds of them, and hardly to be
    /// noticed by others, who wait behind the notification.
    static constexpr std::chrono::milliseconds kLinesFirst{100};
    /// How long lines are waited for while their receiver has a notification in hand. It may have asked for the lines
    /// in the middle of that, and takes them only when it is through.
    static constexpr std::chrono::milliseconds kNotificationInHand{1000};
    /// How long any wait goes on once the server is to stop.
    static constexpr std::chrono::milliseconds kHurry{1000};

    class Turn;
    struct NextLine;

    CIpcReceivers();
    ~CIpcReceivers();
    CIpcReceivers(const CIpcReceivers&) = delete;
    CIpcReceivers& operator=(const CIpcReceivers&) = delete;

    // ---- Notifications

    /// Waits for the lines before it and for the turn. Nothing, at once or as soon as that is known, for a silent
    /// receiver.
    std::optional<Turn> BeginNotification(const std::string& sIpcID);

    // ---- Lines

    /// Takes a line to be sent. Waits only on a patient thread.
    void Queue(const std::string& sIpcID, IpcLine line);
    /// Counts a line that cannot be sent at all.
    void Drop(const std::string& sIpcID, const IpcLine& line);
    /// A line whose turn it is, of any receiver; nothing if there is none just now.
    std::optional<NextLine> TakeLine();
    /// Waits until the lines queued so far have been sent, which a silent receiver's never are: as long as the receiver
    /// goes on taking them. False if it does not.
    bool WaitForLines(const std::string& sIpcID);
    /// Set when TakeLine may have a line again; cleared by whoever takes them.
    CWake& GetLinesWake() { return m_LinesWake; }

    /// How many there are, and what waits for them.
    ReceiverFigures GetFigures();

    // ---- Stopping

    /// From the first call on nobody waits longer than kHurry, until as many calls have ended it.
    void BeginHurry();
    void EndHurry();
    /// Readable during a hurry.
    int GetHurryDescriptor() const { return m_HurryWake.GetDescriptor(); }

private:
    struct Receiver;
    using ReceiverPtr = std::shared_ptr<Receiver>;

    ReceiverPtr GetReceiver(const std::string& sIpcID) REQUIRES(m_hMutex);
    bool IsSilent(Receiver& receiver) REQUIRES(m_hMutex);
    void BecomeSilent(Receiver& receiver, std::unique_ptr<CIpcSilence> pSilence) REQUIRES(m_hMutex);
    void ForgetFirstSilent(bool bAbsent) REQUIRES(m_hMutex);
    static bool HasRoomOfItsOwn(const Receiver& receiver, const IpcLine& line);
    bool HasRoom(const Receiver& receiver, const IpcLine& line, bool bPatient) const REQUIRES(m_hMutex);
    void Push(Receiver& receiver, IpcLine line) REQUIRES(m_hMutex);
    IpcLine Pop(Receiver& receiver) REQUIRES(m_hMutex);
    static void CountDropped(Receiver& receiver, const IpcLine& line);
    static IpcLine MakeDropNotice(Receiver& receiver);
    Clock::time_point GetPatienceEnd(const Receiver& receiver) const REQUIRES(m_hMutex);
    bool WaitForChange(Clock::time_point end) REQUIRES(m_hMutex);
    bool WaitForRoom(const std::string& sIpcID, Receiver& receiver, const IpcLine& line) REQUIRES(m_hMutex);
    bool WaitForTurn(Receiver& receiver) REQUIRES(m_hMutex);
    void End(Turn& turn);
    void Forget(const std::string& sIpcID, const ReceiverPtr& pReceiver) REQUIRES(m_hMutex);

    CWake m_LinesWake;
    CWake m_HurryWake;

    Mutex m_hMutex;
    std::condition_variable_any m_Changed;
    std::map<std::string, ReceiverPtr> m_Receivers GUARDED_BY(m_hMutex);  ///< with all that hangs on them
    std::string m_sLastTaken GUARDED_BY(m_hMutex);                        ///< whose line was taken last
    std::size_t m_nAllBytes GUARDED_BY(m_hMutex) = 0;
    int m_nHurries GUARDED_BY(m_hMutex) = 0;
    Clock::time_point m_HurryEnd GUARDED_BY(m_hMutex) = Clock::time_point::max();
};

/// The right to send a receiver one callback, until the object goes.
class CIpcReceivers::Turn {
public:
    Turn(Turn&& other) noexcept = default;
    Turn& operator=(Turn&& other) = delete;
    ~Turn();

    const std::string& GetIpcID() const { return m_sIpcID; }
    /// The callback was not answered in time.
    void NotAnswered(CIpcSilence silence) { m_pSilence = std::make_unique<CIpcSilence>(std::move(silence)); }
    /// The line could not be sent.
    void NotReached(CIpcSilence absence, IpcLine line) {
        NotAnswered(std::move(absence));
        m_UnsentLine = std::move(line);
    }

private:
    friend class CIpcReceivers;
    Turn(CIpcReceivers* pReceivers, std::string sIpcID, ReceiverPtr pReceiver);

    CIpcReceivers* m_pReceivers;
    std::string m_sIpcID;
    ReceiverPtr m_pReceiver;  ///< null in an object that was moved from
    std::unique_ptr<CIpcSilence> m_pSilence;
    std::optional<IpcLine> m_UnsentLine;
};

/// A line and the right to send it.
struct CIpcReceivers::NextLine {
    IpcLine line;
    Turn turn;
};
