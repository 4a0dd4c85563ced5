// The inputs that the fuzzers begin with, and that are tests by themselves.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "TempFolder.h"
#include "Trees.h"

/// The files of a folder beside this file, in the order of their names.
inline std::vector<std::string> ReadCorpus(const std::string& sFolder) {
    std::vector<std::filesystem::path> vPaths;
    for (const auto& entry : std::filesystem::directory_iterator(SourceTree() + "/tests/fuzz/" + sFolder)) {
        vPaths.push_back(entry.path());
    }
    std::sort(vPaths.begin(), vPaths.end());
    std::vector<std::string> vsCorpus;
    for (const auto& path : vPaths) {
        vsCorpus.push_back(ReadWholeFile(path.string()));
    }
    return vsCorpus;
}
