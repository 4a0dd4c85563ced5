// The commands of the console's loop: what each one does and says.
#include "ConsoleCommands.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "ConsoleNumbers.h"
#include "ConsoleUtilities.h"
#include "FileLogger.h"
#include "NfsMain.h"
#include "ServerIdentity.h"
#include "ServerStatistics.h"
#include "StatisticsForm.h"
#include "Utilities.h"

namespace {

/// "left=right" of an argument.
struct Pair {
    char vcLeft[kPathBufferSize] = "";
    char vcRight[kPathBufferSize] = "";
};

bool Split(ConsoleSession& session, const char* pcArgument, Pair& pair) {
    return session.pConsole->SplitValue(session.pNfsMain->GetUtilities(), pcArgument, pair.vcLeft, pair.vcRight);
}

std::vector<std::string> SplitAtBlanks(const char* pcArgument) {
    std::vector<std::string> vPieces;
    CUtilities::SplitIntoVector(pcArgument, ' ', vPieces);
    return vPieces;
}

// ---- Basic commands

ConsoleNext Help(ConsoleSession& session, const char* /*pcArgument*/) {
    session.pConsole->PrintCommandHelp(session.bDebugMode);
    return ConsoleNext::kPrompt;
}

ConsoleNext Quit(ConsoleSession& /*session*/, const char* /*pcArgument*/) {
    std::printf("\nExit\n");
    return ConsoleNext::kEnd;
}

ConsoleNext Log(ConsoleSession& session, const char* pcArgument) {
    session.pNfsMain->SetLogControl(ToInt(pcArgument));
    return ConsoleNext::kPrompt;
}

ConsoleNext Status(ConsoleSession& session, const char* /*pcArgument*/) {
    std::printf("\n");
    session.pConsole->PrintStatus(session.pNfsMain);
    return ConsoleNext::kPrompt;
}

/// The figures of the server in this process.
ConsoleNext ShowStatistics(ConsoleSession& session, StatisticsForm form) {
    if (session.pNfsMain->GetAccessMode() == kAccessModeClient) {
        std::printf(
            "The server runs in another process, which counts. Start it with -stats FILE, and have it show the\n"
            "file: type 'debug', then 'exec cat FILE'\n");
        return ConsoleNext::kPrompt;
    }
    ServerStatistics statistics;
    session.pNfsMain->GetStatistics(&statistics);
    std::printf("%s", ShowStatistics(statistics, form).c_str());
    return ConsoleNext::kPrompt;
}

ConsoleNext Stats(ConsoleSession& session, const char* /*pcArgument*/) {
    return ShowStatistics(session, StatisticsForm::kTable);
}

ConsoleNext StatsInForm(ConsoleSession& session, const char* pcArgument) {
    if (const std::optional<StatisticsForm> form = FindForm(pcArgument)) {
        return ShowStatistics(session, *form);
    }
    std::printf("Fail to show statistics. Reason=In-valid input value: %s\n", pcArgument);
    return ConsoleNext::kPrompt;
}

ConsoleNext Debug(ConsoleSession& session, const char* /*pcArgument*/) {
    session.bDebugMode = true;
    return ConsoleNext::kPrompt;
}

// ---- Server and exports

ConsoleNext StartOnPorts(ConsoleSession& session, int iMountPort, int iNfsPort) {
    if (session.pNfsMain->IsServerRunning()) {
        std::printf("NFS already running");
        return ConsoleNext::kPrompt;
    }
    char vcReason[kReasonBufferSize] = "";
    if (session.pNfsMain->StartServer(iMountPort, iNfsPort, 0, 0, false, vcReason)) {
        std::printf("Start NFS success");
    } else {
        std::printf("Fail to start NFS. %s\n", vcReason);
    }
    return ConsoleNext::kPrompt;
}

ConsoleNext Start(ConsoleSession& session, const char* /*pcArgument*/) {
    return StartOnPorts(session, 0, 0);
}

ConsoleNext StartWithPorts(ConsoleSession& session, const char* pcArgument) {
    Pair ports;
    if (!Split(session, pcArgument, ports)) {
        std::printf("Fail to start NFS. Reason=In-valid input value: %s\n", pcArgument);
        return ConsoleNext::kNoPrompt;
    }
    return StartOnPorts(session, ToInt(ports.vcLeft), ToInt(ports.vcRight));
}

ConsoleNext Mount(ConsoleSession& session, const char* pcArgument) {
    Pair mount;
    if (!Split(session, pcArgument, mount)) {
        std::printf("Fail to add mount point to NFS. Reason=In-valid input value: %s\n", pcArgument);
        return ConsoleNext::kPrompt;
    }
    char vcReason[kReasonBufferSize] = "";
    if (!session.pNfsMain->AddMountPoint(mount.vcLeft, mount.vcRight, vcReason)) {
        std::printf("Fail to add mount point to NFS. Reason=%s\n", vcReason);
    }
    return ConsoleNext::kPrompt;
}

ConsoleNext Umount(ConsoleSession& session, const char* pcArgument) {
    session.pNfsMain->RemoveMountPoint(pcArgument);
    return ConsoleNext::kPrompt;
}

// ---- Tests and logging

ConsoleNext Test(ConsoleSession& session, const char* pcArgument) {
    Pair test;
    if (!Split(session, pcArgument, test)) {
        std::printf("Fail to run test. Reason=In-valid input value: %s\n", pcArgument);
        return ConsoleNext::kNoPrompt;
    }
    session.pNfsMain->RunTestMode(test.vcLeft, ToLong(test.vcRight));
    return ConsoleNext::kPrompt;
}

ConsoleNext LogFileSize(ConsoleSession& session, const char* pcArgument) {
    CUtilities* pUtilities = session.pNfsMain->GetUtilities();
    CFileLogger* pLogger = pUtilities->GetFileLogger();
    if (pLogger == nullptr) {
        pUtilities->LogInfo(session.pNfsMain->GetRuntimeParam(), "%s", "No file logger is defined");
        return ConsoleNext::kPrompt;
    }
    std::printf("Current max log file size: %llu\n", static_cast<unsigned long long>(pLogger->GetMaxLogSize()));
    pLogger->SetMaxLogSize(ToLong(pcArgument));
    std::printf("Updated max log file size: %llu\n", static_cast<unsigned long long>(pLogger->GetMaxLogSize()));
    return ConsoleNext::kPrompt;
}

ConsoleNext Print(ConsoleSession& session, const char* pcArgument) {
    session.pNfsMain->GetUtilities()->LogInfo(session.pNfsMain->GetRuntimeParam(), "%s", pcArgument);
    return ConsoleNext::kPrompt;
}

ConsoleNext DebugAction(ConsoleSession& session, const char* pcArgument) {
    session.pNfsMain->SetDebugActionEnabled(ToInt(pcArgument) != 0);
    std::printf("Current Server Status=%d\n", session.pNfsMain->GetServerStatus());
    return ConsoleNext::kPrompt;
}

ConsoleNext QuickTest(ConsoleSession& session, const char* pcArgument) {
    const std::vector<std::string> vPieces = SplitAtBlanks(pcArgument);
    if (vPieces.size() < 2) {
        std::printf("Fail to run quick test. Reason=In-valid input value: %s\n", pcArgument);
        return ConsoleNext::kPrompt;
    }
    char vcReason[kReasonBufferSize] = "";
    if (session.pNfsMain->RunQuickTestMode(vPieces[0].c_str(), ToInt(vPieces[1].c_str()), vcReason)) {
        std::printf("Quick test OK\n");
    } else {
        std::printf("Quick test FAIL. %s\n", vcReason);
    }
    return ConsoleNext::kPrompt;
}

ConsoleNext Exec(ConsoleSession& session, const char* pcArgument) {
    const int iResult = session.pNfsMain->ExecuteSystemCmd(pcArgument, true);
    std::printf("Return code: %d\n", iResult);
    return ConsoleNext::kPrompt;
}

// ---- Datastores and network devices

ConsoleNext AddVSphereInfo(ConsoleSession& session, const char* pcArgument) {
    const std::vector<std::string> vPieces = SplitAtBlanks(pcArgument);
    if (vPieces.size() < 5) {
        std::printf("Fail to add VSphere info to NFS. Reason=In-valid input value: %s\n", pcArgument);
        return ConsoleNext::kPrompt;
    }
    session.pNfsMain->AddVSphereInfo(vPieces[0].c_str(), vPieces[1].c_str(), vPieces[2].c_str(), vPieces[3].c_str(),
                                     vPieces[4].c_str());
    return ConsoleNext::kPrompt;
}

ConsoleNext RemoveVSphereInfo(ConsoleSession& session, const char* pcArgument) {
    session.pNfsMain->RemoveVSphereInfo(pcArgument);
    return ConsoleNext::kPrompt;
}

ConsoleNext AddNet(ConsoleSession& session, const char* pcArgument) {
    const std::vector<std::string> vPieces = SplitAtBlanks(pcArgument);
    if (vPieces.size() < 3) {
        std::printf("Fail to add net device credential to NFS. Reason=In-valid input value: %s\n", pcArgument);
        return ConsoleNext::kPrompt;
    }
    const bool bDone =
        session.pNfsMain->AddNetDeviceCredential(vPieces[0].c_str(), vPieces[1].c_str(), vPieces[2].c_str());
    std::printf("%s", bDone ? "Done" : "Failed");
    return ConsoleNext::kPrompt;
}

ConsoleNext RemoveNet(ConsoleSession& session, const char* pcArgument) {
    std::printf("%s", session.pNfsMain->RemoveNetDeviceCredential(pcArgument) ? "Done" : "Failed");
    return ConsoleNext::kPrompt;
}

// ---- The table

constexpr ConsoleCommand kCommands[] = {
    // keyword, line in the help, debug mode only, argument, operation
    {"help", ": display help", false, false, Help},
    {"quit", ": quit this program", false, false, Quit},
    {"log ", "<num>: display log messages or not", false, true, Log},
    {"status", ": show status", false, false, Status},
    {"stats", nullptr, false, false, Stats},
    {"stats ", nullptr, false, true, StatsInForm},
    {"debug", nullptr, false, false, Debug},
    {"start", "<mount_port=nfs_port]: start server", true, false, Start},
    {"start ", nullptr, true, true, StartWithPorts},
    {"mount ", "<path=exportName>: add mount point", true, true, Mount},
    {"umount ", "<path>: remove mount point", true, true, Umount},
    {"test ", "<dirPath=fileSizeInByte>: run platform test on target path", true, true, Test},
    {"logfilesize ", "<size>: set max log file size", true, true, LogFileSize},
    {"print ", "<message>: print message to log", true, true, Print},
    {"debugaction ", "<num>: turn on/off debug action control in QMS", true, true, DebugAction},
    {"addvsphereinfo ", "<datastore MOID> <host> <port> <user> <password>: add VSphere info", true, true,
     AddVSphereInfo},
    {"removevsphereinfo ", "<datastore MOID>: remove VSphere info", true, true, RemoveVSphereInfo},
    {"qtest ", "<path> <mode>: run quick test on target path / file", true, true, QuickTest},
    {"exec ", "<cmd>: run system command", true, true, Exec},
    {"addnet ", "<path> <user> <password>: add net device credential", true, true, AddNet},
    {"removenet ", "<path>: remove net device credential", true, true, RemoveNet},
};

/// The argument of a line that is this command; null if it is another.
const char* MatchCommand(const ConsoleCommand& command, const char* pcLine) {
    if (!command.bArgument) {
        return std::strcmp(pcLine, command.pcKeyword) == 0 ? "" : nullptr;
    }
    const std::size_t nKeyword = std::strlen(command.pcKeyword);
    const bool bMatches = std::strncmp(pcLine, command.pcKeyword, nKeyword) == 0 && pcLine[nKeyword] != '\0';
    return bMatches ? pcLine + nKeyword : nullptr;
}

}  // namespace

std::span<const ConsoleCommand> GetConsoleCommands() {
    return kCommands;
}

ConsoleNext RunConsoleLine(ConsoleSession& session, const char* pcLine) {
    if (pcLine[0] == '\0') {
        return ConsoleNext::kPrompt;
    }
    for (const ConsoleCommand& command : kCommands) {
        if (command.bDebugOnly && !session.bDebugMode) {
            continue;
        }
        if (const char* pcArgument = MatchCommand(command, pcLine)) {
            return command.pfnRun(session, pcArgument);
        }
    }
    std::printf("Unknown command: '%s'\n", pcLine);
    std::printf("Type '%s' to see help\n", "help");
    return ConsoleNext::kPrompt;
}
