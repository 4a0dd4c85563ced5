// The buffer that both XDR streams share.
#include "SocketStream.h"

#include <cstring>
#include <new>

#include <endian.h>

// calloc leaves the pages untouched: a connection slot that is never used costs no memory.
CSocketStream::CSocketStream() : m_pcBuffer(static_cast<char*>(std::calloc(GetMaxBufferSize(), 1))) {
    if (!m_pcBuffer) {
        throw std::bad_alloc();
    }
}

unsigned int CSocketStream::ReverseByteOrder(const unsigned int* piValue) {
    unsigned int iBigEndian = 0;
    std::memcpy(&iBigEndian, static_cast<const void*>(piValue), sizeof(iBigEndian));
    return be32toh(iBigEndian);
}
