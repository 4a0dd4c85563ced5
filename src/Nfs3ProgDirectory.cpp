// NFS version 3: READDIR and READDIRPLUS (RFC 1813, 3.3.16, 3.3.17).
//
// A cookie is the number of entries handed out so far. The names that a listing began with are kept from call to call
// (CKeptListings), so that what is made or removed meanwhile shifts nothing. What each entry is, and whether it is
// still there, is looked at as its reply is made.
#include "Nfs3Prog.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "BeforeAsking.h"
#include "Descriptor.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "PathProbe.h"
#include "RegularFile.h"
#include "Utilities.h"

namespace {

/// The entries of one reply: few enough to fit whatever size a client asks for.
constexpr std::size_t kEntriesPerReply = 10;

/// An open directory; "." and ".." are not among its entries.
class Directory {
public:
    /// Opens the directory that a descriptor names. False with errno.
    bool Open(const CDescriptor& name) {
        return Read(CDescriptor(::openat(name.Get(), ".", O_RDONLY | O_DIRECTORY | kOpenFlags)));
    }
    /// The same by the path under which it was found, giving up its descriptor for that: there are no others.
    bool OpenAgain(const char* pcPath, FoundStatus* pFound) {
        pFound->name.Close();
        CDescriptor directory(OpenWithoutLinks(AT_FDCWD, pcPath, O_RDONLY | O_DIRECTORY | kOpenFlags));
        struct stat status {};
        return directory.IsOpen() && ::fstat(directory.Get(), &status) == 0 &&
               FileIdentity(status) == FileIdentity(pFound->status) && Read(std::move(directory));
    }
    int GetDescriptor() const { return ::dirfd(m_pDir.get()); }
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
    bool Read(CDescriptor directory) {
        CBeforeAsking::Run();  // a large one takes its time
        m_pDir.reset(directory.IsOpen() ? ::fdopendir(directory.Get()) : nullptr);
        if (m_pDir != nullptr) {
            directory.Release();
        }
        return m_pDir != nullptr;
    }

    struct Close {
        void operator()(DIR* pDir) const { ::closedir(pDir); }  // read only: nothing to lose
    };
    std::unique_ptr<DIR, Close> m_pDir;
    bool m_bFailed = false;
};

/// Looks at the entries of the directory that a descriptor names (not owned); a link is looked at itself. What cannot
/// be looked at is there: it was read.
class LookAt {
public:
    explicit LookAt(int iDirectory) : m_iDirectory(iDirectory) {}
    /// False if the entry is gone.
    bool operator()(const char* pcName, FoundStatus* pStatus) const {
        pStatus->bKnown = ::fstatat(m_iDirectory, pcName, &pStatus->status, AT_SYMLINK_NOFOLLOW) == 0;
        return pStatus->bKnown || (errno != ENOENT && errno != ENOTDIR);
    }

private:
    int m_iDirectory;
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
            pvEntries->push_back(std::move(entry));
            ++lCookie;
        }
    }
    return false;
}

/// What a directory's path is in front of the slash and name of an entry: that of the root is empty, so that the
/// entry's path is the one by which exports and redirected files are known.
const char* GetJoinable(const std::string& sDirectory) {
    return sDirectory == "/" ? "" : sDirectory.c_str();
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

    /// Where the directory lies, all links resolved.
    const char* GetPlace(const FoundStatus& found) const {
        return found.sResolved.empty() ? sPath.c_str() : found.sResolved.c_str();
    }
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
        iStatus = attributes.attributes_follow ? FindEntries(pParam, &found, &call) : NFS3ERR_IO;
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
nfsstat3 CNfs3Prog::FindEntries(ProcessParam* pParam, FoundStatus* pFound, ListCall* pCall) {
    FoundStatus& found = *pFound;
    if (!found.name.IsOpen() && FindWithoutLinks(pCall->GetPlace(found), &found) != Finding::kFound) {
        return NFS3ERR_IO;  // what was found is another call's, or there was no descriptor for it
    }
    pCall->sCanonicalPath = pCall->GetPlace(found);
    if (!IsPlainPath(pCall->sCanonicalPath.c_str()) &&
        !ResolveWithinExports(pParam, pCall->sPath.c_str(), &pCall->sCanonicalPath)) {
        return NFS3ERR_IO;  // gone since it was checked
    }
    const CKeptListings::Key key{pParam->sRemoteAddr, pCall->sPath, found.status.st_dev, found.status.st_ino};
    if (pCall->lCookie != 0) {
        const auto outcome = m_Listings.Show(key, pCall->lCookie, nullptr, kEntriesPerReply, LookAt(found.name.Get()),
                                             std::chrono::steady_clock::now(), &pCall->vEntries);
        NoteListings();
        if (outcome != CKeptListings::Outcome::kReadFirst) {
            return NFS3_OK;
        }
    }
    return ReadEntries(GetLog(pParam), pFound, key, pCall);
}

/// Reads the directory and finds the entries behind the cookie. A directory that cannot be opened has none, or no more
/// than were found already.
nfsstat3 CNfs3Prog::ReadEntries(const LogContext& log, FoundStatus* pFound, const CKeptListings::Key& key,
                                ListCall* pCall) {
    Directory directory;
    bool bOpen = directory.Open(pFound->name);
    if (!bOpen && errno == EMFILE) {
        // A list that is empty for want of a descriptor would pass for an empty directory.
        m_pUtilities->FreeCachedFileHandles(log.pRuntimeParam, log.pLogArgu);
        bOpen = directory.OpenAgain(pCall->GetPlace(*pFound), pFound);
    }
    if (!bOpen) {
        pCall->bEof = true;
        return NFS3_OK;
    }
    const LookAt look(directory.GetDescriptor());
    CNameList names;
    if (directory.ReadNames(m_Listings.GetMaxMemory(), &names)) {
        if (!directory.HasFailed()) {
            const auto outcome = m_Listings.Show(key, pCall->lCookie, &names, kEntriesPerReply, look,
                                                 std::chrono::steady_clock::now(), &pCall->vEntries);
            pCall->bEof = outcome == CKeptListings::Outcome::kEnd;
            NoteListings();
        }
    } else {
        directory.Rewind();
        pCall->bEof = TakeEntries(&directory, pCall->lCookie, look, &pCall->vEntries);
    }
    return directory.HasFailed() ? NFS3ERR_IO : NFS3_OK;
}

/// For the server's figures.
void CNfs3Prog::NoteListings() {
    m_pUtilities->NoteListings(m_Listings.GetCount(), m_Listings.GetMemory());
}

/// The ID of the path that an entry's path resolves to: without asking the host again, unless the entry is a link. The
/// line that tells of the resolving goes out as ever.
unsigned int CNfs3Prog::GetEntryID(const LogContext& log, const ListCall& call, const ListedEntry& entry,
                                   const char* pcPath) {
    char vcCanonical[kPathBufferSize];
    const bool bPlain = entry.found.bKnown && !S_ISLNK(entry.found.status.st_mode);
    if (bPlain && !log.pRuntimeParam->IsLogGeneralInfo() &&
        AppendFilePath(GetJoinable(call.sCanonicalPath), entry.sName.c_str(), vcCanonical)) {
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
    const char* pcPath = AppendFilePath(GetJoinable(call.sPath), entry.sName.c_str(), vcPath) ? vcPath : nullptr;

    Write(pOutput, true);  // an entry follows
    const unsigned int iFileID = GetEntryID(log, call, entry, pcPath);
    Write(pOutput, static_cast<unsigned long>(iFileID));
    Write(pOutput, COpaquePath{entry.sName}, false);
    Write(pOutput, entry.lCookie);
    NFS_LOG_INFO(log, kLogProcFuncArgu, "[%s] Cookie=%llu, name=%s", static_cast<unsigned long long>(entry.lCookie),
                 entry.sName.c_str());
    if (call.bPlus) {
        WriteEntryTarget(pOutput, pParam, entry, pcPath, iFileID);
    }
}

/// Writes what an entry of READDIRPLUS has besides: the attributes and the handle of what it leads to. Clients never
/// see a link: one that leads nowhere, or out of the exports, has neither. Nor has the directory of an export that does
/// not admit the client.
void CNfs3Prog::WriteEntryTarget(COutputStream* pOutput, ProcessParam* pParam, const ListedEntry& entry,
                                 const char* pcPath, unsigned int iFileID) {
    const LogContext log = GetLog(pParam);
    post_op_attr attributes;
    post_op_fh3 handle;
    if (pcPath != nullptr) {
        const bool bLink = entry.found.bKnown && S_ISLNK(entry.found.status.st_mode);
        std::string sTarget;
        FoundStatus target;
        const bool bShown = bLink ? ResolveWithinExports(pParam, pcPath, &sTarget) &&
                                        FindWithoutLinks(sTarget.c_str(), &target) == Finding::kFound
                                  : m_pUtilities->IsAdmitted(pcPath, pParam->sRemoteAddr.c_str());
        const FoundStatus& found = bLink ? target : entry.found;
        if (bShown) {
            if (found.bKnown) {
                attributes = GetPostOpAttributes(log, bLink ? sTarget.c_str() : pcPath, &found);
            }
            // The ID is that of the handle; the path is resolved once more only where that is to be logged.
            handle.handle_follows = log.pRuntimeParam->IsLogGeneralInfo()
                                        ? GetNfsFileHandle(log.pRuntimeParam, log.pLogArgu, pcPath, &handle.handle)
                                        : CUtilities::MakeFileHandle(iFileID, handle.handle.cHandle, kNfs3HandleSize);
        }
    }
    Write(pOutput, attributes);
    Write(pOutput, handle);
}
