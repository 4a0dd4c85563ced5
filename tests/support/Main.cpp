// The main of every test program.
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Isolation.h"
#include "Trees.h"

#if defined(__SANITIZE_ADDRESS__)
/// For this process; the programs it starts get tests/support/leaks.supp, which says the same.
// NOLINTNEXTLINE(bugprone-reserved-identifier): LeakSanitizer's name
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:__rpc_uaddr2taddr_af\n";
}
#endif

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        if (const char* pcWhy = IsolateProcess(); pcWhy != nullptr) {
            std::printf("Not isolated: %s\n", pcWhy);
        } else if (::chdir("/tmp") != 0) {
            std::perror("chdir");
            return 1;
        }
    }
    const std::string sSuppressions = SourceTree() + "/tests/support/leaks.supp";
    ::setenv("LSAN_OPTIONS", ("suppressions=" + sSuppressions + ":print_suppressions=0").c_str(), 0);
    // A thread sanitizer starts a thread of its own beside the first one: before any test counts threads.
    std::thread([] {}).join();
    return RUN_ALL_TESTS();
}
