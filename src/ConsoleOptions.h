// The console's settings of one run, as its command line gives them.
#pragma once

#include <optional>
#include <string>

#include "Limits.h"
#include "ServerOptions.h"

class CConsoleUtilities;

/// The option words.
inline constexpr const char* kOptionHelp = "-help";
inline constexpr const char* kOptionShutdown = "-shutdown";
inline constexpr const char* kOptionQuery = "-query";
inline constexpr const char* kOptionTest = "-test";
inline constexpr const char* kOptionID = "-id";
inline constexpr const char* kOptionLog = "-log";
inline constexpr const char* kOptionMode = "-md";
inline constexpr const char* kOptionLogFile = "-logfile";
inline constexpr const char* kOptionPidFile = "-pidfile";
inline constexpr const char* kModeInternal = "int";
inline constexpr const char* kModeServer = "svr";
inline constexpr const char* kModeClient = "cli";

/// The joined arguments, each followed by a line feed, are cut at this length.
inline constexpr std::size_t kMaxCommandLine = 4095;
/// The longest ID; it is part of a socket's path.
inline constexpr std::size_t kMaxID = 254;

/// What the command line asks for; what it leaves out, as it is settled then.
struct ConsoleOptions {
    std::string sID = "cRun";
    int iLogControl = 0;
    int iAccessMode = -1;  ///< one of AccessMode (ServerIdentity.h) once the command line is read
    std::string sLogFile;
    std::string sPidFile;
    std::string sTestPath;
    long long iTestSize = 0;
    bool bShutdownMode = false;
    bool bQueryMode = false;
    bool bTestMode = false;
    ServerOptions server;  ///< what the environment asks for, unless the command line says otherwise
    bool bDefaultAccessMode = true;
    bool bDefaultID = true;

    /// Reads a command line (one argument a line) and settles what it leaves open. Has a value, the exit status, when
    /// the run ends here: after the usage, or after a line about a wrong option.
    std::optional<int> Parse(CConsoleUtilities& console, const char* pcProgramName, const char* pcCommandLine);

private:
    /// One option that takes a value. False after a line about a value that cannot be used.
    bool SetValue(CConsoleUtilities& console, const std::string& sOption, const std::string& sValue);
    bool SetAccessMode(const std::string& sValue);
    bool SetTest(CConsoleUtilities& console, const std::string& sValue);
    void SettleDefaults();
};
