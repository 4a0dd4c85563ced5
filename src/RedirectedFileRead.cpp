// Redirected files: finding segments and reading their bytes.
#include "RedirectedFile.h"

#include <algorithm>
#include <cstring>

#include "DescriptorCache.h"
#include "InfoFileReader.h"
#include "Log.h"

namespace {

constexpr LogArgu kGetSegment{"RedirectedFile.GetSegment"};
constexpr LogArgu kGetNextSegment{"RedirectedFile.GetNextSegment"};
constexpr LogArgu kRead{"RedirectedFile.Read"};

}  // namespace

// ---- Lookup

void CRedirectedFile::GetSegment(CRuntimeParam* pRuntimeParam, long long iOffset, ProcSegment* pProcSegment) {
    const CCachedFile file = GetInfoFile({m_pUtilities, pRuntimeParam, &kGetSegment}, false);
    pProcSegment->index = -1;
    if (file.IsOpen()) {
        CInfoFileReader reader(file, 0);
        FindInInfoFile(pRuntimeParam, reader, iOffset, pProcSegment);
    }
    if (pProcSegment->index < 0) {
        FindInList(iOffset, pProcSegment);
    }
}

void CRedirectedFile::GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pProcSegment) {
    if (pProcSegment->index < 0) {
        return;
    }
    // Asked for at each step, whether or not it is needed: an info file that is missing is logged each time.
    const CCachedFile file = GetInfoFile({m_pUtilities, pRuntimeParam, &kGetNextSegment}, false);
    if (pProcSegment->iNextRecord < 0) {
        FindNextInList(pProcSegment);
        return;
    }
    if (!file.IsOpen()) {
        pProcSegment->index = -1;
        return;
    }
    CInfoFileReader reader(file, pProcSegment->iNextRecord);
    FindNextInInfoFile(pRuntimeParam, reader, pProcSegment);
}

/// In the list there is all of a map without an info file. With one there is what could not be recorded there because
/// it could not be opened just then; that is looked up after the info file.
void CRedirectedFile::FindInList(std::int64_t iOffset, ProcSegment* pProcSegment) const {
    const MutexLock lock(m_hMutex);
    pProcSegment->index = m_vAllCachedSegment.Find(iOffset);
    pProcSegment->iNextRecord = -1;
    m_vAllCachedSegment.Get(pProcSegment->index, &pProcSegment->segment);
}

void CRedirectedFile::FindNextInList(ProcSegment* pProcSegment) const {
    const MutexLock lock(m_hMutex);
    if (!m_vAllCachedSegment.Get(++pProcSegment->index, &pProcSegment->segment)) {
        pProcSegment->index = -1;
    }
}

void CRedirectedFile::FindInInfoFile(CRuntimeParam* pRuntimeParam, CInfoFileReader& reader, std::int64_t iOffset,
                                     ProcSegment* pProcSegment) const {
    const LogContext log{m_pUtilities, pRuntimeParam, &kGetSegment};
    pProcSegment->index = -1;
    reader.Seek(log, EstimateRecord(iOffset));
    // A file full of garbage may be searched to its end, however long it is; closing ends that.
    Segment segment;
    while (!m_bClosed && reader.Next(log, &segment)) {
        if (segment.Covers(iOffset)) {
            pProcSegment->index = reader.GetPosition() / kSegmentRecordSize - 1;
            pProcSegment->segment = segment;
            pProcSegment->iNextRecord = reader.GetPosition();
            return;
        }
    }
}

void CRedirectedFile::FindNextInInfoFile(CRuntimeParam* pRuntimeParam, CInfoFileReader& reader,
                                         ProcSegment* pProcSegment) const {
    const LogContext log{m_pUtilities, pRuntimeParam, &kGetNextSegment};
    if (m_bClosed || !reader.Next(log, &pProcSegment->segment)) {
        pProcSegment->index = -1;
        return;
    }
    ++pProcSegment->index;
    pProcSegment->iNextRecord = reader.GetPosition();
}

/// Where the record of a virtual offset stands if all records before it, from the check point or the start on, are
/// of full size. Shorter ones make it stand further on.
std::int64_t CRedirectedFile::EstimateRecord(std::int64_t iOffset) const {
    CheckPointSegment checkPoint;
    if (m_iInfoFileCheckPointSize <= iOffset) {
        const MutexLock lock(m_hMutex);
        m_vInfoFileCheckPoint.FindLast(iOffset, &checkPoint);  // none: the start
    }
    return (iOffset - checkPoint.iOffset) / m_iInfoFileSegmentSize * kSegmentRecordSize + checkPoint.iFileOffset;
}

// ---- Reading

/// One read under way: the place in the map that it has come to, and what it has delivered.
class CRedirectedFile::Reading {
public:
    /// All are used to the end of the read. The buffer has GetReadRoom(iLen) bytes.
    Reading(CRedirectedFile& file, const LogContext& log, std::uint64_t iOffset, void* pvBuffer, unsigned int iLen)
        : m_RedirectedFile(file),
          m_Log(log),
          m_iAsked(iOffset),
          m_iPos(static_cast<std::int64_t>(iOffset)),
          m_pcBuffer(static_cast<char*>(pvBuffer)),
          m_iLen(iLen),
          m_Reader(file.GetInfoFile({log.pLog, log.pRuntimeParam, &kGetSegment}, false), 0) {}

    /// The bytes delivered, for a read whose predecessor ended at iLastPos.
    unsigned int Run(std::int64_t iLastPos) {
        FindFirst();
        ReadSegments(iLastPos);
        return m_iDone;
    }

private:
    void FindFirst();
    void ReadSegments(std::int64_t iLastPos);
    void FillTail();
    void SkipHole();
    void MoveOn();
    bool ReadSource(const Segment& segment, unsigned int iCount);

    unsigned int GetRemaining() const { return m_iLen - m_iDone; }
    void Advance(std::int64_t n) {
        m_iDone += static_cast<unsigned int>(n);
        m_iPos = AddSaturated(m_iPos, n);
    }

    CRedirectedFile& m_RedirectedFile;
    const LogContext& m_Log;
    std::uint64_t m_iAsked;  ///< the virtual offset asked for, for the log
    std::int64_t m_iPos;     ///< the virtual offset reached
    char* m_pcBuffer;
    unsigned int m_iLen;       ///< bytes asked for
    unsigned int m_iDone = 0;  ///< bytes delivered; below m_iLen until the tail

    // Made whether or not there is an info file: an optional one would be filled with zeros, all of its 4 KiB.
    CInfoFileReader m_Reader;
    bool m_bInInfoFile = false;  ///< the cursor walks the info file, not the list in memory
    ProcSegment m_Cursor;        ///< the segment to read from

    /// The source last read from: neighbouring segments mostly share it.
    std::int64_t m_iSource = -1;
    CCachedFile m_SourceFile;
};

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, unsigned long long iOffset, void* pvBuffer, unsigned int iLen,
                          bool* pbEof) {
    const std::int64_t iBefore = GetPos();
    std::int64_t iLastPos = iBefore;
    const int iRead = ReadFrom(pRuntimeParam, iOffset, pvBuffer, iLen, pbEof, &iLastPos);
    if (iLastPos != iBefore) {
        m_iPos = iLastPos;
    }
    return iRead;
}

/// A read whose predecessor ended at *piLastPos, whatever other threads read meanwhile. Leaves no trace in the file:
/// what the host's own reads do is not to change what the next client reads.
int CRedirectedFile::ReadFrom(CRuntimeParam* pRuntimeParam, unsigned long long iOffset, void* pvBuffer,
                              unsigned int iLen, bool* pbEof, std::int64_t* piLastPos) {
    const LogContext log{m_pUtilities, pRuntimeParam, &kRead};
    const int iRead = ReadInner(log, iOffset, pvBuffer, std::min(iLen, kMaxReadLength), *piLastPos);
    if (iRead >= 0) {
        *piLastPos = AddSaturated(static_cast<std::int64_t>(iOffset), iRead);
    }
    const bool bEof = *piLastPos >= m_iSize;
    if (pbEof != nullptr) {
        *pbEof = bEof;
    }
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] Eof=%s, ox=%llu, size=%llu", bEof ? "true" : "false",
                 static_cast<unsigned long long>(*piLastPos), static_cast<unsigned long long>(m_iSize));
    return bEof && iRead < 0 ? 0 : iRead;
}

int CRedirectedFile::ReadInner(const LogContext& log, unsigned long long iOffset, void* pvBuffer, unsigned int iLen,
                               std::int64_t iLastPos) {
    if (m_bClosed || m_iSize <= 0 || iOffset >= static_cast<std::uint64_t>(m_iSize)) {
        return -1;
    }
    const unsigned int iDone = Reading(*this, log, iOffset, pvBuffer, iLen).Run(iLastPos);
    return m_bClosed && iDone == 0 && iLen > 0 ? -1 : static_cast<int>(iDone);
}

void CRedirectedFile::Reading::FindFirst() {
    if (m_Reader.IsOpen()) {
        m_RedirectedFile.FindInInfoFile(m_Log.pRuntimeParam, m_Reader, m_iPos, &m_Cursor);
    }
    m_bInInfoFile = m_Cursor.index >= 0;
    if (!m_bInInfoFile) {
        m_RedirectedFile.FindInList(m_iPos, &m_Cursor);
    }
}

void CRedirectedFile::Reading::ReadSegments(std::int64_t iLastPos) {
    while (m_iDone < m_iLen) {
        if (m_Cursor.index < 0 && m_bInInfoFile) {
            // The records end here; what could not be recorded goes on in the list.
            m_bInInfoFile = false;
            m_RedirectedFile.FindInList(m_iPos, &m_Cursor);
        }
        if (m_Cursor.index < 0) {
            // A closed file's map is empty, which says nothing about its bytes.
            if (iLastPos < m_RedirectedFile.m_iSize && !m_RedirectedFile.m_bClosed) {
                FillTail();
            }
            return;
        }
        if (m_Cursor.segment.iOffset > m_iPos) {
            SkipHole();
        }
        const Segment segment = m_Cursor.segment;
        const std::int64_t iRest = segment.GetRest(m_iPos);
        unsigned int iCount = GetRemaining();
        if (iRest <= iCount) {
            iCount = static_cast<unsigned int>(iRest);
            MoveOn();
        }
        if (!ReadSource(segment, iCount)) {
            return;
        }
    }
}

/// Behind the last segment: zeros to the end of the file, as many as the whole read asked for at most. Together with
/// what was read before, that may be more than it asked for.
void CRedirectedFile::Reading::FillTail() {
    const std::int64_t iCount = std::min<std::int64_t>(m_RedirectedFile.m_iSize - m_iPos, m_iLen);
    if (iCount > 0) {
        std::memset(m_pcBuffer + m_iDone, 0, static_cast<std::size_t>(iCount));
        Advance(iCount);
    }
}

/// Between two segments: the virtual offset moves over the hole, the place in the buffer does not, so the following
/// segment's bytes come right behind those before the hole. Zeros are laid where they will come.
void CRedirectedFile::Reading::SkipHole() {
    const std::int64_t iHole = m_Cursor.segment.iOffset - m_iPos;
    const std::int64_t iZeros = std::min<std::int64_t>(iHole, GetRemaining());
    std::memset(m_pcBuffer + m_iDone, 0, static_cast<std::size_t>(iZeros));
    NFS_LOG_INFO(m_Log, kLogRedirectFile, "[%s] Fill missing segment len:%d", static_cast<int>(iHole));
    m_iPos = m_Cursor.segment.iOffset;
}

void CRedirectedFile::Reading::MoveOn() {
    if (m_bInInfoFile) {
        m_RedirectedFile.FindNextInInfoFile(m_Log.pRuntimeParam, m_Reader, &m_Cursor);
    } else {
        m_RedirectedFile.GetNextSegment(m_Log.pRuntimeParam, &m_Cursor);
    }
}

/// Delivers bytes of one segment at the virtual offset reached; a segment that lies before it, or is empty, has none
/// and is passed over. False if the read ends here: the source failed, or ended before its segment did.
bool CRedirectedFile::Reading::ReadSource(const Segment& segment, unsigned int iCount) {
    const std::string* psSource = m_RedirectedFile.GetSource(segment.iSource);
    const std::int64_t iWithin = iCount > 0 ? m_iPos - segment.iOffset : 0;
    const std::int64_t iSeek = AddSaturated(segment.iFileOffset, iWithin);
    NFS_LOG_INFO(m_Log, kLogFileAccess, "[%s] Segment (%d) path:%s, fox:%llu, len:%d (seek:%llu)",
                 m_RedirectedFile.m_iId, psSource != nullptr ? psSource->c_str() : "Null",
                 static_cast<unsigned long long>(m_iAsked), static_cast<int>(iCount),
                 static_cast<unsigned long long>(iSeek));
    if (iCount == 0) {
        return true;
    }
    if (psSource != nullptr && (segment.iSource != m_iSource || !m_SourceFile.IsOpen())) {
        m_SourceFile = m_RedirectedFile.GetFile(m_Log, *psSource, FileUse::kSource);
        m_iSource = segment.iSource;
        if (!m_SourceFile.IsOpen() && m_RedirectedFile.m_bClosed) {
            return false;
        }
    }
    char* pcTarget = m_pcBuffer + m_iDone;
    int iRead = 0;
    if (psSource != nullptr && m_SourceFile.IsOpen()) {
        iRead = m_RedirectedFile.m_pUtilities->OS_FileReadAt(m_Log.pRuntimeParam, m_Log.pLogArgu, m_SourceFile, iSeek,
                                                             pcTarget, iCount, nullptr);
    } else {
        iRead = m_RedirectedFile.OS_FileRead(m_Log.pRuntimeParam, m_Log.pLogArgu, -1, pcTarget, iCount);
    }
    if (iRead > 0) {
        Advance(iRead);
    }
    return iRead == static_cast<int>(iCount);
}
