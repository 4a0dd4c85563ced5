// CUtilities: renaming a file or folder, with everything that goes by its path.
//
// Nothing is removed from the target's place before it is known that the rename can take place, and a file takes the
// place of another in one step wherever the system can do so: a rename that fails leaves both as they were.
#include "Utilities.h"

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>

#include <sys/stat.h>

#include "FileOwner.h"
#include "Paths.h"
#include "RedirectedFile.h"
#include "RedirectedRename.h"

namespace {

/// What stands on disk under a path, links not followed.
class DiskEntry {
public:
    explicit DiskEntry(const CFolderEntry& entry) : m_bExists(entry.Look(&m_Attributes)) {
        m_iError = m_bExists || errno == ENOENT || errno == ENOTDIR ? 0 : errno;
    }
    bool Exists() const { return m_bExists; }
    /// Why nobody knows whether there is anything (errno); 0 if it is known.
    int GetError() const { return m_iError; }
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
    int m_iError = 0;
};

/// The canonical path of the folder entry that a path names: the folder resolved, the entry itself not followed.
/// The path as it is when there is no such folder. What is acted on in its folder was resolved before.
std::string ResolveEntry(const CFolderEntry& entry) {
    std::string sPath(WithoutTrailingSlashes(entry.GetPath()));
    if (entry.IsInItsFolder()) {
        return sPath;
    }
    const std::optional<std::string> sEntry = IsEntryName(sPath) ? ResolveFolderPart(sPath) : ResolveLinks(sPath);
    return sEntry.value_or(entry.GetPath());
}

}  // namespace

bool CUtilities::RenameFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const CFolderEntry& from,
                            const CFolderEntry& to) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const char* pcPathFrom = from.GetPathText();
    const char* pcPathTo = to.GetPathText();
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] Rename file, pathFrom=%s, pathTo=%s", pcPathFrom, pcPathTo);
    const std::string sEntryFrom = ResolveEntry(from);
    const std::string sEntryTo = ResolveEntry(to);
    const bool bRedirected = GetRedirectedFile(pcPathFrom) != nullptr;
    const DiskEntry source(from);
    const bool bReplaces = to.Exists() || GetRedirectedFile(pcPathTo) != nullptr;
    if (sEntryFrom == sEntryTo && (source.Exists() || bRedirected)) {
        return true;
    }
    int iObstacle = 0;
    if (source.GetError() != 0) {
        iObstacle = source.GetError();
    } else if (source.Exists() && IsAtOrBelow(sEntryTo, sEntryFrom)) {
        iObstacle = EINVAL;
    } else if (!CanTellOfRename(pRuntimeParam, pcPathFrom, pcPathTo)) {
        iObstacle = ENAMETOOLONG;
    } else if (!source.Exists() && !bRedirected && bReplaces) {
        iObstacle = ENOENT;
    }
    if (iObstacle != 0) {
        ReportRenameFailure(log, pcPathFrom, pcPathTo, iObstacle, nullptr);
        return false;
    }
    const bool bRenamed = source.Exists() ? RenameOnDisk(log, from, to) : RemoveTarget(log, from, to);
    if (!bRenamed) {
        return false;
    }
    CRedirectedRename redirected(this, pRuntimeParam);
    redirected.Move(pcPathFrom, pcPathTo);
    const bool bAgreed = redirected.Ask();
    if (!bAgreed && !bReplaces && UndoRename(log, from, to, source.Exists(), redirected)) {
        return false;
    }
    redirected.AskRest();
    const bool bHadHandle = MoveFileHandles(pcPathFrom, sEntryFrom.c_str(), sEntryTo.c_str());
    // A link never has a handle of its own: clients hold that of what it leads to.
    return bAgreed && (bHadHandle || source.IsLink());
}

bool CUtilities::RenameOnDisk(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to) {
    const char* pcPathFrom = from.GetPathText();
    const char* pcPathTo = to.GetPathText();
    const DiskEntry source(from);
    const DiskEntry target(to);
    if (target.Exists() && !source.IsFolder() && !target.IsFolder() && !source.IsFileOf(target) &&
        !GetRedirectedFile(pcPathTo)) {
        if (!ReplaceFile(log, from, to)) {
            return false;
        }
    } else {
        if (target.Exists() && !source.IsOnDeviceOf(target)) {
            ReportRenameFailure(log, pcPathFrom, pcPathTo, EXDEV, nullptr);
            return false;
        }
        if (!RemoveTarget(log, from, to)) {
            return false;
        }
        CloseCachedFileHandle(log.pRuntimeParam, log.pLogArgu, pcPathFrom);
        if (OS_FileRename(log.pRuntimeParam, log.pLogArgu, from, to, nullptr) == -1) {
            return false;
        }
    }
    CloseRenamedFileHandles(log, pcPathFrom, pcPathTo, source.IsFolder());
    return true;
}

/// Takes away what a rename puts something else in the place of. Clients see no redirected file that is not on disk: to
/// another one of its owner's it gives way without a word, when that one is filed under its path.
bool CUtilities::RemoveTarget(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to) {
    if (to.Exists()) {
        return RemoveFile(log.pRuntimeParam, log.pLogArgu, to);
    }
    const char* pcPathFrom = from.GetPathText();
    const char* pcPathTo = to.GetPathText();
    if (GetRedirectedFile(pcPathFrom) &&
        CFileOwner(this, log.pRuntimeParam, pcPathFrom).IsSameParty(CFileOwner(this, log.pRuntimeParam, pcPathTo))) {
        return true;
    }
    return RemoveRedirectedFile(log.pRuntimeParam, pcPathTo);
}

/// Puts a rename that was refused back to where it began, if nothing has come to stand there since and nothing was
/// replaced: what is lost stays lost, and its name had better stand for what was to take its place than for nothing.
bool CUtilities::UndoRename(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to, bool bOnDisk,
                            CRedirectedRename& redirected) {
    const char* pcPathFrom = from.GetPathText();
    const char* pcPathTo = to.GetPathText();
    if (!redirected.CanMoveBack()) {
        return false;
    }
    if (bOnDisk) {
        const bool bFolder = DiskEntry(to).IsFolder();
        if (to.RenameTo(from, RENAME_NOREPLACE) == -1) {
            ReportRenameFailure(log, pcPathTo, pcPathFrom, errno, nullptr);
            return false;
        }
        ReportRename(log, pcPathTo, pcPathFrom);
        CloseRenamedFileHandles(log, pcPathTo, pcPathFrom, bFolder);
    }
    redirected.MoveBack();
    return true;
}

/// Descriptors that another thread opened meanwhile, or that were opened below a folder, go by the wrong path now.
void CUtilities::CloseRenamedFileHandles(const LogContext& log, const char* pcPathFrom, const char* pcPathTo,
                                         bool bFolder) {
    CloseCachedFileHandle(log.pRuntimeParam, log.pLogArgu, pcPathFrom);
    CloseCachedFileHandle(log.pRuntimeParam, log.pLogArgu, pcPathTo);
    if (bFolder) {
        CloseCachedFileHandlesBelow(log, pcPathFrom);
        CloseCachedFileHandlesBelow(log, pcPathTo);
    }
}

/// Removes the target and renames in one step, with the log lines of both.
bool CUtilities::ReplaceFile(const LogContext& log, const CFolderEntry& from, const CFolderEntry& to) {
    const char* pcPathFrom = from.GetPathText();
    const char* pcPathTo = to.GetPathText();
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] Remove file, path=%s", pcPathTo);
    CloseCachedFileHandle(log.pRuntimeParam, log.pLogArgu, pcPathTo);
    if (from.RenameTo(to) == -1) {
        ReportRenameFailure(log, pcPathFrom, pcPathTo, errno, nullptr);
        return false;
    }
    NFS_LOG_INFO(log, kLogFileAccess, "[%s] OS remove file \"%s\"", pcPathTo);
    CloseCachedFileHandle(log.pRuntimeParam, log.pLogArgu, pcPathFrom);
    ReportRename(log, pcPathFrom, pcPathTo);
    return true;
}
