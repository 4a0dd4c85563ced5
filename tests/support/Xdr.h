// XDR for tests (RFC 4506): independent of the streams under test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Builds XDR data piece by piece: XdrBuilder().U32(3).Opaque("abc").Bytes().
class XdrBuilder {
public:
    XdrBuilder& U32(std::uint32_t iValue);
    XdrBuilder& U64(std::uint64_t iValue);
    XdrBuilder& Bool(bool bValue) { return U32(bValue ? 1 : 0); }
    /// Length, bytes, and zero padding to a multiple of four.
    XdrBuilder& Opaque(std::string_view sBytes);
    /// Bytes and padding without a length.
    XdrBuilder& Fixed(std::string_view sBytes);
    /// Bytes as they are.
    XdrBuilder& Raw(std::string_view sBytes);

    const std::string& Bytes() const { return m_sBytes; }

private:
    std::string m_sBytes;
};

/// Reads XDR data. Every operation throws std::out_of_range, with position and need, where the data runs short.
class XdrReader {
public:
    explicit XdrReader(std::string sBytes) : m_sBytes(std::move(sBytes)) {}

    std::uint32_t U32();
    std::uint64_t U64();
    bool Bool() { return U32() != 0; }
    std::string Opaque();
    std::string Fixed(std::size_t iSize);
    void Skip(std::size_t iSize) { Take(iSize); }

    std::size_t Position() const { return m_iPosition; }
    std::size_t Left() const { return m_sBytes.size() - m_iPosition; }
    bool AtEnd() const { return Left() == 0; }

private:
    std::string_view Take(std::size_t iSize);

    std::string m_sBytes;
    std::size_t m_iPosition = 0;
};

/// The big-endian word at an offset; throws std::out_of_range.
std::uint32_t WordAt(std::string_view sBytes, std::size_t iOffset);

/// Bytes as "00 0a ff", for failure texts.
std::string Hex(std::string_view sBytes);
