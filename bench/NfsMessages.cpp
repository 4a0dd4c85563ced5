// XDR for the load program (RFC 4506).
#include "NfsMessages.h"

#include <cstring>

#include <endian.h>

namespace {

constexpr std::uint32_t kCall = 0;
constexpr std::uint32_t kRpcVersion = 2;
constexpr std::uint32_t kVersion = 3;

}  // namespace

std::uint32_t WordAt(const char* pcBytes) {
    std::uint32_t iValue = 0;
    std::memcpy(&iValue, pcBytes, sizeof(iValue));
    return be32toh(iValue);
}

void PutWord(char* pcBytes, std::uint32_t iValue) {
    iValue = htobe32(iValue);
    std::memcpy(pcBytes, &iValue, sizeof(iValue));
}

void PutLong(char* pcBytes, std::uint64_t iValue) {
    iValue = htobe64(iValue);
    std::memcpy(pcBytes, &iValue, sizeof(iValue));
}

// ---- Calls

CallBuilder::CallBuilder(std::uint32_t iProgram, std::uint32_t iProcedure) {
    U32(0).U32(0).U32(kCall).U32(kRpcVersion).U32(iProgram).U32(kVersion).U32(iProcedure);
    U32(0).U32(0).U32(0).U32(0);  // no credential, no verifier
}

CallBuilder& CallBuilder::U32(std::uint32_t iValue) {
    char cBytes[sizeof(iValue)];
    PutWord(cBytes, iValue);
    m_sBytes.append(cBytes, sizeof(cBytes));
    return *this;
}

CallBuilder& CallBuilder::U64(std::uint64_t iValue) {
    char cBytes[sizeof(iValue)];
    PutLong(cBytes, iValue);
    m_sBytes.append(cBytes, sizeof(cBytes));
    return *this;
}

CallBuilder& CallBuilder::Opaque(std::string_view sBytes) {
    U32(static_cast<std::uint32_t>(sBytes.size()));
    m_sBytes.append(sBytes);
    m_sBytes.append((4 - sBytes.size() % 4) % 4, '\0');
    return *this;
}

std::string CallBuilder::Finish() {
    PutWord(m_sBytes.data(), kLastFragment | static_cast<std::uint32_t>(m_sBytes.size() - 4));
    return m_sBytes;
}

// ---- Replies

std::string_view ReplyReader::Take(std::size_t nBytes) {
    if (nBytes > m_sReply.size() - m_iPosition) {
        throw WrongReply("reply of " + std::to_string(m_sReply.size()) + " bytes runs short at " +
                         std::to_string(m_iPosition));
    }
    const std::string_view sBytes = m_sReply.substr(m_iPosition, nBytes);
    m_iPosition += nBytes;
    return sBytes;
}

std::uint32_t ReplyReader::U32() {
    return WordAt(Take(4).data());
}

std::uint64_t ReplyReader::U64() {
    const std::uint64_t iHigh = U32();
    return iHigh << 32U | U32();
}

std::string_view ReplyReader::Opaque() {
    const std::size_t nBytes = U32();
    const std::string_view sBytes = Take(nBytes);
    Skip((4 - nBytes % 4) % 4);
    return sBytes;
}

void ReplyReader::Expect(const char* pcField, std::uint32_t iValue) {
    const std::uint32_t iSeen = U32();
    if (iSeen != iValue) {
        throw WrongReply(std::string(pcField) + " is " + std::to_string(iSeen) + " instead of " +
                         std::to_string(iValue));
    }
}

void ReplyReader::ExpectHead(std::uint32_t iXid) {
    Expect("record mark", kLastFragment | static_cast<std::uint32_t>(m_sReply.size() - 4));
    Expect("transaction ID", iXid);
    Expect("message type", 1);
    Expect("reply status", 0);
    Expect("verifier flavor", 0);
    Expect("verifier length", 0);
    Expect("accept status", 0);
}

void ReplyReader::SkipAttributes() {
    if (U32() != 0) {
        Skip(kAttributesSize);
    }
}

void ReplyReader::ExpectEnd() {
    if (m_iPosition != m_sReply.size()) {
        throw WrongReply(std::to_string(m_sReply.size() - m_iPosition) + " bytes too many in a reply");
    }
}
