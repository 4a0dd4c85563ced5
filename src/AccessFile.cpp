// Reading an access file, and noticing that it has changed.
#include "AccessFile.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <exception>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "Descriptor.h"
#include "Reason.h"
#include "RegularFile.h"

namespace {

/// Time stamps are as coarse as the kernel's tick, or a second on some file systems.
constexpr std::time_t kStampSeconds = 2;

bool IsSameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

CAccessFile::CAccessFile(std::string sPath, std::chrono::milliseconds lookInterval)
    : m_sPath(std::move(sPath)), m_LookInterval(lookInterval) {}

bool CAccessFile::Load(char* pcReason) {
    m_NextLook = Clock::now() + m_LookInterval;
    m_Stamp = Look();
    m_bRecent = m_Stamp.IsRecent();
    if (!ReadRules(&m_sReason)) {
        WriteReason(pcReason, "Access file \"%s\": %s", m_sPath.c_str(), m_sReason.c_str());
        return false;
    }
    return true;
}

// ---- Noticing a change

bool CAccessFile::Stamp::operator==(const Stamp& other) const {
    if (iError != 0 || other.iError != 0) {
        return iError == other.iError;
    }
    return FileIdentity(status) == FileIdentity(other.status) && status.st_size == other.status.st_size &&
           IsSameTime(status.st_mtim, other.status.st_mtim) && IsSameTime(status.st_ctim, other.status.st_ctim);
}

bool CAccessFile::Stamp::IsRecent() const {
    return iError == 0 && status.st_ctim.tv_sec + kStampSeconds > std::time(nullptr);
}

CAccessFile::Stamp CAccessFile::Look() const {
    Stamp stamp;
    if (::stat(m_sPath.c_str(), &stamp.status) != 0) {
        stamp.iError = errno;
    }
    return stamp;
}

void CAccessFile::LookAgain(const LogContext& log) {
    m_NextLook = Clock::now() + m_LookInterval;
    const Stamp stamp = Look();
    if (stamp == m_Stamp && !m_bRecent) {
        return;
    }
    m_Stamp = stamp;
    m_bRecent = stamp.IsRecent();
    try {
        ReadAgain(log);
    } catch (const std::exception&) {  // no memory: it may be there at the next look
        m_bRecent = true;
    }
}

void CAccessFile::ReadAgain(const LogContext& log) {
    const std::string sText = m_sText;
    std::string sReason;
    if (!ReadRules(&sReason)) {
        m_bRecent = true;  // what stood in the way may go without a trace at the file
        if (sReason != m_sReason || sText != m_sText) {
            NFS_LOG_ERROR(log, "[%s] Access file \"%s\": %s. The rules of before stay in force", m_sPath.c_str(),
                          sReason.c_str());
        }
    } else if (!m_sReason.empty() || sText != m_sText) {
        NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Access file \"%s\" read again: %zu rules in force", m_sPath.c_str(),
                     m_Rules.GetCount());
    }
    m_sReason = sReason;
}

// ---- Reading

/// Takes the file's rules over. False with a reason, and the rules as they were, for a file that cannot be.
bool CAccessFile::ReadRules(std::string* psReason) {
    std::string sText;
    if (!Read(&sText, psReason)) {
        return false;
    }
    m_sText = std::move(sText);
    std::optional<CAccessRules> rules = CAccessRules::Parse(m_sText, psReason);
    if (!rules) {
        return false;
    }
    m_Rules = std::move(*rules);
    return true;
}

bool CAccessFile::Read(std::string* psText, std::string* psReason) const {
    const CDescriptor file(OpenRegularFile(m_sPath.c_str(), O_RDONLY, PathLinks::kFollowed));
    ssize_t nRead = file.IsOpen() ? 1 : -1;
    char vcPiece[4096];
    while (nRead > 0 && psText->size() <= kMaxSize) {
        nRead = ::read(file.Get(), vcPiece, sizeof(vcPiece));
        psText->append(vcPiece, static_cast<std::size_t>(std::max<ssize_t>(nRead, 0)));
    }
    if (nRead < 0) {
        *psReason = CSystemErrorText(errno).Get();
        return false;
    }
    if (psText->size() > kMaxSize) {
        *psReason = FormatText("has more than %zu bytes", kMaxSize);
        return false;
    }
    return true;
}
