// NFS version 3: READDIR and READDIRPLUS (RFC 1813, 3.3.16, 3.3.17).
//
// A cookie is the number of entries handed out so far. Nothing is kept between calls: each one reads the directory from
// its start, passes over as many entries as the cookie says, and lists the next ten.
#include <cerrno>
#include <memory>

#include <dirent.h>

#include "InputStream.h"
#include "Nfs3Prog.h"
#include "OutputStream.h"
#include "Utilities.h"

namespace {

/// The entries of one reply: few enough to fit whatever size a client asks for.
constexpr int kEntriesPerReply = 10;

/// An open directory; "." and ".." are not among its entries.
class Directory {
public:
    /// False with errno.
    bool Open(const char* pcPath) {
        m_pDir.reset(opendir(pcPath));
        return m_pDir != nullptr;
    }
    /// The next entry's name, valid until the next call; null at the end.
    const char* ReadName() {
        while (const dirent64* pEntry = readdir64(m_pDir.get())) {
            if (!CNfs3Prog::IsInVaildDirName(pEntry->d_name)) {
                return pEntry->d_name;
            }
        }
        return nullptr;
    }

private:
    struct Close {
        void operator()(DIR* pDir) const { closedir(pDir); }  // read only: nothing to lose
    };
    std::unique_ptr<DIR, Close> m_pDir;
};

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
};

int CNfs3Prog::ProcedureREADDIR(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    return ListDirectory(pInput, pOutput, pParam, NFSPROC3_READDIR);
}

int CNfs3Prog::ProcedureREADDIRPLUS(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    return ListDirectory(pInput, pOutput, pParam, NFSPROC3_READDIRPLUS);
}

int CNfs3Prog::ListDirectory(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam, unsigned int iProc) {
    LogArgu logArgu = BeginProcedure(pParam, iProc);
    ListCall call;
    call.bPlus = iProc == NFSPROC3_READDIRPLUS;
    ReadListCall(pInput, pParam, &logArgu, &call);

    nfsstat3 iStatus = CheckExisting(pParam, &logArgu, call.sPath);
    post_op_attr attributes;
    if (iStatus == NFS3_OK) {
        attributes = GetPostOpAttributes(pParam->pRuntimeParam, &logArgu, call.sPath.c_str());
        iStatus = attributes.attributes_follow ? NFS3_OK : NFS3ERR_IO;
    }
    if (iStatus != NFS3_OK) {
        WriteStatusAndAttributes(pOutput, iStatus);
        return EndProcedure(pParam, logArgu, iStatus);
    }

    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, attributes);
    Write(pOutput, call.lCookieVerf);
    const bool bEof = WriteEntries(pOutput, pParam, &logArgu, &call);
    Write(pOutput, false);  // no further entry
    Write(pOutput, bEof);
    return EndProcedure(pParam, logArgu, iStatus);
}

void CNfs3Prog::ReadListCall(CInputStream* pInput, ProcessParam* pParam, LogArgu* pLogArgu, ListCall* pCall) {
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    ReadPath(pRuntimeParam, pLogArgu, pInput, &pCall->sPath);
    Read(pInput, &pCall->lCookie);
    Read(pInput, &pCall->lCookieVerf);
    if (pCall->bPlus) {
        Read(pInput, &pCall->iDirCount);
    }
    Read(pInput, &pCall->iMaxCount);
    if (!pRuntimeParam->IsLogProcFuncArgu()) {
        return;
    }
    const unsigned long long lCookie = pCall->lCookie;
    const unsigned long long lCookieVerf = pCall->lCookieVerf;
    if (pCall->bPlus) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Cookie=%llu, cookieverf=%llu, dircount=%u, maxcount=%u",
                              pLogArgu->pcName, lCookie, lCookieVerf, pCall->iDirCount, pCall->iMaxCount);
    } else {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Cookie=%llu, cookieverf=%llu, count=%u", pLogArgu->pcName, lCookie,
                              lCookieVerf, pCall->iMaxCount);
    }
}

/// Lists the entries behind the cookie. True if the end of the directory was met; a reply full of entries does not look
/// whether there are more. A directory that cannot be opened counts as empty.
bool CNfs3Prog::WriteEntries(COutputStream* pOutput, ProcessParam* pParam, LogArgu* pLogArgu, ListCall* pCall) {
    Directory directory;
    bool bOpen = directory.Open(pCall->sPath.c_str());
    if (!bOpen && errno == EMFILE) {
        // A list that is empty for want of a descriptor would pass for an empty directory.
        m_pUtilities->FreeCachedFileHandles(pParam->pRuntimeParam, pLogArgu);
        bOpen = directory.Open(pCall->sPath.c_str());
    }
    if (!bOpen) {
        return true;
    }
    for (unsigned long lSkip = pCall->lCookie; lSkip >= 1; --lSkip) {
        if (directory.ReadName() == nullptr) {
            return true;
        }
    }
    for (int i = 0; i < kEntriesPerReply; ++i) {
        const char* pcName = directory.ReadName();
        if (pcName == nullptr) {
            return true;
        }
        WriteEntry(pOutput, pParam, pLogArgu, pCall, pcName);
    }
    return false;
}

// The fileid is the file table's ID, not the inode number that the attributes carry.
void CNfs3Prog::WriteEntry(COutputStream* pOutput, ProcessParam* pParam, LogArgu* pLogArgu, ListCall* pCall,
                           const char* pcName) {
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    char vcPath[kPathBufferSize];
    // A path that does not fit names nothing: no ID, no attributes, no handle.
    const char* pcPath = AppendFilePath(pCall->sPath.c_str(), pcName, vcPath) ? vcPath : nullptr;

    Write(pOutput, true);  // an entry follows
    const unsigned int iFileID = m_pUtilities->GetFileID(pRuntimeParam, pLogArgu, pcPath);
    Write(pOutput, static_cast<unsigned long>(iFileID));
    Write(pOutput, COpaquePath{pcName}, false);
    Write(pOutput, ++pCall->lCookie);
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Cookie=%llu, name=%s", pLogArgu->pcName,
                              static_cast<unsigned long long>(pCall->lCookie), pcName);
    }
    if (!pCall->bPlus) {
        return;
    }
    post_op_attr attributes;
    post_op_fh3 handle;
    if (pcPath != nullptr) {
        attributes = GetPostOpAttributes(pRuntimeParam, pLogArgu, pcPath);
        // The ID is that of the handle; the path is resolved once more only where that is to be logged.
        handle.handle_follows = pRuntimeParam->IsLogGeneralInfo()
                                    ? GetNfsFileHandle(pRuntimeParam, pLogArgu, pcPath, &handle.handle)
                                    : CUtilities::MakeFileHandle(iFileID, handle.handle.cHandle, kNfs3HandleSize);
    }
    Write(pOutput, attributes);
    Write(pOutput, handle);
}
