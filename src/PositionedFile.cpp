// A shared descriptor, used with a position of one's own.
#include "PositionedFile.h"

#include <cerrno>

#include <unistd.h>

#include "FileTransfer.h"

void CPositionedFile::Seek(const LogContext& log, std::int64_t iOffset) {
    m_iPosition = iOffset;
    ReportSeek(log, m_File, m_iPosition, 0, nullptr);
}

std::int64_t CPositionedFile::Tell(const LogContext& log) {
    ReportTell(log, m_File, m_iPosition, 0, nullptr);
    return m_iPosition;
}

int CPositionedFile::Read(const LogContext& log, void* pvBuffer, unsigned int iLen) {
    const ssize_t iRead = ::pread(m_File, pvBuffer, iLen, m_iPosition);
    ReportRead(log, m_File, iRead, errno, nullptr);
    return Advance(iRead);
}

int CPositionedFile::Write(const LogContext& log, const void* pvBuffer, unsigned int iLen) {
    const ssize_t iWritten = ::pwrite(m_File, pvBuffer, iLen, m_iPosition);
    ReportWrite(log, m_File, iWritten, errno, nullptr);
    return Advance(iWritten);
}

void CPositionedFile::TakeBack(std::int64_t iEnd) {
    [[maybe_unused]] const int iCut = ::ftruncate(m_File, iEnd);
    m_iPosition = iEnd;
}

int CPositionedFile::Advance(long long iTransferred) {
    m_iPosition += iTransferred > 0 ? iTransferred : 0;
    return static_cast<int>(iTransferred);  // a call transfers less than 2 GiB
}
