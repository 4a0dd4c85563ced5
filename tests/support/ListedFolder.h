// A directory that exists as a set of names alone, for tests of listings.
#pragma once

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Listing.h"

/// The names in reading order.
class ListedFolder {
public:
    /// The names "n0" to the one before that number.
    explicit ListedFolder(int nNames) {
        for (int i = 0; i < nNames; ++i) {
            Insert("n" + std::to_string(i), m_vsNames.size());
        }
    }
    explicit ListedFolder(std::vector<std::string> vsNames)
        : m_vsNames(std::move(vsNames)), m_ssNames(m_vsNames.begin(), m_vsNames.end()) {}

    const std::vector<std::string>& GetNames() const { return m_vsNames; }
    bool Contains(const std::string& sName) const { return m_ssNames.contains(sName); }
    void Insert(const std::string& sName, std::size_t iAt) {
        m_vsNames.insert(m_vsNames.begin() + static_cast<std::ptrdiff_t>(iAt), sName);
        m_ssNames.insert(sName);
    }
    void Remove(const std::string& sName) {
        if (m_ssNames.erase(sName) != 0) {
            m_vsNames.erase(std::ranges::find(m_vsNames, sName));
        }
    }
    /// What a reading of the directory gives now.
    CNameList Read() const {
        CNameList names;
        for (const std::string& sName : m_vsNames) {
            names.Append(sName);
        }
        return names;
    }
    EntryLook Look() const {
        return [this](const char* pcName, FoundStatus*) { return Contains(pcName); };
    }

private:
    std::vector<std::string> m_vsNames;
    std::set<std::string> m_ssNames;
};

inline std::vector<std::string> NamesOf(const std::vector<ListedEntry>& vEntries) {
    std::vector<std::string> vsNames;
    for (const ListedEntry& entry : vEntries) {
        vsNames.push_back(entry.sName);
    }
    return vsNames;
}

inline std::vector<unsigned long> CookiesOf(const std::vector<ListedEntry>& vEntries) {
    std::vector<unsigned long> vlCookies;
    for (const ListedEntry& entry : vEntries) {
        vlCookies.push_back(entry.lCookie);
    }
    return vlCookies;
}
