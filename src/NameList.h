// CNameList and CNameIndex: the names of a directory, kept compactly and found fast.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Names by their places, 0 and up. All texts stand in one block, each with its terminator; a place costs four bytes
/// besides. Holds up to 4 GiB of text: its users stop far below. Not thread-safe.
class CNameList {
public:
    void Append(std::string_view sName);
    std::size_t GetSize() const { return m_viStarts.size(); }
    /// Valid until the next Append.
    const char* GetName(std::size_t iPlace) const { return m_sNames.c_str() + m_viStarts[iPlace]; }
    /// Lets a place hold the name of another one, too.
    void Copy(std::size_t iTo, std::size_t iFrom) { m_viStarts[iTo] = m_viStarts[iFrom]; }
    /// The bytes it occupies, apart from room kept for growth.
    std::size_t GetMemory() const { return m_sNames.size() + m_viStarts.size() * sizeof(std::uint32_t); }
    /// Gives that room back.
    void ShrinkToFit();

private:
    std::string m_sNames;
    std::vector<std::uint32_t> m_viStarts;
};

/// Finds the places of names in constant time: a hash table of eight to sixteen bytes a name, made for one comparison
/// of two lists and dropped. The list outlives it, unchanged.
class CNameIndex {
public:
    static constexpr std::size_t kNowhere = SIZE_MAX;

    explicit CNameIndex(const CNameList& names);
    /// The first place of the name, or kNowhere.
    std::size_t Find(std::string_view sName) const;

private:
    /// The slot that holds the name, or the empty one where it belongs.
    std::size_t FindSlot(std::string_view sName) const;

    const CNameList& m_Names;
    std::vector<std::uint32_t> m_viSlots;  ///< places; a power of two of them, at most half of them in use
};
