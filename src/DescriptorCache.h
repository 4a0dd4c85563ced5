// CDescriptorCache: open descriptors by path, over the system's calls that open and close them.
#pragma once

#include <string>

#include "CachedFile.h"
#include "OpenedFiles.h"
#include "OsFiles.h"
#include "PathProbe.h"
#include "ThreadAnnotations.h"

/// Keeps one open descriptor for each path in use, at most 1024 of them; the least recently used go first, also when
/// the process runs out of descriptors.
///
/// Any thread may call. m_hMutexOpenedFileHandles is held for each operation, its system calls and the question whether
/// a path is exported included; no line goes out under it. A runtime parameter and a LogArgu serve logging only.
class CDescriptorCache : public COsFiles {
public:
    CDescriptorCache();
    ~CDescriptorCache() override;

    /// The descriptor of a file of the host's choice, opened if need be: read/write when wanted or when the path lies
    /// in an export, else read only. What refuses writers (EROFS, EACCES, EPERM, ETXTBSY) is opened read only, unless
    /// read/write was wanted. Empty (-1) for an empty path or a failed open. Within a second the descriptor may still
    /// be that of a file that was replaced under its path.
    CCachedFile GetCachedFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                    bool bReadWrite);
    /// The same for a redirected file's info file. It is not opened by a stranger's link (OpenByOwnLinks), nor, to be
    /// written to, is any other file of the host's.
    CCachedFile GetInfoFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                  bool bReadWrite);
    /// A client was told that there is no such path: no descriptor of a removed file stays behind. One that serves the
    /// host's redirected files stays.
    void DropMissingFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath);
    void CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath);
    /// Closes what lies at or below a path.
    void CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath);
    void CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu);
    /// Closes the least recently used tenth, or all of fewer than ten.
    void CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu)
        REQUIRES(m_hMutexOpenedFileHandles);
    /// For a thread outside the cache that ran out of descriptors: as above, taking the lock.
    void FreeCachedFileHandles(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu);
    /// The number of entries, of which those whose open failed hold no descriptor.
    std::size_t GetCachedFileCount();

protected:
    /// The descriptor of a file that a client reads, or writes if bWrite: a regular file or none. pFound is what the
    /// client's call found when it looked at the path (of which nothing need be known); null without a call.
    CCachedFile GetClientFile(const LogContext& log, const char* pcPath, bool bWrite, const FoundStatus* pFound);
    /// Closes the descriptor of a path that is found to name another file.
    void DropReplacedFile(const LogContext& log, const char* pcPath, const FoundStatus& found);
    /// Closes what lies at or below a folder; if asked for, only what was opened for reading alone.
    void CloseCachedFilesWithin(const LogContext& log, const std::string& sFolder, bool bReadOnlyOnes);
    /// Closes what lies below a path that was renamed.
    void CloseCachedFileHandlesBelow(const LogContext& log, const char* pcPath);

private:
    /// What is wanted of the cache.
    struct FileWish {
        bool bReadWrite = false;  ///< to be opened for reading and writing, whatever the path
        bool bInfoFile = false;   ///< for a redirected file's map: by no stranger's link
        bool bClient = false;     ///< for a client: a regular file or none
        bool bWrite = false;      ///< for a WRITE, which does not put up with a descriptor opened for reading alone
        bool bCalled = false;     ///< by a call that found the path in an export
        FoundStatus looked;       ///< the look of one who has none from elsewhere
        const FoundStatus* pFound = &looked;  ///< what a look at the path found, if there was one

        FileWish() = default;
        FileWish(const FileWish&) = delete;
        FileWish& operator=(const FileWish&) = delete;
        /// Looks, links followed.
        void LookAt(const char* pcPath);
    };

    /// Does a path lie in an export? Asked before each open, under the lock: what does is opened for writing too.
    /// Never asked while the object comes to life or goes. Stands behind the slots of the bases.
    virtual bool IsExported(const LogContext& log, const char* pcPath);
    bool FreeDescriptors(const LogContext& log) override;

    CCachedFile GetHostFile(const LogContext& log, const char* pcPath, FileWish& wish);
    CCachedFile TakeCachedFile(const LogContext& log, const char* pcPath, const FileWish& wish);
    bool IsLookDue(const char* pcPath);
    static bool IsOtherFile(const OpenedFileInfo& info, const FoundStatus& found);
    bool CloseNextWithPrefix(const LogContext& log, const std::string& sPrefix, bool bTold, std::string* psClosed);
    static void ReportOpenMode(const LogContext& log, const char* pcPath, bool bWrite);
    void ReportNotRegular(const LogContext& log, const char* pcPath, int iError);

    // Steps that hold the lock of their callers.
    CCachedFile OpenCachedFile(const LogContext& log, const char* pcPath, const FileWish& wish)
        REQUIRES(m_hMutexOpenedFileHandles);
    int OpenInMode(const LogContext& log, const char* pcPath, const FileWish& wish, bool bWrite, bool* pbReadOnly)
        REQUIRES(m_hMutexOpenedFileHandles);
    int OpenForCache(const LogContext& log, const char* pcPath, int iFlags, const FileWish& wish, int* piError)
        REQUIRES(m_hMutexOpenedFileHandles);
    void CloseCachedFile(const LogContext& log, OpenedFileInfo& info) REQUIRES(m_hMutexOpenedFileHandles);
    COpenedFiles::Iterator EraseCachedFile(const LogContext& log, COpenedFiles::Iterator itOpened)
        REQUIRES(m_hMutexOpenedFileHandles);
    void ClearCachedFiles(const LogContext& log) REQUIRES(m_hMutexOpenedFileHandles);

    RegistryMutex m_hMutexOpenedFileHandles;
    COpenedFiles m_OpenedFiles GUARDED_BY(m_hMutexOpenedFileHandles);
};
