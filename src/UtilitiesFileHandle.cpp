// CUtilities: file handles, made from and resolved to the paths of files.
//
// A handle's first four bytes hold the file ID in the server's own byte order (little-endian), the rest is zero.
#include "Utilities.h"

#include <cstring>

#include "FileTable.h"

namespace {

/// The shortest handle that is made: an ID and one byte more.
constexpr unsigned int kMinHandleSize = sizeof(unsigned int) + 1;

}  // namespace

unsigned int CUtilities::GetFileID(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath) {
    if (pcPath == nullptr) {
        return kNoFileID;
    }
    char vcCanonical[kPathBufferSize];
    GetCanonicalPath(pRuntimeParam, pLogArgu, vcCanonical, pcPath);
    // One that does not fit goes by its own text, whose ID leads to no path.
    return GetCanonicalFileID(vcCanonical[0] != '\0' ? vcCanonical : pcPath);
}

unsigned int CUtilities::GetCanonicalFileID(const char* pcCanonicalPath) {
    const MutexLock lock(m_hMutexFileTable);
    return m_pFileTable->GetIDByPath(pcCanonicalPath);
}

bool CUtilities::GetFileHandle(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                               char* pcHandle, unsigned int iLen) {
    // A path gets no ID that no handle could carry.
    const bool bRoom = pcHandle != nullptr && iLen >= kMinHandleSize;
    return MakeFileHandle(bRoom ? GetFileID(pRuntimeParam, pLogArgu, pcPath) : kNoFileID, pcHandle, iLen);
}

bool CUtilities::MakeFileHandle(unsigned int iID, char* pcHandle, unsigned int iLen) {
    if (pcHandle == nullptr) {
        return false;
    }
    std::memset(pcHandle, 0, iLen);
    if (iLen < kMinHandleSize) {
        return false;
    }
    std::memcpy(pcHandle, &iID, sizeof(iID));
    return iID != kNoFileID;
}

bool CUtilities::GetFilePath(CRuntimeParam* /*pRuntimeParam*/, const char* pcHandle, char* pcPath, unsigned int iSize) {
    if (pcHandle == nullptr) {
        return false;
    }
    unsigned int iID = kNoFileID;
    std::memcpy(&iID, pcHandle, sizeof(iID));
    if (iID == kNoFileID) {
        return false;
    }
    const MutexLock lock(m_hMutexFileTable);
    return m_pFileTable->GetPathByID(iID, pcPath, iSize);
}

bool CUtilities::MoveFileHandles(const char* pcPathFrom, const char* pcCanonicalFrom, const char* pcCanonicalTo) {
    const MutexLock lock(m_hMutexFileTable);
    return m_pFileTable->UpdateItemPath(pcPathFrom, pcCanonicalTo) ||
           (std::strcmp(pcPathFrom, pcCanonicalFrom) != 0 &&
            m_pFileTable->UpdateItemPath(pcCanonicalFrom, pcCanonicalTo));
}

void CUtilities::ResetFileTable() {
    const MutexLock lock(m_hMutexFileTable);
    m_pFileTable->Clear();
}
