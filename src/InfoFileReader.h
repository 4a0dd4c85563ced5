// Walks the segment records of an info file.
#pragma once

#include <cstdint>
#include <utility>

#include "PositionedFile.h"
#include "Segment.h"

/// Reads an info file's records one after another from a given place to the file's end. Several records are fetched
/// with one read, in a buffer of fixed size whatever the file's; while file access is logged, each record is fetched,
/// and logged, alone.
class CInfoFileReader {
public:
    CInfoFileReader(CCachedFile file, std::int64_t iPosition)
        : m_File(std::move(file), iPosition), m_iPosition(iPosition) {}

    /// Whether there is a file to walk; all else wants one.
    bool IsOpen() const { return m_File.Get() != -1; }
    /// Goes to a record's place.
    void Seek(const LogContext& log, std::int64_t iPosition);
    /// The next record; false where fewer than 32 bytes are left or can be read.
    bool Next(const LogContext& log, Segment* pSegment);
    /// The place behind the record that Next returned last.
    std::int64_t GetPosition() const { return m_iPosition; }

private:
    bool Fill(const LogContext& log);
    /// Only a regular file is searched beyond the first records: some devices never end.
    bool HasEnd();

    /// A lookup mostly hits the first record, and a read runs into the next one at most: 64 bytes. A search goes on
    /// with 512 bytes, a long one in 4 KiB steps.
    static constexpr unsigned int kFirstRecords = 2;
    static constexpr unsigned int kFetchGrowth = 8;
    static constexpr unsigned int kMaxRecords = 128;

    CPositionedFile m_File;
    std::int64_t m_iPosition;
    unsigned int m_nFetch = kFirstRecords;  ///< records to fetch next
    bool m_bEndKnown = false;
    bool m_bHasEnd = false;
    unsigned int m_iRecord = 0;                                   ///< the next one in the buffer
    unsigned int m_nRecords = 0;                                  ///< whole ones in the buffer
    unsigned char m_vcRecords[kMaxRecords * kSegmentRecordSize];  // NOLINT: filled before it is read
};
