#include "Pattern.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

using Word = std::array<char, sizeof(std::uint64_t)>;

/// The eight bytes at a multiple of eight (the mixing steps of a common small random generator).
Word WordAt(std::uint64_t iSeed, std::uint64_t iIndex) {
    std::uint64_t iMixed = iSeed * 0xD1342543DE82EF95U + iIndex * 0x9E3779B97F4A7C15U;
    iMixed = (iMixed ^ (iMixed >> 30)) * 0xBF58476D1CE4E5B9U;
    iMixed = (iMixed ^ (iMixed >> 27)) * 0x94D049BB133111EBU;
    iMixed ^= iMixed >> 31;
    Word word;
    std::memcpy(word.data(), &iMixed, sizeof(iMixed));
    return word;
}

}  // namespace

void FillPattern(std::span<char> memory, std::uint64_t iSeed, std::uint64_t iOffset) {
    while (!memory.empty()) {
        const Word word = WordAt(iSeed, iOffset / sizeof(Word));
        const std::size_t iSkip = iOffset % sizeof(Word);
        const std::size_t iPart = std::min(sizeof(Word) - iSkip, memory.size());
        std::memcpy(memory.data(), word.data() + iSkip, iPart);
        memory = memory.subspan(iPart);
        iOffset += iPart;
    }
}

std::size_t MatchPattern(std::span<const char> memory, std::uint64_t iSeed, std::uint64_t iOffset) {
    std::size_t iMatched = 0;
    while (iMatched < memory.size()) {
        const Word word = WordAt(iSeed, iOffset / sizeof(Word));
        const std::size_t iSkip = iOffset % sizeof(Word);
        const std::size_t iPart = std::min(sizeof(Word) - iSkip, memory.size() - iMatched);
        for (std::size_t i = 0; i < iPart; ++i) {
            if (memory[iMatched + i] != word[iSkip + i]) {
                return iMatched + i;
            }
        }
        iMatched += iPart;
        iOffset += iPart;
    }
    return iMatched;
}
