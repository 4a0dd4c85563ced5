// CUtilities: the figures of the file system that holds a path.
#include "Utilities.h"

#include <cstdint>

#include <fcntl.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include "Descriptor.h"
#include "FileSystemID.h"
#include "MaxFileSize.h"
#include "PathProbe.h"

namespace {

/// The file system that holds a path, or what was found there: asked through a descriptor, so that a link that somebody
/// puts in the path's way leads to no other one.
class FileSystemOf {
public:
    FileSystemOf(const char* pcPath, const FoundStatus* pFound) : m_pcPath(pcPath) {
        if (pFound == nullptr || !pFound->bKnown) {
            return;
        }
        m_bByName = true;
        if (pFound->name.IsOpen()) {
            m_iName = pFound->name.Get();
            return;
        }
        const char* pcPlace = pFound->sResolved.empty() ? pcPath : pFound->sResolved.c_str();
        m_Own = CDescriptor(OpenWithoutLinks(AT_FDCWD, pcPlace, O_PATH | O_CLOEXEC));
        m_iName = m_Own.Get();
    }
    bool Get(struct statvfs* pFigures) const {
        return (m_bByName ? ::fstatvfs(m_iName, pFigures) : ::statvfs(m_pcPath, pFigures)) == 0;
    }
    bool Get(struct statfs* pFigures) const {
        return (m_bByName ? ::fstatfs(m_iName, pFigures) : ::statfs(m_pcPath, pFigures)) == 0;
    }

private:
    const char* m_pcPath;
    bool m_bByName = false;
    CDescriptor m_Own;
    int m_iName = -1;
};

}  // namespace

FileSystemFigures CUtilities::GetFileSystemFigures(const char* pcPath, const FoundStatus* pFound) {
    struct statvfs vfs {};
    if (!FileSystemOf(pcPath, pFound).Get(&vfs)) {
        return {};
    }
    return {vfs.f_frsize * vfs.f_blocks, vfs.f_frsize * vfs.f_bfree, vfs.f_frsize * vfs.f_bavail, vfs.f_files,
            vfs.f_ffree};
}

unsigned long long CUtilities::GetTotalDiskSpace(const char* pcPath) {
    return GetFileSystemFigures(pcPath).lTotalBytes;
}

unsigned long long CUtilities::GetFreeDiskSpace(const char* pcPath) {
    return GetFileSystemFigures(pcPath).lFreeBytes;
}

unsigned long long CUtilities::GetFreeDiskSpaceAvailableToCaller(const char* pcPath) {
    return GetFileSystemFigures(pcPath).lFreeBytesForCaller;
}

unsigned long long CUtilities::GetTotalFileSlots(const char* pcPath) {
    return GetFileSystemFigures(pcPath).lTotalSlots;
}

unsigned long long CUtilities::GetFreeFileSlots(const char* pcPath) {
    return GetFileSystemFigures(pcPath).lFreeSlots;
}

unsigned long long CUtilities::GetFreeFileSlotsAvailableToCaller(const char* pcPath) {
    return GetFreeFileSlots(pcPath);
}

unsigned long long CUtilities::GetFileSystemID(const char* pcPath, const FoundStatus* pFound) {
    struct statvfs vfs {};
    return FileSystemOf(pcPath, pFound).Get(&vfs) ? vfs.f_fsid : kUnknownFileSystemID;
}

unsigned long long CUtilities::GetMaxFileSize(const char* pcPath, const FoundStatus* pFound) {
    struct statfs figures {};
    const bool bTold = FileSystemOf(pcPath, pFound).Get(&figures);
    return GetMaxFileSizeOfType(bTold ? static_cast<std::uint64_t>(figures.f_type) : 0);
}
