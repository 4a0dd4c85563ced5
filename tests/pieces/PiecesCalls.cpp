// Calls of every procedure, and credentials of every shape (RFC 5531, 8.2 and appendix A).
#include "PiecesCalls.h"

#include <array>
#include <stdexcept>

#include "NfsClient.h"
#include "PiecesWorld.h"

namespace {

constexpr std::uint32_t kAuthSys = 1;
constexpr std::array<std::uint32_t, 3> kStamps{0, 7, 0xC0FFEE42};
constexpr std::array<std::size_t, 3> kNameLengths{0, 5, 255};
constexpr std::array<std::uint32_t, 3> kGroups{0, 1, 16};

RpcCall AuthSys(std::uint32_t iStamp, std::size_t nName, std::uint32_t nGroups) {
    XdrBuilder body;
    body.U32(iStamp).Opaque(std::string(nName, 'm')).U32(1000).U32(100).U32(nGroups);
    for (std::uint32_t i = 0; i < nGroups; ++i) {
        body.U32(100000 + i);  // as a program's number looks
    }
    RpcCall call;
    call.iCredFlavor = kAuthSys;
    call.sCred = body.Bytes();
    return call;
}

PiecesCall Portmap(std::string sName, std::uint32_t iProcedure, std::uint32_t iAcceptStatus) {
    return {std::move(sName),
            kPortmapProgram,
            2,
            iProcedure,
            XdrBuilder().U32(kNfsProgram).U32(3).U32(6).U32(0).Bytes(),
            iAcceptStatus,
            {},
            false};
}

PiecesCall Mount(std::string sName, std::uint32_t iVersion, std::uint32_t iProcedure, std::string sArguments,
                 std::uint32_t iAcceptStatus, std::optional<std::uint32_t> iStatus, bool bModifying) {
    return {std::move(sName),      kMountProgram, iVersion, iProcedure,
            std::move(sArguments), iAcceptStatus, iStatus,  bModifying};
}

PiecesCall Nfs(std::string sName, std::uint32_t iProcedure, const XdrBuilder& arguments,
               std::optional<std::uint32_t> iStatus, bool bModifying = false) {
    return {std::move(sName), kNfsProgram, 3, iProcedure, arguments.Bytes(), kAcceptSuccess, iStatus, bModifying};
}

/// NFS of another version, or a procedure that there is not: refused while no call of version 3 has been served. The
/// arguments hold a call, which nobody made.
PiecesCall Refused(std::string sName, std::uint32_t iVersion, std::uint32_t iProcedure) {
    RpcCall inner;
    inner.iProgram = kNfsProgram;
    inner.iProcedure = kNfsRemove;
    inner.sArguments = XdrBuilder().Raw(HandleArgument(PiecesWorld::kRoot)).Opaque("file").Bytes();
    return {std::move(sName),   kNfsProgram, iVersion, iProcedure, "x" + inner.Bytes(Transport::kTcp),
            kAcceptProcUnavail, {},          false};
}

std::vector<PiecesCall> MakeMountCalls() {
    const std::string sName = XdrBuilder().Opaque(PiecesWorld::kExportName).Bytes();
    const std::string sOdd = XdrBuilder().Opaque("other").Bytes();
    // The name is left unread; it is made of calls that would bind the export.
    RpcCall inner;
    inner.iProgram = kMountProgram;
    inner.iProcedure = kMountMnt;
    inner.sArguments = sName;
    std::string sLong;
    while (sLong.size() < 4096) {
        sLong += inner.Bytes(Transport::kTcp);
    }
    sLong = XdrBuilder().Opaque(sLong).Bytes();
    return {
        Mount("MountNull", 3, kMountNull, "", kAcceptSuccess, {}, false),
        Mount("MountMnt", 3, kMountMnt, sName, kAcceptSuccess, 0, true),
        Mount("MountMntVersion1", 1, kMountMnt, sName, kAcceptSuccess, 0, true),
        Mount("MountMntUnknown", 3, kMountMnt, sOdd, kAcceptSuccess, 13, true),
        Mount("MountMntNameTooLong", 3, kMountMnt, sLong, kAcceptSuccess, 13, true),
        Mount("MountDump", 3, kMountDump, "", kAcceptProcUnavail, {}, false),
        Mount("MountUmnt", 3, kMountUmnt, sName, kAcceptSuccess, {}, true),
        Mount("MountUmntNameTooLong", 3, kMountUmnt, sLong, kAcceptSuccess, {}, true),
        Mount("MountUmntall", 3, kMountUmntall, "", kAcceptProcUnavail, {}, false),
        Mount("MountExport", 3, kMountExport, sName, kAcceptProcUnavail, {}, false),
    };
}

std::vector<PiecesCall> MakeNfsCalls() {
    const XdrBuilder root = XdrBuilder().Raw(HandleArgument(PiecesWorld::kRoot));
    const XdrBuilder file = XdrBuilder().Raw(HandleArgument(PiecesWorld::kFile));
    const XdrBuilder dir = XdrBuilder().Raw(HandleArgument(PiecesWorld::kDir));
    const XdrBuilder entry = XdrBuilder(root).Opaque("new one");
    const XdrBuilder nothing = XdrBuilder().Raw(std::string(24, '\0'));
    XdrBuilder all;
    Sattr3 attributes;
    attributes.iMode = 0640;
    attributes.iUid = attributes.iGid = 0;
    attributes.iSize = 5;
    attributes.atime = attributes.mtime = {1000000000, 5};
    attributes.Write(all);
    return {
        Nfs("NfsNull", kNfsNull, XdrBuilder(), {}),
        Nfs("NfsGetattr", kNfsGetattr, file, 0),
        Nfs("NfsSetattr", kNfsSetattr, XdrBuilder(file).Raw(all.Bytes()).U32(0), 0, true),
        Nfs("NfsSetattrGuarded", kNfsSetattr, XdrBuilder(file).Raw(all.Bytes()).U32(1).U32(1).U32(0), 10002, true),
        Nfs("NfsLookup", kNfsLookup, XdrBuilder(root).Opaque("file"), 0),
        Nfs("NfsAccess", kNfsAccess, XdrBuilder(file).U32(0x3F), 0),
        Nfs("NfsReadlink", kNfsReadlink, file, 5),
        Nfs("NfsRead", kNfsRead, XdrBuilder(file).U64(1).U32(100), 0),
        Nfs("NfsWrite", kNfsWrite, XdrBuilder(file).U64(3).U32(5).U32(2).Opaque("hello"), 0, true),
        Nfs("NfsCreateUnchecked", kNfsCreate, XdrBuilder(entry).U32(0).Raw(all.Bytes()), 0, true),
        Nfs("NfsCreateGuarded", kNfsCreate, XdrBuilder(entry).U32(1).Raw(nothing.Bytes()), 0, true),
        Nfs("NfsCreateExclusive", kNfsCreate, XdrBuilder(entry).U32(2).U64(77), 0, true),
        Nfs("NfsMkdir", kNfsMkdir, XdrBuilder(entry).Raw(nothing.Bytes()), 0, true),
        Nfs("NfsSymlink", kNfsSymlink, XdrBuilder(entry).Raw(nothing.Bytes()).Opaque("target"), 5, true),
        Nfs("NfsMknodPipe", kNfsMknod, XdrBuilder(entry).U32(7).Raw(all.Bytes()), 10004, true),
        Nfs("NfsMknodDevice", kNfsMknod, XdrBuilder(entry).U32(3).Raw(nothing.Bytes()).U32(1).U32(2), 10004, true),
        Nfs("NfsRemove", kNfsRemove, XdrBuilder(root).Opaque("file"), 0, true),
        Nfs("NfsRmdir", kNfsRmdir, XdrBuilder(root).Opaque("empty"), 0, true),
        Nfs("NfsRename", kNfsRename, XdrBuilder(root).Opaque("file").Raw(dir.Bytes()).Opaque("moved"), 0, true),
        Nfs("NfsLink", kNfsLink, XdrBuilder(file).Raw(entry.Bytes()), 5, true),
        Nfs("NfsReaddir", kNfsReaddir, XdrBuilder(root).U64(0).U64(0).U32(4096), 0),
        Nfs("NfsReaddirplus", kNfsReaddirplus, XdrBuilder(root).U64(0).U64(0).U32(4096).U32(32768), 0),
        Nfs("NfsFsstat", kNfsFsstat, root, 0),
        Nfs("NfsFsinfo", kNfsFsinfo, root, 0),
        Nfs("NfsPathconf", kNfsPathconf, root, 5),
        Nfs("NfsCommit", kNfsCommit, XdrBuilder(file).U64(0).U32(0), 5),
        Refused("NfsVersion2", 2, 0),
        Refused("NfsVersion4", 4, 1),
        Refused("NfsProcedure22", 3, 22),
    };
}

std::vector<PiecesCall> MakeAllCalls() {
    std::vector<PiecesCall> vCalls{
        Portmap("PortmapNull", 0, kAcceptProcUnavail),  Portmap("PortmapSet", 1, kAcceptProcUnavail),
        Portmap("PortmapUnset", 2, kAcceptProcUnavail), Portmap("PortmapGetport", 3, kAcceptSuccess),
        Portmap("PortmapDump", 4, kAcceptProcUnavail),  Portmap("PortmapCallit", 5, kAcceptProcUnavail),
    };
    for (const auto& vMore : {MakeMountCalls(), MakeNfsCalls()}) {
        vCalls.insert(vCalls.end(), vMore.begin(), vMore.end());
    }
    return vCalls;
}

}  // namespace

std::string HandleArgument(std::uint32_t iID) {
    std::string sHandle(56, '\0');
    sHandle[0] = static_cast<char>(iID);
    return XdrBuilder().Opaque(sHandle).Bytes();
}

std::string PiecesCall::Record(const RpcCall& credential, std::uint32_t iXid) const {
    RpcCall call = credential;
    call.iXid = iXid;
    call.iProgram = iProgram;
    call.iVersion = iVersion;
    call.iProcedure = iProcedure;
    call.sArguments = sArguments;
    return call.Bytes(Transport::kTcp);
}

const std::vector<PiecesCall>& AllCalls() {
    static const std::vector<PiecesCall> vCalls = MakeAllCalls();
    return vCalls;
}

const PiecesCall& CallNamed(const std::string& sName) {
    for (const PiecesCall& call : AllCalls()) {
        if (call.sName == sName) {
            return call;
        }
    }
    throw std::runtime_error("no call of that name: " + sName);
}

std::vector<RpcCall> AllCredentials() {
    std::vector<RpcCall> vCalls{RpcCall()};
    for (const std::uint32_t iStamp : kStamps) {
        for (const std::size_t nName : kNameLengths) {
            for (const std::uint32_t nGroups : kGroups) {
                vCalls.push_back(AuthSys(iStamp, nName, nGroups));
            }
        }
    }
    return vCalls;
}

std::vector<RpcCall> FewCredentials() {
    std::vector<RpcCall> vCalls{RpcCall()};
    for (std::size_t i = 0; i < kStamps.size(); ++i) {
        vCalls.push_back(AuthSys(kStamps[i], kNameLengths[i], kGroups[i]));
    }
    return vCalls;
}
