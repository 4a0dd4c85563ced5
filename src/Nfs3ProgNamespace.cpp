// NFS version 3: CREATE, MKDIR, SYMLINK, MKNOD, REMOVE, RMDIR, RENAME, LINK (RFC 1813, 3.3.8 to 3.3.15).
//
// Regular files and directories only; links and special files are refused.
#include "Nfs3Prog.h"

#include <sys/stat.h>

#include "FolderEntry.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "PathProbe.h"
#include "Utilities.h"

namespace {

/// A new directory's mode where the client sets none.
constexpr unsigned int kDefaultFolderMode = 0755;

}  // namespace

// ---- Making

int CNfs3Prog::ProcedureCREATE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirOp;
    createhow3 how;
    CFolderEntry entry;
    bool bExists = false;
    ReadNewFile(log, pInput, &dirOp, &entry, &bExists);
    Read(pInput, &how);

    FoundStatus made;
    nfsstat3 iStatus = CheckNewEntry(pParam, entry.GetPath());
    if (iStatus == NFS3_OK) {
        iStatus = CreateFile(log, entry, bExists, how, &made);
    }

    WriteNewEntry(pOutput, log, entry.GetPath(), iStatus, made);
    return EndProcedure(log, iStatus);
}

/// Makes the file, or opens the one that is there; then sets the attributes asked for.
nfsstat3 CNfs3Prog::CreateFile(const LogContext& log, const CFolderEntry& entry, bool bExists, const createhow3& how,
                               FoundStatus* pMade) {
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Mode: %d, Is file exist before create: %d", static_cast<int>(how.mode),
                 bExists ? 1 : 0);
    nfsstat3 iStatus = NFS3_OK;
    if (how.mode == GUARDED && bExists) {
        iStatus = NFS3ERR_EXIST;
    } else if (how.mode > EXCLUSIVE || !m_pUtilities->NewFile(log.pRuntimeParam, log.pLogArgu, entry, pMade) ||
               !UpdateFileAttributes(log, entry.GetPath(), how.obj_attributes, *pMade)) {
        iStatus = NFS3ERR_IO;
    }
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Is file exist after create: %d", entry.Exists() ? 1 : 0);
    if (iStatus == NFS3_OK && how.obj_attributes.SetsAnything()) {
        pMade->bKnown = ::fstat(pMade->name.Get(), &pMade->status) == 0;
    }
    return iStatus;
}

int CNfs3Prog::ProcedureMKDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirOp;
    sattr3 attributes;
    CFolderEntry entry;
    bool bExists = false;
    ReadEntryPath(log, pInput, &dirOp, &entry, &bExists);
    Read(pInput, &attributes, false);

    FoundStatus made;
    nfsstat3 iStatus = CheckNewEntry(pParam, entry.GetPath());
    if (iStatus == NFS3_OK) {
        const unsigned int iMode = attributes.mode.set_it ? attributes.mode.mode : kDefaultFolderMode;
        if (m_pUtilities->OS_FolderCreate(log.pRuntimeParam, log.pLogArgu, entry, iMode, nullptr) == -1) {
            iStatus = NFS3ERR_IO;
        } else {
            made.bKnown = entry.Look(&made.status);
        }
    }

    WriteNewEntry(pOutput, log, entry.GetPath(), iStatus, made);
    return EndProcedure(log, iStatus);
}

/// The checks of CREATE and MKDIR: the path is one of an entry in an export, and the server may be written to.
nfsstat3 CNfs3Prog::CheckNewEntry(ProcessParam* pParam, const std::string& sPath) {
    nfsstat3 iStatus = CheckProcessParam(pParam, &pParam->logArgu, sPath.c_str());
    if (iStatus == NFS3_OK) {
        iStatus = IsFolderItself(sPath) ? NFS3ERR_IO : CheckPath(pParam, &pParam->logArgu, sPath.c_str(), false);
    }
    return IsReadOnly(*pParam) ? NFS3ERR_ACCES : iStatus;
}

/// The reply of CREATE and MKDIR: handle and attributes of what was made, nothing of the directory.
void CNfs3Prog::WriteNewEntry(COutputStream* pOutput, const LogContext& log, const std::string& sPath, nfsstat3 iStatus,
                              const FoundStatus& made) {
    if (iStatus != NFS3_OK) {
        WriteStatusAndWcc(pOutput, iStatus);
        return;
    }
    const char* pcPath = sPath.c_str();
    post_op_fh3 handle;
    handle.handle_follows = IsPlainPath(pcPath)
                                ? GetCanonicalHandle(log, pcPath, &handle.handle)
                                : GetNfsFileHandle(log.pRuntimeParam, log.pLogArgu, pcPath, &handle.handle);
    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, handle);
    Write(pOutput, made.bKnown ? GetPostOpAttributes(log, pcPath, &made) : post_op_attr{});
    Write(pOutput, wcc_data{});
}

// ---- Removing and renaming

int CNfs3Prog::ProcedureREMOVE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirOp;
    CFolderEntry entry;
    bool bExists = false;
    ReadEntryPath(log, pInput, &dirOp, &entry, &bExists);

    nfsstat3 iStatus = CheckRemoval(pParam, entry.GetPath(), bExists);
    if (iStatus == NFS3_OK && !m_pUtilities->RemoveFile(log.pRuntimeParam, log.pLogArgu, entry)) {
        iStatus = NFS3ERR_IO;
    }

    WriteStatusAndWcc(pOutput, iStatus);
    return EndProcedure(log, iStatus);
}

int CNfs3Prog::ProcedureRMDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirOp;
    CFolderEntry entry;
    bool bExists = false;
    ReadEntryPath(log, pInput, &dirOp, &entry, &bExists);

    nfsstat3 iStatus = CheckRemoval(pParam, entry.GetPath(), bExists);
    if (iStatus == NFS3_OK && m_pUtilities->OS_FolderRemove(log.pRuntimeParam, log.pLogArgu, entry, nullptr) == -1) {
        iStatus = NFS3ERR_IO;
    }

    WriteStatusAndWcc(pOutput, iStatus);
    return EndProcedure(log, iStatus);
}

int CNfs3Prog::ProcedureRENAME(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirFrom;
    diropargs3 dirTo;
    CFolderEntry from;
    CFolderEntry to;
    bool bFromExists = false;
    bool bToExists = false;  // the host's business
    ReadEntryPath(log, pInput, &dirFrom, &from, &bFromExists);
    ReadEntryPath(log, pInput, &dirTo, &to, &bToExists);

    nfsstat3 iStatus = CheckOldEntry(pParam, from.GetPath(), bFromExists);
    if (iStatus == NFS3_OK) {
        iStatus = RenameEntry(pParam, from, to);
    }

    WriteStatusAndWcc(pOutput, iStatus);
    Write(pOutput, wcc_data{});
    return EndProcedure(log, iStatus);
}

/// Renames an existing entry to a path that lies in an export too. An export's directory stays where it is, and so does
/// every folder on the way to it: the export would come to be something else, or nothing.
nfsstat3 CNfs3Prog::RenameEntry(ProcessParam* pParam, const CFolderEntry& from, const CFolderEntry& to) {
    const LogContext log = GetLog(pParam);
    const std::string& sFrom = from.GetPath();
    const std::string& sTo = to.GetPath();
    const nfsstat3 iStatus = CheckPath(pParam, &pParam->logArgu, sTo.c_str(), false);
    if (iStatus != NFS3_OK) {
        return iStatus;
    }
    const MountAccess access = FindExportQuietly(log, pParam, sTo.c_str());
    if (access == MountAccess::kNone) {
        ReportNoExport(log);
    }
    if (access != MountAccess::kServed || IsFolderItself(sTo)) {
        return NFS3ERR_IO;
    }
    if (IsReadOnly(*pParam)) {  // the target's export may be so where the source's is not
        return NFS3ERR_ACCES;
    }
    if (sFrom == sTo) {
        return NFS3_OK;
    }
    if (m_pUtilities->HoldsMountPoint(sFrom.c_str()) || m_pUtilities->HoldsMountPoint(sTo.c_str())) {
        return NFS3ERR_IO;
    }
    return m_pUtilities->RenameFile(log.pRuntimeParam, log.pLogArgu, from, to) ? NFS3_OK : NFS3ERR_IO;
}

/// The checks of REMOVE and RMDIR: an entry that is no export's directory and not on the way to one.
nfsstat3 CNfs3Prog::CheckRemoval(ProcessParam* pParam, const std::string& sPath, bool bExists) {
    const nfsstat3 iStatus = CheckOldEntry(pParam, sPath, bExists);
    return iStatus == NFS3_OK && m_pUtilities->HoldsMountPoint(sPath.c_str()) ? NFS3ERR_IO : iStatus;
}

/// The checks of REMOVE, RMDIR and of what RENAME renames: it exists in an export, the server may be written to, and it
/// is an entry. A missing object on a read-only server is missing all the same.
nfsstat3 CNfs3Prog::CheckOldEntry(ProcessParam* pParam, const std::string& sPath, bool bExists) {
    const nfsstat3 iStatus = CheckExisting(pParam, sPath, bExists);
    if (iStatus == NFS3ERR_IO) {
        return TellMissing(*pParam, iStatus);
    }
    if (IsReadOnly(*pParam)) {
        return NFS3ERR_ACCES;
    }
    return iStatus == NFS3_OK && IsFolderItself(sPath) ? NFS3ERR_IO : iStatus;
}

// ---- Not served: the handles and names are passed over, and so no path is found

int CNfs3Prog::ProcedureSYMLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirOp;
    sattr3 attributes;
    opaque text;
    Read(pInput, &dirOp.dir, true);
    Read(pInput, &dirOp.name, true);
    Read(pInput, &attributes, true);
    Read(pInput, &text);

    const nfsstat3 iStatus = CheckUnresolved(pParam);

    Write(pOutput, static_cast<unsigned int>(iStatus));
    if (iStatus == NFS3_OK) {
        Write(pOutput, post_op_fh3{});
        Write(pOutput, post_op_attr{});
    }
    Write(pOutput, wcc_data{});
    return EndProcedure(log, iStatus);
}

// The status goes by the type alone.
int CNfs3Prog::ProcedureMKNOD(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    diropargs3 dirOp;
    mknoddata3 data;
    Read(pInput, &dirOp.dir, true);
    Read(pInput, &dirOp.name, true);
    Read(pInput, &data, true);

    CheckUnresolved(pParam);
    const bool bSpecial = data.type == NF3BLK || data.type == NF3CHR || data.type == NF3SOCK || data.type == NF3FIFO;
    const nfsstat3 iStatus = bSpecial ? NFS3ERR_NOTSUPP : NFS3ERR_BADTYPE;

    WriteStatusAndWcc(pOutput, iStatus);
    return EndProcedure(log, iStatus);
}

int CNfs3Prog::ProcedureLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    COpaquePath file;
    diropargs3 link;
    Read(pInput, &file, true);
    Read(pInput, &link.dir, true);
    Read(pInput, &link.name, true);

    const nfsstat3 iStatus = CheckUnresolved(pParam);

    WriteStatusAndAttributes(pOutput, iStatus);
    Write(pOutput, wcc_data{});
    return EndProcedure(log, iStatus);
}
