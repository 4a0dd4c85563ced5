// COsFiles: the system's calls on files and folders, each with its log line and the text of its failure.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include "CachedFile.h"
#include "FolderEntry.h"
#include "Log.h"
#include "PathProbe.h"

/// What works with files and folders, over the log that it writes to. It holds nothing itself: any thread may call.
///
/// Each operation logs its success at file-access level and its failure at error level, and leaves the error text in
/// the reason buffer (kReasonBufferSize characters; may be null). The runtime parameter and the LogArgu serve logging
/// only; neither is kept. A descriptor of -1 is refused without a system call ("Bad file descriptor"). Every descriptor
/// is close-on-exec. Where a file is created, running out of descriptors frees some, if any can be, and tries once
/// more.
class COsFiles : public CLog {
public:
    COsFiles();
    ~COsFiles() override;

    /// Writes "%s (%d)" of the system's message and the number into a reason buffer (ignored when null).
    static void GetLastErrorText(char* pcOut, int iError);

    int OS_FileCreate(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, char* pcStatus);
    /// The same for a file that only grows: every write goes to its end, wherever that is by then.
    int OS_FileCreateToAppend(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                              char* pcStatus);
    int OS_FileRemove(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry, char* pcStatus);
    int OS_FileRename(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& from,
                      const CFolderEntry& to, char* pcStatus);
    /// With bRetry, running out of descriptors frees some and tries once more.
    int OS_FileOpen(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, int iFlags, bool bRetry,
                    char* pcStatus);
    int OS_FileClose(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, const char* pcPath,
                     char* pcStatus);
    int OS_FileRead(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, void* pvBuffer, unsigned int iLen,
                    char* pcStatus);
    int OS_FileWrite(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, const void* pvBuffer,
                     unsigned int iLen, char* pcStatus);
    /// Waits until the file's data is with its storage (fdatasync). 0 or -1.
    int OS_FileSync(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, char* pcStatus);
    long long OS_FileSeek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, long long iOffset,
                          int iWhence, char* pcStatus);
    long long OS_FileTell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, char* pcStatus);
    /// A seek and the transfer behind it as one step (positioned), with the log lines of both. -1 if either fails.
    int OS_FileReadAt(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CCachedFile& file, long long iOffset,
                      void* pvBuffer, unsigned int iLen, char* pcStatus);
    int OS_FileWriteAt(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CCachedFile& file,
                       long long iOffset, const void* pvBuffer, unsigned int iLen, char* pcStatus);
    bool OS_IsFileExists(const char* pcPath, char* pcStatus);
    int OS_FolderCreate(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry,
                        unsigned int iMode, char* pcStatus);
    int OS_FolderRemove(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry,
                        char* pcStatus);
    /// What was just found for the path, if there is such a look, is what is changed, here and below.
    int OS_SetFileMode(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, unsigned int iMode,
                       char* pcStatus, const FoundStatus* pFound = nullptr);
    /// Makes the file if it is missing. What is not a regular file is not opened.
    bool OS_SetFileSize(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                        unsigned long long iSize, char* pcStatus, const FoundStatus* pFound = nullptr);
    /// Links are not followed. With the status that was just found for the path, if there is one, nothing is asked.
    int OS_GetFileStat(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, struct stat* pStat,
                       char* pcStatus, const FoundStatus* pFound = nullptr);
    /// Opens for appending; creates the file and the folders above it where they are missing.
    int OS_FileForceOpen(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, char* pcStatus);

protected:
    /// OS_FileCreate for a client: a regular file or none.
    int CreateRegular(const LogContext& log, const CFolderEntry& entry);

    // The lines of calls that are made in more than one place. -1 as descriptor or result is a failure.
    static int ReportOpen(const LogContext& log, const char* pcPath, int iFile, int iError, char* pcStatus);
    static void ReportClose(const LogContext& log, const char* pcPath);
    static void ReportRename(const LogContext& log, const char* pcPathFrom, const char* pcPathTo);
    static void ReportRenameFailure(const LogContext& log, const char* pcPathFrom, const char* pcPathTo, int iError,
                                    char* pcStatus);

private:
    /// The process ran out of descriptors: can some be closed, and are they? Only then is the open tried once more.
    /// No lock of a derived class is held. Stands behind the slots of CLog.
    virtual bool FreeDescriptors(const LogContext& log);

    template <class Open>
    int OpenWithRetry(const LogContext& log, const Open& open);
    int CreateFile(const LogContext& log, const char* pcPath, int iMoreFlags, char* pcStatus);
    static int ReportCreate(const LogContext& log, const char* pcPath, int iFile, int iError, char* pcStatus);
    bool CreateFoldersAbove(const LogContext& log, const char* pcPath, char* pcStatus);
};
