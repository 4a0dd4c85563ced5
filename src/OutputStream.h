// XDR output (RFC 4506): a reply being built.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <endian.h>

#include "SocketStream.h"

/// A write position and the high-water mark of what was written. What does not fit into the buffer is dropped.
class COutputStream : public CSocketStream {
public:
    /// Copies bytes to the write position, as many as fit; null data only advances. Returns the number written.
    unsigned int Write(const void* pvData, unsigned int iSize);
    /// A big-endian 32-bit word.
    unsigned int Write(unsigned int iValue);
    /// Several big-endian 32-bit words in a row, written together.
    template <class... Words>
    unsigned int WriteWords(Words... iValues);
    /// A big-endian 64-bit word.
    unsigned int Write8(unsigned long lValue);
    /// Moves the write position: type 0 to the offset, 1 by it, 2 to the size plus it. Kept within the buffer;
    /// the size stays.
    void Seek(int iOffset, int iType);
    /// Writes the zero padding behind opaque data of the given size (RFC 4506, 4.10); returns 0 to 3, the bytes due.
    unsigned int WriteRemainOpaque(int iSize);

    char* GetBuffer() { return m_pcBuffer.get(); }
    /// The bytes to send.
    unsigned int GetBufferSize() const { return m_iSize; }
    unsigned int GetBufferIndex() const { return m_iIndex; }
    /// The room behind the write position.
    unsigned int GetFreeBufferSize() const { return GetMaxBufferSize() - m_iIndex; }
    char* GetCurrentBuffer() { return m_pcBuffer.get() + m_iIndex; }
    void ResetBuffer();
    /// Drops the first bytes after they were sent. The position becomes 0 only if it lay within them.
    void FreeBuffer(unsigned int iSize);
};

// ---- Word by word: part of every reply

inline unsigned int COutputStream::Write(const void* pvData, unsigned int iSize) {
    const unsigned int nWritten = std::min(iSize, GetFreeBufferSize());
    if (pvData != nullptr && nWritten > 0) {
        std::memcpy(GetCurrentBuffer(), pvData, nWritten);
    }
    m_iIndex += nWritten;
    m_iSize = std::max(m_iSize, m_iIndex);
    return nWritten;
}

inline unsigned int COutputStream::Write(unsigned int iValue) {
    const std::uint32_t iBigEndian = htobe32(iValue);
    return Write(&iBigEndian, sizeof(iBigEndian));
}

template <class... Words>
unsigned int COutputStream::WriteWords(Words... iValues) {
    const std::uint32_t viBigEndian[] = {htobe32(std::uint32_t{iValues})...};
    return Write(viBigEndian, sizeof(viBigEndian));
}

inline unsigned int COutputStream::Write8(unsigned long lValue) {
    const std::uint64_t lBigEndian = htobe64(lValue);
    return Write(&lBigEndian, sizeof(lBigEndian));
}
