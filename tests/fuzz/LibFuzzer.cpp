// libFuzzer's entry, for the door named when it was compiled: rpc_fuzzer FOLDER tests/fuzz/corpus
//
// What is found goes to the first folder, which is not below /tmp: the process has one of its own.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "FuzzEntries.h"
#include "Isolation.h"
#include "SilentOutput.h"

namespace {

std::unique_ptr<FuzzTarget> g_pTarget;

/// libFuzzer names each function that it comes to: through a symbolizer, whose pipes would count as descriptors that a
/// session left open. A later argument of the same name wins.
void NameNoFunctions(int& nArguments, char**& vpcArguments) {
    static char vcOption[] = "-print_funcs=0";
    static std::vector<char*> vpcAll(vpcArguments, vpcArguments + nArguments);
    vpcAll.insert(vpcAll.begin() + 1, vcOption);
    nArguments = static_cast<int>(vpcAll.size());
    vpcAll.push_back(nullptr);
    vpcArguments = vpcAll.data();
}

/// Corpus and findings may lie below /tmp: where a folder is named, the process keeps the /tmp it has. So do those that
/// -merge and -fork start: they find there what the first one left for them.
std::string ChooseFolder() {
    constexpr const char* kFolderVariable = "NFSLIB_FUZZ_FOLDER";
    if (const char* pcFolder = std::getenv(kFolderVariable); pcFolder != nullptr) {
        return pcFolder;
    }
    if (const char* pcWhy = IsolateProcess(); pcWhy != nullptr) {
        std::fprintf(stderr, "not isolated: %s\n", pcWhy);
        std::exit(1);
    }
    ::setenv(kFolderVariable, "/tmp", 1);
    return "/tmp";
}

#ifndef NFSLIB_FUZZ_ENTRY  // each program's own; without one, as where only this source is looked at, the RPC entry
#define NFSLIB_FUZZ_ENTRY "rpc"
#endif

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* pnArguments, char*** pvpcArguments) {
    NameNoFunctions(*pnArguments, *pvpcArguments);
    const std::string sFolder = ChooseFolder() + "/fuzz-" + std::to_string(::getpid());
    std::filesystem::create_directories(sFolder);
    static const SilentOutput silence;
    g_pTarget = FindFuzzEntry(NFSLIB_FUZZ_ENTRY)->pfnMakeTarget(sFolder);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    const std::string sFailure = g_pTarget->Run({reinterpret_cast<const char*>(pBytes), nBytes});
    if (!sFailure.empty()) {
        std::fprintf(stderr, "%s\n", sFailure.c_str());
        std::abort();
    }
    return 0;
}
