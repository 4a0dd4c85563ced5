// The console's command loop.
#include "ConsoleUtilities.h"

#include <cstdio>

#include "ConsoleCommands.h"
#include "ConsoleInput.h"
#include "ConsoleProcess.h"
#include "NfsMain.h"

namespace {

/// How often the keyboard and the shutdown request are looked at.
constexpr int kPollMilliseconds = 100;

/// Prints the prompt; it has no line end, so everything printed so far is pushed out here.
void PrintPrompt() {
    std::printf("\n%s: ", "Command");
    std::fflush(stdout);
}

}  // namespace

void CConsoleUtilities::ProcessCommand(CNfsMain* pNfsMain) {
    std::printf("Type '%s' to see help\n", "help");
    PrintPrompt();
    ConsoleSession session{this, pNfsMain};
    while (true) {
        if (pNfsMain->IsAutoShutdownRequested()) {
            std::printf("\nExit by request\n");
            return;
        }
        if (IsConsoleEndRequested()) {
            RunConsoleLine(session, "quit");
            return;
        }
        if (!IsKeyboardHit()) {
            std::fflush(stdout);  // raw log lines of other threads carry no line end
            MsSleep(kPollMilliseconds);
            continue;
        }
        const ConsoleNext next = RunConsoleLine(session, CConsoleInput::Standard().TakeLine().c_str());
        if (next == ConsoleNext::kEnd) {
            return;
        }
        if (next == ConsoleNext::kPrompt) {
            PrintPrompt();
        }
    }
}

void CConsoleUtilities::PrintCommandHelp(bool bDebugMode) {
    std::printf("==========================\n");
    std::printf("%s:\n", "Command");
    for (const ConsoleCommand& command : GetConsoleCommands()) {
        if (command.pcHelp != nullptr && (bDebugMode || !command.bDebugOnly)) {
            std::printf("  %s%s\n", command.pcKeyword, command.pcHelp);
        }
    }
    std::printf("==========================\n");
}

bool CConsoleUtilities::IsKeyboardHit() {
    return CConsoleInput::Standard().IsLineReady();
}

void CConsoleUtilities::MsSleep(int iMilliseconds) {
    SleepUnlessConsoleEnds(iMilliseconds);
}
