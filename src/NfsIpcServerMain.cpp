// The external server: the channel on which others steer it.
#include "NfsIpcServerMain.h"

#include <cerrno>
#include <cstring>

#include "IpcChannel.h"
#include "IpcClient.h"
#include "IpcServerThread.h"
#include "IpcStartLock.h"
#include "Reason.h"
#include "ServerIdentity.h"
#include "Texts.h"
#include "UtilitiesIpcServer.h"

namespace {

/// Who does not answer the probe by then hangs, but holds the channel all the same.
constexpr std::chrono::seconds kProbeTimeout{30};

/// A stop under way: nobody waits any longer for a remote process that hangs.
class CHurry {
public:
    explicit CHurry(CUtilitiesIpcServer* pReports) : m_pReports(pReports) {
        if (m_pReports != nullptr) {
            m_pReports->BeginHurry();
        }
    }
    ~CHurry() {
        if (m_pReports != nullptr) {
            m_pReports->EndHurry();
        }
    }
    CHurry(const CHurry&) = delete;
    CHurry& operator=(const CHurry&) = delete;

private:
    CUtilitiesIpcServer* const m_pReports;
};

}  // namespace

CNfsIpcServerMain::CNfsIpcServerMain() = default;

CNfsIpcServerMain::CNfsIpcServerMain(const char* pcLogID, int iLogControl) {
    CNfsIpcServerMain::InitMemberVaribles(pcLogID, iLogControl);
}

CNfsIpcServerMain::~CNfsIpcServerMain() {
    CloseIpcServerThread();
    if (m_pReports != nullptr) {
        m_pReports->BeginHurry();  // the base's end waits for the calls in progress
    }
}

void CNfsIpcServerMain::InitMemberVaribles(const char* pcLogID, int iLogControl) {
    CNfsMain::InitMemberVaribles(pcLogID, iLogControl);
    const MutexLock lock(m_hMutexRemoteController);
    m_pIpcServerThread.reset();
}

std::unique_ptr<CUtilities> CNfsIpcServerMain::CreateUtilities() {
    auto pReports = std::make_unique<CUtilitiesIpcServer>();
    m_pReports = pReports.get();
    return pReports;
}

bool CNfsIpcServerMain::Initial(char* pcStatus) {
    const char* pcID = m_pRuntimeParam->GetID();
    if (std::strcmp(pcID, kIpcServerID) == 0) {
        WriteReason(pcStatus, "Cannot use \"%s\" as ID", pcID);
        return false;
    }
    if (const char* pcBad = std::strpbrk(pcID, "/ "); pcBad != nullptr) {
        WriteReason(pcStatus, "Invalid char \"%c\" inside ID", *pcBad);
        return false;
    }
    return CNfsMain::Initial(pcStatus);
}

bool CNfsIpcServerMain::StartRemoteController(char* pcStatus) {
    LogLifecycle("Start Remote Controller");
    const MutexLock lock(m_hMutexRemoteController);
    if (m_pIpcServerThread) {
        return true;
    }
    char vcChannel[kIpcChannelBufferSize];
    GetIpcServerThreadChannel(vcChannel);
    // Opening puts our socket file in the place of whatever is there, so a channel that somebody serves is left alone,
    // and nobody else opens one between our look and our opening.
    const CIpcStartLock startLock(vcChannel);
    if (IsChannelServed(vcChannel)) {
        WriteReason(pcStatus, "Ipc channel is already created by others.");
        return false;
    }
    auto pThread = std::make_unique<CIpcServerThread>();
    char vcReason[kReasonBufferSize] = "";
    if (!pThread->Open(vcChannel, this, vcReason)) {
        CopyText(pcStatus, kReasonBufferSize, vcReason);
        const LogArgu logArgu{"NfsIpcServerMain.StartRemoteController"};
        NFS_LOG_ERROR(GetLog(&logArgu), "[%s] Fail to start ipc server thread. Reason=%s", vcReason);
        return false;
    }
    m_pIpcServerThread = std::move(pThread);
    return true;
}

bool CNfsIpcServerMain::IsChannelServed(const char* pcChannel) {
    CIpcClient client(m_pUtilities.get(), m_pRuntimeParam.get());
    client.SetRequest(kIpcGetVersion);
    client.SetTimeout(kProbeTimeout);
    char vcReason[kReasonBufferSize];  // that nobody listens is the ordinary case
    if (client.SendRequest(pcChannel, vcReason)) {
        return client.GetMsgReply() != nullptr;
    }
    return client.GetErrorNumber() == ETIMEDOUT;
}

void CNfsIpcServerMain::StopServer() {
    const CHurry hurry(m_pReports);
    CNfsMain::StopServer();
}

void CNfsIpcServerMain::StopServerOf(std::uint64_t iMoment) {
    const CHurry hurry(m_pReports);
    CNfsMain::StopServerOf(iMoment);
}

void CNfsIpcServerMain::StopRemoteController() {
    LogLifecycle("Stop Remote Controller");
    CloseIpcServerThread();
}

void CNfsIpcServerMain::CloseIpcServerThread() {
    const CHurry hurry(m_pReports);
    const MutexLock lock(m_hMutexRemoteController);
    m_pIpcServerThread.reset();
}

int CNfsIpcServerMain::GetAccessMode() {
    return kAccessModeServer;
}

void CNfsIpcServerMain::GetDescription(char* pcDescription) {
    CopyText(pcDescription, kIdentityBufferSize, "External NFS Server");
}

void CNfsIpcServerMain::GetIpcServerThreadChannel(char* pcChannel) {
    GetIpcChannel(kIpcServerID, pcChannel);
}
