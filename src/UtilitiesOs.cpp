// CUtilities: system calls on files and folders, with their log lines and error texts.
#include "Utilities.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "PathProbe.h"
#include "Reason.h"
#include "RegularFile.h"

namespace {

/// Modes of what is created here; the process's umask applies.
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kResizedFileMode = 0755;
constexpr unsigned int kNewFolderMode = 0755;

/// The text of a failure, written to the caller's reason buffer too.
class ErrorText {
public:
    ErrorText(int iError, char* pcStatus) : m_Text(iError) { WriteReason(pcStatus, "%s", m_Text.Get()); }
    const char* Get() const { return m_Text.Get(); }

private:
    CSystemErrorText m_Text;
};

/// The text of a failed call on a descriptor; one of -1 was refused without a call.
class DescriptorErrorText {
public:
    DescriptorErrorText(int iFile, int iError, char* pcStatus) : m_bRefused(iFile == -1), m_Text(iError) {
        WriteReason(pcStatus, "%s", Get());
    }
    const char* Get() const { return m_bRefused ? "Bad file descriptor" : m_Text.Get(); }

private:
    bool m_bRefused;
    CSystemErrorText m_Text;
};

}  // namespace

// ---- Files by path

int CUtilities::OS_FileCreate(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                              char* pcStatus) {
    const int iFile = OpenWithRetry(pRuntimeParam, pLogArgu, pcPath, O_RDWR | O_CREAT, kNewFileMode);
    return ReportCreate(pRuntimeParam, pLogArgu, pcPath, iFile, errno, pcStatus);
}

int CUtilities::CreateRegular(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath) {
    const int iFile = CreateRegularWithRetry(pRuntimeParam, pLogArgu, pcPath, kNewFileMode);
    return ReportCreate(pRuntimeParam, pLogArgu, pcPath, iFile, errno, nullptr);
}

int CUtilities::CreateRegularWithRetry(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                       mode_t iMode) {
    const int iFile = CreateRegularFile(pcPath, iMode);
    if (iFile != -1 || errno != EMFILE) {
        return iFile;
    }
    FreeCachedFileHandles(pRuntimeParam, pLogArgu);
    return CreateRegularFile(pcPath, iMode);
}

/// Logs how the making of a file went; returns its descriptor.
int CUtilities::ReportCreate(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, int iFile,
                             int iError, char* pcStatus) {
    if (iFile == -1) {
        const ErrorText error(iError, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS create file \"%s\". Error=%s", pLogArgu->pcName, pcPath, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS create file \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iFile;
}

int CUtilities::OS_FileRemove(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                              char* pcStatus) {
    const int iResult = std::remove(pcPath);
    if (iResult == -1) {
        const ErrorText error(errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS remove file \"%s\". Error=%s", pLogArgu->pcName, pcPath, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS remove file \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iResult;
}

int CUtilities::OS_FileRename(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                              const char* pcPathTo, char* pcStatus) {
    const int iResult = std::rename(pcPathFrom, pcPathTo);
    if (iResult == -1) {
        ReportRenameFailure(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, errno, pcStatus);
    } else {
        ReportRename(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo);
    }
    return iResult;
}

void CUtilities::ReportRename(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                              const char* pcPathTo) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS rename file from \"%s\" to \"%s\"", pLogArgu->pcName, pcPathFrom, pcPathTo);
    }
}

void CUtilities::ReportRenameFailure(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                                     const char* pcPathTo, int iError, char* pcStatus) {
    const ErrorText error(iError, pcStatus);
    if (pRuntimeParam->IsLogError()) {
        LogError(pRuntimeParam, "[%s] OS rename file from \"%s\" to \"%s\". Error=%s", pLogArgu->pcName, pcPathFrom,
                 pcPathTo, error.Get());
    }
}

int CUtilities::OS_FileOpen(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, int iFlags,
                            bool bRetry, char* pcStatus) {
    const int iFile =
        bRetry ? OpenWithRetry(pRuntimeParam, pLogArgu, pcPath, iFlags, 0) : ::open(pcPath, iFlags | kOpenFlags);
    return ReportOpen(pRuntimeParam, pLogArgu, pcPath, iFile, errno, pcStatus);
}

int CUtilities::OpenWithRetry(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, int iFlags,
                              mode_t iMode) {
    const int iFile = ::open(pcPath, iFlags | kOpenFlags, iMode);
    if (iFile != -1 || errno != EMFILE) {
        return iFile;
    }
    FreeCachedFileHandles(pRuntimeParam, pLogArgu);
    return ::open(pcPath, iFlags | kOpenFlags, iMode);
}

int CUtilities::OpenForCache(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, int iFlags,
                             const FileWish& wish, int* piError) {
    const auto open = [pcPath, iFlags, &wish] {
        // Where the look met no link, there is to be none now.
        const PathLinks links = wish.status.bKnown && !wish.status.bLinks ? PathLinks::kRefused : PathLinks::kFollowed;
        return wish.bClient ? OpenRegularFile(pcPath, iFlags, links) : ::open(pcPath, iFlags | kOpenFlags);
    };
    int iFile = open();
    if (iFile == -1 && errno == EMFILE) {
        CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);
        iFile = open();
    }
    *piError = errno;
    return ReportOpen(pRuntimeParam, pLogArgu, pcPath, iFile, *piError, nullptr);
}

/// Logs how an open went; returns its descriptor.
int CUtilities::ReportOpen(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, int iFile,
                           int iError, char* pcStatus) {
    if (iFile == -1) {
        const ErrorText error(iError, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS open file \"%s\". Error=%s", pLogArgu->pcName, pcPath, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS open file \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iFile;
}

bool CUtilities::OS_IsFileExists(const char* pcPath, char* pcStatus) {
    struct stat attributes {};
    if (::stat(pcPath, &attributes) == 0) {
        return true;
    }
    WriteReason(pcStatus, "ErrCode=%d", errno);
    return false;
}

int CUtilities::OS_FolderCreate(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                unsigned int iMode, char* pcStatus) {
    const int iResult = ::mkdir(pcPath, iMode);
    if (iResult == -1) {
        const ErrorText error(errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS create folder \"%s\" (mode = %d). Error=%s", pLogArgu->pcName, pcPath,
                     static_cast<int>(iMode), error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS create folder \"%s\" (mode = %d)", pLogArgu->pcName, pcPath,
                static_cast<int>(iMode));
    }
    return iResult;
}

int CUtilities::OS_FolderRemove(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                char* pcStatus) {
    const int iResult = ::rmdir(pcPath);
    if (iResult == -1) {
        const ErrorText error(errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS remove folder \"%s\". Error=%s", pLogArgu->pcName, pcPath, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS remove folder \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iResult;
}

int CUtilities::OS_SetFileMode(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                               unsigned int iMode, char* pcStatus) {
    const int iResult = ::chmod(pcPath, iMode);
    if (iResult == -1) {
        const ErrorText error(errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS set file mode \"%s\" (mode = %d). Error=%s", pLogArgu->pcName, pcPath,
                     static_cast<int>(iMode), error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS set file mode \"%s\" (mode = %d)", pLogArgu->pcName, pcPath,
                static_cast<int>(iMode));
    }
    return iResult;
}

bool CUtilities::OS_SetFileSize(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                unsigned long long iSize, char* pcStatus) {
    const int iFile = CreateRegularWithRetry(pRuntimeParam, pLogArgu, pcPath, kResizedFileMode);
    struct stat attributes {};
    bool bSuccess = iFile != -1 && ::fstat(iFile, &attributes) == 0;
    const bool bDiffers = bSuccess && static_cast<unsigned long long>(attributes.st_size) != iSize;
    if (bDiffers) {
        bSuccess = ::ftruncate(iFile, static_cast<off_t>(iSize)) == 0;  // a size beyond off_t is refused as negative
    }
    if (!bSuccess) {
        const ErrorText error(errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS set file file \"%s\". Error=%s", pLogArgu->pcName, pcPath, error.Get());
        }
    } else if (bDiffers && pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS set file file \"%s\"", pLogArgu->pcName, pcPath);
    }
    if (iFile != -1) {
        ::close(iFile);  // nothing was written through it that a failure could concern
    }
    return bSuccess;
}

int CUtilities::OS_GetFileStat(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                               struct stat* pStat, char* pcStatus, const FoundStatus* pFound) {
    int iResult = 0;
    if (pFound != nullptr && pFound->bKnown) {
        *pStat = pFound->status;
    } else {
        iResult = ::lstat(pcPath, pStat);
    }
    if (iResult == -1) {
        const ErrorText error(errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS get file stat \"%s\". Error=%s", pLogArgu->pcName, pcPath, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS get file stat \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iResult;
}

int CUtilities::OS_FileForceOpen(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                 char* pcStatus) {
    std::vector<std::string> vElements;
    SplitIntoVector(pcPath, '/', vElements);
    const bool bLog = pRuntimeParam->IsLogFileAccess();
    if (bLog) {
        LogInfo(pRuntimeParam, "[%s] OS splited path \"%s\" into %d elements", pLogArgu->pcName, pcPath,
                static_cast<int>(vElements.size()));
    }
    // The first element stands for itself: nothing, before the "/" of an absolute path.
    std::string sFolder = vElements.empty() ? std::string() : vElements.front();
    for (std::size_t iElement = 1; iElement + 1 < vElements.size(); ++iElement) {
        sFolder += '/';
        sFolder += vElements[iElement];
        if (bLog) {
            LogInfo(pRuntimeParam, "[%s] Check folder \"%s\" exists", pLogArgu->pcName, sFolder.c_str());
        }
        if (OS_IsFileExists(sFolder.c_str(), nullptr)) {
            continue;
        }
        if (bLog) {
            LogInfo(pRuntimeParam, "[%s] Create folder \"%s\"", pLogArgu->pcName, sFolder.c_str());
        }
        if (OS_FolderCreate(pRuntimeParam, pLogArgu, sFolder.c_str(), kNewFolderMode, pcStatus) == -1) {
            return -1;
        }
    }
    if (OS_IsFileExists(pcPath, nullptr)) {
        return OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDWR | O_APPEND, true, pcStatus);
    }
    return OS_FileCreate(pRuntimeParam, pLogArgu, pcPath, pcStatus);
}

// ---- Files by descriptor

int CUtilities::OS_FileClose(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, const char* pcPath,
                             char* pcStatus) {
    const int iResult = iFile == -1 ? -1 : ::close(iFile);
    if (iResult == -1) {
        const DescriptorErrorText error(iFile, errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS close file \"%s\". Error=%s", pLogArgu->pcName, pcPath, error.Get());
        }
    } else {
        ReportClose(pRuntimeParam, pLogArgu, pcPath);
    }
    return iResult;
}

void CUtilities::ReportClose(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS close file \"%s\"", pLogArgu->pcName, pcPath);
    }
}

int CUtilities::OS_FileRead(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, void* pvBuffer,
                            unsigned int iLen, char* pcStatus) {
    const ssize_t iRead = iFile == -1 ? -1 : ::read(iFile, pvBuffer, iLen);
    ReportRead(pRuntimeParam, pLogArgu, iFile, iRead, errno, pcStatus);
    return static_cast<int>(iRead);  // a call transfers less than 2 GiB
}

void CUtilities::ReportRead(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, long long iRead,
                            int iError, char* pcStatus) {
    if (iRead == -1) {
        const DescriptorErrorText error(iFile, iError, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS read file (%d). Error=%s", pLogArgu->pcName, iFile, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS read file (%d)", pLogArgu->pcName, iFile);
    }
}

int CUtilities::OS_FileWrite(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, const void* pvBuffer,
                             unsigned int iLen, char* pcStatus) {
    const ssize_t iWritten = iFile == -1 ? -1 : ::write(iFile, pvBuffer, iLen);
    ReportWrite(pRuntimeParam, pLogArgu, iFile, iWritten, errno, pcStatus);
    return static_cast<int>(iWritten);  // a call transfers less than 2 GiB
}

void CUtilities::ReportWrite(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, long long iWritten,
                             int iError, char* pcStatus) {
    if (iWritten == -1) {
        const DescriptorErrorText error(iFile, iError, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS write file (%d). Error=%s", pLogArgu->pcName, iFile, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS write file (%d)", pLogArgu->pcName, iFile);
    }
}

int CUtilities::OS_FileSync(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, char* pcStatus) {
    int iResult = -1;
    if (iFile != -1) {
        do {
            iResult = ::fdatasync(iFile);
        } while (iResult == -1 && errno == EINTR);
    }
    if (iResult == -1) {
        const DescriptorErrorText error(iFile, errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS sync file (%d). Error=%s", pLogArgu->pcName, iFile, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS sync file (%d)", pLogArgu->pcName, iFile);
    }
    return iResult;
}

long long CUtilities::OS_FileSeek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, long long iOffset,
                                  int iWhence, char* pcStatus) {
    const off_t iPosition = iFile == -1 ? -1 : ::lseek(iFile, iOffset, iWhence);
    ReportSeek(pRuntimeParam, pLogArgu, iFile, iPosition, errno, pcStatus);
    return iPosition;
}

void CUtilities::ReportSeek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, long long iPosition,
                            int iError, char* pcStatus) {
    if (iPosition == -1) {
        const DescriptorErrorText error(iFile, iError, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS seek file (%d). Error=%s", pLogArgu->pcName, iFile, error.Get());
        }
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS seek file (%d)", pLogArgu->pcName, iFile);
    }
}

long long CUtilities::OS_FileTell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, char* pcStatus) {
    const off_t iPosition = iFile == -1 ? -1 : ::lseek(iFile, 0, SEEK_CUR);
    if (iPosition == -1) {
        const DescriptorErrorText error(iFile, errno, pcStatus);
        if (pRuntimeParam->IsLogError()) {
            LogError(pRuntimeParam, "[%s] OS tell file (%d). Error=%s", pLogArgu->pcName, iFile, error.Get());
        }
    } else {
        ReportTell(pRuntimeParam, pLogArgu, iFile);
    }
    return iPosition;
}

void CUtilities::ReportTell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS tell file (%d)", pLogArgu->pcName, iFile);
    }
}

// ---- A seek and its transfer in one step
//
// The positioned call does both. Only if it fails, or finds nothing, is the seek made for itself, to learn which of
// the two failed: a pipe cannot be sought, and some offsets are more than the file system can address.

int CUtilities::OS_FileReadAt(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CCachedFile& file,
                              long long iOffset, void* pvBuffer, unsigned int iLen, char* pcStatus) {
    int iRead = -1;
    ReadAt(pRuntimeParam, pLogArgu, file, iOffset, pvBuffer, iLen, pcStatus, &iRead);
    return iRead;
}

bool CUtilities::ReadAt(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CCachedFile& file,
                        long long iOffset, void* pvBuffer, unsigned int iLen, char* pcStatus, int* piRead) {
    const int iFile = file.Get();
    const ssize_t iRead = iFile == -1 ? -1 : ::pread(iFile, pvBuffer, iLen, iOffset);
    const int iError = errno;
    if (iRead <= 0 && (iFile == -1 || ::lseek(iFile, iOffset, SEEK_SET) == -1)) {
        ReportSeek(pRuntimeParam, pLogArgu, iFile, -1, errno, pcStatus);
        return false;
    }
    ReportSeek(pRuntimeParam, pLogArgu, iFile, iOffset, 0, nullptr);
    ReportRead(pRuntimeParam, pLogArgu, iFile, iRead, iError, pcStatus);
    *piRead = static_cast<int>(iRead);  // a call transfers less than 2 GiB
    return true;
}

int CUtilities::OS_FileWriteAt(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CCachedFile& file,
                               long long iOffset, const void* pvBuffer, unsigned int iLen, char* pcStatus) {
    const int iFile = file.Get();
    const ssize_t iWritten = iFile == -1 ? -1 : ::pwrite(iFile, pvBuffer, iLen, iOffset);
    const int iError = errno;
    if (iWritten == -1 && (iFile == -1 || ::lseek(iFile, iOffset, SEEK_SET) == -1)) {
        ReportSeek(pRuntimeParam, pLogArgu, iFile, -1, errno, pcStatus);
        return -1;
    }
    ReportSeek(pRuntimeParam, pLogArgu, iFile, iOffset, 0, nullptr);
    ReportWrite(pRuntimeParam, pLogArgu, iFile, iWritten, iError, pcStatus);
    return static_cast<int>(iWritten);  // a call transfers less than 2 GiB
}
