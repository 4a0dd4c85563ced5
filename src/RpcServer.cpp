// Finding calls in received bytes, dispatching them, and building their replies (RFC 5531).
#include "RpcServer.h"

#include <cstddef>
#include <cstring>

#include "BatchLooks.h"
#include "BeforeAsking.h"
#include "CallGuard.h"
#include "InputStream.h"
#include "Log.h"
#include "OutputStream.h"
#include "RpcMessage.h"
#include "RpcProg.h"
#include "RuntimeParam.h"
#include "Socket.h"

namespace {

/// Program numbers and procedures that the scanner reports when it passes over them: RFC 5531 gives numbers of this
/// kind to the well-known programs, and none of those has procedures beyond.
constexpr unsigned int kFirstPlausibleProgram = kFirstProgramId;
constexpr unsigned int kLastPlausibleProgram = 199999;
constexpr unsigned int kLastPlausibleProcedure = 99;

/// Where the words that the scanner looks at stand in a call.
struct HeaderLayout {
    unsigned int nSpan;
    unsigned int iProgram;
    unsigned int iVersion;
    unsigned int iProcedure;
};

constexpr HeaderLayout kDatagramLayout{sizeof(RPC_HEADER), offsetof(RPC_HEADER, lProg), offsetof(RPC_HEADER, lVers),
                                       offsetof(RPC_HEADER, lProc)};
constexpr unsigned int kWordSize = sizeof(unsigned int);
constexpr unsigned int kMarkSize = offsetof(RPC_STM_HEADER, call);

/// What an IPv4 datagram can carry behind the headers of IP and UDP.
constexpr unsigned int kLargestDatagram = 65507;

constexpr HeaderLayout kStreamLayout{sizeof(RPC_STM_HEADER), kMarkSize + kDatagramLayout.iProgram,
                                     kMarkSize + kDatagramLayout.iVersion, kMarkSize + kDatagramLayout.iProcedure};

unsigned int WordAt(const char* pcBytes) {
    return CSocketStream::ReverseByteOrder(reinterpret_cast<const unsigned int*>(pcBytes));
}

/// Would the program take a call of this version and procedure? A number without a program takes any: it is answered
/// PROG_UNAVAIL.
bool IsPlausible(CRpcProg* pProg, unsigned int iVersion, unsigned int iProcedure) {
    if (pProg == nullptr) {
        return true;
    }
    const unsigned int iOnlyVersion = pProg->GetVersion();
    if (iOnlyVersion != kAnyNumber && iOnlyVersion != iVersion) {
        return false;
    }
    const unsigned int nProcedures = pProg->GetMaxSupportProc();
    return nProcedures == kAnyNumber || iProcedure < nProcedures;
}

/// The first offset, from iOffset on, at which the program's number stands where a call has it; behind the last
/// possible one if there is none. Most bytes are only looked over for the number's last byte, as fast as the C library
/// can.
unsigned int NextCandidate(const CInputStream& input, unsigned int iOffset, const HeaderLayout& layout,
                           unsigned long lProgId) {
    const unsigned int nUnread = input.GetFilledBufferSize();
    if (nUnread < layout.nSpan || iOffset > nUnread - layout.nSpan) {
        return iOffset;
    }
    const char* pcFirst = input.GetCurrentBuffer() + layout.iProgram;
    const char* pcEnd = pcFirst + (nUnread - layout.nSpan + 1);
    constexpr int kLastByte = sizeof(unsigned int) - 1;
    for (const char* pcWord = pcFirst + iOffset; pcWord < pcEnd; ++pcWord) {
        const void* pvFound = std::memchr(pcWord + kLastByte, static_cast<int>(lProgId & 0xFFU),
                                          static_cast<std::size_t>(pcEnd - pcWord));
        if (pvFound == nullptr) {
            break;
        }
        pcWord = static_cast<const char*>(pvFound) - kLastByte;
        if (WordAt(pcWord) == lProgId) {
            return static_cast<unsigned int>(pcWord - pcFirst);
        }
    }
    return nUnread - layout.nSpan + 1;
}

/// What the scanner asks of a place where a call may start.
struct Candidate {
    unsigned int iProgram;
    unsigned int iVersion;
    unsigned int iProcedure;

    Candidate(const char* pcBytes, const HeaderLayout& layout)
        : iProgram(WordAt(pcBytes + layout.iProgram)),
          iVersion(WordAt(pcBytes + layout.iVersion)),
          iProcedure(WordAt(pcBytes + layout.iProcedure)) {}
};

/// The first offset, from iOffset on, at which a plausible call for the program starts; one with less than a head
/// behind it if there is none.
unsigned int FindHeader(const CInputStream& input, unsigned int iOffset, const HeaderLayout& layout,
                        unsigned long lProgId, CRpcProg* pProg) {
    for (;; ++iOffset) {
        iOffset = NextCandidate(input, iOffset, layout, lProgId);
        const char* pcBytes = input.GetFilledBuffer(iOffset, layout.nSpan);
        if (pcBytes == nullptr) {
            return iOffset;
        }
        const Candidate candidate(pcBytes, layout);
        if (IsPlausible(pProg, candidate.iVersion, candidate.iProcedure)) {
            return iOffset;
        }
    }
}

/// The same from the read position on, byte by byte, with lines about calls for other programs that are passed over.
unsigned int FindHeaderAloud(const LogContext& log, const CInputStream& input, const HeaderLayout& layout,
                             unsigned long lProgId, CRpcProg* pProg) {
    for (unsigned int iOffset = 0;; ++iOffset) {
        const char* pcBytes = input.GetFilledBuffer(iOffset, layout.nSpan);
        if (pcBytes == nullptr) {
            return iOffset;
        }
        const Candidate candidate(pcBytes, layout);
        if (candidate.iProgram == lProgId) {
            if (IsPlausible(pProg, candidate.iVersion, candidate.iProcedure)) {
                return iOffset;
            }
        } else if (candidate.iProgram >= kFirstPlausibleProgram && candidate.iProgram <= kLastPlausibleProgram &&
                   candidate.iProcedure <= kLastPlausibleProcedure) {
            NFS_LOG_INFO(log, kLogRpc, "[%s] A possible valid header may be skipped, ProcId=%u, ProcId=%u",
                         candidate.iProgram, candidate.iProcedure);
        }
    }
}

/// Reads the head of a call as far as it goes; what is missing stays as it was.
int ReadHeader(int iSocketType, CInputStream* pInput, RPC_STM_HEADER* pHeader) {
    RPC_HEADER& call = pHeader->call;
    if (iSocketType == CSocket::kStream) {
        pInput->Read(&pHeader->lHeader);
    }
    pInput->Read(&call.lXID);
    pInput->Read(&call.lMsg);
    pInput->Read(&call.lRpcvers);
    pInput->Read(&call.lProg);
    pInput->Read(&call.lVers);
    pInput->Read(&call.lProc);
    pInput->Read(&call.cred.lFlavor);
    pInput->Read(&call.cred.lLength);
    pInput->Skip(call.cred.lLength);
    pInput->Read(&call.verf.lFlavor);
    pInput->Read(&call.verf.lLength);
    pInput->Skip(call.verf.lLength);
    return kProgHandled;
}

void LogHeader(const LogContext& log, int iSocketType, const RPC_STM_HEADER& header) {
    if (!log.IsWanted(CRuntimeParam::kLogRpc)) {
        return;
    }
    CLog* pLog = log.pLog;
    CRuntimeParam* pRuntimeParam = log.pRuntimeParam;
    pLog->LogInfo(pRuntimeParam, "[%s] request header", log.GetTag());
    if (iSocketType == CSocket::kStream) {
        pLog->LogInfo(pRuntimeParam, " --- header=%u", header.lHeader);
    }
    pLog->LogInfo(pRuntimeParam, " --- nXID=%u", header.call.lXID);
    pLog->LogInfo(pRuntimeParam, " --- nmsg=%u", header.call.lMsg);
    pLog->LogInfo(pRuntimeParam, " --- nrpcvers=%u", header.call.lRpcvers);
    pLog->LogInfo(pRuntimeParam, " --- nprog=%u", header.call.lProg);
    pLog->LogInfo(pRuntimeParam, " --- nvers=%u", header.call.lVers);
    pLog->LogInfo(pRuntimeParam, " --- nproc=%u", header.call.lProc);
}

}  // namespace

CRpcServer::CRpcServer(CLog* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(std::make_unique<CRuntimeParam>("", pRuntimeParam->GetLogControl())) {}

CRpcServer::~CRpcServer() = default;

void CRpcServer::Set(int iProgId, CRpcProg* pProg) {
    const unsigned int i = static_cast<unsigned int>(iProgId) - kFirstProgramId;
    if (i < kProgramIdCount) {
        const FairMutexLock lock(m_hMutex);
        m_pProgTable[i] = pProg;
    }
}

void CRpcServer::SetLogControl(int iLogControl) {
    m_pRuntimeParam->SetLogControl(iLogControl);
}

void CRpcServer::SocketReceived(CSocket* pSocket) {
    const Clock::time_point begin = Clock::now();
    Next next = Next::kCall;
    while (next == Next::kCall && pSocket->GetInputStream()->GetFilledBufferSize() > 0) {
        next = ProcessSome(pSocket);
        // Outside the mutex: whoever does not take his replies delays nobody but himself.
        const bool bSent = pSocket->Send();
        const bool bGone = next == Next::kCall && Clock::now() - begin > kLongBatch && pSocket->IsConnectionDead();
        if (next == Next::kBroken || bGone) {
            pSocket->Shutdown();
        }
        if (!bSent || pSocket->IsStopping()) {
            break;
        }
    }
}

/// Answers calls of the socket's input until it is time to send the replies.
CRpcServer::Next CRpcServer::ProcessSome(CSocket* pSocket) {
    const LogArgu logArgu{"RpcServer.SocketReceived"};
    const LogContext log{m_pUtilities, m_pRuntimeParam.get(), &logArgu};
    const FairMutexLock lock(m_hMutex);
    if (pSocket->IsStopping()) {
        return Next::kReceive;  // it was told while it waited
    }
    const CBatchLooks looks;
    const auto beforeAsking = [pSocket] {
        pSocket->SendCollected();
        CBatchLooks::Forget();
    };
    const CBeforeAsking before(beforeAsking, [pSocket] { return pSocket->HasCollected(); });
    const Clock::time_point begin = Clock::now();
    Clock::time_point last = begin;
    for (;;) {
        const Next next = ProcessNext(log, pSocket);
        const Clock::time_point now = Clock::now();
        CountExecuted(now - last);
        last = now;
        const bool bMore = next == Next::kCall && pSocket->GetInputStream()->GetFilledBufferSize() > 0;
        if (!bMore || log.IsWanted(CRuntimeParam::kLogRpc) || !pSocket->Collect() || pSocket->IsStopping() ||
            m_hMutex.IsDue() || now - begin >= kLongestWaitForLater) {
            return next;
        }
    }
}

/// Answers the next call of the socket's input; its reply stands in the output then.
CRpcServer::Next CRpcServer::ProcessNext(const LogContext& log, CSocket* pSocket) {
    const CInputStream* pInput = pSocket->GetInputStream();
    m_Current.bDone = false;  // also where an earlier call was not counted, for want of memory
    // A program puts the export's name and owner in their place. A call that belongs to no export has neither.
    m_pRuntimeParam->SetID(pSocket->GetRemoteAddress());
    m_pRuntimeParam->SetIpcID("");
    NFS_LOG_INFO(log, kLogRpc, "[%s] Input buf size(%u) pos(%u)", pInput->GetFilledBufferSize(),
                 pInput->GetBufferIndex());
    if (!FindNext(log, pSocket)) {
        NFS_LOG_INFO(log, kLogRpc, "[%s] Cannot find valid header!!");
        return Next::kReceive;
    }
    return ProcessFound(log, pSocket);
}

/// Moves the read position of the socket's input to the next call for the program that it serves.
bool CRpcServer::FindNext(const LogContext& log, CSocket* pSocket) {
    return LookForValidHeader(log.pRuntimeParam, log.pLogArgu, pSocket->GetProgId(), pSocket->GetType(),
                              pSocket->GetInputStream(), pSocket->GetOutputStream());
}

/// Answers the call at the read position.
CRpcServer::Next CRpcServer::ProcessFound(const LogContext& log, CSocket* pSocket) {
    const bool bStream = pSocket->GetType() == CSocket::kStream;
    const int iStatus = bStream ? ProcessCurrent(pSocket) : AnswerDatagram(pSocket);
    bool bBroken = false;
    if (iStatus == kProgTruncated) {
        bBroken = !WaitForRest(log, pSocket);
    } else if (m_Current.bDone) {
        const unsigned int nCall = pSocket->GetInputStream()->GetBufferIndex() - m_Current.iStart;
        const bool bWhole = m_Current.bArgumentsLeft && m_Current.mark.IsPlausible();
        m_Current.call.nBytesIn = bWhole ? m_Current.mark.GetSize() : nCall;
        bBroken = bStream && m_Current.bArgumentsLeft && !PassUnread(pSocket->GetInputStream());
    }
    NFS_LOG_INFO(log, kLogRpc, "[%s] Output buf size(%u)", pSocket->GetOutputStream()->GetBufferSize());
    if (bBroken) {
        return Next::kBroken;
    }
    return iStatus != kProgTruncated && bStream ? Next::kCall : Next::kReceive;
}

/// Decodes and executes the call at the read position. Returns its ProgramStatus.
int CRpcServer::ProcessCurrent(CSocket* pSocket) {
    CInputStream* pInput = pSocket->GetInputStream();
    m_Current = Current{};
    m_Current.iStart = pInput->GetBufferIndex();
    if (pSocket->GetType() == CSocket::kStream) {
        m_Current.mark = CRecordMark(WordAt(pInput->GetCurrentBuffer()));
    }
    // Behind a fragment that is not the record's last stands another mark: never an argument.
    const bool bInFragment = m_Current.mark.IsPlausible() && !m_Current.mark.IsLast();
    const unsigned int nHidden = bInFragment ? pInput->HideBehind(m_Current.GetRecordEnd()) : 0;
    const int iStatus = Process(m_pRuntimeParam.get(), pSocket->GetProgId(), pSocket->GetType(), pInput,
                                pSocket->GetOutputStream(), pSocket->GetRemoteAddress());
    pInput->Unhide(nHidden);
    return iStatus;
}

/// For a call that ran short: drops what there is of its reply, and finds out whether its rest is still to come. If it
/// is, or if no other call is to be seen behind it, the call begins again when more has come; else that other call
/// does. False if the call cannot be completed at all.
bool CRpcServer::WaitForRest(const LogContext& log, CSocket* pSocket) {
    CInputStream* pInput = pSocket->GetInputStream();
    pSocket->GetOutputStream()->ResetBuffer();
    const CRecordMark& mark = m_Current.mark;
    const bool bComing = GetStillToCome(*pInput) > 0;
    if (mark.IsPlausible() && !mark.IsLast() && !bComing) {
        return false;  // the fragment is here and the arguments run past its end
    }
    // While the rest is to come, the bytes that are here are the call's own: data that may look like a call.
    if (bComing || !FindNext(log, pSocket)) {
        pInput->SetBufferIndex(m_Current.iStart);
        NFS_LOG_INFO(log, kLogRpc, "[%s] Reset input buffer postion");
    }
    return true;
}

/// How many bytes of the call's record, by a plausible mark, have not come yet.
unsigned int CRpcServer::GetStillToCome(const CInputStream& input) const {
    const unsigned int iReceivedEnd = input.GetBufferIndex() + input.GetFilledBufferSize();
    const bool bComing = m_Current.mark.IsPlausible() && m_Current.GetRecordEnd() > iReceivedEnd;
    return bComing ? m_Current.GetRecordEnd() - iReceivedEnd : 0;
}

/// For a call that was answered without all of its arguments being read: passes over the rest of its record, as far as
/// its mark is plausible. False if there is more of the record than that: another fragment, of which nobody can tell
/// the end.
bool CRpcServer::PassUnread(CInputStream* pInput) {
    const unsigned int iPosition = pInput->GetBufferIndex();
    if (!m_Current.mark.IsPlausible() || m_Current.GetRecordEnd() <= iPosition) {
        return true;
    }
    pInput->Discard(m_Current.GetRecordEnd() - iPosition);
    return m_Current.mark.IsLast();
}

// ---- Datagrams

/// Answers the call at the read position of a datagram; one that repeats an earlier one with the reply that it got
/// then. Returns a ProgramStatus.
int CRpcServer::AnswerDatagram(CSocket* pSocket) {
    CReplyCache* pReplies = FindReplyCache(pSocket);
    if (pReplies == nullptr) {
        return ProcessCurrent(pSocket);
    }
    CInputStream* pInput = pSocket->GetInputStream();
    COutputStream* pOutput = pSocket->GetOutputStream();
    const CReplyCache::Datagram datagram{pSocket->GetRemoteAddress(),
                                         pSocket->GetRemotePort(),
                                         {pInput->GetCurrentBuffer(), pInput->GetFilledBufferSize()}};
    if (const std::string* psReply = pReplies->Find(datagram, CReplyCache::Clock::now())) {
        pOutput->Write(psReply->data(), static_cast<unsigned int>(psReply->size()));
        pInput->Skip(pInput->GetFilledBufferSize());
        m_pStatistics->CountRepeated();
        return kProgHandled;
    }
    const int iStatus = ProcessCurrent(pSocket);
    if (iStatus == kProgHandled) {
        pReplies->Add(datagram, {pOutput->GetBuffer(), pOutput->GetBufferSize()}, CReplyCache::Clock::now());
        m_pStatistics->NoteKeptReplies(pSocket->GetProgId(), pReplies->GetCount(), pReplies->GetBytes());
    }
    return iStatus;
}

/// Where the replies to calls like the one at the read position are kept; null if its repetition does no harm.
CReplyCache* CRpcServer::FindReplyCache(CSocket* pSocket) {
    const char* pcCall = pSocket->GetInputStream()->GetCurrentBuffer();
    CRpcProg* pProg = FindProgram(pSocket->GetProgId());
    if (pProg == nullptr ||
        !pProg->IsModifying(WordAt(pcCall + kDatagramLayout.iVersion), WordAt(pcCall + kDatagramLayout.iProcedure))) {
        return nullptr;
    }
    return &m_Replies[pSocket->GetProgId() - kFirstProgramId];
}

// ---- Calls

bool CRpcServer::LookForValidHeader(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, unsigned long lProgId,
                                    int iSocketType, CInputStream* pInput, COutputStream* /*pOutput*/) {
    const LogContext log{m_pUtilities, pRuntimeParam, pLogArgu};
    const HeaderLayout& layout = iSocketType == CSocket::kStream ? kStreamLayout : kDatagramLayout;
    CRpcProg* pProg = FindProgram(lProgId);
    const unsigned int iStart = pInput->GetBufferIndex();
    // What was searched before holds no call; only its log lines, where they are wanted, are written again.
    const bool bTell = log.IsWanted(CRuntimeParam::kLogRpc);
    const unsigned int iBegin = bTell ? iStart : pInput->GetSearchStart(iStart);
    const unsigned int iOffset = bTell ? FindHeaderAloud(log, *pInput, layout, lProgId, pProg)
                                       : FindHeader(*pInput, iBegin - iStart, layout, lProgId, pProg);
    pInput->NoteSearched(iBegin, iStart + iOffset);
    if (pInput->GetFilledBuffer(iOffset, layout.nSpan) == nullptr) {
        return false;
    }
    if (iOffset != 0) {
        pInput->SetBufferIndex(iStart + iOffset);
        NFS_LOG_INFO(log, kLogRpc, "[%s] Skipped %u data for next vaild header", iOffset);
    }
    return true;
}

int CRpcServer::Process(CRuntimeParam* pRuntimeParam, unsigned long /*lProgId*/, int iSocketType, CInputStream* pInput,
                        COutputStream* pOutput, const char* pcRemoteAddress) {
    const LogArgu logArgu{"RpcServer.Process"};
    const LogContext log{m_pUtilities, pRuntimeParam, &logArgu};
    RPC_STM_HEADER header{};
    const int iHeaderStatus = RunGuarded(log, [&] { return ReadHeader(iSocketType, pInput, &header); });
    LogHeader(log, iSocketType, header);
    if (iHeaderStatus == kProgTruncated) {
        return iHeaderStatus;  // whoever is called, and with what, is known when all of the head has come
    }
    const unsigned int iReply = pOutput->GetBufferIndex();
    if (iSocketType == CSocket::kStream) {
        pOutput->Write(header.lHeader);  // holds the place of the reply's own mark
    }
    const OPAQUE_AUTH& verifier = header.call.verf;
    pOutput->WriteWords(header.call.lXID, kRpcReply, kMsgAccepted, verifier.lFlavor, verifier.lLength);
    ProcessParam param{header.call.lVers, header.call.lProc, pcRemoteAddress, pRuntimeParam};
    param.nStillToCome = GetStillToCome(*pInput);
    if (iSocketType == CSocket::kDatagram) {
        param.nReplyLimit = kLargestDatagram;
    }
    const unsigned int iAcceptStatus = pOutput->GetBufferIndex();
    const int iStatus = Dispatch(log, iHeaderStatus, header.call, &param, pInput, pOutput);
    m_Current.bArgumentsLeft = param.bArgumentsLeft;
    if (iStatus != kProgTruncated) {
        NoteExecuted(header.call, iReply, iAcceptStatus, pOutput);
    }
    if (iSocketType == CSocket::kStream) {
        const unsigned int nLength = pOutput->GetBufferIndex() - iReply;
        pOutput->Seek(static_cast<int>(iReply), 0);
        pOutput->Write(nLength + kReplyMarkOffset);
    }
    return iStatus;
}

/// Writes the accept status and, through the program, the body of a reply.
int CRpcServer::Dispatch(const LogContext& log, int iStatus, const RPC_HEADER& call, ProcessParam* pParam,
                         CInputStream* pInput, COutputStream* pOutput) {
    if (iStatus == kProgGarbageArgs) {
        pOutput->Write(kGarbageArgs);
        pParam->bArgumentsLeft = true;
        return iStatus;
    }
    CRpcProg* pProg = FindProgram(call.lProg);
    if (pProg == nullptr) {
        pOutput->Write(kProgUnavail);
        pParam->bArgumentsLeft = true;
        return iStatus;
    }
    const int iAcceptStatus = static_cast<int>(pOutput->GetBufferIndex());
    pOutput->Write(kRpcSuccess);
    iStatus = RunGuarded(log, [&] { return pProg->Process(pInput, pOutput, pParam); });
    if (iStatus == kProgNotImplemented || iStatus == kProgGarbageArgs) {
        pOutput->Seek(iAcceptStatus, 0);
        pOutput->Write(iStatus == kProgNotImplemented ? kProcUnavail : kGarbageArgs);
        pParam->bArgumentsLeft = true;
    }
    return iStatus;
}

// ---- Counting

std::shared_ptr<void> CRpcServer::SocketOpened(CSocket* pSocket) {
    return pSocket->GetType() == CSocket::kStream
               ? CCallStatistics::CountConnection(m_pStatistics, pSocket->GetProgId())
               : nullptr;
}

/// Keeps what is to be counted of a call whose reply stands in the output, from iReply on.
void CRpcServer::NoteExecuted(const RPC_HEADER& call, unsigned int iReply, unsigned int iAcceptStatus,
                              COutputStream* pOutput) {
    const auto isZero = [pOutput](unsigned int iPosition) {
        return iPosition + kWordSize <= pOutput->GetBufferSize() && WordAt(pOutput->GetBuffer() + iPosition) == 0;
    };
    const std::size_t iPlace = CCallStatistics::FindPlace(call.lProg, call.lVers, call.lProc);
    const bool bStatus = CCallStatistics::HasStatus(iPlace);
    m_Current.call.iPlace = iPlace;
    m_Current.call.bError = !isZero(iAcceptStatus) || (bStatus && !isZero(iAcceptStatus + kWordSize));
    m_Current.call.nBytesOut = pOutput->GetBufferSize() - iReply;
    m_Current.bDone = true;
}

/// Counts the call that was executed last, if it was not counted before: nothing may have been executed since.
void CRpcServer::CountExecuted(Clock::duration time) {
    if (m_Current.bDone) {
        m_Current.bDone = false;
        m_Current.call.lNanoseconds =
            static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
        m_pStatistics->Count(m_Current.call);
    }
}

CRpcProg* CRpcServer::FindProgram(unsigned long lProgId) const {
    const unsigned long i = lProgId - kFirstProgramId;
    return i < kProgramIdCount ? m_pProgTable[i] : nullptr;
}
