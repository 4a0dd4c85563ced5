// A controller that does nothing but write down what it is told to do.
#pragma once

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "NfsMain.h"
#include "RuntimeParam.h"

/// What a RecordingNfsMain was told, and what it is to answer; outlives it. Any thread may tell and look; the answers
/// are set while nobody asks.
class ControllerRecord {
public:
    /// Each call as "Name(argument, argument)": texts in quotes or null, flags as true or false, a runtime parameter
    /// as "own" (the controller's) or "ID/IPC ID/log control". The last is "deleted".
    std::vector<std::string> Calls() const {
        const std::lock_guard lock(m_Mutex);
        return m_vsCalls;
    }
    /// The callback that was installed during each call.
    std::vector<std::shared_ptr<CCallback>> Callbacks() const {
        const std::lock_guard lock(m_Mutex);
        return m_vpCallbacks;
    }
    void Add(std::string sCall, std::shared_ptr<CCallback> pCallback) {
        const std::lock_guard lock(m_Mutex);
        m_vsCalls.push_back(std::move(sCall));
        m_vpCallbacks.push_back(std::move(pCallback));
    }
    void Clear() {
        const std::lock_guard lock(m_Mutex);
        m_vsCalls.clear();
        m_vpCallbacks.clear();
    }

    bool m_bAnswer = true;                   ///< of the operations that answer a bool
    int m_iAnswer = 5;                       ///< of those that answer an int
    std::string m_sReason = "just because";  ///< of those that fail with a reason
    std::string m_sVersion = "1.4";
    std::string m_sDescription = "a recorder";
    bool m_bThrow = false;  ///< every operation fails as none should, with "out of everything"

private:
    mutable std::mutex m_Mutex;
    std::vector<std::string> m_vsCalls;
    std::vector<std::shared_ptr<CCallback>> m_vpCallbacks;
};

/// Its log goes to the capture, where there is one. Automatic shutdown works as in any controller, and is recorded.
class RecordingNfsMain : public CNfsMain {
public:
    RecordingNfsMain(const char* pcLogID, int iLogControl, ControllerRecord* pRecord, LogCapture* pCapture = nullptr)
        : m_pRecord(pRecord), m_pCapture(pCapture) {
        CNfsMain::InitMemberVaribles(pcLogID, iLogControl);
    }
    ~RecordingNfsMain() override { m_pRecord->Add("deleted", nullptr); }

    bool Initial(char* pcStatus) override { return Answer(pcStatus, "Initial"); }
    void Terminate() override { Record("Terminate"); }
    bool StartRemoteController(char* pcStatus) override { return Answer(pcStatus, "StartRemoteController"); }
    void StopRemoteController() override { Record("StopRemoteController"); }
    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                     char* pcStatus) override {
        return Answer(pcStatus, "StartServer", iMountPort, iNfsPort, iUId, iGId, bReadOnly);
    }
    void StopServer() override { Record("StopServer"); }
    int GetAccessMode() override { return Count("GetAccessMode"); }
    void GetVersion(char* pcVersion) override { Text(pcVersion, m_pRecord->m_sVersion, "GetVersion"); }
    void GetDescription(char* pcDescription) override {
        Text(pcDescription, m_pRecord->m_sDescription, "GetDescription");
    }
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
        return Count("GetMountInfo", pParam, bMountedOnly, bDetails);
    }
    int GetSessionInfo(CRuntimeParam* pParam, bool bDetails) override {
        return Count("GetSessionInfo", pParam, bDetails);
    }
    void RunTestMode(CRuntimeParam* pParam, const char* pcPath, long long iSize) override {
        Record("RunTestMode", pParam, pcPath, iSize);
    }
    void EnableAutoShutdown(bool bEnable) override {
        Record("EnableAutoShutdown", bEnable);
        CNfsMain::EnableAutoShutdown(bEnable);
    }
    bool RequestAutoShutdown() override {
        Record("RequestAutoShutdown");
        return CNfsMain::RequestAutoShutdown();
    }
    int GetServerStatus() override { return Count("GetServerStatus"); }
    bool SetDebugActionEnabled(bool bEnabled) override { return Answer(nullptr, "SetDebugActionEnabled", bEnabled); }
    int GetVSphereInfo(CRuntimeParam* pParam, bool bDetails) override {
        return Count("GetVSphereInfo", pParam, bDetails);
    }
    void AddVSphereInfo(const char* pcMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                        const char* pcPwd) override {
        Record("AddVSphereInfo", pcMoid, pcHost, pcPort, pcUser, pcPwd);
    }
    void RemoveVSphereInfo(const char* pcMoid) override { Record("RemoveVSphereInfo", pcMoid); }
    bool RunQuickTestMode(CRuntimeParam* pParam, const char* pcPath, int iMode, char* pcStatus) override {
        return Answer(pcStatus, "RunQuickTestMode", pParam, pcPath, iMode);
    }
    int ExecuteSystemCmd(CRuntimeParam* pParam, const char* pcCmd, bool bLog) override {
        return Count("ExecuteSystemCmd", pParam, pcCmd, bLog);
    }
    int GetNetDeviceCredential(CRuntimeParam* pParam, bool bDetails) override {
        return Count("GetNetDeviceCredential", pParam, bDetails);
    }
    bool AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) override {
        return Answer(nullptr, "AddNetDeviceCredential", pcPath, pcUser, pcPwd);
    }
    bool RemoveNetDeviceCredential(const char* pcPath) override {
        return Answer(nullptr, "RemoveNetDeviceCredential", pcPath);
    }

protected:
    std::unique_ptr<CUtilities> CreateUtilities() override {
        return m_pCapture != nullptr ? std::make_unique<CaptureUtilities>(m_pCapture) : CNfsMain::CreateUtilities();
    }

private:
    std::string Show(const CRuntimeParam* pParam) {
        return pParam == GetRuntimeParam() ? "own"
                                           : std::string(pParam->GetID()) + "/" + pParam->GetIpcID() + "/" +
                                                 std::to_string(pParam->GetLogControl());
    }
    static std::string Show(const char* pcText) {
        return pcText != nullptr ? "\"" + std::string(pcText) + "\"" : "null";
    }
    static std::string Show(bool bValue) { return bValue ? "true" : "false"; }
    static std::string Show(long long iValue) { return std::to_string(iValue); }
    static std::string Show(int iValue) { return std::to_string(iValue); }
    static std::string Show(unsigned int iValue) { return std::to_string(iValue); }

    template <typename... Arguments>
    void Record(const char* pcName, Arguments... arguments) {
        std::string sCall = std::string(pcName) + "(";
        ((sCall += (sCall.back() == '(' ? "" : ", ") + Show(arguments)), ...);
        m_pRecord->Add(sCall + ")", GetCallback());
        if (m_pRecord->m_bThrow) {
            throw std::runtime_error("out of everything");
        }
    }
    template <typename... Arguments>
    bool Answer(char* pcStatus, const char* pcName, Arguments... arguments) {
        Record(pcName, arguments...);
        if (!m_pRecord->m_bAnswer && pcStatus != nullptr) {
            Copy(pcStatus, m_pRecord->m_sReason);
        }
        return m_pRecord->m_bAnswer;
    }
    template <typename... Arguments>
    int Count(const char* pcName, Arguments... arguments) {
        Record(pcName, arguments...);
        return m_pRecord->m_iAnswer;
    }
    void Text(char* pcOut, const std::string& sText, const char* pcName) {
        Record(pcName);
        Copy(pcOut, sText);
    }
    static void Copy(char* pcOut, const std::string& sText) {
        sText.copy(pcOut, sText.size());
        pcOut[sText.size()] = '\0';
    }

    ControllerRecord* m_pRecord;
    LogCapture* m_pCapture;
};
