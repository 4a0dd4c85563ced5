// Descriptors, limits and signals of the console program.
#include "ConsoleProcess.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

std::atomic<bool> g_bEndRequested{false};
std::atomic<int> g_iEndEvent{-1};  ///< readable once the end is requested
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "a signal handler may only touch lock-free objects");

void RequestEnd(int /*iSignal*/) {
    const int iSavedError = errno;
    g_bEndRequested.store(true);
    const std::uint64_t iOne = 1;
    // a full counter is readable already, and a failure costs one polling interval at most
    [[maybe_unused]] const ssize_t iIgnored = ::write(g_iEndEvent.load(), &iOne, sizeof(iOne));
    errno = iSavedError;
}

void IgnoreSignal(int /*iSignal*/) {}

void Handle(int iSignal, void (*pfnHandler)(int)) {
    struct sigaction action {};
    action.sa_handler = pfnHandler;
    action.sa_flags = SA_RESTART;  // calls in progress on the server's threads go on
    ::sigemptyset(&action.sa_mask);
    ::sigaction(iSignal, &action, nullptr);  // cannot fail for these signals
}

void OpenStandardDescriptors() {
    int iFile = 0;
    do {
        iFile = ::open("/dev/null", O_RDWR);  // NOLINT(android-cloexec-open): commands inherit the standard descriptors
    } while (iFile >= 0 && iFile <= STDERR_FILENO);
    if (iFile > STDERR_FILENO) {
        ::close(iFile);
    }
}

void RaiseOpenFileLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);  // refused: the old limit serves on
    }
}

void InstallSignalHandlers() {
    g_iEndEvent.store(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    sigset_t ours;
    ::sigemptyset(&ours);
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP}) {
        Handle(iSignal, RequestEnd);
        ::sigaddset(&ours, iSignal);
    }
    // A handler instead of SIG_IGN: commands that the console runs must not inherit an ignored SIGPIPE.
    Handle(SIGPIPE, IgnoreSignal);
    // Writing past a limit of the file size is to fail as any write may, not to end the server.
    Handle(SIGXFSZ, IgnoreSignal);
    // Ignored by a careless parent, the status of commands could not be told.
    std::signal(SIGCHLD, SIG_DFL);
    ::sigaddset(&ours, SIGCHLD);
    ::sigprocmask(SIG_UNBLOCK, &ours, nullptr);
}

}  // namespace

void PrepareConsoleProcess() {
    OpenStandardDescriptors();
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    RaiseOpenFileLimit();
    InstallSignalHandlers();
}

bool IsConsoleEndRequested() {
    return g_bEndRequested.load();
}

int GetConsoleEndDescriptor() {
    return g_iEndEvent.load();
}

void SleepUnlessConsoleEnds(int iMilliseconds) {
    pollfd event{g_iEndEvent.load(), POLLIN, 0};
    ::poll(&event, 1, iMilliseconds);  // interrupted early: the caller looks at its conditions and comes back
}
