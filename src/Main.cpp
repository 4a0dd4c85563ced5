// The library's main: it makes a console program of whatever links it.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "ConsoleOptions.h"
#include "ConsoleProcess.h"
#include "ConsoleUtilities.h"
#include "EndWatch.h"

namespace {

/// What stands behind the last backslash; a slash separates nothing here.
const char* GetProgramName(const char* pcPath) {
    const char* pcBackslash = std::strrchr(pcPath, '\\');
    return pcBackslash == nullptr ? pcPath : pcBackslash + 1;
}

/// The arguments, each followed by a line feed.
std::string JoinArguments(int nArguments, char** vpcArguments) {
    std::string sJoined;
    for (int i = 1; i < nArguments; ++i) {
        sJoined += vpcArguments[i];
        sJoined += '\n';
    }
    return sJoined.substr(0, kMaxCommandLine);
}

}  // namespace

__attribute__((visibility("default"))) int main(int argc, char** argv) {
    try {
        PrepareConsoleProcess();
        const CEndWatch watch(-1, GetConsoleEndDescriptor());  // a signal ends the command in hand, too
        CConsoleUtilities console;
        return console.Run(GetProgramName(argc > 0 ? argv[0] : ""), JoinArguments(argc, argv).c_str());
    } catch (const std::exception& error) {
        std::printf("Terminated. Reason=%s\n", error.what());
        return 1;
    }
}
