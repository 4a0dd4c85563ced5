// Paths: as texts, and as what they lead to.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Limits.h"
#include "PathProbe.h"

// A path that a buffer of kPathBufferSize does not hold names nothing. Any thread may call; nothing is kept.

// ---- As texts

/// Appends "/" unless the path is empty or ends in one. As a prefix it then matches up to the end of a component only.
void AppendSlash(std::string& sPath);
/// The same in place, in a buffer of kPathBufferSize; a full one stays as it is.
void AppendSlash(char* pcPath);
/// The path with "/" at its end, as the prefix of what lies below it. An empty one stays empty.
std::string GetFolderPrefix(std::string_view sPath);
/// The path without the slashes at its end; of the root one stays.
std::string_view WithoutTrailingSlashes(std::string_view sPath);
/// What stands before the last component: the path up to its last slash, which is included; empty without one.
std::string_view GetFolderPart(std::string_view sPath);
/// Is a path that of a folder, or of what lies below it, by its text? It matches up to the end of a component only.
/// Nothing lies below a folder without a name.
bool IsAtOrBelow(std::string_view sPath, std::string_view sFolder);
/// Is one of a path's components ".."?
bool HasParentComponent(std::string_view sPath);
/// Can a name, or a path's last component, be that of an entry? Not if there is none, or it is "." or "..". Slashes at
/// the end do not count.
bool IsEntryName(std::string_view sName);
/// Writes folder, "/" and name into a buffer of kPathBufferSize. False, and nothing is written, if one of the three is
/// null or the path does not fit.
bool JoinPath(const char* pcFolder, const char* pcName, char* pcOut);

// ---- As what they lead to

/// Finds a path's canonical form, all links resolved, and its status where that comes at no cost. False for a path that
/// does not exist or does not fit. Does not allocate.
bool FindCanonicalPath(const char* pcPath, char (&vcCanonical)[kPathBufferSize], FoundStatus* pStatus = nullptr);
/// The path with all links resolved, asked for one component after another. errno tells why there is no result.
std::optional<std::string> ResolveLinks(const std::string& sPath);
/// The path of an entry: its folder's links resolved, the last component as it is, with the slashes behind it. errno
/// tells why there is no result.
std::optional<std::string> ResolveFolderPart(std::string_view sPath);
