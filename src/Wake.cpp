// A descriptor that is readable while something is to be noticed.
#include "Wake.h"

#include <sys/eventfd.h>

CWake::CWake() : m_Event(CDescriptor::AboveStandard(CDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))) {}

void CWake::Set() {
    if (m_Event.IsOpen()) {
        ::eventfd_write(m_Event.Get(), 1);  // fails only where it is readable anyway
    }
}

void CWake::Clear() {
    eventfd_t iCount = 0;
    if (m_Event.IsOpen()) {
        ::eventfd_read(m_Event.Get(), &iCount);  // fails only where there is nothing to clear
    }
}
