// CNfsIpcServerMain: the external server, steered by other processes.
#pragma once

#include <cstdint>
#include <memory>

#include "NfsMain.h"

class CIpcServerThread;
class CUtilitiesIpcServer;

/// Runs the NFS server in its own process (access mode 1) and carries out the requests that arrive on its channel,
/// /tmp/nfs-server, on a thread of its own. What happens on behalf of a remote party is reported to that party's
/// channel (CUtilitiesIpcServer).
class CNfsIpcServerMain : public CNfsMain {
public:
    CNfsIpcServerMain(const char* pcLogID, int iLogControl);
    /// Stops the remote controller before anything that a request could use goes.
    ~CNfsIpcServerMain() override;

    /// Refuses IDs that cannot be part of a channel's name ("server", any with "/" or a blank).
    bool Initial(char* pcStatus) override;
    /// Opens the channel and serves it; true if it is served already. Fails while another process answers on it
    /// ("Ipc channel is already created by others.").
    bool StartRemoteController(char* pcStatus) override;
    /// Ends the service. A call that waits for a remote process's answer gets about a second more.
    void StopServer() override;
    void StopServerOf(std::uint64_t iMoment) override;
    /// Closes the channel once the message in hand is served. Likewise.
    void StopRemoteController() override;
    int GetAccessMode() override;
    void GetDescription(char* pcDescription) override;

protected:
    /// For the client, whose constructor calls its own InitMemberVaribles.
    CNfsIpcServerMain();

    void InitMemberVaribles(const char* pcLogID, int iLogControl) override;
    std::unique_ptr<CUtilities> CreateUtilities() override;

    /// Ends the thread, if there is one. Destructors of derived classes call it first: a request being served uses
    /// the whole object.
    void CloseIpcServerThread();

private:
    CUtilitiesIpcServer* m_pReports = nullptr;  ///< the registries; null in a client, whose are others

    /// True if someone answers on the channel, or holds it without answering.
    bool IsChannelServed(const char* pcChannel);

    /// Starting and stopping the remote controller exclude each other; held for the whole of either.
    Mutex m_hMutexRemoteController;
    std::unique_ptr<CIpcServerThread> m_pIpcServerThread GUARDED_BY(m_hMutexRemoteController);

public:
    /// The channel this process listens on, into a buffer of kIpcChannelBufferSize (IpcChannel.h).
    virtual void GetIpcServerThreadChannel(char* pcChannel);
};
