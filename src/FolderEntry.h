// An entry of a folder: what is made, looked at, removed or renamed by its name.
#pragma once

#include <string>

#include <sys/stat.h>
#include <sys/types.h>

#include "Descriptor.h"

/// A path, and the folder in which its last component is acted on.
///
/// By its path alone an entry is whatever the path leads to in each call, as for the system's calls: that is for paths
/// of the host's choice. InItsFolder is for paths that a client may act on and that were judged: the folder is opened,
/// and stays that folder whatever somebody puts in the place of its path. The entry itself is never followed if it is
/// a link.
///
/// The operations are the system's calls: -1 with errno for a failure. One thread at a time.
class CFolderEntry {
public:
    CFolderEntry() = default;
    CFolderEntry(const char* pcPath) : m_sPath(pcPath) {}  // NOLINT: it stands for the path
    /// No part of the folder's path may be a link: then, or without such a folder, no operation succeeds.
    static CFolderEntry InItsFolder(std::string sPath);

    const std::string& GetPath() const { return m_sPath; }
    const char* GetPathText() const { return m_sPath.c_str(); }
    bool IsInItsFolder() const { return m_bInItsFolder; }
    /// Why there is no folder to act in (errno); 0 if there is one.
    int GetError() const { return m_iError; }

    /// The entry's own status; false, with errno, if it cannot be had.
    bool Look(struct stat* pStatus) const;
    bool Exists() const;
    int Open(int iFlags, mode_t iMode = 0) const;
    int Remove() const;  ///< a file or an empty folder
    int RemoveFolder() const;
    int MakeFolder(mode_t iMode) const;
    /// The flags are those of renameat2.
    int RenameTo(const CFolderEntry& target, unsigned int iFlags = 0) const;

private:
    int GetFolder() const;
    const char* GetName() const { return m_sPath.c_str() + m_iName; }
    bool IsReachable() const;

    std::string m_sPath;
    std::size_t m_iName = 0;  ///< where in the path begins what is looked for in the folder
    CDescriptor m_Folder;
    bool m_bInItsFolder = false;
    int m_iError = 0;
};
