// A machine of a cluster, as far as NFS sees it: a console that serves in a network namespace of its own.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "NfsClient.h"

/// The built console as an internal server, in its own network, joined to the test's by a pair of virtual interfaces:
/// the test has 10.99.N.1 and 10.99.N.3 on its side, the server 10.99.N.2. It sees the test's files, as the machines of
/// a cluster see those of their file system. Ends with its owner. The constructor throws std::runtime_error where such
/// a network cannot be made.
class ServerNode {
public:
    explicit ServerNode(int iNumber);
    ~ServerNode();
    ServerNode(const ServerNode&) = delete;
    ServerNode& operator=(const ServerNode&) = delete;

    /// Exports a folder; fails the test if the server refuses.
    void Export(const std::string& sFolder, const std::string& sName);
    /// Takes an export back.
    void Withdraw(const std::string& sFolder);
    /// From now on the network takes small segments, each by itself, and so many of a thousand are lost on the way, in
    /// both directions.
    void Worsen(int nLostOfThousand);
    /// From now on the first segment that ends a connection is lost on its way to the server; it will be sent again.
    void LoseFirstEnds() const;
    /// The network carries nothing, or again what it carried before.
    void CutOff(bool bCut) const;
    /// How many have been lost.
    int CountLost() const;
    /// The machine loses power.
    void Fail();

    /// A client at the first or at the second address.
    NfsClient Client() const { return ClientAt(1); }
    NfsClient OtherClient() const { return ClientAt(3); }
    /// The server's own address.
    std::string GetHost() const { return Address(2); }

private:
    NfsClient ClientAt(int iHost) const;
    std::string Address(int iHost) const;
    using Run = std::function<void(const std::vector<std::string>&)>;
    /// Has each end of the pair changed: its interface, and what runs a program where that is.
    void OnBothSides(const std::function<void(const std::string&, const Run&)>& change) const;
    /// Runs a program in the server's network; throws std::runtime_error if it fails.
    void RunInside(std::vector<std::string> vsArguments) const;
    /// The test's end of the pair.
    std::string Interface() const { return "node" + std::to_string(m_iNumber); }
    /// Types a line and waits until it is carried out; what was printed meanwhile.
    std::string Type(const std::string& sLine);

    int m_iNumber;
    int m_nLines = 0;
    std::unique_ptr<ChildProcess> m_pConsole;
};
