// The base through libnfs's C API, the changes in a map.
#include "CopyOnWriteDisk.h"

#include <algorithm>
#include <stdexcept>

#include <fcntl.h>
#include <sys/time.h>

#include <nfsc/libnfs.h>

namespace {

constexpr int kTimeoutMilliseconds = 60000;
constexpr std::size_t kPiece = 65536;

}  // namespace

void CopyOnWriteDisk::Unmount::operator()(nfs_context* pContext) const {
    nfs_umount(pContext);
    nfs_destroy_context(pContext);
}

CopyOnWriteDisk::CopyOnWriteDisk(const std::string& sExport, const std::string& sPath)
    : m_pContext(nfs_init_context()) {
    nfs_url* pUrl = nfs_parse_url_incomplete(
        m_pContext.get(), "nfs://?version=3&auto-traverse-mounts=0&autoreconnect=0&nfsport=2049&mountport=1058");
    if (pUrl == nullptr) {
        Fail("settings");
    }
    nfs_destroy_url(pUrl);
    nfs_set_timeout(m_pContext.get(), kTimeoutMilliseconds);
    if (nfs_mount(m_pContext.get(), "127.0.0.1", sExport.c_str()) != 0) {
        Fail("mount " + sExport);
    }
    nfs_stat_64 status{};
    if (nfs_open(m_pContext.get(), sPath.c_str(), O_RDONLY, &m_pFile) != 0) {
        Fail("open " + sPath);
    }
    if (nfs_fstat64(m_pContext.get(), m_pFile, &status) != 0) {
        Fail("stat " + sPath);
    }
    m_iSize = status.nfs_size;
}

CopyOnWriteDisk::~CopyOnWriteDisk() {
    nfs_close(m_pContext.get(), m_pFile);
}

std::string CopyOnWriteDisk::Read(std::uint64_t iOffset, std::size_t iLength) {
    std::string sBytes = ReadBase(iOffset, iLength);
    const std::uint64_t iEnd = iOffset + sBytes.size();
    for (auto it = m_Changed.lower_bound(iOffset / kBlock); it != m_Changed.end() && it->first * kBlock < iEnd; ++it) {
        const std::uint64_t iBlock = it->first * kBlock;
        const std::uint64_t iFrom = std::max(iOffset, iBlock);
        const std::uint64_t iTo = std::min(iEnd, iBlock + it->second.size());
        sBytes.replace(iFrom - iOffset, iTo - iFrom, it->second, iFrom - iBlock, iTo - iFrom);
    }
    return sBytes;
}

void CopyOnWriteDisk::Write(std::uint64_t iOffset, std::string_view sBytes) {
    while (!sBytes.empty()) {
        std::string& sBlock = BlockToChange(iOffset / kBlock);
        const std::size_t iIn = iOffset % kBlock;
        if (iIn >= sBlock.size()) {
            throw std::runtime_error("write behind the end of the disk");
        }
        const std::size_t iPart = std::min(sBytes.size(), sBlock.size() - iIn);
        sBlock.replace(iIn, iPart, sBytes.substr(0, iPart));
        sBytes.remove_prefix(iPart);
        iOffset += iPart;
    }
}

std::string CopyOnWriteDisk::ReadBase(std::uint64_t iOffset, std::size_t iLength) {
    std::string sBytes(iLength, '\0');
    std::size_t iRead = 0;
    while (iRead < iLength) {
        const int iPart = nfs_pread(m_pContext.get(), m_pFile, iOffset + iRead, std::min(kPiece, iLength - iRead),
                                    sBytes.data() + iRead);
        if (iPart < 0) {
            Fail("read");
        }
        if (iPart == 0) {
            break;
        }
        iRead += static_cast<std::size_t>(iPart);
    }
    sBytes.resize(iRead);
    return sBytes;
}

std::string& CopyOnWriteDisk::BlockToChange(std::uint64_t iNumber) {
    const auto it = m_Changed.find(iNumber);
    return it != m_Changed.end() ? it->second : m_Changed[iNumber] = ReadBase(iNumber * kBlock, kBlock);
}

void CopyOnWriteDisk::Fail(const std::string& sWhat) const {
    const char* pcText = nfs_get_error(m_pContext.get());
    throw std::runtime_error(sWhat + ": " + (pcText == nullptr ? "" : pcText));
}
