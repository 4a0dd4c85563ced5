// The byte buffer under both XDR streams.
#pragma once

#include <memory>

/// A buffer of 1 MiB with a position and a count of valid bytes. Made once per socket and reused for every call.
/// Not locked: the thread of the socket that owns the stream is its only user. Never copied.
///
/// The buffer begins on a page: where its bytes lay just behind a page's begin, as those of the C library's large
/// blocks do, common processors would take several times as long for what the kernel copies between pages and it. A
/// page that nobody can touch follows, so that no error could reach what lies behind.
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
    struct Unmap {
        void operator()(char* pcBuffer) const;
    };
    std::unique_ptr<char[], Unmap> m_pcBuffer;  ///< GetMaxBufferSize() bytes, zero at the start, untouched until used
    unsigned int m_iIndex = 0;                  ///< read position (input) or write position (output)
    unsigned int m_iSize = 0;                   ///< valid bytes; for output the high-water mark

private:
    static char* MapBuffer();
};
