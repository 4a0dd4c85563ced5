// Encoding of XDR values (RFC 4506) into a reply.
#include "OutputStream.h"

#include <algorithm>
#include <cstdint>

void COutputStream::Seek(int iOffset, int iType) {
    std::int64_t lPosition = iOffset;
    switch (iType) {
        case 0:
            break;
        case 1:
            lPosition += m_iIndex;
            break;
        case 2:
            lPosition += m_iSize;
            break;
        default:
            return;
    }
    m_iIndex = static_cast<unsigned int>(std::clamp<std::int64_t>(lPosition, 0, GetMaxBufferSize()));
}

// Zeros, not a mere step: what the buffer held before must not reach a client, and the padding of a reply's last
// opaque is part of the reply.
unsigned int COutputStream::WriteRemainOpaque(int iSize) {
    static constexpr char kZeros[3] = {};
    const unsigned int nPadding = (4 - (static_cast<unsigned int>(iSize) & 3U)) & 3U;
    Write(kZeros, nPadding);
    return nPadding;
}

void COutputStream::ResetBuffer() {
    m_iIndex = 0;
    m_iSize = 0;
}

void COutputStream::FreeBuffer(unsigned int iSize) {
    if (iSize >= m_iSize) {
        ResetBuffer();
        return;
    }
    std::memmove(m_pcBuffer.get(), m_pcBuffer.get() + iSize, m_iSize - iSize);
    m_iSize -= iSize;
    if (m_iIndex <= iSize) {
        m_iIndex = 0;
    }
}
