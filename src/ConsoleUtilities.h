// CConsoleUtilities: the console front end.
#pragma once

class CFileLogger;
class CNfsMain;
class CUtilities;
struct ConsoleOptions;

/// Runs the library as a console program: parses the options, guards the pid file, builds the controller of the
/// chosen access mode, prints the banner, and then passes on a shutdown request, prints the status, runs the platform
/// test, or works as an interactive command loop on standard input. Everything it says goes to standard output.
///
/// It has no state of its own; one thread runs it. Reason buffers (pcStatus) hold kReasonBufferSize characters.
class CConsoleUtilities {
public:
    CConsoleUtilities() = default;
    virtual ~CConsoleUtilities() = default;
    CConsoleUtilities(const CConsoleUtilities&) = delete;
    CConsoleUtilities& operator=(const CConsoleUtilities&) = delete;

    /// One whole run; the result is the exit status, 0 or 1. The command line holds one argument a line.
    int Run(const char* pcProgramName, const char* pcCommandLine);

    // ---- Options (ConsoleUtilitiesOptions.cpp)

    void PrintUsage(const char* pcProgramName);
    /// Splits "left=right" into two buffers of kPathBufferSize; text behind a second "=" is dropped. False, and the
    /// buffers untouched, unless there is an "=" with something behind it.
    bool SplitValue(CUtilities* pUtilities, const char* pcText, char* pcLeft, char* pcRight);

    // ---- Status (ConsoleUtilitiesStatus.cpp)

    void PrintBanner(const char* pcVersion, const char* pcDescription);
    void PrintNotAccessible();
    void PrintStatus(CNfsMain* pNfsMain);

    // ---- Command loop (ConsoleUtilitiesLoop.cpp)

    /// Serves commands until "quit", a shutdown request, or a signal. The end of the input is no reason to end.
    void ProcessCommand(CNfsMain* pNfsMain);
    void PrintCommandHelp(bool bDebugMode);
    /// True if a line of standard input can be taken without waiting. See CConsoleInput.
    bool IsKeyboardHit();
    /// Sleeps; a signal that asks for the end of the program wakes it.
    void MsSleep(int iMilliseconds);

    // ---- Pid file (ConsoleUtilitiesPidFile.cpp)

    /// Writes the process ID to a file, replacing one that names no living process. False with a reason when another
    /// console lives by that file or the file cannot be written. Nothing to do for an empty path. Of consoles that
    /// start at the same time with the same file, one gets it.
    bool CreatePidFile(const char* pcPath, int iLogControl, char* pcStatus);
    void RemovePidFile(const char* pcPath, int iLogControl);

private:
    /// Builds the controller and works with it.
    int RunController(const ConsoleOptions& options);
    /// Takes the controller through its life around the one thing this run does. The result is the exit status.
    int DriveController(const ConsoleOptions& options, CNfsMain* pNfsMain, char* pcStatus);
    void DoWork(const ConsoleOptions& options, CNfsMain* pNfsMain);
};
