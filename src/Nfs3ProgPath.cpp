// NFS version 3: from handles and names to host paths, and what of the host they may reach.
//
// Every path of a call lies in an export by its text (CheckProcessParam). That its links do not lead elsewhere is seen
// to in three places: a path is made with all links resolved (ReadPath), or all but a link that is the entry itself and
// is not followed either when it is acted on (ReadEntryPath), and a path that has to exist holds no link, or only such
// as stay within the exports that serve the client (CheckPath).
//
// Somebody on the host may put a link in a path's way at any moment. So what a call looked at is what it acts on: a
// descriptor of the file that was found (FoundStatus), or of the folder that an entry is in (CFolderEntry), each opened
// by a path without links. A path is not gone by a second time.
#include "Nfs3Prog.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "BatchLooks.h"
#include "FolderEntry.h"
#include "InputStream.h"
#include "PathProbe.h"
#include "Paths.h"
#include "Utilities.h"

namespace {

/// The bytes of a handle that carry the file ID.
constexpr unsigned int kFileIdSize = 4;

/// As many links as the kernel follows before it gives up.
constexpr int kMaxLinks = 40;

/// What a link holds; nothing for what is no link.
std::optional<std::string> ReadLink(const std::string& sPath) {
    char vcLink[kPathBufferSize];
    const ssize_t nLink = ::readlink(sPath.c_str(), vcLink, sizeof(vcLink));
    if (nLink < 0) {
        return std::nullopt;
    }
    return std::string(vcLink, static_cast<std::size_t>(nLink));
}

/// Where a file would come to be that is created under a path: the path itself, or where the dangling link that
/// stands there points. Takes and returns paths with resolved parents and without trailing slashes.
std::optional<std::string> FollowDanglingLinks(std::string sPath) {
    for (int i = 0; i < kMaxLinks; ++i) {
        const std::optional<std::string> sLink = ReadLink(sPath);
        if (!sLink) {
            return sPath;
        }
        const std::string sTarget = sLink->starts_with('/') ? *sLink : std::string(GetFolderPart(sPath)) + *sLink;
        std::optional<std::string> sNext = ResolveLinks(sTarget);
        if (!sNext) {
            sNext = ResolveFolderPart(sTarget);
        }
        if (!sNext) {
            return std::nullopt;
        }
        sPath = WithoutTrailingSlashes(*sNext);
    }
    return std::nullopt;
}

/// The path of a file that does not exist (yet): its parent's links resolved, or where the dangling link that stands
/// there points. Empty for one that cannot be judged.
std::string FindMissingFile(const char* pcJoined) {
    const std::optional<std::string> sEntry = ResolveFolderPart(pcJoined);
    if (!sEntry) {
        // Nothing can be made below a folder that is not there.
        return errno == ENOENT || errno == ENOTDIR ? pcJoined : "";
    }
    const std::string sBare(WithoutTrailingSlashes(*sEntry));
    const std::optional<std::string> sTarget = FollowDanglingLinks(sBare);
    return sTarget ? *sTarget + sEntry->substr(sBare.size()) : "";
}

/// The path of an entry as it stands in its folder, whose links are resolved. Empty for one that cannot be judged; what
/// is followed by a slash is a folder and no link.
std::string FindEntry(const char* pcJoined, bool* pbExists) {
    const std::optional<std::string> sEntry = ResolveFolderPart(pcJoined);
    if (!sEntry) {
        return errno == ENOENT || errno == ENOTDIR ? pcJoined : "";
    }
    std::string sBare(WithoutTrailingSlashes(*sEntry));
    struct stat status {};
    *pbExists = ::lstat(sBare.c_str(), &status) == 0;
    if (!*pbExists || sBare == *sEntry) {
        return *sEntry;
    }
    *pbExists = S_ISDIR(status.st_mode);
    return *pbExists ? sBare : "";
}

/// What stands behind the path of a folder that a name of its own stood for: no path of an entry ends so.
constexpr std::string_view kFolderItself = "/.";

}  // namespace

// ---- Handles and names to paths

bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CInputStream* pInput,
                         std::string* psPath) {
    psPath->clear();
    opaque handle;
    Read(pInput, &handle);
    char vcPath[kPathBufferSize];
    if (handle.iBufLen < kFileIdSize ||
        !m_pUtilities->GetFilePath(pRuntimeParam, handle.pBuf, vcPath, sizeof(vcPath))) {
        return false;
    }
    *psPath = vcPath;
    LogPath({m_pLog, pRuntimeParam, pLogArgu}, *psPath);
    return true;
}

bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CInputStream* pInput,
                         diropargs3* pDirOp, std::string* psPath, FoundStatus* pStatus) {
    psPath->clear();
    char vcJoined[kPathBufferSize];
    bool bWhole = false;
    const LogContext log{m_pLog, pRuntimeParam, pLogArgu};
    if (!ReadJoinedPath(log, pInput, pDirOp, vcJoined, &bWhole)) {
        return false;
    }
    FoundStatus found;
    *psPath = FindJoinedPath(log, vcJoined, pStatus != nullptr ? pStatus : &found);
    LogPath(log, *psPath);
    return true;
}

/// The path with all links resolved as far as it exists.
std::string CNfs3Prog::FindJoinedPath(const LogContext& log, const char* pcJoined, FoundStatus* pStatus) {
    if (!log.pRuntimeParam->IsLogGeneralInfo() && IsPlainPath(pcJoined) && CBatchLooks::Find(pcJoined, pStatus)) {
        return pcJoined;
    }
    char vcPath[kPathBufferSize];
    if (m_pUtilities->GetCanonicalPath(log.pRuntimeParam, log.pLogArgu, vcPath, pcJoined, pStatus)) {
        CBatchLooks::Keep(vcPath, *pStatus);
        return vcPath;
    }
    return pStatus->bMissing ? pcJoined : FindMissingFile(pcJoined);
}

bool CNfs3Prog::ReadEntryPath(const LogContext& log, CInputStream* pInput, diropargs3* pDirOp, CFolderEntry* pEntry,
                              bool* pbExists) {
    *pbExists = false;
    char vcJoined[kPathBufferSize];
    bool bWhole = false;
    if (!ReadJoinedPath(log, pInput, pDirOp, vcJoined, &bWhole) || !bWhole) {
        return false;
    }
    FoundStatus found;
    char vcPath[kPathBufferSize];
    if (FindEntryInOneStep(log, vcJoined, pEntry, &found)) {
        *pbExists = found.bKnown;
    } else if (!IsEntryName(pDirOp->name.sPath)) {
        *pbExists = m_pUtilities->GetCanonicalPath(log.pRuntimeParam, log.pLogArgu, vcPath, vcJoined);
        *pEntry = CFolderEntry(std::string(vcPath).append(kFolderItself).c_str());
    } else {
        m_pUtilities->GetCanonicalPath(log.pRuntimeParam, log.pLogArgu, vcPath, vcJoined);
        *pEntry = OpenEntry(log, FindEntry(vcJoined, pbExists));
    }
    LogPath(log, pEntry->GetPath());
    return true;
}

bool CNfs3Prog::ReadNewFile(const LogContext& log, CInputStream* pInput, diropargs3* pDirOp, CFolderEntry* pEntry,
                            bool* pbExists) {
    char vcJoined[kPathBufferSize];
    bool bWhole = false;
    if (!ReadJoinedPath(log, pInput, pDirOp, vcJoined, &bWhole)) {
        return false;
    }
    FoundStatus found;
    if (!FindEntryInOneStep(log, vcJoined, pEntry, &found) || (found.bKnown && S_ISLNK(found.status.st_mode))) {
        FoundStatus target;
        *pEntry = OpenEntry(log, FindJoinedPath(log, vcJoined, &target));
        found.bKnown = pEntry->Exists();
    }
    *pbExists = found.bKnown;
    LogPath(log, pEntry->GetPath());
    if (!bWhole || !IsEntryName(pDirOp->name.sPath)) {
        *pEntry = CFolderEntry();  // nothing is made under a name that is not wholly used
    }
    return true;
}

/// Opens the folder that holds an entry and looks for the entry, which may be missing, and the folder with it. False if
/// the path is to be resolved first. The lines that tell of the resolving go out as ever.
bool CNfs3Prog::FindEntryInOneStep(const LogContext& log, const char* pcJoined, CFolderEntry* pEntry,
                                   FoundStatus* pStatus) {
    if (!IsPlainPath(pcJoined)) {
        return false;
    }
    *pEntry = OpenEntry(log, pcJoined);
    const int iError = pEntry->GetError();
    if (iError != 0 && iError != ENOENT && iError != ENOTDIR) {
        return false;
    }
    pStatus->bKnown = pEntry->Look(&pStatus->status);
    if (log.pRuntimeParam->IsLogGeneralInfo() && !(pStatus->bKnown && S_ISLNK(pStatus->status.st_mode))) {
        char vcPath[kPathBufferSize];
        m_pUtilities->GetCanonicalPath(log.pRuntimeParam, log.pLogArgu, vcPath, pcJoined);
    }
    return true;
}

/// An entry in its folder, opened with the help of descriptors that the cache gives up if there are no others.
CFolderEntry CNfs3Prog::OpenEntry(const LogContext& log, std::string sPath) {
    CFolderEntry entry = CFolderEntry::InItsFolder(std::move(sPath));
    if (entry.GetError() == EMFILE) {
        m_pUtilities->FreeCachedFileHandles(log.pRuntimeParam, log.pLogArgu);
        entry = CFolderEntry::InItsFolder(entry.GetPath());
    }
    return entry;
}

/// Reads a directory handle and a name and joins the paths; *pbWhole tells whether the name is as it was sent. The name
/// is read even if the handle names nothing: the next call begins behind it.
bool CNfs3Prog::ReadJoinedPath(const LogContext& log, CInputStream* pInput, diropargs3* pDirOp, char* pcJoined,
                               bool* pbWhole) {
    opaque handle;
    Read(pInput, &handle);
    *pbWhole = Read(pInput, &pDirOp->name, false);
    char vcFolder[kPathBufferSize];
    if (handle.iBufLen < kFileIdSize ||
        !m_pUtilities->GetFilePath(log.pRuntimeParam, handle.pBuf, vcFolder, sizeof(vcFolder))) {
        return false;
    }
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Read path=%s, name=%s", vcFolder, pDirOp->name.sPath.c_str());
    return AppendFilePath(vcFolder, pDirOp->name.sPath.c_str(), pcJoined);
}

void CNfs3Prog::LogPath(const LogContext& log, const std::string& sPath) {
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Path = %s", sPath.c_str());
}

/// Did a name stand for a folder itself? Then the path that ReadEntryPath made of it is none of an entry.
bool CNfs3Prog::IsFolderItself(const std::string& sPath) {
    return sPath.ends_with(kFolderItself);
}

bool CNfs3Prog::AppendFilePath(const char* pcDir, const char* pcName, char* pcOut) {
    return JoinPath(pcDir, pcName, pcOut);
}

bool CNfs3Prog::IsInVaildDirName(const char* pcName) {
    return pcName == nullptr || std::strcmp(pcName, ".") == 0 || std::strcmp(pcName, "..") == 0;
}

// ---- Checks

nfsstat3 CNfs3Prog::CheckProcessParam(ProcessParam* pParam, const LogArgu* pLogArgu, const char* pcPath) {
    // Kept from call to call for the room of its texts only.
    thread_local MountInfo mountInfo;
    const LogContext log{m_pLog, pParam->pRuntimeParam, pLogArgu};
    const MountAccess access =
        pcPath == nullptr ? MountAccess::kNone : FindExport(log, log.pRuntimeParam, pParam, pcPath, &mountInfo);
    if (access == MountAccess::kServed) {
        log.pRuntimeParam->SetID(mountInfo.sExportName.c_str());
        log.pRuntimeParam->SetIpcID(mountInfo.sIcpID.c_str());
        return NFS3_OK;
    }
    if (access == MountAccess::kNone) {
        ReportNoExport(log);
    }
    return NFS3ERR_IO;
}

/// Finds the export that holds a path, telling of the search in the name of the scan's parameter, and says why if it
/// does not serve the client.
MountAccess CNfs3Prog::FindExport(const LogContext& log, CRuntimeParam* pScanParam, ProcessParam* pParam,
                                  const char* pcPath, MountInfo* pMountInfo) {
    const char* pcClient = pParam->sRemoteAddr.c_str();
    const MountAccess access =
        m_pUtilities->GetClientAccess(pScanParam, log.pLogArgu, pcPath, pcClient, pMountInfo, &pParam->bReadOnly);
    if (access == MountAccess::kHeld) {
        pParam->bNotForClient = true;
        NFS_LOG_ERROR(log, "[%s] Export \"%s\" is mounted by %s", pMountInfo->sExportName.c_str(),
                      pMountInfo->sRemoteIpAddr.c_str());
    } else if (access == MountAccess::kDenied) {
        pParam->bNotForClient = true;
        NFS_LOG_ERROR(log, "[%s] The access file does not admit %s to export \"%s\"", pcClient,
                      pMountInfo->sExportName.c_str());
    }
    return access;
}

/// The same for a second path of a call: the log tells of a search once, in CheckProcessParam.
MountAccess CNfs3Prog::FindExportQuietly(const LogContext& log, ProcessParam* pParam, const char* pcPath) {
    CSilentParam silent;
    MountInfo mountInfo;
    return FindExport(log, &silent, pParam, pcPath, &mountInfo);
}

void CNfs3Prog::ReportNoExport(const LogContext& log) {
    NFS_LOG_ERROR(log, "[%s] Path record not found");
}

nfsstat3 CNfs3Prog::CheckPath(ProcessParam* pParam, const LogArgu* pLogArgu, const char* pcPath, bool bMustExist,
                              FoundStatus* pStatus) {
    if (pcPath == nullptr) {
        return NFS3ERR_STALE;
    }
    if (!bMustExist) {
        return NFS3_OK;
    }
    FoundStatus unasked;
    FoundStatus* pFound = pStatus != nullptr ? pStatus : &unasked;
    if (CBatchLooks::Find(pcPath, pFound)) {
        return NFS3_OK;
    }
    switch (FindWithoutLinks(pcPath, pFound)) {
        case Finding::kFound:
            CBatchLooks::Keep(pcPath, *pFound);
            return NFS3_OK;
        case Finding::kMissing:
            m_pUtilities->DropMissingFile(pParam->pRuntimeParam, pLogArgu, pcPath);
            return NFS3ERR_IO;
        case Finding::kUnknown:
            break;
    }
    return CheckLinks(pParam, {m_pLog, pParam->pRuntimeParam, pLogArgu}, pcPath, pFound);
}

/// The check of a path that holds links: it is judged by where they lead, and what is found there without any is what
/// the call is about.
nfsstat3 CNfs3Prog::CheckLinks(ProcessParam* pParam, const LogContext& log, const char* pcPath, FoundStatus* pStatus) {
    if (!m_pUtilities->OS_IsFileExists(pcPath, nullptr)) {
        m_pUtilities->DropMissingFile(log.pRuntimeParam, log.pLogArgu, pcPath);
        return NFS3ERR_IO;
    }
    const std::optional<std::string> sResolved = ResolveLinks(pcPath);
    if (!sResolved || FindExportQuietly(log, pParam, sResolved->c_str()) != MountAccess::kServed) {
        return NFS3ERR_IO;
    }
    pStatus->sResolved = *sResolved != pcPath ? *sResolved : "";
    return LookAtResolved(log, *sResolved, pStatus) ? NFS3_OK : NFS3ERR_IO;
}

/// Finds what a path leads to that held no link a moment ago.
bool CNfs3Prog::LookAtResolved(const LogContext& log, const std::string& sResolved, FoundStatus* pStatus) {
    Finding finding = FindWithoutLinks(sResolved.c_str(), pStatus);
    if (finding == Finding::kUnknown && errno == EMFILE) {
        m_pUtilities->FreeCachedFileHandles(log.pRuntimeParam, log.pLogArgu);
        finding = FindWithoutLinks(sResolved.c_str(), pStatus);
    }
    if (finding == Finding::kUnknown && errno == EMFILE) {
        LookWithSpare(sResolved.c_str(), pStatus);
    }
    return pStatus->bKnown;
}

/// The same with the descriptor that is kept for it, so that also then nothing is looked at but what no link leads to.
/// Nothing names afterwards what was found; who wants to act on it needs a descriptor anyway.
void CNfs3Prog::LookWithSpare(const char* pcPath, FoundStatus* pStatus) {
    m_Spare.Close();
    {
        FoundStatus found;
        FindWithoutLinks(pcPath, &found);
        pStatus->bKnown = found.bKnown;
        pStatus->status = found.status;
    }
    m_Spare = OpenSpare();
}

CDescriptor CNfs3Prog::OpenSpare() {
    return CDescriptor::AboveStandard(CDescriptor(::open("/", O_PATH | O_CLOEXEC)));
}

/// The first two checks of most procedures: the path lies in an export, and it exists, which need not be asked again of
/// one that was resolved for this call.
nfsstat3 CNfs3Prog::CheckExisting(ProcessParam* pParam, const std::string& sPath, bool bResolved,
                                  FoundStatus* pStatus) {
    const nfsstat3 iStatus = CheckProcessParam(pParam, &pParam->logArgu, sPath.c_str());
    return iStatus == NFS3_OK ? CheckPath(pParam, &pParam->logArgu, sPath.c_str(), !bResolved, pStatus) : iStatus;
}

/// The status of a check as the procedures tell it that go by an existing name: what cannot be reached is missing. Not
/// so in an export of others, where a tool that heard so would believe the file gone.
nfsstat3 CNfs3Prog::TellMissing(const ProcessParam& param, nfsstat3 iStatus) {
    return iStatus == NFS3ERR_IO && !param.bNotForClient ? NFS3ERR_NOENT : iStatus;
}

/// Is the server one for reading only, or any export that the call has come to so far, for this client?
bool CNfs3Prog::IsReadOnly(const ProcessParam& param) const {
    return m_bReadOnly || param.bReadOnly;
}

/// The check of the procedures that are not served and do not resolve their handles.
nfsstat3 CNfs3Prog::CheckUnresolved(ProcessParam* pParam) {
    return CheckProcessParam(pParam, &pParam->logArgu, "");
}

/// Resolves all links of a path, and says nothing of it. False if they lead nowhere, or out of the exports that serve
/// the client.
bool CNfs3Prog::ResolveWithinExports(ProcessParam* pParam, const char* pcPath, std::string* psResolved) {
    const std::optional<std::string> sResolved = ResolveLinks(pcPath);
    CSilentParam silent;
    bool bReadOnly = false;  // nothing is done here to what the path names
    if (!sResolved ||
        m_pUtilities->GetClientAccess(&silent, &pParam->logArgu, sResolved->c_str(), pParam->sRemoteAddr.c_str(),
                                      nullptr, &bReadOnly) != MountAccess::kServed) {
        return false;
    }
    *psResolved = *sResolved;
    return true;
}
