// Walks the segment records of an info file.
#include "InfoFileReader.h"

#include <algorithm>
#include <cstring>

#include <sys/stat.h>

void CInfoFileReader::Seek(const LogContext& log, std::int64_t iPosition) {
    m_File.Seek(log, iPosition);
    m_iPosition = iPosition;
    m_nFetch = kFirstRecords;
    m_iRecord = 0;
    m_nRecords = 0;
}

bool CInfoFileReader::Next(const LogContext& log, Segment* pSegment) {
    if (m_iRecord == m_nRecords && !Fill(log)) {
        return false;
    }
    std::memcpy(pSegment, m_vcRecords + m_iRecord * kSegmentRecordSize, kSegmentRecordSize);
    ++m_iRecord;
    m_iPosition += kSegmentRecordSize;
    return true;
}

bool CInfoFileReader::Fill(const LogContext& log) {
    if (m_nFetch != kFirstRecords && !HasEnd()) {
        return false;
    }
    const unsigned int nFetch = log.IsWanted(CRuntimeParam::kLogFileAccess) ? 1 : m_nFetch;
    const int iRead = m_File.Read(log, m_vcRecords, nFetch * kSegmentRecordSize);
    m_nFetch = std::min(m_nFetch * kFetchGrowth, kMaxRecords);
    m_iRecord = 0;
    m_nRecords = iRead > 0 ? static_cast<unsigned int>(iRead) / kSegmentRecordSize : 0;
    return m_nRecords > 0;
}

bool CInfoFileReader::HasEnd() {
    if (!m_bEndKnown) {
        struct stat status {};
        m_bHasEnd = ::fstat(m_File.Get(), &status) == 0 && S_ISREG(status.st_mode);
        m_bEndKnown = true;
    }
    return m_bHasEnd;
}
