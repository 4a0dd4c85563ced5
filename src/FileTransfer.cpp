// Transfers on open descriptors, with their log lines.
//
// Where a seek and its transfer are one step, the positioned call does both. Only if it fails, or finds nothing, is the
// seek made for itself, to learn which of the two failed: a pipe cannot be sought, and some offsets are more than the
// file system can address.
#include "FileTransfer.h"

#include <cerrno>

#include <sys/uio.h>
#include <unistd.h>

#include "BeforeAsking.h"
#include "OsOutcome.h"

namespace {

int ErrorOf(int iFile, int iError) {
    return iFile == -1 ? kBadDescriptor : iError;
}

/// The seek for itself. A failure is reported.
bool IsSought(const LogContext& log, int iFile, long long iOffset, char* pcStatus) {
    if (iFile != -1 && ::lseek(iFile, iOffset, SEEK_SET) != -1) {
        return true;
    }
    ReportSeek(log, iFile, -1, errno, pcStatus);
    return false;
}

/// As much as can be read without waiting for a disk. -1 also where nothing can be.
ssize_t ReadSomeQuickly(const CCachedFile& file, long long iOffset, void* pvBuffer, std::size_t nLen) {
    const iovec part{pvBuffer, nLen};
    const ssize_t iRead = ::preadv2(file, &part, 1, iOffset, RWF_NOWAIT);
    if (iRead == -1 && errno == EOPNOTSUPP) {
        file.SetNoQuickReads();
    }
    return iRead;
}

/// True if the whole range is in memory, and read. If it is not, for another reason than the end of the file, what is
/// to be done before a wait is done. (That nothing can be read is not trusted as the end: some kernels say so for what
/// is on the disk.)
bool ReadQuickly(const CCachedFile& file, long long iOffset, void* pvBuffer, unsigned int iLen) {
    if (!file.HasQuickReads()) {
        return false;
    }
    const ssize_t iRead = ReadSomeQuickly(file, iOffset, pvBuffer, iLen);
    if (iRead == static_cast<ssize_t>(iLen)) {
        return true;
    }
    const bool bEnd = iRead > 0 && ReadSomeQuickly(file, iOffset + iRead, pvBuffer, iLen) == 0;
    if ((iRead > 0 && !bEnd) || (iRead == -1 && errno == EAGAIN)) {
        CBeforeAsking::Run();
    }
    return false;
}

}  // namespace

void ReportRead(const LogContext& log, int iFile, long long iRead, int iError, char* pcStatus) {
    NFS_LOG_CALL(log, iRead != -1, ErrorOf(iFile, iError), pcStatus, "[%s] OS read file (%d)",
                 "[%s] OS read file (%d). Error=%s", iFile);
}

void ReportWrite(const LogContext& log, int iFile, long long iWritten, int iError, char* pcStatus) {
    NFS_LOG_CALL(log, iWritten != -1, ErrorOf(iFile, iError), pcStatus, "[%s] OS write file (%d)",
                 "[%s] OS write file (%d). Error=%s", iFile);
}

void ReportSeek(const LogContext& log, int iFile, long long iPosition, int iError, char* pcStatus) {
    NFS_LOG_CALL(log, iPosition != -1, ErrorOf(iFile, iError), pcStatus, "[%s] OS seek file (%d)",
                 "[%s] OS seek file (%d). Error=%s", iFile);
}

void ReportTell(const LogContext& log, int iFile, long long iPosition, int iError, char* pcStatus) {
    NFS_LOG_CALL(log, iPosition != -1, ErrorOf(iFile, iError), pcStatus, "[%s] OS tell file (%d)",
                 "[%s] OS tell file (%d). Error=%s", iFile);
}

bool ReadAt(const LogContext& log, const CCachedFile& file, long long iOffset, void* pvBuffer, unsigned int iLen,
            char* pcStatus, int* piRead) {
    const int iFile = file;
    const bool bWhole = iFile != -1 && CBeforeAsking::IsNeeded() && ReadQuickly(file, iOffset, pvBuffer, iLen);
    ssize_t iRead = iLen;
    if (!bWhole) {
        iRead = iFile == -1 ? -1 : ::pread(iFile, pvBuffer, iLen, iOffset);
    }
    const int iError = errno;
    if (iRead <= 0 && !IsSought(log, iFile, iOffset, pcStatus)) {
        return false;
    }
    ReportSeek(log, iFile, iOffset, 0, nullptr);
    ReportRead(log, iFile, iRead, iError, pcStatus);
    *piRead = static_cast<int>(iRead);  // a call transfers less than 2 GiB
    return true;
}

int WriteAt(const LogContext& log, int iFile, long long iOffset, const void* pvBuffer, unsigned int iLen,
            char* pcStatus) {
    const ssize_t iWritten = iFile == -1 ? -1 : ::pwrite(iFile, pvBuffer, iLen, iOffset);
    const int iError = errno;
    if (iWritten == -1 && !IsSought(log, iFile, iOffset, pcStatus)) {
        return -1;
    }
    ReportSeek(log, iFile, iOffset, 0, nullptr);
    ReportWrite(log, iFile, iWritten, iError, pcStatus);
    return static_cast<int>(iWritten);  // a call transfers less than 2 GiB
}
