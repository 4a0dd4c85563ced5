// Standard output that nobody reads.
#pragma once

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "Descriptor.h"

/// Within its scope what is printed to standard output is dropped.
class SilentOutput {
public:
    SilentOutput() : m_Before((std::fflush(stdout), ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))) {
        const CDescriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        ::dup2(nowhere.Get(), STDOUT_FILENO);
    }
    ~SilentOutput() {
        std::fflush(stdout);
        ::dup2(m_Before.Get(), STDOUT_FILENO);
    }
    SilentOutput(const SilentOutput&) = delete;
    SilentOutput& operator=(const SilentOutput&) = delete;

private:
    CDescriptor m_Before;
};
