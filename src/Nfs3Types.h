// The XDR types of NFS version 3 (RFC 1813, 2.5, 2.6 and section 3), fields in the order in which they are sent.
//
// Names are the RFC's. A default-made value is all zeros: no attributes, no handle, nothing set.
#pragma once

#include <string>

#include "Limits.h"

/// Procedure numbers (RFC 1813, section 3.3).
enum nfsproc3 : unsigned int {
    NFSPROC3_NULL = 0,
    NFSPROC3_GETATTR = 1,
    NFSPROC3_SETATTR = 2,
    NFSPROC3_LOOKUP = 3,
    NFSPROC3_ACCESS = 4,
    NFSPROC3_READLINK = 5,
    NFSPROC3_READ = 6,
    NFSPROC3_WRITE = 7,
    NFSPROC3_CREATE = 8,
    NFSPROC3_MKDIR = 9,
    NFSPROC3_SYMLINK = 10,
    NFSPROC3_MKNOD = 11,
    NFSPROC3_REMOVE = 12,
    NFSPROC3_RMDIR = 13,
    NFSPROC3_RENAME = 14,
    NFSPROC3_LINK = 15,
    NFSPROC3_READDIR = 16,
    NFSPROC3_READDIRPLUS = 17,
    NFSPROC3_FSSTAT = 18,
    NFSPROC3_FSINFO = 19,
    NFSPROC3_PATHCONF = 20,
    NFSPROC3_COMMIT = 21,
};

/// nfsstat3: the statuses that this server answers.
enum nfsstat3 : unsigned int {
    NFS3_OK = 0,
    NFS3ERR_NOENT = 2,
    NFS3ERR_IO = 5,
    NFS3ERR_ACCES = 13,
    NFS3ERR_EXIST = 17,
    NFS3ERR_INVAL = 22,
    NFS3ERR_FBIG = 27,
    NFS3ERR_STALE = 70,
    NFS3ERR_NOT_SYNC = 10002,
    NFS3ERR_NOTSUPP = 10004,
    NFS3ERR_BADTYPE = 10007,
};

/// ftype3; 0 for anything else.
enum ftype3 : unsigned int {
    NF3NONE = 0,
    NF3REG = 1,
    NF3DIR = 2,
    NF3BLK = 3,
    NF3CHR = 4,
    NF3LNK = 5,
    NF3SOCK = 6,
    NF3FIFO = 7,
};

struct nfstime3 {
    unsigned int seconds = 0;
    unsigned int nseconds = 0;
};

struct specdata3 {
    unsigned int specdata1 = 0;  ///< major number
    unsigned int specdata2 = 0;  ///< minor number
};

/// A file handle; always sent whole.
struct nfs_fh3 {
    char cHandle[kNfs3HandleSize] = {};
};

/// Opaque data where it lies in the input buffer: not copied, valid until the next receive.
struct opaque {
    const char* pBuf = nullptr;
    unsigned int iBufLen = 0;
};

/// A name or path read from a call; bytes behind a zero byte do not count.
struct COpaquePath {
    std::string sPath;
};

struct diropargs3 {
    COpaquePath dir;  ///< of calls that are not served; another call's handle is resolved where it lies
    COpaquePath name;
};

struct fattr3 {
    unsigned int type = NF3NONE;
    unsigned int mode = 0;
    unsigned int nlink = 0;
    unsigned int uid = 0;
    unsigned int gid = 0;
    unsigned long size = 0;  ///< bytes
    unsigned long used = 0;  ///< bytes
    specdata3 rdev;
    unsigned long fsid = 0;
    unsigned long fileid = 0;
    nfstime3 atime;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct wcc_attr {
    unsigned long size = 0;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct pre_op_attr {
    bool attributes_follow = false;
    wcc_attr attributes;
};

struct post_op_attr {
    bool attributes_follow = false;
    fattr3 attributes;
};

struct wcc_data {
    pre_op_attr before;
    post_op_attr after;
};

struct post_op_fh3 {
    bool handle_follows = false;
    nfs_fh3 handle;
};

struct set_mode3 {
    bool set_it = false;
    unsigned int mode = 0;
};

struct set_uid3 {
    bool set_it = false;
    unsigned int uid = 0;
};

struct set_gid3 {
    bool set_it = false;
    unsigned int gid = 0;
};

struct set_size3 {
    bool set_it = false;
    unsigned long size = 0;
};

/// Whose time is set. Only a client's time follows; the server's is left to whoever applies it.
enum time_how : unsigned int {
    DONT_CHANGE = 0,
    SET_TO_SERVER_TIME = 1,
    SET_TO_CLIENT_TIME = 2,
};

struct set_atime {
    unsigned int set_it = DONT_CHANGE;  ///< a time_how, or what a client sent in its place
    nfstime3 atime;
};

struct set_mtime {
    unsigned int set_it = DONT_CHANGE;
    nfstime3 mtime;
};

struct sattr3 {
    set_mode3 mode;
    set_uid3 uid;
    set_gid3 gid;
    set_size3 size;
    set_atime atime;
    set_mtime mtime;

    /// Does it ask for any change?
    bool SetsAnything() const {
        return mode.set_it || uid.set_it || gid.set_it || size.set_it || atime.set_it != DONT_CHANGE ||
               mtime.set_it != DONT_CHANGE;
    }
};

struct sattrguard3 {
    bool check = false;
    nfstime3 obj_ctime;
};

enum createmode3 : unsigned int {
    UNCHECKED = 0,
    GUARDED = 1,
    EXCLUSIVE = 2,
};

struct createhow3 {
    unsigned int mode = UNCHECKED;  ///< a createmode3, or what a client sent in its place
    sattr3 obj_attributes;
    unsigned long verf = 0;
};

struct mknoddata3 {
    unsigned int type = NF3NONE;
    sattr3 dev_attributes;
    specdata3 dev_spec;
    sattr3 pipe_attributes;
};
