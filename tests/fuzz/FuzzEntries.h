// The doors that fuzzers come in by.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzTarget.h"
#include "Mutator.h"

/// One door: a world, the inputs to begin with, and what the mutator is to know of them.
struct FuzzEntry {
    const char* pcName;
    const char* pcCorpus;  ///< a folder beside this file
    FuzzVocabulary (*pfnMakeVocabulary)();
    /// The world works in a folder that exists; the process has a /tmp and a network of its own.
    std::unique_ptr<FuzzTarget> (*pfnMakeTarget)(const std::string& sFolder);
    /// What the corpus alone reaches at least, by the names of FuzzTarget::GetReached.
    std::vector<std::string> (*pfnMakeWanted)();
};

std::span<const FuzzEntry> GetFuzzEntries();
/// Null for a name that no entry has.
const FuzzEntry* FindFuzzEntry(std::string_view sName);
