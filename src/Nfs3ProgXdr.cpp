// NFS version 3 types on the wire (RFC 4506; RFC 1813, 2.5, 2.6 and section 3).
#include "Nfs3Prog.h"

#include <cstring>

#include "InputStream.h"
#include "OutputStream.h"

// ---- Decoders

void CNfs3Prog::Read(CInputStream* pInput, bool* pbValue) {
    unsigned int iValue = 0;
    pInput->Read(&iValue);
    *pbValue = iValue == 1;
}

void CNfs3Prog::Read(CInputStream* pInput, unsigned int* piValue) {
    pInput->Read(piValue);
}

void CNfs3Prog::Read(CInputStream* pInput, unsigned long* plValue) {
    pInput->Read8(plValue);
}

void CNfs3Prog::Read(CInputStream* pInput, nfstime3* pTime) {
    Read(pInput, &pTime->seconds);
    Read(pInput, &pTime->nseconds);
}

void CNfs3Prog::Read(CInputStream* pInput, opaque* pOpaque) {
    Read(pInput, &pOpaque->iBufLen);
    pOpaque->pBuf = pInput->GetCurrentBuffer();
    pInput->Skip(pOpaque->iBufLen);
    pInput->SkipRemainOpaque(pOpaque->iBufLen);
}

bool CNfs3Prog::Read(CInputStream* pInput, COpaquePath* pPath, bool bSkip) {
    opaque text;
    Read(pInput, &text);
    if (bSkip) {
        return true;
    }
    pPath->sPath.clear();
    if (text.iBufLen < kPathBufferSize) {
        pPath->sPath.assign(text.pBuf, strnlen(text.pBuf, text.iBufLen));
    }
    return pPath->sPath.size() == text.iBufLen;
}

namespace {

/// One "set it" structure: the flag, then the value where it is set. Skipped ones stay as they were: not set.
template <class SetValue, class Value>
void ReadSet(CInputStream* pInput, SetValue* pSet, Value SetValue::*pValue, bool bSkip) {
    SetValue sent;
    CNfs3Prog::Read(pInput, &sent.set_it);
    if (sent.set_it) {
        CNfs3Prog::Read(pInput, &(sent.*pValue));
    }
    if (!bSkip) {
        *pSet = sent;
    }
}

/// The same for a time, where the flag tells whose time is meant and only the client's follows.
template <class SetTime>
void ReadSetTime(CInputStream* pInput, SetTime* pSet, nfstime3 SetTime::*pTime, bool bSkip) {
    SetTime sent;
    CNfs3Prog::Read(pInput, &sent.set_it);
    if (sent.set_it == SET_TO_CLIENT_TIME) {
        CNfs3Prog::Read(pInput, &(sent.*pTime));
    }
    if (!bSkip) {
        *pSet = sent;
    }
}

}  // namespace

void CNfs3Prog::Read(CInputStream* pInput, sattr3* pAttributes, bool bSkip) {
    *pAttributes = sattr3{};
    ReadSet(pInput, &pAttributes->mode, &set_mode3::mode, bSkip);
    ReadSet(pInput, &pAttributes->uid, &set_uid3::uid, bSkip);
    ReadSet(pInput, &pAttributes->gid, &set_gid3::gid, bSkip);
    ReadSet(pInput, &pAttributes->size, &set_size3::size, bSkip);
    ReadSetTime(pInput, &pAttributes->atime, &set_atime::atime, bSkip);
    ReadSetTime(pInput, &pAttributes->mtime, &set_mtime::mtime, bSkip);
}

void CNfs3Prog::Read(CInputStream* pInput, sattrguard3* pGuard) {
    *pGuard = sattrguard3{};
    Read(pInput, &pGuard->check);
    if (pGuard->check) {
        Read(pInput, &pGuard->obj_ctime);
    }
}

void CNfs3Prog::Read(CInputStream* pInput, createhow3* pHow) {
    *pHow = createhow3{};
    Read(pInput, &pHow->mode);
    if (pHow->mode == UNCHECKED || pHow->mode == GUARDED) {
        Read(pInput, &pHow->obj_attributes, false);
    } else if (pHow->mode == EXCLUSIVE) {
        Read(pInput, &pHow->verf);
    }
}

void CNfs3Prog::Read(CInputStream* pInput, mknoddata3* pData, bool bSkip) {
    *pData = mknoddata3{};
    Read(pInput, &pData->type);
    switch (pData->type) {
        case NF3BLK:
        case NF3CHR: {
            Read(pInput, &pData->dev_attributes, bSkip);
            specdata3 spec;
            Read(pInput, &spec.specdata1);
            Read(pInput, &spec.specdata2);
            if (!bSkip) {
                pData->dev_spec = spec;
            }
            break;
        }
        case NF3SOCK:
        case NF3FIFO:
            Read(pInput, &pData->pipe_attributes, bSkip);
            break;
        default:
            break;
    }
}

// ---- Encoders

namespace {

constexpr unsigned int HighWord(unsigned long lValue) {
    return static_cast<unsigned int>(lValue >> 32U);
}

constexpr unsigned int LowWord(unsigned long lValue) {
    return static_cast<unsigned int>(lValue);
}

}  // namespace

void CNfs3Prog::Write(COutputStream* pOutput, bool bValue) {
    pOutput->Write(bValue ? 1U : 0U);
}

void CNfs3Prog::Write(COutputStream* pOutput, unsigned int iValue) {
    pOutput->Write(iValue);
}

void CNfs3Prog::Write(COutputStream* pOutput, unsigned long lValue) {
    pOutput->Write8(lValue);
}

void CNfs3Prog::Write(COutputStream* pOutput, const nfstime3& time) {
    pOutput->Write(time.seconds);
    pOutput->Write(time.nseconds);
}

void CNfs3Prog::Write(COutputStream* pOutput, const specdata3& data) {
    pOutput->Write(data.specdata1);
    pOutput->Write(data.specdata2);
}

void CNfs3Prog::Write(COutputStream* pOutput, const opaque& data, bool bLengthOnly) {
    pOutput->Write(data.iBufLen);
    if (!bLengthOnly) {
        pOutput->Write(data.pBuf, data.iBufLen);
        pOutput->WriteRemainOpaque(static_cast<int>(data.iBufLen));
    }
}

void CNfs3Prog::Write(COutputStream* pOutput, const COpaquePath& path, bool bLengthOnly) {
    Write(pOutput, opaque{path.sPath.data(), static_cast<unsigned int>(path.sPath.size())}, bLengthOnly);
}

void CNfs3Prog::Write(COutputStream* pOutput, const nfs_fh3& handle, bool bLengthOnly) {
    Write(pOutput, opaque{handle.cHandle, kNfs3HandleSize}, bLengthOnly);
}

/// The longest of all that replies repeat: in one piece.
void CNfs3Prog::Write(COutputStream* pOutput, const fattr3& attributes) {
    pOutput->WriteWords(attributes.type, attributes.mode, attributes.nlink, attributes.uid, attributes.gid,
                        HighWord(attributes.size), LowWord(attributes.size),      //
                        HighWord(attributes.used), LowWord(attributes.used),      //
                        attributes.rdev.specdata1, attributes.rdev.specdata2,     //
                        HighWord(attributes.fsid), LowWord(attributes.fsid),      //
                        HighWord(attributes.fileid), LowWord(attributes.fileid),  //
                        attributes.atime.seconds, attributes.atime.nseconds,      //
                        attributes.mtime.seconds, attributes.mtime.nseconds,      //
                        attributes.ctime.seconds, attributes.ctime.nseconds);
}

void CNfs3Prog::Write(COutputStream* pOutput, const wcc_attr& attributes) {
    Write(pOutput, attributes.size);
    Write(pOutput, attributes.mtime);
    Write(pOutput, attributes.ctime);
}

void CNfs3Prog::Write(COutputStream* pOutput, const pre_op_attr& attributes) {
    Write(pOutput, attributes.attributes_follow);
    if (attributes.attributes_follow) {
        Write(pOutput, attributes.attributes);
    }
}

void CNfs3Prog::Write(COutputStream* pOutput, const post_op_attr& attributes) {
    Write(pOutput, attributes.attributes_follow);
    if (attributes.attributes_follow) {
        Write(pOutput, attributes.attributes);
    }
}

void CNfs3Prog::Write(COutputStream* pOutput, const wcc_data& data) {
    Write(pOutput, data.before);
    Write(pOutput, data.after);
}

void CNfs3Prog::Write(COutputStream* pOutput, const post_op_fh3& handle) {
    Write(pOutput, handle.handle_follows);
    if (handle.handle_follows) {
        Write(pOutput, handle.handle, false);
    }
}

// ---- Replies that are a status and what could be said about attributes: nothing

void CNfs3Prog::WriteStatusAndAttributes(COutputStream* pOutput, nfsstat3 iStatus) {
    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, post_op_attr{});
}

void CNfs3Prog::WriteStatusAndWcc(COutputStream* pOutput, nfsstat3 iStatus) {
    Write(pOutput, static_cast<unsigned int>(iStatus));
    Write(pOutput, wcc_data{});
}
