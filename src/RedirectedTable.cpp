// The redirected files that are open, by path.
#include "RedirectedTable.h"

#include <utility>

#include "Paths.h"

std::shared_ptr<CRedirectedFile> CRedirectedTable::Put(const std::string& sPath, std::string sCanonicalPath,
                                                       std::shared_ptr<CRedirectedFile> pFile) {
    CanonicalPaths one;  // what may run out of memory comes before the first change
    one.insert(std::move(sCanonicalPath));
    Entry& entry = m_mFiles[sPath];
    if (entry.pFile) {
        m_CanonicalPaths.erase(entry.itCanonicalPath);
    }
    entry.itCanonicalPath = m_CanonicalPaths.insert(one.extract(one.begin()));
    return std::exchange(entry.pFile, std::move(pFile));
}

std::shared_ptr<CRedirectedFile> CRedirectedTable::Find(std::string_view sPath) const {
    const auto itFile = m_mFiles.find(sPath);
    return itFile == m_mFiles.end() ? nullptr : itFile->second.pFile;
}

std::shared_ptr<CRedirectedFile> CRedirectedTable::Take(std::string_view sPath) {
    const auto itFile = m_mFiles.find(sPath);
    return itFile == m_mFiles.end() ? nullptr : Take(itFile);
}

std::shared_ptr<CRedirectedFile> CRedirectedTable::Take(Files::const_iterator itFile) {
    std::shared_ptr<CRedirectedFile> pFile = itFile->second.pFile;
    m_CanonicalPaths.erase(itFile->second.itCanonicalPath);
    m_mFiles.erase(itFile);
    return pFile;
}

CRedirectedTable::Files::const_iterator CRedirectedTable::FindFirstAtOrBelow(std::string_view sFolder) const {
    if (sFolder.empty()) {
        return m_mFiles.begin();
    }
    // The folder's own path has no slash at its end, and so stands before all that lie in it.
    auto itFile = m_mFiles.find(sFolder.substr(0, sFolder.size() - 1));
    if (itFile == m_mFiles.end() || !IsAtOrBelow(itFile->first, sFolder)) {
        itFile = m_mFiles.lower_bound(sFolder);
    }
    return itFile != m_mFiles.end() && IsAtOrBelow(itFile->first, sFolder) ? itFile : m_mFiles.end();
}
