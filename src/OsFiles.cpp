// COsFiles: system calls on files and folders, with their log lines and error texts.
#include "OsFiles.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "BeforeAsking.h"
#include "Descriptor.h"
#include "FileTransfer.h"
#include "OsOutcome.h"
#include "PathProbe.h"
#include "Reason.h"
#include "RegularFile.h"
#include "Texts.h"

namespace {

/// Modes of what is created here; the process's umask applies.
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kResizedFileMode = 0755;
constexpr unsigned int kNewFolderMode = 0755;

bool IsKnown(const FoundStatus* pFound) {
    return pFound != nullptr && pFound->bKnown;
}

}  // namespace

COsFiles::COsFiles() = default;

COsFiles::~COsFiles() = default;

void COsFiles::GetLastErrorText(char* pcOut, int iError) {
    WriteReason(pcOut, "%s", CSystemErrorText(iError).Get());
}

bool COsFiles::FreeDescriptors(const LogContext& /*log*/) {
    return false;
}

/// Opens; where descriptors have run out and some could be freed, once more.
template <class Open>
int COsFiles::OpenWithRetry(const LogContext& log, const Open& open) {
    const int iFile = open();
    return iFile == -1 && errno == EMFILE && FreeDescriptors(log) ? open() : iFile;
}

// ---- Files by path

int COsFiles::OS_FileCreate(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, char* pcStatus) {
    return CreateFile({this, pRuntimeParam, pLogArgu}, pcPath, 0, pcStatus);
}

int COsFiles::OS_FileCreateToAppend(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                    char* pcStatus) {
    return CreateFile({this, pRuntimeParam, pLogArgu}, pcPath, O_APPEND, pcStatus);
}

int COsFiles::CreateFile(const LogContext& log, const char* pcPath, int iMoreFlags, char* pcStatus) {
    const int iFile = OpenWithRetry(
        log, [pcPath, iMoreFlags] { return ::open(pcPath, O_RDWR | O_CREAT | iMoreFlags | kOpenFlags, kNewFileMode); });
    return ReportCreate(log, pcPath, iFile, errno, pcStatus);
}

int COsFiles::CreateRegular(const LogContext& log, const CFolderEntry& entry) {
    const int iFile = OpenWithRetry(log, [&entry] { return CreateRegularFile(entry, kNewFileMode); });
    return ReportCreate(log, entry.GetPathText(), iFile, errno, nullptr);
}

/// Logs how the making of a file went; returns its descriptor.
int COsFiles::ReportCreate(const LogContext& log, const char* pcPath, int iFile, int iError, char* pcStatus) {
    NFS_LOG_CALL(log, iFile != -1, iError, pcStatus, "[%s] OS create file \"%s\"",
                 "[%s] OS create file \"%s\". Error=%s", pcPath);
    return iFile;
}

int COsFiles::OS_FileRemove(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry,
                            char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const int iResult = entry.Remove();
    NFS_LOG_CALL(log, iResult != -1, errno, pcStatus, "[%s] OS remove file \"%s\"",
                 "[%s] OS remove file \"%s\". Error=%s", entry.GetPathText());
    return iResult;
}

int COsFiles::OS_FileRename(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& from,
                            const CFolderEntry& to, char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const int iResult = from.RenameTo(to);
    if (iResult == -1) {
        ReportRenameFailure(log, from.GetPathText(), to.GetPathText(), errno, pcStatus);
    } else {
        ReportRename(log, from.GetPathText(), to.GetPathText());
    }
    return iResult;
}

void COsFiles::ReportRename(const LogContext& log, const char* pcPathFrom, const char* pcPathTo) {
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] OS rename file from \"%s\" to \"%s\"", pcPathFrom, pcPathTo);
}

void COsFiles::ReportRenameFailure(const LogContext& log, const char* pcPathFrom, const char* pcPathTo, int iError,
                                   char* pcStatus) {
    const CFailureText failure(iError, pcStatus);
    NFS_LOG_ERROR(log, "[%s] OS rename file from \"%s\" to \"%s\". Error=%s", pcPathFrom, pcPathTo, failure.Get());
}

int COsFiles::OS_FileOpen(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, int iFlags,
                          bool bRetry, char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const auto open = [pcPath, iFlags] { return ::open(pcPath, iFlags | kOpenFlags, 0); };
    const int iFile = bRetry ? OpenWithRetry(log, open) : open();
    return ReportOpen(log, pcPath, iFile, errno, pcStatus);
}

/// Logs how an open went; returns its descriptor.
int COsFiles::ReportOpen(const LogContext& log, const char* pcPath, int iFile, int iError, char* pcStatus) {
    NFS_LOG_CALL(log, iFile != -1, iError, pcStatus, "[%s] OS open file \"%s\"", "[%s] OS open file \"%s\". Error=%s",
                 pcPath);
    return iFile;
}

bool COsFiles::OS_IsFileExists(const char* pcPath, char* pcStatus) {
    struct stat attributes {};
    if (::stat(pcPath, &attributes) == 0) {
        return true;
    }
    WriteReason(pcStatus, "ErrCode=%d", errno);
    return false;
}

int COsFiles::OS_FolderCreate(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry,
                              unsigned int iMode, char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const int iResult = entry.MakeFolder(iMode);
    NFS_LOG_CALL(log, iResult != -1, errno, pcStatus, "[%s] OS create folder \"%s\" (mode = %d)",
                 "[%s] OS create folder \"%s\" (mode = %d). Error=%s", entry.GetPathText(), static_cast<int>(iMode));
    return iResult;
}

int COsFiles::OS_FolderRemove(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry,
                              char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const int iResult = entry.RemoveFolder();
    NFS_LOG_CALL(log, iResult != -1, errno, pcStatus, "[%s] OS remove folder \"%s\"",
                 "[%s] OS remove folder \"%s\". Error=%s", entry.GetPathText());
    return iResult;
}

int COsFiles::OS_SetFileMode(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                             unsigned int iMode, char* pcStatus, const FoundStatus* pFound) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const int iResult = IsKnown(pFound) ? SetModeOf(pcPath, *pFound, iMode) : ::chmod(pcPath, iMode);
    NFS_LOG_CALL(log, iResult != -1, errno, pcStatus, "[%s] OS set file mode \"%s\" (mode = %d)",
                 "[%s] OS set file mode \"%s\" (mode = %d). Error=%s", pcPath, static_cast<int>(iMode));
    return iResult;
}

bool COsFiles::OS_SetFileSize(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                              unsigned long long iSize, char* pcStatus, const FoundStatus* pFound) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const CDescriptor file(OpenWithRetry(log, [pcPath, pFound] {
        return IsKnown(pFound) ? OpenRegularFile(pcPath, O_RDWR, *pFound, OwnFiles::kAlways)
                               : CreateRegularFile(pcPath, kResizedFileMode);
    }));
    struct stat attributes {};
    bool bSuccess = file.IsOpen() && ::fstat(file.Get(), &attributes) == 0;
    if (bSuccess && static_cast<unsigned long long>(attributes.st_size) == iSize) {
        return true;
    }
    // A size beyond off_t is refused as negative.
    bSuccess = bSuccess && ::ftruncate(file.Get(), static_cast<off_t>(iSize)) == 0;
    NFS_LOG_CALL(log, bSuccess, errno, pcStatus, "[%s] OS set file file \"%s\"",
                 "[%s] OS set file file \"%s\". Error=%s", pcPath);
    return bSuccess;
}

int COsFiles::OS_GetFileStat(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                             struct stat* pStat, char* pcStatus, const FoundStatus* pFound) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    int iResult = 0;
    if (IsKnown(pFound)) {
        *pStat = pFound->status;
    } else {
        iResult = ::lstat(pcPath, pStat);
    }
    NFS_LOG_CALL(log, iResult != -1, errno, pcStatus, "[%s] OS get file stat \"%s\"",
                 "[%s] OS get file stat \"%s\". Error=%s", pcPath);
    return iResult;
}

int COsFiles::OS_FileForceOpen(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                               char* pcStatus) {
    if (!CreateFoldersAbove({this, pRuntimeParam, pLogArgu}, pcPath, pcStatus)) {
        return -1;
    }
    if (OS_IsFileExists(pcPath, nullptr)) {
        return OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDWR | O_APPEND, true, pcStatus);
    }
    return OS_FileCreateToAppend(pRuntimeParam, pLogArgu, pcPath, pcStatus);
}

bool COsFiles::CreateFoldersAbove(const LogContext& log, const char* pcPath, char* pcStatus) {
    std::vector<std::string> vElements;
    AppendPieces(pcPath, '/', vElements);
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] OS splited path \"%s\" into %d elements", pcPath,
                 static_cast<int>(vElements.size()));
    // The first element stands for itself: nothing, before the "/" of an absolute path.
    std::string sFolder = vElements.empty() ? std::string() : vElements.front();
    for (std::size_t iElement = 1; iElement + 1 < vElements.size(); ++iElement) {
        sFolder += '/';
        sFolder += vElements[iElement];
        NFS_LOG_INFO(log, kLogFileAccess, "[%s] Check folder \"%s\" exists", sFolder.c_str());
        if (OS_IsFileExists(sFolder.c_str(), nullptr)) {
            continue;
        }
        NFS_LOG_INFO(log, kLogFileAccess, "[%s] Create folder \"%s\"", sFolder.c_str());
        if (OS_FolderCreate(log.pRuntimeParam, log.pLogArgu, sFolder.c_str(), kNewFolderMode, pcStatus) == -1) {
            return false;
        }
    }
    return true;
}

// ---- Files by descriptor

int COsFiles::OS_FileClose(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, const char* pcPath,
                           char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const int iResult = iFile == -1 ? -1 : ::close(iFile);
    if (iResult != -1) {
        ReportClose(log, pcPath);
        return iResult;
    }
    const CFailureText failure(iFile == -1 ? kBadDescriptor : errno, pcStatus);
    NFS_LOG_ERROR(log, "[%s] OS close file \"%s\". Error=%s", pcPath, failure.Get());
    return iResult;
}

void COsFiles::ReportClose(const LogContext& log, const char* pcPath) {
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] OS close file \"%s\"", pcPath);
}

int COsFiles::OS_FileRead(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, void* pvBuffer,
                          unsigned int iLen, char* pcStatus) {
    const ssize_t iRead = iFile == -1 ? -1 : ::read(iFile, pvBuffer, iLen);
    ReportRead({this, pRuntimeParam, pLogArgu}, iFile, iRead, errno, pcStatus);
    return static_cast<int>(iRead);  // a call transfers less than 2 GiB
}

int COsFiles::OS_FileWrite(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, const void* pvBuffer,
                           unsigned int iLen, char* pcStatus) {
    const ssize_t iWritten = iFile == -1 ? -1 : ::write(iFile, pvBuffer, iLen);
    ReportWrite({this, pRuntimeParam, pLogArgu}, iFile, iWritten, errno, pcStatus);
    return static_cast<int>(iWritten);  // a call transfers less than 2 GiB
}

int COsFiles::OS_FileSync(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, char* pcStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    int iResult = -1;
    if (iFile != -1) {
        CBeforeAsking::Run();
        do {
            iResult = ::fdatasync(iFile);
        } while (iResult == -1 && errno == EINTR);
    }
    NFS_LOG_CALL(log, iResult != -1, iFile == -1 ? kBadDescriptor : errno, pcStatus, "[%s] OS sync file (%d)",
                 "[%s] OS sync file (%d). Error=%s", iFile);
    return iResult;
}

long long COsFiles::OS_FileSeek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, long long iOffset,
                                int iWhence, char* pcStatus) {
    const off_t iPosition = iFile == -1 ? -1 : ::lseek(iFile, iOffset, iWhence);
    ReportSeek({this, pRuntimeParam, pLogArgu}, iFile, iPosition, errno, pcStatus);
    return iPosition;
}

long long COsFiles::OS_FileTell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, char* pcStatus) {
    const off_t iPosition = iFile == -1 ? -1 : ::lseek(iFile, 0, SEEK_CUR);
    ReportTell({this, pRuntimeParam, pLogArgu}, iFile, iPosition, errno, pcStatus);
    return iPosition;
}

int COsFiles::OS_FileReadAt(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CCachedFile& file,
                            long long iOffset, void* pvBuffer, unsigned int iLen, char* pcStatus) {
    int iRead = -1;
    return ReadAt({this, pRuntimeParam, pLogArgu}, file, iOffset, pvBuffer, iLen, pcStatus, &iRead) ? iRead : -1;
}

int COsFiles::OS_FileWriteAt(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CCachedFile& file,
                             long long iOffset, const void* pvBuffer, unsigned int iLen, char* pcStatus) {
    return WriteAt({this, pRuntimeParam, pLogArgu}, file, iOffset, pvBuffer, iLen, pcStatus);
}
