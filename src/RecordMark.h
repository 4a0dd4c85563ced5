// The record mark in front of a call in a stream (RFC 5531, section 11).
#pragma once

#include "RpcMessage.h"
#include "SocketStream.h"

/// What a call's record mark tells of the call's end. Marks are not what calls are found by, and a client may send any:
/// whoever relies on one asks whether it is plausible first.
class CRecordMark {
public:
    /// A datagram has no mark: never plausible.
    constexpr CRecordMark() = default;
    /// The mark as a word in host byte order.
    explicit constexpr CRecordMark(unsigned int iMark) : m_iMark(iMark) {}

    /// True if a call may stand in that fragment: it holds the fixed part of a head at least, and fits into the input
    /// buffer together with its mark.
    constexpr bool IsPlausible() const {
        const unsigned int nLength = m_iMark & ~kLastFragment;
        return nLength >= sizeof(RPC_HEADER) && nLength <= CSocketStream::GetMaxBufferSize() - sizeof(m_iMark);
    }
    /// True if the record ends with this fragment.
    constexpr bool IsLast() const { return (m_iMark & kLastFragment) != 0; }
    /// From the mark's first byte to the fragment's end. For a plausible mark.
    constexpr unsigned int GetSize() const {
        return (m_iMark & ~kLastFragment) + static_cast<unsigned int>(sizeof(m_iMark));
    }

private:
    static constexpr unsigned int kLastFragment = 0x80000000U;

    unsigned int m_iMark = 0;
};
