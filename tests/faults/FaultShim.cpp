// Preloaded into a console by the tests: passes system calls on, but for the one that is to go wrong.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <new>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "FaultControl.h"

#define FAULTY extern "C" __attribute__((visibility("default")))

namespace {

/// The function of that name that would be called without this library.
template <typename Function>
Function* Next(const char* pcName) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, pcName));
}

/// Null before the control file is mapped.
FaultControl* g_pControl = nullptr;

/// Not before the program has begun: the sanitizers' own preparations make calls too.
void MapControl() {
    const char* pcPath = std::getenv(FaultControl::kFileVariable);
    const long iFile = pcPath == nullptr ? -1 : ::syscall(SYS_openat, AT_FDCWD, pcPath, O_RDWR | O_CLOEXEC);
    if (iFile < 0) {
        return;
    }
    void* pvControl = Next<decltype(::mmap)>("mmap")(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED,
                                                     static_cast<int>(iFile), 0);
    ::syscall(SYS_close, iFile);
    g_pControl = pvControl == MAP_FAILED ? nullptr : static_cast<FaultControl*>(pvControl);
}

/// Counts a call of that group; true for the one that is to go wrong in that way.
bool IsDue(FaultyCall call, FaultKind kind = FaultKind::kError) {
    if (g_pControl == nullptr || g_pControl->iCall != static_cast<int>(call) ||
        g_pControl->iKind != static_cast<int>(kind)) {
        return false;
    }
    int nLeft = g_pControl->nCountdown;
    while (nLeft > 0 && !g_pControl->nCountdown.compare_exchange_weak(nLeft, nLeft - 1)) {
    }
    if (nLeft != 1) {
        return false;
    }
    errno = g_pControl->iError;
    return true;
}

/// Half of a length, but for nothing not nothing.
std::size_t Half(std::size_t nBytes) {
    return std::max<std::size_t>(nBytes / 2, std::min<std::size_t>(nBytes, 1));
}

/// What a transfer is asked for: half of it if it is due to be cut short.
std::size_t Cut(FaultyCall call, std::size_t nBytes) {
    return IsDue(call, FaultKind::kShort) ? Half(nBytes) : nBytes;
}

}  // namespace

// A function with the arguments and the result of the one it stands for, which fails with -1.
#define PASS(call, result, name, parameters, arguments)                             \
    FAULTY result name parameters {                                                 \
        static auto* const pNext = Next<result parameters>(#name);                  \
        return IsDue(FaultyCall::call) ? static_cast<result>(-1) : pNext arguments; \
    }

// ---- Files

FAULTY int open(const char* pcPath, int iFlags, ...) {
    va_list arguments;
    va_start(arguments, iFlags);
    const mode_t iMode = (iFlags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static auto* const pNext = Next<int(const char*, int, ...)>("open");
    return IsDue(FaultyCall::kOpen) ? -1 : pNext(pcPath, iFlags, iMode);
}

FAULTY int openat(int iFolder, const char* pcPath, int iFlags, ...) {
    va_list arguments;
    va_start(arguments, iFlags);
    const mode_t iMode = (iFlags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static auto* const pNext = Next<int(int, const char*, int, ...)>("openat");
    return IsDue(FaultyCall::kOpen) ? -1 : pNext(iFolder, pcPath, iFlags, iMode);
}

FAULTY long syscall(long iNumber, ...) noexcept {
    long viArguments[6];
    va_list arguments;
    va_start(arguments, iNumber);
    for (long& iArgument : viArguments) {
        iArgument = va_arg(arguments, long);
    }
    va_end(arguments);
    static auto* const pNext = Next<long(long, ...)>("syscall");
    if (iNumber == SYS_openat2 && IsDue(FaultyCall::kOpen)) {
        return -1;
    }
    return pNext(iNumber, viArguments[0], viArguments[1], viArguments[2], viArguments[3], viArguments[4],
                 viArguments[5]);
}

PASS(kStat, int, stat, (const char* pcPath, struct stat* pStatus), (pcPath, pStatus))
PASS(kStat, int, lstat, (const char* pcPath, struct stat* pStatus), (pcPath, pStatus))
PASS(kStat, int, fstat, (int iFile, struct stat* pStatus), (iFile, pStatus))
PASS(kStat, int, fstatat, (int iFolder, const char* pcPath, struct stat* pStatus, int iFlags),
     (iFolder, pcPath, pStatus, iFlags))
PASS(kStat, int, statfs, (const char* pcPath, struct statfs* pStatus), (pcPath, pStatus))
PASS(kStat, int, fstatfs, (int iFile, struct statfs* pStatus), (iFile, pStatus))
PASS(kStat, int, statvfs, (const char* pcPath, struct statvfs* pStatus), (pcPath, pStatus))
PASS(kStat, int, fstatvfs, (int iFile, struct statvfs* pStatus), (iFile, pStatus))
PASS(kResolve, ssize_t, readlink, (const char* pcPath, char* pcLink, std::size_t nLink), (pcPath, pcLink, nLink))
PASS(kPoll, int, poll, (pollfd * pPolled, nfds_t nPolled, int iLimitMs), (pPolled, nPolled, iLimitMs))
PASS(kSeek, off_t, lseek, (int iFile, off_t iOffset, int iWhence), (iFile, iOffset, iWhence))
PASS(kChange, int, rename, (const char* pcOld, const char* pcNew), (pcOld, pcNew))
PASS(kChange, int, renameat2, (int iOld, const char* pcOld, int iNew, const char* pcNew, unsigned int iFlags),
     (iOld, pcOld, iNew, pcNew, iFlags))
PASS(kChange, int, renameat, (int iOld, const char* pcOld, int iNew, const char* pcNew), (iOld, pcOld, iNew, pcNew))
PASS(kChange, int, mkdir, (const char* pcPath, mode_t iMode), (pcPath, iMode))
PASS(kChange, int, mkdirat, (int iFolder, const char* pcPath, mode_t iMode), (iFolder, pcPath, iMode))
PASS(kChange, int, remove, (const char* pcPath), (pcPath))
PASS(kChange, int, unlink, (const char* pcPath), (pcPath))
PASS(kChange, int, unlinkat, (int iFolder, const char* pcPath, int iFlags), (iFolder, pcPath, iFlags))
PASS(kChange, int, rmdir, (const char* pcPath), (pcPath))
PASS(kChange, int, ftruncate, (int iFile, off_t iSize), (iFile, iSize))

FAULTY char* realpath(const char* pcPath, char* pcResolved) noexcept {
    static auto* const pNext = Next<char*(const char*, char*)>("realpath");
    return IsDue(FaultyCall::kResolve) ? nullptr : pNext(pcPath, pcResolved);
}

FAULTY int fcntl(int iFile, int iCommand, ...) {
    va_list arguments;
    va_start(arguments, iCommand);
    const long iArgument = va_arg(arguments, long);
    va_end(arguments);
    static auto* const pNext = Next<int(int, int, ...)>("fcntl");
    return IsDue(FaultyCall::kControl) ? -1 : pNext(iFile, iCommand, iArgument);
}

FAULTY int close(int iFile) {
    static auto* const pNext = Next<int(int)>("close");
    const int iResult = pNext(iFile);
    return IsDue(FaultyCall::kClose) ? -1 : iResult;
}

FAULTY DIR* opendir(const char* pcPath) {
    static auto* const pNext = Next<DIR*(const char*)>("opendir");
    return IsDue(FaultyCall::kListing) ? nullptr : pNext(pcPath);
}

FAULTY DIR* fdopendir(int iFolder) {
    static auto* const pNext = Next<DIR*(int)>("fdopendir");
    return IsDue(FaultyCall::kListing) ? nullptr : pNext(iFolder);
}

FAULTY dirent64* readdir64(DIR* pFolder) {
    static auto* const pNext = Next<dirent64*(DIR*)>("readdir64");
    return IsDue(FaultyCall::kListing) ? nullptr : pNext(pFolder);
}

// ---- Transfers, which may also move less than was asked

#define TRANSFER(call, name, parameters, arguments)                 \
    FAULTY ssize_t name parameters {                                \
        static auto* const pNext = Next<ssize_t parameters>(#name); \
        if (IsDue(FaultyCall::call)) {                              \
            return -1;                                              \
        }                                                           \
        nBytes = Cut(FaultyCall::call, nBytes);                     \
        return pNext arguments;                                     \
    }

TRANSFER(kRead, read, (int iFile, void* pvData, std::size_t nBytes), (iFile, pvData, nBytes))
TRANSFER(kRead, pread, (int iFile, void* pvData, std::size_t nBytes, off_t iOffset), (iFile, pvData, nBytes, iOffset))
TRANSFER(kWrite, write, (int iFile, const void* pvData, std::size_t nBytes), (iFile, pvData, nBytes))
TRANSFER(kWrite, pwrite, (int iFile, const void* pvData, std::size_t nBytes, off_t iOffset),
         (iFile, pvData, nBytes, iOffset))
TRANSFER(kReceive, recv, (int iSocket, void* pvData, std::size_t nBytes, int iFlags), (iSocket, pvData, nBytes, iFlags))
TRANSFER(kSend, send, (int iSocket, const void* pvData, std::size_t nBytes, int iFlags),
         (iSocket, pvData, nBytes, iFlags))

// Cut short it reads half of its first part, and nothing into the others.
FAULTY ssize_t preadv2(int iFile, const iovec* pParts, int nParts, off_t iOffset, int iFlags) {
    static auto* const pNext = Next<ssize_t(int, const iovec*, int, off_t, int)>("preadv2");
    if (IsDue(FaultyCall::kRead)) {
        return -1;
    }
    if (nParts > 0 && IsDue(FaultyCall::kRead, FaultKind::kShort)) {
        const iovec part{pParts->iov_base, Half(pParts->iov_len)};
        return pNext(iFile, &part, 1, iOffset, iFlags);
    }
    return pNext(iFile, pParts, nParts, iOffset, iFlags);
}

PASS(kReceive, ssize_t, recvmsg, (int iSocket, msghdr* pMessage, int iFlags), (iSocket, pMessage, iFlags))

// Cut short it sends half of its last part; a part of no bytes stays one.
FAULTY ssize_t sendmsg(int iSocket, const msghdr* pMessage, int iFlags) {
    static auto* const pNext = Next<ssize_t(int, const msghdr*, int)>("sendmsg");
    if (IsDue(FaultyCall::kSend)) {
        return -1;
    }
    constexpr std::size_t kMostParts = 8;
    msghdr message = *pMessage;
    iovec parts[kMostParts];
    if (message.msg_iovlen > 0 && message.msg_iovlen <= kMostParts) {
        std::copy_n(message.msg_iov, message.msg_iovlen, parts);
        iovec& last = parts[message.msg_iovlen - 1];
        last.iov_len = Cut(FaultyCall::kSend, last.iov_len);
        message.msg_iov = parts;
    }
    return pNext(iSocket, &message, iFlags);
}

// ---- Connections, threads and memory

PASS(kAccept, int, accept4, (int iSocket, sockaddr* pAddress, socklen_t* pnAddress, int iFlags),
     (iSocket, pAddress, pnAddress, iFlags))
PASS(kConnect, int, listen, (int iSocket, int nWaiting), (iSocket, nWaiting))
PASS(kConnect, int, connect, (int iSocket, const sockaddr* pAddress, socklen_t nAddress), (iSocket, pAddress, nAddress))
PASS(kMap, int, mprotect, (void* pvMemory, std::size_t nBytes, int iProtection), (pvMemory, nBytes, iProtection))

// The first thing that a server does which others can see.
FAULTY int bind(int iSocket, const sockaddr* pAddress, socklen_t nAddress) noexcept {
    static auto* const pNext = Next<int(int, const sockaddr*, socklen_t)>("bind");
    if (g_pControl == nullptr) {
        MapControl();
    }
    return IsDue(FaultyCall::kConnect) ? -1 : pNext(iSocket, pAddress, nAddress);
}

FAULTY int socket(int iDomain, int iType, int iProtocol) noexcept {
    static auto* const pNext = Next<int(int, int, int)>("socket");
    return IsDue(FaultyCall::kConnect) ? -1 : pNext(iDomain, iType, iProtocol);
}

FAULTY void* mmap(void* pvAt, std::size_t nBytes, int iProtection, int iFlags, int iFile, off_t iOffset) noexcept {
    static auto* const pNext = Next<void*(void*, std::size_t, int, int, int, off_t)>("mmap");
    return IsDue(FaultyCall::kMap) ? MAP_FAILED : pNext(pvAt, nBytes, iProtection, iFlags, iFile, iOffset);
}

FAULTY int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pStart)(void*),
                          void* pvArgument) {
    static auto* const pNext = Next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return IsDue(FaultyCall::kThread) ? errno : pNext(pThread, pAttributes, pStart, pvArgument);
}

// The sanitizers have operators of their own, which must stay a pair.
#if !defined(NFSLIB_SANITIZED)
__attribute__((visibility("default"))) void* operator new(std::size_t nBytes) {
    void* pvMemory = IsDue(FaultyCall::kMemory) ? nullptr : std::malloc(nBytes);
    if (pvMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pvMemory;
}

__attribute__((visibility("default"))) void operator delete(void* pvMemory) noexcept {
    std::free(pvMemory);
}

__attribute__((visibility("default"))) void operator delete(void* pvMemory, std::size_t /*nBytes*/) noexcept {
    std::free(pvMemory);
}
#endif
