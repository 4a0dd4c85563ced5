// The few NFS version 3 and MOUNT messages that the load needs (RFC 1813, RFC 5531), written independently of the
// server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

/// A call under construction: big-endian words and padded opaques.
class CallBuilder {
public:
    /// Starts a call with record mark (set by Finish), transaction ID 0 and no credentials.
    CallBuilder(std::uint32_t iProgram, std::uint32_t iProcedure);

    CallBuilder& U32(std::uint32_t iValue);
    CallBuilder& U64(std::uint64_t iValue);
    CallBuilder& Opaque(std::string_view sBytes);
    /// How many bytes have been written: where the next field stands.
    std::uint32_t Position() const { return static_cast<std::uint32_t>(m_sBytes.size()); }
    /// The call with its record mark.
    std::string Finish();

private:
    std::string m_sBytes;
};

/// A reply did not say what it should.
class WrongReply : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads a reply; throws WrongReply where it runs short.
class ReplyReader {
public:
    explicit ReplyReader(std::string_view sReply) : m_sReply(sReply) {}

    std::uint32_t U32();
    std::uint64_t U64();
    std::string_view Opaque();
    void Skip(std::size_t nBytes) { Take(nBytes); }
    /// Reads a word and throws, naming the field, unless it has the value.
    void Expect(const char* pcField, std::uint32_t iValue);
    /// Record mark, transaction ID, and an accepted, successful reply with an empty verifier.
    void ExpectHead(std::uint32_t iXid);
    /// Passes over attributes that may be missing (post_op_attr).
    void SkipAttributes();
    void ExpectEnd();
    std::uint32_t Position() const { return static_cast<std::uint32_t>(m_iPosition); }

private:
    std::string_view Take(std::size_t nBytes);

    std::string_view m_sReply;
    std::size_t m_iPosition = 0;
};

inline constexpr std::uint32_t kMountProgram = 100005;
inline constexpr std::uint32_t kNfsProgram = 100003;
inline constexpr std::uint32_t kLastFragment = 0x80000000U;
inline constexpr std::size_t kAttributesSize = 84;  ///< fattr3

/// The big-endian word at an address.
std::uint32_t WordAt(const char* pcBytes);
void PutWord(char* pcBytes, std::uint32_t iValue);
void PutLong(char* pcBytes, std::uint64_t iValue);
