// libFuzzer's entry (clang, -DNFSLIB_FUZZ=ON): ipc_fuzzer tests/fuzz/corpus-ipc
#include "IpcFuzz.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

namespace {

std::unique_ptr<IpcFuzzWorld> g_pWorld;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_pWorld = std::make_unique<IpcFuzzWorld>("/tmp/nfs-fuzz-" + std::to_string(::getpid()));
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
