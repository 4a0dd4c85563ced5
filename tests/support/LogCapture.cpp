// What the code under test logs and tells its host.
#include "LogCapture.h"

#include <algorithm>

#include "FileLogger.h"

// ---- LogCapture

void LogCapture::Add(LogLine line) {
    const std::lock_guard lock(m_Mutex);
    m_vLines.push_back(std::move(line));
    m_Changed.notify_all();
}

void LogCapture::Add(Notification notification) {
    const std::lock_guard lock(m_Mutex);
    m_vNotifications.push_back(std::move(notification));
    m_Changed.notify_all();
}

std::vector<LogLine> LogCapture::Lines() const {
    const std::lock_guard lock(m_Mutex);
    return m_vLines;
}

std::vector<std::string> LogCapture::Texts(char cKind) const {
    std::vector<std::string> vsTexts;
    for (const LogLine& line : Lines()) {
        if (cKind == '\0' || line.cKind == cKind) {
            vsTexts.push_back(line.sText);
        }
    }
    return vsTexts;
}

bool LogCapture::Has(const std::string& sText, char cKind) const {
    const std::vector<std::string> vsTexts = Texts(cKind);
    return std::find(vsTexts.begin(), vsTexts.end(), sText) != vsTexts.end();
}

std::string LogCapture::LinesWith(const std::string& sPart) const {
    std::string sLines;
    for (const std::string& sText : Texts()) {
        if (sText.find(sPart) != std::string::npos) {
            sLines += sText + "\n";
        }
    }
    return sLines;
}

bool LogCapture::WaitFor(const std::string& sText, std::chrono::milliseconds limit) const {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, limit, [&] {
        return std::any_of(m_vLines.begin(), m_vLines.end(), [&](const LogLine& line) { return line.sText == sText; });
    });
}

bool LogCapture::WaitForBeginning(const std::string& sText, std::chrono::milliseconds limit) const {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, limit, [&] {
        return std::any_of(m_vLines.begin(), m_vLines.end(),
                           [&](const LogLine& line) { return line.sText.starts_with(sText); });
    });
}

std::string LogCapture::Dump() const {
    std::string sText;
    for (const LogLine& line : Lines()) {
        sText += line.cKind;
        sText += " (" + line.sID + ") " + line.sText + "\n";
    }
    return sText;
}

void LogCapture::Clear() {
    const std::lock_guard lock(m_Mutex);
    m_vLines.clear();
    m_vNotifications.clear();
}

std::vector<Notification> LogCapture::Notifications() const {
    const std::lock_guard lock(m_Mutex);
    return m_vNotifications;
}

void LogCapture::SetHost(std::function<int(const Notification&)> host) {
    const std::lock_guard lock(m_Mutex);
    m_Host = std::move(host);
}

int LogCapture::Ask(const Notification& notification) {
    std::function<int(const Notification&)> host;
    {
        const std::lock_guard lock(m_Mutex);
        host = m_Host;
    }
    Add(notification);
    return host ? host(notification) : -1;
}

// ---- CaptureUtilities

namespace {

/// The part that every notification has.
Notification MakeNotification(const char* pcOperation, CRuntimeParam* pRuntimeParam, const char* pcPath) {
    Notification notification;
    notification.sOperation = pcOperation;
    notification.sID = pRuntimeParam->GetID();
    notification.sIpcID = pRuntimeParam->GetIpcID();
    notification.sPath = pcPath;
    return notification;
}

}  // namespace

void CaptureUtilities::LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    m_pCapture->Add(LogLine{'i', pRuntimeParam->GetID(), pcMessage});
    if (GetFileLogger() != nullptr) {
        GetFileLogger()->LogInfo(pcMessage);
    }
}

void CaptureUtilities::LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    m_pCapture->Add(LogLine{'e', pRuntimeParam->GetID(), pcMessage});
    if (GetFileLogger() != nullptr) {
        GetFileLogger()->LogError(pcMessage);
    }
}

void CaptureUtilities::LogRaw(CRuntimeParam* pRuntimeParam, const char* pcMessage) {
    m_pCapture->Add(LogLine{'r', pRuntimeParam->GetID(), pcMessage});
    if (GetFileLogger() != nullptr) {
        GetFileLogger()->LogRaw(pcMessage);
    }
}

int CaptureUtilities::LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize,
                                                        unsigned long long iSize, bool bAccessTime,
                                                        unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                                        unsigned long lLastModifiedTimeSec) {
    Notification notification = MakeNotification("update", pRuntimeParam, pcPath);
    notification.bSize = bSize;
    notification.iSize = iSize;
    notification.bAccessTime = bAccessTime;
    notification.lAccessTimeSec = lAccessTimeSec;
    notification.bLastModifiedTime = bLastModifiedTime;
    notification.lLastModifiedTimeSec = lLastModifiedTimeSec;
    return m_pCapture->Ask(notification);
}

int CaptureUtilities::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    return m_pCapture->Ask(MakeNotification("remove", pRuntimeParam, pcPath));
}

int CaptureUtilities::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                                              const char* pcPathTo) {
    Notification notification = MakeNotification("rename", pRuntimeParam, pcPathFrom);
    notification.sPathTo = pcPathTo;
    return m_pCapture->Ask(notification);
}

int CaptureUtilities::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, unsigned long long iSeek,
                                             int iSeekType, unsigned int iLen) {
    Notification notification = MakeNotification("write", pRuntimeParam, pcPath);
    notification.iSeek = iSeek;
    notification.iSeekType = iSeekType;
    notification.iLen = iLen;
    return m_pCapture->Ask(notification);
}
