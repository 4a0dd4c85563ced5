// A controller that does nothing but write down what it is told to do.
#pragma once

#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "NfsMain.h"
#include "RuntimeParam.h"

/// Every operation is recorded as a line, "Name(argument, argument)"; runtime parameters as "ID/IPC ID/log control".
/// What it answers is set by the members. Any thread may call the operations.
class RecordingNfsMain : public CNfsMain {
public:
    RecordingNfsMain(const char* pcLogID, int iLogControl, LogCapture* pCapture) : m_pCapture(pCapture) {
        CNfsMain::InitMemberVaribles(pcLogID, iLogControl);
    }

    std::vector<std::string> Calls() {
        const std::lock_guard lock(m_Mutex);
        return m_vsCalls;
    }
    void ClearCalls() {
        const std::lock_guard lock(m_Mutex);
        m_vsCalls.clear();
    }

    bool m_bAnswer = true;                   ///< of the operations that answer a bool
    int m_iAnswer = 5;                       ///< of those that answer an int
    std::string m_sReason = "just because";  ///< of those that fail with a reason
    std::string m_sVersion = "1.4";
    std::string m_sDescription = "a recorder";

    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                     char* pcStatus) override {
        return Answer(pcStatus, "StartServer", iMountPort, iNfsPort, iUId, iGId, bReadOnly);
    }
    void StopServer() override { Record("StopServer"); }
    void GetVersion(char* pcVersion) override { Text(pcVersion, m_sVersion); }
    void GetDescription(char* pcDescription) override { Text(pcDescription, m_sDescription); }
    bool IsServerRunning() override { return Answer(nullptr, "IsServerRunning"); }
    bool AddMountPoint(const char* pcPath, const char* pcName, const char* pcIpcID, char* pcStatus) override {
        return Answer(pcStatus, "AddMountPoint", pcPath, pcName, pcIpcID);
    }
    bool AddMountPoint(const char* pcPath, const char* pcName, char* pcStatus) override {
        return Answer(pcStatus, "AddMountPoint", pcPath, pcName);
    }
    void RemoveMountPoint(const char* pcPath) override { Record("RemoveMountPoint", pcPath); }
    void AddSessionInfo(const char* pcID, const char* pcPath) override { Record("AddSessionInfo", pcID, pcPath); }
    void RemoveSessionInfo(const char* pcID) override { Record("RemoveSessionInfo", pcID); }
    bool IsSessionExists(const char* pcID) override { return Answer(nullptr, "IsSessionExists", pcID); }
    void OpenRedirectedFile(const char* pcPath, long long iSize, bool bInfo, int iSegmentMB,
                            int iCheckPointMB) override {
        Record("OpenRedirectedFile", pcPath, iSize, bInfo, iSegmentMB, iCheckPointMB);
    }
    void CloseRedirectedFile(const char* pcPath) override { Record("CloseRedirectedFile", pcPath); }
    void CloseAllRedirectedFiles(const char* pcPath) override { Record("CloseAllRedirectedFiles", pcPath); }
    bool AddRedirectedFileSegment(const char* pcPath, const char* pcSource, long long iSourceOffset, long long iOffset,
                                  long long iLength, char* pcStatus) override {
        return Answer(pcStatus, "AddRedirectedFileSegment", pcPath, pcSource, iSourceOffset, iOffset, iLength);
    }
    void ExportRedirectedFile(const char* pcPath, const char* pcExportPath) override {
        Record("ExportRedirectedFile", pcPath, pcExportPath);
    }
    void ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMerge) override {
        Record("ExportRedirectedFileInfo", pcPath, pcExportPath, bMerge);
    }
    void CloseCachedFileHandle(const char* pcPath) override { Record("CloseCachedFileHandle", pcPath); }
    void CloseAllCachedFileHandles(const char* pcPath) override { Record("CloseAllCachedFileHandles", pcPath); }
    void SetLogControl(int iLogControl) override { Record("SetLogControl", iLogControl); }
    int GetMountInfo(CRuntimeParam* pParam, bool bMountedOnly, bool bDetails) override {
        return Count("GetMountInfo", Show(pParam), bMountedOnly, bDetails);
    }
    int GetSessionInfo(CRuntimeParam* pParam, bool bDetails) override {
        return Count("GetSessionInfo", Show(pParam), bDetails);
    }
    void RunTestMode(CRuntimeParam* pParam, const char* pcPath, long long iSize) override {
        Record("RunTestMode", Show(pParam), pcPath, iSize);
    }
    bool RequestAutoShutdown() override {
        Record("RequestAutoShutdown");
        return CNfsMain::RequestAutoShutdown();
    }
    int GetServerStatus() override { return Count("GetServerStatus"); }
    bool SetDebugActionEnabled(bool bEnabled) override { return Answer(nullptr, "SetDebugActionEnabled", bEnabled); }
    int GetVSphereInfo(CRuntimeParam* pParam, bool bDetails) override {
        return Count("GetVSphereInfo", Show(pParam), bDetails);
    }
    void AddVSphereInfo(const char* pcMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                        const char* pcPwd) override {
        Record("AddVSphereInfo", pcMoid, pcHost, pcPort, pcUser, pcPwd);
    }
    void RemoveVSphereInfo(const char* pcMoid) override { Record("RemoveVSphereInfo", pcMoid); }
    bool RunQuickTestMode(CRuntimeParam* pParam, const char* pcPath, int iMode, char* pcStatus) override {
        return Answer(pcStatus, "RunQuickTestMode", Show(pParam), pcPath, iMode);
    }
    int ExecuteSystemCmd(CRuntimeParam* pParam, const char* pcCmd, bool bLog) override {
        return Count("ExecuteSystemCmd", Show(pParam), pcCmd, bLog);
    }
    int GetNetDeviceCredential(CRuntimeParam* pParam, bool bDetails) override {
        return Count("GetNetDeviceCredential", Show(pParam), bDetails);
    }
    bool AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) override {
        return Answer(nullptr, "AddNetDeviceCredential", pcPath, pcUser, pcPwd);
    }
    bool RemoveNetDeviceCredential(const char* pcPath) override {
        return Answer(nullptr, "RemoveNetDeviceCredential", pcPath);
    }

protected:
    std::unique_ptr<CUtilities> CreateUtilities() override { return std::make_unique<CaptureUtilities>(m_pCapture); }

private:
    static std::string Show(const CRuntimeParam* pParam) {
        return std::string(pParam->GetID()) + "/" + pParam->GetIpcID() + "/" + std::to_string(pParam->GetLogControl());
    }
    template <typename... Arguments>
    void Record(const char* pcName, const Arguments&... arguments) {
        std::ostringstream text;
        ((text << ", " << arguments), ...);
        const std::string sArguments = text.str();
        const std::lock_guard lock(m_Mutex);
        m_vsCalls.push_back(pcName + ("(" + (sArguments.empty() ? "" : sArguments.substr(2)) + ")"));
    }
    template <typename... Arguments>
    bool Answer(char* pcStatus, const char* pcName, const Arguments&... arguments) {
        Record(pcName, arguments...);
        if (!m_bAnswer && pcStatus != nullptr) {
            m_sReason.copy(pcStatus, m_sReason.size());
            pcStatus[m_sReason.size()] = '\0';
        }
        return m_bAnswer;
    }
    template <typename... Arguments>
    int Count(const char* pcName, const Arguments&... arguments) {
        Record(pcName, arguments...);
        return m_iAnswer;
    }
    static void Text(char* pcOut, const std::string& sText) {
        sText.copy(pcOut, sText.size());
        pcOut[sText.size()] = '\0';
    }

    LogCapture* m_pCapture;
    std::mutex m_Mutex;
    std::vector<std::string> m_vsCalls;
};
