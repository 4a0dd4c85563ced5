// Preloaded into a console by the tests: storage that takes every write and loses it at the flush.
#include <cerrno>

extern "C" __attribute__((visibility("default"))) int fdatasync(int /*iFile*/) {
    errno = ENOSPC;
    return -1;
}
