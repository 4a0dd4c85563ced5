// The user's wish that the program ends, as a descriptor.
#include "Interruption.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include <sys/signalfd.h>
#include <unistd.h>

#include "NfsError.h"

Interruption::Interruption() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::sigaddset(&signals, SIGHUP);
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
