// nfsmap's command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "SegmentMap.h"

/// What nfsmap is asked for.
struct MapOptions {
    std::string sFile;
    std::string sPicture;  ///< empty: none
    std::vector<std::int64_t> viOffsets;
    std::optional<std::int64_t> iSize;
    SegmentMap::Form form = SegmentMap::Form::kGuess;
    SearchSteps steps;
    bool bSummaryOnly = false;
    bool bCheck = false;

    /// Takes the words behind the program's name. Throws UsageError.
    static MapOptions Parse(const std::vector<std::string>& vsArguments);
};
