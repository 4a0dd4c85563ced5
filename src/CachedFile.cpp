// A shared, open file descriptor.
#include "CachedFile.h"

#include <unistd.h>

#include "Descriptor.h"

CCachedFile::CCachedFile(int iFile) {
    CDescriptor owned(iFile);  // closes it if there is no memory for the rest
    if (owned.IsOpen()) {
        m_pOpened = std::make_shared<Opened>(iFile);
        static_cast<void>(owned.Release());
    }
}

CCachedFile::Opened::~Opened() {
    const int iLast = iFile.load();
    if (iLast != -1) {
        ::close(iLast);  // the last user is gone; nobody is left to tell of a failure
    }
}

int CCachedFile::ReleaseIfLast() {
    int iFile = -1;
    // A count of one cannot rise again: only this object could be copied from, and it is ours.
    if (m_pOpened && m_pOpened.use_count() == 1) {
        iFile = m_pOpened->iFile.exchange(-1);
    }
    m_pOpened.reset();
    return iFile;
}
