// The console's command line: options, their defaults, the usage text.
#include "ConsoleUtilities.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ConsoleNumbers.h"
#include "ConsoleOptions.h"
#include "Texts.h"
#include "Utilities.h"

std::optional<int> ConsoleOptions::Parse(CConsoleUtilities& console, const char* pcProgramName,
                                         const char* pcCommandLine) {
    std::vector<std::string> vTokens;
    CUtilities::SplitIntoVector(pcCommandLine, '\n', vTokens);
    for (std::size_t i = 0; i < vTokens.size(); ++i) {
        const std::string& sOption = vTokens[i];
        if (sOption == kOptionHelp) {
            console.PrintUsage(pcProgramName);
            return 0;
        }
        if (sOption == kOptionShutdown) {
            bShutdownMode = true;
        } else if (sOption == kOptionQuery) {
            bQueryMode = true;
        } else if (sOption == kOptionSync) {
            bSync = true;
        } else if (++i < vTokens.size() && !SetValue(console, sOption, vTokens[i])) {
            return 1;
        }
    }
    SettleDefaults();
    return std::nullopt;
}

bool ConsoleOptions::SetValue(CConsoleUtilities& console, const std::string& sOption, const std::string& sValue) {
    if (sOption == kOptionID) {
        sID = sValue.substr(0, kMaxID);
        bDefaultID = false;
    } else if (sOption == kOptionLog) {
        iLogControl = ToInt(sValue.c_str());
    } else if (sOption == kOptionMode) {
        return SetAccessMode(sValue);
    } else if (sOption == kOptionLogFile) {
        sLogFile = sValue;
    } else if (sOption == kOptionPidFile) {
        sPidFile = sValue;
    } else if (sOption == kOptionTest) {
        return SetTest(console, sValue);
    }
    return true;  // an unknown option is skipped together with its value
}

bool ConsoleOptions::SetAccessMode(const std::string& sValue) {
    bDefaultAccessMode = false;
    if (sValue == kModeInternal) {
        iAccessMode = kAccessModeInternal;
    } else if (sValue == kModeServer) {
        iAccessMode = kAccessModeServer;
    } else if (sValue == kModeClient) {
        iAccessMode = kAccessModeClient;
    } else {
        std::printf("Un-supported mode: %s\n", kOptionMode);  // names the option, as scripts expect it
        return false;
    }
    return true;
}

bool ConsoleOptions::SetTest(CConsoleUtilities& console, const std::string& sValue) {
    CUtilities utilities;
    char vcPath[kPathBufferSize];
    char vcSize[kPathBufferSize];
    if (!console.SplitValue(&utilities, sValue.c_str(), vcPath, vcSize)) {
        std::printf("In-valid test mode value: %s\n", sValue.c_str());
        return false;
    }
    bTestMode = true;
    sTestPath = vcPath;
    iTestSize = ToLong(vcSize);
    return true;
}

void ConsoleOptions::SettleDefaults() {
    if (bDefaultAccessMode) {
        iAccessMode = bShutdownMode || bQueryMode ? kAccessModeClient : kAccessModeServer;
    }
    if (bDefaultID) {
        if (bShutdownMode) {
            sID = "shRun";
        }
        if (bQueryMode) {
            sID = "qyRun";
        }
        if (bTestMode) {
            sID = "tmRun";
        }
    }
}

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
    if (pcText != nullptr) {
        CUtilities::SplitIntoVector(pcText, '=', vPieces);
    }
    if (vPieces.size() < 2) {
        return false;
    }
    CopyText(pcLeft, kPathBufferSize, vPieces[0].c_str());
    CopyText(pcRight, kPathBufferSize, vPieces[1].c_str());
    return true;
}
