// NFS version 3 and MOUNT calls for tests (RFC 1813), over RpcClient.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "RpcClient.h"

/// Procedure numbers of RFC 1813.
enum NfsProcedure : std::uint32_t {
    kNfsNull = 0,
    kNfsGetattr = 1,
    kNfsSetattr = 2,
    kNfsLookup = 3,
    kNfsAccess = 4,
    kNfsReadlink = 5,
    kNfsRead = 6,
    kNfsWrite = 7,
    kNfsCreate = 8,
    kNfsMkdir = 9,
    kNfsSymlink = 10,
    kNfsMknod = 11,
    kNfsRemove = 12,
    kNfsRmdir = 13,
    kNfsRename = 14,
    kNfsLink = 15,
    kNfsReaddir = 16,
    kNfsReaddirplus = 17,
    kNfsFsstat = 18,
    kNfsFsinfo = 19,
    kNfsPathconf = 20,
    kNfsCommit = 21,
};

enum MountProcedure : std::uint32_t {
    kMountNull = 0,
    kMountMnt = 1,
    kMountDump = 2,
    kMountUmnt = 3,
    kMountUmntall = 4,
    kMountExport = 5,
};

/// fattr3 as sent: 84 bytes.
struct Fattr3 {
    std::uint32_t iType = 0, iMode = 0, iNlink = 0, iUid = 0, iGid = 0;
    std::uint64_t iSize = 0, iUsed = 0;
    std::uint32_t iRdevMajor = 0, iRdevMinor = 0;
    std::uint64_t iFsid = 0, iFileid = 0;
    std::uint32_t iAtimeSec = 0, iAtimeNsec = 0, iMtimeSec = 0, iMtimeNsec = 0, iCtimeSec = 0, iCtimeNsec = 0;

    static Fattr3 Read(XdrReader& reader);
};

/// post_op_attr.
std::optional<Fattr3> ReadPostOpAttr(XdrReader& reader);
/// post_op_fh3.
std::optional<std::string> ReadPostOpHandle(XdrReader& reader);

/// sattr3 that sets what has a value (times: to the client's).
struct Sattr3 {
    std::optional<std::uint32_t> iMode, iUid, iGid;
    std::optional<std::uint64_t> iSize;
    std::optional<std::pair<std::uint32_t, std::uint32_t>> atime, mtime;  ///< seconds, nanoseconds

    void Write(XdrBuilder& builder) const;
};

/// A client with one connection for MOUNT and one for NFS. Handles are raw bytes. Operations that return a status
/// return the NFS status (0 NFS3_OK) and check that the reply is not one byte longer than its layout.
class NfsClient {
public:
    explicit NfsClient(Transport transport = Transport::kTcp, const std::string& sSourceAddress = "127.0.0.1",
                       int iNfsPort = 2049, int iMountPort = 1058, const std::string& sServerAddress = "127.0.0.1");

    RpcClient& Nfs() { return m_Nfs; }
    RpcClient& Mount() { return m_Mount; }

    /// MNT version 3. Returns the root handle, or nothing when refused (the status stays in GetMountStatus).
    std::optional<std::string> Mnt(const std::string& sExportName);
    std::uint32_t GetMountStatus() const { return m_iMountStatus; }
    void Umnt(const std::string& sExportName);

    /// Any NFS procedure with the arguments given; throws unless the reply is accepted with SUCCESS.
    XdrReader Nfs3(std::uint32_t iProcedure, const std::string& sArguments);

    std::uint32_t Getattr(const std::string& sHandle, Fattr3& attributes);
    std::uint32_t Setattr(const std::string& sHandle, const Sattr3& attributes);
    std::uint32_t Lookup(const std::string& sDir, const std::string& sName, std::string& sHandle);
    std::uint32_t Read(const std::string& sHandle, std::uint64_t iOffset, std::uint32_t iCount, std::string& sData,
                       bool& bEof);
    /// The number of bytes the server says it stored goes to iCount.
    std::uint32_t Write(const std::string& sHandle, std::uint64_t iOffset, std::string_view sData,
                        std::uint32_t& iCount);
    /// UNCHECKED. The handle is empty when the reply brings none.
    std::uint32_t Create(const std::string& sDir, const std::string& sName, std::string& sHandle);
    std::uint32_t Mkdir(const std::string& sDir, const std::string& sName, std::string& sHandle);
    std::uint32_t Remove(const std::string& sDir, const std::string& sName);
    std::uint32_t Rmdir(const std::string& sDir, const std::string& sName);
    std::uint32_t Rename(const std::string& sFromDir, const std::string& sFromName, const std::string& sToDir,
                         const std::string& sToName);
    /// All names of a directory, over as many READDIR calls as it takes.
    std::uint32_t Readdir(const std::string& sDir, std::vector<std::string>& vsNames, std::uint32_t iCount = 8192);

private:
    RpcClient m_Mount;
    RpcClient m_Nfs;
    std::uint32_t m_iMountStatus = 0;
};
