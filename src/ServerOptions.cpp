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

/// The values of a variable that ask for a flag, and not.
constexpr const char* kYes = "1";
constexpr const char* kNo = "0";

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
            if (!(options.*name.pFlag) && *pcValue != '\0' && std::strcmp(pcValue, kNo) != 0) {
                options.mWrongFlags[name.pcVariable] = pcValue;
            }
        } else {
            options.*name.pText = pcValue;
        }
    }
    return options;
}

void ServerOptions::SetFlag(const ServerOptionName& name) {
    this->*name.pFlag = true;
    mWrongFlags.erase(name.pcVariable);
}

bool ServerOptions::CheckFlags(char* pcReason) const {
    if (mWrongFlags.empty()) {
        return true;
    }
    const auto& [sVariable, sValue] = *mWrongFlags.begin();
    WriteReason(pcReason, "Variable %s is \"%s\", which is neither 1 nor 0", sVariable.c_str(), sValue.c_str());
    return false;
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
