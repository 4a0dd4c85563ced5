// MNT, UMNT and LOOKUP (RFC 1813, appendix I and 3.3.3).
#include "MountedExport.h"

#include <cstdint>
#include <cstdio>
#include <exception>

#include <unistd.h>

#include "NfsMessages.h"
#include "TcpExchange.h"

namespace {

constexpr std::uint32_t kProcMnt = 1;
constexpr std::uint32_t kProcUmnt = 3;
constexpr std::uint32_t kProcLookup = 3;

}  // namespace

MountedExport::MountedExport(int iMountPort, int iNfsPort, const std::string& sExport)
    : m_iMountSocket(ConnectTo(iMountPort)), m_iNfsPort(iNfsPort), m_sExport(sExport) {
    const std::string sReply = Exchange(m_iMountSocket, CallBuilder(kMountProgram, kProcMnt).Opaque(sExport).Finish());
    ReplyReader reader(sReply);
    reader.ExpectHead(0);
    reader.Expect("status of MNT", 0);
    m_sRootHandle = reader.Opaque();
}

MountedExport::~MountedExport() {
    try {
        Exchange(m_iMountSocket, CallBuilder(kMountProgram, kProcUmnt).Opaque(m_sExport).Finish());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "unmounting %s: %s\n", m_sExport.c_str(), error.what());
    }
    ::close(m_iMountSocket);
}

std::string MountedExport::Lookup(const std::string& sName) const {
    const int iSocket = ConnectTo(m_iNfsPort);
    const std::string sReply =
        Exchange(iSocket, CallBuilder(kNfsProgram, kProcLookup).Opaque(m_sRootHandle).Opaque(sName).Finish());
    ::close(iSocket);
    ReplyReader reader(sReply);
    reader.ExpectHead(0);
    reader.Expect("status of LOOKUP", 0);
    return std::string(reader.Opaque());
}
