// Looking for a path without following links.
#pragma once

enum class Finding {
    kFound,    ///< it exists, and no part of it is a link: it is its own canonical path if IsPlainPath
    kMissing,  ///< it does not exist, and no part of it up to where it ends is a link
    kUnknown   ///< it holds a link, or the kernel cannot tell
};

/// One step in the kernel, however deep the path.
Finding FindWithoutLinks(const char* pcPath);

/// Is it an absolute path whose every component is a name: none of them empty, "." or ".."?
bool IsPlainPath(const char* pcPath);
