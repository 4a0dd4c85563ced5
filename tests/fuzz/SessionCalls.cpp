// Well-formed calls, as a session's script chooses them.
#include "SessionCalls.h"

#include <cstdint>

#include "Xdr.h"

namespace {

constexpr const char* kNames[] = {"",      "file",        "folder", "entry", "disk", "link",      "made",
                                  "made2", "folder/disk", "other",  ".",     "..",   "../secret", "folder/entry"};
constexpr const char* kExportNames[] = {"fuzz", "inner", "other", "none", ""};
constexpr std::uint64_t kOffsets[] = {0, 1, 5, 100, 4096, 1048576, 1ULL << 41U, 0x7FFFFFFFFFFFFFFF, ~0ULL};
constexpr std::uint32_t kCounts[] = {0, 1, 5, 512, 4096, 16384, 65536, 65537, 0xFFFFFFFF};
constexpr std::uint64_t kSizes[] = {0, 7, 4096, 1ULL << 33U, ~0ULL};
constexpr unsigned int kHandles = 24;
constexpr std::size_t kLongName = 300;

/// One of the first handles, or one that nobody has given out.
void AddHandle(XdrBuilder& xdr, SessionScript& script) {
    const unsigned int iChoice = script.Byte();
    if (iChoice >= 0xF8) {
        xdr.Opaque(script.Bytes().substr(0, 64));
        return;
    }
    xdr.Opaque(std::string(1, static_cast<char>(iChoice % kHandles)) + std::string(55, '\0'));
}

void AddName(XdrBuilder& xdr, SessionScript& script) {
    if (script.Byte() >= 0xF8) {
        xdr.Opaque(std::string(kLongName, 'n'));
    } else {
        xdr.Opaque(ChooseSessionName(script));
    }
}

void AddAttributes(XdrBuilder& xdr, SessionScript& script) {
    const unsigned int iSet = script.Byte();
    const auto optional = [&](unsigned int iBit, std::uint32_t iValue) {
        xdr.Bool((iSet & iBit) != 0);
        if ((iSet & iBit) != 0) {
            xdr.U32(iValue);
        }
    };
    optional(1, 0640);
    optional(2, 0);
    optional(4, 0);
    xdr.Bool((iSet & 8U) != 0);
    if ((iSet & 8U) != 0) {
        xdr.U64(script.OneOf(kSizes));
    }
    xdr.U32((iSet >> 4U) % 2);
    xdr.U32((iSet & 32U) != 0 ? 2 : 0);
    if ((iSet & 32U) != 0) {
        xdr.U32(1000000000).U32(5);
    }
}

void AddCreateHow(XdrBuilder& xdr, SessionScript& script) {
    const std::uint32_t iMode = script.Byte() % 4;
    xdr.U32(iMode);
    if (iMode == 2) {
        xdr.U64(1);
    } else {
        AddAttributes(xdr, script);
    }
}

void AddWrite(XdrBuilder& xdr, SessionScript& script) {
    AddHandle(xdr, script);
    xdr.U64(script.OneOf(kOffsets));
    const std::string_view sData = script.Bytes();
    const bool bOtherCount = script.Byte() >= 0xE0;
    xdr.U32(bOtherCount ? script.OneOf(kCounts) : static_cast<std::uint32_t>(sData.size())).U32(script.Below(3));
    xdr.Opaque(sData);
}

/// The arguments of an NFS procedure (RFC 1813, section 3.3), by what they begin with.
void AddNfsArguments(XdrBuilder& xdr, unsigned int iProcedure, SessionScript& script) {
    switch (iProcedure) {
        case 0:
            return;
        case 7:
            return AddWrite(xdr, script);
        case 2:
            AddHandle(xdr, script);
            AddAttributes(xdr, script);
            xdr.U32(script.Byte() % 2);
            return;
        case 3:
        case 12:
        case 13:
            AddHandle(xdr, script);
            return AddName(xdr, script);
        case 8:
            AddHandle(xdr, script);
            AddName(xdr, script);
            return AddCreateHow(xdr, script);
        case 9:
        case 10:
        case 11:
            AddHandle(xdr, script);
            AddName(xdr, script);
            if (iProcedure == 11) {
                xdr.U32(script.Byte() % 9);
            }
            AddAttributes(xdr, script);
            return AddName(xdr, script);
        case 14:
            AddHandle(xdr, script);
            AddName(xdr, script);
            AddHandle(xdr, script);
            return AddName(xdr, script);
        case 15:
            AddHandle(xdr, script);
            AddHandle(xdr, script);
            return AddName(xdr, script);
        case 16:
        case 17:
            AddHandle(xdr, script);
            xdr.U64(script.Byte() % 8).U64(0).U32(script.OneOf(kCounts));
            if (iProcedure == 17) {
                xdr.U32(script.OneOf(kCounts));
            }
            return;
        default:
            AddHandle(xdr, script);
            if (iProcedure == 6 || iProcedure == 21) {
                xdr.U64(script.OneOf(kOffsets));
            }
            if (iProcedure == 4 || iProcedure == 6 || iProcedure == 21) {
                xdr.U32(script.OneOf(kCounts));
            }
    }
}

}  // namespace

const char* ChooseSessionName(SessionScript& script) {
    return script.OneOf(kNames);
}

std::string MakeSessionCall(unsigned long lProgram, SessionScript& script) {
    constexpr unsigned long kNfs = 100003;
    constexpr unsigned long kPortmap = 100000;
    const unsigned int iProcedure = script.Below(lProgram == kNfs ? 23 : 7);
    const std::uint32_t iVersion = lProgram == kPortmap ? 2 : 3;
    XdrBuilder xdr;
    xdr.U32(77).U32(0).U32(2).U32(static_cast<std::uint32_t>(lProgram)).U32(iVersion).U32(iProcedure);
    xdr.U32(0).U32(0).U32(0).U32(0);
    if (lProgram == kNfs) {
        AddNfsArguments(xdr, iProcedure, script);
    } else if (lProgram == kPortmap) {
        xdr.U32(100000 + script.Byte() % 8).U32(3).U32(6).U32(0);
    } else if (iProcedure == 1 || iProcedure == 3) {
        xdr.Opaque(script.OneOf(kExportNames));
    }
    return xdr.Bytes();
}
