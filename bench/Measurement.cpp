// Running one row.
#include "Measurement.h"

#include <algorithm>
#include <chrono>
#include <memory>

#include <poll.h>

#include "LoadConnection.h"

namespace {

std::vector<std::unique_ptr<LoadConnection>> Connect(int iPort, const Row& row, const LoadFolder& folder,
                                                     const LoadShape& shape, const BareSetup* pBareSetup,
                                                     const std::string& sBareReply) {
    std::vector<std::unique_ptr<LoadConnection>> vpConnections;
    for (int i = 0; i < shape.nConnections; ++i) {
        const int iSocket = ConnectTo(iPort);
        if (pBareSetup != nullptr) {
            SendAll(iSocket, {reinterpret_cast<const char*>(pBareSetup), sizeof(*pBareSetup)});
            SendAll(iSocket, sBareReply);
        }
        vpConnections.push_back(
            std::make_unique<LoadConnection>(iSocket, row, folder, static_cast<std::uint64_t>(i) * 100));
    }
    return vpConnections;
}

}  // namespace

double Measurement::Percentile(double dFraction) const {
    if (vLatencies.empty()) {
        return 0;
    }
    const auto i = static_cast<std::size_t>(dFraction * static_cast<double>(vLatencies.size() - 1));
    return vLatencies[i] / 1000.0;
}

Measurement RunRow(int iPort, const Row& row, const LoadFolder& folder, const LoadShape& shape,
                   const BareSetup* pBareSetup, const std::string& sBareReply) {
    const auto vpConnections = Connect(iPort, row, folder, shape, pBareSetup, sBareReply);
    std::vector<pollfd> vWaiting;
    vWaiting.reserve(vpConnections.size());
    for (const auto& pConnection : vpConnections) {
        vWaiting.push_back({pConnection->GetSocket(), POLLIN, 0});
    }
    Measurement measurement;
    measurement.vLatencies.reserve(shape.nOperations);
    const auto start = std::chrono::steady_clock::now();
    std::uint64_t nSent = 0;
    for (int i = 0; i < shape.nDepth; ++i) {
        for (const auto& pConnection : vpConnections) {
            if (nSent < shape.nOperations) {
                pConnection->SendCall();
                ++nSent;
            }
        }
    }
    while (measurement.vLatencies.size() < shape.nOperations) {
        if (vpConnections.size() > 1) {
            ::poll(vWaiting.data(), vWaiting.size(), -1);
        }
        for (std::size_t i = 0; i < vpConnections.size(); ++i) {
            if (vpConnections.size() > 1 && vWaiting[i].revents == 0) {
                continue;
            }
            std::size_t nReplies = vpConnections[i]->ReceiveReplies(&measurement.vLatencies);
            for (; nReplies > 0 && nSent < shape.nOperations; --nReplies, ++nSent) {
                vpConnections[i]->SendCall();
            }
        }
    }
    measurement.dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::sort(measurement.vLatencies.begin(), measurement.vLatencies.end());
    return measurement;
}
