// Looking for a path, and opening it, without following links.
#include "PathProbe.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// Opens one component. A link is not followed, and none that is named alone (O_PATH).
int OpenComponent(int iFolder, const char* pcName, int iFlags, mode_t iMode) {
    const int iFile = ::openat(iFolder, pcName, iFlags | O_NOFOLLOW, iMode);
    struct stat status {};
    if (iFile >= 0 && (iFlags & O_PATH) != 0 && ::fstat(iFile, &status) == 0 && S_ISLNK(status.st_mode)) {
        ::close(iFile);  // a descriptor that only names a file: nothing to lose
        errno = ELOOP;
        return -1;
    }
    return iFile;
}

}  // namespace

Finding FindWithoutLinks(const char* pcPath, FoundStatus* pStatus) {
    CDescriptor name(OpenWithoutLinks(AT_FDCWD, pcPath, O_PATH | O_CLOEXEC));
    if (name.IsOpen()) {
        if (pStatus != nullptr) {
            pStatus->bKnown = ::fstat(name.Get(), &pStatus->status) == 0;
            pStatus->name = std::move(name);
        }
        return Finding::kFound;
    }
    return errno == ENOENT || errno == ENOTDIR ? Finding::kMissing : Finding::kUnknown;
}

int OpenWithoutLinks(int iFolder, const char* pcPath, int iFlags, mode_t iMode) {
    open_how how{};
    how.flags = static_cast<unsigned int>(iFlags);
    how.mode = iMode;
    how.resolve = RESOLVE_NO_SYMLINKS;
    const int iFile = static_cast<int>(::syscall(SYS_openat2, iFolder, pcPath, &how, sizeof(how)));
    // A filter of system calls may say EPERM of one that it does not know.
    return iFile == -1 && (errno == ENOSYS || errno == EPERM) ? OpenStepByStep(iFolder, pcPath, iFlags, iMode) : iFile;
}

int OpenStepByStep(int iFolder, const char* pcPath, int iFlags, mode_t iMode) {
    std::string sRest = pcPath;
    CDescriptor folder;
    std::size_t iSlash = sRest.find('/');
    while (iSlash != std::string::npos) {
        const std::size_t iNext = sRest.find_first_not_of('/', iSlash);
        const std::string sName = iSlash == 0 ? "/" : sRest.substr(0, iSlash);
        const int iFrom = folder.IsOpen() ? folder.Get() : iFolder;
        CDescriptor next(OpenComponent(iFrom, sName.c_str(), O_PATH | O_CLOEXEC, 0));
        if (!next.IsOpen()) {
            return -1;
        }
        folder = std::move(next);
        sRest = iNext == std::string::npos ? "." : sRest.substr(iNext);  // what a slash follows is a folder
        iSlash = sRest.find('/');
    }
    return OpenComponent(folder.IsOpen() ? folder.Get() : iFolder, sRest.c_str(), iFlags, iMode);
}

namespace {

/// Does a component that is a name begin here, behind a slash?
bool BeginsName(const char* pc) {
    for (int nDots = 0; *pc == '.' && nDots < 2; ++nDots) {  // "." and ".." are none
        ++pc;
    }
    return *pc != '/' && *pc != '\0';
}

}  // namespace

bool IsPlainPath(const char* pcPath) {
    if (pcPath[0] != '/') {
        return false;
    }
    const char* pcSlash = pcPath;
    while (pcSlash != nullptr && BeginsName(pcSlash + 1)) {
        pcSlash = std::strchr(pcSlash + 1, '/');
    }
    return pcSlash == nullptr;
}
