// The exports by name, and found by the paths that lie in them.
#include "MountTable.h"

#include <algorithm>
#include <utility>

#include "Paths.h"

namespace {

/// The key of a local path. One that could not be made canonical may end in a slash, as that of the root does.
std::string_view FolderOf(std::string_view sLocalPath) {
    return sLocalPath.substr(0, sLocalPath.size() - (sLocalPath.ends_with('/') ? 1 : 0));
}

bool IsBefore(const MountInfo& mount, const MountInfo* pOther) {
    return pOther == nullptr || mount.sExportName < pOther->sExportName;
}

}  // namespace

MountInfo* CMountTable::FindByName(std::string_view sName) {
    const auto itMount = m_mMounts.find(sName);
    return itMount == m_mMounts.end() ? nullptr : &itMount->second;
}

const MountInfo* CMountTable::FindByPath(std::string_view sLocalPath) const {
    const auto [itBegin, itEnd] = m_mByFolder.equal_range(FolderOf(sLocalPath));
    const auto itFound =
        std::find_if(itBegin, itEnd, [=](const auto& mount) { return mount.second->sLocalMountPath == sLocalPath; });
    return itFound == itEnd ? nullptr : itFound->second;
}

void CMountTable::Add(MountInfo mount) {
    std::string sName = mount.sExportName;
    const MountInfo& added = m_mMounts.emplace(std::move(sName), std::move(mount)).first->second;
    m_mByFolder.emplace(FolderOf(added.sLocalMountPath), &added);
    MeasureFolders();
}

void CMountTable::Remove(const MountInfo& mount) {
    const auto [itBegin, itEnd] = m_mByFolder.equal_range(FolderOf(mount.sLocalMountPath));
    m_mByFolder.erase(std::find_if(itBegin, itEnd, [&mount](const auto& other) { return other.second == &mount; }));
    m_mMounts.erase(m_mMounts.find(mount.sExportName));
    MeasureFolders();
}

CMountTable::Mounts CMountTable::TakeAll() {
    m_mByFolder.clear();
    return std::exchange(m_mMounts, {});
}

void CMountTable::MeasureFolders() {
    m_nShortest = std::string_view::npos;
    m_nLongest = 0;
    for (const auto& [sFolder, pMount] : m_mByFolder) {
        m_nShortest = std::min(m_nShortest, sFolder.size());
        m_nLongest = std::max(m_nLongest, sFolder.size());
    }
}

MountAccess CMountTable::Judge(std::string_view sPath, const char* pcClientAddr, MountInfo* pMountInfo) const {
    const Holders holders = FindHolders(sPath, pcClientAddr);
    if (holders.pFirst == nullptr) {
        return MountAccess::kNone;
    }
    const bool bHeld = !holders.bOwn && holders.pHeld != nullptr;
    if (pMountInfo != nullptr && pcClientAddr == nullptr) {
        *pMountInfo = *holders.pFirst;
    } else if (pMountInfo != nullptr && bHeld) {
        pMountInfo->sExportName = holders.pHeld->sExportName;
        pMountInfo->sRemoteIpAddr = holders.pHeld->sRemoteIpAddr;
    } else if (pMountInfo != nullptr) {
        pMountInfo->sExportName = holders.pFirst->sExportName;
        pMountInfo->sIcpID = holders.pFirst->sIcpID;
    }
    return bHeld ? MountAccess::kHeld : MountAccess::kServed;
}

/// Each folder on a path's way, the path itself included, is one that may be exported.
CMountTable::Holders CMountTable::FindHolders(std::string_view sPath, const char* pcClientAddr) const {
    Holders holders;
    for (std::size_t nFolder = m_nShortest; nFolder <= std::min(m_nLongest, sPath.size()); ++nFolder) {
        if (nFolder < sPath.size() && sPath[nFolder] != '/') {
            continue;
        }
        const auto [itBegin, itEnd] = m_mByFolder.equal_range(sPath.substr(0, nFolder));
        for (auto it = itBegin; it != itEnd; ++it) {
            if (IsAtOrBelow(sPath, it->second->sLocalMountPath)) {  // with the slash that the key lacks
                holders.Meet(*it->second, pcClientAddr);
            }
        }
    }
    return holders;
}

void CMountTable::Holders::Meet(const MountInfo& mount, const char* pcClientAddr) {
    if (IsBefore(mount, pFirst)) {
        pFirst = &mount;
    }
    if (pcClientAddr == nullptr || mount.sRemoteIpAddr.empty()) {
        return;
    }
    if (mount.sRemoteIpAddr == pcClientAddr) {
        bOwn = true;
    } else if (IsBefore(mount, pHeld)) {
        pHeld = &mount;
    }
}
