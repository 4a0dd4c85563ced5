// A file of a mounted export.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "NfsConnection.h"
#include "NfsSession.h"

struct nfsfh;

/// An open remote file, closed at the end of the scope unless it was before. Reads and writes name their place, and
/// any number of them may be under way.
class RemoteFile {
public:
    /// Opens; iFlags are O_RDONLY, O_WRONLY, O_CREAT, O_TRUNC. Throws NfsError, whose text begins with pcWhat, and
    /// Interrupted; both tell of a file that may have been cut although no answer has come.
    RemoteFile(NfsSession& session, const std::string& sPath, int iFlags, const char* pcWhat);
    ~RemoteFile();
    RemoteFile(const RemoteFile&) = delete;
    RemoteFile& operator=(const RemoteFile&) = delete;

    /// What the server says of it now.
    struct State {
        std::uint64_t iSize = 0;
        std::uint64_t iIdentity = 0;  ///< its fileid
    };
    State Look();
    std::uint64_t Size() { return Look().iSize; }
    /// What one call may carry.
    std::size_t LargestRead() const;
    std::size_t LargestWrite() const;
    /// Starts a READ into vcData, which has to last as long as the call. The result is the count that came, at most
    /// its size.
    NfsCall Read(std::uint64_t iOffset, std::vector<char>& vcData);
    /// Starts a WRITE; the data may go once it has returned. The result is the count that was stored.
    NfsCall Write(std::uint64_t iOffset, const char* pcData, std::size_t nSize);
    /// Reads until vcData is full or the file ends, and cuts vcData to what came. Throws NfsError.
    void ReadWhole(std::uint64_t iOffset, std::vector<char>& vcData);
    /// Closes a file that was read.
    void Close();
    /// Closes a file that was written; the server has stored every WRITE by the time it answers it (FILE_SYNC), so
    /// its answer to COMMIT, which libnfs asks for, says nothing about the data. False if that was an I/O error.
    bool CloseWritten();

    NfsConnection& Connection() { return m_Session.Connection(); }
    const std::string& Path() const { return m_sPath; }

private:
    NfsResult Close(const NfsLimits& limits);

    NfsSession& m_Session;
    std::string m_sPath;
    nfsfh* m_pFile = nullptr;
};
