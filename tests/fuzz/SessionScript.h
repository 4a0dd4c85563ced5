// A byte string read as a script: every string is one, and a short change changes little.
#pragma once

#include <cstddef>
#include <iterator>
#include <string_view>

/// Hands out the bytes of a script; behind its end there are zeros.
class SessionScript {
public:
    explicit SessionScript(std::string_view sBytes) : m_sBytes(sBytes) {}

    bool IsAtEnd() const { return m_sBytes.empty(); }
    unsigned int Byte() {
        if (m_sBytes.empty()) {
            return 0;
        }
        const auto iByte = static_cast<unsigned char>(m_sBytes.front());
        m_sBytes.remove_prefix(1);
        return iByte;
    }
    /// One of so many choices.
    unsigned int Below(std::size_t n) { return static_cast<unsigned int>(Byte() % n); }
    template <class Table>
    const auto& OneOf(const Table& table) {
        return table[Below(std::size(table))];
    }
    /// Some bytes, as many as the next one says; fewer at the end.
    std::string_view Bytes() {
        const std::size_t nWanted = Byte();
        const std::string_view sTaken = m_sBytes.substr(0, nWanted);
        m_sBytes.remove_prefix(sTaken.size());
        return sTaken;
    }

private:
    std::string_view m_sBytes;
};
