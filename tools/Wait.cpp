// Waiting for descriptors.
#include "Wait.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include <poll.h>

#include "NfsError.h"

Ready WaitReady(Awaited first, Awaited second, int iInterrupt, int iMilliseconds) {
    std::array<pollfd, 3> entries{pollfd{first.iDescriptor, first.iEvents, 0},
                                  pollfd{second.iDescriptor, second.iEvents, 0}, pollfd{iInterrupt, POLLIN, 0}};
    if (::poll(entries.data(), entries.size(), iMilliseconds) < 0) {
        throw NfsError(std::string("poll: ") + std::strerror(errno));
    }
    return {entries[0].revents, entries[1].revents, entries[2].revents != 0};
}

void WaitFor(Awaited awaited, int iInterrupt) {
    if (WaitReady(awaited, {}, iInterrupt, kNoLimit).bInterrupt) {
        throw Interrupted();
    }
}
