// CUtilities: renaming a file or folder, with everything that goes by its path.
//
// Nothing is removed from the target's place before it is known that the rename can take place, and a file takes the
// place of another in one step wherever the system can do so: a rename that fails leaves both as they were.
#include "Utilities.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

#include "FileOwner.h"
#include "FileTable.h"
#include "RedirectedFile.h"
#include "RedirectedRename.h"

namespace {

/// What stands on disk under a path, links not followed.
class DiskEntry {
public:
    explicit DiskEntry(const char* pcPath) : m_bExists(::lstat(pcPath, &m_Attributes) == 0) {}
    bool Exists() const { return m_bExists; }
    bool IsFolder() const { return m_bExists && S_ISDIR(m_Attributes.st_mode); }
    bool IsLink() const { return m_bExists && S_ISLNK(m_Attributes.st_mode); }
    bool IsOnDeviceOf(const DiskEntry& other) const { return m_Attributes.st_dev == other.m_Attributes.st_dev; }
    /// One file under two names, perhaps.
    bool IsFileOf(const DiskEntry& other) const {
        return IsOnDeviceOf(other) && m_Attributes.st_ino == other.m_Attributes.st_ino;
    }

private:
    struct stat m_Attributes {};
    bool m_bExists;
};

/// The canonical path of the folder entry that a path names: the folder resolved, the entry itself not followed.
/// The path as it is when there is no such folder.
std::string ResolveEntry(const char* pcPath) {
    std::string_view sPath = pcPath;
    while (sPath.size() > 1 && sPath.ends_with('/')) {
        sPath.remove_suffix(1);
    }
    const std::size_t iSlash = sPath.rfind('/');
    const std::string_view sName = iSlash == std::string_view::npos ? sPath : sPath.substr(iSlash + 1);
    const bool bWhole = sName.empty() || sName == "." || sName == "..";
    const std::string sFolder(bWhole                             ? sPath
                              : iSlash == std::string_view::npos ? std::string_view(".")
                                                                 : sPath.substr(0, iSlash + 1));
    char vcResolved[kPathBufferSize];
    if (::realpath(sFolder.c_str(), vcResolved) == nullptr) {
        return pcPath;
    }
    std::string sEntry = vcResolved;
    if (!bWhole) {
        CUtilities::SetPathToCompare(sEntry);
        sEntry += sName;
    }
    return sEntry;
}

/// Does one entry lie below another?
bool IsBelow(const std::string& sEntry, std::string sFolder) {
    CUtilities::SetPathToCompare(sFolder);
    return sEntry.size() > sFolder.size() && sEntry.starts_with(sFolder);
}

}  // namespace

bool CUtilities::RenameFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                            const char* pcPathTo) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Rename file, pathFrom=%s, pathTo=%s", pLogArgu->pcName, pcPathFrom, pcPathTo);
    }
    const std::string sEntryFrom = ResolveEntry(pcPathFrom);
    const std::string sEntryTo = ResolveEntry(pcPathTo);
    const bool bRedirected = GetRedirectedFile(pcPathFrom) != nullptr;
    const DiskEntry from(pcPathFrom);
    const bool bReplaces = DiskEntry(pcPathTo).Exists() || GetRedirectedFile(pcPathTo) != nullptr;
    if (sEntryFrom == sEntryTo && (from.Exists() || bRedirected)) {
        return true;
    }
    if (from.Exists() && IsBelow(sEntryTo, sEntryFrom)) {
        ReportRenameFailure({this, pRuntimeParam, pLogArgu}, pcPathFrom, pcPathTo, EINVAL, nullptr);
        return false;
    }
    if (!CanTellOfRename(pRuntimeParam, pcPathFrom, pcPathTo)) {
        ReportRenameFailure({this, pRuntimeParam, pLogArgu}, pcPathFrom, pcPathTo, ENAMETOOLONG, nullptr);
        return false;
    }
    if (!from.Exists() && !bRedirected && bReplaces) {
        ReportRenameFailure({this, pRuntimeParam, pLogArgu}, pcPathFrom, pcPathTo, ENOENT, nullptr);
        return false;
    }
    const bool bRenamed = from.Exists() ? RenameOnDisk(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo)
                                        : RemoveTarget(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo);
    if (!bRenamed) {
        return false;
    }
    CRedirectedRename redirected(this, pRuntimeParam);
    redirected.Move(pcPathFrom, pcPathTo);
    const bool bAgreed = redirected.Ask();
    if (!bAgreed && !bReplaces &&
        UndoRename(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, from.Exists(), redirected)) {
        return false;
    }
    redirected.AskRest();
    // The table knows canonical paths; what is not on disk it knows by the path as given.
    const MutexLock lock(m_hMutexFileTable);
    const bool bUpdated =
        m_pFileTable->UpdateItemPath(pcPathFrom, sEntryTo.c_str()) ||
        (sEntryFrom != pcPathFrom && m_pFileTable->UpdateItemPath(sEntryFrom.c_str(), sEntryTo.c_str()));
    // A link never has a handle of its own: clients hold that of what it leads to.
    return bAgreed && (bUpdated || from.IsLink());
}

bool CUtilities::RenameOnDisk(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                              const char* pcPathTo) {
    const DiskEntry from(pcPathFrom);
    const DiskEntry to(pcPathTo);
    if (to.Exists() && !from.IsFolder() && !to.IsFolder() && !from.IsFileOf(to) && !GetRedirectedFile(pcPathTo)) {
        if (!ReplaceFile(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo)) {
            return false;
        }
    } else {
        if (to.Exists() && !from.IsOnDeviceOf(to)) {
            ReportRenameFailure({this, pRuntimeParam, pLogArgu}, pcPathFrom, pcPathTo, EXDEV, nullptr);
            return false;
        }
        if (!RemoveTarget(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo)) {
            return false;
        }
        CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathFrom);
        if (OS_FileRename(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, nullptr) == -1) {
            return false;
        }
    }
    CloseRenamedFileHandles(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, from.IsFolder());
    return true;
}

/// Takes away what a rename puts something else in the place of. Clients see no redirected file that is not on disk: to
/// another one of its owner's it gives way without a word, when that one is filed under its path.
bool CUtilities::RemoveTarget(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                              const char* pcPathTo) {
    if (DiskEntry(pcPathTo).Exists()) {
        return RemoveFile(pRuntimeParam, pLogArgu, pcPathTo);
    }
    if (GetRedirectedFile(pcPathFrom) &&
        CFileOwner(this, pRuntimeParam, pcPathFrom).IsSameParty(CFileOwner(this, pRuntimeParam, pcPathTo))) {
        return true;
    }
    return RemoveRedirectedFile(pRuntimeParam, pcPathTo);
}

/// Puts a rename that was refused back to where it began, if nothing has come to stand there since and nothing was
/// replaced: what is lost stays lost, and its name had better stand for what was to take its place than for nothing.
bool CUtilities::UndoRename(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                            const char* pcPathTo, bool bOnDisk, CRedirectedRename& redirected) {
    if (!redirected.CanMoveBack()) {
        return false;
    }
    if (bOnDisk) {
        const bool bFolder = DiskEntry(pcPathTo).IsFolder();
        if (::renameat2(AT_FDCWD, pcPathTo, AT_FDCWD, pcPathFrom, RENAME_NOREPLACE) == -1) {
            ReportRenameFailure({this, pRuntimeParam, pLogArgu}, pcPathTo, pcPathFrom, errno, nullptr);
            return false;
        }
        ReportRename({this, pRuntimeParam, pLogArgu}, pcPathTo, pcPathFrom);
        CloseRenamedFileHandles(pRuntimeParam, pLogArgu, pcPathTo, pcPathFrom, bFolder);
    }
    redirected.MoveBack();
    return true;
}

/// Descriptors that another thread opened meanwhile, or that were opened below a folder, go by the wrong path now.
void CUtilities::CloseRenamedFileHandles(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                                         const char* pcPathTo, bool bFolder) {
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathFrom);
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathTo);
    if (bFolder) {
        CloseCachedFileHandlesBelow({this, pRuntimeParam, pLogArgu}, pcPathFrom);
        CloseCachedFileHandlesBelow({this, pRuntimeParam, pLogArgu}, pcPathTo);
    }
}

/// Removes the target and renames in one step, with the log lines of both.
bool CUtilities::ReplaceFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPathFrom,
                             const char* pcPathTo) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Remove file, path=%s", pLogArgu->pcName, pcPathTo);
    }
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathTo);
    if (std::rename(pcPathFrom, pcPathTo) == -1) {
        ReportRenameFailure({this, pRuntimeParam, pLogArgu}, pcPathFrom, pcPathTo, errno, nullptr);
        return false;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS remove file \"%s\"", pLogArgu->pcName, pcPathTo);
    }
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathFrom);
    ReportRename({this, pRuntimeParam, pLogArgu}, pcPathFrom, pcPathTo);
    return true;
}
