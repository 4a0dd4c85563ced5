// The world that fuzzed calls meet.
#include "RpcFuzz.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

#include "Limits.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "PortmapProg.h"
#include "RpcReplies.h"
#include "RpcServer.h"
#include "SocketDoubles.h"
#include "TellingUtilities.h"

namespace {

constexpr unsigned long kPrograms[] = {100000, 100003, 100005, 100003};
constexpr const char* kExportName = "fuzz";
/// How often what the inputs have made in the export is cleared away.
constexpr unsigned int kInputsPerClearing = 500;

}  // namespace

RpcFuzzWorld::RpcFuzzWorld(const std::string& sFolder)
    : m_Outside(sFolder + "/rpc-fuzz-" + std::to_string(::getpid())),
      m_pUtilities(std::make_unique<TellingUtilities>([this](std::string_view sWhat) { CountReached(sWhat); })),
      m_Param("fuzz", ~0),
      m_pPortmapProg(std::make_unique<CPortmapProg>(m_pUtilities.get())),
      m_pMountProg(std::make_unique<CMountProg>(m_pUtilities.get())),
      m_pNfsProg(std::make_unique<CNfsProg>(m_pUtilities.get())),
      m_pServer(std::make_unique<CRpcServer>(m_pUtilities.get(), &m_Param)) {
    Restore();
    m_pPortmapProg->Set(100003, 2049);
    m_pServer->Set(100000, m_pPortmapProg.get());
    m_pServer->Set(100003, m_pNfsProg.get());
    m_pServer->Set(100005, m_pMountProg.get());
}

RpcFuzzWorld::~RpcFuzzWorld() = default;

/// Takes the export back, and with it all handles, and exports it anew under the same ones.
void RpcFuzzWorld::Export() {
    char vcReason[kReasonBufferSize] = "";
    LogArgu tag{"fuzz"};
    m_pUtilities->RemoveAllMountInfo(&m_Param, &tag);
    if (!m_pUtilities->AddMountInfo(&m_Param, &tag, m_Outside.GetExport().c_str(), kExportName, "", vcReason)) {
        throw std::runtime_error(vcReason);
    }
    for (const char* pcName : {"", "/file", "/folder", "/folder/entry"}) {
        m_pUtilities->GetFileID(&m_Param, &tag, (m_Outside.GetExport() + pcName).c_str());
    }
}

/// Puts back what an input has removed, and from time to time clears away what inputs have made.
void RpcFuzzWorld::Restore() {
    const bool bAnew = m_nInputs++ % kInputsPerClearing == 0;
    if (bAnew) {
        m_Outside.Clear();
    }
    std::error_code ignored;
    const std::string& sExport = m_Outside.GetExport();
    std::filesystem::create_directories(sExport + "/folder", ignored);
    for (const char* pcName : {"/file", "/folder/entry"}) {
        if (::access((sExport + pcName).c_str(), F_OK) != 0) {
            std::ofstream(sExport + pcName, std::ios::binary | std::ios::trunc) << "0123456789";
        }
    }
    if (bAnew) {
        Export();
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
    m_pServer->SetLogControl((iKind & 8U) != 0 ? CRuntimeParam::kLogProcFuncName : ~0);
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
    pSocket->Renew({});
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
    if (OutsideWatch::HoldsSecret(sReplies)) {
        return "a file outside the export was read";
    }
    return m_Outside.Judge();
}
