// The commands of the console's loop.
#pragma once

#include <span>

class CConsoleUtilities;
class CNfsMain;

/// One stay in the command loop.
struct ConsoleSession {
    CConsoleUtilities* pConsole;
    CNfsMain* pNfsMain;
    bool bDebugMode = false;
};

/// How the loop goes on after a line.
enum class ConsoleNext { kPrompt, kNoPrompt, kEnd };

/// One command: a keyword alone, or a keyword with its trailing blank and an argument behind it.
struct ConsoleCommand {
    const char* pcKeyword;
    const char* pcHelp;  ///< its line in the help, behind the keyword; null: not listed
    bool bDebugOnly;     ///< unknown outside debug mode
    bool bArgument;
    ConsoleNext (*pfnRun)(ConsoleSession& session, const char* pcArgument);
};

/// All commands, in the order of the help.
std::span<const ConsoleCommand> GetConsoleCommands();

/// Carries out one line as typed.
ConsoleNext RunConsoleLine(ConsoleSession& session, const char* pcLine);
