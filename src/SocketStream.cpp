// The buffer that both XDR streams share.
#include "SocketStream.h"

#include <cstddef>
#include <cstring>
#include <new>

#include <endian.h>
#include <sys/mman.h>

namespace {

/// Enough for a page of the processors that are served (x86-64).
constexpr std::size_t kGuardSize = 4096;

}  // namespace

CSocketStream::CSocketStream() : m_pcBuffer(MapBuffer()) {}

/// Maps the buffer and its guard. Untouched pages take no memory: a connection slot that is never used costs none.
char* CSocketStream::MapBuffer() {
    constexpr std::size_t kSize = GetMaxBufferSize() + kGuardSize;
    void* pvBuffer = ::mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pvBuffer == MAP_FAILED) {
        throw std::bad_alloc();
    }
    std::unique_ptr<char[], Unmap> pcBuffer(static_cast<char*>(pvBuffer));
    if (::mprotect(pcBuffer.get(), GetMaxBufferSize(), PROT_READ | PROT_WRITE) != 0) {
        throw std::bad_alloc();
    }
    return pcBuffer.release();
}

void CSocketStream::Unmap::operator()(char* pcBuffer) const {
    ::munmap(pcBuffer, GetMaxBufferSize() + kGuardSize);  // cannot fail for what was mapped
}

unsigned int CSocketStream::ReverseByteOrder(const unsigned int* piValue) {
    unsigned int iBigEndian = 0;
    std::memcpy(&iBigEndian, static_cast<const void*>(piValue), sizeof(iBigEndian));
    return be32toh(iBigEndian);
}
