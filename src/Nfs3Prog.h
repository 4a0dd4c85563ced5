// CNfs3Prog: the NFS version 3 program (RFC 1813) with its 22 procedures.
//
// The implementation is told in themed files: Nfs3Prog.cpp (frame), Nfs3ProgXdr.cpp (types on the wire),
// Nfs3ProgPath.cpp (handles, names and what of the host they may reach), Nfs3ProgAttributes.cpp,
// Nfs3ProgFileSystem.cpp, Nfs3ProgReadWrite.cpp, Nfs3ProgDirectory.cpp and Nfs3ProgNamespace.cpp (procedures).
#pragma once

#include <array>
#include <atomic>
#include <string>

#include <sys/types.h>

#include "Descriptor.h"
#include "KeptListings.h"
#include "Nfs3Types.h"
#include "ProgramFrame.h"
#include "RpcNumbers.h"
#include "RpcProg.h"
#include "RuntimeParam.h"

class CFolderEntry;
struct FoundStatus;
struct MountInfo;
enum class MountAccess;

/// Answers calls on the files below the exports. A client reaches only what lies in an export once links are resolved.
///
/// Calls come one at a time (the RPC server's mutex), and nothing of a call is kept here but the listings that clients
/// are in the middle of. The settings may be changed by another thread meanwhile.
class CNfs3Prog : public CRpcProg {
public:
    static constexpr unsigned int kVersion = kNfsVersion3;

    /// FSINFO properties (RFC 1813, 3.3.19): the file system is alike throughout, and times can be set. Neither hard
    /// nor symbolic links can be made.
    static constexpr unsigned int kFsf3Homogeneous = 0x08;
    static constexpr unsigned int kFsf3CanSetTime = 0x10;

    /// The most bytes a READ returns of an ordinary file, and a WRITE stores: rtmax and wtmax of FSINFO. Either fits
    /// into a reply or request buffer with ease.
    static constexpr unsigned int kMaxReadSize = 65536;
    static constexpr unsigned int kMaxWriteSize = 16384;

    /// The listings that are kept occupy at most that much memory.
    explicit CNfs3Prog(CUtilities* pUtilities, std::size_t nMaxListingMemory = CKeptListings::kMaxMemory);

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override;
    unsigned int GetVersion() override;
    unsigned int GetMaxSupportProc() override;
    bool IsModifying(unsigned int iVersion, unsigned int iProc) override;
    /// The same, for who has no program of version 3 yet.
    static bool IsModifyingCall(unsigned int iVersion, unsigned int iProc);

    /// Stored for the host; owners in attributes are those of the host's files.
    void SetUserID(unsigned int iUId, unsigned int iGId);
    /// Refuses the modifying procedures, and says so in ACCESS.
    void SetReadOnly(bool bEnable);

    // ---- Procedures
    // Each decodes its arguments, checks, acts and encodes; the NFS status is part of the result written. The return
    // value is a ProgramStatus. Short arguments throw CDataTruncatedExpt before anything is changed.

    int ProcedureNULL(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureGETATTR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureSETATTR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureLOOKUP(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureACCESS(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureREADLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureREAD(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureWRITE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureCREATE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureMKDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureSYMLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureMKNOD(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureREMOVE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureRMDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureRENAME(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureREADDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureREADDIRPLUS(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureFSSTAT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureFSINFO(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedurePATHCONF(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureCOMMIT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureNOIMP(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);

    using Procedure = ProcedureEntry<CNfs3Prog>;
    static constexpr unsigned int kProcedureCount = 22;
    static const std::array<Procedure, kProcedureCount>& GetProcedures();

    // ---- Types on the wire (Nfs3ProgXdr.cpp)
    // Decoders throw CDataTruncatedExpt where the input runs short. "Skip" consumes a value and leaves it unset.

    static void Read(CInputStream* pInput, bool* pbValue);  ///< true only for 1
    static void Read(CInputStream* pInput, unsigned int* piValue);
    static void Read(CInputStream* pInput, unsigned long* plValue);
    static void Read(CInputStream* pInput, nfstime3* pTime);
    static void Read(CInputStream* pInput, opaque* pOpaque);
    /// A text of kPathBufferSize bytes or more is consumed and taken as empty, one with a NUL inside ends there: false
    /// for these two.
    static bool Read(CInputStream* pInput, COpaquePath* pPath, bool bSkip);
    static void Read(CInputStream* pInput, sattr3* pAttributes, bool bSkip);
    static void Read(CInputStream* pInput, sattrguard3* pGuard);
    static void Read(CInputStream* pInput, createhow3* pHow);
    static void Read(CInputStream* pInput, mknoddata3* pData, bool bSkip);

    static void Write(COutputStream* pOutput, bool bValue);
    static void Write(COutputStream* pOutput, unsigned int iValue);
    static void Write(COutputStream* pOutput, unsigned long lValue);
    static void Write(COutputStream* pOutput, const nfstime3& time);
    static void Write(COutputStream* pOutput, const specdata3& data);
    static void Write(COutputStream* pOutput, const opaque& data, bool bLengthOnly);
    static void Write(COutputStream* pOutput, const COpaquePath& path, bool bLengthOnly);
    static void Write(COutputStream* pOutput, const nfs_fh3& handle, bool bLengthOnly);
    static void Write(COutputStream* pOutput, const fattr3& attributes);
    static void Write(COutputStream* pOutput, const wcc_attr& attributes);
    static void Write(COutputStream* pOutput, const pre_op_attr& attributes);
    static void Write(COutputStream* pOutput, const post_op_attr& attributes);
    static void Write(COutputStream* pOutput, const wcc_data& data);
    static void Write(COutputStream* pOutput, const post_op_fh3& handle);

    // ---- Handles, names and paths (Nfs3ProgPath.cpp)

    /// Reads a file handle. False, with the path left empty, if it names nothing.
    bool ReadPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CInputStream* pInput, std::string* psPath);
    /// Reads a directory handle and a name, and finds the entry's path: links resolved as far as it exists. False,
    /// with the path left empty, if the handle names nothing or the path does not fit kPathBufferSize. *pStatus, if
    /// given, is filled where the entry exists and no link led to it: its path needs no look any more.
    bool ReadPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CInputStream* pInput, diropargs3* pDirOp,
                  std::string* psPath, FoundStatus* pStatus = nullptr);
    /// The same for the entry itself, to be made, removed or renamed: its folder's links are resolved, and it may be a
    /// link, which is not followed. The path is empty for a name that no entry can have (too long, or with a NUL
    /// inside), and one of no entry (IsFolderItself) for a name that stands for a folder: none, "." or "..".
    bool ReadEntryPath(const LogContext& log, CInputStream* pInput, diropargs3* pDirOp, CFolderEntry* pEntry,
                       bool* pbExists);
    /// The same for a file to be made or opened: of a link, where it leads. The path is empty for a name that no entry
    /// can have.
    bool ReadNewFile(const LogContext& log, CInputStream* pInput, diropargs3* pDirOp, CFolderEntry* pEntry,
                     bool* pbExists);

    /// Finds the export of a path and makes the call's runtime parameter carry its name and IPC ID. NFS3ERR_IO for a
    /// path in no export, or in one that another client has mounted.
    nfsstat3 CheckProcessParam(ProcessParam* pParam, const LogArgu* pLogArgu, const char* pcPath);
    /// NFS3ERR_STALE for a null path. If it must exist: NFS3ERR_IO for one that does not (its last link followed), or
    /// that links lead out of the exports that serve the client. What is found goes to pStatus, if given: from then on
    /// it is what the call acts on, wherever the path leads by then.
    nfsstat3 CheckPath(ProcessParam* pParam, const LogArgu* pLogArgu, const char* pcPath, bool bMustExist,
                       FoundStatus* pStatus = nullptr);

    /// Joins directory and name with "/" into a buffer of kPathBufferSize. False if one is null or they do not fit.
    static bool AppendFilePath(const char* pcDir, const char* pcName, char* pcOut);
    /// True for names that are never listed: none, "." and "..".
    static bool IsInVaildDirName(const char* pcName);

    // ---- Attributes (Nfs3ProgAttributes.cpp)

    bool GetNfsFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath, nfs_fh3* pHandle);
    /// Attributes of the path itself (a link is not followed). False if they cannot be had.
    bool GetNfsFileAttributes(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                              fattr3* pAttributes, const FoundStatus* pFound = nullptr);
    /// Attributes before an operation are never given: false, and nothing is filled.
    static bool GetNfsFileAttributes(const char* pcPath, wcc_attr* pAttributes);
    /// Both keep the permission bits and the set-ID bits and drop the rest.
    static unsigned int ConvertFileModeToNfsFileMode(mode_t iMode);
    static mode_t ConvertNfsFileModeToFileMode(unsigned int iMode);

private:
    // ---- Frame (Nfs3Prog.cpp)
    static int EndProcedure(const LogContext& log, nfsstat3 iStatus);

    // ---- Failure replies, one for each shape (Nfs3ProgXdr.cpp)
    static void WriteStatusAndAttributes(COutputStream* pOutput, nfsstat3 iStatus);
    static void WriteStatusAndWcc(COutputStream* pOutput, nfsstat3 iStatus);

    // ---- Paths (Nfs3ProgPath.cpp)
    nfsstat3 CheckExisting(ProcessParam* pParam, const std::string& sPath, bool bResolved = false,
                           FoundStatus* pStatus = nullptr);
    nfsstat3 CheckUnresolved(ProcessParam* pParam);
    bool IsReadOnly(const ProcessParam& param) const;
    static nfsstat3 TellMissing(const ProcessParam& param, nfsstat3 iStatus);
    MountAccess FindExport(const LogContext& log, CRuntimeParam* pScanParam, ProcessParam* pParam, const char* pcPath,
                           MountInfo* pMountInfo);
    MountAccess FindExportQuietly(const LogContext& log, ProcessParam* pParam, const char* pcPath);
    static void ReportNoExport(const LogContext& log);
    nfsstat3 CheckLinks(ProcessParam* pParam, const LogContext& log, const char* pcPath, FoundStatus* pStatus);
    bool LookAtResolved(const LogContext& log, const std::string& sResolved, FoundStatus* pStatus);
    void LookWithSpare(const char* pcPath, FoundStatus* pStatus);
    static CDescriptor OpenSpare();
    CFolderEntry OpenEntry(const LogContext& log, std::string sPath);
    bool FindEntryInOneStep(const LogContext& log, const char* pcJoined, CFolderEntry* pEntry, FoundStatus* pStatus);
    std::string FindJoinedPath(const LogContext& log, const char* pcJoined, FoundStatus* pStatus);
    bool ReadJoinedPath(const LogContext& log, CInputStream* pInput, diropargs3* pDirOp, char* pcJoined, bool* pbWhole);
    static void LogPath(const LogContext& log, const std::string& sPath);
    static bool IsFolderItself(const std::string& sPath);
    bool ResolveWithinExports(ProcessParam* pParam, const char* pcPath, std::string* psResolved);

    // ---- Attributes (Nfs3ProgAttributes.cpp)
    bool GetCanonicalHandle(const LogContext& log, const char* pcPath, nfs_fh3* pHandle);
    post_op_attr GetPostOpAttributes(const LogContext& log, const char* pcPath, const FoundStatus* pFound = nullptr);
    static void LogAttributes(const LogContext& log, const char* pcPath, const fattr3& attributes);
    nfsstat3 CheckGuard(const LogContext& log, const std::string& sPath, const sattrguard3& guard);
    nfsstat3 ApplyAttributes(const LogContext& log, const std::string& sPath, const sattr3& attributes,
                             const FoundStatus& found);
    bool UpdateFileAttributes(const LogContext& log, const std::string& sPath, const sattr3& attributes,
                              const FoundStatus& found);

    // ---- File system (Nfs3ProgFileSystem.cpp)
    nfsstat3 CheckFileSystem(ProcessParam* pParam, const std::string& sPath, FoundStatus* pFound,
                             post_op_attr* pAttributes);

    // ---- READ and WRITE (Nfs3ProgReadWrite.cpp)
    struct ReadCall;
    struct WriteCall;
    nfsstat3 ReadIntoReply(ProcessParam* pParam, COutputStream* pOutput, ReadCall* pCall);
    nfsstat3 WriteFromCall(const LogContext& log, CInputStream* pInput, WriteCall* pCall);

    // ---- Directories (Nfs3ProgDirectory.cpp)
    struct ListCall;
    int ListDirectory(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam, unsigned int iProc);
    void ReadListCall(CInputStream* pInput, const LogContext& log, ListCall* pCall);
    nfsstat3 FindEntries(ProcessParam* pParam, FoundStatus* pFound, ListCall* pCall);
    nfsstat3 ReadEntries(const LogContext& log, FoundStatus* pFound, const CKeptListings::Key& key, ListCall* pCall);
    void NoteListings();
    unsigned int GetEntryID(const LogContext& log, const ListCall& call, const ListedEntry& entry, const char* pcPath);
    void WriteEntry(COutputStream* pOutput, ProcessParam* pParam, const ListCall& call, const ListedEntry& entry);
    void WriteEntryTarget(COutputStream* pOutput, ProcessParam* pParam, const ListedEntry& entry, const char* pcPath,
                          unsigned int iFileID);

    // ---- Namespace (Nfs3ProgNamespace.cpp)
    nfsstat3 CheckNewEntry(ProcessParam* pParam, const std::string& sPath);
    nfsstat3 CheckOldEntry(ProcessParam* pParam, const std::string& sPath, bool bExists);
    nfsstat3 CheckRemoval(ProcessParam* pParam, const std::string& sPath, bool bExists);
    nfsstat3 CreateFile(const LogContext& log, const CFolderEntry& entry, bool bExists, const createhow3& how,
                        FoundStatus* pMade);
    nfsstat3 RenameEntry(ProcessParam* pParam, const CFolderEntry& from, const CFolderEntry& to);
    void WriteNewEntry(COutputStream* pOutput, const LogContext& log, const std::string& sPath, nfsstat3 iStatus,
                       const FoundStatus& made);

    std::atomic<unsigned int> m_iUId{0};
    std::atomic<unsigned int> m_iGId{0};
    const unsigned long m_iSysUpTime;  ///< time of construction in ms since 1970: the write verifier
    const unsigned int m_iFSF3Properties = kFsf3Homogeneous | kFsf3CanSetTime;
    std::atomic<bool> m_bReadOnly{false};
    CKeptListings m_Listings;
    CDescriptor m_Spare;  ///< given up for the look at a file when there is no other descriptor
};
