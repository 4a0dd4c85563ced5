// The console's command line: the usage text, and values of the form "left=right".
#include "ConsoleUtilities.h"

#include <cstdio>
#include <string>
#include <vector>

#include "ConsoleOptions.h"
#include "Limits.h"
#include "Texts.h"

void CConsoleUtilities::PrintUsage(const char* pcProgramName) {
    std::printf("\n");
    std::printf("Usage: %s [%s]\n", pcProgramName, kOptionHelp);
    std::printf("       [%s]\n", kOptionShutdown);
    std::printf("       [%s]\n", kOptionQuery);
    std::printf("       [%s <path=max_file_size>]\n", kOptionTest);
    std::printf("       [%s <name>] [%s <num>] [%s <%s|%s|%s>] [%s <path>] [%s <path>]\n", kOptionID, kOptionLog,
                kOptionMode, kModeInternal, kModeServer, kModeClient, kOptionLogFile, kOptionPidFile);
}

bool CConsoleUtilities::SplitValue(CUtilities* /*pUtilities*/, const char* pcText, char* pcLeft, char* pcRight) {
    std::vector<std::string> vPieces;
    AppendPieces(pcText, '=', vPieces);
    if (vPieces.size() < 2) {
        return false;
    }
    CopyText(pcLeft, kPathBufferSize, vPieces[0].c_str());
    CopyText(pcRight, kPathBufferSize, vPieces[1].c_str());
    return true;
}
