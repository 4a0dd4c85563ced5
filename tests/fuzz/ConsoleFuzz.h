// The door that lines typed at the console come in by.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Descriptor.h"
#include "FuzzTarget.h"

/// A console with a controller that has registries of its own, but runs no server, no shell command and no platform
/// test: what these are asked for is looked at. One input is what a user types:
///
///   byte 0: how many bytes arrive at a time, 0 for all at once
///   byte 1: bit 0 gives the console a log file
///   then the bytes typed
///
/// Lines are what stands between line feeds, whatever the pieces; "quit" and nothing else ends the loop; a shell
/// command is what stands behind "exec ".
class ConsoleFuzzWorld : public FuzzTarget {
public:
    /// Works in a folder that exists.
    explicit ConsoleFuzzWorld(const std::string& sFolder);
    ~ConsoleFuzzWorld() override;

    std::string Run(std::string_view sInput) override;

private:
    class Controller;
    struct Typing;

    std::string Type(Typing& typing, std::string_view sBytes);
    std::string TakeLines(Typing& typing);
    std::string RunLine(Typing& typing, const std::string& sLine);

    std::string m_sFolder;
    CDescriptor m_Reader;
    CDescriptor m_Writer;
    unsigned int m_nLogs = 0;
};
