// The user's wish that the program ends, as a descriptor.
#include "Interruption.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include <sys/signalfd.h>
#include <unistd.h>

#include "NfsError.h"

namespace {

/// Whether whoever started the program wants it to outlive a signal, as nohup does, and a script for what it starts in
/// the background.
bool IsIgnored(int iSignal) {
    struct sigaction action {};
    return ::sigaction(iSignal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Interruption::Interruption() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP}) {
        if (!IsIgnored(iSignal)) {  // a blocked signal would be noticed although it is ignored
            ::sigaddset(&signals, iSignal);
        }
    }
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_iSignals = ::signalfd(-1, &signals, SFD_CLOEXEC);
    if (m_iSignals < 0) {
        throw NfsError(std::string("signalfd: ") + std::strerror(errno));
    }
    std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is a failed local write
}

Interruption::~Interruption() {
    ::close(m_iSignals);
}
