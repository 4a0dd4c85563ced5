// COpenedFiles: the entries of the descriptor cache, and the order of their use.
#include "OpenedFiles.h"

#include <cstdio>
#include <utility>

namespace {

std::string MakeTimeKey(std::time_t iTime, int iFile) {
    char vcKey[48];
    std::snprintf(vcKey, sizeof(vcKey), "%016llu%d", static_cast<unsigned long long>(iTime), iFile);
    return vcKey;
}

}  // namespace

COpenedFiles::Iterator COpenedFiles::FindOpen(std::string_view sPath) {
    const Iterator itOpened = Find(sPath);
    return itOpened != end() && itOpened->second.iFile.IsOpen() ? itOpened : end();
}

OpenedFileInfo& COpenedFiles::Store(OpenedFileInfo info, std::time_t iNow) {
    Stamp(info, iNow);
    std::string sPath = info.sPath;
    return m_OpenedFileHandles.insert_or_assign(std::move(sPath), std::move(info)).first->second;
}

void COpenedFiles::Touch(OpenedFileInfo& info, std::time_t iNow) {
    if (info.iLastAccess != iNow) {
        Stamp(info, iNow);
    }
}

void COpenedFiles::Stamp(OpenedFileInfo& info, std::time_t iNow) {
    m_OpenedFileLastAccessList.erase(info.sTimeKey);
    info.iLastAccess = iNow;
    info.sTimeKey = MakeTimeKey(iNow, info.iFile.Get());
    m_OpenedFileLastAccessList.insert_or_assign(info.sTimeKey, info.sPath);
}

COpenedFiles::Iterator COpenedFiles::Erase(Iterator itOpened) {
    m_OpenedFileLastAccessList.erase(itOpened->second.sTimeKey);
    return m_OpenedFileHandles.erase(itOpened);
}

void COpenedFiles::Clear() {
    m_OpenedFileHandles.clear();
    m_OpenedFileLastAccessList.clear();
}

std::vector<OpenedFileInfo> COpenedFiles::TakeOldest(std::size_t nWanted) {
    std::vector<OpenedFileInfo> vTaken;
    while (vTaken.size() < nWanted && !m_OpenedFileLastAccessList.empty()) {
        const auto itOldest = m_OpenedFileLastAccessList.begin();
        const Iterator itOpened = Find(itOldest->second);
        if (itOpened != end()) {
            vTaken.push_back(std::move(itOpened->second));
            m_OpenedFileHandles.erase(itOpened);
        }
        m_OpenedFileLastAccessList.erase(itOldest);
    }
    if (vTaken.size() < nWanted) {
        std::erase_if(m_OpenedFileHandles, [](const auto& opened) { return !opened.second.iFile.IsOpen(); });
    }
    return vTaken;
}
