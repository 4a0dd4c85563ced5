// A host in this process that steers an external server.
#pragma once

#include <string>

#include "FakeHost.h"
#include "NfsIpcClientMain.h"
#include "RuntimeParam.h"
#include "WaitUntil.h"

/// The remote control's client, with a host behind it that answers as the test says, from Start to its end.
class HostSide {
public:
    explicit HostSide(const char* pcID) : m_sID(pcID), m_Client(pcID, 0) { m_Client.SetCallback(m_Host.Callback()); }
    ~HostSide() {
        m_Client.StopRemoteController();
        m_Client.Terminate();
        m_Client.SetCallback(nullptr);
    }
    HostSide(const HostSide&) = delete;
    HostSide& operator=(const HostSide&) = delete;

    /// Needs the server; false with a reason (a buffer of kReasonBufferSize) if it does not answer.
    bool Start(char* pcReason) { return m_Client.Initial(pcReason) && m_Client.StartRemoteController(pcReason); }
    /// The server's thread that sends lines to its hosts begins with the first, and stays: true when one of a listing
    /// of the exports, with that text in it, has come.
    bool AwaitListing(const std::string& sText) {
        CRuntimeParam param(m_sID.c_str(), 0);
        m_Client.GetMountInfo(&param, false, true);
        return WaitUntil([&] { return !m_Host.Log().LinesWith(sText).empty(); });
    }
    LogCapture& Log() { return m_Host.Log(); }
    CNfsIpcClientMain& Client() { return m_Client; }

private:
    const std::string m_sID;
    FakeHost m_Host;
    CNfsIpcClientMain m_Client;
};
