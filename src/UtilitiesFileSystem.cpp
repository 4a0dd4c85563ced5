// CUtilities: the figures of the file system that holds a path.
#include "Utilities.h"

#include <cstdint>

#include <sys/statfs.h>
#include <sys/statvfs.h>

#include "FileSystemID.h"
#include "MaxFileSize.h"

namespace {

/// What a figure reads as when it cannot be had.
constexpr unsigned long long kUnknownFigure = ~0ULL;

/// The figures of the file system that holds a path, if they can be had.
class VfsFigures {
public:
    explicit VfsFigures(const char* pcPath) : m_bValid(::statvfs(pcPath, &m_Figures) == 0) {}
    bool IsValid() const { return m_bValid; }
    const struct statvfs& Get() const { return m_Figures; }

private:
    struct statvfs m_Figures {};
    bool m_bValid;
};

}  // namespace

unsigned long long CUtilities::GetTotalDiskSpace(const char* pcPath) {
    const VfsFigures figures(pcPath);
    return figures.IsValid() ? figures.Get().f_frsize * figures.Get().f_blocks : kUnknownFigure;
}

unsigned long long CUtilities::GetFreeDiskSpace(const char* pcPath) {
    const VfsFigures figures(pcPath);
    return figures.IsValid() ? figures.Get().f_frsize * figures.Get().f_bfree : kUnknownFigure;
}

unsigned long long CUtilities::GetFreeDiskSpaceAvailableToCaller(const char* pcPath) {
    const VfsFigures figures(pcPath);
    return figures.IsValid() ? figures.Get().f_frsize * figures.Get().f_bavail : kUnknownFigure;
}

unsigned long long CUtilities::GetTotalFileSlots(const char* pcPath) {
    const VfsFigures figures(pcPath);
    return figures.IsValid() ? figures.Get().f_files : kUnknownFigure;
}

unsigned long long CUtilities::GetFreeFileSlots(const char* pcPath) {
    const VfsFigures figures(pcPath);
    return figures.IsValid() ? figures.Get().f_ffree : kUnknownFigure;
}

unsigned long long CUtilities::GetFreeFileSlotsAvailableToCaller(const char* pcPath) {
    return GetFreeFileSlots(pcPath);
}

unsigned long long CUtilities::GetFileSystemID(const char* pcPath) {
    const VfsFigures figures(pcPath);
    return figures.IsValid() ? figures.Get().f_fsid : kUnknownFileSystemID;
}

unsigned long long CUtilities::GetMaxFileSize(const char* pcPath) {
    struct statfs figures {};
    return GetMaxFileSizeOfType(::statfs(pcPath, &figures) == 0 ? static_cast<std::uint64_t>(figures.f_type) : 0);
}
