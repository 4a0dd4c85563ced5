// Opening regular files, and nothing else, by path.
//
// The path is opened in two steps: first for a descriptor that only names the file (O_PATH), which has no effect on it,
// then, once that is known to be a regular file, that very file through the descriptor.
#include "RegularFile.h"

#include <cerrno>
#include <cstdio>

#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Descriptor.h"

namespace {

/// "/proc/self/fd/" and a descriptor.
constexpr std::size_t kDescriptorPathSize = 32;

/// A descriptor that only names what the path leads to.
CDescriptor OpenName(const char* pcPath, PathLinks links) {
    if (links == PathLinks::kFollowed) {
        return CDescriptor(::open(pcPath, O_PATH | O_CLOEXEC));
    }
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return CDescriptor(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, pcPath, &how, sizeof(how))));
}

/// errno outlives the closing of descriptors.
class ErrorKeeper {
public:
    ErrorKeeper() = default;
    ~ErrorKeeper() { errno = m_iError; }
    ErrorKeeper(const ErrorKeeper&) = delete;
    ErrorKeeper& operator=(const ErrorKeeper&) = delete;
    /// The present error is the one to keep.
    int Fail() {
        m_iError = errno;
        return -1;
    }

private:
    int m_iError = errno;
};

/// Without /proc, or with one descriptor left, a descriptor cannot be opened anew. The path is opened once more then;
/// what it names by now is kept only if it is still the file that was looked at.
int OpenAgainByPath(const char* pcPath, int iFlags, const FileIdentity& identity) {
    ErrorKeeper error;
    CDescriptor file(::open(pcPath, iFlags | kOpenFlags));
    if (!file.IsOpen()) {
        return error.Fail();
    }
    struct stat status {};
    if (::fstat(file.Get(), &status) != 0) {
        return error.Fail();
    }
    if (FileIdentity(status) != identity) {
        errno = ESTALE;
        return error.Fail();
    }
    return file.Release();
}

}  // namespace

bool IsRegularFile(const struct stat& status) {
    if (S_ISREG(status.st_mode)) {
        return true;
    }
    errno = S_ISDIR(status.st_mode) ? EISDIR : EOPNOTSUPP;
    return false;
}

int OpenRegularFile(const char* pcPath, int iFlags, PathLinks links) {
    ErrorKeeper error;  // lives longer than the descriptor below, whose closing might change it
    CDescriptor name = OpenName(pcPath, links);
    struct stat status {};
    if (!name.IsOpen() || ::fstat(name.Get(), &status) != 0 || !IsRegularFile(status)) {
        return error.Fail();
    }
    char vcName[kDescriptorPathSize];
    std::snprintf(vcName, sizeof(vcName), "/proc/self/fd/%d", name.Get());
    int iFile = ::open(vcName, iFlags | kOpenFlags);
    if (iFile == -1 && (errno == ENOENT || errno == EMFILE)) {
        name.Close();
        iFile = OpenAgainByPath(pcPath, iFlags, FileIdentity(status));
    }
    return iFile == -1 ? error.Fail() : iFile;
}

int CreateRegularFile(const char* pcPath, mode_t iMode) {
    const int iNew = ::open(pcPath, O_RDWR | O_CREAT | O_EXCL | kOpenFlags, iMode);
    if (iNew != -1 || errno != EEXIST) {
        return iNew;
    }
    const int iOld = OpenRegularFile(pcPath, O_RDWR, PathLinks::kFollowed);
    if (iOld != -1 || errno != ENOENT) {
        return iOld;
    }
    // A link that leads nowhere yet: the file is made where it points to.
    ErrorKeeper error;
    CDescriptor target(::open(pcPath, O_RDWR | O_CREAT | kOpenFlags, iMode));
    struct stat status {};
    if (!target.IsOpen() || ::fstat(target.Get(), &status) != 0 || !IsRegularFile(status)) {
        return error.Fail();
    }
    return target.Release();
}
