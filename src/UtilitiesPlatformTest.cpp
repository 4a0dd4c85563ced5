// CUtilities: the platform test, which tries on a directory every file operation that the server needs, and the quick
// test, which asks whether a path exists.
//
// Every step reports one line; a step that fails does not keep the following ones from being tried.
#include "Utilities.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// What "Enlarge file" adds to the wanted size; "Shrink file" takes it away again.
constexpr unsigned long long kEnlargement = 1024;

/// The buffer of the read and write steps; a chunk leaves its last byte unused.
constexpr std::size_t kChunkBufferSize = 2048;

/// A regular file that nobody may write (octal 100444), as the mode steps set and expect it.
constexpr unsigned int kReadOnlyFileMode = S_IFREG | 0444;

constexpr unsigned int kTestFolderMode = 0755;

__attribute__((format(printf, 1, 2))) std::string Format(const char* pcFormat, ...) {
    std::array<char, kMessageBufferSize> vcText{};
    va_list arguments;
    va_start(arguments, pcFormat);
    std::vsnprintf(vcText.data(), vcText.size(), pcFormat, arguments);
    va_end(arguments);
    return vcText.data();
}

/// Reports the steps of one test.
class StepLog {
public:
    StepLog(CUtilities& utilities, CRuntimeParam* pRuntimeParam) : m_Utilities(utilities), m_pParam(pRuntimeParam) {}

    void Line(const std::string& sLine) { m_Utilities.LogInfo(m_pParam, "%s", sLine.c_str()); }

    /// Reports a step that succeeded if no error is given. The result tells that.
    bool Step(const std::string& sStep, const std::string& sError) {
        if (sError.empty()) {
            m_Utilities.LogInfo(m_pParam, "%s%s.", "[ OK ] ", sStep.c_str());
            return true;
        }
        m_Utilities.LogInfo(m_pParam, "%s%s. Error=%s", "[FAIL] ", sStep.c_str(), sError.c_str());
        return false;
    }

private:
    CUtilities& m_Utilities;
    CRuntimeParam* m_pParam;
};

/// A wrapper's reason buffer: empty unless it failed.
struct Reason {
    char vcText[kReasonBufferSize] = "";
    std::string Unless(bool bSuccess) const { return bSuccess ? "" : vcText; }
};

/// The names a test works with.
struct TestPaths {
    std::string sFolder;
    std::string sFile;
    std::string sSecondFile;

    explicit TestPaths(const std::string& sTarget)
        : sFolder(sTarget + (sTarget.ends_with('/') ? "" : "/") + "_test"),
          sFile(sFolder + "/" + "test.bak"),
          sSecondFile(sFile + "2") {}
};

/// Letters from "A" upward, starting again behind character 96.
std::array<char, kChunkBufferSize> MakeTestData() {
    std::array<char, kChunkBufferSize> vcData{};
    char cNext = 'A';
    for (char& c : vcData) {
        c = cNext;
        cNext = cNext == 96 ? 'A' : static_cast<char>(cNext + 1);
    }
    return vcData;
}

void LogAttributes(StepLog& log, const char* pcPath) {
    char vcSize[32];
    const auto printableSize = [&vcSize](unsigned long long iBytes) {
        CUtilities::GetPrintableFileSize(iBytes, vcSize);
        return vcSize;
    };
    log.Line("------------------------ ATTRIBUTES of file system -----------------------");
    log.Line(Format("%-40s: %llu", "Current time (in milliseconds)", CUtilities::GetCurrentSystemTimeInMilliseconds()));
    log.Line(Format("%-40s: %s", "Maximum File Size", printableSize(CUtilities::GetMaxFileSize(pcPath))));
    log.Line(Format("%-40s: %s", "Total Disk Space", printableSize(CUtilities::GetTotalDiskSpace(pcPath))));
    log.Line(Format("%-40s: %s", "Free Disk Space", printableSize(CUtilities::GetFreeDiskSpace(pcPath))));
    log.Line(Format("%-40s: %s", "Free Disk Space To Caller",
                    printableSize(CUtilities::GetFreeDiskSpaceAvailableToCaller(pcPath))));
    const auto logSlots = [&log](const char* pcTitle, unsigned long long nSlots) {
        log.Line(Format("%-40s: %llu(%llX)", pcTitle, nSlots, nSlots));
    };
    logSlots("Total File Slots", CUtilities::GetTotalFileSlots(pcPath));
    logSlots("Free File Slots", CUtilities::GetFreeFileSlots(pcPath));
    logSlots("Free File Slots To Caller", CUtilities::GetFreeFileSlotsAvailableToCaller(pcPath));
}

/// Removes what a failed step has left behind; a clean test leaves nothing.
void CleanUp(const TestPaths& paths) {
    ::unlink(paths.sFile.c_str());
    ::unlink(paths.sSecondFile.c_str());
    ::rmdir(paths.sFolder.c_str());
}

/// What is wrong with a seek's result; nothing if it stands at the position.
std::string SeekError(long long iResult, unsigned long long iPosition) {
    if (iResult < 0) {
        return "File seek failed";
    }
    const auto iNow = static_cast<unsigned long long>(iResult);
    return iNow == iPosition ? "" : Format("Position not match (current pos = %llu)", iNow);
}

/// The single steps that need nothing but the wrappers over system calls.
class FileSteps {
public:
    FileSteps(CUtilities& utilities, CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu)
        : m_Utilities(utilities), m_pParam(pRuntimeParam), m_pLogArgu(pLogArgu), m_Log(utilities, pRuntimeParam) {}

    void CreateFolder(const std::string& sPath) {
        Reason reason;
        const int iResult =
            m_Utilities.OS_FolderCreate(m_pParam, m_pLogArgu, sPath.c_str(), kTestFolderMode, reason.vcText);
        std::string sError = reason.Unless(iResult == 0);
        if (iResult == 0 && !Exists(sPath)) {
            sError = "Directory not exist";
        }
        m_Log.Step(Format("Create directory \"%s\"", sPath.c_str()), sError);
    }

    int CreateFile(const std::string& sPath) {
        Reason reason;
        const int iFile = m_Utilities.OS_FileCreate(m_pParam, m_pLogArgu, sPath.c_str(), reason.vcText);
        std::string sError = reason.Unless(iFile >= 0);
        if (iFile >= 0 && !Exists(sPath)) {
            sError = "File not exist";
        }
        m_Log.Step(Format("Create file \"%s\"", sPath.c_str()), sError);
        return iFile;
    }

    int OpenFile(const std::string& sPath) {
        Reason reason;
        const int iFile = m_Utilities.OS_FileOpen(m_pParam, m_pLogArgu, sPath.c_str(), O_RDWR, false, reason.vcText);
        m_Log.Step(Format("Open file \"%s\"", sPath.c_str()), reason.Unless(iFile >= 0));
        return iFile;
    }

    bool CloseFile(int iFile, const char* pcPath) {
        Reason reason;
        const int iResult = m_Utilities.OS_FileClose(m_pParam, m_pLogArgu, iFile, pcPath, reason.vcText);
        return m_Log.Step(Format("Close file \"%s\"", pcPath), reason.Unless(iResult == 0));
    }

    /// The file's mode; 0 when it cannot be had.
    unsigned int GetFileMode(const std::string& sPath) {
        Reason reason;
        struct stat info {};
        const int iResult = m_Utilities.OS_GetFileStat(m_pParam, m_pLogArgu, sPath.c_str(), &info, reason.vcText);
        m_Log.Step(Format("Get file stat from file \"%s\"", sPath.c_str()), reason.Unless(iResult == 0));
        return iResult == 0 ? info.st_mode : 0;
    }

    void RenameFile(const std::string& sFrom, const std::string& sTo) {
        Reason reason;
        const int iResult = m_Utilities.OS_FileRename(m_pParam, m_pLogArgu, sFrom.c_str(), sTo.c_str(), reason.vcText);
        m_Log.Step(Format("Rename file from \"%s\" to \"%s\"", sFrom.c_str(), sTo.c_str()),
                   reason.Unless(iResult == 0));
    }

    void RemoveFile(const std::string& sPath) {
        Reason reason;
        const int iResult = m_Utilities.OS_FileRemove(m_pParam, m_pLogArgu, sPath.c_str(), reason.vcText);
        m_Log.Step(Format("Remove file \"%s\"", sPath.c_str()), reason.Unless(iResult == 0));
    }

    void RemoveFolder(const std::string& sPath) {
        Reason reason;
        const int iResult = m_Utilities.OS_FolderRemove(m_pParam, m_pLogArgu, sPath.c_str(), reason.vcText);
        std::string sError = reason.Unless(iResult == 0);
        if (iResult == 0 && Exists(sPath)) {
            sError = "Directory still exist";
        }
        m_Log.Step(Format("Remove directory \"%s\"", sPath.c_str()), sError);
    }

private:
    bool Exists(const std::string& sPath) { return m_Utilities.OS_IsFileExists(sPath.c_str(), nullptr); }

    CUtilities& m_Utilities;
    CRuntimeParam* m_pParam;
    const LogArgu* m_pLogArgu;
    StepLog m_Log;
};

}  // namespace

void CUtilities::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize) {
    LogArgu logArgu{"Utilities.RunTestMode"};
    StepLog log(*this, pRuntimeParam);
    if (pcDirPath == nullptr || pcDirPath[0] == '\0') {
        log.Line("Cannot start platrorm test. Error=Target directory is NULL");
        return;
    }
    if (iFileSize <= 0) {
        log.Line("Cannot start platrorm test. Error=File size is ZERO");
        return;
    }
    const std::string sTarget = GetCanonicalText(pRuntimeParam, &logArgu, pcDirPath);
    Reason reason;
    if (!OS_IsFileExists(sTarget.c_str(), reason.vcText)) {
        log.Line(Format("Cannot start platrorm test. Error=Fail to access directory \"%s\" (%s)", sTarget.c_str(),
                        reason.vcText));
        return;
    }
    const TestPaths paths(sTarget);
    if (OS_IsFileExists(paths.sFolder.c_str(), nullptr)) {
        log.Line(
            Format("Cannot start platrorm test. Error=Test directory \"%s\" already exist", paths.sFolder.c_str()));
        return;
    }
    log.Line("=============================== START TEST ===============================");
    log.Line(Format(" >> Directory : \"%s\"", paths.sFolder.c_str()));
    log.Line(Format(" >> File      : \"%s\"", paths.sFile.c_str()));
    log.Line("");
    LogAttributes(log, sTarget.c_str());
    log.Line("");
    log.Line("-------------------------------- FILE IO ---------------------------------");
    RunTestFileSteps(pRuntimeParam, &logArgu, sTarget.c_str(), static_cast<unsigned long long>(iFileSize));
    CleanUp(paths);
    log.Line("================================ END TEST ================================");
}

void CUtilities::RunTestFileSteps(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcTarget,
                                  unsigned long long iFileSize) {
    const TestPaths paths(pcTarget);
    const char* pcFile = paths.sFile.c_str();
    FileSteps steps(*this, pRuntimeParam, pLogArgu);

    steps.CreateFolder(paths.sFolder);
    int iFile = steps.CreateFile(paths.sFile);
    steps.CloseFile(iFile, pcFile);
    RunTestUpdateFileSize(pRuntimeParam, pLogArgu, pcFile, iFileSize + kEnlargement, "Enlarge file");
    RunTestUpdateFileSize(pRuntimeParam, pLogArgu, pcFile, iFileSize, "Shrink file");

    iFile = steps.OpenFile(paths.sFile);
    RunTestReadWriteFile(pRuntimeParam, pLogArgu, iFile, 0, iFileSize);
    RunTestReadWriteFile(pRuntimeParam, pLogArgu, iFile, iFileSize, iFileSize);
    const unsigned int iMode = steps.GetFileMode(paths.sFile);
    RunTestUpdateFileAttribute(pRuntimeParam, pLogArgu, pcFile, kReadOnlyFileMode);
    RunTestUpdateFileAttribute(pRuntimeParam, pLogArgu, pcFile, iMode);
    steps.CloseFile(iFile, pcFile);

    steps.RenameFile(paths.sFile, paths.sSecondFile);
    steps.RemoveFile(paths.sSecondFile);
    steps.RemoveFolder(paths.sFolder);
}

bool CUtilities::RunTestUpdateFileSize(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                       unsigned long long iNewSize, const char* pcDescription) {
    StepLog log(*this, pRuntimeParam);
    FileSteps steps(*this, pRuntimeParam, pLogArgu);
    std::string sError;
    const int iFile = OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDWR, false, nullptr);
    if (iFile < 0) {
        sError = "Open file failed";
    } else if (!OS_SetFileSize(pRuntimeParam, pLogArgu, pcPath, iNewSize, nullptr)) {
        sError = "Set file size failed";
    }
    bool bSuccess =
        log.Step(Format("%s \"%s\" size to %lld", pcDescription, pcPath, static_cast<long long>(iNewSize)), sError);

    const long long iEnd = OS_FileSeek(pRuntimeParam, pLogArgu, iFile, 0, SEEK_END, nullptr);
    const unsigned long long iSize = iEnd < 0 ? 0 : static_cast<unsigned long long>(iEnd);
    const bool bSizeMatches = iEnd >= 0 && iSize == iNewSize;
    bSuccess =
        log.Step("Verify file size", bSizeMatches ? "" : Format("Size not match (current size = %llu)", iSize)) &&
        bSuccess;
    return steps.CloseFile(iFile, pcPath) && bSuccess;
}

bool CUtilities::RunTestReadWriteFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile,
                                      unsigned long long iPosition, unsigned long long iFileSize) {
    StepLog log(*this, pRuntimeParam);
    const auto nChunk = static_cast<unsigned int>(std::min<unsigned long long>(kChunkBufferSize - 1, iFileSize));
    const unsigned long long iStart = std::min(iPosition, iFileSize - nChunk);  // the chunk ends inside the file
    const int iLen = static_cast<int>(nChunk);
    const auto seek = [&] {
        return SeekError(OS_FileSeek(pRuntimeParam, pLogArgu, iFile, static_cast<long long>(iStart), SEEK_SET, nullptr),
                         iStart);
    };
    const auto lengthError = [iLen](int iDone, const std::string& sFailed, const std::string& sOther) {
        return iDone < 0 ? sFailed : iDone == iLen ? std::string() : sOther;
    };

    bool bSuccess = log.Step(Format("File seek to position %llu", iStart), seek());

    const std::array<char, kChunkBufferSize> vcData = MakeTestData();
    const int iWritten = OS_FileWrite(pRuntimeParam, pLogArgu, iFile, vcData.data(), nChunk, nullptr);
    bSuccess = log.Step(Format("Write data with length %d", iLen),
                        lengthError(iWritten, "File write failed",
                                    Format("Data lenght not match (write length = %d)", iWritten))) &&
               bSuccess;

    bSuccess = log.Step(Format("Move pointer to position %llu", iStart), seek()) && bSuccess;

    std::array<char, kChunkBufferSize> vcRead{};
    const int iRead = OS_FileRead(pRuntimeParam, pLogArgu, iFile, vcRead.data(), nChunk, nullptr);
    bSuccess =
        log.Step(Format("Read data with length %d", iLen),
                 lengthError(iRead, "File read failed", Format("Data lenght not match (read length = %d)", iRead))) &&
        bSuccess;

    const bool bSame = std::memcmp(vcData.data(), vcRead.data(), nChunk) == 0;
    return log.Step(Format("Verify data with size %d", iLen), bSame ? "" : "Data content not match") && bSuccess;
}

bool CUtilities::RunTestUpdateFileAttribute(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                            unsigned int iMode) {
    StepLog log(*this, pRuntimeParam);
    const bool bSet = OS_SetFileMode(pRuntimeParam, pLogArgu, pcPath, iMode, nullptr) == 0;
    bool bSuccess =
        log.Step(Format("Set file mode %X to file \"%s\"", iMode, pcPath), bSet ? "" : "Set file mode failed");

    struct stat info {};
    const bool bGot = OS_GetFileStat(pRuntimeParam, pLogArgu, pcPath, &info, nullptr) == 0;
    bSuccess =
        log.Step(Format("Get file mode from file \"%s\"", pcPath), bGot ? "" : "Get file mode failed") && bSuccess;

    const unsigned int iCurrent = bGot ? info.st_mode : 0;
    const bool bMatches = bGot && iCurrent == iMode;
    return log.Step(Format("Verify file mode %X from file \"%s\"", iMode, pcPath),
                    bMatches ? "" : Format("File mode not match (current file mode = %X)", iCurrent)) &&
           bSuccess;
}

bool CUtilities::RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus) {
    LogArgu logArgu{"Utilities.RunQuickTestMode"};
    const auto fail = [pcStatus](const char* pcReason) {
        if (pcStatus != nullptr) {
            std::snprintf(pcStatus, kReasonBufferSize, "%s", pcReason);
        }
        return false;
    };
    if (pRuntimeParam == nullptr || pcPath == nullptr || pcPath[0] == '\0') {
        constexpr const char* kInvalidArgument = "Invalid argument";
        if (pRuntimeParam != nullptr && pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "Quick test failed. Error=\"%s\"", kInvalidArgument);
        }
        return fail(kInvalidArgument);
    }
    if (iMode != 0) {
        return fail(Format("Unknown mode (%d)", iMode).c_str());
    }
    const std::string sPath = GetCanonicalText(pRuntimeParam, &logArgu, pcPath);
    Reason reason;
    if (OS_IsFileExists(sPath.c_str(), reason.vcText)) {
        return true;
    }
    if (pRuntimeParam->IsLogGeneralInfo()) {
        LogInfo(pRuntimeParam, "Quick exist test failed. Error=\"%s\"", sPath.c_str());  // the path, not the reason
    }
    return fail(reason.vcText);
}
