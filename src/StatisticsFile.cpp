// Writing the figures of a server, whole or not at all.
#include "StatisticsFile.h"

#include <cerrno>
#include <exception>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Descriptor.h"
#include "DescriptorCache.h"
#include "Reason.h"

namespace {

constexpr const char* kBeside = ".tmp";
/// Everybody may read it, whatever the process's mask: collectors run as other users.
constexpr mode_t kMode = 0644;
/// So short that it needs none.
constexpr const char* kNoMemory = "no memory";

bool WriteAll(int iFile, const std::string& sText) {
    std::size_t nWritten = 0;
    while (nWritten < sText.size()) {
        const ssize_t n = ::write(iFile, sText.data() + nWritten, sText.size() - nWritten);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        nWritten += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return true;
}

}  // namespace

CStatisticsFile::CStatisticsFile(std::string sPath, Show show, CDescriptorCache* pCache, CRuntimeParam* pRuntimeParam,
                                 std::chrono::milliseconds interval)
    : m_sPath(std::move(sPath)),
      m_Form(GetFormOfFile(m_sPath)),
      m_Show(std::move(show)),
      m_pCache(pCache),
      m_pRuntimeParam(pRuntimeParam),
      m_Interval(interval) {}

CStatisticsFile::~CStatisticsFile() {
    Stop();
}

// ---- The thread

bool CStatisticsFile::Start(char* pcReason) {
    try {
        m_hThread = std::thread(&CStatisticsFile::Run, this);
        return true;
    } catch (const std::exception& error) {
        WriteReason(pcReason, "Statistics file \"%s\": no thread to write it. %s", m_sPath.c_str(), error.what());
        return false;
    }
}

void CStatisticsFile::Stop() {
    if (!m_hThread.joinable()) {
        return;
    }
    {
        const MutexLock lock(m_hMutex);
        m_bStop = true;
        m_Changed.notify_all();
    }
    m_hThread.join();
    m_hThread = std::thread();
    WriteAndReport();
}

void CStatisticsFile::Run() {
    do {
        WriteAndReport();
    } while (WaitForNext());
}

/// False at the end.
bool CStatisticsFile::WaitForNext() {
    const MutexLock lock(m_hMutex);
    const auto next = std::chrono::steady_clock::now() + m_Interval;
    while (!m_bStop && std::chrono::steady_clock::now() < next) {
        m_Changed.wait_until(m_hMutex, next);
    }
    return !m_bStop;
}

void CStatisticsFile::WriteAndReport() {
    std::string sReason;
    try {
        sReason = Replace();
    } catch (const std::exception&) {
        sReason = kNoMemory;
    }
    try {
        Report(sReason);
    } catch (const std::exception&) {  // who takes lines has no memory either
    }
}

/// Says so if that is another state than before.
void CStatisticsFile::Report(const std::string& sReason) {
    const LogArgu logArgu{"StatisticsFile.Write"};
    const LogContext log{m_pCache, m_pRuntimeParam, &logArgu};
    const bool bChanged = sReason != m_sReason;
    m_sReason = sReason;
    if (bChanged && !sReason.empty()) {
        NFS_LOG_ERROR(log, "[%s] Statistics file \"%s\": %s. It stays as it was", m_sPath.c_str(), sReason.c_str());
    } else if (bChanged) {
        NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Statistics file \"%s\" is written again", m_sPath.c_str());
    }
}

// ---- One writing

bool CStatisticsFile::Write(char* pcReason) {
    m_sReason = Replace();
    if (!m_sReason.empty()) {
        WriteReason(pcReason, "Statistics file \"%s\": %s", m_sPath.c_str(), m_sReason.c_str());
    }
    return m_sReason.empty();
}

/// Puts the figures of now in the place of those before. Returns the reason of a failure, empty for none.
std::string CStatisticsFile::Replace() {
    const std::string sText = m_Show(m_Form);
    const std::size_t nFolder = m_sPath.rfind('/') + 1;  // 0 without a slash
    const std::string sFolder = nFolder == 0 ? "." : m_sPath.substr(0, nFolder);
    const std::string sName = m_sPath.substr(nFolder);
    if (sName.empty()) {
        return "names no file";
    }
    bool bFolder = false;
    int iError = ReplaceIn(sFolder, sName, sText, &bFolder);
    if (iError == EMFILE || iError == ENFILE) {
        const LogArgu logArgu{"StatisticsFile.Write"};
        m_pCache->FreeCachedFileHandles(m_pRuntimeParam, &logArgu);
        iError = ReplaceIn(sFolder, sName, sText, &bFolder);
    }
    if (iError == 0) {
        return "";
    }
    const CSystemErrorText error(iError);
    return bFolder ? error.Get() : FormatText("Folder \"%s\": %s", sFolder.c_str(), error.Get());
}

/// Returns an error number, 0 for none. *pbFolder tells whether there is such a folder at all.
int CStatisticsFile::ReplaceIn(const std::string& sFolder, const std::string& sName, const std::string& sText,
                               bool* pbFolder) {
    CDescriptor folder(::open(sFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    folder = CDescriptor::AboveStandard(std::move(folder));
    *pbFolder = folder.IsOpen();
    return folder.IsOpen() ? WriteBeside(folder.Get(), sName, sText) : errno;
}

/// Writes another file and gives it the name. Returns an error number, 0 for none.
int CStatisticsFile::WriteBeside(int iFolder, const std::string& sName, const std::string& sText) {
    const std::string sBeside = sName + kBeside;
    // What a run that was killed has left: most times there is nothing.
    static_cast<void>(::unlinkat(iFolder, sBeside.c_str(), 0));
    CDescriptor file = CDescriptor::AboveStandard(CDescriptor(
        ::openat(iFolder, sBeside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, kMode)));
    if (!file.IsOpen()) {
        return errno;
    }
    const bool bWritten = ::fchmod(file.Get(), kMode) == 0 && WriteAll(file.Get(), sText);
    const int iWriteError = bWritten ? 0 : errno;
    const bool bClosed = ::close(file.Release()) == 0;  // a full disk may be told here alone
    if (bWritten && bClosed && ::renameat(iFolder, sBeside.c_str(), iFolder, sName.c_str()) == 0) {
        return 0;
    }
    const int iError = bWritten ? errno : iWriteError;
    static_cast<void>(::unlinkat(iFolder, sBeside.c_str(), 0));
    return iError;
}
