// CUtilities: the registry of redirected files.
//
// The registry's mutex is held for looking up and changing the registry only. What may take long (writing segment
// records, an export of terabytes, closing) runs on a shared object without it, so that clients go on reading this
// and all other files meanwhile.
#include "Utilities.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "FileOwner.h"
#include "Paths.h"
#include "Reason.h"
#include "RedirectedFile.h"
#include "Texts.h"

std::shared_ptr<CRedirectedFile> CUtilities::OpenRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                                long long iSize, bool bCreateInfoFile,
                                                                int iInfoFileSegmentSizeMB,
                                                                int iInfoFileCheckPointSizeMB) {
    const char* pcKey = OrEmpty(pcPath);
    auto pFile = std::make_shared<CRedirectedFile>(this);
    std::string sCanonicalPath = GetCanonicalKey(pcKey);
    {
        // One step: a client finds the earlier file or this one, never the file on disk.
        const MutexLock lock(m_hMutexRedirectedFiles);
        auto pEarlier = m_RedirectedFiles.Find(pcKey);
        // The number of all others. IDs repeat after closes: they only tell files apart in the log.
        const int iId = static_cast<int>(m_RedirectedFiles.GetAll().size()) - (pEarlier ? 1 : 0);
        pFile->Prepare(iSize, iId, bCreateInfoFile ? pcKey : nullptr, iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB,
                       std::move(pEarlier));
        m_RedirectedFiles.Put(pcKey, std::move(sCanonicalPath), pFile);
    }
    pFile->CloseEarlier(pRuntimeParam);
    pFile->ReportOpen(pRuntimeParam);
    return pFile;
}

/// Takes a file out of the registry; the caller closes it. Null when none is open under the path.
std::shared_ptr<CRedirectedFile> CUtilities::TakeRedirectedFile(const char* pcPath) {
    const MutexLock lock(m_hMutexRedirectedFiles);
    return m_RedirectedFiles.Take(OrEmpty(pcPath));
}

void CUtilities::CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    if (const auto pFile = TakeRedirectedFile(pcPath)) {
        pFile->Close(pRuntimeParam);
    }
}

/// Takes the first file at or below a folder out of the registry; the caller closes it. Null when there is none. Logs
/// the comparisons of a walk from the first file on, which is made only where somebody wants to see them.
std::shared_ptr<CRedirectedFile> CUtilities::TakeRedirectedFileBelow(CRuntimeParam* pRuntimeParam,
                                                                     const std::string& sPrefix) {
    std::shared_ptr<CRedirectedFile> pFile;
    std::vector<std::string> vCompared;
    {
        const MutexLock lock(m_hMutexRedirectedFiles);
        const CRedirectedTable::Files& mFiles = m_RedirectedFiles.GetAll();
        const auto itMatch = m_RedirectedFiles.FindFirstAtOrBelow(sPrefix);
        if (pRuntimeParam->IsLogGeneralInfo()) {
            const auto itEnd = itMatch == mFiles.end() ? itMatch : std::next(itMatch);
            std::for_each(mFiles.begin(), itEnd,
                          [&vCompared](const auto& opened) { vCompared.push_back(GetFolderPrefix(opened.first)); });
        }
        if (itMatch != mFiles.end()) {
            pFile = m_RedirectedFiles.Take(itMatch);
        }
    }
    for (const std::string& sEntry : vCompared) {
        LogInfo(pRuntimeParam, "[CloseAllRedirectedFiles] Path compare: \"%s\" vs \"%s\"", sPrefix.c_str(),
                sEntry.c_str());
    }
    return pFile;
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    const std::string sPrefix = GetFolderPrefix(OrEmpty(pcPath));  // without a path, all of them
    while (const auto pFile = TakeRedirectedFileBelow(pRuntimeParam, sPrefix)) {
        pFile->Close(pRuntimeParam);
    }
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam) {
    CRedirectedTable files;
    {
        const MutexLock lock(m_hMutexRedirectedFiles);
        std::swap(files, m_RedirectedFiles);
    }
    for (const auto& [sPath, entry] : files.GetAll()) {
        entry.pFile->Close(pRuntimeParam);
    }
}

bool CUtilities::AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcSourcePath,
                                          long long iSrcFileOffset, long long iOffset, long long iLength,
                                          char* pcStatus) {
    const auto pFile = GetRedirectedFile(pcPath);
    if (pFile && IsSourceRedirected(*pFile, pcSourcePath)) {
        WriteReason(pcStatus, "Source \"%s\" is a redirected file", pcSourcePath);
    } else if (pFile && pFile->AddSegment(pRuntimeParam, pcSourcePath, iSrcFileOffset, iOffset, iLength, pcStatus)) {
        return true;
    }
    if (!pFile || pFile->IsClosed()) {
        WriteReason(pcStatus, "Redirected file \"%s\" is not open", OrEmpty(pcPath));
    }
    return false;
}

/// Its bytes on disk are not what clients read there. A source that is known was compared in every spelling when it was
/// first named.
bool CUtilities::IsSourceRedirected(const CRedirectedFile& file, const char* pcSource) {
    if (pcSource == nullptr || *pcSource == '\0') {
        return false;
    }
    return GetRedirectedFile(pcSource) != nullptr || (!file.IsSource(pcSource) && IsRedirectedFile(pcSource));
}

void CUtilities::ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath) {
    if (const auto pFile = GetRedirectedFile(pcPath)) {
        pFile->Export(pRuntimeParam, OrEmpty(pcExportPath));
    }
}

void CUtilities::ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath,
                                          bool bMergeRange) {
    if (const auto pFile = GetRedirectedFile(pcPath)) {
        pFile->ExportInfo(pRuntimeParam, OrEmpty(pcExportPath), bMergeRange);
    }
}

bool CUtilities::RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo) {
    const std::string sFrom = OrEmpty(pcPathFrom);
    const std::string sTo = OrEmpty(pcPathTo);
    if (sFrom == sTo) {
        return GetRedirectedFile(sFrom.c_str()) != nullptr;  // a rename onto itself changes nothing
    }
    std::string sCanonicalPath = GetCanonicalKey(sTo.c_str());
    std::shared_ptr<CRedirectedFile> pDropped;
    bool bRenamed = false;
    {
        const MutexLock lock(m_hMutexRedirectedFiles);
        if (const auto pFile = m_RedirectedFiles.Find(sFrom)) {
            pFile->SetRenamedInfoFile(sTo.c_str());
            pDropped = m_RedirectedFiles.Put(sTo, std::move(sCanonicalPath), pFile);
            m_RedirectedFiles.Take(sFrom);
            bRenamed = true;
        } else {
            pDropped = m_RedirectedFiles.Take(sTo);
        }
    }
    if (pDropped) {
        pDropped->Close(pRuntimeParam);
    }
    return bRenamed;
}

std::vector<std::pair<std::string, std::string>> CUtilities::GetRenamesBelow(const char* pcFolderFrom,
                                                                             const char* pcFolderTo) {
    const std::string sPrefixFrom = GetFolderPrefix(OrEmpty(pcFolderFrom));
    const std::string sPrefixTo = GetFolderPrefix(OrEmpty(pcFolderTo));
    std::vector<std::pair<std::string, std::string>> vsPaths;
    const MutexLock lock(m_hMutexRedirectedFiles);
    const CRedirectedTable::Files& mFiles = m_RedirectedFiles.GetAll();
    for (auto itFile = mFiles.lower_bound(sPrefixFrom);
         itFile != mFiles.end() && itFile->first.starts_with(sPrefixFrom); ++itFile) {
        vsPaths.emplace_back(itFile->first, sPrefixTo + itFile->first.substr(sPrefixFrom.size()));
    }
    return vsPaths;
}

bool CUtilities::RemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    const auto pFile = TakeRedirectedFile(pcPath);
    if (!pFile) {
        return true;
    }
    pFile->Close(pRuntimeParam);
    CFileOwner owner(this, pRuntimeParam, pcPath);
    return m_HostAnswers.Ask(CHostAnswers::kRemove,
                             [&] { return LogRemoveRedirectedFile(owner.GetParam(), pcPath); }) == 0;
}

bool CUtilities::CanTellOfRename(CRuntimeParam* pRuntimeParam, const char* pcPathFrom, const char* pcPathTo) {
    if (GetRedirectedFile(pcPathTo)) {
        CFileOwner owner(this, pRuntimeParam, OrEmpty(pcPathTo));
        if (!CanTellOf(owner.GetParam(), OrEmpty(pcPathTo))) {
            return false;
        }
    }
    auto vRenames = GetRenamesBelow(pcPathFrom, pcPathTo);
    if (GetRedirectedFile(pcPathFrom)) {
        vRenames.emplace_back(OrEmpty(pcPathFrom), OrEmpty(pcPathTo));
    }
    return std::ranges::all_of(vRenames, [this, pRuntimeParam](const auto& rename) {
        const char* const vpcPaths[] = {rename.first.c_str(), rename.second.c_str()};
        return std::ranges::all_of(vpcPaths, [&](const char* pcPath) {
            CFileOwner owner(this, pRuntimeParam, pcPath);
            return CanTellOf(owner.GetParam(), vpcPaths[0]) && CanTellOf(owner.GetParam(), vpcPaths[1]);
        });
    });
}

std::shared_ptr<CRedirectedFile> CUtilities::GetRedirectedFile(const char* pcPath) {
    const MutexLock lock(m_hMutexRedirectedFiles);
    return m_RedirectedFiles.Find(OrEmpty(pcPath));
}

bool CUtilities::IsRedirectedFile(const char* pcPath) {
    const std::string sCanonicalPath = GetCanonicalKey(OrEmpty(pcPath));
    const MutexLock lock(m_hMutexRedirectedFiles);
    return m_RedirectedFiles.Find(sCanonicalPath) != nullptr || m_RedirectedFiles.HasCanonicalPath(sCanonicalPath);
}

/// The canonical form of a path, without a line in the log: nobody asked for it.
std::string CUtilities::GetCanonicalKey(const char* pcPath) {
    CSilentParam silent;
    const LogArgu logArgu{"Utilities.GetCanonicalKey"};
    return GetCanonicalText({this, &silent, &logArgu}, pcPath);
}
