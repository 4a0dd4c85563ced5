// Calls and the checks of their replies.
#include "CallKind.h"

#include <memory>

#include "ListingReply.h"
#include "NfsMessages.h"

namespace {

constexpr std::uint32_t kProcNull = 0;
constexpr std::uint32_t kProcGetattr = 1;
constexpr std::uint32_t kProcLookup = 3;
constexpr std::uint32_t kProcAccess = 4;
constexpr std::uint32_t kProcRead = 6;
constexpr std::uint32_t kProcWrite = 7;
constexpr std::uint32_t kProcCreate = 8;
constexpr std::uint32_t kProcRemove = 12;

constexpr std::uint32_t kUnstable = 0;
constexpr std::uint32_t kFileSync = 2;
constexpr std::uint32_t kGuarded = 1;
constexpr std::uint32_t kRegularFile = 1;
constexpr std::uint32_t kAllRights = 0x3F;
constexpr std::uint32_t kReadModifyExtend = 0x0D;

/// Attributes before and after a change (wcc_data).
void SkipChange(ReplyReader* pReader) {
    if (pReader->U32() != 0) {
        pReader->Skip(24);  // wcc_attr
    }
    pReader->SkipAttributes();
}

}  // namespace

// ---- Calls that ask

CallKind MakeNull() {
    CallKind kind;
    kind.sCall = CallBuilder(kNfsProgram, kProcNull).Finish();
    kind.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.ExpectEnd();
        return 0;
    };
    return kind;
}

CallKind MakeGetattr(const Handles& handles) {
    CallKind kind;
    kind.sCall = CallBuilder(kNfsProgram, kProcGetattr).Opaque(handles.sRead).Finish();
    kind.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status of GETATTR", 0);
        reader.Expect("type", kRegularFile);
        reader.Skip(16);  // mode, links, user, group
        if (reader.U64() != kFileSize) {
            throw WrongReply("wrong file size");
        }
        reader.Skip(kAttributesSize - 28);
        reader.ExpectEnd();
        return 0;
    };
    return kind;
}

CallKind MakeLookup(const Handles& handles, const LoadFolder& folder) {
    CallKind kind;
    kind.sCall = CallBuilder(kNfsProgram, kProcLookup).Opaque(handles.sRoot).Opaque(folder.GetReadName()).Finish();
    kind.Check = [sExpected = handles.sRead](std::string_view sReply, std::uint32_t iXid,
                                             std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status of LOOKUP", 0);
        if (reader.Opaque() != sExpected) {
            throw WrongReply("wrong handle");
        }
        reader.SkipAttributes();
        reader.SkipAttributes();
        reader.ExpectEnd();
        return 0;
    };
    return kind;
}

CallKind MakeAccess(const Handles& handles) {
    CallKind kind;
    kind.sCall = CallBuilder(kNfsProgram, kProcAccess).Opaque(handles.sRead).U32(kAllRights).Finish();
    kind.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status of ACCESS", 0);
        reader.SkipAttributes();
        const std::uint32_t iRights = reader.U32();
        if ((iRights & kReadModifyExtend) != kReadModifyExtend) {
            throw WrongReply("rights " + std::to_string(iRights));
        }
        reader.ExpectEnd();
        return 0;
    };
    return kind;
}

// ---- Data

CallKind MakeRead(const Handles& handles, const LoadFolder& folder, std::uint32_t nData, bool bRandom) {
    CallKind kind;
    CallBuilder call(kNfsProgram, kProcRead);
    call.Opaque(handles.sRead);
    kind.iOffsetAt = call.Position();
    kind.sCall = call.U64(0).U32(nData).Finish();
    kind.work = BareWork::kRead;
    kind.nData = nData;
    kind.bRandom = bRandom;
    const Content& content = folder.GetContent();
    kind.Check = [&content, nData](std::string_view sReply, std::uint32_t iXid, std::uint64_t iOffset) {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status of READ", 0);
        reader.SkipAttributes();
        reader.Expect("count", nData);
        reader.Expect("end of file", 0);
        const std::string_view sData = reader.Opaque();
        reader.ExpectEnd();
        if (sData.size() != nData || !content.Matches(sData, iOffset, 0)) {
            throw WrongReply("wrong data at offset " + std::to_string(iOffset));
        }
        return static_cast<std::uint32_t>(sData.data() - sReply.data());
    };
    return kind;
}

CallKind MakeWrite(const Handles& handles, std::uint32_t nData) {
    CallKind kind;
    CallBuilder call(kNfsProgram, kProcWrite);
    call.Opaque(handles.sWrite);
    kind.iOffsetAt = call.Position();
    kind.sCall = call.U64(0).U32(nData).U32(kUnstable).U32(nData).Finish();
    PutWord(kind.sCall.data(), kLastFragment | static_cast<std::uint32_t>(kind.sCall.size() + nData - 4));
    kind.work = BareWork::kWrite;
    kind.nData = nData;
    auto pVerifier = std::make_shared<std::uint64_t>(0);
    kind.Check = [pVerifier, nData](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status of WRITE", 0);
        SkipChange(&reader);
        reader.Expect("count", nData);
        if (reader.U32() > kFileSync) {
            throw WrongReply("committed how?");
        }
        const std::uint64_t iVerifier = reader.U64();
        if (*pVerifier != 0 && *pVerifier != iVerifier) {
            throw WrongReply("the write verifier changed");
        }
        *pVerifier = iVerifier;
        reader.ExpectEnd();
        return 0;
    };
    return kind;
}

// ---- Names

CallKind MakeCreate(const Handles& handles, const LoadFolder& folder) {
    CallKind kind;
    CallBuilder call(kNfsProgram, kProcCreate);
    call.Opaque(handles.sRoot);
    kind.iNameAt = call.Position() + 4;
    call.Opaque(folder.MadeName(0, 0)).U32(kGuarded);
    call.U32(1).U32(0644);                    // mode
    call.U32(0).U32(0).U32(0).U32(0).U32(0);  // owner, group, size and times are left to the server
    kind.sCall = call.Finish();
    kind.work = BareWork::kCreate;
    kind.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status of CREATE", 0);
        reader.Expect("handle follows", 1);
        if (reader.Opaque().empty()) {
            throw WrongReply("an empty handle");
        }
        reader.SkipAttributes();
        SkipChange(&reader);
        reader.ExpectEnd();
        return 0;
    };
    return kind;
}

CallKind MakeRemove(const Handles& handles, const LoadFolder& folder) {
    CallKind kind;
    CallBuilder call(kNfsProgram, kProcRemove);
    call.Opaque(handles.sRoot);
    kind.iNameAt = call.Position() + 4;
    kind.sCall = call.Opaque(folder.MadeName(0, 0)).Finish();
    kind.work = BareWork::kRemove;
    kind.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status of REMOVE", 0);
        SkipChange(&reader);
        reader.ExpectEnd();
        return 0;
    };
    return kind;
}

CallKind MakeReaddirplus(const Handles& handles, std::size_t iPosition) {
    CallKind kind;
    kind.sCall = CallBuilder(kNfsProgram, kProcReaddirplus)
                     .Opaque(handles.sList)
                     .U64(handles.vListing[iPosition].iCookie)
                     .U64(handles.vListing[iPosition].iVerifier)
                     .U32(kListDirCount)
                     .U32(kListMaxCount)
                     .Finish();
    const bool bLast = iPosition + 1 == handles.vListing.size();
    const std::uint64_t iNext = bLast ? 0 : handles.vListing[iPosition + 1].iCookie;
    kind.Check = [bLast, iNext](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        const ListingReply listing = ReadListing(sReply, iXid);
        for (const std::string_view sName : listing.vsNames) {
            if (!sName.starts_with("entry-")) {
                throw WrongReply("wrong name in a listing");
            }
        }
        if (listing.bEof != bLast || (!bLast && listing.iCookie != iNext)) {
            throw WrongReply("a listing that went on otherwise before");
        }
        return 0;
    };
    return kind;
}
