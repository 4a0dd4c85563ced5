// The processes that callbacks go to: who answers, whose turn it is, and the lines that wait.
#include "IpcReceivers.h"

#include <algorithm>

#include "IpcMessages.h"
#include "IpcPatience.h"

namespace {

/// What a line takes while it waits.
std::size_t GetSize(const IpcLine& line) {
    return sizeof(line) + line.sID.size() + line.sMessage.size();
}

constexpr auto kNever = CIpcReceivers::Clock::time_point::max();

}  // namespace

/// Stays in the map while anything of it differs from that of a receiver never heard of; a turn and a thread that waits
/// hold on to it besides.
struct CIpcReceivers::Receiver {
    std::deque<IpcLine> lines;
    std::size_t nBytes = 0;      ///< of the lines
    std::uint64_t nTaken = 0;    ///< lines that were queued and are no longer under way
    IpcLine lastDropped;         ///< without its message
    std::uint64_t nDropped = 0;  ///< lines that the receiver has not been told of

    bool bBusy = false;          ///< somebody has the turn
    bool bNotification = false;  ///< and sends a notification
    Clock::time_point since;     ///< the beginning of the turn
    int nWaiting = 0;            ///< notifications for which lines let the turn be
    int nUsers = 0;              ///< threads that wait for something of it

    std::unique_ptr<CIpcSilence> pSilence;  ///< while it hangs or is absent: it gets no lines
    Clock::time_point silentSince;

    /// Whoever waits for it would wait in vain.
    bool IsHanging() const { return pSilence != nullptr && !pSilence->IsAbsence(); }

    /// Counts on through all lines: what GetLinesBefore was when a line was queued is reached by nTaken when it is
    /// sent.
    std::uint64_t GetLinesBefore() const { return nTaken + lines.size() + (bBusy && !bNotification ? 1 : 0); }
    bool IsIdle() const { return lines.empty() && nDropped == 0 && !bBusy && nUsers == 0 && pSilence == nullptr; }
};

// ---- Turns

CIpcReceivers::Turn::Turn(CIpcReceivers* pReceivers, std::string sIpcID, ReceiverPtr pReceiver)
    : m_pReceivers(pReceivers), m_sIpcID(std::move(sIpcID)), m_pReceiver(std::move(pReceiver)) {}

CIpcReceivers::Turn::~Turn() {
    if (m_pReceiver) {
        m_pReceivers->End(*this);
    }
}

void CIpcReceivers::End(Turn& turn) {
    const MutexLock lock(m_hMutex);
    Receiver& receiver = *turn.m_pReceiver;
    receiver.bBusy = false;
    receiver.nTaken += receiver.bNotification ? 0 : 1;
    receiver.bNotification = false;
    if (turn.m_pSilence) {
        BecomeSilent(receiver, std::move(turn.m_pSilence));
    }
    if (turn.m_UnsentLine) {
        CountDropped(receiver, *turn.m_UnsentLine);
    }
    m_Changed.notify_all();
    if (!receiver.lines.empty() || receiver.nDropped > 0) {
        m_LinesWake.Set();
    }
    Forget(turn.m_sIpcID, turn.m_pReceiver);
}

// ---- Receivers

CIpcReceivers::CIpcReceivers() = default;

CIpcReceivers::~CIpcReceivers() = default;

CIpcReceivers::ReceiverPtr CIpcReceivers::GetReceiver(const std::string& sIpcID) {
    ReceiverPtr& pReceiver = m_Receivers[sIpcID];
    if (!pReceiver) {
        pReceiver = std::make_shared<Receiver>();
    }
    return pReceiver;
}

void CIpcReceivers::Forget(const std::string& sIpcID, const ReceiverPtr& pReceiver) {
    if (pReceiver->IsIdle()) {
        const auto it = m_Receivers.find(sIpcID);
        if (it != m_Receivers.end() && it->second == pReceiver) {
            m_Receivers.erase(it);
        }
    }
}

bool CIpcReceivers::IsSilent(Receiver& receiver) {
    if (receiver.pSilence && receiver.pSilence->HasEnded()) {
        receiver.pSilence.reset();
    }
    return receiver.pSilence != nullptr;
}

void CIpcReceivers::BecomeSilent(Receiver& receiver, std::unique_ptr<CIpcSilence> pSilence) {
    ForgetFirstSilent(pSilence->IsAbsence());
    receiver.pSilence = std::move(pSilence);
    receiver.silentSince = Clock::now();
    while (!receiver.lines.empty()) {
        CountDropped(receiver, Pop(receiver));
        ++receiver.nTaken;
    }
}

/// Makes room for another receiver that hangs, or that is absent.
void CIpcReceivers::ForgetFirstSilent(bool bAbsent) {
    std::size_t nSilent = 0;
    auto first = m_Receivers.end();
    for (auto it = m_Receivers.begin(); it != m_Receivers.end(); ++it) {
        if (it->second->pSilence == nullptr || it->second->pSilence->IsAbsence() != bAbsent) {
            continue;
        }
        ++nSilent;
        if (first == m_Receivers.end() || it->second->silentSince < first->second->silentSince) {
            first = it;
        }
    }
    if (nSilent >= (bAbsent ? kMaxAbsent : kMaxSilent)) {
        first->second->pSilence.reset();
        first->second->nDropped = 0;
        const ReceiverPtr pFirst = first->second;
        Forget(std::string(first->first), pFirst);
    }
}

// ---- Notifications

std::optional<CIpcReceivers::Turn> CIpcReceivers::BeginNotification(const std::string& sIpcID) {
    const MutexLock lock(m_hMutex);
    const ReceiverPtr pReceiver = GetReceiver(sIpcID);
    Receiver& receiver = *pReceiver;
    if (receiver.IsHanging() && IsSilent(receiver)) {
        return std::nullopt;
    }
    ++receiver.nUsers;
    const bool bTurn = WaitForTurn(receiver);
    --receiver.nUsers;
    if (!bTurn) {
        Forget(sIpcID, pReceiver);
        return std::nullopt;
    }
    receiver.bBusy = true;
    receiver.bNotification = true;
    receiver.since = Clock::now();
    m_Changed.notify_all();
    return Turn(this, sIpcID, pReceiver);
}

/// For a notification: behind the lines that are queued by now, as long as that does not take long, and before those
/// that come after it.
bool CIpcReceivers::WaitForTurn(Receiver& receiver) {
    const std::uint64_t nBefore = receiver.GetLinesBefore();
    const auto linesEnd = Clock::now() + kLinesFirst;
    while (receiver.nTaken < nBefore && !receiver.pSilence && WaitForChange(linesEnd)) {
    }
    ++receiver.nWaiting;
    while (receiver.bBusy && !receiver.IsHanging() && WaitForChange(kNever)) {
    }
    --receiver.nWaiting;
    if (receiver.bBusy || receiver.IsHanging()) {
        m_LinesWake.Set();
        return false;
    }
    return true;
}

// ---- Lines

void CIpcReceivers::Queue(const std::string& sIpcID, IpcLine line) {
    const MutexLock lock(m_hMutex);
    const ReceiverPtr pReceiver = GetReceiver(sIpcID);
    Receiver& receiver = *pReceiver;
    const bool bPatient = !IsSilent(receiver) && WaitForRoom(sIpcID, receiver, line);
    if (receiver.pSilence || !HasRoom(receiver, line, bPatient)) {
        CountDropped(receiver, line);
        return;
    }
    if (receiver.nDropped > 0) {
        Push(receiver, MakeDropNotice(receiver));
    }
    Push(receiver, std::move(line));
    m_LinesWake.Set();
}

/// On a patient thread, which true tells: waits until the receiver has taken enough lines. It does not wait for other
/// receivers, whose lines leave no room either.
bool CIpcReceivers::WaitForRoom(const std::string& sIpcID, Receiver& receiver, const IpcLine& line) {
    if (!CIpcPatience::IsPatientWith(this, sIpcID)) {
        return false;
    }
    ++receiver.nUsers;
    while (!HasRoomOfItsOwn(receiver, line) && !receiver.pSilence && WaitForChange(GetPatienceEnd(receiver))) {
    }
    --receiver.nUsers;
    return true;
}

void CIpcReceivers::Drop(const std::string& sIpcID, const IpcLine& line) {
    const MutexLock lock(m_hMutex);
    CountDropped(*GetReceiver(sIpcID), line);
}

void CIpcReceivers::CountDropped(Receiver& receiver, const IpcLine& line) {
    receiver.nDropped += line.nLines;
    receiver.lastDropped.sID = line.sID;
    receiver.lastDropped.iLogControl = line.iLogControl;
}

IpcLine CIpcReceivers::MakeDropNotice(Receiver& receiver) {
    IpcLine notice = receiver.lastDropped;
    notice.sMessage = "[UtilitiesIpcServer.SendLogMessage] Dropped " + std::to_string(receiver.nDropped) +
                      " log lines that were not taken in time";
    notice.iType = kIpcLogError;
    notice.nLines = receiver.nDropped;
    receiver.nDropped = 0;
    return notice;
}

bool CIpcReceivers::HasRoomOfItsOwn(const Receiver& receiver, const IpcLine& line) {
    return receiver.lines.size() < kMaxLines && receiver.nBytes + GetSize(line) <= kMaxBytes;
}

bool CIpcReceivers::HasRoom(const Receiver& receiver, const IpcLine& line, bool bPatient) const {
    const std::size_t nMost = kMaxAllBytes + (bPatient ? kPatientBytes : 0);
    return HasRoomOfItsOwn(receiver, line) && m_nAllBytes + GetSize(line) <= nMost;
}

void CIpcReceivers::Push(Receiver& receiver, IpcLine line) {
    const std::size_t nBytes = GetSize(line);
    receiver.lines.push_back(std::move(line));
    receiver.nBytes += nBytes;
    m_nAllBytes += nBytes;
}

IpcLine CIpcReceivers::Pop(Receiver& receiver) {
    IpcLine line = std::move(receiver.lines.front());
    receiver.lines.pop_front();
    receiver.nBytes -= GetSize(line);
    m_nAllBytes -= GetSize(line);
    return line;
}

std::optional<CIpcReceivers::NextLine> CIpcReceivers::TakeLine() {
    const MutexLock lock(m_hMutex);
    // From the one behind the last: nobody is passed over for another's many lines.
    auto itReceiver = m_Receivers.upper_bound(m_sLastTaken);
    for (std::size_t nLeft = m_Receivers.size(); nLeft > 0; --nLeft, ++itReceiver) {
        if (itReceiver == m_Receivers.end()) {
            itReceiver = m_Receivers.begin();
        }
        const auto& [sIpcID, pReceiver] = *itReceiver;
        Receiver& receiver = *pReceiver;
        const bool bLine = !receiver.lines.empty();
        if (receiver.bBusy || receiver.nWaiting > 0 || receiver.pSilence || (!bLine && receiver.nDropped == 0)) {
            continue;
        }
        IpcLine line = bLine ? Pop(receiver) : MakeDropNotice(receiver);
        receiver.bBusy = true;
        receiver.since = Clock::now();
        m_sLastTaken = sIpcID;
        return NextLine{std::move(line), Turn(this, sIpcID, pReceiver)};
    }
    return std::nullopt;
}

bool CIpcReceivers::WaitForLines(const std::string& sIpcID) {
    const MutexLock lock(m_hMutex);
    const auto it = m_Receivers.find(sIpcID);
    if (it == m_Receivers.end()) {
        return true;
    }
    const ReceiverPtr pReceiver = it->second;
    const std::uint64_t nBefore = pReceiver->GetLinesBefore();
    while (pReceiver->nTaken < nBefore && !pReceiver->pSilence && WaitForChange(GetPatienceEnd(*pReceiver))) {
    }
    return pReceiver->nTaken >= nBefore && !pReceiver->pSilence;
}

ReceiverFigures CIpcReceivers::GetFigures() {
    const MutexLock lock(m_hMutex);
    ReceiverFigures figures;
    figures.nReceivers = m_Receivers.size();
    figures.nWaitingBytes = m_nAllBytes;
    for (const auto& [sIpcID, pReceiver] : m_Receivers) {
        figures.nWaitingLines += pReceiver->lines.size();
        figures.nDroppedLines += pReceiver->nDropped;
        if (pReceiver->pSilence != nullptr) {
            ++(pReceiver->pSilence->IsAbsence() ? figures.nAbsent : figures.nHanging);
        }
    }
    return figures;
}

// ---- Waiting

/// Until when a thread waits for lines to be taken: without end from a receiver that takes them, but not for long while
/// that has a notification in hand.
CIpcReceivers::Clock::time_point CIpcReceivers::GetPatienceEnd(const Receiver& receiver) const {
    return receiver.bNotification ? receiver.since + kNotificationInHand : kNever;
}

/// Waits for a change of whatever kind, or until a time; false when that has come.
bool CIpcReceivers::WaitForChange(Clock::time_point end) {
    end = std::min(end, m_HurryEnd);
    if (Clock::now() >= end) {
        return false;
    }
    m_Changed.wait_until(m_hMutex, end);
    return true;
}

void CIpcReceivers::BeginHurry() {
    const MutexLock lock(m_hMutex);
    if (m_nHurries++ == 0) {
        m_HurryEnd = Clock::now() + kHurry;
        m_HurryWake.Set();
        m_Changed.notify_all();
    }
}

void CIpcReceivers::EndHurry() {
    const MutexLock lock(m_hMutex);
    if (--m_nHurries == 0) {
        m_HurryEnd = kNever;
        m_HurryWake.Clear();
    }
}
