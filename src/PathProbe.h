// Looking for a path without following links.
#pragma once

#include <sys/stat.h>

/// What a path was found to be: as lstat tells, and valid for the call that asked.
struct FoundStatus {
    bool bKnown = false;
    struct stat status {};
    bool bLinks = false;  ///< links in the path may have been followed
};

enum class Finding {
    kFound,    ///< it exists, and no part of it is a link: it is its own canonical path if IsPlainPath
    kMissing,  ///< it does not exist, and no part of it up to where it ends is a link
    kUnknown   ///< it holds a link, or the kernel cannot tell
};

/// One step in the kernel, however deep the path. Fills the status, if one is given, where the path is found.
Finding FindWithoutLinks(const char* pcPath, FoundStatus* pStatus = nullptr);

/// Is it an absolute path whose every component is a name: none of them empty, "." or ".."?
bool IsPlainPath(const char* pcPath);
