// What an operator may ask of a server, and by which words.
#include "ServerOptions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <sys/socket.h>

#include "Descriptor.h"
#include "Ipv4Address.h"
#include "Reason.h"
#include "Texts.h"

namespace {

constexpr std::array kNames{
    ServerOptionName{"-sync", "NFSLIB_SYNC", &ServerOptions::bSyncWrites, nullptr},
    ServerOptionName{"-readonly", "NFSLIB_READONLY", &ServerOptions::bReadOnly, nullptr},
    ServerOptionName{"-noportmap", "NFSLIB_NOPORTMAP", &ServerOptions::bNoPortmapper, nullptr},
    ServerOptionName{"-bind", "NFSLIB_BIND", nullptr, &ServerOptions::sBindAddress},
    ServerOptionName{"-access", "NFSLIB_ACCESS", nullptr, &ServerOptions::sAccessFile},
    ServerOptionName{"-stats", "NFSLIB_STATS", nullptr, &ServerOptions::sStatisticsFile},
    ServerOptionName{"-socketmode", "NFSLIB_SOCKET_MODE", nullptr, &ServerOptions::sSocketMode},
    ServerOptionName{"-socketgroup", "NFSLIB_SOCKET_GROUP", nullptr, &ServerOptions::sSocketGroup},
};

/// The value of a variable that asks for a flag.
constexpr const char* kYes = "1";

}  // namespace

std::span<const ServerOptionName> GetServerOptionNames() {
    return kNames;
}

const ServerOptionName* FindServerOption(std::string_view sOption) {
    const auto itName = std::ranges::find(kNames, sOption, &ServerOptionName::pcOption);
    return itName != kNames.end() ? &*itName : nullptr;
}

ServerOptions ServerOptions::FromEnvironment() {
    ServerOptions options;
    for (const ServerOptionName& name : kNames) {
        const char* pcValue = OrEmpty(std::getenv(name.pcVariable));
        if (name.pFlag != nullptr) {
            options.*name.pFlag = std::strcmp(pcValue, kYes) == 0;
        } else {
            options.*name.pText = pcValue;
        }
    }
    return options;
}

bool ServerOptions::GetBindAddress(std::uint32_t* piAddress, char* pcReason) const {
    *piAddress = 0;
    if (sBindAddress.empty()) {
        return true;
    }
    const std::optional<std::uint32_t> iAddress = ParseIpv4Address(sBindAddress.c_str());
    if (!iAddress) {
        WriteReason(pcReason, "Bind address \"%s\" is no IPv4 address", sBindAddress.c_str());
        return false;
    }
    // Tried with a free port first: a port that fails later is none of the address's doing.
    const CDescriptor probe = CDescriptor::OpenSocket(SOCK_DGRAM);
    int iPort = 0;
    if (!probe.IsOpen() || !probe.BindToPort(&iPort, *iAddress)) {
        WriteReason(pcReason, "Bind address \"%s\" cannot be used. %s", sBindAddress.c_str(),
                    CSystemErrorText(errno).Get());
        return false;
    }
    *piAddress = *iAddress;
    return true;
}
