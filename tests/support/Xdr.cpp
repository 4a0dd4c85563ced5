// XDR for tests.
#include "Xdr.h"

#include <cstdio>
#include <stdexcept>

XdrBuilder& XdrBuilder::U32(std::uint32_t iValue) {
    for (int iShift = 24; iShift >= 0; iShift -= 8) {
        m_sBytes.push_back(static_cast<char>(iValue >> iShift));
    }
    return *this;
}

XdrBuilder& XdrBuilder::U64(std::uint64_t iValue) {
    return U32(static_cast<std::uint32_t>(iValue >> 32)).U32(static_cast<std::uint32_t>(iValue));
}

XdrBuilder& XdrBuilder::Opaque(std::string_view sBytes) {
    return U32(static_cast<std::uint32_t>(sBytes.size())).Fixed(sBytes);
}

XdrBuilder& XdrBuilder::Fixed(std::string_view sBytes) {
    m_sBytes.append(sBytes);
    m_sBytes.append((4 - sBytes.size() % 4) % 4, '\0');
    return *this;
}

XdrBuilder& XdrBuilder::Raw(std::string_view sBytes) {
    m_sBytes.append(sBytes);
    return *this;
}

std::uint32_t WordAt(std::string_view sBytes, std::size_t iOffset) {
    if (iOffset + 4 > sBytes.size()) {
        throw std::out_of_range("word at " + std::to_string(iOffset) + " of " + std::to_string(sBytes.size()) +
                                " bytes");
    }
    std::uint32_t iValue = 0;
    for (std::size_t i = iOffset; i < iOffset + 4; ++i) {
        iValue = (iValue << 8) | static_cast<unsigned char>(sBytes[i]);
    }
    return iValue;
}

std::string_view XdrReader::Take(std::size_t iSize) {
    if (iSize > Left()) {
        throw std::out_of_range(std::to_string(iSize) + " bytes at " + std::to_string(m_iPosition) + " of " +
                                std::to_string(m_sBytes.size()));
    }
    const std::string_view sPart = std::string_view(m_sBytes).substr(m_iPosition, iSize);
    m_iPosition += iSize;
    return sPart;
}

std::uint32_t XdrReader::U32() {
    return WordAt(Take(4), 0);
}

std::uint64_t XdrReader::U64() {
    const std::uint64_t iHigh = U32();
    return (iHigh << 32) | U32();
}

std::string XdrReader::Opaque() {
    const std::uint32_t iSize = U32();
    return Fixed(iSize);
}

std::string XdrReader::Fixed(std::size_t iSize) {
    std::string sBytes(Take(iSize));
    Take((4 - iSize % 4) % 4);
    return sBytes;
}

std::string Hex(std::string_view sBytes) {
    std::string sText;
    for (const char cByte : sBytes) {
        char vcDigits[4];
        std::snprintf(vcDigits, sizeof(vcDigits), "%02x ", static_cast<unsigned char>(cByte));
        sText += vcDigits;
    }
    return sText;
}
