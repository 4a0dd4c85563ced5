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
    std::string sAddress;  ///< the host's IPv4 address in dotted form, empty while it is not known
};

/// Fills in the address. Asks name servers as long as they take, and only a signal that ends the program ends that.
/// Throws NfsError for a host whose name leads nowhere.
NfsTarget WithAddress(NfsTarget target);

/// Fills in the ports that are not known: asks the host's portmapper (UDP port 111, RFC 1833's GETPORT), and takes the
/// default where that does not answer within moments or does not know the program. The address is known. Throws
/// Interrupted when iInterrupt (-1: none) becomes readable.
NfsTarget WithPorts(NfsTarget target, int iInterrupt);

/// Why no connection to a TCP port of the target's address can be had, as a sentence; empty when it can.
std::string WhyUnreachable(const NfsTarget& target, int iPort, int iInterrupt);
