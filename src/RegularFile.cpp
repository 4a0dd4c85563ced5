// Opening regular files, and nothing else, by path.
//
// The path is opened in two steps: first for a descriptor that only names the file (O_PATH), which has no effect on it,
// then, once that is known to be a regular file, that very file through the descriptor.
#include "RegularFile.h"

#include <cerrno>
#include <cstdio>

#include <unistd.h>

#include "Descriptor.h"

namespace {

/// "/proc/self/fd/" and a descriptor.
constexpr std::size_t kDescriptorPathSize = 32;

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

/// Opens a path, whatever it names.
int OpenPath(const char* pcPath, PathLinks links, int iFlags) {
    return links == PathLinks::kFollowed ? ::open(pcPath, iFlags) : OpenWithoutLinks(AT_FDCWD, pcPath, iFlags);
}

/// Where what was found lies, and whether links lead there.
const char* GetPlace(const char* pcPath, const FoundStatus& found) {
    return found.sResolved.empty() ? pcPath : found.sResolved.c_str();
}
PathLinks GetLinks(const FoundStatus& found) {
    return found.bKnown && !found.bLinks ? PathLinks::kRefused : PathLinks::kFollowed;
}

/// The path under which the process finds what its descriptor names.
class DescriptorPath {
public:
    explicit DescriptorPath(int iDescriptor) {
        std::snprintf(m_vcPath, sizeof(m_vcPath), "/proc/self/fd/%d", iDescriptor);
    }
    const char* Get() const { return m_vcPath; }

private:
    char m_vcPath[kDescriptorPathSize];
};

/// Without /proc, or with one descriptor left, a descriptor cannot be opened anew. The path is opened once more then;
/// what it names by now is kept only if it is still the file that was looked at.
template <class Open>
int OpenSame(const Open& open, int iFlags, const struct stat& looked) {
    ErrorKeeper error;
    CDescriptor file(open(iFlags | kOpenFlags));
    struct stat status {};
    if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) {
        return error.Fail();
    }
    if (FileIdentity(status) != FileIdentity(looked)) {
        errno = ESTALE;
        return error.Fail();
    }
    return file.Release();
}

bool IsWorthAnotherTry() {
    return errno == ENOENT || errno == EMFILE;
}

/// Opens a file in two steps; open leads to it with the flags that it is given.
template <class Open>
int OpenIfRegular(const Open& open, int iFlags) {
    ErrorKeeper error;  // lives longer than the descriptor below, whose closing might change it
    CDescriptor name(open(O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!name.IsOpen() || ::fstat(name.Get(), &status) != 0 || !IsRegularFile(status)) {
        return error.Fail();
    }
    int iFile = ::open(DescriptorPath(name.Get()).Get(), iFlags | kOpenFlags);
    if (iFile == -1 && IsWorthAnotherTry()) {
        name.Close();
        iFile = OpenSame(open, iFlags, status);
    }
    return iFile == -1 ? error.Fail() : iFile;
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
    return OpenIfRegular([=](int iOpenFlags) { return OpenPath(pcPath, links, iOpenFlags); }, iFlags);
}

int OpenRegularFile(const char* pcPath, int iFlags, const FoundStatus& found) {
    const char* pcPlace = GetPlace(pcPath, found);
    const PathLinks links = GetLinks(found);
    if (!found.name.IsOpen()) {
        return OpenRegularFile(pcPlace, iFlags, links);
    }
    if (!IsRegularFile(found.status)) {
        return -1;
    }
    const int iFile = ::open(DescriptorPath(found.name.Get()).Get(), iFlags | kOpenFlags);
    if (iFile != -1 || !IsWorthAnotherTry()) {
        return iFile;
    }
    return OpenSame([=](int iOpenFlags) { return OpenPath(pcPlace, links, iOpenFlags); }, iFlags, found.status);
}

int CreateRegularFile(const CFolderEntry& entry, mode_t iMode) {
    const int iNew = entry.Open(O_RDWR | O_CREAT | O_EXCL | kOpenFlags, iMode);
    if (iNew != -1 || errno != EEXIST) {
        return iNew;
    }
    const int iOld = OpenIfRegular([&entry](int iOpenFlags) { return entry.Open(iOpenFlags); }, O_RDWR);
    if (iOld != -1 || errno != ENOENT || entry.IsInItsFolder()) {
        return iOld;
    }
    // A link that leads nowhere yet: the file is made where it points to.
    ErrorKeeper error;
    CDescriptor target(entry.Open(O_RDWR | O_CREAT | kOpenFlags, iMode));
    struct stat status {};
    if (!target.IsOpen() || ::fstat(target.Get(), &status) != 0 || !IsRegularFile(status)) {
        return error.Fail();
    }
    return target.Release();
}

int SetModeOf(const char* pcPath, const FoundStatus& found, mode_t iMode) {
    const auto open = [pcPlace = GetPlace(pcPath, found), links = GetLinks(found)](int iFlags) {
        return OpenPath(pcPlace, links, iFlags);
    };
    ErrorKeeper error;
    const CDescriptor own(found.name.IsOpen() ? -1 : open(O_PATH | O_CLOEXEC));
    const int iName = found.name.IsOpen() ? found.name.Get() : own.Get();
    if (iName == -1) {
        return error.Fail();
    }
    int iResult = ::fchmod(iName, iMode);
    if (iResult == -1 && errno == EBADF) {  // the descriptor only names the file
        iResult = ::chmod(DescriptorPath(iName).Get(), iMode);
    }
    const bool bPlain = S_ISREG(found.status.st_mode) || S_ISDIR(found.status.st_mode);
    if (iResult == -1 && errno == ENOENT && bPlain) {  // there is no /proc
        const CDescriptor file(OpenSame(open, O_RDONLY, found.status));
        iResult = file.IsOpen() ? ::fchmod(file.Get(), iMode) : -1;
    }
    return iResult == -1 ? error.Fail() : iResult;
}
