// Calls and the checks of their replies (RFC 1813).
#include "Row.h"

#include <cstring>

#include "NfsMessages.h"

namespace {

constexpr std::uint32_t kProcNull = 0;
constexpr std::uint32_t kProcGetattr = 1;
constexpr std::uint32_t kProcLookup = 3;
constexpr std::uint32_t kProcRead = 6;
constexpr std::uint32_t kProcWrite = 7;
constexpr std::uint32_t kProcReaddirplus = 17;
constexpr std::uint32_t kFileSync = 2;
constexpr std::uint32_t kRegularFile = 1;
/// Entries in one reply of this server.
constexpr std::uint32_t kEntriesPerReply = 10;

Row MakeNull() {
    Row row;
    row.sName = "NULL";
    row.sCall = CallBuilder(kNfsProgram, kProcNull).Finish();
    row.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.ExpectEnd();
        return 0;
    };
    return row;
}

Row MakeGetattr(const LoadFolder& folder) {
    Row row;
    row.sName = "GETATTR";
    row.sCall = CallBuilder(kNfsProgram, kProcGetattr).Opaque(folder.sReadHandle).Finish();
    row.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status", 0);
        reader.Expect("type", kRegularFile);
        reader.Skip(16);  // mode, links, user, group
        if (reader.U64() != kFileSize) {
            throw WrongReply("wrong file size");
        }
        reader.Skip(kAttributesSize - 28);
        reader.ExpectEnd();
        return 0;
    };
    return row;
}

Row MakeLookup(const LoadFolder& folder) {
    Row row;
    row.sName = "LOOKUP";
    row.sCall = CallBuilder(kNfsProgram, kProcLookup).Opaque(folder.sRootHandle).Opaque(folder.sReadName).Finish();
    row.Check = [&folder](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status", 0);
        if (reader.Opaque() != folder.sReadHandle) {
            throw WrongReply("wrong handle");
        }
        reader.SkipAttributes();
        reader.SkipAttributes();
        reader.ExpectEnd();
        return 0;
    };
    return row;
}

Row MakeRead(const LoadFolder& folder, const char* pcName, std::uint32_t nData, bool bRandom) {
    Row row;
    row.sName = pcName;
    CallBuilder call(kNfsProgram, kProcRead);
    call.Opaque(folder.sReadHandle);
    row.iOffsetAt = call.Position();
    row.sCall = call.U64(0).U32(nData).Finish();
    row.work = BareWork::kRead;
    row.nData = nData;
    row.bRandom = bRandom;
    row.Check = [&folder, nData](std::string_view sReply, std::uint32_t iXid, std::uint64_t iOffset) {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status", 0);
        reader.SkipAttributes();
        reader.Expect("count", nData);
        reader.Expect("end of file", 0);
        const std::string_view sData = reader.Opaque();
        reader.ExpectEnd();
        if (sData.size() != nData || std::memcmp(sData.data(), folder.sContent.data() + iOffset, nData) != 0) {
            throw WrongReply("wrong data at offset " + std::to_string(iOffset));
        }
        return static_cast<std::uint32_t>(sData.data() - sReply.data());
    };
    return row;
}

Row MakeWrite(const LoadFolder& folder, const char* pcName, std::uint32_t nData) {
    Row row;
    row.sName = pcName;
    CallBuilder call(kNfsProgram, kProcWrite);
    call.Opaque(folder.sWriteHandle);
    row.iOffsetAt = call.Position();
    row.sCall = call.U64(0).U32(nData).U32(kFileSync).U32(nData).Finish();
    PutWord(row.sCall.data(), kLastFragment | static_cast<std::uint32_t>(row.sCall.size() + nData - 4));
    row.work = BareWork::kWrite;
    row.nData = nData;
    auto pVerifier = std::make_shared<std::uint64_t>(0);
    row.Check = [pVerifier, nData](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status", 0);
        if (reader.U32() != 0) {
            reader.Skip(24);  // wcc_attr
        }
        reader.SkipAttributes();
        reader.Expect("count", nData);
        reader.Expect("committed", kFileSync);
        const std::uint64_t iVerifier = reader.U64();
        if (*pVerifier != 0 && *pVerifier != iVerifier) {
            throw WrongReply("the write verifier changed");
        }
        *pVerifier = iVerifier;
        reader.ExpectEnd();
        return 0;
    };
    return row;
}

Row MakeReaddirplus(const LoadFolder& folder) {
    Row row;
    row.sName = "READDIRPLUS";
    row.sCall = CallBuilder(kNfsProgram, kProcReaddirplus)
                    .Opaque(folder.sListHandle)
                    .U64(0)
                    .U64(0)
                    .U32(4096)
                    .U32(32768)
                    .Finish();
    row.bCompared = false;
    row.Check = [](std::string_view sReply, std::uint32_t iXid, std::uint64_t) -> std::uint32_t {
        ReplyReader reader(sReply);
        reader.ExpectHead(iXid);
        reader.Expect("status", 0);
        reader.SkipAttributes();
        reader.U64();  // verifier
        std::uint64_t nEntries = 0;
        while (reader.U32() != 0) {
            reader.U64();  // file ID
            if (reader.Opaque().empty() || reader.U64() != ++nEntries) {
                throw WrongReply("wrong name or cookie");
            }
            reader.Expect("attributes follow", 1);
            reader.Skip(kAttributesSize);
            reader.Expect("handle follows", 1);
            reader.Opaque();
        }
        reader.Expect("end of directory", 0);
        reader.ExpectEnd();
        if (nEntries != kEntriesPerReply) {
            throw WrongReply(std::to_string(nEntries) + " entries");
        }
        return 0;
    };
    return row;
}

}  // namespace

std::vector<Row> MakeRows(const LoadFolder& folder) {
    std::vector<Row> vRows;
    vRows.push_back(MakeNull());
    vRows.push_back(MakeGetattr(folder));
    vRows.push_back(MakeLookup(folder));
    vRows.push_back(MakeRead(folder, "READ4K", 4096, true));
    vRows.push_back(MakeRead(folder, "READ64K", 65536, false));
    vRows.push_back(MakeWrite(folder, "WRITE16K", 16384));
    vRows.push_back(MakeReaddirplus(folder));
    return vRows;
}
