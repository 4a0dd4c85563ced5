// Mounting, handles, and what the bare server is told.
#include "Peer.h"

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include <unistd.h>

#include "ListingReply.h"
#include "NfsMessages.h"
#include "TcpExchange.h"

namespace {

/// Lists the folder once, to learn how many calls that takes. Throws WrongReply unless all its entries are there.
std::vector<ListPosition> WalkListing(int iNfsPort, const std::string& sHandle) {
    std::vector<ListPosition> vListing;
    const int iSocket = ConnectTo(iNfsPort);
    ListingReply listing;
    std::size_t nNames = 0;
    while (!listing.bEof && vListing.size() < kMostBareKinds) {
        vListing.push_back({listing.iCookie, listing.iVerifier});
        const std::string sReply = Exchange(iSocket, CallBuilder(kNfsProgram, kProcReaddirplus)
                                                         .Opaque(sHandle)
                                                         .U64(listing.iCookie)
                                                         .U64(listing.iVerifier)
                                                         .U32(kListDirCount)
                                                         .U32(kListMaxCount)
                                                         .Finish());
        listing = ReadListing(sReply, 0);
        nNames += listing.vsNames.size();
    }
    ::close(iSocket);
    if (nNames != LoadFolder::kListEntries || !listing.bEof) {
        throw WrongReply(std::to_string(nNames) + " entries in a listing");
    }
    return vListing;
}

}  // namespace

Peer::Peer(PeerAddress address, const LoadFolder& folder, const Peer* pExample)
    : m_Address(std::move(address)), m_Folder(folder) {
    if (m_Address.IsBare()) {
        if (pExample == nullptr) {
            throw std::runtime_error("the bare server cannot stand alone");
        }
        m_pExample = pExample;
        return;
    }
    m_pMounted = std::make_unique<MountedExport>(m_Address.iMountPort, m_Address.iNfsPort, m_Address.sExport);
    Handles handles;
    handles.sRoot = m_pMounted->GetRootHandle();
    handles.sRead = m_pMounted->Lookup(folder.GetReadName());
    handles.sWrite = m_pMounted->Lookup(folder.GetWriteName());
    handles.sList = m_pMounted->Lookup(folder.GetListName());
    handles.vListing = WalkListing(m_Address.iNfsPort, handles.sList);
    m_vRows = MakeRows(handles, folder);
}

std::unique_ptr<LoadSession> Peer::Open(std::size_t iRow, const LoadShape& shape) const {
    const Row& row = GetRows()[iRow];
    if (m_pExample == nullptr) {
        return std::make_unique<LoadSession>(m_Address.iNfsPort, row, m_Folder, shape, nullptr);
    }
    const BareOpening opening = RecordReplies(row);
    return std::make_unique<LoadSession>(m_Address.iNfsPort, row, m_Folder, shape, &opening);
}

BareOpening Peer::RecordReplies(const Row& row) const {
    BareOpening opening;
    BareSetup& setup = opening.setup;
    std::snprintf(setup.cReadPath, sizeof(setup.cReadPath), "%s", m_Folder.PathOf(m_Folder.GetReadName()).c_str());
    std::snprintf(setup.cWritePath, sizeof(setup.cWritePath), "%s", m_Folder.PathOf(m_Folder.GetWriteName()).c_str());
    std::snprintf(setup.cFolder, sizeof(setup.cFolder), "%s", m_Folder.GetPath().c_str());
    const int iSocket = ConnectTo(m_pExample->m_Address.iNfsPort);
    for (const CallKind& kind : row.vKinds) {
        std::string sCall = kind.sCall;
        for (std::uint64_t i = 0; kind.work == BareWork::kWrite && i < kind.nData; i += Content::kBlock) {
            sCall.append(m_Folder.GetContent().BlockAt(i, 0), Content::kBlock);
        }
        const std::string sReply = Exchange(iSocket, sCall);
        BareKind& bare = setup.kinds[setup.nKinds++];
        bare.work = kind.work;
        bare.iCallSize = kind.CallSize();
        bare.iReplySize = static_cast<std::uint32_t>(sReply.size());
        bare.iOffsetAt = kind.iOffsetAt;
        bare.iNameAt = kind.iNameAt;
        bare.iDataAt = kind.Check(sReply, 0, 0);
        if (kind.work == BareWork::kWrite) {
            bare.iDataAt = static_cast<std::uint32_t>(kind.sCall.size());
        }
        bare.nData = kind.nData;
        opening.sReplies += sReply;
    }
    ::close(iSocket);
    return opening;
}
