// Changing inputs.
#include "Mutator.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr std::size_t kMaxChanges = 4;
constexpr std::size_t kMaxGarbage = 64;
constexpr std::size_t kMaxTail = 5000;  ///< beyond what any record holds

/// Limits, and what lies beside them.
constexpr std::uint64_t kNumbers[] = {
    0,          1,          2,          3,           4,           55,        56,         57,
    64,         255,        256,        4095,        4096,        16384,     16385,      65535,
    65536,      65537,      100000,     100003,      1048576,     0x2000000, 0x7FFFFFFF, 0x80000000,
    0xFFFFFFFC, 0xFFFFFFFF, 0x40000000, 0x100000000, 1ULL << 41U, ~0ULL,     ~0ULL - 31, 0x7FFFFFFFFFFFFFFF};

/// A number in the bytes of the wire (most significant first) or of this machine.
std::string Encode(std::uint64_t iNumber, std::size_t nBytes, bool bMostSignificantFirst) {
    std::string sBytes;
    for (std::size_t i = 0; i < nBytes; ++i) {
        sBytes += static_cast<char>(iNumber >> (8 * i));
    }
    if (bMostSignificantFirst) {
        std::ranges::reverse(sBytes);
    }
    return sBytes;
}

}  // namespace

Mutator::Mutator(std::uint64_t iSeed) : m_iState(iSeed | 1U) {
    for (int i = 0; i < 8; ++i) {
        Below(2);  // neighbouring seeds part
    }
}

std::size_t Mutator::Below(std::size_t n) {
    m_iState ^= m_iState << 13U;
    m_iState ^= m_iState >> 7U;
    m_iState ^= m_iState << 17U;
    return (m_iState >> 11U) % n;
}

std::string Mutator::Mutate(const std::vector<std::string>& vsCorpus, const FuzzVocabulary& vocabulary) {
    std::string sInput = vsCorpus[Below(vsCorpus.size())];
    for (std::size_t n = Below(kMaxChanges) + 1; n > 0; --n) {
        Change(sInput, vsCorpus, vocabulary);
    }
    return sInput;
}

void Mutator::Change(std::string& sInput, const std::vector<std::string>& vsCorpus, const FuzzVocabulary& vocabulary) {
    switch (Below(6)) {
        case 0:
            ChangeBytes(sInput);
            break;
        case 1:
            ChangeLength(sInput);
            break;
        case 2:
            PutWord(sInput, vocabulary);
            break;
        case 3:
            PutNumber(sInput, vocabulary);
            break;
        case 4:
            PutOther(sInput, vsCorpus, vocabulary);
            break;
        default:
            if (vocabulary.nHead > 0 && sInput.size() >= vocabulary.nHead) {
                sInput[Below(vocabulary.nHead)] = AnyByte();
            } else {
                ChangeBytes(sInput);
            }
    }
}

void Mutator::ChangeBytes(std::string& sInput) {
    if (sInput.empty()) {
        return;
    }
    const std::size_t i = Below(sInput.size());
    switch (Below(4)) {
        case 0:
            sInput[i] = static_cast<char>(sInput[i] ^ (1 << Below(8)));
            break;
        case 1:
            sInput[i] = AnyByte();
            break;
        case 2:  // the first bytes mostly say what the rest is
            sInput[Below(std::min<std::size_t>(8, sInput.size()))] = AnyByte();
            break;
        default:
            std::fill(sInput.begin() + static_cast<std::ptrdiff_t>(i), sInput.end(), AnyByte());
    }
}

void Mutator::ChangeLength(std::string& sInput) {
    const std::size_t i = sInput.empty() ? 0 : Below(sInput.size());
    switch (Below(4)) {
        case 0:
            sInput.resize(i);
            break;
        case 1:
            sInput.erase(i, Below(16) + 1);
            break;
        case 2:
            sInput.insert(i, std::string(Below(kMaxGarbage), AnyByte()));
            break;
        default:
            sInput.append(Below(8) == 0 ? Below(kMaxTail) : Below(kMaxGarbage), AnyByte());
    }
}

void Mutator::PutWord(std::string& sInput, const FuzzVocabulary& vocabulary) {
    if (vocabulary.vsWords.empty()) {
        return ChangeBytes(sInput);
    }
    const std::string& sWord = vocabulary.vsWords[Below(vocabulary.vsWords.size())];
    const std::size_t i = Below(sInput.size() + 1);
    sInput.replace(i, Below(2) == 0 ? 0 : sWord.size(), sWord);
}

void Mutator::PutNumber(std::string& sInput, const FuzzVocabulary& vocabulary) {
    constexpr std::size_t kWord = 4;
    const std::size_t nBytes = Below(3) == 0 ? 2 * kWord : kWord;
    const std::string sBytes = Encode(kNumbers[Below(std::size(kNumbers))], nBytes, Below(3) != 0);
    const std::size_t nHead = std::min(vocabulary.nHead, sInput.size());
    const std::size_t i = Below(sInput.size() - nHead + 1);
    sInput.replace(nHead + i / kWord * kWord, Below(8) == 0 ? 0 : nBytes, sBytes);
}

/// Another input, or a part of this one, behind or within it.
void Mutator::PutOther(std::string& sInput, const std::vector<std::string>& vsCorpus,
                       const FuzzVocabulary& vocabulary) {
    const std::string& sSource = Below(4) == 0 ? sInput : vsCorpus[Below(vsCorpus.size())];
    const std::string sOther = sSource.substr(std::min(vocabulary.nHead, sSource.size()));
    const std::size_t iFrom = Below(2) == 0 ? 0 : Below(sOther.size() + 1);
    const std::size_t iTo = Below(2) == 0 ? sInput.size() : Below(sInput.size() + 1);
    sInput.insert(iTo, sOther.substr(iFrom, Below(2) == 0 ? std::string::npos : Below(sOther.size() + 1)));
}
