// libFuzzer's entry, for the door named when it was compiled: rpc_fuzzer tests/fuzz/corpus
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <unistd.h>

#include "FuzzEntries.h"
#include "Isolation.h"
#include "SilentOutput.h"

namespace {

std::unique_ptr<FuzzTarget> g_pTarget;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*pnArguments*/, char*** /*pvpcArguments*/) {
    // Corpus and findings may lie below /tmp: where a folder is named, the process keeps the /tmp it has.
    std::string sFolder = "/tmp";
    if (const char* pcFolder = std::getenv("NFSLIB_FUZZ_FOLDER"); pcFolder != nullptr) {
        sFolder = pcFolder;
    } else if (const char* pcWhy = IsolateProcess(); pcWhy != nullptr) {
        std::fprintf(stderr, "not isolated: %s\n", pcWhy);
        std::exit(1);
    }
    sFolder += "/fuzz-" + std::to_string(::getpid());
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
