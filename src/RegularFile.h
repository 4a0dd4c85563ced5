// Opening regular files, and nothing else, by path.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "FolderEntry.h"
#include "PathProbe.h"

/// On every open: no child inherits the descriptor, nothing waits for the other end of a pipe or a line, and no
/// terminal becomes the process's own. Regular files do not care.
inline constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

/// Which file a look at a path, or an open descriptor, found. While the file is open no other one has the same
/// identity.
struct FileIdentity {
    FileIdentity() = default;
    explicit FileIdentity(const struct stat& status) : iDevice(status.st_dev), iInode(status.st_ino) {}
    bool operator==(const FileIdentity&) const = default;

    dev_t iDevice = 0;
    ino_t iInode = 0;
};

/// What symbolic links in a path are to an open: followed, or a reason to fail (ELOOP).
enum class PathLinks { kFollowed, kRefused };

/// What permissions are to the process's user where a file is that user's own: they decide, or the file is opened
/// whatever they are. A client goes on with what it has open, whatever it permits from then on (RFC 1813, 4.4).
enum class OwnFiles { kAsPermitted, kAlways };

/// Is what the status tells of a regular file? Otherwise errno says why it is not opened: EISDIR for a folder,
/// EOPNOTSUPP for a device, a FIFO or a socket.
bool IsRegularFile(const struct stat& status);

/// Opens an existing regular file. What else a path names is never opened, whoever puts it there and when: opening a
/// device or a FIFO may already have an effect. The descriptor, or -1 with errno set.
int OpenRegularFile(const char* pcPath, int iFlags, PathLinks links);
/// The same for what was found under a path, and no other file: the path leads to it without links if there is no
/// descriptor that names it.
int OpenRegularFile(const char* pcPath, int iFlags, const FoundStatus& found,
                    OwnFiles ownFiles = OwnFiles::kAsPermitted);

/// Opens what a path names as open() does, whatever it is, but for links in the last place of the path, and of what
/// these lead to: they are followed only if they belong to root or to the process's user. Who may write beside a file
/// could send its bytes to any other one else. The descriptor, or -1 with errno set: EACCES for a stranger's link.
int OpenByOwnLinks(const char* pcPath, int iFlags);

/// Makes a regular file, or opens the one that is there, for reading and writing, one's own in any case. The
/// descriptor, or -1 with errno set. By a path alone a link is followed, also one that leads nowhere yet.
int CreateRegularFile(const CFolderEntry& entry, mode_t iMode);

/// Sets the permissions of what was found under a path. 0, or -1 with errno set.
int SetModeOf(const char* pcPath, const FoundStatus& found, mode_t iMode);
