// The file-system ID when none can be had.
#pragma once

inline constexpr unsigned long long kUnknownFileSystemID = 4;
