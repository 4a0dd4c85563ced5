// The standard descriptors of a program that may have been started without them.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <unistd.h>

/// Fills the free ones among descriptors 0 to 2 with the null device, so that nothing that is opened later takes their
/// place: what is printed would go into a file or to a server. It is opened the wrong way round, so that who reads the
/// input, or writes to the output, fails as with a closed descriptor. Done before anything else is opened.
inline void FillStandardDescriptors() {
    for (int iFree = 0; iFree <= STDERR_FILENO;) {
        if (::fcntl(iFree, F_GETFD) >= 0) {
            ++iFree;
        } else if (::open("/dev/null", iFree == STDIN_FILENO ? O_WRONLY : O_RDONLY) != iFree) {  // NOLINT(*-cloexec-*)
            ::_exit(1);  // there is no stream to say why on
        }
    }
}

/// Sends what is still to be printed on its way. Throws std::runtime_error if that, or anything printed before, failed.
inline void FinishOutput() {
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw std::runtime_error(std::string("standard output: ") +
                                 (errno != 0 ? std::strerror(errno) : "not everything could be written"));
    }
}
