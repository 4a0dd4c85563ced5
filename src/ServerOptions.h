// ServerOptions: what an operator may ask of a server beyond what its front end asks.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

struct ServerOptionName;

/// Everything is off unless asked for: by variables of the process's environment, which a host has, or by options of
/// the console, which go before them. A wrong value is refused by what makes use of it.
struct ServerOptions {
    bool bSyncWrites = false;     ///< each WRITE to an ordinary file is flushed before its reply
    bool bReadOnly = false;       ///< every start is one of a read-only server
    bool bNoPortmapper = false;   ///< port 111 is left alone, and no portmapper told
    std::string sBindAddress;     ///< the one IPv4 address to listen on; empty: all
    std::string sAccessFile;      ///< the path of an access file; empty: none
    std::string sStatisticsFile;  ///< the path of a file for the server's figures; empty: none
    std::string sSocketMode;      ///< the mode of the local sockets, octal; empty: 0777
    std::string sSocketGroup;     ///< the group of the local sockets, a name or a number; empty: the process's
    /// The values of flags' variables that say neither yes nor no, by variable; their flags are off.
    std::map<std::string, std::string> mWrongFlags;

    /// What the environment asks for: flags by "1", and not by "0" or nothing; texts by their value.
    static ServerOptions FromEnvironment();

    /// Switches a flag on, whatever the environment says of it.
    void SetFlag(const ServerOptionName& name);
    /// False with a reason if there is a wrong flag.
    bool CheckFlags(char* pcReason) const;

    /// The bind address as a number in host byte order, 0 for all. False with a reason if it is no IPv4 address, or
    /// none that this machine can listen on now.
    bool GetBindAddress(std::uint32_t* piAddress, char* pcReason) const;
};

/// One of the options: how it is asked for, and what it sets, either a flag or a text.
struct ServerOptionName {
    const char* pcOption;
    const char* pcVariable;
    bool ServerOptions::*pFlag;         ///< an option without a value
    std::string ServerOptions::*pText;  ///< null for a flag
};

/// All of them. None stands in the console's usage, whose lines are as scripts know them.
std::span<const ServerOptionName> GetServerOptionNames();
/// Null for a word that is none of the options.
const ServerOptionName* FindServerOption(std::string_view sOption);
