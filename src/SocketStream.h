// The byte buffer under both XDR streams.
#pragma once

#include <cstdlib>
#include <memory>

/// A buffer of 1 MiB with a position and a count of valid bytes. Made once per socket and reused for every call.
/// Not locked: the thread of the socket that owns the stream is its only user. Never copied.
class CSocketStream {
public:
    CSocketStream();
    virtual ~CSocketStream() = default;
    CSocketStream(const CSocketStream&) = delete;
    CSocketStream& operator=(const CSocketStream&) = delete;

    /// 1 MiB: room for the largest call and reply (64 KiB of data and its head) many times over.
    static constexpr unsigned int GetMaxBufferSize() { return 1048576; }

    /// The big-endian 32-bit word at any, also unaligned, address.
    static unsigned int ReverseByteOrder(const unsigned int* piValue);

protected:
    struct Free {
        void operator()(char* pcBuffer) const { std::free(pcBuffer); }
    };
    std::unique_ptr<char[], Free> m_pcBuffer;  ///< GetMaxBufferSize() bytes, zero at the start, untouched until used
    unsigned int m_iIndex = 0;                 ///< read position (input) or write position (output)
    unsigned int m_iSize = 0;                  ///< valid bytes; for output the high-water mark
};
