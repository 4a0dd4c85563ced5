// Calls of every procedure, and credentials of every shape.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "RpcClient.h"

/// One call against the tree of a PiecesWorld (or one with the same file IDs), and the outcome that it is sure to have
/// when it is sent whole.
struct PiecesCall {
    std::string sName;
    std::uint32_t iProgram = 0;
    std::uint32_t iVersion = 0;
    std::uint32_t iProcedure = 0;
    std::string sArguments;
    std::uint32_t iAcceptStatus = 0;
    std::optional<std::uint32_t> iStatus;  ///< the result's first word, where it is a status
    bool bModifying = false;               ///< changes files or bindings

    /// As it goes over TCP.
    std::string Record(const RpcCall& credential, std::uint32_t iXid) const;
};

/// All procedures of the portmapper, MOUNT and NFS, those included that are refused.
const std::vector<PiecesCall>& AllCalls();
/// The call of that name.
const PiecesCall& CallNamed(const std::string& sName);

/// AUTH_NONE and AUTH_SYS with every combination of stamp, machine name and number of groups. Only the credential of
/// the calls is set.
std::vector<RpcCall> AllCredentials();
/// AUTH_NONE and so many of the others that every stamp, name and number of groups comes once.
std::vector<RpcCall> FewCredentials();

/// The handle with that ID, as an argument.
std::string HandleArgument(std::uint32_t iID);
