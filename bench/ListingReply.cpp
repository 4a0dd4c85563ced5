// Taking a listing's reply apart.
#include "ListingReply.h"

#include "NfsMessages.h"

ListingReply ReadListing(std::string_view sReply, std::uint32_t iXid) {
    ListingReply listing;
    ReplyReader reader(sReply);
    reader.ExpectHead(iXid);
    reader.Expect("status of READDIRPLUS", 0);
    reader.SkipAttributes();
    listing.iVerifier = reader.U64();
    while (reader.U32() != 0) {
        reader.U64();  // file ID
        const std::string_view sName = reader.Opaque();
        listing.iCookie = reader.U64();
        const bool bAttributes = reader.U32() != 0;
        reader.Skip(bAttributes ? kAttributesSize : 0);
        const bool bHandle = reader.U32() != 0 && !reader.Opaque().empty();
        if (sName == "." || sName == "..") {
            continue;
        }
        if (sName.empty() || !bAttributes || !bHandle) {
            throw WrongReply("an entry without name, attributes or handle");
        }
        listing.vsNames.push_back(sName);
    }
    listing.bEof = reader.U32() != 0;
    reader.ExpectEnd();
    return listing;
}
