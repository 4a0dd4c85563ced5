// The console's settings, read from its command line.
#include "ConsoleOptions.h"

#include <cstdio>
#include <vector>

#include "ConsoleNumbers.h"
#include "ConsoleUtilities.h"
#include "Limits.h"
#include "ServerIdentity.h"
#include "Texts.h"

std::optional<int> ConsoleOptions::Parse(CConsoleUtilities& console, const char* pcProgramName,
                                         const char* pcCommandLine) {
    server = ServerOptions::FromEnvironment();
    std::vector<std::string> vTokens;
    AppendPieces(pcCommandLine, '\n', vTokens);
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
        } else if (const ServerOptionName* pName = FindServerOption(sOption); pName != nullptr && pName->pFlag) {
            server.SetFlag(*pName);
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
    } else if (const ServerOptionName* pName = FindServerOption(sOption); pName != nullptr) {
        server.*pName->pText = sValue;
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
    char vcPath[kPathBufferSize];
    char vcSize[kPathBufferSize];
    if (!console.SplitValue(nullptr, sValue.c_str(), vcPath, vcSize)) {
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
