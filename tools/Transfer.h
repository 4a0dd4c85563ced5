// Copying between a local descriptor and a remote file, with many calls under way.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "LocalFile.h"
#include "Progress.h"
#include "RemoteFile.h"

/// Copies a remote file to a local descriptor, from a place on. Bytes are written in order, so what is there when it
/// is cut short is a beginning of the file.
class Download {
public:
    Download(RemoteFile& remote, const LocalFile& local, Progress& progress);
    /// Copies until the remote file's end. Throws NfsError, also for a file that is not there whole any more when its
    /// end is reached, and Interrupted.
    void Run(std::uint64_t iOffset);

private:
    /// A READ under way and the room for what it brings.
    struct Piece {
        std::uint64_t iOffset;
        std::vector<char> vcData;
        NfsCall call;
    };
    void Ask(std::size_t nSize);
    void Fill();
    void ExpectEnd(std::uint64_t iReached, const RemoteFile::State& now) const;
    void WriteLocal(const char* pcData, std::size_t nSize);
    void WaitForReader();

    RemoteFile& m_Remote;
    const LocalFile& m_Local;
    bool m_bPlain;
    Progress& m_Progress;
    std::uint64_t m_iNext = 0;  ///< where the next READ begins
    std::uint64_t m_iEnd = 0;   ///< the remote file's size when it was last looked at
    std::uint64_t m_iIdentity = 0;
    bool m_bSized = true;  ///< whether it has one
    std::deque<Piece> m_Pieces;
};

/// Copies a local source to a remote file, to a place on.
class Upload {
public:
    Upload(RemoteFile& remote, LocalSource& source, Progress& progress);
    /// Copies until the source's end. Throws NfsError, Interrupted.
    void Run(std::uint64_t iOffset);
    /// The place up to which the server has stored everything.
    std::uint64_t Stored() const { return m_iStored; }

private:
    /// A WRITE under way and its data, in case the server stores a part of it only.
    struct Piece {
        std::vector<char> vcData;
        NfsCall call;
    };
    void Send();
    void Settle();
    /// The count of a WRITE that stored something; throws NfsError otherwise.
    std::size_t Count(const NfsResult& result) const;

    RemoteFile& m_Remote;
    LocalSource& m_Source;
    Progress& m_Progress;
    std::uint64_t m_iNext = 0;
    std::uint64_t m_iStored = 0;
    bool m_bEnd = false;  ///< whether the source has come to its end
    std::deque<Piece> m_Pieces;
};
