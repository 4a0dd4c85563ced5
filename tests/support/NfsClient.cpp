// NFS version 3 and MOUNT calls for tests.
#include "NfsClient.h"

#include <stdexcept>

namespace {

constexpr std::uint32_t kUnchecked = 0;
constexpr std::uint32_t kFileSync = 2;
constexpr std::uint32_t kSetToClientTime = 2;

/// diropargs3.
XdrBuilder DirOp(const std::string& sDir, const std::string& sName) {
    XdrBuilder builder;
    builder.Opaque(sDir).Opaque(sName);
    return builder;
}

void ReadWccData(XdrReader& reader) {
    if (reader.Bool()) {
        reader.Skip(24);  // size, mtime, ctime
    }
    ReadPostOpAttr(reader);
}

void ExpectEnd(const XdrReader& reader, const char* pcWhat) {
    if (!reader.AtEnd()) {
        throw std::runtime_error(std::string(pcWhat) + ": " + std::to_string(reader.Left()) +
                                 " bytes behind the reply");
    }
}

/// A reply that is a status and wcc_data in every case.
std::uint32_t StatusAndWcc(XdrReader reader, const char* pcWhat) {
    const std::uint32_t iStatus = reader.U32();
    ReadWccData(reader);
    ExpectEnd(reader, pcWhat);
    return iStatus;
}

/// The reply of CREATE and MKDIR.
std::uint32_t StatusAndNewHandle(XdrReader reader, const char* pcWhat, std::string& sHandle) {
    sHandle.clear();
    const std::uint32_t iStatus = reader.U32();
    if (iStatus == 0) {
        sHandle = ReadPostOpHandle(reader).value_or("");
        ReadPostOpAttr(reader);
    }
    ReadWccData(reader);
    ExpectEnd(reader, pcWhat);
    return iStatus;
}

void WriteTime(XdrBuilder& builder, const std::optional<std::pair<std::uint32_t, std::uint32_t>>& time) {
    builder.U32(time ? kSetToClientTime : 0);
    if (time) {
        builder.U32(time->first).U32(time->second);
    }
}

}  // namespace

Fattr3 Fattr3::Read(XdrReader& reader) {
    Fattr3 attributes;
    attributes.iType = reader.U32();
    attributes.iMode = reader.U32();
    attributes.iNlink = reader.U32();
    attributes.iUid = reader.U32();
    attributes.iGid = reader.U32();
    attributes.iSize = reader.U64();
    attributes.iUsed = reader.U64();
    attributes.iRdevMajor = reader.U32();
    attributes.iRdevMinor = reader.U32();
    attributes.iFsid = reader.U64();
    attributes.iFileid = reader.U64();
    attributes.iAtimeSec = reader.U32();
    attributes.iAtimeNsec = reader.U32();
    attributes.iMtimeSec = reader.U32();
    attributes.iMtimeNsec = reader.U32();
    attributes.iCtimeSec = reader.U32();
    attributes.iCtimeNsec = reader.U32();
    return attributes;
}

std::optional<Fattr3> ReadPostOpAttr(XdrReader& reader) {
    if (!reader.Bool()) {
        return std::nullopt;
    }
    return Fattr3::Read(reader);
}

std::optional<std::string> ReadPostOpHandle(XdrReader& reader) {
    if (!reader.Bool()) {
        return std::nullopt;
    }
    return reader.Opaque();
}

void Sattr3::Write(XdrBuilder& builder) const {
    for (const std::optional<std::uint32_t>& value : {iMode, iUid, iGid}) {
        builder.Bool(value.has_value());
        if (value) {
            builder.U32(*value);
        }
    }
    builder.Bool(iSize.has_value());
    if (iSize) {
        builder.U64(*iSize);
    }
    WriteTime(builder, atime);
    WriteTime(builder, mtime);
}

// ---- The client

NfsClient::NfsClient(Transport transport, const std::string& sSourceAddress, int iNfsPort, int iMountPort,
                     const std::string& sServerAddress)
    : m_Mount(transport, iMountPort, sSourceAddress, sServerAddress),
      m_Nfs(transport, iNfsPort, sSourceAddress, sServerAddress) {}

std::optional<std::string> NfsClient::Mnt(const std::string& sExportName) {
    const RpcReply reply = m_Mount.Call(kMountProgram, 3, kMountMnt, XdrBuilder().Opaque(sExportName).Bytes());
    if (reply.iAcceptStatus != kAcceptSuccess) {
        throw std::runtime_error("MNT: accept status " + std::to_string(reply.iAcceptStatus));
    }
    XdrReader reader(reply.sBody);
    m_iMountStatus = reader.U32();
    if (m_iMountStatus != 0) {
        ExpectEnd(reader, "MNT");
        return std::nullopt;
    }
    std::string sHandle = reader.Opaque();
    for (std::uint32_t iFlavors = reader.U32(); iFlavors > 0; --iFlavors) {
        reader.U32();
    }
    ExpectEnd(reader, "MNT");
    return sHandle;
}

void NfsClient::Umnt(const std::string& sExportName) {
    const RpcReply reply = m_Mount.Call(kMountProgram, 3, kMountUmnt, XdrBuilder().Opaque(sExportName).Bytes());
    if (reply.iAcceptStatus != kAcceptSuccess || !reply.sBody.empty()) {
        throw std::runtime_error("UMNT: accept status " + std::to_string(reply.iAcceptStatus) + ", body " +
                                 Hex(reply.sBody));
    }
}

XdrReader NfsClient::Nfs3(std::uint32_t iProcedure, const std::string& sArguments) {
    const RpcReply reply = m_Nfs.Call(kNfsProgram, 3, iProcedure, sArguments);
    if (reply.iAcceptStatus != kAcceptSuccess) {
        throw std::runtime_error("NFS procedure " + std::to_string(iProcedure) + ": accept status " +
                                 std::to_string(reply.iAcceptStatus));
    }
    return XdrReader(reply.sBody);
}

std::uint32_t NfsClient::Getattr(const std::string& sHandle, Fattr3& attributes) {
    XdrReader reader = Nfs3(kNfsGetattr, XdrBuilder().Opaque(sHandle).Bytes());
    const std::uint32_t iStatus = reader.U32();
    if (iStatus == 0) {
        attributes = Fattr3::Read(reader);
    }
    ExpectEnd(reader, "GETATTR");
    return iStatus;
}

std::uint32_t NfsClient::Setattr(const std::string& sHandle, const Sattr3& attributes) {
    XdrBuilder arguments;
    arguments.Opaque(sHandle);
    attributes.Write(arguments);
    arguments.Bool(false);  // no guard
    return StatusAndWcc(Nfs3(kNfsSetattr, arguments.Bytes()), "SETATTR");
}

std::uint32_t NfsClient::Lookup(const std::string& sDir, const std::string& sName, std::string& sHandle) {
    sHandle.clear();
    XdrReader reader = Nfs3(kNfsLookup, DirOp(sDir, sName).Bytes());
    const std::uint32_t iStatus = reader.U32();
    if (iStatus == 0) {
        sHandle = reader.Opaque();
        ReadPostOpAttr(reader);
    }
    ReadPostOpAttr(reader);
    ExpectEnd(reader, "LOOKUP");
    return iStatus;
}

std::uint32_t NfsClient::Read(const std::string& sHandle, std::uint64_t iOffset, std::uint32_t iCount,
                              std::string& sData, bool& bEof) {
    XdrReader reader = Nfs3(kNfsRead, XdrBuilder().Opaque(sHandle).U64(iOffset).U32(iCount).Bytes());
    const std::uint32_t iStatus = reader.U32();
    ReadPostOpAttr(reader);
    sData.clear();
    bEof = false;
    if (iStatus == 0) {
        const std::uint32_t iGot = reader.U32();
        bEof = reader.Bool();
        sData = reader.Opaque();
        if (sData.size() != iGot) {
            throw std::runtime_error("READ: count " + std::to_string(iGot) + ", data " + std::to_string(sData.size()));
        }
    }
    ExpectEnd(reader, "READ");
    return iStatus;
}

std::uint32_t NfsClient::Write(const std::string& sHandle, std::uint64_t iOffset, std::string_view sData,
                               std::uint32_t& iCount) {
    const std::uint32_t iSize = static_cast<std::uint32_t>(sData.size());
    XdrReader reader =
        Nfs3(kNfsWrite, XdrBuilder().Opaque(sHandle).U64(iOffset).U32(iSize).U32(kFileSync).Opaque(sData).Bytes());
    const std::uint32_t iStatus = reader.U32();
    ReadWccData(reader);
    iCount = 0;
    if (iStatus == 0) {
        iCount = reader.U32();
        reader.U32();  // how it was committed
        reader.U64();  // verifier
    }
    ExpectEnd(reader, "WRITE");
    return iStatus;
}

std::uint32_t NfsClient::Create(const std::string& sDir, const std::string& sName, std::string& sHandle) {
    XdrBuilder arguments = DirOp(sDir, sName);
    arguments.U32(kUnchecked);
    Sattr3().Write(arguments);
    return StatusAndNewHandle(Nfs3(kNfsCreate, arguments.Bytes()), "CREATE", sHandle);
}

std::uint32_t NfsClient::Mkdir(const std::string& sDir, const std::string& sName, std::string& sHandle) {
    XdrBuilder arguments = DirOp(sDir, sName);
    Sattr3 attributes;
    attributes.iMode = 0755;
    attributes.Write(arguments);
    return StatusAndNewHandle(Nfs3(kNfsMkdir, arguments.Bytes()), "MKDIR", sHandle);
}

std::uint32_t NfsClient::Remove(const std::string& sDir, const std::string& sName) {
    return StatusAndWcc(Nfs3(kNfsRemove, DirOp(sDir, sName).Bytes()), "REMOVE");
}

std::uint32_t NfsClient::Rmdir(const std::string& sDir, const std::string& sName) {
    return StatusAndWcc(Nfs3(kNfsRmdir, DirOp(sDir, sName).Bytes()), "RMDIR");
}

std::uint32_t NfsClient::Rename(const std::string& sFromDir, const std::string& sFromName, const std::string& sToDir,
                                const std::string& sToName) {
    XdrBuilder arguments = DirOp(sFromDir, sFromName);
    arguments.Opaque(sToDir).Opaque(sToName);
    XdrReader reader = Nfs3(kNfsRename, arguments.Bytes());
    const std::uint32_t iStatus = reader.U32();
    ReadWccData(reader);
    ReadWccData(reader);
    ExpectEnd(reader, "RENAME");
    return iStatus;
}

std::uint32_t NfsClient::Readdir(const std::string& sDir, std::vector<std::string>& vsNames, std::uint32_t iCount) {
    constexpr int kMostCalls = 100000;  // a listing that never ends fails here
    vsNames.clear();
    std::uint64_t iCookie = 0;
    std::uint64_t iVerifier = 0;
    for (int i = 0; i < kMostCalls; ++i) {
        XdrReader reader = Nfs3(kNfsReaddir, XdrBuilder().Opaque(sDir).U64(iCookie).U64(iVerifier).U32(iCount).Bytes());
        const std::uint32_t iStatus = reader.U32();
        ReadPostOpAttr(reader);
        if (iStatus != 0) {
            ExpectEnd(reader, "READDIR");
            return iStatus;
        }
        iVerifier = reader.U64();
        while (reader.Bool()) {
            reader.U64();  // file ID
            vsNames.push_back(reader.Opaque());
            iCookie = reader.U64();
        }
        const bool bEnd = reader.Bool();
        ExpectEnd(reader, "READDIR");
        if (bEnd) {
            return 0;
        }
    }
    throw std::runtime_error("READDIR does not come to an end");
}
