// The redirected files that are open, by path.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

class CRedirectedFile;

/// Redirected files by the path that clients see, each with the canonical form of that path. Every operation but a walk
/// takes about as long with tens of thousands of files as with one.
///
/// Each file's canonical path stands once in m_CanonicalPaths, where the file's entry points to it. Not locked.
class CRedirectedTable {
    using CanonicalPaths = std::multiset<std::string, std::less<>>;

public:
    struct Entry {
        std::shared_ptr<CRedirectedFile> pFile;
        CanonicalPaths::const_iterator itCanonicalPath;
    };
    using Files = std::map<std::string, Entry, std::less<>>;

    CRedirectedTable() = default;
    CRedirectedTable(CRedirectedTable&&) = default;
    CRedirectedTable& operator=(CRedirectedTable&&) = default;

    /// Files it under a path, with the canonical path as it was resolved for that. The file that stood there, or null.
    std::shared_ptr<CRedirectedFile> Put(const std::string& sPath, std::string sCanonicalPath,
                                         std::shared_ptr<CRedirectedFile> pFile);
    /// Null when there is none under the path.
    std::shared_ptr<CRedirectedFile> Find(std::string_view sPath) const;
    /// Finds and takes out.
    std::shared_ptr<CRedirectedFile> Take(std::string_view sPath);
    std::shared_ptr<CRedirectedFile> Take(Files::const_iterator itFile);
    /// The first one, in path order, at or below a folder; the end if there is none. The folder's path ends in a slash;
    /// an empty one stands for all files.
    Files::const_iterator FindFirstAtOrBelow(std::string_view sFolder) const;
    /// Is a file open whose path has this canonical form?
    bool HasCanonicalPath(std::string_view sCanonicalPath) const { return m_CanonicalPaths.contains(sCanonicalPath); }
    /// In path order.
    const Files& GetAll() const { return m_mFiles; }

private:
    Files m_mFiles;
    CanonicalPaths m_CanonicalPaths;
};
