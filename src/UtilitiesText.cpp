// CUtilities: paths and texts.
#include "Utilities.h"

#include <cstdio>
#include <cstring>

#include <sys/time.h>

#include "Paths.h"
#include "Texts.h"

bool CUtilities::GetCanonicalPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, char* pcOut,
                                  const char* pcPath, FoundStatus* pStatus) {
    const LogContext log{this, pRuntimeParam, pLogArgu};
    const char* pcGiven = OrEmpty(pcPath);
    char vcResolved[kPathBufferSize];
    if (FindCanonicalPath(pcGiven, vcResolved, pStatus)) {
        std::memcpy(pcOut, vcResolved, std::strlen(vcResolved) + 1);
        NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Get canonical path successfully: %s", pcOut);
        return true;
    }
    NFS_LOG_INFO(log, kLogGeneralInfo, "[%s] Fail to get canonical path from non-exist path: %s", pcGiven);
    const std::size_t nLength = strnlen(pcGiven, kPathBufferSize);
    const std::size_t nCopied = nLength < kPathBufferSize ? nLength : 0;  // its first part would be another path
    std::memmove(pcOut, pcGiven, nCopied);                                // they may be one buffer
    pcOut[nCopied] = '\0';
    return false;
}

std::string CUtilities::GetCanonicalText(const LogContext& log, const char* pcPath) {
    char vcCanonical[kPathBufferSize];
    GetCanonicalPath(log.pRuntimeParam, log.pLogArgu, vcCanonical, pcPath);
    return vcCanonical[0] != '\0' || pcPath == nullptr ? vcCanonical : pcPath;
}

void CUtilities::SetPathToCompare(char* pcPath) {
    AppendSlash(pcPath);
}

void CUtilities::SetPathToCompare(std::string& sPath) {
    AppendSlash(sPath);
}

void CUtilities::SplitIntoVector(const char* pcText, char cSeparator, std::vector<std::string>& vOut) {
    AppendPieces(pcText, cSeparator, vOut);
}

void CUtilities::GetPrintableFileSize(unsigned long long iBytes, char* pcOut) {
    constexpr std::size_t kSizeBufferSize = 32;
    constexpr int kExabytes = 6;
    int iUnit = 0;
    double fNext = static_cast<double>(iBytes) / 1024;  // the value in the next unit
    while (fNext > 1.0 && iUnit < kExabytes) {
        fNext /= 1024;
        ++iUnit;
    }
    const double fValue = fNext * 1024;
    switch (iUnit) {
        case 0:
            std::snprintf(pcOut, kSizeBufferSize, "%.1fB", fValue);
            break;
        case 1:
            std::snprintf(pcOut, kSizeBufferSize, "%.1fKB", fValue);
            break;
        case 2:
            std::snprintf(pcOut, kSizeBufferSize, "%.1fMB", fValue);
            break;
        case 3:
            std::snprintf(pcOut, kSizeBufferSize, "%.1fGB", fValue);
            break;
        case 4:
            std::snprintf(pcOut, kSizeBufferSize, "%.1fTB", fValue);
            break;
        case 5:
            std::snprintf(pcOut, kSizeBufferSize, "%.1fPB", fValue);
            break;
        default:
            std::snprintf(pcOut, kSizeBufferSize, "%.1fEB", fValue);
            break;
    }
}

unsigned long long CUtilities::GetCurrentSystemTimeInMilliseconds() {
    timeval now{};
    gettimeofday(&now, nullptr);  // cannot fail with a valid buffer
    return static_cast<unsigned long long>(now.tv_sec) * 1000 + static_cast<unsigned long long>(now.tv_usec) / 1000;
}
