// The map of a redirected file as it stands in an info file or in an info dump, and how reads find it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "Segment.h"

/// A map that cannot be read; what() is a sentence for the user.
class MapError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A range of virtual bytes of which the same is to be told.
struct Stretch {
    static constexpr std::size_t kNoSegment = static_cast<std::size_t>(-1);

    std::int64_t iFrom = 0;
    std::int64_t iTo = 0;  ///< the first byte behind
    /// The segment that holds the bytes, by its place in the map: of several the one that was added first. kNoSegment
    /// in a hole.
    std::size_t iSegment = kNoSegment;
    bool bOverlap = false;  ///< further segments claim the same bytes

    bool IsHole() const { return iSegment == kNoSegment; }
    std::int64_t GetLength() const { return iTo - iFrom; }
};

/// How an info file's records are looked for: see FindUnreachable.
struct SearchSteps {
    static constexpr std::int64_t kMiB = 1024 * 1024;
    std::int64_t iSegmentSize = 32 * kMiB;       ///< what one record is assumed to cover, in bytes; greater than 0
    std::int64_t iCheckPointSize = 1024 * kMiB;  ///< the distance of check points, in bytes; greater than 0
};

/// The segments of one redirected file, in the order in which they were added.
class SegmentMap {
public:
    enum class Form {
        kGuess,     ///< by its first bytes
        kInfoFile,  ///< records of 32 bytes, sources known by their number alone
        kInfoDump   ///< the text that exportRedirectedFileInfo writes, merged or not
    };

    /// Throws MapError.
    static SegmentMap Load(const std::string& sPath, Form form);
    /// From what a file holds; bytes behind the last whole record of an info file are told by GetTail.
    static SegmentMap Parse(const std::string& sContent, Form form);

    Form GetForm() const { return m_Form; }
    const std::vector<Segment>& GetSegments() const { return m_vSegments; }
    /// Names of the sources; those of an info file are "source N".
    const std::vector<std::string>& GetSources() const { return m_vsSources; }
    /// Bytes at the end of an info file that make no whole record.
    std::size_t GetTail() const { return m_nTail; }
    /// The end of the segment that reaches farthest.
    std::int64_t GetEnd() const;

    /// Every byte from 0 to iSize in stretches, in order, holes among them.
    std::vector<Stretch> MakeStretches(std::int64_t iSize) const;
    /// The first segment that begins before the one added before it; the count of segments if they are in order.
    std::size_t FindDisorder() const;
    /// Of an info file: the records that the server does not find, as the search begins behind them. Reads there give
    /// zeros.
    std::vector<std::size_t> FindUnreachable(const SearchSteps& steps) const;

private:
    class DumpReader;

    void ParseInfoFile(const std::string& sContent);
    void ParseInfoDump(const std::string& sContent);

    Form m_Form = Form::kInfoFile;
    std::vector<Segment> m_vSegments;
    std::vector<std::string> m_vsSources;
    std::size_t m_nTail = 0;
};
