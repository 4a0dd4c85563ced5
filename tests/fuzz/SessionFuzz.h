// The door that everybody comes in by at the same time: clients on several connections, the host, a local user.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "FuzzTarget.h"
#include "OutsideWatch.h"
#include "SessionScript.h"

class CapturingSocket;

/// A whole server but for the network and the threads. One input is a session, a script of steps (SessionScript):
///
///   byte 0: bit 0 exports a folder with a redirected file first; bit 1 makes the server read-only
///   then steps, each a byte (modulo their number) and what it asks for: a client connects, says a call, says bytes,
///   is heard for some bytes, hangs up; all are heard in turns; the host asks for something, sends bytes, changes how
///   it answers; a local user puts something else in the place of a file
///
/// Clients get whole replies and nothing else, whatever happens meanwhile; nothing outside the export is touched;
/// the sources of redirected files stay as they are; at the end of each session nothing is left open.
class SessionFuzzWorld : public FuzzTarget {
public:
    /// Works in a folder that exists.
    explicit SessionFuzzWorld(const std::string& sFolder);
    ~SessionFuzzWorld() override;

    std::string Run(std::string_view sInput) override;

private:
    static constexpr std::size_t kClients = 5;
    struct Server;
    struct Client;

    std::string RunSession(std::string_view sInput);
    std::string Step(Server& server, SessionScript& script);
    std::string StepOfHost(Server& server, SessionScript& script);
    void Connect(Client& client, SessionScript& script);
    void SayCall(Client& client, SessionScript& script);
    std::string Hear(Server& server, Client& client, std::size_t nBytes);
    std::string HearAll(Server& server, std::size_t nPiece);
    std::string Judge(CapturingSocket& socket);
    void Swap(Server& server, SessionScript& script);
    void Restore();
    CapturingSocket* TakeSocket(std::size_t iClient, bool bDatagram, unsigned long lProgram);
    std::string JudgeSources() const;

    std::string m_sFolder;  ///< holds the folder "session", with the export, and the host's own, "host"
    OutsideWatch m_Outside;
    std::array<Client, kClients>* m_pClients = nullptr;                 ///< of the session that runs
    std::map<std::string, std::unique_ptr<CapturingSocket>> m_Sockets;  ///< used again and again
    std::size_t m_nDescriptors = 0;                                     ///< between sessions
};
