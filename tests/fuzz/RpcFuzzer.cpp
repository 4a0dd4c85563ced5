// libFuzzer's entry (clang, -DNFSLIB_FUZZ=ON): rpc_fuzzer tests/fuzz/corpus
#include "RpcFuzz.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "Isolation.h"

namespace {

std::unique_ptr<RpcFuzzWorld> g_pWorld;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The corpus may lie below /tmp: only where nothing is hidden by a /tmp of its own is one made.
    if (const char* pcFolder = std::getenv("RPC_FUZZ_FOLDER"); pcFolder != nullptr) {
        g_pWorld = std::make_unique<RpcFuzzWorld>(pcFolder);
        return 0;
    }
    if (const char* pcWhy = IsolateProcess(); pcWhy != nullptr) {
        std::fprintf(stderr, "not isolated: %s\n", pcWhy);
        std::exit(1);
    }
    g_pWorld = std::make_unique<RpcFuzzWorld>("/tmp");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    const std::string sFailure = g_pWorld->Run({reinterpret_cast<const char*>(pBytes), nBytes});
    if (!sFailure.empty()) {
        std::fprintf(stderr, "%s\n", sFailure.c_str());
        std::abort();
    }
    return 0;
}
