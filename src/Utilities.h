// CUtilities: every registry of the server and the file operations, over the cache of open descriptors
// (CDescriptorCache), the system's calls (COsFiles) and the log (CLog), all of which it is.
//
// The implementation is told in themed files, one for each banner below (UtilitiesMount.cpp, UtilitiesFile.cpp, ...).
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

#include "DescriptorCache.h"
#include "HostAnswers.h"
#include "Limits.h"
#include "MountTable.h"
#include "PathProbe.h"
#include "RedirectedTable.h"
#include "RunningCommands.h"
#include "RuntimeParam.h"
#include "ThreadAnnotations.h"

class CAccessFile;
class CFileTable;
class CRedirectedFile;
class CRedirectedRename;
class CVSphereWebController;
struct ReceiverFigures;
struct RegistryFigures;

/// One session of the host.
struct SessionInfo {
    std::string sSessionID;  ///< the key
    std::string sLocalMountPath;
};

/// One NFS datastore that the host mounted on a vSphere host; unmounted when the server stops.
struct VSphereInfo {
    std::string sDatastoreMoid;  ///< the key
    std::string sHost;
    std::string sPort;
    std::string sUser;
    std::string sPwd;

    bool operator==(const VSphereInfo&) const = default;
};

/// What the file system that holds a path tells of itself: bytes and counts, all ones for what cannot be had.
struct FileSystemFigures {
    unsigned long long lTotalBytes = ~0ULL;
    unsigned long long lFreeBytes = ~0ULL;
    unsigned long long lFreeBytesForCaller = ~0ULL;
    unsigned long long lTotalSlots = ~0ULL;
    unsigned long long lFreeSlots = ~0ULL;
};

/// The registries and file operations of one server instance.
///
/// Any thread may call any operation. Each table has a mutex of its own; where locks nest the order is
/// redirected files, descriptor cache, exports, file table (docs/architecture.md). No registry mutex is held while
/// the host is notified or a log line goes out. A runtime parameter and a LogArgu serve logging only, unless said
/// otherwise; neither is kept. Reason buffers hold kReasonBufferSize characters and may be null.
class CUtilities : public CDescriptorCache {
public:
    CUtilities();
    ~CUtilities() override;
    CUtilities(const CUtilities&) = delete;
    CUtilities& operator=(const CUtilities&) = delete;

    /// Empties every registry: exports, sessions, cached descriptors, redirected files, net-device credentials.
    void Reset(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu);

    // ---- Paths and texts (UtilitiesText.cpp)

    /// Resolves a path with realpath into a buffer of kPathBufferSize (which may be the path itself). A path that
    /// does not exist is copied unchanged; one that does not fit leaves an empty text, which names nothing either.
    /// Never fails; false tells of these two. The status of what the path resolves to is filled, if one is given, where
    /// it comes at no cost.
    bool GetCanonicalPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, char* pcOut, const char* pcPath,
                          FoundStatus* pStatus = nullptr);
    /// The same as a text of any length: what does not fit a buffer stays as it is given, and names nothing.
    std::string GetCanonicalText(const LogContext& log, const char* pcPath);
    /// Appends "/" in place unless the text is empty, already ends in "/", or a buffer of kPathBufferSize is full.
    static void SetPathToCompare(char* pcPath);
    static void SetPathToCompare(std::string& sPath);
    /// Appends the pieces between separators; leading and inner empty ones are kept, a trailing empty one is not.
    static void SplitIntoVector(const char* pcText, char cSeparator, std::vector<std::string>& vOut);
    /// A size as "%.1fB" to "%.1fEB" (binary units; a value moves on to a unit in which it exceeds 1.0).
    /// The buffer holds at least 32 characters.
    static void GetPrintableFileSize(unsigned long long iBytes, char* pcOut);
    static unsigned long long GetCurrentSystemTimeInMilliseconds();

    // ---- Exports (UtilitiesMount.cpp)

    /// Exports a local directory under a name. False with a reason when name or path is taken, or the name holds
    /// "/" or a blank (judged in this order).
    bool AddMountInfo(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcLocalMountPath,
                      const char* pcExportName, const char* pcIpcID, char* pcStatus);
    /// True, with a reason, if the name or the path (either may be null) is exported already.
    bool IsMountInfoExists(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcLocalMountPath,
                           const char* pcExportName, char* pcStatus);
    /// Removing the last export, by whatever key, empties the file handle table.
    /// The cached descriptors of an export that goes are closed, without log lines where no parameter is given.
    void RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu,
                                         const char* pcLocalMountPath);
    void RemoveMountInfoByExportName(const char* pcExportName);
    void RemoveAllMountInfo();
    void RemoveAllMountInfo(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu);
    /// Binds an export to a client address, or releases it (null address, always allowed). Refused with a reason
    /// when the export is unknown or bound, even to the same client. The export is copied to pMountInfo if given.
    bool UpdateMountClientIpAddrByExportName(const char* pcExportName, const char* pcClientAddr, MountInfo* pMountInfo,
                                             char* pcStatus);
    /// Finds the first export, in name order, that holds the path (at a component boundary). A path that still
    /// holds a ".." component belongs to no export.
    bool GetMountInfoByPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                            MountInfo* pMountInfo);
    /// The same search for a call from an address (null: anybody's). An export that is mounted serves its client alone;
    /// where exports are nested, a client is served that has mounted any of those that hold the path. Of the export,
    /// an address's call gets the name and, if kServed, the IPC ID; if kHeld, of the one in the way, the client.
    MountAccess GetMountAccess(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                               const char* pcClientAddr, MountInfo* pMountInfo);
    /// Is a path, compared as it is, that of an export's directory, or does such a directory lie below it?
    bool HoldsMountPoint(const char* pcCanonicalPath);
    bool IsRemoteAddrExists(const char* pcClientAddr);
    /// Counts the exports (only the mounted ones if asked) and prints each as a raw line if asked.
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails);

    // ---- The access file (UtilitiesAccess.cpp)
    // Off unless an operator asks for it. All of this is for the clients' calls, which come one at a time; the file is
    // put in place before and taken away after them.

    /// Null for none.
    void SetAccessFile(std::unique_ptr<CAccessFile> pAccessFile);
    /// Called before each call is judged: takes over the rules of a file that has changed.
    void RefreshAccess(const LogContext& log) {
        if (m_pAccessFile) {
            LookAtAccessFile(log);
        }
    }
    /// GetMountAccess for a client's call, with what the access file says of the client: the rules of the innermost
    /// export that holds the path decide. *pbReadOnly is set, and else left, where they admit it for reading only.
    MountAccess GetClientAccess(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                const char* pcClientAddr, MountInfo* pMountInfo, bool* pbReadOnly);
    /// Do the rules of the innermost export that holds a path admit a client? True without an access file.
    bool IsAdmitted(const char* pcPath, const char* pcClientAddr);
    /// Binds an export to a client as UpdateMountClientIpAddrByExportName does, for a client that the access file
    /// admits. One that may share it is not refused when another holds it, and leaves it to that one; who is not
    /// admitted any more holds nothing.
    bool MountExport(const char* pcExportName, const char* pcClientAddr, MountInfo* pMountInfo, char* pcStatus);
    /// Sets an export free; with an access file only for the client that holds it.
    void UnmountExport(const char* pcExportName, const char* pcClientAddr);

    // ---- Sessions (UtilitiesSession.cpp)

    void AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath);
    void RemoveSessionInfo(const char* pcSessionID);
    void RemoveSessionInfoByLocalMountPath(const char* pcLocalMountPath);
    void RemoveAllSessionInfo();
    bool IsSessionExists(const char* pcSessionID);
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);

    // ---- File handles (UtilitiesFileHandle.cpp)

    /// The ID of a path's canonical form, given out now if it is new; kNoFileID for a null path.
    unsigned int GetFileID(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath);
    /// The same for a path that was made canonical already and need not be resolved again.
    unsigned int GetCanonicalFileID(const char* pcCanonicalPath);
    /// Makes a file handle: the ID in the first four bytes (little-endian), zeros to iLen (at least 5).
    bool GetFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, char* pcHandle,
                       unsigned int iLen);
    /// Makes the handle of an ID; false for kNoFileID.
    static bool MakeFileHandle(unsigned int iID, char* pcHandle, unsigned int iLen);
    /// The path of a handle, decoded from its first four bytes; false for an unknown ID or a path that does not fit.
    bool GetFilePath(CRuntimeParam* pRuntimeParam, const char* pcHandle, char* pcPath, unsigned int iSize);
    void ResetFileTable();

    // ---- File operations of the NFS procedures (UtilitiesFile.cpp, UtilitiesRename.cpp)
    // Only regular files are opened; what else a path names fails as a file that cannot be opened. Where a call has
    // looked at the path it hands on what it found (pFound, of which nothing need be known): a cached descriptor of
    // another file is not used.

    /// The size of a regular file. An ordinary one is opened for it only where file access is logged, or nothing was
    /// found yet; the default is for one that cannot be opened.
    unsigned long long GetFileSize(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                   unsigned long long iDefaultSize, const FoundStatus* pFound = nullptr);
    /// Makes a file; one that is there stays as it is. What it is then goes to pMade, if given.
    bool NewFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry,
                 FoundStatus* pMade = nullptr);
    /// Pairs of (set it, value); times in seconds and nanoseconds since 1970. Ordinary files take mode and size;
    /// owner and times are accepted and ignored. A redirected file's size and times are the host's to grant.
    bool UpdateFileAttributes(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, bool bMode,
                              unsigned int iMode, bool bUid, unsigned int iUid, bool bGid, unsigned int iGid,
                              bool bSize, unsigned long long iSize, bool bAtime, unsigned int iAtimeSec,
                              unsigned int iAtimeNsec, bool bMtime, unsigned int iMtimeSec, unsigned int iMtimeNsec,
                              const FoundStatus* pFound = nullptr);
    /// Takes the place of what stands under the new path, and its handle along (UtilitiesRename.cpp). False also when
    /// the path never had a handle, though it is renamed. Onto itself: true, and nothing changes.
    bool RenameFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& from,
                    const CFolderEntry& to);
    bool RemoveFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& entry);
    /// Reads up to iLen bytes; the result is their number, or -1. A redirected file may deliver more than iLen when
    /// zeros stand for a gap (up to GetReadRoom(iLen)); the buffer has that room.
    int ReadFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, unsigned long long iSeek,
                 int iSeekType, void* pvBuffer, unsigned int iLen, bool* pbEof, const FoundStatus* pFound = nullptr);
    /// Writes with one call; the result is the byte count, or -1; for a redirected file the host's answer. While writes
    /// are synchronous, the bytes are with the storage then, or the write failed.
    int WriteFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, unsigned long long iSeek,
                  int iSeekType, const void* pvData, unsigned int iLen, const FoundStatus* pFound = nullptr);
    /// Off at first. Concerns ordinary files; takes effect with the next write.
    void SetSyncWrites(bool bSyncWrites) { m_bSyncWrites = bSyncWrites; }
    bool IsSyncWrites() const { return m_bSyncWrites; }

    // ---- File-system figures (UtilitiesFileSystem.cpp)
    // Bytes or counts; all ones when the figure cannot be had. With what was found for the path, if it is given, the
    // file system that holds that file is asked, wherever links lead by now.

    /// All of them in one step.
    static FileSystemFigures GetFileSystemFigures(const char* pcPath, const FoundStatus* pFound = nullptr);
    static unsigned long long GetTotalDiskSpace(const char* pcPath);
    static unsigned long long GetFreeDiskSpace(const char* pcPath);
    static unsigned long long GetFreeDiskSpaceAvailableToCaller(const char* pcPath);
    static unsigned long long GetTotalFileSlots(const char* pcPath);
    static unsigned long long GetFreeFileSlots(const char* pcPath);
    static unsigned long long GetFreeFileSlotsAvailableToCaller(const char* pcPath);
    /// 4 when it cannot be had.
    static unsigned long long GetFileSystemID(const char* pcPath, const FoundStatus* pFound = nullptr);
    /// By file-system type; 2^41 when in doubt.
    static unsigned long long GetMaxFileSize(const char* pcPath, const FoundStatus* pFound = nullptr);

    // ---- Redirected files (UtilitiesRedirected.cpp)
    // The registry shares each object with the operations in flight: a file that is closed while it is read frees
    // itself when its last reader is done.

    /// Opens a virtual file under a path. An earlier one under the same path gives way to it in one step and is closed
    /// afterwards: no client's call falls through to the disk in between. With bCreateInfoFile the segment records are
    /// kept in the file at that path. Sizes of info-file pieces in MiB; 0 or less: default.
    std::shared_ptr<CRedirectedFile> OpenRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                        long long iSize, bool bCreateInfoFile,
                                                        int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);
    void CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    /// Closes those at or below a path.
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam);
    bool AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcSourcePath,
                                  long long iSrcFileOffset, long long iOffset, long long iLength, char* pcStatus);
    void ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath);
    void ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath,
                                  bool bMergeRange);
    /// Files under the new path what is open under the old one, in one step; what was open under the new path is
    /// closed. Nobody is asked. False if none was open under the old path.
    bool RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo);
    /// Old and new path of each redirected file below a folder that is renamed, in path order.
    std::vector<std::pair<std::string, std::string>> GetRenamesBelow(const char* pcFolderFrom, const char* pcFolderTo);
    /// Could the owners be told of all that a rename does to redirected files: the one under the old path, the one that
    /// the new path takes the place of, and those below a folder?
    bool CanTellOfRename(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo);
    /// A client removed the file: closes it, then asks its owner. True if that grants it, or none was open.
    bool RemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    /// Null when none is open under the path. Whoever has to know whether a path is redirected asks once and goes by
    /// the answer to the end, however often the host opens and closes meanwhile.
    std::shared_ptr<CRedirectedFile> GetRedirectedFile(const char* pcPath);
    /// Is one open under the path, however either of the two is spelled?
    bool IsRedirectedFile(const char* pcPath);

    // ---- Platform test (UtilitiesPlatformTest.cpp)

    /// Exercises on a directory every file operation that the server needs; reports each step as a log line.
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize);
    /// Mode 0: does the path exist? False with a reason otherwise.
    bool RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus);

    // ---- Shell command and network-device credentials (UtilitiesAdmin.cpp)

    /// Runs a shell command (CShellCommand); its output goes to the log. The raw wait status, or -1, also for one that
    /// was ended before its output was.
    int ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogResult);
    /// Those that run now, credential commands included.
    CRunningCommands& GetRunningCommands() { return m_RunningCommands; }
    int GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    bool AddNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcUser,
                                const char* pcPwd);
    bool RemoveNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void RemoveAllNetDeviceCredential(CRuntimeParam* pRuntimeParam);

    // ---- vSphere datastores (UtilitiesVSphere.cpp)

    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                        const char* pcPwd);
    void RemoveVSphereInfo(const char* pcDatastoreMoid);
    /// Unmounts and forgets every recorded datastore.
    void RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam);

    // ---- Figures (UtilitiesStatistics.cpp)

    /// How much the registries hold. Never waits for a host, a client, or a tool that runs.
    RegistryFigures GetRegistryFigures();
    /// What is known of remote processes; nothing where callbacks go to none. Stands behind the slots of the bases.
    virtual std::optional<ReceiverFigures> GetReceiverFigures();
    /// Counts what hosts answer to notifications.
    CHostAnswers& GetHostAnswers() { return m_HostAnswers; }
    /// The listings that the NFS program keeps, as it tells whenever that changes.
    void NoteListings(std::size_t nListings, std::size_t nBytes) {
        m_nListings = nListings;
        m_nListingBytes = nBytes;
    }

protected:
    // Steps of the platform test.
    void RunTestFileSteps(const LogContext& log, const char* pcTarget, unsigned long long iFileSize);
    bool RunTestUpdateFileSize(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                               unsigned long long iNewSize, const char* pcDescription);
    bool RunTestReadWriteFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile,
                              unsigned long long iPosition, unsigned long long iFileSize);
    bool RunTestUpdateFileAttribute(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                    unsigned int iMode);
    bool ExecuteAddNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcUser,
                                          const char* pcPwd);
    bool ExecuteRemoveNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* pcPath);

private:
    bool IsExported(const LogContext& log, const char* pcPath) override;
    MountAccess ScanMountInfos(const LogContext& log, std::string_view sPath, bool bReachable, const char* pcClientAddr,
                               MountInfo* pMountInfo);

    // Steps of what the access file says.
    void LookAtAccessFile(const LogContext& log);
    void GetInnermostExport(std::string_view sPath, std::string* psExportName);
    bool FindExport(const char* pcExportName, MountInfo* pMountInfo);

    // Steps of the figures.
    void CountMountInfos(RegistryFigures* pFigures);
    void CountRedirectedFiles(RegistryFigures* pFigures);

    // Steps of the clean-up.
    bool GetFirstVSphereInfo(VSphereInfo* pInfo);
    void UnmountWithWebCtrl(const VSphereInfo& info);

    // Steps that hold a lock of their callers.
    bool FindMountInfoClash(const LogContext& log, const char* pcLocalMountPath, const char* pcExportName,
                            char* pcStatus) REQUIRES(m_hMutexMountInfos);
    void ResetFileTableWithoutExports() REQUIRES(m_hMutexMountInfos);
    bool InsertMountInfo(const LogContext& log, MountInfo mountInfo, char* pcStatus);

    // Steps of the file operations.
    int ReadOpenedFile(const LogContext& log, const CCachedFile& file, long long iOffset, void* pvBuffer,
                       unsigned int iLen, bool* pbEof, const FoundStatus* pFound);
    int WriteOpenedFile(const LogContext& log, const CCachedFile& file, long long iOffset, const void* pvData,
                        unsigned int iLen);
    long long SeekToEnd(const LogContext& log, const CCachedFile& file);
    int ReadRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, std::shared_ptr<CRedirectedFile> pFile,
                           unsigned long long iSeek, void* pvBuffer, unsigned int iLen, bool* pbEof);
    std::shared_ptr<CRedirectedFile> TakeRedirectedFile(const char* pcPath);
    std::shared_ptr<CRedirectedFile> TakeRedirectedFileBelow(CRuntimeParam* pRuntimeParam, const std::string& sPrefix);
    std::string GetCanonicalKey(const char* pcPath);
    bool IsSourceRedirected(const CRedirectedFile& file, const char* pcSource);

    // Steps of a rename.
    bool RenameOnDisk(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to);
    bool ReplaceFile(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to);
    bool RemoveTarget(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to);
    bool UndoRename(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to, bool bOnDisk,
                    CRedirectedRename& redirected);
    void CloseRenamedFileHandles(const LogContext& log, const char* pcPathFrom, const char* pcPathTo, bool bFolder);
    /// Handles of the old path, and of paths below it, name the new one from now on. The table knows canonical paths;
    /// what is not on disk it knows by the path as given. False if neither of the two had a handle.
    bool MoveFileHandles(const char* pcPathFrom, const char* pcCanonicalFrom, const char* pcCanonicalTo);

    // Lock order: redirected files, the descriptor cache's, exports, file table. Of the others none nests with these or
    // with another one; under the datastores' the clean-up tool has a lock of its own.

    /// Redirected files by the path that clients see.
    RegistryMutex m_hMutexRedirectedFiles;
    CRedirectedTable m_RedirectedFiles GUARDED_BY(m_hMutexRedirectedFiles);

    /// Each write to an ordinary file is flushed before it is answered.
    std::atomic<bool> m_bSyncWrites{false};

    /// The exports.
    RegistryMutex m_hMutexMountInfos;
    CMountTable m_MountInfos GUARDED_BY(m_hMutexMountInfos);

    /// Not locked: see SetAccessFile.
    std::unique_ptr<CAccessFile> m_pAccessFile;

    /// Paths and their file IDs.
    RegistryMutex m_hMutexFileTable;
    std::unique_ptr<CFileTable> m_pFileTable GUARDED_BY(m_hMutexFileTable);

    /// Sessions by ID.
    RegistryMutex m_hMutexSessionInfos;
    std::map<std::string, SessionInfo, std::less<>> m_SessionInfos GUARDED_BY(m_hMutexSessionInfos);

    /// Datastores by MOID; held while the clean-up tool runs.
    RegistryMutex m_hMutexVSphereInfos;
    std::map<std::string, VSphereInfo, std::less<>> m_VSphereInfos GUARDED_BY(m_hMutexVSphereInfos);
    std::unique_ptr<CVSphereWebController> m_pVSphereWebController GUARDED_BY(m_hMutexVSphereInfos);

    CRunningCommands m_RunningCommands;

    // Without a lock, as nothing depends on them.
    CHostAnswers m_HostAnswers;
    std::atomic<std::size_t> m_nListings{0};
    std::atomic<std::size_t> m_nListingBytes{0};

    /// Device paths whose credentials were added; held while the credential command runs.
    RegistryMutex m_hMutexNetDeviceCredential;
    std::vector<std::string> m_NetDeviceCredential GUARDED_BY(m_hMutexNetDeviceCredential);
};
