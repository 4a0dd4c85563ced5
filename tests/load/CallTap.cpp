// Stands in the way of send(), by which the clients of the load test, libnfs among them, send their calls.
#include "CallTap.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/socket.h>

namespace {

constexpr std::uint32_t kPortmap = 100000;
constexpr std::uint32_t kNfs = 100003;
constexpr std::uint32_t kMount = 100005;
constexpr std::size_t kMostProcedures = 22;

using Counts = std::array<std::atomic<std::uint64_t>, kMostProcedures>;
Counts g_PortmapCounts{};
Counts g_NfsCounts{};
Counts g_MountCounts{};

Counts* GetCounts(std::uint32_t iProgram) {
    switch (iProgram) {
        case kPortmap:
            return &g_PortmapCounts;
        case kNfs:
            return &g_NfsCounts;
        case kMount:
            return &g_MountCounts;
        default:
            return nullptr;
    }
}

/// The head of a call over TCP (RFC 5531): record mark, XID, CALL, RPC version 2, program, version, procedure.
void Count(const void* pvData, std::size_t nBytes) {
    std::array<std::uint32_t, 7> viHead{};
    if (nBytes < sizeof(viHead)) {
        return;
    }
    std::memcpy(viHead.data(), pvData, sizeof(viHead));
    for (std::uint32_t& iWord : viHead) {
        iWord = ntohl(iWord);
    }
    Counts* pCounts = viHead[2] == 0 && viHead[3] == 2 ? GetCounts(viHead[4]) : nullptr;
    if (pCounts != nullptr && viHead[6] < kMostProcedures) {
        ++(*pCounts)[viHead[6]];
    }
}

}  // namespace

std::uint64_t GetSentCalls(std::uint32_t iProgram, std::uint32_t iProcedure) {
    const Counts* pCounts = GetCounts(iProgram);
    return pCounts == nullptr || iProcedure >= kMostProcedures ? 0 : (*pCounts)[iProcedure].load();
}

extern "C" __attribute__((visibility("default"))) ssize_t send(int iSocket, const void* pvData, std::size_t nBytes,
                                                               int iFlags) {
    static auto* const pNext =
        reinterpret_cast<ssize_t (*)(int, const void*, std::size_t, int)>(::dlsym(RTLD_NEXT, "send"));
    Count(pvData, nBytes);
    return pNext(iSocket, pvData, nBytes, iFlags);
}
