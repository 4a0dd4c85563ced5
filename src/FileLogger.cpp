// A log file that is moved aside when it reaches a size limit.
#include "FileLogger.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "Limits.h"
#include "OsFiles.h"
#include "Texts.h"

namespace {

/// A line of the file, line end and terminator included; the message of a longer one is cut.
constexpr std::size_t kLineBufferSize = 2048;

/// Room for a time stamp.
constexpr std::size_t kTimeBufferSize = 80;

/// Writes the local time as "2025/01/02 03:04:05".
void FormatLocalTime(char (&vcOut)[kTimeBufferSize]) {
    const std::time_t iNow = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&iNow, &local);
    if (std::strftime(vcOut, sizeof(vcOut), "%Y/%m/%d %H:%M:%S", &local) == 0) {
        vcOut[0] = '\0';
    }
}

/// Builds a line, which always has its line end. Its length.
std::size_t FormatLine(char (&vcOut)[kLineBufferSize], const char* pcType, const char* pcMsg) {
    char vcTime[kTimeBufferSize];
    FormatLocalTime(vcTime);
    const bool bType = pcType != nullptr && pcType[0] != '\0';
    const int iFormatted = bType ? std::snprintf(vcOut, sizeof(vcOut), "[%s][%s] %s\n", vcTime, pcType, pcMsg)
                                 : std::snprintf(vcOut, sizeof(vcOut), "[%s] %s\n", vcTime, pcMsg);
    const auto nLength = static_cast<std::size_t>(std::max(iFormatted, 0));
    if (nLength < sizeof(vcOut)) {
        return nLength;
    }
    vcOut[sizeof(vcOut) - 2] = '\n';
    return sizeof(vcOut) - 1;
}

}  // namespace

CFileLogger::CFileLogger(const char* pcPath)
    : m_LogFile(OrEmpty(pcPath)),
      m_pUtilities(std::make_unique<COsFiles>()),
      m_pRuntimeParam(std::make_unique<CRuntimeParam>("", CRuntimeParam::kLogError)) {}

CFileLogger::~CFileLogger() {
    Close();
}

bool CFileLogger::Open(int iLogControl) {
    const LogArgu logArgu{"CFileLogger.Open"};
    const MutexLock lock(m_hMutex);
    if (m_iLogFile != -1) {
        return true;
    }
    const int iOwnLogControl = m_pRuntimeParam->GetLogControl();
    m_pRuntimeParam->SetLogControl(iOwnLogControl | iLogControl);
    char vcReason[kReasonBufferSize] = "";
    m_iLogFile = m_pUtilities->OS_FileForceOpen(m_pRuntimeParam.get(), &logArgu, m_LogFile.c_str(), vcReason);
    if (m_iLogFile == -1) {
        m_pUtilities->LogError(m_pRuntimeParam.get(), "Fail to create log file \"%s\". Reason=%s", m_LogFile.c_str(),
                               vcReason);
    }
    m_pRuntimeParam->SetLogControl(iOwnLogControl);
    return m_iLogFile != -1;
}

void CFileLogger::Close() {
    const LogArgu logArgu{"CFileLogger.Close"};
    const MutexLock lock(m_hMutex);
    if (m_iLogFile != -1) {
        m_pUtilities->OS_FileClose(m_pRuntimeParam.get(), &logArgu, m_iLogFile, m_LogFile.c_str(), nullptr);
        m_iLogFile = -1;
    }
}

bool CFileLogger::LogInfo(const char* pcMessage) {
    return LogMessage("info", pcMessage);
}

bool CFileLogger::LogError(const char* pcMessage) {
    return LogMessage("error", pcMessage);
}

bool CFileLogger::LogRaw(const char* pcMessage) {
    return LogMessage("", pcMessage);
}

void CFileLogger::SetMaxLogSize(long long iSize) {
    if (iSize > 0) {
        m_iMaxLogSize.store(iSize);
    }
}

bool CFileLogger::LogMessage(const char* pcType, const char* pcMsg) {
    const LogArgu logArgu{"CFileLogger.LogMessage"};
    const MutexLock lock(m_hMutex);
    if (m_iLogFile == -1) {
        return false;
    }
    const long long iSize = m_pUtilities->OS_FileTell(m_pRuntimeParam.get(), &logArgu, m_iLogFile, nullptr);
    if (iSize >= m_iMaxLogSize.load() && !Rotate(&logArgu)) {
        return false;
    }
    char vcLine[kLineBufferSize];
    const std::size_t nLength = FormatLine(vcLine, pcType, pcMsg);
    return m_pUtilities->OS_FileWrite(m_pRuntimeParam.get(), &logArgu, m_iLogFile, vcLine,
                                      static_cast<unsigned int>(nLength), nullptr) != -1;
}

/// Moves the file aside and begins a new one. When that fails the logger stays closed.
bool CFileLogger::Rotate(const LogArgu* pLogArgu) {
    CRuntimeParam* pParam = m_pRuntimeParam.get();
    // A close that fails has closed the descriptor all the same: its number may be a client's file or connection next.
    const int iClosing = std::exchange(m_iLogFile, -1);
    if (m_pUtilities->OS_FileClose(pParam, pLogArgu, iClosing, m_LogFile.c_str(), nullptr) == -1) {
        return false;
    }
    std::string sRotated;
    do {
        sRotated = m_LogFile + "." + std::to_string(m_iLastLogIndex++);
    } while (m_pUtilities->OS_IsFileExists(sRotated.c_str(), nullptr));
    if (m_pUtilities->OS_FileRename(pParam, pLogArgu, m_LogFile.c_str(), sRotated.c_str(), nullptr) == -1) {
        return false;
    }
    m_iLogFile = m_pUtilities->OS_FileCreateToAppend(pParam, pLogArgu, m_LogFile.c_str(), nullptr);
    return m_iLogFile != -1;
}
