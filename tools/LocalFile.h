// Files and pipes of this machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

#include "Wait.h"

/// A local descriptor, closed at the end of the scope unless it is a standard stream. Operations throw NfsError.
class LocalFile {
public:
    /// Opens a path; "-" is the standard stream iStandard. Only a named pipe that is opened for writing makes it wait,
    /// until there is a reader; throws Interrupted if that is cut short.
    LocalFile(const std::string& sPath, int iFlags, int iStandard, int iInterrupt = kNoInterrupt);
    ~LocalFile();
    LocalFile(const LocalFile&) = delete;
    LocalFile& operator=(const LocalFile&) = delete;

    int Get() const { return m_iFile; }
    const std::string& Path() const { return m_sPath; }
    /// An ordinary file, which never makes anybody wait and has a size and a position.
    bool IsPlain() const;
    std::uint64_t Size() const;
    struct stat State() const;
    /// The place where the next byte is read or written.
    std::uint64_t Position() const;
    void Seek(std::uint64_t iOffset);
    void Truncate(std::uint64_t iSize);
    void SetMode(mode_t iMode);
    /// The bytes at a place, fewer where the file ends.
    std::vector<char> ReadAt(std::uint64_t iOffset, std::size_t nSize) const;
    /// Closes; the file system may report a failed write only now.
    void Close();

private:
    [[noreturn]] void Fail() const;

    std::string m_sPath;
    int m_iFile;
    bool m_bOwned;
};

/// What is to be sent, read piece by piece. The first piece is read at once, so that what cannot be read is known
/// before anything is done with it. Operations throw NfsError.
class LocalSource {
public:
    /// Waits for the first piece as long as it takes; throws Interrupted if that is cut short.
    LocalSource(const std::string& sPath, int iInterrupt);

    LocalFile& File() { return m_File; }
    /// An ordinary file, and read from its first byte on, which a standard input need not be.
    bool IsWholeFile() const { return m_bPlain && m_iBegin == 0; }
    /// How much there was to send when it was opened, where that is known.
    std::optional<std::uint64_t> Total() const { return m_oiTotal; }
    /// At its end: throws if it gave less than that, so many bytes.
    void ExpectAll(std::uint64_t iGiven) const;
    /// Goes on at another place; for whole files.
    void Seek(std::uint64_t iOffset);
    /// Whether Read returns at once without a look at the descriptor.
    bool IsReady() const { return !m_vcFirst.empty() || m_bEnd || m_bPlain; }
    /// The next bytes, at most so many; none at the end.
    std::vector<char> Read(std::size_t nLargest);

private:
    LocalFile m_File;
    bool m_bPlain;
    std::uint64_t m_iBegin = 0;  ///< where the reading begins
    std::optional<std::uint64_t> m_oiTotal;
    bool m_bEnd = false;
    std::vector<char> m_vcFirst;
};
