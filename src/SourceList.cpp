// The source files of a redirected file.
#include "SourceList.h"

std::int64_t CSourceList::Refer(std::string_view sPath) {
    if (const auto itFound = m_Numbers.find(sPath); itFound != m_Numbers.end()) {
        return itFound->second;
    }
    const auto iNumber = static_cast<std::int64_t>(m_vPaths.size());
    m_Numbers.emplace(m_vPaths.emplace_back(sPath), iNumber);
    return iNumber;
}

const std::string* CSourceList::Get(std::int64_t iSource) const {
    if (iSource < 0 || static_cast<std::uint64_t>(iSource) >= m_vPaths.size()) {
        return nullptr;
    }
    return &m_vPaths[static_cast<std::size_t>(iSource)];
}
