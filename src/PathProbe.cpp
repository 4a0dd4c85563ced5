// Looking for a path without following links.
#include "PathProbe.h"

#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

Finding FindWithoutLinks(const char* pcPath, FoundStatus* pStatus) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    const long iFile = ::syscall(SYS_openat2, AT_FDCWD, pcPath, &how, sizeof(how));
    if (iFile >= 0) {
        if (pStatus != nullptr) {
            pStatus->bKnown = ::fstat(static_cast<int>(iFile), &pStatus->status) == 0;
        }
        ::close(static_cast<int>(iFile));  // a descriptor that only names a file: nothing to lose
        return Finding::kFound;
    }
    return errno == ENOENT || errno == ENOTDIR ? Finding::kMissing : Finding::kUnknown;
}

bool IsPlainPath(const char* pcPath) {
    std::string_view sRest = pcPath;
    if (!sRest.starts_with('/')) {
        return false;
    }
    while (!sRest.empty()) {
        sRest.remove_prefix(1);
        const std::string_view sName = sRest.substr(0, sRest.find('/'));
        if (sName.empty() || sName == "." || sName == "..") {
            return false;
        }
        sRest.remove_prefix(sName.size());
    }
    return true;
}
