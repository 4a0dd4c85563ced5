// The door that fuzzers come in by: bytes as a socket would receive them, given to the RPC server with the real
// programs behind it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "FuzzTarget.h"
#include "OutsideWatch.h"
#include "RuntimeParam.h"

class CMountProg;
class CNfsProg;
class CPortmapProg;
class CRpcServer;
class CapturingSocket;
class CUtilities;

/// A server without a network: an exported folder, all programs and the RPC server. One input is a connection or a
/// datagram of its own:
///
///   byte 0: bit 0 set for UDP; bits 1 and 2 choose the program (portmapper, NFS, MOUNT); bit 3 set for a server that
///           logs next to nothing, which takes other ways in places
///   byte 1: how many bytes arrive at a time over TCP, 0 for all at once
///   then the bytes received
///
/// File handles of the input's world: 0 the exported folder, 1 a file, 2 a folder with entries, 3 a file in it.
class RpcFuzzWorld : public FuzzTarget {
public:
    /// Works in a folder that it makes below the given one.
    explicit RpcFuzzWorld(const std::string& sFolder);
    ~RpcFuzzWorld() override;

    std::string Run(std::string_view sInput) override;

private:
    void Restore();
    CapturingSocket* TakeSocket(unsigned char iKind);
    std::string Judge(CapturingSocket* pSocket);
    void Export();

    OutsideWatch m_Outside;
    std::unique_ptr<CUtilities> m_pUtilities;
    CRuntimeParam m_Param;
    std::unique_ptr<CPortmapProg> m_pPortmapProg;
    std::unique_ptr<CMountProg> m_pMountProg;
    std::unique_ptr<CNfsProg> m_pNfsProg;
    std::unique_ptr<CRpcServer> m_pServer;
    std::map<std::pair<bool, unsigned long>, std::unique_ptr<CapturingSocket>> m_Sockets;  ///< used again and again
    unsigned int m_nInputs = 0;
};
