// Paths: as texts, and as what they lead to.
#include "Paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

// ---- As texts

void AppendSlash(std::string& sPath) {
    if (!sPath.empty() && !sPath.ends_with('/')) {
        sPath += '/';
    }
}

void AppendSlash(char* pcPath) {
    const std::size_t nLength = std::strlen(pcPath);
    if (nLength > 0 && pcPath[nLength - 1] != '/' && nLength + 1 < kPathBufferSize) {
        pcPath[nLength] = '/';
        pcPath[nLength + 1] = '\0';
    }
}

std::string GetFolderPrefix(std::string_view sPath) {
    std::string sPrefix(sPath);
    AppendSlash(sPrefix);
    return sPrefix;
}

std::string_view WithoutTrailingSlashes(std::string_view sPath) {
    while (sPath.size() > 1 && sPath.ends_with('/')) {
        sPath.remove_suffix(1);
    }
    return sPath;
}

std::string_view GetFolderPart(std::string_view sPath) {
    return sPath.substr(0, sPath.rfind('/') + 1);
}

bool IsAtOrBelow(std::string_view sPath, std::string_view sFolder) {
    if (sFolder.empty()) {
        return false;
    }
    if (sPath.size() < sFolder.size()) {
        // The slash that ends the folder's path is all that may be missing.
        return sFolder.ends_with('/') && !sPath.empty() && !sPath.ends_with('/') &&
               sFolder.substr(0, sFolder.size() - 1) == sPath;
    }
    return sPath.starts_with(sFolder) &&
           (sFolder.ends_with('/') || sPath.size() == sFolder.size() || sPath[sFolder.size()] == '/');
}

bool HasParentComponent(std::string_view sPath) {
    for (std::size_t iPos = sPath.find(".."); iPos != std::string_view::npos; iPos = sPath.find("..", iPos + 1)) {
        const bool bBegins = iPos == 0 || sPath[iPos - 1] == '/';
        const bool bEnds = iPos + 2 == sPath.size() || sPath[iPos + 2] == '/';
        if (bBegins && bEnds) {
            return true;
        }
    }
    return false;
}

bool IsEntryName(std::string_view sName) {
    const std::string_view sBare = WithoutTrailingSlashes(sName);
    const std::string_view sLast = sBare.substr(GetFolderPart(sBare).size());
    return !sLast.empty() && sLast != "." && sLast != "..";
}

bool JoinPath(const char* pcFolder, const char* pcName, char* pcOut) {
    if (pcFolder == nullptr || pcName == nullptr || pcOut == nullptr) {
        return false;
    }
    const std::size_t nFolder = std::strlen(pcFolder);
    const std::size_t nName = std::strlen(pcName);
    if (nFolder + 1 + nName >= kPathBufferSize) {
        return false;
    }
    std::memcpy(pcOut, pcFolder, nFolder);
    pcOut[nFolder] = '/';
    std::memcpy(pcOut + nFolder + 1, pcName, nName);
    pcOut[nFolder + 1 + nName] = '\0';
    return true;
}

// ---- As what they lead to

/// realpath asks the kernel for each component; of most paths it can tell in one step that they resolve to themselves.
/// A path that no buffer holds is none, as for the system's other calls; realpath may see that differently.
bool FindCanonicalPath(const char* pcPath, char (&vcCanonical)[kPathBufferSize], FoundStatus* pStatus) {
    const std::size_t nLength = ::strnlen(pcPath, kPathBufferSize);
    if (nLength >= kPathBufferSize) {
        return false;
    }
    if (IsPlainPath(pcPath)) {
        switch (FindWithoutLinks(pcPath, pStatus)) {
            case Finding::kFound:
                std::memcpy(vcCanonical, pcPath, nLength + 1);
                return true;
            case Finding::kMissing:
                if (pStatus != nullptr) {
                    pStatus->bMissing = true;
                }
                return false;
            case Finding::kUnknown:
                break;
        }
    }
    return ::realpath(pcPath, vcCanonical) != nullptr;
}

std::optional<std::string> ResolveLinks(const std::string& sPath) {
    char vcResolved[kPathBufferSize];
    if (::realpath(sPath.c_str(), vcResolved) == nullptr) {
        return std::nullopt;
    }
    return vcResolved;
}

std::optional<std::string> ResolveFolderPart(std::string_view sPath) {
    const std::size_t iLast = sPath.find_last_not_of('/');
    if (iLast == std::string_view::npos) {
        errno = EINVAL;
        return std::nullopt;
    }
    const std::string_view sFolder = GetFolderPart(sPath.substr(0, iLast + 1));
    std::optional<std::string> sResolved = ResolveLinks(sFolder.empty() ? "." : std::string(sFolder));
    if (!sResolved) {
        return std::nullopt;
    }
    AppendSlash(*sResolved);
    *sResolved += sPath.substr(sFolder.size());
    if (sResolved->size() >= kPathBufferSize) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    return sResolved;
}
