// NFS version 3: READDIR and READDIRPLUS (RFC 1813, 3.3.16, 3.3.17).
//
// A cookie is the number of entries handed out so far. The names that a listing began with are kept from call to call
// (CKeptListings), so that what is made or removed meanwhile shifts nothing. What each entry is, and whether it is
// still there, is looked at as its reply is made.
#include "Nfs3Prog.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

#include "BeforeAsking.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "PathProbe.h"
#include "Utilities.h"

namespace {

/// The entries of one reply: few enough to fit whatever size a client asks for.
constexpr std::size_t kEntriesPerReply = 10;

/// An open directory; "." and ".." are not among its entries.
class Directory {
public:
    /// False with errno.
    bool Open(const char* pcPath) {
        CBeforeAsking::Run();  // a large one takes its time
        m_pDir.reset(::opendir(pcPath));
        return m_pDir != nullptr;
    }
    /// The next entry's name, valid until the next call; null at the end, or if the directory cannot be read on.
    const char* ReadName() {
        errno = 0;
        while (const dirent64* pEntry = ::readdir64(m_pDir.get())) {
            if (!CNfs3Prog::IsInVaildDirName(pEntry->d_name)) {
                return pEntry->d_name;
            }
        }
        m_bFailed = errno != 0;
        return nullptr;
    }
    /// Goes back to the first name.
    void Rewind() { ::rewinddir(m_pDir.get()); }
    /// Did the last name not come because of an error?
    bool HasFailed() const { return m_bFailed; }
    /// Reads all names that are left. False, with the rest unread, if they need more memory than given.
    bool ReadNames(std::size_t nMaxMemory, CNameList* pNames) {
        while (const char* pcName = ReadName()) {
            pNames->Append(pcName);
            if (pNames->GetMemory() > nMaxMemory) {
                return false;
            }
        }
        return true;
    }

private:
    struct Close {
        void operator()(DIR* pDir) const { ::closedir(pDir); }  // read only: nothing to lose
    };
    std::unique_ptr<DIR, Close> m_pDir;
    bool m_bFailed = false;
};

/// Looks at the entries of one directory; a link is looked at itself. What cannot be looked at is there: it was read.
class LookAt {
public:
    explicit LookAt(const std::string& sDirectory) : m_sDirectory(sDirectory) {}
    /// False if the entry is gone.
    bool operator()(const char* pcName, FoundStatus* pStatus) const {
        char vcPath[kPathBufferSize];
        if (!CNfs3Prog::AppendFilePath(m_sDirectory.c_str(), pcName, vcPath)) {
            return true;
        }
        pStatus->bKnown = ::lstat(vcPath, &pStatus->status) == 0;
        return pStatus->bKnown || (errno != ENOENT && errno != ENOTDIR);
    }

private:
    const std::string& m_sDirectory;
};

/// The road for a directory with more names than are ever kept: passes over as many entries as the cookie says and
/// takes the next ones. True if the end was met.
bool TakeEntries(Directory* pDirectory, unsigned long lCookie, const LookAt& look,
                 std::vector<ListedEntry>* pvEntries) {
    pvEntries->clear();
    for (unsigned long lSkip = lCookie; lSkip >= 1; --lSkip) {
        if (pDirectory->ReadName() == nullptr) {
            return true;
        }
    }
    while (pvEntries->size() < kEntriesPerReply) {
        const char* pcName = pDirectory->ReadName();
        if (pcName == nullptr) {
            return true;
        }
        ListedEntry entry{pcName, lCookie + 1, {}};
        if (look(pcName, &entry.found)) {
            pvEntries->push_back(entry);
            ++lCookie;
        }
    }
    return false;
}

}  // namespace

/// The arguments of a listing and how far it has come.
struct CNfs3Prog::ListCall {
    std::string sPath;
    bool bPlus = false;  ///< READDIRPLUS: entries with attributes and handles
    unsigned long lCookie = 0;
    unsigned long lCookieVerf = 0;  ///< sent back as it came
    // Logged and otherwise ignored.
    unsigned int iDirCount = 0;  ///< READDIRPLUS only
    unsigned int iMaxCount = 0;  ///< READDIR: its count

    std::string sCanonicalPath;  ///< the directory's, with all links resolved
    std::vector<ListedEntry> vEntries;
    bool bEof = false;  ///< a reply full of entries does not look whether there are more
};

int CNfs3Prog::ProcedureREADDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    return ListDirectory(pInput, pOutput, pParam, NFSPROC3_READDIR);
}

int CNfs3Prog::ProcedureREADDIRPLUS(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    return ListDirectory(pInput, pOutput, pParam, NFSPROC3_READDIRPLUS);
}

int CNfs3Prog::ListDirectory(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam, unsigned int iProc) {
    const LogContext log = GetLog(pParam);
    ListCall call;
    call.bPlus = iProc == NFSPROC3_READDIRPLUS;
    ReadListCall(pInput, log, &call);

    FoundStatus found;
    nfsstat3 iStatus = CheckExisting(pParam, call.sPath, false, &found);
    post_op_attr attributes;
    if (iStatus == NFS3_OK) {
        attributes = GetPostOpAttributes(log, call.sPath.c_str(), &found);
        iStatus = attributes.attributes_follow ? FindEntries(pParam, found, &call) : NFS3ERR_IO;
    }
    if (iStatus != NFS3_OK) {
        WriteStatusAndAttributes(pOutput, iStatus);
        return EndProcedure(log, iStatus);
    }

    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, attributes);
    Write(pOutput, call.lCookieVerf);
    for (const ListedEntry& entry : call.vEntries) {
        WriteEntry(pOutput, pParam, call, entry);
    }
    Write(pOutput, false);  // no further entry
    Write(pOutput, call.bEof);
    return EndProcedure(log, iStatus);
}

void CNfs3Prog::ReadListCall(CInputStream* pInput, const LogContext& log, ListCall* pCall) {
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &pCall->sPath);
    Read(pInput, &pCall->lCookie);
    Read(pInput, &pCall->lCookieVerf);
    if (pCall->bPlus) {
        Read(pInput, &pCall->iDirCount);
    }
    Read(pInput, &pCall->iMaxCount);
    const unsigned long long lCookie = pCall->lCookie;
    const unsigned long long lCookieVerf = pCall->lCookieVerf;
    if (pCall->bPlus) {
        NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Cookie=%llu, cookieverf=%llu, dircount=%u, maxcount=%u", lCookie,
                     lCookieVerf, pCall->iDirCount, pCall->iMaxCount);
    } else {
        NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Cookie=%llu, cookieverf=%llu, count=%u", lCookie, lCookieVerf,
                     pCall->iMaxCount);
    }
}

/// Finds the entries behind the cookie, from what is kept or from the directory, whose status may be known. A directory
/// that cannot be read to its end gives NFS3ERR_IO.
nfsstat3 CNfs3Prog::FindEntries(ProcessParam* pParam, const FoundStatus& found, ListCall* pCall) {
    FoundStatus resolved = found;
    pCall->sCanonicalPath = pCall->sPath;
    if (!found.bKnown || !IsPlainPath(pCall->sPath.c_str())) {
        if (!ResolveWithinExports(pParam, pCall->sPath.c_str(), &pCall->sCanonicalPath) ||
            ::stat(pCall->sCanonicalPath.c_str(), &resolved.status) != 0) {
            return NFS3ERR_IO;  // gone since it was checked
        }
    }
    const CKeptListings::Key key{pParam->sRemoteAddr, pCall->sPath, resolved.status.st_dev, resolved.status.st_ino};
    if (pCall->lCookie != 0) {
        const auto outcome = m_Listings.Show(key, pCall->lCookie, nullptr, kEntriesPerReply, LookAt(pCall->sPath),
                                             std::chrono::steady_clock::now(), &pCall->vEntries);
        if (outcome != CKeptListings::Outcome::kReadFirst) {
            return NFS3_OK;
        }
    }
    return ReadEntries(GetLog(pParam), key, pCall);
}

/// Reads the directory and finds the entries behind the cookie. A directory that cannot be opened has none, or no more
/// than were found already.
nfsstat3 CNfs3Prog::ReadEntries(const LogContext& log, const CKeptListings::Key& key, ListCall* pCall) {
    const char* pcPath = pCall->sPath.c_str();
    Directory directory;
    bool bOpen = directory.Open(pcPath);
    if (!bOpen && errno == EMFILE) {
        // A list that is empty for want of a descriptor would pass for an empty directory.
        m_pUtilities->FreeCachedFileHandles(log.pRuntimeParam, log.pLogArgu);
        bOpen = directory.Open(pcPath);
    }
    if (!bOpen) {
        pCall->bEof = true;
        return NFS3_OK;
    }
    const LookAt look(pCall->sPath);
    CNameList names;
    if (directory.ReadNames(m_Listings.GetMaxMemory(), &names)) {
        if (!directory.HasFailed()) {
            const auto outcome = m_Listings.Show(key, pCall->lCookie, &names, kEntriesPerReply, look,
                                                 std::chrono::steady_clock::now(), &pCall->vEntries);
            pCall->bEof = outcome == CKeptListings::Outcome::kEnd;
        }
    } else {
        directory.Rewind();
        pCall->bEof = TakeEntries(&directory, pCall->lCookie, look, &pCall->vEntries);
    }
    return directory.HasFailed() ? NFS3ERR_IO : NFS3_OK;
}

/// The ID of the path that an entry's path resolves to: without asking the host again, unless the entry is a link. The
/// line that tells of the resolving goes out as ever.
unsigned int CNfs3Prog::GetEntryID(const LogContext& log, const ListCall& call, const ListedEntry& entry,
                                   const char* pcPath) {
    char vcCanonical[kPathBufferSize];
    const bool bPlain = entry.found.bKnown && !S_ISLNK(entry.found.status.st_mode);
    const char* pcDirectory = call.sCanonicalPath == "/" ? "" : call.sCanonicalPath.c_str();
    if (bPlain && !log.pRuntimeParam->IsLogGeneralInfo() &&
        AppendFilePath(pcDirectory, entry.sName.c_str(), vcCanonical)) {
        return m_pUtilities->GetCanonicalFileID(vcCanonical);
    }
    return m_pUtilities->GetFileID(log.pRuntimeParam, log.pLogArgu, pcPath);
}

// The fileid is the file table's ID, not the inode number that the attributes carry.
void CNfs3Prog::WriteEntry(COutputStream* pOutput, ProcessParam* pParam, const ListCall& call,
                           const ListedEntry& entry) {
    const LogContext log = GetLog(pParam);
    char vcPath[kPathBufferSize];
    // A path that does not fit names nothing: no ID, no attributes, no handle.
    const char* pcPath = AppendFilePath(call.sPath.c_str(), entry.sName.c_str(), vcPath) ? vcPath : nullptr;

    Write(pOutput, true);  // an entry follows
    const unsigned int iFileID = GetEntryID(log, call, entry, pcPath);
    Write(pOutput, static_cast<unsigned long>(iFileID));
    Write(pOutput, COpaquePath{entry.sName}, false);
    Write(pOutput, entry.lCookie);
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Cookie=%llu, name=%s", static_cast<unsigned long long>(entry.lCookie),
                 entry.sName.c_str());
    if (call.bPlus) {
        WriteEntryTarget(pOutput, pParam, call, entry, pcPath, iFileID);
    }
}

/// Writes what an entry of READDIRPLUS has besides: the attributes and the handle of what it leads to. Clients never
/// see a link: one that leads nowhere, or out of the exports, has neither.
void CNfs3Prog::WriteEntryTarget(COutputStream* pOutput, ProcessParam* pParam, const ListCall& call,
                                 const ListedEntry& entry, const char* pcPath, unsigned int iFileID) {
    const LogContext log = GetLog(pParam);
    post_op_attr attributes;
    post_op_fh3 handle;
    if (pcPath != nullptr) {
        const bool bLink = entry.found.bKnown && S_ISLNK(entry.found.status.st_mode);
        std::string sTarget;
        const bool bShown = !bLink || ResolveWithinExports(pParam, pcPath, &sTarget);
        if (bShown) {
            // What was found holds for a path without links.
            const FoundStatus* pFound = !bLink && call.sCanonicalPath == call.sPath ? &entry.found : nullptr;
            attributes = GetPostOpAttributes(log, bLink ? sTarget.c_str() : pcPath, pFound);
            // The ID is that of the handle; the path is resolved once more only where that is to be logged.
            handle.handle_follows = log.pRuntimeParam->IsLogGeneralInfo()
                                        ? GetNfsFileHandle(log.pRuntimeParam, log.pLogArgu, pcPath, &handle.handle)
                                        : CUtilities::MakeFileHandle(iFileID, handle.handle.cHandle, kNfs3HandleSize);
        }
    }
    Write(pOutput, attributes);
    Write(pOutput, handle);
}
