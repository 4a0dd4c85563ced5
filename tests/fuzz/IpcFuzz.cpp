// One input, one connection.
#include "IpcFuzz.h"

#include <stdexcept>
#include <utility>

#include "IpcPeer.h"

namespace {

/// What the server reads of a connection at most.
constexpr std::size_t kMaxMessage = 4096;
/// How its refusal of a type begins.
constexpr std::string_view kUnknown = "Unknown ";

}  // namespace

IpcFuzzWorld::IpcFuzzWorld(std::string sChannel)
    : m_sChannel(std::move(sChannel)),
      m_Controller("fuzz", CRuntimeParam::kLogIpc, &m_Record, &m_Log),
      m_Server(&m_Controller) {
    m_Controller.SetCallback(m_Host.Callback());
    m_Host.Log().SetHost([](const Notification& notification) { return static_cast<int>(notification.iLen); });
    char vcReason[kReasonBufferSize] = "";
    if (!m_Server.Open(m_sChannel.c_str(), vcReason)) {
        throw std::runtime_error(vcReason);
    }
}

std::string IpcFuzzWorld::Run(std::string_view sInput) {
    m_Log.Clear();
    m_Host.Log().Clear();
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
    CountRecord(sInput, sReply);
    return "";
}

/// Counts a record that was carried out: one of a type that the server does not know is answered with an exception.
void IpcFuzzWorld::CountRecord(std::string_view sInput, std::string_view sReply) {
    const bool bUnknown =
        I32At(sReply, 4) == kIpcReplyException && sReply.substr(sizeof(Ipc_Header)).starts_with(kUnknown);
    if (sInput.size() < sizeof(std::int32_t) * 2 || bUnknown) {
        return;
    }
    const std::int32_t iGroup = I32At(sInput, 0);
    const std::int32_t iType = I32At(sInput, 4);
    if (iGroup == kIpcGroupRequest) {
        CountReached("request " + std::to_string(iType));
    } else if (iGroup == kIpcGroupCallback &&
               (!m_Host.Log().Lines().empty() || !m_Host.Log().Notifications().empty())) {
        CountReached("callback " + std::to_string(iType));  // the host was told
    }
}
