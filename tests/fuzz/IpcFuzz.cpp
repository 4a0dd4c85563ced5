// One input, one connection.
#include "IpcFuzz.h"

#include <stdexcept>
#include <utility>

#include "IpcPeer.h"

namespace {

/// What the server reads of a connection at most.
constexpr std::size_t kMaxMessage = 4096;

}  // namespace

IpcFuzzWorld::IpcFuzzWorld(std::string sChannel)
    : m_sChannel(std::move(sChannel)),
      m_Controller("fuzz", CRuntimeParam::kLogIpc, &m_Record, &m_Log),
      m_Server(&m_Controller) {
    char vcReason[kReasonBufferSize] = "";
    if (!m_Server.Open(m_sChannel.c_str(), vcReason)) {
        throw std::runtime_error(vcReason);
    }
}

std::string IpcFuzzWorld::Run(std::string_view sInput) {
    m_Log.Clear();
    m_Record.Clear();
    IpcConnection connection(m_sChannel);
    if (!connection.Send(sInput.substr(0, 2 * kMaxMessage))) {
        return "the bytes were not taken";
    }
    connection.ShutdownSend();
    char vcReason[kReasonBufferSize] = "";
    if (!m_Server.ReadRequest(vcReason)) {
        return std::string("serving failed: ") + vcReason;
    }
    const std::string sReply = connection.ReceiveAll().value_or("");
    if (sInput.empty()) {
        return sReply.empty() && m_Record.Calls().empty() ? "" : "no message was answered";
    }
    if (sReply.size() < sizeof(Ipc_Header) || I32At(sReply, 0) != kIpcGroupReply ||
        sReply.size() != GetIpcRecordLength(kIpcGroupReply, I32At(sReply, 4))) {
        return "the reply is not one whole reply record: " + std::to_string(sReply.size()) + " bytes";
    }
    return "";
}
