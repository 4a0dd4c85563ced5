// A shared descriptor, used with a position of one's own.
#pragma once

#include <cstdint>
#include <utility>

#include "CachedFile.h"
#include "Log.h"

/// Reads and writes a descriptor that others share, as if it were opened for this user alone: the position is kept
/// here and every transfer is a positioned one, so that nobody's seek can fall in between. Logs as the wrappers of the
/// system's calls (COsFiles) do for the same steps.
///
/// Used by one thread; the descriptor, which must be open for all but Get, stays open as long as this object.
class CPositionedFile {
public:
    CPositionedFile(CCachedFile file, std::int64_t iPosition) : m_File(std::move(file)), m_iPosition(iPosition) {}

    int Get() const { return m_File.Get(); }
    std::int64_t GetPosition() const { return m_iPosition; }

    /// Moves to an offset from the start; it must not be negative.
    void Seek(const LogContext& log, std::int64_t iOffset);
    std::int64_t Tell(const LogContext& log);
    /// Bytes transferred, or -1; the position moves by what was transferred.
    int Read(const LogContext& log, void* pvBuffer, unsigned int iLen);
    int Write(const LogContext& log, const void* pvBuffer, unsigned int iLen);
    /// Ends the file at an offset, where it ended before something was written in part, and moves there. If that fails,
    /// what was written in part is written over by what comes next.
    void TakeBack(std::int64_t iEnd);

private:
    int Advance(long long iTransferred);

    CCachedFile m_File;
    std::int64_t m_iPosition;
};
