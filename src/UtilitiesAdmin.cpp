// CUtilities: shell commands given by the administrator, and the credentials of network devices.
#include "Utilities.h"

#include <algorithm>

#include "DeferredLog.h"
#include "ShellCommand.h"
#include "Texts.h"

namespace {

/// The commands that add and remove a network device's credentials are the installation's to provide.
constexpr const char* kAddNetDeviceCredentialCmd = "Add_Net_Device_Credential_Command_Not_Defined";
constexpr const char* kRemoveNetDeviceCredentialCmd = "Remove_Net_Device_Credential_Command_Not_Defined";

}  // namespace

int CUtilities::ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogResult) {
    const char* pcCommandLine = OrEmpty(pcCmd);
    const bool bLog = bLogResult || pRuntimeParam->IsLogGeneralInfo();
    if (bLog) {
        LogInfo(pRuntimeParam, "%s", pcCommandLine);
    }
    CShellCommand command;
    const CRunningCommands::Entry entry(m_RunningCommands, command);
    if (!command.Start(pcCommandLine)) {
        if (bLog) {
            LogInfo(pRuntimeParam, "%s", "Fail to execute cmd (popen() failed)");
        }
        return -1;
    }
    if (bLog) {
        LogRaw(pRuntimeParam, "%s", "\n------\n");
    }
    char vcPiece[CShellCommand::kPieceSize];
    while (command.ReadPiece(vcPiece)) {
        if (bLog) {
            LogRaw(pRuntimeParam, "%s", vcPiece);
        }
    }
    const bool bComplete = command.IsComplete();
    const int iStatus = command.Wait();
    const int iResult = bComplete ? iStatus : -1;
    if (bLog) {
        LogRaw(pRuntimeParam, "%s", "\n------\n");
        if (bComplete) {
            LogRaw(pRuntimeParam, "Process returned %d\n", iResult);
        } else {
            LogRaw(pRuntimeParam, "%s", "Error: Failed to read the pipe to the end\n");
        }
    }
    return iResult;
}

int CUtilities::GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    // Printed from a copy: the lines may go to a client that takes its time, or to a host that asks back.
    decltype(m_NetDeviceCredential) vsPaths;
    {
        const MutexLock lock(m_hMutexNetDeviceCredential);
        vsPaths = m_NetDeviceCredential;
    }
    int nPaths = 0;
    for (const std::string& sPath : vsPaths) {
        ++nPaths;
        if (bPrintDetails) {
            LogInfo(pRuntimeParam, " Net device path %d - %s", nPaths, sPath.c_str());
        }
    }
    return nPaths;
}

bool CUtilities::AddNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcUser,
                                        const char* pcPwd) {
    const std::string sPath = OrEmpty(pcPath);
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexNetDeviceCredential);
    if (!ExecuteAddNetDeviceCredentialCmd(pRuntimeParam, sPath.c_str(), pcUser, pcPwd)) {
        return false;
    }
    if (std::find(m_NetDeviceCredential.begin(), m_NetDeviceCredential.end(), sPath) == m_NetDeviceCredential.end()) {
        m_NetDeviceCredential.push_back(sPath);
    }
    return true;
}

bool CUtilities::RemoveNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    const std::string sPath = OrEmpty(pcPath);
    const CDeferredLog deferred;
    const MutexLock lock(m_hMutexNetDeviceCredential);
    if (!ExecuteRemoveNetDeviceCredentialCmd(pRuntimeParam, sPath.c_str())) {
        return false;
    }
    std::erase(m_NetDeviceCredential, sPath);
    return true;
}

void CUtilities::RemoveAllNetDeviceCredential(CRuntimeParam* /*pRuntimeParam*/) {
    const MutexLock lock(m_hMutexNetDeviceCredential);
    m_NetDeviceCredential.clear();
}

// The placeholder commands take no arguments: an installation's own command knows its devices.
bool CUtilities::ExecuteAddNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* /*pcPath*/,
                                                  const char* /*pcUser*/, const char* /*pcPwd*/) {
    return ExecuteSystemCmd(pRuntimeParam, kAddNetDeviceCredentialCmd, false) == 0;
}

bool CUtilities::ExecuteRemoveNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* /*pcPath*/) {
    return ExecuteSystemCmd(pRuntimeParam, kRemoveNetDeviceCredentialCmd, false) == 0;
}
