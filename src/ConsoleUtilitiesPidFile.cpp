// The console's pid file: one console per file.
//
// Checking, removing and writing happen under a lock of the file itself, and only while the path still names the
// locked file. So of consoles that start together one writes its process ID and the others find it there.
#include "ConsoleUtilities.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Descriptor.h"
#include "OsFiles.h"
#include "Reason.h"

namespace {

/// At most this much of a pid file is read.
constexpr unsigned int kMaxPidText = 255;

/// Others hold the lock for a few system calls. One who keeps it for longer than a second is no console: go on.
constexpr int kLockAttempts = 50;
constexpr useconds_t kLockPause = 20000;

/// Rounds of looking and creating; another round is needed only when another console came in between.
constexpr int kMaxRounds = 100;

enum class Verdict { kFree, kTaken, kAgain };

/// The file work of one pid file, logged under the console's tag.
class PidFile {
public:
    PidFile(const char* pcPath, int iLogControl, const char* pcTag, char* pcStatus)
        : m_pcPath(pcPath), m_Param("", iLogControl | CRuntimeParam::kLogError), m_Tag{pcTag}, m_pcStatus(pcStatus) {}

    bool Exists() { return m_OsFiles.OS_IsFileExists(m_pcPath, nullptr); }
    bool Remove() { return m_OsFiles.OS_FileRemove(&m_Param, &m_Tag, m_pcPath, m_pcStatus) == 0; }
    /// Removes the file unless a living process holds it.
    Verdict Free();
    /// Makes the file and writes our process ID.
    Verdict Write();
    /// Reports on the log what the reason says.
    void LogFailure() {
        m_OsFiles.LogError(&m_Param, "Fail to create pid file \"%s\". Reason=%s", m_pcPath, m_pcStatus);
    }

private:
    /// A descriptor of the file, closed at the end of the scope, which also ends its lock.
    class Descriptor {
    public:
        Descriptor(PidFile& owner, int iFile) : m_Owner(owner), m_iFile(iFile) {}
        ~Descriptor() {
            if (m_iFile >= 0) {
                m_Owner.m_OsFiles.OS_FileClose(&m_Owner.m_Param, &m_Owner.m_Tag, m_iFile, m_Owner.m_pcPath, nullptr);
            }
        }
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;
        int Get() const { return m_iFile; }

    private:
        PidFile& m_Owner;
        int m_iFile;
    };

    static void Lock(int iFile);
    bool IsStillNamed(int iFile) const;
    bool ReadText(int iFile, std::string& sText);
    bool IsHeldByLivingProcess(const std::string& sText);
    /// Takes the lock and the text. The lock outlives the file's own descriptor, which is closed again.
    Verdict LockAndRead(CDescriptor& lock, std::string& sText);

    const char* m_pcPath;
    COsFiles m_OsFiles;
    CRuntimeParam m_Param;
    LogArgu m_Tag;
    char* m_pcStatus;
};

/// Takes the file's lock. A file system without locks leaves the check as it is.
void PidFile::Lock(int iFile) {
    for (int i = 0; i < kLockAttempts && ::flock(iFile, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; ++i) {
        ::usleep(kLockPause);
    }
}

/// True if the path names the open file, not one that took its place.
bool PidFile::IsStillNamed(int iFile) const {
    struct stat opened {};
    struct stat named {};
    return ::fstat(iFile, &opened) == 0 && ::stat(m_pcPath, &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

/// Judges the text of a pid file; one that is no positive number names no process.
bool PidFile::IsHeldByLivingProcess(const std::string& sText) {
    const long iPid = std::strtol(sText.c_str(), nullptr, 10);
    if (iPid <= 0 || iPid > std::numeric_limits<pid_t>::max()) {
        return false;
    }
    if (::kill(static_cast<pid_t>(iPid), 0) != 0 && errno != EPERM) {
        return false;
    }
    WriteReason(m_pcStatus, "Process ID \"%d\" is still running", static_cast<int>(iPid));
    return true;
}

/// Takes the text of an open pid file without its line end.
bool PidFile::ReadText(int iFile, std::string& sText) {
    char vcText[kMaxPidText];
    const int nText = m_OsFiles.OS_FileRead(&m_Param, &m_Tag, iFile, vcText, kMaxPidText, m_pcStatus);
    if (nText < 0) {
        return false;
    }
    sText.assign(vcText, static_cast<std::size_t>(nText));
    if (sText.ends_with('\n')) {
        sText.pop_back();
    }
    if (sText.ends_with('\r')) {
        sText.pop_back();
    }
    return true;
}

Verdict PidFile::LockAndRead(CDescriptor& lock, std::string& sText) {
    const Descriptor file(*this, m_OsFiles.OS_FileOpen(&m_Param, &m_Tag, m_pcPath, O_RDONLY, false, m_pcStatus));
    if (file.Get() < 0) {
        return Exists() ? Verdict::kTaken : Verdict::kAgain;
    }
    lock = CDescriptor(::fcntl(file.Get(), F_DUPFD_CLOEXEC, 0));
    if (!lock.IsOpen()) {
        COsFiles::GetLastErrorText(m_pcStatus, errno);
        return Verdict::kTaken;
    }
    Lock(file.Get());
    return ReadText(file.Get(), sText) ? Verdict::kFree : Verdict::kTaken;
}

Verdict PidFile::Free() {
    struct stat named {};
    if (::stat(m_pcPath, &named) == 0 && !S_ISREG(named.st_mode)) {
        WriteReason(m_pcStatus, "Not a regular file");  // neither wait on a pipe nor remove a device
        return Verdict::kTaken;
    }
    CDescriptor lock;
    std::string sText;
    if (const Verdict read = LockAndRead(lock, sText); read != Verdict::kFree) {
        return read;
    }
    if (IsHeldByLivingProcess(sText)) {
        return Verdict::kTaken;
    }
    if (!IsStillNamed(lock.Get())) {
        return Verdict::kAgain;
    }
    return Remove() ? Verdict::kFree : Verdict::kTaken;
}

Verdict PidFile::Write() {
    const Descriptor file(*this, m_OsFiles.OS_FileForceOpen(&m_Param, &m_Tag, m_pcPath, m_pcStatus));
    if (file.Get() < 0) {
        return Verdict::kTaken;
    }
    Lock(file.Get());
    struct stat opened {};
    if (!IsStillNamed(file.Get()) || ::fstat(file.Get(), &opened) != 0 || opened.st_size != 0) {
        return Verdict::kAgain;  // another console was faster
    }
    const std::string sText = std::to_string(::getpid()) + "\n";
    const int nWritten = m_OsFiles.OS_FileWrite(&m_Param, &m_Tag, file.Get(), sText.data(),
                                                static_cast<unsigned int>(sText.size()), m_pcStatus);
    if (nWritten == static_cast<int>(sText.size())) {
        return Verdict::kFree;
    }
    if (nWritten >= 0) {
        COsFiles::GetLastErrorText(m_pcStatus, ENOSPC);
    }
    m_OsFiles.OS_FileRemove(&m_Param, &m_Tag, m_pcPath, nullptr);  // what could not be written says nothing
    return Verdict::kTaken;
}

}  // namespace

bool CConsoleUtilities::CreatePidFile(const char* pcPath, int iLogControl, char* pcStatus) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return true;
    }
    PidFile pidFile(pcPath, iLogControl, "CConsoleUtilities.CreatePidFile", pcStatus);
    for (int iRound = 0; iRound < kMaxRounds; ++iRound) {
        if (pidFile.Exists()) {
            const Verdict freed = pidFile.Free();
            if (freed == Verdict::kTaken) {
                return false;
            }
            if (freed == Verdict::kAgain) {
                continue;
            }
        }
        const Verdict written = pidFile.Write();
        if (written == Verdict::kFree) {
            return true;
        }
        if (written == Verdict::kTaken) {
            pidFile.LogFailure();
            return false;
        }
    }
    WriteReason(pcStatus, "Others keep changing the file");
    pidFile.LogFailure();
    return false;
}

void CConsoleUtilities::RemovePidFile(const char* pcPath, int iLogControl) {
    if (pcPath == nullptr || pcPath[0] == '\0') {
        return;
    }
    char vcReason[kReasonBufferSize] = "";
    PidFile pidFile(pcPath, iLogControl, "CConsoleUtilities.RemovePidFile", vcReason);
    if (pidFile.Exists()) {
        pidFile.Remove();
    }
}
