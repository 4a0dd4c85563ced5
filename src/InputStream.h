// XDR input (RFC 4506): decodes what a socket received.
#pragma once

#include <cstdint>
#include <cstring>

#include <endian.h>

#include "SocketStream.h"

/// Received bytes and a read position. Every decoder throws CDataTruncatedExpt, and moves nothing, when fewer
/// bytes are left than it needs.
class CInputStream : public CSocketStream {
public:
    // ---- Buffer management, for the socket's thread

    /// The first unfilled byte; GetFreeBufferSize() bytes may be written there.
    char* GetFreeBuffer() { return m_pcBuffer.get() + m_iSize; }
    unsigned int GetFreeBufferSize() const { return GetMaxBufferSize() - m_iSize; }
    /// Counts n more bytes as received; bounded by the free size.
    void AddFilledBufferSize(unsigned int n);
    /// Moves the unread bytes to the front once the read position has reached the threshold.
    void ConsolidateBuffer(unsigned int iThreshold);
    unsigned int GetBufferIndex() const { return m_iIndex; }
    /// Sets the read position; one past the received bytes is taken as their end.
    void SetBufferIndex(unsigned int i);
    /// The unread byte at the offset, provided that many bytes from there are unread; else null. Moves nothing.
    const char* GetFilledBuffer(unsigned int iOffset, unsigned int iLen) const;
    /// The number of unread bytes.
    unsigned int GetFilledBufferSize() const { return m_iSize - m_iIndex; }
    const char* GetCurrentBuffer() const { return m_pcBuffer.get() + m_iIndex; }
    void ResetBuffer();
    /// Passes over the next n bytes, those that have not come yet included: they are dropped as they come.
    void Discard(unsigned int n);
    /// Makes the received bytes end at a buffer position for the time being; returns how many are hidden by that, for
    /// Unhide. Nothing may be received meanwhile.
    unsigned int HideBehind(unsigned int iPosition);
    void Unhide(unsigned int nHidden) { m_iSize += nHidden; }

    // ---- Searching
    // Bytes that stay in the buffer are searched once, however often more bytes arrive behind them.

    /// Remembers that nothing was found at the buffer positions from iFrom up to, not including, iTo.
    void NoteSearched(unsigned int iFrom, unsigned int iTo);
    /// Where a search from buffer position iFrom has to begin: behind what was searched before, if iFrom lies in it.
    unsigned int GetSearchStart(unsigned int iFrom) const;

    // ---- Decoding

    /// Copies raw bytes; returns their number.
    unsigned int Read(void* pvData, unsigned int iSize);
    /// A big-endian unsigned 32-bit value; returns 4.
    unsigned int Read(unsigned int* piValue);
    /// A big-endian unsigned 64-bit value; returns 8.
    unsigned int Read8(unsigned long* plValue);
    /// Passes over bytes; returns their number.
    unsigned int Skip(unsigned int iSize);
    /// Passes over the padding behind opaque data of the given size (RFC 4506, 4.10); returns 0 to 3.
    unsigned int SkipRemainOpaque(unsigned int iSize);

private:
    void Need(unsigned int iSize) const {
        if (iSize > GetFilledBufferSize()) {
            ThrowTruncated(iSize);
        }
    }
    [[noreturn]] void ThrowTruncated(unsigned int iSize) const;

    unsigned int m_iSearchedFrom = 0;  ///< the stretch of buffer positions searched in vain
    unsigned int m_iSearchedTo = 0;
    unsigned int m_nToDiscard = 0;  ///< of the bytes still to come; while it is not 0 nothing is unread
};

// ---- Word by word: part of every call

inline unsigned int CInputStream::Read(unsigned int* piValue) {
    std::uint32_t iBigEndian = 0;
    Need(sizeof(iBigEndian));
    std::memcpy(&iBigEndian, GetCurrentBuffer(), sizeof(iBigEndian));
    m_iIndex += static_cast<unsigned int>(sizeof(iBigEndian));
    *piValue = be32toh(iBigEndian);
    return sizeof(iBigEndian);
}

inline unsigned int CInputStream::Skip(unsigned int iSize) {
    Need(iSize);
    m_iIndex += iSize;
    return iSize;
}
