// The world that fuzzed calls meet.
#include "RpcFuzz.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <sys/inotify.h>
#include <unistd.h>

#include "Limits.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "PortmapProg.h"
#include "RpcServer.h"
#include "SocketDoubles.h"
#include "Utilities.h"
#include "Xdr.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned long kPrograms[] = {100000, 100003, 100005, 100003};
constexpr const char* kExportName = "fuzz";
constexpr const char* kSecret = "no client may read or change this";
/// How often what the inputs have made in the export is cleared away.
constexpr unsigned int kInputsPerClearing = 500;

/// Log lines are formatted, so that their arguments are exercised, and dropped.
class SilentUtilities : public CUtilities {
public:
    void LogInfo(CRuntimeParam*, const char*) override {}
    void LogError(CRuntimeParam*, const char*) override {}
    void LogRaw(CRuntimeParam*, const char*) override {}
};

void WriteFile(const std::string& sPath, std::string_view sContent) {
    std::ofstream(sPath, std::ios::binary | std::ios::trunc) << sContent;
}

std::string ReadFile(const std::string& sPath) {
    std::ifstream file(sPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// True for one reply (datagram) or any number of them in whole records (stream), each accepted with a status that the
/// server knows.
bool AreReplies(std::string_view sSent, bool bStream) {
    constexpr std::size_t kHead = 24;
    while (!sSent.empty()) {
        std::size_t nReply = sSent.size();
        if (bStream) {
            if (sSent.size() < 4 || (WordAt(sSent, 0) & 0x80000000U) == 0) {
                return false;
            }
            nReply = WordAt(sSent, 0) & 0x7FFFFFFFU;
            sSent.remove_prefix(4);
        }
        if (nReply < kHead || nReply > sSent.size() || WordAt(sSent, 4) != 1 || WordAt(sSent, 8) != 0) {
            return false;
        }
        const std::uint32_t iAcceptStatus = WordAt(sSent, 20);
        if (iAcceptStatus > 4 || iAcceptStatus == 2 || (iAcceptStatus != 0 && nReply != kHead)) {
            return false;
        }
        sSent.remove_prefix(nReply);
    }
    return true;
}

}  // namespace

RpcFuzzWorld::RpcFuzzWorld(const std::string& sFolder)
    : m_sOutside(sFolder + "/rpc-fuzz-" + std::to_string(::getpid())),
      m_sExport(m_sOutside + "/export"),
      m_pUtilities(std::make_unique<SilentUtilities>()),
      m_Param("fuzz", ~0),
      m_pPortmapProg(std::make_unique<CPortmapProg>(m_pUtilities.get())),
      m_pMountProg(std::make_unique<CMountProg>(m_pUtilities.get())),
      m_pNfsProg(std::make_unique<CNfsProg>(m_pUtilities.get())),
      m_pServer(std::make_unique<CRpcServer>(m_pUtilities.get(), &m_Param)) {
    fs::create_directories(m_sOutside);
    m_sOutside = fs::canonical(m_sOutside).string();
    m_sExport = m_sOutside + "/export";
    constexpr unsigned int kTouches = IN_OPEN | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVE;
    m_Watch = CDescriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (::inotify_add_watch(m_Watch.Get(), m_sOutside.c_str(), kTouches) == -1) {
        throw std::runtime_error("no watch on " + m_sOutside);
    }
    Restore();
    char vcReason[kReasonBufferSize] = "";
    LogArgu tag{"fuzz"};
    if (!m_pUtilities->AddMountInfo(&m_Param, &tag, m_sExport.c_str(), kExportName, "", vcReason)) {
        throw std::runtime_error(vcReason);
    }
    for (const char* pcName : {"", "/file", "/folder", "/folder/entry"}) {
        m_pUtilities->GetFileID(&m_Param, &tag, (m_sExport + pcName).c_str());
    }
    m_pPortmapProg->Set(100003, 2049);
    m_pServer->Set(100000, m_pPortmapProg.get());
    m_pServer->Set(100003, m_pNfsProg.get());
    m_pServer->Set(100005, m_pMountProg.get());
}

RpcFuzzWorld::~RpcFuzzWorld() {
    m_pUtilities.reset();
    std::error_code ignored;  // below /tmp
    fs::remove_all(m_sOutside, ignored);
}

/// Puts back what an input has removed, and from time to time clears away what inputs have made.
void RpcFuzzWorld::Restore() {
    if (m_nInputs++ % kInputsPerClearing == 0) {
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(m_sOutside)) {
            fs::remove_all(entry.path(), ignored);
        }
        WriteFile(m_sOutside + "/secret", kSecret);
        fs::create_directories(m_sExport, ignored);
        WasOutsideTouched();  // by this
    }
    std::error_code ignored;
    fs::create_directories(m_sExport + "/folder", ignored);
    for (const char* pcName : {"/file", "/folder/entry"}) {
        if (::access((m_sExport + pcName).c_str(), F_OK) != 0) {
            WriteFile(m_sExport + pcName, "0123456789");
        }
    }
}

std::string RpcFuzzWorld::Run(std::string_view sInput) {
    if (sInput.size() < 2) {
        return "";
    }
    Restore();
    const unsigned char iKind = static_cast<unsigned char>(sInput[0]);
    const std::size_t nPiece = static_cast<unsigned char>(sInput[1]);
    sInput.remove_prefix(2);
    CapturingSocket& socket = *TakeSocket(iKind);
    const bool bDatagram = socket.GetType() == CSocket::kDatagram;
    std::string sFailure;
    bool bOpen = true;
    while (!sInput.empty() && sFailure.empty() && bOpen) {
        const std::size_t nBytes = bDatagram || nPiece == 0 ? sInput.size() : std::min(nPiece, sInput.size());
        bOpen = socket.Receive(m_pServer.get(), sInput.substr(0, nBytes)) && !bDatagram;
        sInput.remove_prefix(nBytes);
        sFailure = Judge(&socket);
    }
    return sFailure;
}

/// The socket for inputs of that kind, as good as new: its buffers are what takes long to make.
CapturingSocket* RpcFuzzWorld::TakeSocket(unsigned char iKind) {
    const bool bDatagram = (iKind & 1U) != 0;
    const unsigned long lProgram = kPrograms[(iKind >> 1U) & 3U];
    std::unique_ptr<CapturingSocket>& pSocket = m_Sockets[{bDatagram, lProgram}];
    if (!pSocket || pSocket->IsStopping()) {
        pSocket = std::make_unique<CapturingSocket>(bDatagram ? CSocket::kDatagram : CSocket::kStream, lProgram);
    }
    pSocket->GetInputStream()->ResetBuffer();
    pSocket->GetOutputStream()->ResetBuffer();
    return pSocket.get();
}

std::string RpcFuzzWorld::Judge(CapturingSocket* pSocket) {
    const COutputStream* pOutput = pSocket->GetOutputStream();
    if (pOutput->GetBufferSize() > CSocketStream::GetMaxBufferSize() ||
        pOutput->GetBufferIndex() > CSocketStream::GetMaxBufferSize()) {
        return "the output left its buffer";
    }
    if (pSocket->GetInputStream()->GetBufferIndex() > CSocketStream::GetMaxBufferSize()) {
        return "the input left its buffer";
    }
    const std::string sReplies = pSocket->TakeSent();
    if (pOutput->GetBufferSize() != 0 || !AreReplies(sReplies, pSocket->GetType() == CSocket::kStream)) {
        return "something other than whole replies was sent";
    }
    if (sReplies.find(kSecret) != std::string_view::npos) {
        return "a file outside the export was read";
    }
    return WasOutsideTouched() ? JudgeOutside() : "";
}

/// Whether anything happened beside the export, or to its own entry there, since this was last asked.
bool RpcFuzzWorld::WasOutsideTouched() {
    constexpr std::size_t kEventsSize = 4096;
    alignas(inotify_event) char cEvents[kEventsSize];
    bool bTouched = false;
    for (ssize_t nRead = 0; (nRead = ::read(m_Watch.Get(), cEvents, sizeof(cEvents))) > 0;) {
        for (ssize_t i = 0; i < nRead;) {
            const auto* pEvent = reinterpret_cast<const inotify_event*>(cEvents + i);
            // The export itself is listed, and given another mode.
            bTouched |= (pEvent->mask & IN_ISDIR) == 0 || (pEvent->mask & (IN_OPEN | IN_ATTRIB)) == 0;
            i += static_cast<ssize_t>(sizeof(inotify_event)) + static_cast<ssize_t>(pEvent->len);
        }
    }
    return bTouched;
}

/// Something happened outside, which is wrong, whatever is there now.
std::string RpcFuzzWorld::JudgeOutside() {
    const bool bChanged = ReadFile(m_sOutside + "/secret") != kSecret;
    const auto nOutside = std::distance(fs::directory_iterator(m_sOutside), fs::directory_iterator());
    WasOutsideTouched();  // by this
    if (bChanged) {
        return "a file outside the export was changed";
    }
    if (nOutside != 2 || !fs::is_directory(fs::symlink_status(m_sExport))) {
        return "something outside the export, or the export itself, was made or removed";
    }
    return "a file outside the export was opened";
}
