// An entry of a folder: the system's calls on it, in the folder that was opened for it.
#include "FolderEntry.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "PathProbe.h"
#include "Paths.h"

CFolderEntry CFolderEntry::InItsFolder(std::string sPath) {
    CFolderEntry entry;
    entry.m_sPath = std::move(sPath);
    entry.m_bInItsFolder = true;
    entry.m_iName = GetFolderPart(WithoutTrailingSlashes(entry.m_sPath)).size();
    const std::string sFolder = entry.m_sPath.substr(0, entry.m_iName);
    entry.m_Folder = CDescriptor(OpenWithoutLinks(AT_FDCWD, sFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    entry.m_iError = entry.m_Folder.IsOpen() ? 0 : errno;
    return entry;
}

int CFolderEntry::GetFolder() const {
    return m_bInItsFolder ? m_Folder.Get() : AT_FDCWD;
}

/// False with errno.
bool CFolderEntry::IsReachable() const {
    if (m_iError != 0) {
        errno = m_iError;
    }
    return m_iError == 0;
}

/// A slash behind a name would have a link followed.
bool CFolderEntry::Look(struct stat* pStatus) const {
    if (!m_bInItsFolder) {
        return ::lstat(m_sPath.c_str(), pStatus) == 0;
    }
    const std::string sBare(WithoutTrailingSlashes(GetName()));
    if (!IsReachable() || ::fstatat(GetFolder(), sBare.c_str(), pStatus, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    if (sBare != GetName() && !S_ISDIR(pStatus->st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

bool CFolderEntry::Exists() const {
    struct stat status {};
    return Look(&status);
}

int CFolderEntry::Open(int iFlags, mode_t iMode) const {
    if (!m_bInItsFolder) {
        return ::open(m_sPath.c_str(), iFlags, iMode);
    }
    return IsReachable() ? OpenWithoutLinks(GetFolder(), GetName(), iFlags, iMode) : -1;
}

// The last component is not followed by what removes, renames or makes folders, with a slash behind it or without.

int CFolderEntry::Remove() const {
    if (!m_bInItsFolder) {
        return std::remove(m_sPath.c_str());
    }
    if (!IsReachable()) {
        return -1;
    }
    const int iResult = ::unlinkat(GetFolder(), GetName(), 0);
    return iResult == -1 && errno == EISDIR ? RemoveFolder() : iResult;
}

int CFolderEntry::RemoveFolder() const {
    return IsReachable() ? ::unlinkat(GetFolder(), GetName(), AT_REMOVEDIR) : -1;
}

int CFolderEntry::MakeFolder(mode_t iMode) const {
    return IsReachable() ? ::mkdirat(GetFolder(), GetName(), iMode) : -1;
}

int CFolderEntry::RenameTo(const CFolderEntry& target, unsigned int iFlags) const {
    if (!IsReachable() || !target.IsReachable()) {
        return -1;
    }
    return ::renameat2(GetFolder(), GetName(), target.GetFolder(), target.GetName(), iFlags);
}
