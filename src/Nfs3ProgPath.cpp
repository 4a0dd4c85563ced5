// NFS version 3: from handles and names to host paths, and what of the host they may reach.
//
// Every path of a call lies in an export by its text (CheckProcessParam). That its links do not lead elsewhere is seen
// to in two places: an entry's path is made with all links resolved (ReadPath), and a path that has to exist holds no
// link, or only such as stay within an export (CheckPath).
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <unistd.h>

#include "InputStream.h"
#include "Nfs3Prog.h"
#include "PathProbe.h"
#include "Utilities.h"

namespace {

/// The bytes of a handle that carry the file ID.
constexpr unsigned int kFileIdSize = 4;

/// As many links as the kernel follows before it gives up.
constexpr int kMaxLinks = 40;

std::optional<std::string> Resolve(const std::string& sPath) {
    char vcResolved[PATH_MAX];
    if (realpath(sPath.c_str(), vcResolved) == nullptr) {
        return std::nullopt;
    }
    return vcResolved;
}

/// The path with all links resolved but those of its last component; that keeps slashes behind it. errno tells why
/// there is none.
std::optional<std::string> ResolveParent(const std::string& sPath) {
    const std::size_t iLast = sPath.find_last_not_of('/');
    const std::size_t iSlash = iLast == std::string::npos ? iLast : sPath.rfind('/', iLast);
    if (iSlash == std::string::npos) {
        errno = EINVAL;
        return std::nullopt;
    }
    std::optional<std::string> sResolved = Resolve(sPath.substr(0, iSlash + 1));
    if (!sResolved) {
        return std::nullopt;
    }
    CUtilities::SetPathToCompare(*sResolved);
    *sResolved += sPath.substr(iSlash + 1);
    if (sResolved->size() >= kPathBufferSize) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    return sResolved;
}

/// What a link holds; nothing for what is no link.
std::optional<std::string> ReadLink(const std::string& sPath) {
    char vcLink[PATH_MAX];
    const ssize_t nLink = readlink(sPath.c_str(), vcLink, sizeof(vcLink));
    if (nLink < 0) {
        return std::nullopt;
    }
    return std::string(vcLink, static_cast<std::size_t>(nLink));
}

std::string WithoutTrailingSlashes(std::string sPath) {
    while (sPath.size() > 1 && sPath.ends_with('/')) {
        sPath.pop_back();
    }
    return sPath;
}

/// Where a file would come to be that is created under a path: the path itself, or where the dangling link that
/// stands there points. Takes and returns paths with resolved parents and without trailing slashes.
std::optional<std::string> FollowDanglingLinks(std::string sPath) {
    for (int i = 0; i < kMaxLinks; ++i) {
        const std::optional<std::string> sLink = ReadLink(sPath);
        if (!sLink) {
            return sPath;
        }
        const std::string sTarget = sLink->starts_with('/') ? *sLink : sPath.substr(0, sPath.rfind('/') + 1) + *sLink;
        std::optional<std::string> sNext = Resolve(sTarget);
        if (!sNext) {
            sNext = ResolveParent(sTarget);
        }
        if (!sNext) {
            return std::nullopt;
        }
        sPath = WithoutTrailingSlashes(*sNext);
    }
    return std::nullopt;
}

}  // namespace

// ---- Handles and names to paths

bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pInput, std::string* psPath) {
    psPath->clear();
    opaque handle;
    Read(pInput, &handle);
    char vcPath[kPathBufferSize];
    if (handle.iBufLen < kFileIdSize ||
        !m_pUtilities->GetFilePath(pRuntimeParam, handle.pBuf, vcPath, sizeof(vcPath))) {
        return false;
    }
    *psPath = vcPath;
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Path = %s", pLogArgu->pcName, psPath->c_str());
    }
    return true;
}

// The name is read even if the handle names nothing: the next call begins behind it.
bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pInput, diropargs3* pDirOp,
                         std::string* psPath, bool* pbResolved, FoundStatus* pStatus) {
    psPath->clear();
    if (pbResolved != nullptr) {
        *pbResolved = false;
    }
    opaque handle;
    Read(pInput, &handle);
    Read(pInput, &pDirOp->name, false);
    char vcPath[kPathBufferSize];
    if (handle.iBufLen < kFileIdSize ||
        !m_pUtilities->GetFilePath(pRuntimeParam, handle.pBuf, vcPath, sizeof(vcPath))) {
        return false;
    }
    pDirOp->dir.sPath = vcPath;
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Read path=%s, name=%s", pLogArgu->pcName, pDirOp->dir.sPath.c_str(),
                              pDirOp->name.sPath.c_str());
    }
    char vcJoined[kPathBufferSize];
    if (!AppendFilePath(pDirOp->dir.sPath.c_str(), pDirOp->name.sPath.c_str(), vcJoined)) {
        return false;
    }
    const bool bResolved = m_pUtilities->GetCanonicalPath(pRuntimeParam, pLogArgu, vcPath, vcJoined, pStatus);
    *psPath = bResolved ? vcPath : FindMissingEntry(pLogArgu, vcJoined);
    if (pbResolved != nullptr) {
        *pbResolved = bResolved;
    }
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Path = %s", pLogArgu->pcName, psPath->c_str());
    }
    return true;
}

/// The path of an entry that does not exist (yet): its parent's links resolved. An entry that is a dangling link out of
/// the exports goes by where it leads, and so belongs to none of them; one that cannot be judged has no path.
std::string CNfs3Prog::FindMissingEntry(LogArgu* pLogArgu, const char* pcJoined) {
    const std::optional<std::string> sEntry = ResolveParent(pcJoined);
    if (!sEntry) {
        // Nothing can be made below a folder that is not there.
        return errno == ENOENT || errno == ENOTDIR ? pcJoined : "";
    }
    const std::string sBare = WithoutTrailingSlashes(*sEntry);
    const std::optional<std::string> sTarget = FollowDanglingLinks(sBare);
    if (!sTarget) {
        return "";
    }
    const bool bStays = *sTarget == sBare || IsInExport(pLogArgu, sTarget->c_str());
    return bStays ? *sEntry : *sTarget;
}

bool CNfs3Prog::AppendFilePath(const char* pcDir, const char* pcName, char* pcOut) {
    if (pcDir == nullptr || pcName == nullptr || pcOut == nullptr) {
        return false;
    }
    const std::size_t nDir = std::strlen(pcDir);
    const std::size_t nName = std::strlen(pcName);
    if (nDir + 1 + nName >= kPathBufferSize) {
        return false;
    }
    std::memcpy(pcOut, pcDir, nDir);
    pcOut[nDir] = '/';
    std::memcpy(pcOut + nDir + 1, pcName, nName);
    pcOut[nDir + 1 + nName] = '\0';
    return true;
}

bool CNfs3Prog::IsInVaildDirName(const char* pcName) {
    return pcName == nullptr || std::strcmp(pcName, ".") == 0 || std::strcmp(pcName, "..") == 0;
}

// ---- Checks

nfsstat3 CNfs3Prog::CheckProcessParam(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath) {
    // Kept from call to call for the room of its texts only.
    thread_local MountInfo mountInfo;
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    if (pcPath != nullptr && m_pUtilities->GetMountInfoByPath(pRuntimeParam, pLogArgu, pcPath, &mountInfo)) {
        pRuntimeParam->SetID(mountInfo.sExportName.c_str());
        pRuntimeParam->SetIpcID(mountInfo.sIcpID.c_str());
        return NFS3_OK;
    }
    if (pRuntimeParam->IsLogError()) {
        m_pUtilities->LogError(pRuntimeParam, "[%s] Path record not found", pLogArgu->pcName);
    }
    return NFS3ERR_IO;
}

nfsstat3 CNfs3Prog::CheckPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath, bool bMustExist,
                              FoundStatus* pStatus) {
    if (pcPath == nullptr) {
        return NFS3ERR_STALE;
    }
    if (!bMustExist) {
        return NFS3_OK;
    }
    switch (FindWithoutLinks(pcPath, pStatus)) {
        case Finding::kFound:
            return NFS3_OK;
        case Finding::kMissing:
            m_pUtilities->DropMissingFile(pRuntimeParam, pLogArgu, pcPath);
            return NFS3ERR_IO;
        case Finding::kUnknown:
            break;
    }
    if (!m_pUtilities->OS_IsFileExists(pcPath, nullptr)) {
        m_pUtilities->DropMissingFile(pRuntimeParam, pLogArgu, pcPath);
        return NFS3ERR_IO;
    }
    std::string sResolved;
    return ResolveWithinExports(pLogArgu, pcPath, &sResolved) ? NFS3_OK : NFS3ERR_IO;
}

/// The first two checks of most procedures: the path lies in an export, and it exists, which need not be asked again of
/// one that was resolved for this call.
nfsstat3 CNfs3Prog::CheckExisting(ProcessParam* pParam, LogArgu* pLogArgu, const std::string& sPath, bool bResolved,
                                  FoundStatus* pStatus) {
    const nfsstat3 iStatus = CheckProcessParam(pParam, pLogArgu, sPath.c_str());
    return iStatus == NFS3_OK ? CheckPath(pParam->pRuntimeParam, pLogArgu, sPath.c_str(), !bResolved, pStatus)
                              : iStatus;
}

/// The check of the procedures that are not served and do not resolve their handles.
nfsstat3 CNfs3Prog::CheckUnresolved(ProcessParam* pParam, LogArgu* pLogArgu) {
    return CheckProcessParam(pParam, pLogArgu, "");
}

// Both ask quietly: the log tells of a call's path once, in CheckProcessParam.

/// Does a path with resolved links lie in an export?
bool CNfs3Prog::IsInExport(LogArgu* pLogArgu, const char* pcPath) {
    CRuntimeParam silent("", 0);
    return m_pUtilities->GetMountInfoByPath(&silent, pLogArgu, pcPath, nullptr);
}

/// Resolves all links of a path. False if they lead nowhere, or out of the exports.
bool CNfs3Prog::ResolveWithinExports(LogArgu* pLogArgu, const char* pcPath, std::string* psResolved) {
    const std::optional<std::string> sResolved = Resolve(pcPath);
    if (!sResolved || !IsInExport(pLogArgu, sResolved->c_str())) {
        return false;
    }
    *psResolved = *sResolved;
    return true;
}

/// Clients neither remove nor rename the root directory of an export.
bool CNfs3Prog::IsExportRoot(LogArgu* pLogArgu, const char* pcPath) {
    CRuntimeParam silent("", 0);
    return m_pUtilities->IsMountInfoExists(&silent, pLogArgu, pcPath, nullptr, nullptr);
}
