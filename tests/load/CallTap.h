// Counts the calls that this process sends, whichever client makes them, by program and procedure.
#pragma once

#include <cstdint>

/// The calls of the portmapper, NFS or MOUNT (the program's number) sent so far. Any thread.
std::uint64_t GetSentCalls(std::uint32_t iProgram, std::uint32_t iProcedure);
