// A shared descriptor, used with a position of one's own.
#include "PositionedFile.h"

#include <cerrno>

#include <unistd.h>

#include "FileTransfer.h"

void CPositionedFile::Seek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, std::int64_t iOffset) {
    m_iPosition = iOffset;
    ReportSeek({m_pLog, pRuntimeParam, pLogArgu}, m_File, m_iPosition, 0, nullptr);
}

std::int64_t CPositionedFile::Tell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu) {
    ReportTell({m_pLog, pRuntimeParam, pLogArgu}, m_File, m_iPosition, 0, nullptr);
    return m_iPosition;
}

int CPositionedFile::Read(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, void* pvBuffer, unsigned int iLen) {
    const ssize_t iRead = ::pread(m_File, pvBuffer, iLen, m_iPosition);
    ReportRead({m_pLog, pRuntimeParam, pLogArgu}, m_File, iRead, errno, nullptr);
    return Advance(iRead);
}

int CPositionedFile::Write(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const void* pvBuffer,
                           unsigned int iLen) {
    const ssize_t iWritten = ::pwrite(m_File, pvBuffer, iLen, m_iPosition);
    ReportWrite({m_pLog, pRuntimeParam, pLogArgu}, m_File, iWritten, errno, nullptr);
    return Advance(iWritten);
}

int CPositionedFile::Advance(long long iTransferred) {
    m_iPosition += iTransferred > 0 ? iTransferred : 0;
    return static_cast<int>(iTransferred);  // a call transfers less than 2 GiB
}
