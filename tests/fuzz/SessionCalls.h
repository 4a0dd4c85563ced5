// Well-formed calls, as a session's script chooses them.
#pragma once

#include <string>

#include "SessionScript.h"

/// A call of any procedure of a program, without a record mark: its arguments name what a session's world has, or has
/// not. The script gives procedure and arguments.
std::string MakeSessionCall(unsigned long lProgram, SessionScript& script);

/// The names that the calls and the world know, the export's own ("") first; longer ones are out of every limit.
const char* ChooseSessionName(SessionScript& script);
