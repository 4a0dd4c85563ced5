// Copying between a local descriptor and a remote file, with many calls under way.
#include "Transfer.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include <poll.h>
#include <unistd.h>

#include "NfsError.h"
#include "Wait.h"

namespace {

/// Enough to keep a connection busy, few enough that the server's buffers (1 MiB each way) hold them.
constexpr std::size_t kReadsUnderWay = 8;
constexpr std::size_t kWritesUnderWay = 32;

}  // namespace

// ---- Download

Download::Download(RemoteFile& remote, const LocalFile& local, Progress& progress)
    : m_Remote(remote), m_Local(local), m_bPlain(local.IsPlain()), m_Progress(progress) {}

void Download::Run(std::uint64_t iOffset) {
    m_iNext = iOffset;
    const RemoteFile::State state = m_Remote.Look();
    m_iEnd = state.iSize;
    m_iIdentity = state.iIdentity;
    m_bSized = m_iEnd > 0;
    for (Fill(); !m_Pieces.empty(); Fill()) {
        Piece& piece = m_Pieces.front();
        while (!piece.call.IsDone() && m_Remote.Connection().IsUsable()) {
            m_Remote.Connection().Serve();
            m_Progress.Show();
        }
        const NfsResult result = m_Remote.Connection().Finish(piece.call);
        if (result.iResult < 0) {
            NfsConnection::Fail("read \"" + m_Remote.Path() + "\"", result);
        }
        const std::size_t nCame = std::min(piece.vcData.size(), static_cast<std::size_t>(result.iResult));
        WriteLocal(piece.vcData.data(), nCame);
        m_Progress.Advance(nCame);
        if (nCame == 0) {
            ExpectEnd(piece.iOffset, m_Remote.Look());
            return;
        }
        if (nCame < piece.vcData.size()) {  // what follows was asked for in the wrong place, or is no longer there
            m_iNext = piece.iOffset + nCame;
            m_Pieces.clear();
        } else {
            m_Pieces.pop_front();
        }
    }
}

/// What was copied up to here is one whole file only if the same one ends here now. One without a size may be made up
/// as it is read, and says nothing about that.
void Download::ExpectEnd(std::uint64_t iReached, const RemoteFile::State& now) const {
    const char* pcWhy = nullptr;
    if (m_bSized && now.iIdentity != m_iIdentity) {
        pcWhy = "it was replaced while it was copied";
    } else if (m_bSized && now.iSize < iReached) {
        pcWhy = "it shrank while it was copied";
    } else if (m_bSized && now.iSize > iReached) {
        pcWhy = now.iSize < m_iEnd ? "it shrank while it was copied" : "it ends before its size";
    }
    if (pcWhy != nullptr) {
        throw NfsError("read \"" + m_Remote.Path() + "\": " + pcWhy);
    }
}

void Download::Ask(std::size_t nSize) {
    Piece& piece = m_Pieces.emplace_back(Piece{m_iNext, std::vector<char>(nSize), {}});
    piece.call = m_Remote.Read(piece.iOffset, piece.vcData);
    m_iNext += nSize;
}

/// Starts as many READs as may be under way. A file that has grown meanwhile is read to its new end; one without a
/// size may be made up as it is read.
void Download::Fill() {
    if (!m_bSized) {
        Ask(m_Remote.LargestRead());
        return;
    }
    if (m_Pieces.empty() && m_iNext >= m_iEnd) {
        const RemoteFile::State state = m_Remote.Look();
        m_iEnd = state.iSize;
        if (m_iNext >= m_iEnd) {
            ExpectEnd(m_iNext, state);
        }
    }
    while (m_iNext < m_iEnd && m_Pieces.size() < kReadsUnderWay) {
        Ask(static_cast<std::size_t>(std::min<std::uint64_t>(m_Remote.LargestRead(), m_iEnd - m_iNext)));
    }
}

/// While a pipe's reader lets it wait, the connection is served: the server ends one on which nothing moves. A pipe
/// that is ready takes PIPE_BUF bytes without waiting, so an interrupt never waits for the pipe's reader either.
void Download::WriteLocal(const char* pcData, std::size_t nSize) {
    const std::size_t nLargest = m_bPlain ? nSize : PIPE_BUF;
    while (nSize > 0) {
        if (!m_bPlain) {
            WaitForReader();
        }
        const ssize_t nWritten = ::write(m_Local.Get(), pcData, std::min(nSize, nLargest));
        if (nWritten <= 0) {
            throw NfsError("\"" + m_Local.Path() + "\": local write: " + std::strerror(errno));
        }
        pcData += nWritten;
        nSize -= static_cast<std::size_t>(nWritten);
    }
}

void Download::WaitForReader() {
    NfsConnection& connection = m_Remote.Connection();
    while (!connection.Serve({m_Local.Get(), POLLOUT})) {
        if (!connection.IsUsable()) {
            WaitFor({m_Local.Get(), POLLOUT}, connection.GetInterrupt());
            return;
        }
        m_Progress.Show();
    }
}

// ---- Upload

Upload::Upload(RemoteFile& remote, LocalSource& source, Progress& progress)
    : m_Remote(remote), m_Source(source), m_Progress(progress) {}

void Upload::Run(std::uint64_t iOffset) {
    m_iNext = iOffset;
    m_iStored = iOffset;
    NfsConnection& connection = m_Remote.Connection();
    while (!m_bEnd || !m_Pieces.empty()) {
        const bool bRoom = !m_bEnd && m_Pieces.size() < kWritesUnderWay;
        // Only a source that is not ready yet is waited for, together with the replies.
        if ((bRoom && m_Source.IsReady()) ||
            connection.Serve(bRoom ? Awaited{m_Source.File().Get(), POLLIN} : Awaited{})) {
            Send();
        }
        Settle();
        m_Progress.Show();
    }
}

void Upload::Send() {
    std::vector<char> vcData = m_Source.Read(m_Remote.LargestWrite());
    if (vcData.empty()) {
        m_bEnd = true;
        return;
    }
    NfsCall call = m_Remote.Write(m_iNext, vcData.data(), vcData.size());
    m_iNext += vcData.size();
    m_Pieces.push_back({std::move(vcData), std::move(call)});
}

/// Takes the outcomes that have come, in order. What the server left of a piece is sent again.
void Upload::Settle() {
    NfsConnection& connection = m_Remote.Connection();
    if (!connection.IsUsable() && m_Pieces.empty()) {
        NfsConnection::Fail("write \"" + m_Remote.Path() + "\"", NfsConnection::Lost());
    }
    while (!m_Pieces.empty() && (m_Pieces.front().call.IsDone() || !connection.IsUsable())) {
        const Piece& piece = m_Pieces.front();
        std::size_t nStored = Count(connection.Finish(piece.call));
        while (nStored < piece.vcData.size()) {
            nStored += Count(connection.Finish(
                m_Remote.Write(m_iStored + nStored, piece.vcData.data() + nStored, piece.vcData.size() - nStored)));
        }
        m_iStored += piece.vcData.size();
        m_Progress.Advance(piece.vcData.size());
        m_Pieces.pop_front();
    }
}

std::size_t Upload::Count(const NfsResult& result) const {
    if (result.iResult < 0) {
        NfsConnection::Fail("write \"" + m_Remote.Path() + "\"", result);
    }
    if (result.iResult == 0) {
        throw NfsError("write \"" + m_Remote.Path() + "\": the server stores nothing of it");
    }
    return static_cast<std::size_t>(result.iResult);
}
