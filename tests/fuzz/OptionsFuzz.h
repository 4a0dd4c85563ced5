// The door that an operator's settings come in by: command lines, environment, access file, pid file, bind address.
#pragma once

#include <string>
#include <string_view>

#include "ConsoleUtilities.h"
#include "FuzzTarget.h"

/// Reads what an operator, or a script of his, may have got wrong. One input is one setting:
///
///   byte 0: what it is (modulo 7): a command line with one argument a line, values for the environment's variables
///           one a line, an access file, a pid file, a bind address, a command line of nfsmap and one of nfsget
///   then its bytes
///
/// An access file admits whom a plain reading of its text admits, or is refused with a reason of one line; a pid file
/// is taken over or names a living process; a tool takes its command line as a plain reading does.
class OptionsFuzzWorld : public FuzzTarget {
public:
    /// Works in a folder that exists.
    explicit OptionsFuzzWorld(const std::string& sFolder) : m_sFolder(sFolder) {}

    std::string Run(std::string_view sInput) override;

private:
    std::string RunCommandLine(const std::string& sText);
    std::string RunEnvironment(const std::string& sText);
    std::string RunAccessFile(const std::string& sText);
    std::string RunPidFile(const std::string& sText);
    std::string RunBindAddress(const std::string& sText);
    std::string RunToolLine(const std::string& sText, bool bMap);

    std::string m_sFolder;
    CConsoleUtilities m_Console;
};
