// nfsget's command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Commands.h"

/// What nfsget is asked for.
struct GetRequest {
    enum class Verb { kUsage, kHelp, kVersion, kList, kStat, kGet, kPut, kWrite, kMakeDirectory, kRemove, kRelease };

    Verb verb = Verb::kUsage;   ///< kUsage: no command was named
    Place place;                ///< of every command
    std::string sLocal;         ///< get, put, write; "-" is a standard stream
    std::uint64_t iOffset = 0;  ///< write
    bool bResume = false;       ///< get, put

    /// Takes the words behind the program's name. Throws UsageError.
    static GetRequest Parse(const std::vector<std::string>& vsArguments);
};
