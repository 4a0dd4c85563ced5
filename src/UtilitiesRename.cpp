// CUtilities: renaming a file or folder, with everything that goes by its path.
//
// Nothing is removed from the target's place before it is known that the rename can take place, and a file takes the
// place of another in one step wherever the system can do so: a rename that fails leaves both as they were.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <sys/stat.h>

#include "FileTable.h"
#include "RedirectedFile.h"
#include "Utilities.h"

namespace {

/// What stands on disk under a path, links not followed.
class DiskEntry {
public:
    explicit DiskEntry(const char* pcPath) : m_bExists(::lstat(pcPath, &m_Attributes) == 0) {}
    bool Exists() const { return m_bExists; }
    bool IsFolder() const { return m_bExists && S_ISDIR(m_Attributes.st_mode); }
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
    if (realpath(sFolder.c_str(), vcResolved) == nullptr) {
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

bool CUtilities::RenameFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPathFrom,
                            const char* pcPathTo) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Rename file, pathFrom=%s, pathTo=%s", pLogArgu->pcName, pcPathFrom, pcPathTo);
    }
    const std::string sEntryFrom = ResolveEntry(pcPathFrom);
    const std::string sEntryTo = ResolveEntry(pcPathTo);
    const bool bRedirected = GetRedirectedFile(pcPathFrom) != nullptr;
    const bool bOnDisk = DiskEntry(pcPathFrom).Exists();
    if (sEntryFrom == sEntryTo && (bOnDisk || bRedirected)) {
        return true;
    }
    if (bOnDisk && IsBelow(sEntryTo, sEntryFrom)) {
        ReportRenameFailure(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, EINVAL, nullptr);
        return false;
    }
    if (!CanTellOfRename(pRuntimeParam, pcPathFrom, pcPathTo)) {
        ReportRenameFailure(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, ENAMETOOLONG, nullptr);
        return false;
    }
    if (!bOnDisk && OS_IsFileExists(pcPathTo, nullptr)) {
        if (!bRedirected) {
            ReportRenameFailure(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, ENOENT, nullptr);
            return false;
        }
        if (!RemoveFile(pRuntimeParam, pLogArgu, pcPathTo)) {
            return false;
        }
    }
    if (bOnDisk && !RenameOnDisk(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo)) {
        return false;
    }
    if (bRedirected) {
        RenameRedirectedFile(pRuntimeParam, pcPathFrom, pcPathTo);
        if (LogRenameRedirectedFile(pRuntimeParam, pcPathFrom, pcPathTo) != 0) {
            return false;
        }
    }
    // Of a file nothing lies below, so this is for folders.
    const bool bAgreed = !bOnDisk || RenameRedirectedFilesBelow(pRuntimeParam, pcPathFrom, pcPathTo);
    // The table knows canonical paths; what is not on disk it knows by the path as given.
    MutexLock lock(m_hMutexFileTable);
    const bool bUpdated =
        m_pFileTable->UpdateItemPath(pcPathFrom, sEntryTo.c_str()) ||
        (sEntryFrom != pcPathFrom && m_pFileTable->UpdateItemPath(sEntryFrom.c_str(), sEntryTo.c_str()));
    return bUpdated && bAgreed;
}

bool CUtilities::RenameOnDisk(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPathFrom,
                              const char* pcPathTo) {
    const DiskEntry from(pcPathFrom);
    const DiskEntry to(pcPathTo);
    if (!OS_IsFileExists(pcPathTo, nullptr)) {
        CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathFrom);
        if (OS_FileRename(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, nullptr) == -1) {
            return false;
        }
    } else if (!from.IsFolder() && !to.IsFolder() && !from.IsFileOf(to) && !GetRedirectedFile(pcPathTo)) {
        if (!ReplaceFile(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo)) {
            return false;
        }
    } else {
        if (!from.IsOnDeviceOf(to)) {
            ReportRenameFailure(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, EXDEV, nullptr);
            return false;
        }
        if (!RemoveFile(pRuntimeParam, pLogArgu, pcPathTo)) {
            return false;
        }
        CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathFrom);
        if (OS_FileRename(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, nullptr) == -1) {
            return false;
        }
    }
    // Descriptors that another thread opened meanwhile, or that were opened below a folder, go by the wrong path now.
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathFrom);
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathTo);
    if (from.IsFolder()) {
        CloseCachedFileHandlesBelow(pRuntimeParam, pLogArgu, pcPathFrom);
        CloseCachedFileHandlesBelow(pRuntimeParam, pLogArgu, pcPathTo);
    }
    return true;
}

/// Removes the target and renames in one step, with the log lines of both.
bool CUtilities::ReplaceFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPathFrom,
                             const char* pcPathTo) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Remove file, path=%s", pLogArgu->pcName, pcPathTo);
    }
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathTo);
    if (std::rename(pcPathFrom, pcPathTo) == -1) {
        ReportRenameFailure(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, errno, nullptr);
        return false;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS remove file \"%s\"", pLogArgu->pcName, pcPathTo);
    }
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPathFrom);
    ReportRename(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo);
    return true;
}
