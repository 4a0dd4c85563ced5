// Where an export is found.
#pragma once

#include <string>

/// The ports of a server that stands alone; beside a system portmapper it takes the next ones.
inline constexpr int kDefaultNfsPort = 2049;
inline constexpr int kDefaultMountPort = 1058;

/// An export of a host. A port of 0 is not known yet.
struct NfsTarget {
    std::string sHost;
    std::string sExport;
    int iNfsPort = 0;
    int iMountPort = 0;
};

/// Fills in the ports that are not known: asks the host's portmapper (UDP port 111, RFC 1833's GETPORT), and takes the
/// default where that does not answer within moments or does not know the program. Throws NfsError for a host whose
/// name leads nowhere, Interrupted when iInterrupt (-1: none) becomes readable.
NfsTarget WithPorts(NfsTarget target, int iInterrupt);

/// Why no connection to a TCP port of the host can be had, as a sentence; empty when it can.
std::string WhyUnreachable(const std::string& sHost, int iPort, int iInterrupt);
