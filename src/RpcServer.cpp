// Finding calls in received bytes, dispatching them, and building their replies (RFC 5531).
#include "RpcServer.h"

#include <cstddef>
#include <cstring>

#include "DataException.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "RpcMessage.h"
#include "RpcProg.h"
#include "RuntimeParam.h"
#include "Socket.h"
#include "Utilities.h"

namespace {

/// The answer of programs that accept any version or procedure.
constexpr unsigned int kAny = 0xFFFFFFFFU;

/// Program numbers and procedures that the scanner reports when it passes over them: RFC 5531 gives numbers of this
/// kind to the well-known programs, and none of those has procedures beyond.
constexpr unsigned int kFirstPlausibleProgram = 100000;
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
constexpr unsigned int kMarkSize = offsetof(RPC_STM_HEADER, call);
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
    if (iOnlyVersion != kAny && iOnlyVersion != iVersion) {
        return false;
    }
    const unsigned int nProcedures = pProg->GetMaxSupportProc();
    return nProcedures == kAny || iProcedure < nProcedures;
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

}  // namespace

CRpcServer::CRpcServer(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(std::make_unique<CRuntimeParam>("", pRuntimeParam->GetLogControl())) {}

CRpcServer::~CRpcServer() = default;

void CRpcServer::Set(int iProgId, CRpcProg* pProg) {
    const unsigned int i = static_cast<unsigned int>(iProgId) - kFirstProgram;
    if (i < kProgramCount) {
        const MutexLock lock(m_hMutex);
        m_pProgTable[i] = pProg;
    }
}

void CRpcServer::SetLogControl(int iLogControl) {
    m_pRuntimeParam->SetLogControl(iLogControl);
}

void CRpcServer::SocketReceived(CSocket* pSocket) {
    LogArgu logArgu{"RpcServer.SocketReceived"};
    const MutexLock lock(m_hMutex);
    m_pRuntimeParam->SetID(pSocket->GetRemoteAddress());
    while (ProcessNext(&logArgu, pSocket)) {
    }
}

/// Answers the next call of the socket's input. False when there is nothing more to do before the next receive.
bool CRpcServer::ProcessNext(LogArgu* pLogArgu, CSocket* pSocket) {
    CRuntimeParam* pRuntimeParam = m_pRuntimeParam.get();
    CInputStream* pInput = pSocket->GetInputStream();
    COutputStream* pOutput = pSocket->GetOutputStream();
    const unsigned long lProgId = pSocket->GetProgId();
    const int iType = pSocket->GetType();
    if (pInput->GetFilledBufferSize() == 0) {
        return false;
    }
    if (IsLogRpc()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Input buf size(%u) pos(%u)", pLogArgu->pcName,
                              pInput->GetFilledBufferSize(), pInput->GetBufferIndex());
    }
    if (!LookForValidHeader(pRuntimeParam, pLogArgu, lProgId, iType, pInput, pOutput)) {
        if (IsLogRpc()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Cannot find valid header!!", pLogArgu->pcName);
        }
        return false;
    }
    const unsigned int iStart = pInput->GetBufferIndex();
    const int iStatus = Process(pRuntimeParam, lProgId, iType, pInput, pOutput, pSocket->GetRemoteAddress());
    if (iStatus == kProgTruncated && !LookForValidHeader(pRuntimeParam, pLogArgu, lProgId, iType, pInput, pOutput)) {
        // The rest of the call is still to come: begin again then.
        pOutput->ResetBuffer();
        pInput->SetBufferIndex(iStart);
        if (IsLogRpc()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reset input buffer postion", pLogArgu->pcName);
        }
    }
    if (IsLogRpc()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Output buf size(%u)", pLogArgu->pcName, pOutput->GetBufferSize());
    }
    pSocket->Send();
    return iStatus == kProgHandled && iType != CSocket::kDatagram;
}

bool CRpcServer::LookForValidHeader(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, unsigned long lProgId,
                                    int iSocketType, CInputStream* pInput, COutputStream* /*pOutput*/) {
    const HeaderLayout& layout = iSocketType == CSocket::kStream ? kStreamLayout : kDatagramLayout;
    const bool bLog = IsLogRpc();
    const unsigned int iStart = pInput->GetBufferIndex();
    CRpcProg* pProg = FindProgram(lProgId);
    // What was searched before holds no call; only its log lines, where they are wanted, are written again.
    const unsigned int iBegin = bLog ? iStart : pInput->GetSearchStart(iStart);
    unsigned int iOffset = iBegin - iStart;
    for (;; ++iOffset) {
        if (!bLog) {
            iOffset = NextCandidate(*pInput, iOffset, layout, lProgId);
        }
        const char* pcBytes = pInput->GetFilledBuffer(iOffset, layout.nSpan);
        if (pcBytes == nullptr) {
            break;
        }
        const unsigned int iProgram = WordAt(pcBytes + layout.iProgram);
        if (iProgram == lProgId) {
            if (IsPlausible(pProg, WordAt(pcBytes + layout.iVersion), WordAt(pcBytes + layout.iProcedure))) {
                break;
            }
        } else if (bLog && iProgram >= kFirstPlausibleProgram && iProgram <= kLastPlausibleProgram) {
            const unsigned int iProcedure = WordAt(pcBytes + layout.iProcedure);
            if (iProcedure <= kLastPlausibleProcedure) {
                m_pUtilities->LogInfo(pRuntimeParam,
                                      "[%s] A possible valid header may be skipped, ProcId=%u, ProcId=%u",
                                      pLogArgu->pcName, iProgram, iProcedure);
            }
        }
    }
    pInput->NoteSearched(iBegin, iStart + iOffset);
    if (pInput->GetFilledBuffer(iOffset, layout.nSpan) == nullptr) {
        return false;
    }
    if (iOffset != 0) {
        pInput->SetBufferIndex(iStart + iOffset);
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Skipped %u data for next vaild header", pLogArgu->pcName,
                                  iOffset);
        }
    }
    return true;
}

int CRpcServer::Process(CRuntimeParam* pRuntimeParam, unsigned long /*lProgId*/, int iSocketType, CInputStream* pInput,
                        COutputStream* pOutput, const char* pcRemoteAddress) {
    RPC_STM_HEADER header{};
    const int iHeaderStatus = ReadHeader(pRuntimeParam, iSocketType, pInput, &header);
    if (IsLogRpc()) {
        LogHeader(pRuntimeParam, iSocketType, header);
    }
    const unsigned int iReply = pOutput->GetBufferIndex();
    if (iSocketType == CSocket::kStream) {
        pOutput->Write(header.lHeader);  // holds the place of the reply's own mark
    }
    pOutput->Write(header.call.lXID);
    pOutput->Write(kRpcReply);
    pOutput->Write(kMsgAccepted);
    pOutput->Write(header.call.verf.lFlavor);
    pOutput->Write(header.call.verf.lLength);
    const int iStatus = Dispatch(pRuntimeParam, iHeaderStatus, header.call, pInput, pOutput, pcRemoteAddress);
    if (iSocketType == CSocket::kStream) {
        const unsigned int nLength = pOutput->GetBufferIndex() - iReply;
        pOutput->Seek(static_cast<int>(iReply), 0);
        pOutput->Write(nLength + kReplyMarkOffset);
    }
    return iStatus;
}

/// Reads the head of a call as far as it goes; what is missing stays zero.
int CRpcServer::ReadHeader(CRuntimeParam* pRuntimeParam, int iSocketType, CInputStream* pInput,
                           RPC_STM_HEADER* pHeader) {
    RPC_HEADER& call = pHeader->call;
    try {
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
    } catch (...) {
        return LogException(pRuntimeParam);
    }
    return kProgHandled;
}

/// For a handler of any exception: logs it and tells the status it stands for.
int CRpcServer::LogException(CRuntimeParam* pRuntimeParam) {
    static constexpr const char* kTag = "RpcServer.Process";
    const bool bLog = m_pUtilities != nullptr && pRuntimeParam->IsLogError();
    try {
        throw;
    } catch (const CDataTruncatedExpt& truncated) {
        if (bLog) {
            m_pUtilities->LogError(pRuntimeParam, "[%s] %s", kTag, truncated.what());
        }
        return kProgTruncated;
    } catch (...) {
        if (bLog) {
            m_pUtilities->LogError(pRuntimeParam, "[%s] Unknown exception", kTag);
        }
        return kProgGarbageArgs;
    }
}

void CRpcServer::LogHeader(CRuntimeParam* pRuntimeParam, int iSocketType, const RPC_STM_HEADER& header) {
    m_pUtilities->LogInfo(pRuntimeParam, "[%s] request header", "RpcServer.Process");
    if (iSocketType == CSocket::kStream) {
        m_pUtilities->LogInfo(pRuntimeParam, " --- header=%u", header.lHeader);
    }
    m_pUtilities->LogInfo(pRuntimeParam, " --- nXID=%u", header.call.lXID);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nmsg=%u", header.call.lMsg);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nrpcvers=%u", header.call.lRpcvers);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nprog=%u", header.call.lProg);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nvers=%u", header.call.lVers);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nproc=%u", header.call.lProc);
}

/// Writes the accept status and, through the program, the body of a reply. A call whose head was cut short goes to its
/// program as well, which runs short in its turn.
int CRpcServer::Dispatch(CRuntimeParam* pRuntimeParam, int iStatus, const RPC_HEADER& call, CInputStream* pInput,
                         COutputStream* pOutput, const char* pcRemoteAddress) {
    if (iStatus == kProgGarbageArgs) {
        pOutput->Write(kGarbageArgs);
        return iStatus;
    }
    CRpcProg* pProg = FindProgram(call.lProg);
    if (pProg == nullptr) {
        pOutput->Write(kProgUnavail);
        return iStatus;
    }
    const int iAcceptStatus = static_cast<int>(pOutput->GetBufferIndex());
    pOutput->Write(kRpcSuccess);
    ProcessParam param{call.lVers, call.lProc, pcRemoteAddress, pRuntimeParam};
    try {
        iStatus = pProg->Process(pInput, pOutput, &param);
    } catch (...) {
        iStatus = LogException(pRuntimeParam);
    }
    if (iStatus == kProgNotImplemented || iStatus == kProgGarbageArgs) {
        pOutput->Seek(iAcceptStatus, 0);
        pOutput->Write(iStatus == kProgNotImplemented ? kProcUnavail : kGarbageArgs);
    }
    return iStatus;
}

CRpcProg* CRpcServer::FindProgram(unsigned long lProgId) const {
    const unsigned long i = lProgId - kFirstProgram;
    return i < kProgramCount ? m_pProgTable[i] : nullptr;
}

bool CRpcServer::IsLogRpc() const {
    return m_pUtilities != nullptr && m_pRuntimeParam->IsLogRpc();
}
