// The server controller: start and stop of the RPC services.
//
// Everything here runs under the lifecycle mutex. Sockets go first when services end: closing a listener joins its
// threads, so that no call is in flight when a program is deleted.
#include "NfsMain.h"

#include <utility>

#include "AccessFile.h"
#include "DatagramSocket.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "Portmap.h"
#include "PortmapProg.h"
#include "Reason.h"
#include "RpcNumbers.h"
#include "RpcServer.h"
#include "RuntimeParam.h"
#include "ServerSocket.h"
#include "StatisticsFile.h"
#include "Utilities.h"

// ---- Start

bool CNfsMain::StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                           char* pcStatus) {
    const MutexLock lock(m_hMutexLifecycle);
    if (m_bServerRunning) {
        WriteReason(pcStatus, "NFS already running");
        return false;
    }
    ++m_nMoments;
    CloseServices();  // what a start that ran out of memory may have left
    m_sStartFailure.clear();
    if (!ApplyOptions(pcStatus)) {
        StopLocked();
        return false;
    }
    CreatePrograms();
    iMountPort = GetPort(iMountPort, kDefaultMountPort);
    iNfsPort = GetPort(iNfsPort, kDefaultNfsPort);
    AnnouncePorts(iMountPort, iNfsPort);
    m_pNfsProg->SetUserID(iUId, iGId);
    m_pNfsProg->SetReadOnly(bReadOnly || m_Options.bReadOnly);
    CreateSockets();

    m_bServerRunning = OpenServices(iMountPort, iNfsPort, pcStatus) && RegisterServices();
    const bool bSuccess = m_bServerRunning && StartStatisticsFile(pcStatus);
    if (!bSuccess) {
        StopLocked();
    }
    return bSuccess;
}

bool CNfsMain::ApplyOptions(char* pcStatus) {
    char vcReason[kReasonBufferSize] = "";
    if (m_Options.CheckFlags(vcReason) && m_Options.GetBindAddress(&m_iBindAddress, vcReason) &&
        LoadAccessFile(vcReason) && MakeStatisticsFile(vcReason)) {
        return true;
    }
    const LogArgu logArgu{"NfsMain.StartServer"};
    NFS_LOG_ERROR(GetLog(&logArgu), "[%s] %s", vcReason);
    LogLifecycle("Fail to start NFS. Reason=%s", vcReason);
    WriteReason(pcStatus, "%s", vcReason);
    return false;
}

bool CNfsMain::LoadAccessFile(char* pcStatus) {
    if (m_Options.sAccessFile.empty()) {
        return true;
    }
    auto pAccessFile = std::make_unique<CAccessFile>(m_Options.sAccessFile);
    if (!pAccessFile->Load(pcStatus)) {
        return false;
    }
    m_pUtilities->SetAccessFile(std::move(pAccessFile));
    return true;
}

void CNfsMain::CreatePrograms() {
    m_pMountProg = std::make_unique<CMountProg>(m_pUtilities.get());
    if (!m_Options.bNoPortmapper) {
        m_pPortmap = std::make_unique<CPortmap>(m_pUtilities.get(), m_pRuntimeParam.get(), m_iBindAddress);
        if (!m_pPortmap->IsRunning()) {
            m_pPortmapProg = std::make_unique<CPortmapProg>(m_pUtilities.get());
        }
    }
    m_pNfsProg = std::make_unique<CNfsProg>(m_pUtilities.get());
    auto pRpcServer = std::make_unique<CRpcServer>(m_pUtilities.get(), m_pRuntimeParam.get());
    if (m_pPortmapProg) {
        pRpcServer->Set(kPortmapProgramId, m_pPortmapProg.get());
    }
    pRpcServer->Set(kNfsProgramId, m_pNfsProg.get());
    pRpcServer->Set(kMountProgramId, m_pMountProg.get());
    ExchangeRpcServer(std::move(pRpcServer));
    SetLogControl(m_pRuntimeParam->GetLogControl());
}

bool CNfsMain::IsPortmapperRunning() const {
    return m_pPortmap && m_pPortmap->IsRunning();
}

int CNfsMain::GetPort(int iPort, int iDefaultPort) const {
    if (iPort >= 1) {
        return iPort;
    }
    // Beside a system portmapper there may be a system NFS server on the well-known ports.
    return IsPortmapperRunning() ? iDefaultPort + 1 : iDefaultPort;
}

void CNfsMain::AnnouncePorts(int iMountPort, int iNfsPort) {
    if (!m_pPortmap) {
        LogLifecycle("Start NFS without portmapper: MountPort = %d, NfsPort = %d", iMountPort, iNfsPort);
        return;
    }
    if (!m_pPortmapProg) {
        LogLifecycle("Start NFS with external portmapper: MountPort = %d, NfsPort = %d", iMountPort, iNfsPort);
        return;
    }
    LogLifecycle("Start NFS with internal portmapper: MountPort = %d, NfsPort = %d", iMountPort, iNfsPort);
    m_pPortmapProg->Set(kMountProgramId, static_cast<unsigned long>(iMountPort));
    m_pPortmapProg->Set(kNfsProgramId, static_cast<unsigned long>(iNfsPort));
}

void CNfsMain::CreateSockets() {
    const MutexLock lock(m_hMutexRpcServer);
    for (SocketHandle& handle : m_Sockets) {
        handle.pServerSocket = std::make_unique<CServerSocket>();
        handle.pServerSocket->SetListener(m_pRpcServer.get());
        handle.pServerSocket->SetBindAddress(m_iBindAddress);
        handle.pDatagramSocket = std::make_unique<CDatagramSocket>();
        handle.pDatagramSocket->SetListener(m_pRpcServer.get());
        handle.pDatagramSocket->SetBindAddress(m_iBindAddress);
    }
}

bool CNfsMain::OpenServices(int iMountPort, int iNfsPort, char* pcStatus) {
    return OpenPortmapService(pcStatus) && OpenNfsService(iNfsPort, pcStatus) && OpenMountService(iMountPort, pcStatus);
}

bool CNfsMain::OpenPort(SocketHandle& handle, unsigned long lProgId, int iPort, int iMaxConnections, char* pcReason) {
    return handle.pServerSocket->Open(lProgId, iPort, iMaxConnections, m_pUtilities.get(), pcReason) &&
           handle.pDatagramSocket->Open(lProgId, iPort, m_pUtilities.get(), pcReason);
}

bool CNfsMain::OpenPortmapService(char* pcStatus) {
    char vcReason[kReasonBufferSize] = "";
    if (!m_pPortmapProg ||
        OpenPort(m_Sockets[kPortmapSockets], kPortmapProgramId, kPortmapperPort, kMaxPortmapConnections, vcReason)) {
        return true;
    }
    if (m_pRuntimeParam->IsLogError()) {
        m_pUtilities->LogError(m_pRuntimeParam.get(), "Fail to start PortMap daemon. Reason=%s", vcReason);
    }
    LogLifecycle("Fail to start PortMap daemon on port %d. Reason=%s", kPortmapperPort, vcReason);
    WriteReason(pcStatus, "PortMap daemon failed to open port %d", kPortmapperPort);
    return false;
}

bool CNfsMain::OpenNfsService(int iNfsPort, char* pcStatus) {
    char vcReason[kReasonBufferSize] = "";
    if (OpenPort(m_Sockets[kNfsSockets], kNfsProgramId, iNfsPort, kMaxNfsConnections, vcReason)) {
        return true;
    }
    const LogArgu logArgu{"NfsMain.StartServer"};
    NFS_LOG_ERROR(GetLog(&logArgu), "[%s] Fail to start NFS daemon. Reason=%s", vcReason);
    LogLifecycle("Fail to start NFS daemon on port %d. Reason=%s", iNfsPort, vcReason);
    WriteReason(pcStatus, "NFS daemon failed to open port %d", iNfsPort);
    return false;
}

bool CNfsMain::OpenMountService(int iMountPort, char* pcStatus) {
    char vcReason[kReasonBufferSize] = "";
    if (OpenPort(m_Sockets[kMountSockets], kMountProgramId, iMountPort, kMaxMountConnections, vcReason)) {
        return true;
    }
    const LogArgu logArgu{"NfsMain.StartServer"};
    NFS_LOG_ERROR(GetLog(&logArgu), "[%s] Fail to start Mount daemon. Reason=%s", vcReason);
    LogLifecycle("Fail to start Mount daemon on port %d. Reason=%s", iMountPort, vcReason);
    WriteReason(pcStatus, "Mount daemon failed to open port %d", iMountPort);
    return false;
}

bool CNfsMain::RegisterServices() {
    if (!IsPortmapperRunning()) {
        return true;
    }
    // Both are tried, so that the log tells of both.
    char vcReason[kReasonBufferSize] = "";
    const bool bNfs =
        m_pPortmap->Register(kNfsProgramId, kNfsVersion3, m_Sockets[kNfsSockets].pServerSocket.get(), vcReason);
    if (!bNfs) {
        LogLifecycle("Fail to register NFS daemon to external portmapper. Reason=%s", vcReason);
    }
    const bool bMount =
        m_pPortmap->Register(kMountProgramId, kNfsVersion3, m_Sockets[kMountSockets].pServerSocket.get(), vcReason);
    if (!bMount) {
        LogLifecycle("Fail to register Mount daemon to external portmapper. Reason=%s", vcReason);
    }
    if (!bNfs || !bMount) {
        ReportUnregistered(vcReason);
    }
    return bNfs && bMount;
}

/// The reason of such a start stays empty, as its callers know it. What stands behind it is told here, to the log and
/// for GetStartFailure: most often an ordinary user, for whom port 111 looks as if somebody held it.
void CNfsMain::ReportUnregistered(const char* pcReason) {
    m_sStartFailure =
        FormatText("Port %d cannot be opened (%s), so a system portmapper was asked to register the server. %s",
                   static_cast<int>(kPortmapperPort), CSystemErrorText(m_pPortmap->GetProbeError()).Get(), pcReason);
    const LogArgu logArgu{"NfsMain.StartServer"};
    NFS_LOG_ERROR(GetLog(&logArgu), "[%s] %s", m_sStartFailure.c_str());
}

std::string CNfsMain::GetStartFailure() {
    const MutexLock lock(m_hMutexLifecycle);
    return m_sStartFailure;
}

// ---- Stop

void CNfsMain::StopServer() {
    const CRunningCommands::Stop stop(m_pUtilities->GetRunningCommands());
    const MutexLock lock(m_hMutexLifecycle);
    StopLocked();
}

void CNfsMain::StopServerOf(std::uint64_t iMoment) {
    if (iMoment != m_nMoments) {
        return;  // and ends no shell command of a later run
    }
    const CRunningCommands::Stop stop(m_pUtilities->GetRunningCommands());
    const MutexLock lock(m_hMutexLifecycle);
    if (iMoment == m_nMoments) {
        StopLocked();
    }
}

void CNfsMain::StopLocked() {
    const LogArgu logArgu{"NfsMain.StopServer"};
    if (m_bServerRunning) {
        LogLifecycle("Stop NFS");
    }
    // While they are still served: a vSphere host unmounts what answers.
    m_pUtilities->RemoveAllVSphereInfoWithWebCtrl(m_pRuntimeParam.get());
    m_bServerRunning = false;
    CloseServices();
    m_pUtilities->Reset(m_pRuntimeParam.get(), &logArgu);
    ++m_nMoments;
}

void CNfsMain::CloseServices() {
    for (SocketHandle& handle : m_Sockets) {
        handle.pServerSocket.reset();
        handle.pDatagramSocket.reset();
    }
    m_pMountProg.reset();
    m_pPortmapProg.reset();
    if (IsPortmapperRunning()) {
        char vcReason[kReasonBufferSize] = "";
        m_pPortmap->Unregister(kNfsProgramId, kNfsVersion3, vcReason);
        m_pPortmap->Unregister(kMountProgramId, kNfsVersion3, vcReason);
        if (vcReason[0] != '\0') {
            LogLifecycle("Fail to unregister from external portmapper. Reason=%s", vcReason);
        }
    }
    m_pPortmap.reset();
    m_pNfsProg.reset();
    ExchangeRpcServer(nullptr);
    if (m_pUtilities) {
        m_pUtilities->SetAccessFile(nullptr);
        m_pUtilities->NoteListings(0, 0);
    }
    m_pStatisticsFile.reset();  // with the figures of all calls
}

std::unique_ptr<CRpcServer> CNfsMain::ExchangeRpcServer(std::unique_ptr<CRpcServer> pRpcServer) {
    const MutexLock lock(m_hMutexRpcServer);
    if (pRpcServer) {
        m_pStatistics = pRpcServer->GetStatistics();
    }
    return std::exchange(m_pRpcServer, std::move(pRpcServer));
}
