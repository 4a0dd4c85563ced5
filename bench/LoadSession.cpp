// Rounds over a set of connections.
#include "LoadSession.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include <poll.h>

#include "TcpExchange.h"

namespace {

constexpr int kPatienceMilliseconds = 30000;

/// A number for what a round writes: no two rounds of a program write the same.
std::uint32_t NextGeneration() {
    static std::uint32_t iGeneration = 0;
    return ++iGeneration;
}

}  // namespace

LoadSession::LoadSession(int iPort, const Row& row, const LoadFolder& folder, const LoadShape& shape,
                         const BareOpening* pBare)
    : m_Folder(folder) {
    for (int i = 0; i < shape.nConnections; ++i) {
        const int iSocket = ConnectTo(iPort);
        m_vpConnections.push_back(std::make_unique<LoadConnection>(iSocket, row, folder, i, shape));
        if (pBare != nullptr) {
            SendAll(iSocket, {reinterpret_cast<const char*>(&pBare->setup), sizeof(pBare->setup)});
            SendAll(iSocket, pBare->sReplies);
        }
    }
}

LoadConnection::Clock::time_point LoadSession::ReceiveAny(LoadConnection::Clock::time_point deadline,
                                                          std::vector<std::uint32_t>* pvLatencies) {
    if (m_vpConnections.size() == 1) {
        return m_vpConnections.front()->Receive(deadline, pvLatencies);
    }
    std::vector<pollfd> vWaiting;
    vWaiting.reserve(m_vpConnections.size());
    for (const auto& pConnection : m_vpConnections) {
        vWaiting.push_back({pConnection->IsIdle() ? -1 : pConnection->GetSocket(), POLLIN, 0});
    }
    if (::poll(vWaiting.data(), vWaiting.size(), kPatienceMilliseconds) <= 0) {
        throw std::runtime_error("no reply on any connection");
    }
    LoadConnection::Clock::time_point now;
    for (std::size_t i = 0; i < vWaiting.size(); ++i) {
        if (vWaiting[i].revents != 0) {
            now = m_vpConnections[i]->Receive(deadline, pvLatencies);
        }
    }
    return now;
}

Round LoadSession::Run(std::chrono::milliseconds time, std::vector<std::uint32_t>* pvLatencies) {
    std::vector<bool> vbWritten(kLoadSize / Content::kBlock);
    const std::uint32_t iGeneration = NextGeneration();
    const std::size_t nBefore = pvLatencies->size();
    const auto start = LoadConnection::Clock::now();
    const auto deadline = start + time;
    for (const auto& pConnection : m_vpConnections) {
        pConnection->Begin(iGeneration, &vbWritten);
    }
    auto now = start;
    while (now < deadline || pvLatencies->size() == nBefore) {
        now = ReceiveAny(deadline, pvLatencies);
    }
    const Round round{std::chrono::duration<double>(now - start).count(), pvLatencies->size() - nBefore};
    while (!std::all_of(m_vpConnections.begin(), m_vpConnections.end(),
                        [](const auto& pConnection) { return pConnection->IsIdle(); })) {
        ReceiveAny(deadline, pvLatencies);
    }
    m_Folder.CheckWritten(vbWritten, iGeneration);
    return round;
}
