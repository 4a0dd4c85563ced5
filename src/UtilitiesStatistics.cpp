// The registries: how much they hold.
//
// Each mutex is held for a moment, and never two of them, so that whoever asks waits for nobody who waits himself.
#include "Utilities.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

#include "FileTable.h"
#include "RedirectedFile.h"
#include "RegistryFigures.h"

RegistryFigures CUtilities::GetRegistryFigures() {
    RegistryFigures figures;
    CountMountInfos(&figures);
    CountRedirectedFiles(&figures);
    {
        const MutexLock lock(m_hMutexSessionInfos);
        figures.nSessions = m_SessionInfos.size();
    }
    {
        const MutexLock lock(m_hMutexFileTable);
        figures.nKnownPaths = m_pFileTable->GetSize();
    }
    figures.nCachedDescriptors = GetCachedFileCount();
    figures.nListings = m_nListings;
    figures.nListingBytes = m_nListingBytes;
    figures.vAnswers = m_HostAnswers.Read();
    return figures;
}

void CUtilities::CountMountInfos(RegistryFigures* pFigures) {
    const MutexLock lock(m_hMutexMountInfos);
    const CMountTable::Mounts& mounts = m_MountInfos.GetAll();
    pFigures->nExports = mounts.size();
    pFigures->nMountedExports = static_cast<std::size_t>(
        std::ranges::count_if(mounts, [](const auto& mount) { return !mount.second.sRemoteIpAddr.empty(); }));
}

void CUtilities::CountRedirectedFiles(RegistryFigures* pFigures) {
    std::vector<std::shared_ptr<CRedirectedFile>> vpFiles;
    {
        const MutexLock lock(m_hMutexRedirectedFiles);
        vpFiles.reserve(m_RedirectedFiles.GetAll().size());
        for (const auto& [sPath, entry] : m_RedirectedFiles.GetAll()) {
            vpFiles.push_back(entry.pFile);
        }
    }
    pFigures->nRedirectedFiles = vpFiles.size();
    for (const auto& pFile : vpFiles) {
        pFigures->nSegments += pFile->GetSegmentCount();
        pFigures->nMapBytes += pFile->GetMapMemory();
    }
}

std::optional<ReceiverFigures> CUtilities::GetReceiverFigures() {
    return std::nullopt;
}
