// The source files of a redirected file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

/// Paths of source files, numbered in the order in which they were first named. A path keeps its number and its place
/// in memory as long as the list lives, so that readers may use it without the list's lock.
///
/// Not locked.
class CSourceList {
public:
    /// The path's number; a new path is appended.
    std::int64_t Refer(std::string_view sPath);
    bool Contains(std::string_view sPath) const { return m_Numbers.contains(sPath); }
    /// The path of a number, or null if there is none.
    const std::string* Get(std::int64_t iSource) const;
    std::size_t GetCount() const { return m_vPaths.size(); }

private:
    std::deque<std::string> m_vPaths;
    std::unordered_map<std::string_view, std::int64_t> m_Numbers;  ///< by the texts held in m_vPaths
};
