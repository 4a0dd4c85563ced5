// NFS version 3: FSSTAT, FSINFO, PATHCONF (RFC 1813, 3.3.18 to 3.3.20).
#include "Nfs3Prog.h"

#include "InputStream.h"
#include "OutputStream.h"
#include "PathProbe.h"
#include "Utilities.h"

namespace {

/// Transfers are best done in multiples of a disk's sector.
constexpr unsigned int kPreferredMultiple = 512;
/// What a client should ask for in READDIR; the reply holds ten entries whatever it asks.
constexpr unsigned int kPreferredListSize = 8192;
/// Times are kept in whole seconds.
constexpr nfstime3 kTimeDelta{1, 0};
/// The longest name of an entry, as the usual file systems have it (NAME_MAX).
constexpr unsigned int kNameMax = 255;

}  // namespace

int CNfs3Prog::ProcedureFSSTAT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    std::string sPath;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &sPath);

    FoundStatus found;
    post_op_attr attributes;
    const nfsstat3 iStatus = CheckFileSystem(pParam, sPath, &found, &attributes);
    if (iStatus != NFS3_OK) {
        WriteStatusAndAttributes(pOutput, iStatus);
        return EndProcedure(log, iStatus);
    }
    const FileSystemFigures figures = CUtilities::GetFileSystemFigures(sPath.c_str(), &found);

    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, attributes);
    pOutput->Write8(figures.lTotalBytes);
    pOutput->Write8(figures.lFreeBytes);
    pOutput->Write8(figures.lFreeBytesForCaller);
    pOutput->Write8(figures.lTotalSlots);
    pOutput->Write8(figures.lFreeSlots);
    pOutput->Write8(figures.lFreeSlots);  // the caller's: all of them
    Write(pOutput, 0U);                   // invarsec: the figures may change at any time
    return EndProcedure(log, iStatus);
}

int CNfs3Prog::ProcedureFSINFO(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    std::string sPath;
    ReadPath(log.pRuntimeParam, log.pLogArgu, pInput, &sPath);

    FoundStatus found;
    post_op_attr attributes;
    const nfsstat3 iStatus = CheckFileSystem(pParam, sPath, &found, &attributes);
    if (iStatus != NFS3_OK) {
        WriteStatusAndAttributes(pOutput, iStatus);
        return EndProcedure(log, iStatus);
    }

    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, attributes);
    Write(pOutput, kMaxReadSize);        // rtmax
    Write(pOutput, kMaxReadSize);        // rtpref
    Write(pOutput, kPreferredMultiple);  // rtmult
    Write(pOutput, kMaxWriteSize);       // wtmax
    Write(pOutput, kMaxWriteSize);       // wtpref
    Write(pOutput, kPreferredMultiple);  // wtmult
    Write(pOutput, kPreferredListSize);  // dtpref
    pOutput->Write8(CUtilities::GetMaxFileSize(sPath.c_str(), &found));
    Write(pOutput, kTimeDelta);
    Write(pOutput, m_iFSF3Properties);
    return EndProcedure(log, iStatus);
}

/// The checks of FSSTAT and FSINFO: a path in an export that exists and has attributes.
nfsstat3 CNfs3Prog::CheckFileSystem(ProcessParam* pParam, const std::string& sPath, FoundStatus* pFound,
                                    post_op_attr* pAttributes) {
    const LogContext log = GetLog(pParam);
    const nfsstat3 iStatus = CheckExisting(pParam, sPath, false, pFound);
    if (iStatus != NFS3_OK) {
        return iStatus;
    }
    *pAttributes = GetPostOpAttributes(log, sPath.c_str(), pFound);
    return pAttributes->attributes_follow ? NFS3_OK : NFS3ERR_IO;
}

// Not served: the handle is passed over, and so no path is found.
int CNfs3Prog::ProcedurePATHCONF(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) {
    const LogContext log = GetLog(pParam);
    COpaquePath path;
    Read(pInput, &path, true);

    const nfsstat3 iStatus = CheckUnresolved(pParam);

    WriteStatusAndAttributes(pOutput, iStatus);
    if (iStatus == NFS3_OK) {
        Write(pOutput, 0U);        // linkmax
        Write(pOutput, kNameMax);  // name_max
        Write(pOutput, false);     // no_trunc
        Write(pOutput, true);      // chown_restricted
        Write(pOutput, true);      // case_insensitive
        Write(pOutput, true);      // case_preserving
    }
    return EndProcedure(log, iStatus);
}
