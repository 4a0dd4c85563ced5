// The kinds of calls: what is sent, and what each reply must say (RFC 1813).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "BareProtocol.h"
#include "LoadFolder.h"

/// Where a call goes on with a listing.
struct ListPosition {
    std::uint64_t iCookie = 0;
    std::uint64_t iVerifier = 0;
};

/// The handles that one server gave for the folder and its files.
struct Handles {
    std::string sRoot;
    std::string sRead;
    std::string sWrite;
    std::string sList;
    std::vector<ListPosition> vListing;  ///< the calls that this server needs to list the folder of that handle
};

/// One kind of call. The bytes are complete but for transaction ID, file offset, name and written data, which are
/// filled in for each call.
struct CallKind {
    std::string sCall;  ///< for a write: what stands in front of the data, which ends the call
    BareWork work = BareWork::kNothing;
    std::uint32_t iOffsetAt = 0;  ///< of the file offset in the call, where there is one
    std::uint32_t iNameAt = 0;    ///< of a name to create or remove
    std::uint32_t nData = 0;      ///< file bytes moved by each call, whole blocks
    bool bRandom = false;         ///< offsets in random order
    /// Judges a whole reply; throws WrongReply. Returns where file data stands in it (0: none).
    std::function<std::uint32_t(std::string_view sReply, std::uint32_t iXid, std::uint64_t iOffset)> Check;

    std::uint32_t CallSize() const {
        return static_cast<std::uint32_t>(sCall.size()) + (work == BareWork::kWrite ? nData : 0);
    }
};

CallKind MakeNull();
CallKind MakeGetattr(const Handles& handles);
CallKind MakeLookup(const Handles& handles, const LoadFolder& folder);
CallKind MakeAccess(const Handles& handles);
/// The folder outlives the kind.
CallKind MakeRead(const Handles& handles, const LoadFolder& folder, std::uint32_t nData, bool bRandom);
CallKind MakeWrite(const Handles& handles, std::uint32_t nData);
CallKind MakeCreate(const Handles& handles, const LoadFolder& folder);
CallKind MakeRemove(const Handles& handles, const LoadFolder& folder);
/// The call of a listing that goes on from one of the positions.
CallKind MakeReaddirplus(const Handles& handles, std::size_t iPosition);
