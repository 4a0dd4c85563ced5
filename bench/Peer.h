// A server that is measured.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "LoadFolder.h"
#include "LoadSession.h"
#include "MountedExport.h"
#include "Row.h"

/// Where a server is found. Without a MOUNT port it is the bare one.
struct PeerAddress {
    std::string sName;
    int iNfsPort = 0;
    int iMountPort = 0;
    std::string sExport;

    bool IsBare() const { return iMountPort == 0; }
};

/// A server with the export mounted and the test files looked up: an NFS server, or the bare one, which does what the
/// rows of another peer do. Everything throws WrongReply or std::runtime_error.
class Peer {
public:
    /// The folder outlives the peer. The example is the peer whose calls the bare server is given, and otherwise not
    /// used; it outlives this one.
    Peer(PeerAddress address, const LoadFolder& folder, const Peer* pExample);

    const PeerAddress& GetAddress() const { return m_Address; }
    const std::vector<Row>& GetRows() const { return m_pExample != nullptr ? m_pExample->m_vRows : m_vRows; }
    /// The handle of an entry of the root.
    std::string Lookup(const std::string& sName) const { return m_pMounted->Lookup(sName); }
    /// Connections for one of the rows; for the bare server each call is made once at its example, to have the reply.
    std::unique_ptr<LoadSession> Open(std::size_t iRow, const LoadShape& shape) const;

private:
    BareOpening RecordReplies(const Row& row) const;

    PeerAddress m_Address;
    const LoadFolder& m_Folder;
    const Peer* m_pExample = nullptr;
    std::unique_ptr<MountedExport> m_pMounted;
    std::vector<Row> m_vRows;
};
