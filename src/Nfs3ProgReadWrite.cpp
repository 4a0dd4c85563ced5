// NFS version 3: READ, WRITE and COMMIT (RFC 1813, 3.3.6, 3.3.7, 3.3.21).
//
// A READ's data goes from the file into the reply buffer, a WRITE's from the call's buffer into the file: neither is
// copied on the way.
#include "Nfs3Prog.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <unistd.h>

#include "DataException.h"
#include "DeviceAnswer.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "PathProbe.h"
#include "RedirectedFile.h"
#include "Utilities.h"

namespace {

/// What stands before the data in a READ's reply: status, attributes flag, count, end-of-file flag, data length.
constexpr unsigned int kReadHeadSize = 5 * sizeof(unsigned int);

/// A redirected file may deliver twice what it was asked for, zeros at its tail.
constexpr unsigned int kReadRoomFactor = 2;
static_assert(CRedirectedFile::GetReadRoom(CNfs3Prog::kMaxReadSize) == kReadRoomFactor * CNfs3Prog::kMaxReadSize);

/// WRITE always says so: what it answered is with the host (RFC 1813, stable_how).
constexpr unsigned int kFileSync = 2;

/// The most data, a multiple of four, that a READ's reply can carry whose head begins at that place of the output.
unsigned int GetDataLimit(const ProcessParam& param, unsigned int iHead) {
    const unsigned int nBefore = iHead + kReadHeadSize;
    return param.nReplyLimit > nBefore ? (param.nReplyLimit - nBefore) & ~3U : 0;
}

/// The bytes that a WRITE stores: its opaque data and, where the count goes beyond that, what follows it among the
/// bytes received, then zeros.
///
/// Received is what stands in the buffer when the call is executed: the rest of the call's own record, which is waited
/// for (NeedRecord), so that it does not matter in what pieces it came, and the calls behind it that happen to be here
/// already.
class WriteData {
public:
    WriteData(const opaque& data, const CInputStream& input, unsigned int iCount) {
        const auto nBehind = static_cast<unsigned int>(input.GetCurrentBuffer() - data.pBuf);
        const unsigned int nReceived = nBehind + input.GetFilledBufferSize();
        m_pcBytes = data.pBuf;
        if (iCount > nReceived) {
            std::memcpy(m_vcFilledUp.data(), data.pBuf, nReceived);
            std::memset(m_vcFilledUp.data() + nReceived, 0, iCount - nReceived);
            m_pcBytes = m_vcFilledUp.data();
        }
    }
    WriteData(const WriteData&) = delete;
    WriteData& operator=(const WriteData&) = delete;

    const char* Get() const { return m_pcBytes; }

private:
    const char* m_pcBytes;
    std::array<char, CNfs3Prog::kMaxWriteSize> m_vcFilledUp;  // NOLINT: filled only where it is used
};

/// A WRITE that stores more than its opaque data and what has come behind that is not complete while more of its record
/// is on its way.
void NeedRecord(const ProcessParam& param, const CInputStream& input, const opaque& data, unsigned int iCount) {
    const auto nBehind = static_cast<unsigned int>(input.GetCurrentBuffer() - data.pBuf);
    const unsigned int nReceived = nBehind + input.GetFilledBufferSize();
    const unsigned int nWanted = std::min(iCount, CNfs3Prog::kMaxWriteSize);
    if (nWanted > nReceived && param.nStillToCome > 0) {
        throw CDataTruncatedExpt(std::min(nWanted, nReceived + param.nStillToCome), nReceived);
    }
}

/// The largest file of the file system that a path lies on.
unsigned long long GetMaxFileSize(const char* pcPath, const FoundStatus& found) {
    if (!found.bKnown) {
        return CUtilities::GetMaxFileSize(pcPath);
    }
    thread_local CDeviceAnswer last;
    if (const auto lKept = last.Find(found.status.st_dev)) {
        return *lKept;
    }
    const unsigned long long lMaxSize = CUtilities::GetMaxFileSize(pcPath, &found);
    last.Keep(found.status.st_dev, lMaxSize);
    return lMaxSize;
}

}  // namespace

/// The arguments of a READ and what it read.
struct CNfs3Prog::ReadCall {
    std::string sPath;
    unsigned long lOffset = 0;
    unsigned int iCount = 0;
    FoundStatus found;  ///< what the look at the path saw
    unsigned int iRead = 0;
    bool bEof = true;
};

/// The arguments of a WRITE and what it wrote.
struct CNfs3Prog::WriteCall {
    std::string sPath;
    unsigned long lOffset = 0;
    unsigned int iCount = 0;
    unsigned int iStable = 0;  ///< read and ignored: every WRITE is FILE_SYNC
    opaque data;
    FoundStatus found;  ///< what the look at the path saw
    unsigned int iWritten = 0;
};

// The data is read into its place first and the head written before it then, so that a failure leaves nothing behind
// its reply.
int CNfs3Prog::ProcedureREAD(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    ReadCall call;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &call.sPath);
    Read(pInput, &call.lOffset);
    Read(pInput, &call.iCount);

    nfsstat3 iStatus = CheckExisting(pParam, call.sPath, false, &call.found);
    if (iStatus == NFS3_OK) {
        iStatus = ReadIntoReply(pParam, pOutput, &call);
    }
    if (iStatus != NFS3_OK) {
        NFS_LOG_ERROR(log, "[%s] Read fail");
        WriteStatusAndAttributes(pOutput, iStatus);
        return EndProcedure(log, iStatus);
    }
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Read=%u (eof=%s)", call.iRead, call.bEof ? "T" : "F");

    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, post_op_attr{});
    Write(pOutput, call.iRead);
    Write(pOutput, call.bEof);
    Write(pOutput, opaque{nullptr, call.iRead}, true);
    pOutput->Write(nullptr, call.iRead);  // they are there already
    pOutput->WriteRemainOpaque(static_cast<int>(call.iRead));
    return EndProcedure(log, iStatus);
}

/// Reads to where the data will stand in the reply, without moving its write position.
nfsstat3 CNfs3Prog::ReadIntoReply(ProcessParam* pParam, COutputStream* pOutput, ReadCall* pCall) {
    const LogContext log = GetLog(pParam);
    const char* pcPath = pCall->sPath.c_str();
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Offset=%llu, length=%u", static_cast<unsigned long long>(pCall->lOffset),
                 pCall->iCount);
    const unsigned int nFree = pOutput->GetFreeBufferSize();
    const unsigned int nRoom = nFree > kReadHeadSize ? nFree - kReadHeadSize : 0;
    if (nRoom < pCall->iCount) {
        NFS_LOG_ERROR(log, "[%s] Count bigger than free buffer (path=%s, offset=%llu length=%u)", pcPath,
                      static_cast<unsigned long long>(pCall->lOffset), pCall->iCount);
        return NFS3ERR_INVAL;
    }
    if (pCall->iCount == 0) {
        return NFS3_OK;
    }
    const unsigned int nMost = std::min(nRoom, GetDataLimit(*pParam, pOutput->GetBufferIndex()));
    const unsigned int iLength = std::min({pCall->iCount, kMaxReadSize, nRoom / kReadRoomFactor, nMost});
    const int iRead =
        m_pUtilities->ReadFile(log.pRuntimeParam, log.pLogArgu, pcPath, pCall->lOffset, SEEK_SET,
                               pOutput->GetCurrentBuffer() + kReadHeadSize, iLength, &pCall->bEof, &pCall->found);
    if (iRead < 0) {
        NFS_LOG_ERROR(log, "[%s] Read return -1 (path=%s, offset=%llu length=%u)", pcPath,
                      static_cast<unsigned long long>(pCall->lOffset), iLength);
        return NFS3ERR_INVAL;
    }
    pCall->iRead = static_cast<unsigned int>(iRead);
    if (pCall->iRead > nMost) {  // more came than was asked for: the client reads on from what it gets
        pCall->iRead = nMost;
        pCall->bEof = false;
    }
    return NFS3_OK;
}

int CNfs3Prog::ProcedureWRITE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    WriteCall call;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &call.sPath);
    Read(pInput, &call.lOffset);
    Read(pInput, &call.iCount);
    Read(pInput, &call.iStable);
    Read(pInput, &call.data);
    NeedRecord(*pParam, *pInput, call.data, call.iCount);

    nfsstat3 iStatus = CheckExisting(pParam, call.sPath, false, &call.found);
    if (IsReadOnly(*pParam)) {
        iStatus = NFS3ERR_ACCES;
    }
    if (iStatus == NFS3_OK) {
        iStatus = WriteFromCall(log, pInput, &call);
    }

    WriteStatusAndWcc(pOutput, iStatus);
    if (iStatus != NFS3_OK) {
        NFS_LOG_ERROR(log, "[%s] Write fail");
        return EndProcedure(log, iStatus);
    }
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Write=%u", call.iWritten);
    Write(pOutput, call.iWritten);
    Write(pOutput, kFileSync);
    Write(pOutput, m_iSysUpTime);
    return EndProcedure(log, iStatus);
}

/// Stores as many bytes as the count says, up to the most of one WRITE.
nfsstat3 CNfs3Prog::WriteFromCall(const LogContext& log, CInputStream* pInput, WriteCall* pCall) {
    const char* pcPath = pCall->sPath.c_str();
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Offset=%llu, length=%u, count=%u",
                 static_cast<unsigned long long>(pCall->lOffset), pCall->data.iBufLen, pCall->iCount);
    const unsigned long long lMaxSize = GetMaxFileSize(pcPath, pCall->found);
    if (pCall->lOffset > lMaxSize || pCall->iCount > lMaxSize - pCall->lOffset) {
        return NFS3ERR_FBIG;
    }
    if (pCall->iCount == 0) {
        return NFS3_OK;
    }
    const unsigned int iLength = std::min(pCall->iCount, kMaxWriteSize);
    const WriteData data(pCall->data, *pInput, iLength);
    const int iWritten = m_pUtilities->WriteFile(log.pRuntimeParam, log.pLogArgu, pcPath, pCall->lOffset, SEEK_SET,
                                                 data.Get(), iLength, &pCall->found);
    if (iWritten < 0) {
        return NFS3ERR_INVAL;
    }
    pCall->iWritten = static_cast<unsigned int>(iWritten);
    return NFS3_OK;
}

// Not served, as no WRITE leaves anything to commit: the handle is passed over, and so no path is found.
int CNfs3Prog::ProcedureCOMMIT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    COpaquePath path;
    Read(pInput, &path, true);
    pInput->Skip(sizeof(unsigned long));  // offset
    pInput->Skip(sizeof(unsigned int));   // count

    const nfsstat3 iStatus = CheckUnresolved(pParam);

    WriteStatusAndWcc(pOutput, iStatus);
    if (iStatus == NFS3_OK) {
        Write(pOutput, 0UL);  // the verifier: not that of WRITE
    }
    return EndProcedure(log, iStatus);
}
