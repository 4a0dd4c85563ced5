// A file of a mounted export: OPEN is LOOKUP, CREATE and SETATTR; READ, WRITE (RFC 1813, 3.3.6, 3.3.7).
#include "RemoteFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <nfsc/libnfs.h>

#include "NfsError.h"

namespace {

constexpr int kNewFileMode = 0644;
constexpr int kLeaveMilliseconds = 5000;
/// More in one call gains nothing; a server that allows more is not asked for it.
constexpr std::uint64_t kLargestTransfer = 65536;
constexpr std::uint64_t kSmallestTransfer = 512;

}  // namespace

RemoteFile::RemoteFile(NfsSession& session, const std::string& sPath, int iFlags, const char* pcWhat)
    : m_Session(session), m_sPath(sPath) {
    const std::string sLeft = (iFlags & O_TRUNC) != 0 ? "; \"" + sPath + "\" on the server may be empty now" : "";
    NfsResult result;
    try {
        result = Connection().Run(
            [&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
                return nfs_open2_async(pContext, Rooted(sPath).c_str(), iFlags, kNewFileMode, pfnReport, pvCall);
            },
            [&](int /*iResult*/, void* pvData) { m_pFile = static_cast<nfsfh*>(pvData); });
    } catch (const Interrupted&) {
        throw Interrupted(sLeft);
    }
    if (result.iResult != 0) {
        throw NfsError(std::string(pcWhat) + " \"" + sPath + "\": " + NfsConnection::Sentence(result) +
                       (NfsConnection::IsAnswered(result) ? "" : sLeft));
    }
}

RemoteFile::~RemoteFile() {
    if (m_pFile == nullptr) {
        return;
    }
    // On the way out of a failure, which is what gets reported.
    if (Connection().IsUsable()) {
        try {
            Close({kNoInterrupt, kLeaveMilliseconds, 0});
        } catch (const NfsError&) {
            // see above
        }
    } else {  // the context frees the file when it is destroyed with this call still queued
        nfs_close_async(
            Connection().Context(), m_pFile, [](int, nfs_context*, void*, void*) {}, nullptr);
    }
}

NfsResult RemoteFile::Close(const NfsLimits& limits) {
    nfsfh* pFile = std::exchange(m_pFile, nullptr);
    return Connection().Finish(
        Connection().Begin([&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
            return nfs_close_async(pContext, pFile, pfnReport, pvCall);
        }),
        limits);
}

void RemoteFile::Close() {
    const NfsResult result = Close({Connection().GetInterrupt(), kNoLimit, 0});
    if (result.iResult != 0) {
        NfsConnection::Fail("close \"" + m_sPath + "\"", result);
    }
}

bool RemoteFile::CloseWritten() {
    const NfsResult result = Close({Connection().GetInterrupt(), kNoLimit, 0});
    if (result.iResult != 0 && result.iResult != -EIO) {
        NfsConnection::Fail("close \"" + m_sPath + "\"", result);
    }
    return result.iResult == 0;
}

RemoteFile::State RemoteFile::Look() {
    State state;
    const NfsResult result =
        Connection().Run([&](nfs_context* pContext, NfsConnection::Callback pfnReport,
                             void* pvCall) { return nfs_fstat64_async(pContext, m_pFile, pfnReport, pvCall); },
                         [&](int /*iResult*/, void* pvData) {
                             const auto* pState = static_cast<const nfs_stat_64*>(pvData);
                             state = {pState->nfs_size, pState->nfs_ino};
                         });
    if (result.iResult != 0) {
        NfsConnection::Fail("stat \"" + m_sPath + "\"", result);
    }
    return state;
}

std::size_t RemoteFile::LargestRead() const {
    return std::clamp(nfs_get_readmax(m_Session.Connection().Context()), kSmallestTransfer, kLargestTransfer);
}

std::size_t RemoteFile::LargestWrite() const {
    return std::clamp(nfs_get_writemax(m_Session.Connection().Context()), kSmallestTransfer, kLargestTransfer);
}

NfsCall RemoteFile::Read(std::uint64_t iOffset, std::vector<char>& vcData) {
    return Connection().Begin(
        [&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
            return nfs_pread_async(pContext, m_pFile, iOffset, vcData.size(), pfnReport, pvCall);
        },
        [&vcData](int iResult, void* pvData) {
            std::memcpy(vcData.data(), pvData, std::min(vcData.size(), static_cast<std::size_t>(iResult)));
        });
}

NfsCall RemoteFile::Write(std::uint64_t iOffset, const char* pcData, std::size_t nSize) {
    return Connection().Begin([&](nfs_context* pContext, NfsConnection::Callback pfnReport, void* pvCall) {
        return nfs_pwrite_async(pContext, m_pFile, iOffset, nSize, pcData, pfnReport, pvCall);
    });
}

void RemoteFile::ReadWhole(std::uint64_t iOffset, std::vector<char>& vcData) {
    std::size_t nRead = 0;
    while (nRead < vcData.size()) {
        std::vector<char> vcPart(std::min(vcData.size() - nRead, LargestRead()));
        const NfsResult result = Connection().Finish(Read(iOffset + nRead, vcPart));
        if (result.iResult < 0) {
            NfsConnection::Fail("read \"" + m_sPath + "\"", result);
        }
        if (result.iResult == 0) {
            break;
        }
        const std::size_t nCame = std::min(vcPart.size(), static_cast<std::size_t>(result.iResult));
        std::copy_n(vcPart.begin(), nCame, vcData.begin() + static_cast<std::ptrdiff_t>(nRead));
        nRead += nCame;
    }
    vcData.resize(nRead);
}
