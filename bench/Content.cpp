// The text that all blocks are taken from.
#include "Content.h"

#include <cstring>

Content::Content() : m_sText((kFileSize / kBlock + kGenerations) * kStep + kBlock, '\0') {
    std::uint64_t iValue = 1;
    for (std::size_t i = 0; i + sizeof(iValue) <= m_sText.size(); i += sizeof(iValue)) {
        iValue = iValue * 6364136223846793005ULL + 1442695040888963407ULL;
        std::memcpy(m_sText.data() + i, &iValue, sizeof(iValue));
    }
}

bool Content::Matches(std::string_view sData, std::uint64_t iOffset, std::uint32_t iGeneration) const {
    for (std::size_t i = 0; i < sData.size(); i += kBlock) {
        if (sData.size() - i < kBlock ||
            std::memcmp(sData.data() + i, BlockAt(iOffset + i, iGeneration), kBlock) != 0) {
            return false;
        }
    }
    return true;
}
