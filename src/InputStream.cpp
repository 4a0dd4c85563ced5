// Decoding of XDR values (RFC 4506) from received bytes.
#include "InputStream.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <endian.h>

#include "DataException.h"

void CInputStream::AddFilledBufferSize(unsigned int n) {
    m_iSize += std::min(n, GetFreeBufferSize());
    if (m_nToDiscard > 0) {
        Discard(m_nToDiscard);
    }
}

void CInputStream::ConsolidateBuffer(unsigned int iThreshold) {
    if (m_iIndex < iThreshold || m_iIndex == 0) {
        return;
    }
    const unsigned int nUnread = GetFilledBufferSize();
    std::memmove(m_pcBuffer.get(), GetCurrentBuffer(), nUnread);
    m_iSearchedFrom -= std::min(m_iSearchedFrom, m_iIndex);
    m_iSearchedTo -= std::min(m_iSearchedTo, m_iIndex);
    m_iIndex = 0;
    m_iSize = nUnread;
}

void CInputStream::SetBufferIndex(unsigned int i) {
    m_iIndex = std::min(i, m_iSize);
}

const char* CInputStream::GetFilledBuffer(unsigned int iOffset, unsigned int iLen) const {
    const unsigned int nUnread = GetFilledBufferSize();
    if (iOffset > nUnread || iLen > nUnread - iOffset) {
        return nullptr;
    }
    return GetCurrentBuffer() + iOffset;
}

void CInputStream::ResetBuffer() {
    m_iIndex = 0;
    m_iSize = 0;
    m_iSearchedFrom = 0;
    m_iSearchedTo = 0;
    m_nToDiscard = 0;
}

void CInputStream::Discard(unsigned int n) {
    const unsigned int nNow = std::min(n, GetFilledBufferSize());
    m_iIndex += nNow;
    m_nToDiscard = n - nNow;
}

unsigned int CInputStream::HideBehind(unsigned int iPosition) {
    const unsigned int iEnd = std::clamp(iPosition, m_iIndex, m_iSize);
    const unsigned int nHidden = m_iSize - iEnd;
    m_iSize = iEnd;
    return nHidden;
}

void CInputStream::NoteSearched(unsigned int iFrom, unsigned int iTo) {
    if (iFrom >= iTo) {
        return;
    }
    if (iFrom < m_iSearchedFrom || iFrom > m_iSearchedTo) {
        m_iSearchedFrom = iFrom;
        m_iSearchedTo = iTo;
    } else {
        m_iSearchedTo = std::max(m_iSearchedTo, iTo);
    }
}

unsigned int CInputStream::GetSearchStart(unsigned int iFrom) const {
    return iFrom >= m_iSearchedFrom && iFrom < m_iSearchedTo ? m_iSearchedTo : iFrom;
}

unsigned int CInputStream::Read(void* pvData, unsigned int iSize) {
    Need(iSize);
    if (iSize > 0) {
        std::memcpy(pvData, GetCurrentBuffer(), iSize);
        m_iIndex += iSize;
    }
    return iSize;
}

unsigned int CInputStream::Read8(unsigned long* plValue) {
    std::uint64_t lBigEndian = 0;
    Read(&lBigEndian, sizeof(lBigEndian));
    *plValue = be64toh(lBigEndian);
    return sizeof(lBigEndian);
}

unsigned int CInputStream::SkipRemainOpaque(unsigned int iSize) {
    return Skip((4 - (iSize & 3U)) & 3U);
}

void CInputStream::ThrowTruncated(unsigned int iSize) const {
    throw CDataTruncatedExpt(iSize, GetFilledBufferSize());
}
