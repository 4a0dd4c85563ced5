// Listing one large folder from beginning to end.
#include "ListingRun.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ListingReply.h"
#include "NfsMessages.h"
#include "TcpExchange.h"

LargeFolder::LargeFolder(std::string sPath, std::size_t nFiles) : m_sPath(std::move(sPath)), m_nFiles(nFiles) {
    ::mkdir(m_sPath.c_str(), 0755);
    for (std::size_t i = 0; i < m_nFiles; ++i) {
        const int iFile = ::open(GetFilePath(i).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (iFile < 0) {
            const int iError = errno;
            RemoveFiles();
            throw std::runtime_error("no file in " + m_sPath + ": " + std::strerror(iError));
        }
        ::close(iFile);
    }
}

LargeFolder::~LargeFolder() {
    RemoveFiles();
}

void LargeFolder::RemoveFiles() const {
    for (std::size_t i = 0; i < m_nFiles; ++i) {
        ::unlink(GetFilePath(i).c_str());
    }
    ::rmdir(m_sPath.c_str());
}

std::string LargeFolder::GetFilePath(std::size_t i) const {
    return m_sPath + "/file-" + std::to_string(i);
}

double ListFolder(int iNfsPort, const std::string& sHandle, std::size_t nFiles) {
    const int iSocket = ConnectTo(iNfsPort);
    CallBuilder builder(kNfsProgram, kProcReaddirplus);
    builder.Opaque(sHandle);
    const std::uint32_t iCookieAt = builder.Position();
    std::string sCall = builder.U64(0).U64(0).U32(kListDirCount).U32(kListMaxCount).Finish();
    std::vector<std::string> vsNames;
    vsNames.reserve(nFiles);
    const auto start = std::chrono::steady_clock::now();
    for (bool bEof = false; !bEof;) {
        const std::string sReply = Exchange(iSocket, sCall);
        const ListingReply listing = ReadListing(sReply, 0);
        vsNames.insert(vsNames.end(), listing.vsNames.begin(), listing.vsNames.end());
        PutLong(sCall.data() + iCookieAt, listing.iCookie);
        PutLong(sCall.data() + iCookieAt + 8, listing.iVerifier);
        bEof = listing.bEof;
    }
    const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ::close(iSocket);
    std::sort(vsNames.begin(), vsNames.end());
    if (vsNames.size() != nFiles || std::adjacent_find(vsNames.begin(), vsNames.end()) != vsNames.end()) {
        throw WrongReply(std::to_string(vsNames.size()) + " names of " + std::to_string(nFiles) + " files");
    }
    return dSeconds;
}
