// What nfsget does on request. Every command mounts, works and unmounts; it throws NfsError.
#pragma once

#include <cstdint>
#include <string>

#include "NfsTarget.h"

/// What HOST:EXPORT/PATH names.
struct Place {
    NfsTarget target;
    std::string sPath;
};

void List(const Place& place, int iInterrupt);
void Stat(const Place& place, int iInterrupt);
/// Copies a remote file to a local one, which appears under its name only when it is whole; "-" is standard output. A
/// device or a pipe is written into, a directory refused. With bResume what has come stays when the copying is cut
/// short, and is gone on from.
void Get(const Place& place, const std::string& sLocal, bool bResume, int iInterrupt);
/// Makes or replaces a remote file; "-" is standard input. With bResume a shorter remote file that begins as the local
/// one does is gone on from.
void Put(const std::string& sLocal, const Place& place, bool bResume, int iInterrupt);
/// Puts what a local file holds into an existing remote file, from a place on.
void Write(const std::string& sLocal, const Place& place, std::uint64_t iOffset, int iInterrupt);
void MakeDirectory(const Place& place, int iInterrupt);
void Remove(const Place& place, int iInterrupt);
