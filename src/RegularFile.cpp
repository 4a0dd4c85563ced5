// Opening regular files, and nothing else, by path.
//
// The path is opened in two steps: first for a descriptor that only names the file (O_PATH), which has no effect on it,
// then, once that is known to be a regular file, that very file through the descriptor.
#include "RegularFile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>
#include <string_view>

#include <unistd.h>

#include "Descriptor.h"

namespace {

/// "/proc/self/fd/" and a descriptor.
constexpr std::size_t kDescriptorPathSize = 32;
/// So many links in a row are followed, as by the kernel.
constexpr int kMostLinks = 40;

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

/// Opens the user's own file although its permissions refuse that: they are wider for as long as it takes. Fails as
/// before for others' files.
int OpenOwn(const DescriptorPath& path, int iName, int iFlags) {
    struct stat status {};
    if (::fstat(iName, &status) != 0 || status.st_uid != ::geteuid() ||
        ::chmod(path.Get(), (status.st_mode & 07777U) | S_IRUSR | S_IWUSR) != 0) {
        errno = EACCES;
        return -1;
    }
    ErrorKeeper error;
    const int iFile = ::open(path.Get(), iFlags | kOpenFlags);
    if (iFile == -1) {
        error.Fail();
    }
    ::chmod(path.Get(), status.st_mode & 07777U);
    return iFile;
}

/// Opens what a descriptor names.
int OpenNamed(int iName, int iFlags, OwnFiles ownFiles) {
    const DescriptorPath path(iName);
    const int iFile = ::open(path.Get(), iFlags | kOpenFlags);
    return iFile == -1 && errno == EACCES && ownFiles == OwnFiles::kAlways ? OpenOwn(path, iName, iFlags) : iFile;
}

/// Opens a file in two steps; open leads to it with the flags that it is given.
template <class Open>
int OpenIfRegular(const Open& open, int iFlags, OwnFiles ownFiles) {
    ErrorKeeper error;  // lives longer than the descriptor below, whose closing might change it
    CDescriptor name(open(O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!name.IsOpen() || ::fstat(name.Get(), &status) != 0 || !IsRegularFile(status)) {
        return error.Fail();
    }
    int iFile = OpenNamed(name.Get(), iFlags, ownFiles);
    if (iFile == -1 && IsWorthAnotherTry()) {
        name.Close();
        iFile = OpenSame(open, iFlags, status);
    }
    return iFile == -1 ? error.Fail() : iFile;
}

/// Makes a path that ends in a link one that ends where the link leads to. The owner asked for and the text read are
/// one link's, whatever stands there by now. False, with errno set, for a stranger's link.
bool FollowOwnLink(std::string* psPath) {
    ErrorKeeper error;
    const auto fail = [&error] {
        error.Fail();
        return false;
    };
    const CDescriptor link(::open(psPath->c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!link.IsOpen() || ::fstat(link.Get(), &status) != 0) {
        return fail();
    }
    if (!S_ISLNK(status.st_mode)) {
        return true;  // not any more: the next open tells what it is
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
        errno = EACCES;
        return fail();
    }
    char vcTarget[PATH_MAX];
    const ssize_t nTarget = ::readlinkat(link.Get(), "", vcTarget, sizeof(vcTarget));
    if (nTarget < 0) {
        return fail();
    }
    const std::string_view sTarget(vcTarget, static_cast<std::size_t>(nTarget));
    psPath->resize(sTarget.starts_with('/') ? 0 : psPath->rfind('/') + 1);
    psPath->append(sTarget);
    return true;
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
    const auto open = [=](int iOpenFlags) { return OpenPath(pcPath, links, iOpenFlags); };
    return OpenIfRegular(open, iFlags, OwnFiles::kAsPermitted);
}

int OpenRegularFile(const char* pcPath, int iFlags, const FoundStatus& found, OwnFiles ownFiles) {
    const auto open = [pcPlace = GetPlace(pcPath, found), links = GetLinks(found)](int iOpenFlags) {
        return OpenPath(pcPlace, links, iOpenFlags);
    };
    if (!found.name.IsOpen()) {
        return OpenIfRegular(open, iFlags, ownFiles);
    }
    if (!IsRegularFile(found.status)) {
        return -1;
    }
    const int iFile = OpenNamed(found.name.Get(), iFlags, ownFiles);
    return iFile != -1 || !IsWorthAnotherTry() ? iFile : OpenSame(open, iFlags, found.status);
}

int OpenByOwnLinks(const char* pcPath, int iFlags) {
    std::string sPath = pcPath;
    for (int nLinks = 0; nLinks <= kMostLinks; ++nLinks) {
        const int iFile = ::open(sPath.c_str(), iFlags | O_NOFOLLOW | kOpenFlags);
        if (iFile != -1 || errno != ELOOP || !FollowOwnLink(&sPath)) {
            return iFile;
        }
    }
    errno = ELOOP;
    return -1;
}

int CreateRegularFile(const CFolderEntry& entry, mode_t iMode) {
    const int iNew = entry.Open(O_RDWR | O_CREAT | O_EXCL | kOpenFlags, iMode);
    if (iNew != -1 || errno != EEXIST) {
        return iNew;
    }
    const auto open = [&entry](int iOpenFlags) { return entry.Open(iOpenFlags); };
    const int iOld = OpenIfRegular(open, O_RDWR, OwnFiles::kAlways);
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
