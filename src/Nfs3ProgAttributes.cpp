// NFS version 3: GETATTR, SETATTR, LOOKUP, ACCESS, READLINK (RFC 1813, 3.3.1 to 3.3.5), and attributes of host files.
#include "Nfs3Prog.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "DeviceAnswer.h"
#include "FileSystemID.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "PathProbe.h"
#include "Utilities.h"

namespace {

// ACCESS bits (RFC 1813, 3.3.4) that a read-only server takes away.
constexpr unsigned int kAccess3Modify = 0x04;
constexpr unsigned int kAccess3Extend = 0x08;
constexpr unsigned int kAccess3Delete = 0x10;
constexpr unsigned int kAccess3Execute = 0x20;
constexpr unsigned int kAccessesOfWriters = kAccess3Modify | kAccess3Extend | kAccess3Delete | kAccess3Execute;

/// Permission bits, set-group-ID and set-user-ID: the same bits in st_mode and mode3. The sticky bit is not among them.
constexpr unsigned int kSharedModeBits = S_IRWXU | S_IRWXG | S_IRWXO | S_ISGID | S_ISUID;
static_assert(kSharedModeBits == 0xDFF);

ftype3 GetFileType(mode_t iMode) {
    switch (iMode & S_IFMT) {
        case S_IFREG:
            return NF3REG;
        case S_IFDIR:
            return NF3DIR;
        case S_IFBLK:
            return NF3BLK;
        case S_IFCHR:
            return NF3CHR;
        case S_IFLNK:
            return NF3LNK;
        case S_IFSOCK:
            return NF3SOCK;
        case S_IFIFO:
            return NF3FIFO;
        default:
            return NF3NONE;
    }
}

/// The device a file stands for; for all but devices, deliberately, the one that holds it.
specdata3 GetDevice(ftype3 iType, const struct stat& status) {
    const dev_t device = iType == NF3BLK || iType == NF3CHR ? status.st_rdev : status.st_dev;
    return {major(device), minor(device)};
}

/// Whole seconds, cut to the 32 bits of nfstime3.
nfstime3 GetSeconds(const timespec& time) {
    return {static_cast<unsigned int>(time.tv_sec), 0};
}

/// The ID of the file system that a path lies on; a link may lead to another one.
unsigned long long GetFileSystemID(const char* pcPath, const struct stat& status, const FoundStatus* pFound) {
    if (S_ISLNK(status.st_mode)) {
        return CUtilities::GetFileSystemID(pcPath, pFound);
    }
    thread_local CDeviceAnswer last;
    if (const auto iKept = last.Find(status.st_dev)) {
        return *iKept;
    }
    const unsigned long long iID = CUtilities::GetFileSystemID(pcPath, pFound);
    if (iID != kUnknownFileSystemID) {  // the file has gone meanwhile, say; that tells nothing of the others there
        last.Keep(status.st_dev, iID);
    }
    return iID;
}

}  // namespace

// ---- Procedures

int CNfs3Prog::ProcedureGETATTR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    std::string sPath;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &sPath);

    FoundStatus found;
    nfsstat3 iStatus = CheckExisting(pParam, sPath, false, &found);
    fattr3 attributes;
    if (iStatus == NFS3_OK &&
        !GetNfsFileAttributes(log.pRuntimeParam, log.pLogArgu, sPath.c_str(), &attributes, &found)) {
        iStatus = NFS3ERR_IO;
    }

    Write(pOutput, static_cast<unsigned int>(iStatus));
    if (iStatus == NFS3_OK) {
        Write(pOutput, attributes);
    }
    return EndProcedure(log, iStatus);
}

int CNfs3Prog::ProcedureSETATTR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    std::string sPath;
    sattr3 attributes;
    sattrguard3 guard;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &sPath);
    Read(pInput, &attributes, false);
    Read(pInput, &guard);
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Guard check: %d, time: %lld", guard.check ? 1 : 0,
                 static_cast<long long>(guard.obj_ctime.seconds));

    FoundStatus found;
    nfsstat3 iStatus = CheckExisting(pParam, sPath, false, &found);
    if (IsReadOnly(*pParam) && attributes.SetsAnything()) {
        iStatus = NFS3ERR_ACCES;
    }
    if (iStatus == NFS3_OK) {
        iStatus = CheckGuard(log, sPath, guard);
    }
    if (iStatus == NFS3_OK) {
        iStatus = ApplyAttributes(log, sPath, attributes, found);
    }

    WriteStatusAndWcc(pOutput, iStatus);
    return EndProcedure(log, iStatus);
}

/// The server's time is that of attributes which are never had, 0: only a guard of 0 seconds holds. The log line gives
/// the server's time first.
nfsstat3 CNfs3Prog::CheckGuard(const LogContext& log, const std::string& sPath, const sattrguard3& guard) {
    wcc_attr before;
    GetNfsFileAttributes(sPath.c_str(), &before);
    if (!guard.check || before.ctime.seconds == guard.obj_ctime.seconds) {
        return NFS3_OK;
    }
    NFS_LOG_ERROR(log, "[%s] Guard check fail, client: %lld, server: %lld",
                  static_cast<long long>(before.ctime.seconds), static_cast<long long>(guard.obj_ctime.seconds));
    return NFS3ERR_NOT_SYNC;
}

nfsstat3 CNfs3Prog::ApplyAttributes(const LogContext& log, const std::string& sPath, const sattr3& attributes,
                                    const FoundStatus& found) {
    const bool bTimes = attributes.atime.set_it != DONT_CHANGE || attributes.mtime.set_it != DONT_CHANGE;
    if ((m_iFSF3Properties & kFsf3CanSetTime) == 0 && bTimes) {
        NFS_LOG_ERROR(log, "[%s] Server don't allow settime");
        return NFS3ERR_INVAL;
    }
    if (!UpdateFileAttributes(log, sPath, attributes, found)) {
        NFS_LOG_ERROR(log, "[%s] Update file attribute to %s fail", sPath.c_str());
        return NFS3ERR_INVAL;
    }
    return NFS3_OK;
}

int CNfs3Prog::ProcedureLOOKUP(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirOp;
    std::string sPath;
    FoundStatus found;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &dirOp, &sPath, &found);

    const nfsstat3 iStatus = TellMissing(*pParam, CheckExisting(pParam, sPath, found.bKnown, &found));
    if (iStatus != NFS3_OK) {
        WriteStatusAndAttributes(pOutput, iStatus);
        return EndProcedure(log, iStatus);
    }
    nfs_fh3 handle;
    GetCanonicalHandle(log, sPath.c_str(), &handle);  // a path always gets one

    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, handle, false);
    Write(pOutput, GetPostOpAttributes(log, sPath.c_str(), &found));
    Write(pOutput, post_op_attr{});
    return EndProcedure(log, iStatus);
}

int CNfs3Prog::ProcedureACCESS(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    std::string sPath;
    unsigned int iAccess = 0;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &sPath);
    Read(pInput, &iAccess);

    FoundStatus found;
    const nfsstat3 iStatus = CheckExisting(pParam, sPath, false, &found);
    const bool bReadOnly = IsReadOnly(*pParam);
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Readonly: %d, access: %x", bReadOnly ? 1 : 0, iAccess);
    if (iStatus != NFS3_OK) {
        WriteStatusAndAttributes(pOutput, iStatus);
        return EndProcedure(log, iStatus);
    }
    // All else is granted as asked: the host's permissions are not looked at.
    const unsigned int iGranted = bReadOnly ? iAccess & ~kAccessesOfWriters : iAccess;

    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, GetPostOpAttributes(log, sPath.c_str(), &found));
    Write(pOutput, iGranted);
    return EndProcedure(log, iStatus);
}

// Links are resolved by the server and never shown to clients: there is none to read.
int CNfs3Prog::ProcedureREADLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    COpaquePath path;
    Read(pInput, &path, true);

    const nfsstat3 iStatus = CheckUnresolved(pParam);

    Write(pOutput, static_cast<unsigned int>(iStatus));
    if (iStatus == NFS3_OK) {
        Write(pOutput, path, false);
    }
    Write(pOutput, post_op_attr{});
    return EndProcedure(log, iStatus);
}

// ---- Handles and attributes

bool CNfs3Prog::GetNfsFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                 nfs_fh3* pHandle) {
    return pHandle != nullptr &&
           m_pUtilities->GetFileHandle(pRuntimeParam, pLogArgu, pcPath, pHandle->cHandle, kNfs3HandleSize);
}

/// The handle of a path that was resolved for this call, and is resolved once more only where that is to be logged.
bool CNfs3Prog::GetCanonicalHandle(const LogContext& log, const char* pcPath, nfs_fh3* pHandle) {
    if (log.pRuntimeParam->IsLogGeneralInfo()) {
        return GetNfsFileHandle(log.pRuntimeParam, log.pLogArgu, pcPath, pHandle);
    }
    return CUtilities::MakeFileHandle(m_pUtilities->GetCanonicalFileID(pcPath), pHandle->cHandle, kNfs3HandleSize);
}

bool CNfs3Prog::GetNfsFileAttributes(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                     fattr3* pAttributes, const FoundStatus* pFound) {
    FoundStatus looked;
    const struct stat& status = looked.status;
    if (m_pUtilities->OS_GetFileStat(pRuntimeParam, pLogArgu, pcPath, &looked.status, nullptr, pFound) != 0) {
        return false;
    }
    looked.bKnown = true;
    looked.bLinks = true;
    const bool bFound = pFound != nullptr && pFound->bKnown;
    unsigned long long iSize = static_cast<unsigned long long>(status.st_size);
    const ftype3 iType = GetFileType(status.st_mode);
    const unsigned long long iFileSystemID = GetFileSystemID(pcPath, status, pFound);
    if (iType == NF3REG) {
        iSize = m_pUtilities->GetFileSize(pRuntimeParam, pLogArgu, pcPath, iSize, bFound ? pFound : &looked);
    }
    fattr3& attributes = *pAttributes;
    attributes.type = iType;
    attributes.mode = ConvertFileModeToNfsFileMode(status.st_mode);
    attributes.nlink = static_cast<unsigned int>(status.st_nlink);
    attributes.uid = status.st_uid;
    attributes.gid = status.st_gid;
    attributes.size = iSize;
    attributes.used = iSize;
    attributes.rdev = GetDevice(iType, status);
    attributes.fsid = iFileSystemID;
    attributes.fileid = status.st_ino;
    attributes.atime = GetSeconds(status.st_atim);
    attributes.mtime = GetSeconds(status.st_mtim);
    attributes.ctime = GetSeconds(status.st_ctim);
    LogAttributes({m_pLog, pRuntimeParam, pLogArgu}, pcPath, attributes);
    return true;
}

void CNfs3Prog::LogAttributes(const LogContext& log, const char* pcPath, const fattr3& attributes) {
    NFS_LOG_INFO(
        log, kLogProcFuncArgu,
        "[%s] Path=%s, type=%u, mode=%x, nlink=%u, uid=%u, gid=%u, size=%lld, used=%lld, rdev.1=%u, rdev.2=%u, "
        "fsid=%llu, atime.s=%u, atime.ns=%u, mtime.s=%u, mtime.ns=%u, ctime.s=%u, ctime.ns=%u",
        pcPath, attributes.type, attributes.mode, attributes.nlink, attributes.uid, attributes.gid,
        static_cast<long long>(attributes.size), static_cast<long long>(attributes.used), attributes.rdev.specdata1,
        attributes.rdev.specdata2, static_cast<unsigned long long>(attributes.fsid), attributes.atime.seconds,
        attributes.atime.nseconds, attributes.mtime.seconds, attributes.mtime.nseconds, attributes.ctime.seconds,
        attributes.ctime.nseconds);
}

bool CNfs3Prog::GetNfsFileAttributes(const char* /*pcPath*/, wcc_attr* /*pAttributes*/) {
    return false;
}

/// Attributes that follow if they could be had.
post_op_attr CNfs3Prog::GetPostOpAttributes(const LogContext& log, const char* pcPath, const FoundStatus* pFound) {
    post_op_attr attributes;
    attributes.attributes_follow =
        GetNfsFileAttributes(log.pRuntimeParam, log.pLogArgu, pcPath, &attributes.attributes, pFound);
    return attributes;
}

/// Hands what a client set on to the files. The server's time goes as 0 seconds.
bool CNfs3Prog::UpdateFileAttributes(const LogContext& log, const std::string& sPath, const sattr3& attributes,
                                     const FoundStatus& found) {
    return m_pUtilities->UpdateFileAttributes(log.pRuntimeParam, log.pLogArgu, sPath.c_str(), attributes.mode.set_it,
                                              ConvertNfsFileModeToFileMode(attributes.mode.mode), attributes.uid.set_it,
                                              attributes.uid.uid, attributes.gid.set_it, attributes.gid.gid,
                                              attributes.size.set_it, attributes.size.size,
                                              attributes.atime.set_it != DONT_CHANGE, attributes.atime.atime.seconds,
                                              attributes.atime.atime.nseconds, attributes.mtime.set_it != DONT_CHANGE,
                                              attributes.mtime.mtime.seconds, attributes.mtime.mtime.nseconds, &found);
}

unsigned int CNfs3Prog::ConvertFileModeToNfsFileMode(mode_t iMode) {
    return iMode & kSharedModeBits;
}

mode_t CNfs3Prog::ConvertNfsFileModeToFileMode(unsigned int iMode) {
    return iMode & kSharedModeBits;
}
