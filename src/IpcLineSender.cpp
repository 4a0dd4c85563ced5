// The thread that sends log lines to remote processes.
#include "IpcLineSender.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include <poll.h>

#include "IpcChannel.h"
#include "IpcClient.h"
#include "Texts.h"
#include "UtilitiesIpcServer.h"

/// A line under way.
struct CIpcLineSender::Sending {
    Sending(CLog* pLog, CIpcReceivers::NextLine next, std::chrono::milliseconds timeout)
        : turn(std::move(next.turn)),
          line(std::move(next.line)),
          own(line.sID.c_str(), line.iLogControl),
          client(pLog, &own),
          end(Clock::now() + timeout) {
        bReachable = CUtilitiesIpcServer::GetIpcCallbackChannel(turn.GetIpcID().c_str(), vcChannel);
        file = FindIpcChannelFile(vcChannel);
        auto record = NewIpcRecord<IpcCb_LogMessage>();
        CopyText(record.cID, line.sID.c_str());
        CopyText(record.cMsg, line.sMessage.c_str());
        record.iType = line.iType;
        client.SetCallback(kIpcCbLogMessage, record);
    }

    /// The receiver cannot be reached; it is not tried again until it can be.
    void NotReached() { turn.NotReached(CIpcSilence::OfAbsent(vcChannel, file), std::move(line)); }

    CIpcReceivers::Turn turn;
    IpcLine line;
    CRuntimeParam own;
    CIpcClient client;
    Clock::time_point end;
    char vcChannel[kIpcChannelBufferSize] = "";
    bool bReachable = false;
    std::optional<IpcChannelFile> file;
};

CIpcLineSender::CIpcLineSender(CUtilities* pUtilities, CIpcReceivers* pReceivers,
                               const std::chrono::milliseconds* pTimeout)
    : m_pUtilities(pUtilities), m_pReceivers(pReceivers), m_pTimeout(pTimeout) {}

CIpcLineSender::~CIpcLineSender() {
    const MutexLock lock(m_hMutexThread);
    if (m_hThread.joinable()) {
        m_StopEnd = Clock::now() + kEndTimeout;
        m_bStop = true;
        m_pReceivers->GetLinesWake().Set();
        m_hThread.join();
    }
}

void CIpcLineSender::Send(const std::string& sIpcID, IpcLine line) {
    if (Start()) {
        m_pReceivers->Queue(sIpcID, std::move(line));
    } else {
        m_pReceivers->Drop(sIpcID, line);
    }
}

bool CIpcLineSender::Start() {
    if (m_bStarted) {
        return true;
    }
    const MutexLock lock(m_hMutexThread);
    if (m_bStarted) {
        return true;
    }
    try {
        m_hThread = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        return false;  // the next line tries again
    }
    m_bStarted = true;
    return true;
}

// ---- The thread

void CIpcLineSender::Run() {
    Sendings sendings;
    for (;;) {
        BeginLines(sendings);
        if (m_bStop && (sendings.empty() || Clock::now() >= m_StopEnd)) {
            return;
        }
        WaitForAnswers(sendings);
        std::erase_if(sendings, [this](const auto& pSending) { return IsOver(*pSending); });
    }
}

void CIpcLineSender::BeginLines(Sendings& sendings) {
    m_pReceivers->GetLinesWake().Clear();  // what comes from now on wakes the thread again
    for (int nLines = 0; nLines < kLinesAtOnce; ++nLines) {
        auto next = m_pReceivers->TakeLine();
        if (!next) {
            return;
        }
        auto pSending = std::make_unique<Sending>(m_pUtilities, std::move(*next), *m_pTimeout);
        if (Begin(*pSending)) {
            sendings.push_back(std::move(pSending));
        }
    }
    m_pReceivers->GetLinesWake().Set();  // to be gone on with behind the answers that have come meanwhile
}

/// False if the line cannot be sent.
bool CIpcLineSender::Begin(Sending& sending) {
    const char* pcChannel = sending.bReachable ? sending.vcChannel : nullptr;
    if (sending.client.Begin(pcChannel) || sending.client.GetErrorNumber() == EAGAIN) {
        return true;
    }
    if (sending.client.GetErrorNumber() == EMFILE || sending.client.GetErrorNumber() == ENFILE) {
        // The descriptor cache grows until there are none left: a busy server is often in this state.
        const LogArgu logArgu{"UtilitiesIpcServer.SendLogMessage"};
        m_pUtilities->FreeCachedFileHandles(&sending.own, &logArgu);
        if (sending.client.Begin(pcChannel) || sending.client.GetErrorNumber() == EAGAIN) {
            return true;
        }
    }
    sending.NotReached();
    return false;
}

/// Waits until there is something to do: an answer, a new line, a full queue to be tried again, or a time limit.
void CIpcLineSender::WaitForAnswers(Sendings& sendings) {
    const int iWake = m_pReceivers->GetLinesWake().GetDescriptor();
    std::vector<pollfd> vPolled{{iWake, POLLIN, 0}};
    const auto now = Clock::now();
    auto end = m_bStop ? m_StopEnd : Clock::time_point::max();
    if (iWake == -1) {
        end = std::min(end, now + kFullPause);  // nobody can wake the thread
    }
    for (const auto& pSending : sendings) {
        end = std::min(end, pSending->end);
        if (pSending->client.IsSent()) {
            vPolled.push_back({pSending->client.GetConnection().Get(), POLLIN, 0});
        } else {
            end = std::min(end, now + kFullPause);
        }
    }
    int iLimit = -1;
    if (end != Clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        iLimit = static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    }
    ::poll(vPolled.data(), vPolled.size(), iLimit);  // who is ready is asked afterwards, also after a signal
}

/// True once a line has been answered, or never will be.
bool CIpcLineSender::IsOver(Sending& sending) {
    if (!sending.client.IsSent() && !Begin(sending)) {
        return true;
    }
    if (sending.client.IsSent() && sending.client.GetConnection().IsReadable()) {
        sending.client.Finish();
        return true;
    }
    if (Clock::now() < sending.end) {
        return false;
    }
    GiveUp(sending);
    return true;
}

void CIpcLineSender::GiveUp(Sending& sending) {
    sending.client.Finish();
    if (sending.client.GetErrorNumber() == ETIMEDOUT) {
        sending.turn.NotAnswered(CIpcSilence(sending.vcChannel, sending.file, sending.client.TakeConnection()));
    }
}
