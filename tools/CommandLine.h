// What the tools' command lines have in common.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>

/// A command line that makes no sense; what() is a sentence for the user.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A text that is a number from its first character to its last: digits alone, no blank, no sign. Nothing for any other
/// text and for a number that 64 bits do not hold.
inline std::optional<std::uint64_t> ReadNumber(std::string_view sText, int iBase = 10) {
    std::uint64_t iNumber = 0;
    const char* pcEnd = sText.data() + sText.size();
    const auto [pcRead, error] = std::from_chars(sText.data(), pcEnd, iNumber, iBase);
    if (error != std::errc() || pcRead != pcEnd) {
        return std::nullopt;
    }
    return iNumber;
}
