// What a test and the library that it preloads into a server share: which system call is to go wrong, and when.
#pragma once

#include <atomic>

/// The calls that can be made to fail, each a group of functions that do the same.
enum class FaultyCall : int {
    kNone,
    kOpen,     ///< open, openat2
    kStat,     ///< the status of a path or descriptor, and of a file system
    kRead,     ///< pread, preadv2 and read
    kWrite,    ///< pwrite and write
    kSeek,     ///< lseek
    kChange,   ///< rename, mkdir, unlink, rmdir, truncate
    kListing,  ///< opening and reading a directory
    kClose,    ///< close, which has closed all the same
    kAccept,   ///< accept
    kConnect,  ///< socket, bind, listen and connect
    kReceive,  ///< recv and recvmsg
    kSend,     ///< send and sendmsg
    kThread,   ///< the making of a thread
    kMap,      ///< mmap and mprotect: large buffers
    kMemory,   ///< operator new
    kResolve,  ///< readlink and realpath
    kControl,  ///< fcntl
    kPoll,     ///< poll
};

enum class FaultKind : int {
    kError,  ///< the call fails with the error number
    kShort,  ///< a transfer moves half of what was asked
};

/// Lies in a file that both have mapped. The test sets call, kind and error first and the countdown last; the server's
/// threads count it down to the call that goes wrong.
struct FaultControl {
    std::atomic<int> iCall;
    std::atomic<int> iKind;
    std::atomic<int> iError;
    std::atomic<int> nCountdown;  ///< 0: nothing is to go wrong (any more)

    static constexpr const char* kFileVariable = "NFSLIB_TEST_FAULTS";
};
