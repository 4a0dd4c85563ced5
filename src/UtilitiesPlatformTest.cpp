// CUtilities: the platform test, which tries on a directory every file operation that the server needs, and the quick
// test, which asks whether a path exists.
//
// Every step reports one line; a step that fails does not keep the following ones from being tried.
#include "Utilities.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "Paths.h"
#include "Reason.h"

namespace {

/// What "Enlarge file" adds to the wanted size; "Shrink file" takes it away again.
constexpr unsigned long long kEnlargement = 1024;

/// The buffer of the read and write steps; a chunk leaves its last byte unused.
constexpr std::size_t kChunkBufferSize = 2048;

/// A regular file that nobody may write (octal 100444), as the mode steps set and expect it.
constexpr unsigned int kReadOnlyFileMode = S_IFREG | 0444;

constexpr unsigned int kTestFolderMode = 0755;

/// Reports the steps of one test.
class StepLog {
public:
    explicit StepLog(const LogContext& log) : m_Log(log) {}

    void Line(const std::string& sLine) { m_Log.pLog->LogInfo(m_Log.pRuntimeParam, "%s", sLine.c_str()); }

    /// Reports a step that succeeded if no error is given. The result tells that.
    bool Step(const std::string& sStep, const std::string& sError) {
        if (sError.empty()) {
            m_Log.pLog->LogInfo(m_Log.pRuntimeParam, "%s%s.", "[ OK ] ", sStep.c_str());
            return true;
        }
        m_Log.pLog->LogInfo(m_Log.pRuntimeParam, "%s%s. Error=%s", "[FAIL] ", sStep.c_str(), sError.c_str());
        return false;
    }

private:
    const LogContext& m_Log;
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
        : sFolder(GetFolderPrefix(sTarget) + "_test"), sFile(sFolder + "/" + "test.bak"), sSecondFile(sFile + "2") {}
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
    log.Line(
        FormatText("%-40s: %llu", "Current time (in milliseconds)", CUtilities::GetCurrentSystemTimeInMilliseconds()));
    log.Line(FormatText("%-40s: %s", "Maximum File Size", printableSize(CUtilities::GetMaxFileSize(pcPath))));
    log.Line(FormatText("%-40s: %s", "Total Disk Space", printableSize(CUtilities::GetTotalDiskSpace(pcPath))));
    log.Line(FormatText("%-40s: %s", "Free Disk Space", printableSize(CUtilities::GetFreeDiskSpace(pcPath))));
    log.Line(FormatText("%-40s: %s", "Free Disk Space To Caller",
                        printableSize(CUtilities::GetFreeDiskSpaceAvailableToCaller(pcPath))));
    const auto logSlots = [&log](const char* pcTitle, unsigned long long nSlots) {
        log.Line(FormatText("%-40s: %llu(%llX)", pcTitle, nSlots, nSlots));
    };
    logSlots("Total File Slots", CUtilities::GetTotalFileSlots(pcPath));
    logSlots("Free File Slots", CUtilities::GetFreeFileSlots(pcPath));
    logSlots("Free File Slots To Caller", CUtilities::GetFreeFileSlotsAvailableToCaller(pcPath));
}

/// Removes what a failed step has left behind; a clean test leaves nothing, and has nothing removed here.
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
    return iNow == iPosition ? "" : FormatText("Position not match (current pos = %llu)", iNow);
}

/// The single steps that need nothing but the wrappers over system calls.
class FileSteps {
public:
    FileSteps(CUtilities& utilities, const LogContext& log)
        : m_Utilities(utilities), m_pParam(log.pRuntimeParam), m_pLogArgu(log.pLogArgu), m_Log(log) {}

    void CreateFolder(const std::string& sPath) {
        Reason reason;
        const int iResult =
            m_Utilities.OS_FolderCreate(m_pParam, m_pLogArgu, sPath.c_str(), kTestFolderMode, reason.vcText);
        std::string sError = reason.Unless(iResult == 0);
        if (iResult == 0 && !Exists(sPath)) {
            sError = "Directory not exist";
        }
        m_Log.Step(FormatText("Create directory \"%s\"", sPath.c_str()), sError);
    }

    int CreateFile(const std::string& sPath) {
        Reason reason;
        const int iFile = m_Utilities.OS_FileCreate(m_pParam, m_pLogArgu, sPath.c_str(), reason.vcText);
        std::string sError = reason.Unless(iFile >= 0);
        if (iFile >= 0 && !Exists(sPath)) {
            sError = "File not exist";
        }
        m_Log.Step(FormatText("Create file \"%s\"", sPath.c_str()), sError);
        return iFile;
    }

    int OpenFile(const std::string& sPath) {
        Reason reason;
        const int iFile = m_Utilities.OS_FileOpen(m_pParam, m_pLogArgu, sPath.c_str(), O_RDWR, false, reason.vcText);
        m_Log.Step(FormatText("Open file \"%s\"", sPath.c_str()), reason.Unless(iFile >= 0));
        return iFile;
    }

    bool CloseFile(int iFile, const char* pcPath) {
        Reason reason;
        const int iResult = m_Utilities.OS_FileClose(m_pParam, m_pLogArgu, iFile, pcPath, reason.vcText);
        return m_Log.Step(FormatText("Close file \"%s\"", pcPath), reason.Unless(iResult == 0));
    }

    /// The file's mode; 0 when it cannot be had.
    unsigned int GetFileMode(const std::string& sPath) {
        Reason reason;
        struct stat info {};
        const int iResult = m_Utilities.OS_GetFileStat(m_pParam, m_pLogArgu, sPath.c_str(), &info, reason.vcText);
        m_Log.Step(FormatText("Get file stat from file \"%s\"", sPath.c_str()), reason.Unless(iResult == 0));
        return iResult == 0 ? info.st_mode : 0;
    }

    void RenameFile(const std::string& sFrom, const std::string& sTo) {
        Reason reason;
        const int iResult = m_Utilities.OS_FileRename(m_pParam, m_pLogArgu, sFrom.c_str(), sTo.c_str(), reason.vcText);
        m_Log.Step(FormatText("Rename file from \"%s\" to \"%s\"", sFrom.c_str(), sTo.c_str()),
                   reason.Unless(iResult == 0));
    }

    void RemoveFile(const std::string& sPath) {
        Reason reason;
        const int iResult = m_Utilities.OS_FileRemove(m_pParam, m_pLogArgu, sPath.c_str(), reason.vcText);
        m_Log.Step(FormatText("Remove file \"%s\"", sPath.c_str()), reason.Unless(iResult == 0));
    }

    void RemoveFolder(const std::string& sPath) {
        Reason reason;
        const int iResult = m_Utilities.OS_FolderRemove(m_pParam, m_pLogArgu, sPath.c_str(), reason.vcText);
        std::string sError = reason.Unless(iResult == 0);
        if (iResult == 0 && Exists(sPath)) {
            sError = "Directory still exist";
        }
        m_Log.Step(FormatText("Remove directory \"%s\"", sPath.c_str()), sError);
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
    const LogArgu logArgu{"Utilities.RunTestMode"};
    const LogContext context{this, pRuntimeParam, &logArgu};
    StepLog log(context);
    if (pcDirPath == nullptr || pcDirPath[0] == '\0') {
        log.Line("Cannot start platrorm test. Error=Target directory is NULL");
        return;
    }
    if (iFileSize <= 0) {
        log.Line("Cannot start platrorm test. Error=File size is ZERO");
        return;
    }
    const std::string sTarget = GetCanonicalText(context, pcDirPath);
    Reason reason;
    if (!OS_IsFileExists(sTarget.c_str(), reason.vcText)) {
        log.Line(FormatText("Cannot start platrorm test. Error=Fail to access directory \"%s\" (%s)", sTarget.c_str(),
                            reason.vcText));
        return;
    }
    const TestPaths paths(sTarget);
    if (OS_IsFileExists(paths.sFolder.c_str(), nullptr)) {
        log.Line(
            FormatText("Cannot start platrorm test. Error=Test directory \"%s\" already exist", paths.sFolder.c_str()));
        return;
    }
    log.Line("=============================== START TEST ===============================");
    log.Line(FormatText(" >> Directory : \"%s\"", paths.sFolder.c_str()));
    log.Line(FormatText(" >> File      : \"%s\"", paths.sFile.c_str()));
    log.Line("");
    LogAttributes(log, sTarget.c_str());
    log.Line("");
    log.Line("-------------------------------- FILE IO ---------------------------------");
    RunTestFileSteps(context, sTarget.c_str(), static_cast<unsigned long long>(iFileSize));
    CleanUp(paths);
    log.Line("================================ END TEST ================================");
}

void CUtilities::RunTestFileSteps(const LogContext& log, const char* pcTarget, unsigned long long iFileSize) {
    const TestPaths paths(pcTarget);
    const char* pcFile = paths.sFile.c_str();
    CRuntimeParam* pRuntimeParam = log.pRuntimeParam;
    const LogArgu* pLogArgu = log.pLogArgu;
    FileSteps steps(*this, log);

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
    const LogContext context{this, pRuntimeParam, pLogArgu};
    StepLog log(context);
    FileSteps steps(*this, context);
    std::string sError;
    const int iFile = OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDWR, false, nullptr);
    if (iFile < 0) {
        sError = "Open file failed";
    } else if (!OS_SetFileSize(pRuntimeParam, pLogArgu, pcPath, iNewSize, nullptr)) {
        sError = "Set file size failed";
    }
    bool bSuccess =
        log.Step(FormatText("%s \"%s\" size to %lld", pcDescription, pcPath, static_cast<long long>(iNewSize)), sError);

    const long long iEnd = OS_FileSeek(pRuntimeParam, pLogArgu, iFile, 0, SEEK_END, nullptr);
    const unsigned long long iSize = iEnd < 0 ? 0 : static_cast<unsigned long long>(iEnd);
    const bool bSizeMatches = iEnd >= 0 && iSize == iNewSize;
    bSuccess =
        log.Step("Verify file size", bSizeMatches ? "" : FormatText("Size not match (current size = %llu)", iSize)) &&
        bSuccess;
    return steps.CloseFile(iFile, pcPath) && bSuccess;
}

bool CUtilities::RunTestReadWriteFile(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile,
                                      unsigned long long iPosition, unsigned long long iFileSize) {
    const LogContext context{this, pRuntimeParam, pLogArgu};
    StepLog log(context);
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

    bool bSuccess = log.Step(FormatText("File seek to position %llu", iStart), seek());

    const std::array<char, kChunkBufferSize> vcData = MakeTestData();
    const int iWritten = OS_FileWrite(pRuntimeParam, pLogArgu, iFile, vcData.data(), nChunk, nullptr);
    bSuccess = log.Step(FormatText("Write data with length %d", iLen),
                        lengthError(iWritten, "File write failed",
                                    FormatText("Data lenght not match (write length = %d)", iWritten))) &&
               bSuccess;

    bSuccess = log.Step(FormatText("Move pointer to position %llu", iStart), seek()) && bSuccess;

    std::array<char, kChunkBufferSize> vcRead{};
    const int iRead = OS_FileRead(pRuntimeParam, pLogArgu, iFile, vcRead.data(), nChunk, nullptr);
    bSuccess = log.Step(FormatText("Read data with length %d", iLen),
                        lengthError(iRead, "File read failed",
                                    FormatText("Data lenght not match (read length = %d)", iRead))) &&
               bSuccess;

    const bool bSame = std::memcmp(vcData.data(), vcRead.data(), nChunk) == 0;
    return log.Step(FormatText("Verify data with size %d", iLen), bSame ? "" : "Data content not match") && bSuccess;
}

bool CUtilities::RunTestUpdateFileAttribute(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, const char* pcPath,
                                            unsigned int iMode) {
    const LogContext context{this, pRuntimeParam, pLogArgu};
    StepLog log(context);
    const bool bSet = OS_SetFileMode(pRuntimeParam, pLogArgu, pcPath, iMode, nullptr) == 0;
    bool bSuccess =
        log.Step(FormatText("Set file mode %X to file \"%s\"", iMode, pcPath), bSet ? "" : "Set file mode failed");

    struct stat info {};
    const bool bGot = OS_GetFileStat(pRuntimeParam, pLogArgu, pcPath, &info, nullptr) == 0;
    bSuccess =
        log.Step(FormatText("Get file mode from file \"%s\"", pcPath), bGot ? "" : "Get file mode failed") && bSuccess;

    const unsigned int iCurrent = bGot ? info.st_mode : 0;
    const bool bMatches = bGot && iCurrent == iMode;
    return log.Step(FormatText("Verify file mode %X from file \"%s\"", iMode, pcPath),
                    bMatches ? "" : FormatText("File mode not match (current file mode = %X)", iCurrent)) &&
           bSuccess;
}

bool CUtilities::RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus) {
    const LogArgu logArgu{"Utilities.RunQuickTestMode"};
    if (pRuntimeParam == nullptr || pcPath == nullptr || pcPath[0] == '\0') {
        constexpr const char* kInvalidArgument = "Invalid argument";
        if (pRuntimeParam != nullptr && pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "Quick test failed. Error=\"%s\"", kInvalidArgument);
        }
        WriteReason(pcStatus, "%s", kInvalidArgument);
        return false;
    }
    if (iMode != 0) {
        WriteReason(pcStatus, "Unknown mode (%d)", iMode);
        return false;
    }
    const std::string sPath = GetCanonicalText({this, pRuntimeParam, &logArgu}, pcPath);
    if (OS_IsFileExists(sPath.c_str(), pcStatus)) {
        return true;
    }
    if (pRuntimeParam->IsLogGeneralInfo()) {
        LogInfo(pRuntimeParam, "Quick exist test failed. Error=\"%s\"", sPath.c_str());  // the path, not the reason
    }
    return false;
}
