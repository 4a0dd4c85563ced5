// A shared descriptor, used with a position of one's own.
#include "PositionedFile.h"

#include <cerrno>

#include <unistd.h>

#include "Limits.h"
#include "Utilities.h"

void CPositionedFile::Seek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, std::int64_t iOffset) {
    m_iPosition = iOffset;
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] OS seek file (%d)", pLogArgu->pcName, m_File.Get());
    }
}

std::int64_t CPositionedFile::Tell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu) {
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] OS tell file (%d)", pLogArgu->pcName, m_File.Get());
    }
    return m_iPosition;
}

int CPositionedFile::Read(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, void* pvBuffer, unsigned int iLen) {
    const ssize_t iRead = ::pread(m_File.Get(), pvBuffer, iLen, m_iPosition);
    if (iRead < 0) {
        const int iError = errno;
        if (pRuntimeParam->IsLogError()) {
            char vcError[kReasonBufferSize];
            CUtilities::GetLastErrorText(vcError, iError);
            m_pUtilities->LogError(pRuntimeParam, "[%s] OS read file (%d). Error=%s", pLogArgu->pcName, m_File.Get(),
                                   vcError);
        }
        return -1;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] OS read file (%d)", pLogArgu->pcName, m_File.Get());
    }
    m_iPosition += iRead;
    return static_cast<int>(iRead);
}

int CPositionedFile::Write(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const void* pvBuffer,
                           unsigned int iLen) {
    const ssize_t iWritten = ::pwrite(m_File.Get(), pvBuffer, iLen, m_iPosition);
    if (iWritten < 0) {
        const int iError = errno;
        if (pRuntimeParam->IsLogError()) {
            char vcError[kReasonBufferSize];
            CUtilities::GetLastErrorText(vcError, iError);
            m_pUtilities->LogError(pRuntimeParam, "[%s] OS write file (%d). Error=%s", pLogArgu->pcName, m_File.Get(),
                                   vcError);
        }
        return -1;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] OS write file (%d)", pLogArgu->pcName, m_File.Get());
    }
    m_iPosition += iWritten;
    return static_cast<int>(iWritten);
}
