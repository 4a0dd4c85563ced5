// Redirected files: finding segments and reading their bytes.
#include "RedirectedFile.h"

#include <algorithm>
#include <cstring>

#include "InfoFileReader.h"
#include "Utilities.h"

/// One read under way.
struct RedirectedRead {
    RedirectedRead(std::uint64_t iOffset, void* pvBuffer, unsigned int iAskedLen)
        : iAsked(iOffset),
          iPos(static_cast<std::int64_t>(iOffset)),
          pcBuffer(static_cast<char*>(pvBuffer)),
          iLen(iAskedLen) {}

    std::uint64_t iAsked;              ///< the virtual offset asked for, for the log
    std::int64_t iPos;                 ///< the virtual offset reached
    char* pcBuffer;                    ///< GetReadRoom(iLen) bytes
    unsigned int iLen;                 ///< bytes asked for
    unsigned int iDone = 0;            ///< bytes delivered; below iLen until the tail
    CInfoFileReader* pInfo = nullptr;  ///< null for a map in memory
    ProcSegment cursor;                ///< the segment to read from

    /// The source last read from: neighbouring segments mostly share it.
    std::int64_t iSource = -1;
    CCachedFile sourceFile;

    unsigned int GetRemaining() const { return iLen - iDone; }
    void Advance(std::int64_t n) {
        iDone += static_cast<unsigned int>(n);
        iPos = AddSaturated(iPos, n);
    }
};

// ---- Lookup

void CRedirectedFile::GetSegment(CRuntimeParam* pRuntimeParam, long long iOffset, ProcSegment* pProcSegment) {
    LogArgu logArgu{"RedirectedFile.GetSegment"};
    const CCachedFile file = GetInfoFile(pRuntimeParam, &logArgu, false);
    pProcSegment->index = -1;
    if (file.IsOpen()) {
        CInfoFileReader reader(m_pUtilities, file, 0);
        FindInInfoFile(pRuntimeParam, reader, iOffset, pProcSegment);
    }
    if (pProcSegment->index < 0) {
        FindInList(iOffset, pProcSegment);
    }
}

void CRedirectedFile::GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pProcSegment) {
    LogArgu logArgu{"RedirectedFile.GetNextSegment"};
    if (pProcSegment->index < 0) {
        return;
    }
    // Asked for at each step, whether or not it is needed: an info file that is missing is logged each time.
    const CCachedFile file = GetInfoFile(pRuntimeParam, &logArgu, false);
    if (pProcSegment->iNextRecord < 0) {
        FindNextInList(pProcSegment);
        return;
    }
    if (!file.IsOpen()) {
        pProcSegment->index = -1;
        return;
    }
    CInfoFileReader reader(m_pUtilities, file, pProcSegment->iNextRecord);
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
    LogArgu logArgu{"RedirectedFile.GetSegment"};
    pProcSegment->index = -1;
    reader.Seek(pRuntimeParam, &logArgu, EstimateRecord(iOffset));
    // A file full of garbage may be searched to its end, however long it is; closing ends that.
    Segment segment;
    while (!m_bClosed && reader.Next(pRuntimeParam, &logArgu, &segment)) {
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
    LogArgu logArgu{"RedirectedFile.GetNextSegment"};
    if (m_bClosed || !reader.Next(pRuntimeParam, &logArgu, &pProcSegment->segment)) {
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
    LogArgu logArgu{"RedirectedFile.Read"};
    const int iRead = ReadInner(pRuntimeParam, &logArgu, iOffset, pvBuffer, std::min(iLen, kMaxReadLength), *piLastPos);
    if (iRead >= 0) {
        *piLastPos = AddSaturated(static_cast<std::int64_t>(iOffset), iRead);
    }
    const bool bEof = *piLastPos >= m_iSize;
    if (pbEof != nullptr) {
        *pbEof = bEof;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Eof=%s, ox=%llu, size=%llu", logArgu.pcName, bEof ? "true" : "false",
                              static_cast<unsigned long long>(*piLastPos), static_cast<unsigned long long>(m_iSize));
    }
    return bEof && iRead < 0 ? 0 : iRead;
}

int CRedirectedFile::ReadInner(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, unsigned long long iOffset,
                               void* pvBuffer, unsigned int iLen, std::int64_t iLastPos) {
    if (m_bClosed || m_iSize <= 0 || iOffset >= static_cast<std::uint64_t>(m_iSize)) {
        return -1;
    }
    RedirectedRead read(iOffset, pvBuffer, iLen);
    LogArgu logArguFind{"RedirectedFile.GetSegment"};
    // Made whether or not there is an info file: an optional one would be filled with zeros, all of its 4 KiB.
    CInfoFileReader reader(m_pUtilities, GetInfoFile(pRuntimeParam, &logArguFind, false), 0);
    if (reader.IsOpen()) {
        FindInInfoFile(pRuntimeParam, reader, read.iPos, &read.cursor);
    }
    if (read.cursor.index >= 0) {
        read.pInfo = &reader;
    } else {
        FindInList(read.iPos, &read.cursor);
    }
    ReadSegments(pRuntimeParam, pLogArgu, read, iLastPos);
    return m_bClosed && read.iDone == 0 && iLen > 0 ? -1 : static_cast<int>(read.iDone);
}

void CRedirectedFile::ReadSegments(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, RedirectedRead& read,
                                   std::int64_t iLastPos) {
    while (read.iDone < read.iLen) {
        if (read.cursor.index < 0 && read.pInfo != nullptr) {
            // The records end here; what could not be recorded goes on in the list.
            read.pInfo = nullptr;
            FindInList(read.iPos, &read.cursor);
        }
        if (read.cursor.index < 0) {
            // A closed file's map is empty, which says nothing about its bytes.
            if (iLastPos < m_iSize && !m_bClosed) {
                FillTail(read);
            }
            return;
        }
        if (read.cursor.segment.iOffset > read.iPos) {
            SkipHole(pRuntimeParam, pLogArgu, read);
        }
        const Segment segment = read.cursor.segment;
        const std::int64_t iRest = segment.GetRest(read.iPos);
        unsigned int iCount = read.GetRemaining();
        if (iRest <= iCount) {
            iCount = static_cast<unsigned int>(iRest);
            MoveOn(pRuntimeParam, read);
        }
        if (!ReadSource(pRuntimeParam, pLogArgu, read, segment, iCount)) {
            return;
        }
    }
}

/// Behind the last segment: zeros to the end of the file, as many as the whole read asked for at most. Together with
/// what was read before, that may be more than it asked for.
void CRedirectedFile::FillTail(RedirectedRead& read) const {
    const std::int64_t iCount = std::min<std::int64_t>(m_iSize - read.iPos, read.iLen);
    if (iCount > 0) {
        std::memset(read.pcBuffer + read.iDone, 0, static_cast<std::size_t>(iCount));
        read.Advance(iCount);
    }
}

/// Between two segments: the virtual offset moves over the hole, the place in the buffer does not, so the following
/// segment's bytes come right behind those before the hole. Zeros are laid where they will come.
void CRedirectedFile::SkipHole(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, RedirectedRead& read) const {
    const std::int64_t iHole = read.cursor.segment.iOffset - read.iPos;
    const std::int64_t iZeros = std::min<std::int64_t>(iHole, read.GetRemaining());
    std::memset(read.pcBuffer + read.iDone, 0, static_cast<std::size_t>(iZeros));
    if (pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fill missing segment len:%d", pLogArgu->pcName,
                              static_cast<int>(iHole));
    }
    read.iPos = read.cursor.segment.iOffset;
}

void CRedirectedFile::MoveOn(CRuntimeParam* pRuntimeParam, RedirectedRead& read) {
    if (read.pInfo != nullptr) {
        FindNextInInfoFile(pRuntimeParam, *read.pInfo, &read.cursor);
    } else {
        GetNextSegment(pRuntimeParam, &read.cursor);
    }
}

/// Delivers bytes of one segment at the virtual offset reached; a segment that lies before it, or is empty, has none
/// and is passed over. False if the read ends here: the source failed, or ended before its segment did.
bool CRedirectedFile::ReadSource(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, RedirectedRead& read,
                                 const Segment& segment, unsigned int iCount) {
    const std::string* psSource = GetSource(segment.iSource);
    const std::int64_t iWithin = iCount > 0 ? read.iPos - segment.iOffset : 0;
    const std::int64_t iSeek = AddSaturated(segment.iFileOffset, iWithin);
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Segment (%d) path:%s, fox:%llu, len:%d (seek:%llu)",
                              pLogArgu->pcName, m_iId, psSource != nullptr ? psSource->c_str() : "Null",
                              static_cast<unsigned long long>(read.iAsked), static_cast<int>(iCount),
                              static_cast<unsigned long long>(iSeek));
    }
    if (iCount == 0) {
        return true;
    }
    if (psSource != nullptr && (segment.iSource != read.iSource || !read.sourceFile.IsOpen())) {
        read.sourceFile = GetFile(pRuntimeParam, pLogArgu, *psSource, false);
        read.iSource = segment.iSource;
        if (!read.sourceFile.IsOpen() && m_bClosed) {
            return false;
        }
    }
    char* pcTarget = read.pcBuffer + read.iDone;
    int iRead = 0;
    if (psSource != nullptr && read.sourceFile.IsOpen()) {
        iRead = m_pUtilities->OS_FileReadAt(pRuntimeParam, pLogArgu, read.sourceFile, iSeek, pcTarget, iCount, nullptr);
    } else {
        iRead = OS_FileRead(pRuntimeParam, pLogArgu, -1, pcTarget, iCount);
    }
    if (iRead > 0) {
        read.Advance(iRead);
    }
    return iRead == static_cast<int>(iCount);
}
