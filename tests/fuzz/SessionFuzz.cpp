// Whole sessions.
#include "SessionFuzz.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include "MountProg.h"
#include "NfsProg.h"
#include "OpenDescriptors.h"
#include "PortmapProg.h"
#include "RpcReplies.h"
#include "RpcServer.h"
#include "SessionCalls.h"
#include "SessionHost.h"
#include "SocketDoubles.h"
#include "TempFolder.h"
#include "Utilities.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned long kPrograms[] = {100003, 100003, 100003, 100005, 100000};
constexpr const char* kAddresses[] = {"10.0.0.5", "10.0.0.6", "127.0.0.1"};
constexpr std::size_t kMaxSteps = 400;
constexpr std::size_t kMaxPending = 65536;

/// What a source of redirected files holds.
std::string SourceContent(char cSource) {
    return std::string(1000, cSource);
}

}  // namespace

/// All of a session but its clients.
struct SessionFuzzWorld::Server {
    Server(SessionFuzzWorld& world, const std::string& sFolder)
        : main(sFolder, [&world](std::string_view sWhat) { world.CountReached(sWhat); }),
          host(&main, sFolder, [&world](std::string_view sWhat) { world.CountReached(sWhat); }),
          portmap(main.GetUtilities()),
          mount(main.GetUtilities()),
          nfs(main.GetUtilities()),
          rpc(main.GetUtilities(), main.GetRuntimeParam()) {
        portmap.Set(100003, 2049);
        rpc.Set(100000, &portmap);
        rpc.Set(100003, &nfs);
        rpc.Set(100005, &mount);
    }

    SessionMain main;
    SessionHost host;
    CPortmapProg portmap;
    CMountProg mount;
    CNfsProg nfs;
    CRpcServer rpc;
};

/// One connection, or one sender of datagrams.
struct SessionFuzzWorld::Client {
    CapturingSocket* pSocket = nullptr;
    std::size_t iClient = 0;
    std::string sPending;  ///< said, and not heard yet
    bool bOpen = false;
};

SessionFuzzWorld::SessionFuzzWorld(const std::string& sFolder)
    : m_sFolder(fs::canonical(sFolder).string()), m_Outside(m_sFolder + "/session") {
    fs::create_directories(m_sFolder + "/host");
}

SessionFuzzWorld::~SessionFuzzWorld() = default;

std::string SessionFuzzWorld::Run(std::string_view sInput) {
    Restore();
    std::string sFailure = RunSession(sInput);
    if (!sFailure.empty()) {
        return sFailure;
    }
    const std::size_t nDescriptors = CountDescriptors();
    if (m_nDescriptors == 0) {
        m_nDescriptors = nDescriptors;
    }
    if (nDescriptors != m_nDescriptors) {
        return "descriptors are left open: " + std::to_string(nDescriptors) + " instead of " +
               std::to_string(m_nDescriptors);
    }
    return JudgeSources();
}

std::string SessionFuzzWorld::RunSession(std::string_view sInput) {
    SessionScript script(sInput);
    const unsigned int iKind = script.Byte();
    Server server(*this, m_sFolder);
    server.nfs.SetReadOnly((iKind & 2U) != 0);
    std::array<Client, kClients> clients;
    for (std::size_t i = 0; i < kClients; ++i) {
        clients[i].iClient = i;
        SessionScript plain(std::string_view("\0\0\0", 3));
        Connect(clients[i], plain);
    }
    m_pClients = &clients;
    std::string sFailure = (iKind & 1U) != 0 ? server.host.Prepare() : "";
    for (std::size_t i = 0; i < kMaxSteps && !script.IsAtEnd() && sFailure.empty(); ++i) {
        sFailure = Step(server, script);
    }
    if (sFailure.empty()) {
        sFailure = HearAll(server, 0);
    }
    server.main.CloseAllRedirectedFiles("");
    server.main.GetUtilities()->RemoveAllMountInfo();
    if (sFailure.empty() && server.main.GetMountInfo(false, false) != 0) {
        sFailure = "an export is left";
    }
    return sFailure.empty() ? server.host.JudgeJvm() : sFailure;
}

std::string SessionFuzzWorld::Step(Server& server, SessionScript& script) {
    const unsigned int iStep = script.Below(12);
    if (iStep >= 8) {
        return StepOfHost(server, script);
    }
    Client& client = (*m_pClients)[script.Below(kClients)];
    switch (iStep) {
        case 0:
            CountReached("step: connect");
            Connect(client, script);
            return "";
        case 1:
        case 2:
            CountReached("step: call");
            SayCall(client, script);
            return "";
        case 3: {
            CountReached("step: bytes");
            const std::string_view sBytes = script.Bytes();
            client.sPending += sBytes;
            return "";
        }
        case 4:
            CountReached("step: hear some");
            return Hear(server, client, script.Byte());
        case 5:
            CountReached("step: hear one");
            return Hear(server, client, client.sPending.size());
        case 6:
            CountReached("step: hear all in turns");
            return HearAll(server, script.Byte());
        default:
            CountReached("step: hang up");
            client.sPending.clear();
            client.bOpen = false;
            return "";
    }
}

std::string SessionFuzzWorld::StepOfHost(Server& server, SessionScript& script) {
    switch (script.Below(6)) {
        case 0:
        case 1:
        case 2:
            CountReached("step: host asks");
            return server.host.Request(script);
        case 3:
            CountReached("step: host sends bytes");
            return server.host.RawRecord(script);
        case 4:
            CountReached("step: host answers otherwise");
            server.host.ChooseAnswer(script);
            return "";
        default:
            CountReached("step: local user");
            Swap(server, script);
            return "";
    }
}

// ---- Clients

void SessionFuzzWorld::Connect(Client& client, SessionScript& script) {
    const unsigned long lProgram = script.OneOf(kPrograms);
    const bool bDatagram = script.Byte() % 4 == 3;
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    ::inet_pton(AF_INET, script.OneOf(kAddresses), &peer.sin_addr);
    client.pSocket = TakeSocket(client.iClient, bDatagram, lProgram);
    client.pSocket->Renew(peer);
    client.sPending.clear();
    client.bOpen = true;
}

CapturingSocket* SessionFuzzWorld::TakeSocket(std::size_t iClient, bool bDatagram, unsigned long lProgram) {
    std::unique_ptr<CapturingSocket>& pSocket =
        m_Sockets[std::to_string(iClient) + (bDatagram ? " UDP " : " TCP ") + std::to_string(lProgram)];
    if (!pSocket || pSocket->IsStopping()) {
        pSocket = std::make_unique<CapturingSocket>(bDatagram ? CSocket::kDatagram : CSocket::kStream, lProgram);
    }
    return pSocket.get();
}

void SessionFuzzWorld::SayCall(Client& client, SessionScript& script) {
    const std::string sCall = MakeSessionCall(client.pSocket->GetProgId(), script);
    if (client.sPending.size() > kMaxPending) {
        return;
    }
    if (client.pSocket->GetType() == CSocket::kStream) {
        client.sPending += XdrBuilder().U32(0x80000000U | static_cast<std::uint32_t>(sCall.size())).Bytes();
    }
    client.sPending += sCall;
}

std::string SessionFuzzWorld::Hear(Server& server, Client& client, std::size_t nBytes) {
    const std::string sHeard = client.sPending.substr(0, nBytes);
    client.sPending.erase(0, sHeard.size());
    if (!client.bOpen || sHeard.empty()) {
        return "";
    }
    client.bOpen = client.pSocket->Receive(&server.rpc, sHeard);
    return Judge(*client.pSocket);
}

/// All that was said is heard, client after client in pieces of a size; 0: at once.
std::string SessionFuzzWorld::HearAll(Server& server, std::size_t nPiece) {
    bool bMore = true;
    std::string sFailure;
    for (std::size_t nTurns = 0; bMore && sFailure.empty(); ++nTurns) {
        bMore = false;
        for (Client& client : *m_pClients) {
            const std::size_t nAtOnce = nPiece == 0 || nTurns > 64 ? client.sPending.size() : nPiece;
            sFailure = Hear(server, client, nAtOnce);
            bMore |= !client.sPending.empty();
            if (!sFailure.empty()) {
                break;
            }
        }
    }
    return sFailure;
}

std::string SessionFuzzWorld::Judge(CapturingSocket& socket) {
    const std::string sReplies = socket.TakeSent();
    if (socket.GetOutputStream()->GetBufferSize() != 0 || !AreReplies(sReplies, socket.GetType() == CSocket::kStream)) {
        return "something other than whole replies was sent";
    }
    if (OutsideWatch::HoldsSecret(sReplies)) {
        return "a file outside the export was read";
    }
    return m_Outside.Judge();
}

// ---- The folder

/// A local user who may write in the export: something else comes to stand under a name.
void SessionFuzzWorld::Swap(Server& server, SessionScript& script) {
    const std::string sName = ChooseSessionName(script);
    if (sName.empty() || sName.starts_with('.')) {
        return;
    }
    const std::string sPath = m_Outside.GetExport() + "/" + sName;
    std::error_code ignored;
    if (!fs::canonical(fs::path(sPath).parent_path(), ignored).string().starts_with(m_Outside.GetExport())) {
        return;  // through a link of his own, out of the export: that would be his deed, not the server's
    }
    // An info file belongs to the host, which writes where its path leads.
    CUtilities* pUtilities = server.main.GetUtilities();
    if (pUtilities->GetRedirectedFile(sPath.c_str()) ||
        !pUtilities->GetRenamesBelow(sPath.c_str(), sPath.c_str()).empty()) {
        return;
    }
    fs::remove_all(sPath, ignored);
    switch (script.Byte() % 8) {
        case 0:
            break;
        case 1:
            ::mkfifo(sPath.c_str(), 0600);
            break;
        case 2:
            fs::create_directory(sPath, ignored);
            break;
        case 3:
            fs::create_symlink("../secret", sPath, ignored);
            break;
        case 4:
            fs::create_symlink("..", sPath, ignored);
            break;
        case 5:
            fs::create_symlink(script.Byte() % 2 == 0 ? "folder" : sName, sPath, ignored);
            break;
        case 6:
            fs::rename(m_Outside.GetExport() + "/folder", sPath, ignored);
            break;
        default:
            if (fs::is_directory(fs::path(sPath).parent_path(), ignored)) {
                WriteWholeFile(m_Outside.GetExport() + "/new", "another file");
                fs::rename(m_Outside.GetExport() + "/new", sPath, ignored);
            }
    }
}

/// As every session finds it.
void SessionFuzzWorld::Restore() {
    std::error_code ignored;
    const std::string& sExport = m_Outside.GetExport();
    for (const auto& entry : fs::directory_iterator(sExport)) {
        fs::remove_all(entry.path(), ignored);
    }
    fs::create_directories(sExport + "/folder");
    fs::create_directories(sExport + "/other");
    for (const char* pcName : {"/file", "/folder/entry", "/disk"}) {
        WriteWholeFile(sExport + pcName, "0123456789");
    }
    WriteWholeFile(m_sFolder + "/host/a", SourceContent('a'));
    WriteWholeFile(m_sFolder + "/host/b", SourceContent('b'));
    WriteWholeFile(m_sFolder + "/host/out", "");
    ::chmod(sExport.c_str(), 0755);
    m_Outside.Forget();
}

std::string SessionFuzzWorld::JudgeSources() const {
    const bool bSame = ReadWholeFile(m_sFolder + "/host/a") == SourceContent('a') &&
                       ReadWholeFile(m_sFolder + "/host/b") == SourceContent('b');
    return bSame ? "" : "a source of a redirected file was changed";
}
