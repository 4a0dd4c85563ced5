// One run of the console: options, pid file, controller, one action, stop, clean-up.
#include "ConsoleUtilities.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "ConsoleOptions.h"
#include "ControllerFactory.h"
#include "FileLogger.h"
#include "NfsMain.h"
#include "Reason.h"
#include "ServerIdentity.h"
#include "Utilities.h"

namespace {

/// Removes the pid file at the end of the scope.
class PidFileGuard {
public:
    PidFileGuard(CConsoleUtilities& console, const ConsoleOptions& options) : m_Console(console), m_Options(options) {}
    ~PidFileGuard() { m_Console.RemovePidFile(m_Options.sPidFile.c_str(), m_Options.iLogControl); }
    PidFileGuard(const PidFileGuard&) = delete;
    PidFileGuard& operator=(const PidFileGuard&) = delete;

private:
    CConsoleUtilities& m_Console;
    const ConsoleOptions& m_Options;
};

/// The controller of an access mode; null for none. The programs that run a server allow others to end them.
std::unique_ptr<CNfsMain> MakeController(const ConsoleOptions& options) {
    std::unique_ptr<CNfsMain> pNfsMain =
        CreateController(options.iAccessMode, options.sID.c_str(), options.iLogControl);
    if (!pNfsMain) {
        return nullptr;
    }
    pNfsMain->SetOptions(options.server);
    if (options.iAccessMode != kAccessModeClient) {
        pNfsMain->EnableAutoShutdown(true);
    }
    return pNfsMain;
}

/// A logger is closed before it goes.
struct CloseAndDelete {
    void operator()(CFileLogger* pLogger) const {
        pLogger->Close();
        delete pLogger;
    }
};
using LoggerPtr = std::unique_ptr<CFileLogger, CloseAndDelete>;

/// The log file of this run; null without one, also after a line about one that cannot be opened.
LoggerPtr CreateLogger(const ConsoleOptions& options) {
    if (options.sLogFile.empty()) {
        return nullptr;
    }
    LoggerPtr pLogger(new CFileLogger(options.sLogFile.c_str()));
    if (!pLogger->Open(options.iLogControl)) {
        std::printf("Fail to create log file: %s\n", options.sLogFile.c_str());
        return nullptr;
    }
    return pLogger;
}

void LogStart(const ConsoleOptions& options, CNfsMain* pNfsMain) {
    pNfsMain->GetUtilities()->LogInfo(pNfsMain->GetRuntimeParam(), "ID = %s, LogControl = %d, AccessMode = %d",
                                      options.sID.c_str(), options.iLogControl, options.iAccessMode);
    if (!options.sPidFile.empty()) {
        pNfsMain->GetUtilities()->LogInfo(pNfsMain->GetRuntimeParam(), "Create pid file \"%s\"",
                                          options.sPidFile.c_str());
    }
}

}  // namespace

int CConsoleUtilities::Run(const char* pcProgramName, const char* pcCommandLine) {
    ConsoleOptions options;
    if (const std::optional<int> iStatus = options.Parse(*this, pcProgramName, pcCommandLine)) {
        return *iStatus;
    }
    char vcReason[kReasonBufferSize] = "";
    if (!CreatePidFile(options.sPidFile.c_str(), options.iLogControl, vcReason)) {
        std::printf("Fail to create pid file \"%s\". Reason=%s\n", options.sPidFile.c_str(), vcReason);
        return 1;
    }
    const PidFileGuard pidFile(*this, options);
    return RunController(options);
}

int CConsoleUtilities::RunController(const ConsoleOptions& options) {
    if (options.bShutdownMode && options.iAccessMode != kAccessModeClient) {
        std::printf("Auto shutdown is activated, terminate now\n");
        return 0;
    }
    LoggerPtr pLogger;  // outlives the controller that writes to it
    const std::unique_ptr<CNfsMain> pNfsMain = MakeController(options);
    if (!pNfsMain) {
        std::printf("Un-supported access mode: %d\n", options.iAccessMode);
        return 1;
    }
    pLogger = CreateLogger(options);
    if (pLogger) {
        pNfsMain->SetFileLogger(pLogger.get());
        LogStart(options, pNfsMain.get());
    }
    char vcReason[kReasonBufferSize] = "";
    const int iStatus = DriveController(options, pNfsMain.get(), vcReason);
    if (iStatus != 0) {
        std::printf("Terminated. Reason=%s\n", vcReason);
    }
    return iStatus;
}

int CConsoleUtilities::DriveController(const ConsoleOptions& options, CNfsMain* pNfsMain, char* pcStatus) {
    char vcVersion[kIdentityBufferSize] = "";
    char vcDescription[kIdentityBufferSize] = "";
    pNfsMain->GetVersion(vcVersion);
    pNfsMain->GetDescription(vcDescription);
    PrintBanner(vcVersion, vcDescription);
    if (std::strcmp(vcVersion, kUnknownServer) == 0) {
        if (options.bQueryMode) {
            PrintNotAccessible();
            return 0;
        }
        WriteReason(pcStatus, "Fail to get server version");
        return 1;
    }
    if (!pNfsMain->Initial(pcStatus)) {
        return 1;
    }
    const bool bStarted = pNfsMain->StartRemoteController(pcStatus);
    if (bStarted) {
        DoWork(options, pNfsMain);
        pNfsMain->StopServer();
        pNfsMain->StopRemoteController();
    }
    pNfsMain->Terminate();
    return bStarted ? 0 : 1;
}

void CConsoleUtilities::DoWork(const ConsoleOptions& options, CNfsMain* pNfsMain) {
    if (options.bShutdownMode) {
        pNfsMain->RequestAutoShutdown();
    } else if (options.bQueryMode) {
        PrintStatus(pNfsMain);
    } else if (options.bTestMode) {
        pNfsMain->RunTestMode(options.sTestPath.c_str(), options.iTestSize);
    } else {
        ProcessCommand(pNfsMain);
    }
}
