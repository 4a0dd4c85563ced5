// CUtilities: the registry of redirected files.
//
// The registry's mutex is held for looking up and changing the registry only. What may take long (writing segment
// records, an export of terabytes, closing) runs on a shared object without it, so that clients go on reading this
// and all other files meanwhile.
#include <algorithm>
#include <utility>

#include "DeferredLog.h"
#include "Reason.h"
#include "RedirectedFile.h"
#include "Utilities.h"

namespace {

/// A path as a key; null counts as empty.
const char* GetKey(const char* pcPath) {
    return pcPath != nullptr ? pcPath : "";
}

}  // namespace

std::shared_ptr<CRedirectedFile> CUtilities::OpenRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                                long long iSize, bool bCreateInfoFile,
                                                                int iInfoFileSegmentSizeMB,
                                                                int iInfoFileCheckPointSizeMB) {
    const char* pcKey = GetKey(pcPath);
    CloseRedirectedFile(pRuntimeParam, pcKey);
    auto pFile = std::make_shared<CRedirectedFile>(this);
    std::shared_ptr<CRedirectedFile> pEarlier;
    {
        const CDeferredLog deferred;
        MutexLock lock(m_hMutexRedirectedFiles);
        // IDs repeat after closes: they only tell files apart in the log.
        const int iId = static_cast<int>(m_mRedirectedFiles.size());
        pFile->Open(pRuntimeParam, iSize, iId, bCreateInfoFile ? pcKey : nullptr, iInfoFileSegmentSizeMB,
                    iInfoFileCheckPointSizeMB);
        pEarlier = std::exchange(m_mRedirectedFiles[pcKey], pFile);
    }
    if (pEarlier) {
        pEarlier->Close(pRuntimeParam);  // another thread opened the path since it was closed above
    }
    return pFile;
}

void CUtilities::CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    std::shared_ptr<CRedirectedFile> pFile;
    {
        MutexLock lock(m_hMutexRedirectedFiles);
        const auto itFile = m_mRedirectedFiles.find(GetKey(pcPath));
        if (itFile == m_mRedirectedFiles.end()) {
            return;
        }
        pFile = std::move(itFile->second);
        m_mRedirectedFiles.erase(itFile);
    }
    pFile->Close(pRuntimeParam);
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    std::string sPrefix = GetKey(pcPath);
    SetPathToCompare(sPrefix);
    std::shared_ptr<CRedirectedFile> pFile;
    do {
        // Each walk ends at the first match, and the next one starts over.
        pFile.reset();
        std::vector<std::string> vCompared;
        {
            MutexLock lock(m_hMutexRedirectedFiles);
            for (auto itFile = m_mRedirectedFiles.begin(); itFile != m_mRedirectedFiles.end(); ++itFile) {
                std::string sEntry = itFile->first;
                SetPathToCompare(sEntry);
                const bool bMatch = sEntry.starts_with(sPrefix);
                if (pRuntimeParam->IsLogGeneralInfo()) {
                    vCompared.push_back(std::move(sEntry));
                }
                if (bMatch) {
                    pFile = std::move(itFile->second);
                    m_mRedirectedFiles.erase(itFile);
                    break;
                }
            }
        }
        for (const std::string& sEntry : vCompared) {
            LogInfo(pRuntimeParam, "[CloseAllRedirectedFiles] Path compare: \"%s\" vs \"%s\"", sPrefix.c_str(),
                    sEntry.c_str());
        }
        if (pFile) {
            pFile->Close(pRuntimeParam);
        }
    } while (pFile);
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam) {
    decltype(m_mRedirectedFiles) mFiles;
    {
        MutexLock lock(m_hMutexRedirectedFiles);
        mFiles.swap(m_mRedirectedFiles);
    }
    for (const auto& [sPath, pFile] : mFiles) {
        pFile->Close(pRuntimeParam);
    }
}

bool CUtilities::AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcSourcePath,
                                          long long iSrcFileOffset, long long iOffset, long long iLength,
                                          char* pcStatus) {
    const auto pFile = GetRedirectedFile(pcPath);
    if (pFile && pFile->AddSegment(pRuntimeParam, pcSourcePath, iSrcFileOffset, iOffset, iLength, pcStatus)) {
        return true;
    }
    if (!pFile || pFile->IsClosed()) {
        WriteReason(pcStatus, "Redirected file \"%s\" is not open", GetKey(pcPath));
    }
    return false;
}

void CUtilities::ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath) {
    if (const auto pFile = GetRedirectedFile(pcPath)) {
        pFile->Export(pRuntimeParam, GetKey(pcExportPath));
    }
}

void CUtilities::ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath,
                                          bool bMergeRange) {
    if (const auto pFile = GetRedirectedFile(pcPath)) {
        pFile->ExportInfo(pRuntimeParam, GetKey(pcExportPath), bMergeRange);
    }
}

void CUtilities::RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo) {
    const std::string sFrom = GetKey(pcPathFrom);
    const std::string sTo = GetKey(pcPathTo);
    if (sFrom == sTo) {
        return;  // a rename onto itself changes nothing
    }
    CloseRedirectedFile(pRuntimeParam, sTo.c_str());
    std::shared_ptr<CRedirectedFile> pEarlier;
    {
        MutexLock lock(m_hMutexRedirectedFiles);
        const auto itFile = m_mRedirectedFiles.find(sFrom);
        if (itFile == m_mRedirectedFiles.end()) {
            return;
        }
        // Its info file path stays as it is, but the file there may have been renamed along with it.
        itFile->second->SetRenamedInfoFile(sTo.c_str());
        pEarlier = std::exchange(m_mRedirectedFiles[sTo], std::move(itFile->second));
        m_mRedirectedFiles.erase(itFile);
    }
    if (pEarlier) {
        pEarlier->Close(pRuntimeParam);  // another thread opened the new path since it was closed above
    }
}

std::vector<std::pair<std::string, std::string>> CUtilities::GetRenamesBelow(const char* pcFolderFrom,
                                                                             const char* pcFolderTo) {
    std::string sPrefixFrom = GetKey(pcFolderFrom);
    std::string sPrefixTo = GetKey(pcFolderTo);
    SetPathToCompare(sPrefixFrom);
    SetPathToCompare(sPrefixTo);
    std::vector<std::pair<std::string, std::string>> vsPaths;
    MutexLock lock(m_hMutexRedirectedFiles);
    for (auto itFile = m_mRedirectedFiles.lower_bound(sPrefixFrom);
         itFile != m_mRedirectedFiles.end() && itFile->first.starts_with(sPrefixFrom); ++itFile) {
        vsPaths.emplace_back(itFile->first, sPrefixTo + itFile->first.substr(sPrefixFrom.size()));
    }
    return vsPaths;
}

bool CUtilities::RenameRedirectedFilesBelow(CRuntimeParam* pRuntimeParam, const char* pcFolderFrom,
                                            const char* pcFolderTo) {
    bool bAgreed = true;
    for (const auto& [sPathFrom, sPathTo] : GetRenamesBelow(pcFolderFrom, pcFolderTo)) {
        RenameRedirectedFile(pRuntimeParam, sPathFrom.c_str(), sPathTo.c_str());
        bAgreed = LogRenameRedirectedFile(pRuntimeParam, sPathFrom.c_str(), sPathTo.c_str()) == 0 && bAgreed;
    }
    return bAgreed;
}

bool CUtilities::CanTellOfRename(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo) {
    const auto CanTell = [this, pRuntimeParam](const std::string& sPath) {
        return CanTellOf(pRuntimeParam, sPath.c_str());
    };
    const bool bRedirected = GetRedirectedFile(pcPathFrom) != nullptr;
    if (bRedirected && !CanTell(GetKey(pcPathFrom))) {
        return false;
    }
    if ((bRedirected || GetRedirectedFile(pcPathTo) != nullptr) && !CanTell(GetKey(pcPathTo))) {
        return false;
    }
    return std::ranges::all_of(GetRenamesBelow(pcPathFrom, pcPathTo), [&CanTell](const auto& rename) {
        return CanTell(rename.first) && CanTell(rename.second);
    });
}

std::shared_ptr<CRedirectedFile> CUtilities::GetRedirectedFile(const char* pcPath) {
    MutexLock lock(m_hMutexRedirectedFiles);
    const auto itFile = m_mRedirectedFiles.find(GetKey(pcPath));
    return itFile == m_mRedirectedFiles.end() ? nullptr : itFile->second;
}
