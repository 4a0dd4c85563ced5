// The local end of a get.
#include "LocalTarget.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include "NfsError.h"

namespace {

constexpr mode_t kPermissions = 0777;
constexpr const char* kPartSuffix = ".nfsget-part";
/// What a directory's entry may be called at most, in bytes.
constexpr std::size_t kLongestName = NAME_MAX;

/// A number made of a text, the same in every run (FNV-1a).
std::uint64_t Digest(const std::string& sText) {
    std::uint64_t iDigest = 0xcbf29ce484222325U;
    for (const char c : sText) {
        iDigest = (iDigest ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    }
    return iDigest;
}

/// A shorter name for one that leaves no room for the suffix; names that begin alike stay apart.
std::string Shortened(const std::string& sName) {
    std::array<char, 24> vcDigest{};
    std::snprintf(vcDigest.data(), vcDigest.size(), ".%016llx", static_cast<unsigned long long>(Digest(sName)));
    std::size_t nKept = kLongestName - std::strlen(kPartSuffix) - std::strlen(vcDigest.data());
    constexpr unsigned char kContinuationMask = 0xc0;
    constexpr unsigned char kContinuation = 0x80;
    while (nKept > 1 && (static_cast<unsigned char>(sName[nKept]) & kContinuationMask) == kContinuation) {
        --nKept;  // not in the middle of a UTF-8 character
    }
    return sName.substr(0, nKept) + vcDigest.data();
}

bool IsStandardOutput(const struct stat& state) {
    struct stat output {};
    return ::fstat(STDOUT_FILENO, &output) == 0 && output.st_dev == state.st_dev && output.st_ino == state.st_ino;
}

}  // namespace

LocalTarget::LocalTarget(const std::string& sPath, int iInterrupt) : m_sPath(sPath) {
    struct stat state {};
    if (sPath == "-") {
        m_pStream = std::make_unique<LocalFile>(sPath, O_WRONLY, STDOUT_FILENO);
    } else if (::stat(sPath.c_str(), &state) != 0) {
        if (errno != ENOENT || sPath.back() == '/') {
            throw NfsError("\"" + sPath + "\": " + std::strerror(errno));
        }
        if (::lstat(sPath.c_str(), &state) == 0) {
            throw NfsError("\"" + sPath + "\": a symbolic link that leads nowhere");
        }
    } else if (S_ISDIR(state.st_mode)) {
        throw NfsError("\"" + sPath + "\": is a directory: name the file in it");
    } else if (IsStandardOutput(state)) {  // as /dev/stdout is
        m_pStream = std::make_unique<LocalFile>("-", O_WRONLY, STDOUT_FILENO);
    } else if (S_ISREG(state.st_mode)) {
        m_oiMode = state.st_mode & kPermissions;
        FollowLink();
    } else {
        m_pStream = std::make_unique<LocalFile>(sPath, O_WRONLY, STDOUT_FILENO, iInterrupt);
    }
}

void LocalTarget::FollowLink() {
    struct stat state {};
    if (::lstat(m_sPath.c_str(), &state) != 0 || !S_ISLNK(state.st_mode)) {
        return;  // its name stays as it was given
    }
    struct Deleter {
        void operator()(char* pcText) const { std::free(pcText); }
    };
    const std::unique_ptr<char, Deleter> pcResolved(::realpath(m_sPath.c_str(), nullptr));
    if (!pcResolved) {
        throw NfsError("\"" + m_sPath + "\": " + std::strerror(errno));
    }
    m_sPath = pcResolved.get();
}

void LocalTarget::Protect(LocalFile& part) const {
    if (m_oiMode) {
        part.SetMode(*m_oiMode);
    }
}

std::string LocalTarget::PartPath() const {
    const std::size_t iName = m_sPath.rfind('/') + 1;  // npos + 1 is 0
    const std::string sName = m_sPath.substr(iName);
    const bool bFits = sName.size() + std::strlen(kPartSuffix) <= kLongestName;
    return m_sPath.substr(0, iName) + (bFits ? sName : Shortened(sName)) + kPartSuffix;
}
