// Looking for a path, and opening it, without following links.
#pragma once

#include <string>

#include <sys/stat.h>
#include <sys/types.h>

#include "Descriptor.h"

/// What a path was found to be: as lstat tells, and valid for the call that asked.
struct FoundStatus {
    bool bKnown = false;
    struct stat status {};
    bool bLinks = false;    ///< links in the path may have been followed
    bool bMissing = false;  ///< nothing is there, and no link stands where the path goes
    CDescriptor name;       ///< names what was found (O_PATH), whatever its path leads to by now; there may be none
    std::string sResolved;  ///< the path without links, where the one that was looked at holds some; else empty
};

enum class Finding {
    kFound,    ///< it exists, and no part of it is a link: it is its own canonical path if IsPlainPath
    kMissing,  ///< it does not exist, and no part of it up to where it ends is a link
    kUnknown   ///< it holds a link, or the kernel cannot tell
};

/// One step in the kernel, however deep the path. Fills the status, if one is given, where the path is found. errno
/// tells why it is not.
Finding FindWithoutLinks(const char* pcPath, FoundStatus* pStatus = nullptr);

/// Opens what a path, from a folder on (AT_FDCWD: the working directory), leads to, if no part of it is a link: -1 with
/// errno otherwise, which is ELOOP for a link.
int OpenWithoutLinks(int iFolder, const char* pcPath, int iFlags, mode_t iMode = 0);
/// The same for a kernel that cannot do it in one step (before Linux 5.6): from component to component.
int OpenStepByStep(int iFolder, const char* pcPath, int iFlags, mode_t iMode = 0);

/// Is it an absolute path whose every component is a name: none of them empty, "." or ".."?
bool IsPlainPath(const char* pcPath);
