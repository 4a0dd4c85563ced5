// Files and pipes of this machine.
#include "LocalFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "NfsError.h"
#include "Wait.h"

namespace {

constexpr mode_t kLocalFileMode = 0644;
constexpr std::size_t kFirstPiece = 65536;
/// How often a named pipe is looked at for a reader, which cannot be waited for.
constexpr int kReaderMilliseconds = 50;

bool IsPipe(const std::string& sPath) {
    struct stat state {};
    return ::stat(sPath.c_str(), &state) == 0 && S_ISFIFO(state.st_mode);
}

/// Opens without a wait that no signal would end: a named pipe whose other end nobody has opened yet would be one.
int Open(const std::string& sPath, int iFlags, int iInterrupt) {
    for (;;) {
        const int iFile = ::open(sPath.c_str(), iFlags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, kLocalFileMode);
        if (iFile >= 0) {
            ::fcntl(iFile, F_SETFL, ::fcntl(iFile, F_GETFL) & ~O_NONBLOCK);  // the rest is waited for before it is done
            return iFile;
        }
        if (errno != ENXIO || !IsPipe(sPath)) {
            return iFile;
        }
        if (WaitReady({}, {}, iInterrupt, kReaderMilliseconds).bInterrupt) {
            throw Interrupted();
        }
    }
}

}  // namespace

LocalFile::LocalFile(const std::string& sPath, int iFlags, int iStandard, int iInterrupt)
    : m_sPath(sPath), m_iFile(sPath == "-" ? iStandard : Open(sPath, iFlags, iInterrupt)), m_bOwned(sPath != "-") {
    if (m_iFile < 0) {
        Fail();
    }
}

LocalFile::~LocalFile() {
    if (m_bOwned && m_iFile >= 0) {
        ::close(m_iFile);  // closed already, and checked, where it was written to
    }
}

void LocalFile::Fail() const {
    throw NfsError("\"" + m_sPath + "\": " + std::strerror(errno));
}

bool LocalFile::IsPlain() const {
    struct stat state {};
    return ::fstat(m_iFile, &state) == 0 && S_ISREG(state.st_mode);
}

struct stat LocalFile::State() const {
    struct stat state {};
    if (::fstat(m_iFile, &state) != 0) {
        Fail();
    }
    return state;
}

std::uint64_t LocalFile::Size() const {
    return static_cast<std::uint64_t>(State().st_size);
}

std::uint64_t LocalFile::Position() const {
    const off_t iPosition = ::lseek(m_iFile, 0, SEEK_CUR);
    if (iPosition < 0) {
        Fail();
    }
    return static_cast<std::uint64_t>(iPosition);
}

void LocalFile::Seek(std::uint64_t iOffset) {
    if (::lseek(m_iFile, static_cast<off_t>(iOffset), SEEK_SET) < 0) {
        Fail();
    }
}

void LocalFile::Truncate(std::uint64_t iSize) {
    if (::ftruncate(m_iFile, static_cast<off_t>(iSize)) != 0) {
        Fail();
    }
}

void LocalFile::SetMode(mode_t iMode) {
    if (::fchmod(m_iFile, iMode) != 0) {
        Fail();
    }
}

std::vector<char> LocalFile::ReadAt(std::uint64_t iOffset, std::size_t nSize) const {
    std::vector<char> vcData(nSize);
    std::size_t nRead = 0;
    while (nRead < nSize) {
        const ssize_t nGot =
            ::pread(m_iFile, vcData.data() + nRead, nSize - nRead, static_cast<off_t>(iOffset + nRead));
        if (nGot < 0) {
            Fail();
        }
        if (nGot == 0) {
            break;
        }
        nRead += static_cast<std::size_t>(nGot);
    }
    vcData.resize(nRead);
    return vcData;
}

void LocalFile::Close() {
    const int iFile = m_iFile;
    m_iFile = -1;
    if (m_bOwned && ::close(iFile) != 0) {
        Fail();
    }
}

LocalSource::LocalSource(const std::string& sPath, int iInterrupt)
    : m_File(sPath, O_RDONLY, STDIN_FILENO), m_bPlain(m_File.IsPlain()) {
    if (m_bPlain) {
        const std::uint64_t iSize = m_File.Size();
        m_iBegin = m_File.Position();
        m_oiTotal = iSize - std::min(iSize, m_iBegin);
    } else {
        WaitFor({m_File.Get(), POLLIN}, iInterrupt);
    }
    m_vcFirst = Read(kFirstPiece);
}

void LocalSource::ExpectAll(std::uint64_t iGiven) const {
    if (!m_oiTotal || iGiven >= *m_oiTotal) {
        return;
    }
    const bool bShrank = m_File.Size() < m_iBegin + *m_oiTotal;
    throw NfsError("\"" + m_File.Path() +
                   "\": " + (bShrank ? "it shrank while it was sent" : "it ends before its size"));
}

void LocalSource::Seek(std::uint64_t iOffset) {
    m_File.Seek(iOffset);
    m_vcFirst.clear();
    m_bEnd = false;
}

std::vector<char> LocalSource::Read(std::size_t nLargest) {
    std::vector<char> vcData;
    if (!m_vcFirst.empty()) {
        const auto nTaken = static_cast<std::ptrdiff_t>(std::min(nLargest, m_vcFirst.size()));
        vcData.assign(m_vcFirst.begin(), m_vcFirst.begin() + nTaken);
        m_vcFirst.erase(m_vcFirst.begin(), m_vcFirst.begin() + nTaken);
    } else if (!m_bEnd) {
        vcData.resize(nLargest);
        const ssize_t nRead = ::read(m_File.Get(), vcData.data(), vcData.size());
        if (nRead < 0) {
            throw NfsError("\"" + m_File.Path() + "\": local read: " + std::strerror(errno));
        }
        vcData.resize(static_cast<std::size_t>(nRead));
        m_bEnd = nRead == 0;
    }
    return vcData;
}
