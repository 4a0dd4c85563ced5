// NFS version 3: CREATE, MKDIR, SYMLINK, MKNOD, REMOVE, RMDIR, RENAME, LINK (RFC 1813, 3.3.8 to 3.3.15).
//
// Regular files and directories only; links and special files are refused.
#include "Nfs3Prog.h"

#include "InputStream.h"
#include "OutputStream.h"
#include "Utilities.h"

namespace {

/// A new directory's mode where the client sets none.
constexpr unsigned int kDefaultFolderMode = 0755;

}  // namespace

// ---- Making

int CNfs3Prog::ProcedureCREATE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_CREATE);
    diropargs3 dirOp;
    createhow3 how;
    std::string sPath;
    bool bEntryName = false;
    ReadPath(pParam->pRuntimeParam, &logArgu, pInput, &dirOp, &sPath, nullptr, nullptr, &bEntryName);
    Read(pInput, &how);
    if (!bEntryName) {
        sPath.clear();  // nothing is made under a name that is not wholly used
    }

    nfsstat3 iStatus = CheckNewEntry(pParam, &logArgu, sPath);
    if (iStatus == NFS3_OK) {
        iStatus = CreateFile(pParam, &logArgu, sPath, how);
    }

    WriteNewEntry(pOutput, pParam, &logArgu, sPath, iStatus);
    return EndProcedure(pParam, logArgu, iStatus);
}

/// Makes the file, or opens the one that is there; then sets the attributes asked for.
nfsstat3 CNfs3Prog::CreateFile(ProcessParam* pParam, const LogArgu* pLogArgu, const std::string& sPath,
                               const createhow3& how) {
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    const char* pcPath = sPath.c_str();
    const bool bLog = pRuntimeParam->IsLogProcFuncArgu();
    const bool bExists = (bLog || how.mode == GUARDED) && m_pUtilities->OS_IsFileExists(pcPath, nullptr);
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mode: %d, Is file exist before create: %d", pLogArgu->pcName,
                              static_cast<int>(how.mode), bExists ? 1 : 0);
    }
    nfsstat3 iStatus = NFS3_OK;
    if (how.mode == GUARDED && bExists) {
        iStatus = NFS3ERR_EXIST;
    } else if (how.mode > EXCLUSIVE || !m_pUtilities->NewFile(pRuntimeParam, pLogArgu, pcPath) ||
               !UpdateFileAttributes(pRuntimeParam, pLogArgu, sPath, how.obj_attributes)) {
        iStatus = NFS3ERR_IO;
    }
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Is file exist after create: %d", pLogArgu->pcName,
                              m_pUtilities->OS_IsFileExists(pcPath, nullptr) ? 1 : 0);
    }
    return iStatus;
}

int CNfs3Prog::ProcedureMKDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_MKDIR);
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    diropargs3 dirOp;
    sattr3 attributes;
    std::string sPath;
    bool bExists = false;
    ReadEntryPath(pRuntimeParam, &logArgu, pInput, &dirOp, &sPath, &bExists);
    Read(pInput, &attributes, false);

    nfsstat3 iStatus = CheckNewEntry(pParam, &logArgu, sPath);
    if (iStatus == NFS3_OK) {
        const unsigned int iMode = attributes.mode.set_it ? attributes.mode.mode : kDefaultFolderMode;
        if (m_pUtilities->OS_FolderCreate(pRuntimeParam, &logArgu, sPath.c_str(), iMode, nullptr) == -1) {
            iStatus = NFS3ERR_IO;
        }
    }

    WriteNewEntry(pOutput, pParam, &logArgu, sPath, iStatus);
    return EndProcedure(pParam, logArgu, iStatus);
}

/// The checks of CREATE and MKDIR: the path is one of an entry in an export, and the server may be written to.
nfsstat3 CNfs3Prog::CheckNewEntry(ProcessParam* pParam, const LogArgu* pLogArgu, const std::string& sPath) {
    nfsstat3 iStatus = CheckProcessParam(pParam, pLogArgu, sPath.c_str());
    if (iStatus == NFS3_OK) {
        iStatus = IsFolderItself(sPath) ? NFS3ERR_IO : CheckPath(pParam, pLogArgu, sPath.c_str(), false);
    }
    return m_bReadOnly ? NFS3ERR_ACCES : iStatus;
}

/// The reply of CREATE and MKDIR: handle and attributes of what was made, nothing of the directory.
void CNfs3Prog::WriteNewEntry(COutputStream* pOutput, ProcessParam* pParam, const LogArgu* pLogArgu,
                              const std::string& sPath, nfsstat3 iStatus) {
    if (iStatus != NFS3_OK) {
        WriteStatusAndWcc(pOutput, iStatus);
        return;
    }
    post_op_fh3 handle;
    handle.handle_follows = GetNfsFileHandle(pParam->pRuntimeParam, pLogArgu, sPath.c_str(), &handle.handle);
    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, handle);
    Write(pOutput, GetPostOpAttributes(pParam->pRuntimeParam, pLogArgu, sPath.c_str()));
    Write(pOutput, wcc_data{});
}

// ---- Removing and renaming

int CNfs3Prog::ProcedureREMOVE(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_REMOVE);
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    diropargs3 dirOp;
    std::string sPath;
    bool bExists = false;
    ReadEntryPath(pRuntimeParam, &logArgu, pInput, &dirOp, &sPath, &bExists);

    nfsstat3 iStatus = CheckRemoval(pParam, &logArgu, sPath, bExists);
    if (iStatus == NFS3_OK && !m_pUtilities->RemoveFile(pRuntimeParam, &logArgu, sPath.c_str())) {
        iStatus = NFS3ERR_IO;
    }

    WriteStatusAndWcc(pOutput, iStatus);
    return EndProcedure(pParam, logArgu, iStatus);
}

int CNfs3Prog::ProcedureRMDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_RMDIR);
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    diropargs3 dirOp;
    std::string sPath;
    bool bExists = false;
    ReadEntryPath(pRuntimeParam, &logArgu, pInput, &dirOp, &sPath, &bExists);

    nfsstat3 iStatus = CheckRemoval(pParam, &logArgu, sPath, bExists);
    if (iStatus == NFS3_OK && m_pUtilities->OS_FolderRemove(pRuntimeParam, &logArgu, sPath.c_str(), nullptr) == -1) {
        iStatus = NFS3ERR_IO;
    }

    WriteStatusAndWcc(pOutput, iStatus);
    return EndProcedure(pParam, logArgu, iStatus);
}

int CNfs3Prog::ProcedureRENAME(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_RENAME);
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    diropargs3 from;
    diropargs3 to;
    std::string sFrom;
    std::string sTo;
    bool bFromExists = false;
    bool bToExists = false;  // the host's business
    ReadEntryPath(pRuntimeParam, &logArgu, pInput, &from, &sFrom, &bFromExists);
    ReadEntryPath(pRuntimeParam, &logArgu, pInput, &to, &sTo, &bToExists);

    nfsstat3 iStatus = CheckOldEntry(pParam, &logArgu, sFrom, bFromExists);
    if (iStatus == NFS3_OK) {
        iStatus = RenameEntry(pParam, &logArgu, sFrom, sTo);
    }

    WriteStatusAndWcc(pOutput, iStatus);
    Write(pOutput, wcc_data{});
    return EndProcedure(pParam, logArgu, iStatus);
}

/// Renames an existing entry to a path that lies in an export too. An export's directory stays where it is, and so does
/// every folder on the way to it: the export would come to be something else, or nothing.
nfsstat3 CNfs3Prog::RenameEntry(ProcessParam* pParam, const LogArgu* pLogArgu, const std::string& sFrom,
                                const std::string& sTo) {
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    const nfsstat3 iStatus = CheckPath(pParam, pLogArgu, sTo.c_str(), false);
    if (iStatus != NFS3_OK) {
        return iStatus;
    }
    const MountAccess access = FindExportQuietly(pParam, pLogArgu, sTo.c_str());
    if (access == MountAccess::kNone) {
        ReportNoExport(pParam, pLogArgu);
    }
    if (access != MountAccess::kServed || IsFolderItself(sTo)) {
        return NFS3ERR_IO;
    }
    if (sFrom == sTo) {
        return NFS3_OK;
    }
    if (m_pUtilities->HoldsMountPoint(sFrom.c_str()) || m_pUtilities->HoldsMountPoint(sTo.c_str())) {
        return NFS3ERR_IO;
    }
    return m_pUtilities->RenameFile(pRuntimeParam, pLogArgu, sFrom.c_str(), sTo.c_str()) ? NFS3_OK : NFS3ERR_IO;
}

/// The checks of REMOVE and RMDIR: an entry that is no export's directory and not on the way to one.
nfsstat3 CNfs3Prog::CheckRemoval(ProcessParam* pParam, const LogArgu* pLogArgu, const std::string& sPath,
                                 bool bExists) {
    const nfsstat3 iStatus = CheckOldEntry(pParam, pLogArgu, sPath, bExists);
    return iStatus == NFS3_OK && m_pUtilities->HoldsMountPoint(sPath.c_str()) ? NFS3ERR_IO : iStatus;
}

/// The checks of REMOVE, RMDIR and of what RENAME renames: it exists in an export, the server may be written to, and it
/// is an entry. A missing object on a read-only server is missing all the same.
nfsstat3 CNfs3Prog::CheckOldEntry(ProcessParam* pParam, const LogArgu* pLogArgu, const std::string& sPath,
                                  bool bExists) {
    const nfsstat3 iStatus = CheckExisting(pParam, pLogArgu, sPath, bExists);
    if (iStatus == NFS3ERR_IO) {
        return TellMissing(*pParam, iStatus);
    }
    if (m_bReadOnly) {
        return NFS3ERR_ACCES;
    }
    return iStatus == NFS3_OK && IsFolderItself(sPath) ? NFS3ERR_IO : iStatus;
}

// ---- Not served: the handles and names are passed over, and so no path is found

int CNfs3Prog::ProcedureSYMLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_SYMLINK);
    diropargs3 dirOp;
    sattr3 attributes;
    opaque text;
    Read(pInput, &dirOp.dir, true);
    Read(pInput, &dirOp.name, true);
    Read(pInput, &attributes, true);
    Read(pInput, &text);

    const nfsstat3 iStatus = CheckUnresolved(pParam, &logArgu);

    Write(pOutput, static_cast<unsigned int>(iStatus));
    if (iStatus == NFS3_OK) {
        Write(pOutput, post_op_fh3{});
        Write(pOutput, post_op_attr{});
    }
    Write(pOutput, wcc_data{});
    return EndProcedure(pParam, logArgu, iStatus);
}

// The status goes by the type alone.
int CNfs3Prog::ProcedureMKNOD(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_MKNOD);
    diropargs3 dirOp;
    mknoddata3 data;
    Read(pInput, &dirOp.dir, true);
    Read(pInput, &dirOp.name, true);
    Read(pInput, &data, true);

    CheckUnresolved(pParam, &logArgu);
    const bool bSpecial = data.type == NF3BLK || data.type == NF3CHR || data.type == NF3SOCK || data.type == NF3FIFO;
    const nfsstat3 iStatus = bSpecial ? NFS3ERR_NOTSUPP : NFS3ERR_BADTYPE;

    WriteStatusAndWcc(pOutput, iStatus);
    return EndProcedure(pParam, logArgu, iStatus);
}

int CNfs3Prog::ProcedureLINK(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    LogArgu logArgu = BeginProcedure(pParam, NFSPROC3_LINK);
    COpaquePath file;
    diropargs3 link;
    Read(pInput, &file, true);
    Read(pInput, &link.dir, true);
    Read(pInput, &link.name, true);

    const nfsstat3 iStatus = CheckUnresolved(pParam, &logArgu);

    WriteStatusAndAttributes(pOutput, iStatus);
    Write(pOutput, wcc_data{});
    return EndProcedure(pParam, logArgu, iStatus);
}
