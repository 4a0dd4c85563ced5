// The names of a directory, kept compactly and found fast.
#include "NameList.h"

#include <bit>
#include <functional>

namespace {

constexpr std::uint32_t kEmptySlot = UINT32_MAX;

}  // namespace

void CNameList::Append(std::string_view sName) {
    m_viStarts.push_back(static_cast<std::uint32_t>(m_sNames.size()));
    m_sNames.append(sName);
    m_sNames.push_back('\0');
}

void CNameList::ShrinkToFit() {
    m_sNames.shrink_to_fit();
    m_viStarts.shrink_to_fit();
}

CNameIndex::CNameIndex(const CNameList& names)
    : m_Names(names), m_viSlots(std::bit_ceil(names.GetSize() * 2 + 1), kEmptySlot) {
    for (std::size_t i = 0; i < names.GetSize(); ++i) {
        std::uint32_t& iPlace = m_viSlots[FindSlot(names.GetName(i))];
        if (iPlace == kEmptySlot) {
            iPlace = static_cast<std::uint32_t>(i);
        }
    }
}

std::size_t CNameIndex::Find(std::string_view sName) const {
    const std::uint32_t iPlace = m_viSlots[FindSlot(sName)];
    return iPlace == kEmptySlot ? kNowhere : iPlace;
}

std::size_t CNameIndex::FindSlot(std::string_view sName) const {
    const std::size_t iMask = m_viSlots.size() - 1;
    std::size_t iSlot = std::hash<std::string_view>()(sName) & iMask;
    while (m_viSlots[iSlot] != kEmptySlot && sName != m_Names.GetName(m_viSlots[iSlot])) {
        iSlot = (iSlot + 1) & iMask;
    }
    return iSlot;
}
