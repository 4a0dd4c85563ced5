// What a server process holds of the system, for tests that look for leaks.
#include "ServerHoldings.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <ostream>
#include <system_error>

#include <gtest/gtest.h>

#include "NfsClient.h"
#include "NfsMain.h"
#include "RpcClient.h"
#include "WaitUntil.h"

namespace {

/// Slow machines included.
constexpr std::chrono::seconds kSettlingLimit{10};

/// The target of a descriptor without the number that tells sockets and pipes apart.
std::string GetKind(const std::string& sTarget) {
    return sTarget.starts_with('/') ? sTarget : sTarget.substr(0, sTarget.rfind(':'));
}

struct Places {
    int iPort;
    std::uint32_t iProgram;
    std::uint32_t iVersion;
    int nConnections;
};

constexpr Places kPlaces[] = {
    {111, kPortmapProgram, 2, CNfsMain::kMaxPortmapConnections},
    {CNfsMain::kDefaultMountPort, kMountProgram, 3, CNfsMain::kMaxMountConnections},
    {CNfsMain::kDefaultNfsPort, kNfsProgram, 3, CNfsMain::kMaxNfsConnections},
};

}  // namespace

bool Holdings::IsWithin(const Holdings& other) const {
    return nThreads <= other.nThreads &&
           std::includes(other.vsOpen.begin(), other.vsOpen.end(), vsOpen.begin(), vsOpen.end());
}

void PrintTo(const Holdings& holdings, std::ostream* pStream) {
    std::map<std::string, std::size_t> counts;
    for (const std::string& sOpen : holdings.vsOpen) {
        ++counts[sOpen];
    }
    *pStream << holdings.nThreads << " threads, " << holdings.vsOpen.size() << " descriptors:";
    for (const auto& [sOpen, nOpen] : counts) {
        *pStream << ' ' << nOpen << " x " << sOpen << ';';
    }
}

Holdings ReadHoldings(pid_t iProcess) {
    const std::string sProcess = "/proc/" + std::to_string(iProcess);
    Holdings holdings;
    for (const auto& entry : std::filesystem::directory_iterator(sProcess + "/fd")) {
        std::error_code gone;
        holdings.vsOpen.push_back(GetKind(std::filesystem::read_symlink(entry.path(), gone).string()));
    }
    std::sort(holdings.vsOpen.begin(), holdings.vsOpen.end());
    const std::filesystem::directory_iterator threads(sProcess + "/task");
    holdings.nThreads = static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
    return holdings;
}

void ExpectHoldingsWithin(pid_t iProcess, const Holdings& before) {
    Holdings now;
    EXPECT_TRUE(WaitUntil([&] { return (now = ReadHoldings(iProcess)).IsWithin(before); }, kSettlingLimit))
        << "held now: " << testing::PrintToString(now) << "\nbefore: " << testing::PrintToString(before);
}

void UseEachConnection() {
    std::vector<std::unique_ptr<RpcClient>> vpClients;
    for (const Places& places : kPlaces) {
        for (int i = 0; i < places.nConnections; ++i) {
            vpClients.push_back(std::make_unique<RpcClient>(Transport::kTcp, places.iPort));
            vpClients.back()->Call(places.iProgram, places.iVersion, kNfsNull, "");  // it has its place then
        }
    }
}
