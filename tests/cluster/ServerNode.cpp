// Namespaces by unshare and nsenter, interfaces by ip.
#include "ServerNode.h"

#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <signal.h>

#include <gtest/gtest.h>

namespace {

void RunOrThrow(const std::vector<std::string>& vsArguments) {
    const RunResult result = RunProgram(vsArguments);
    if (result.iStatus != 0) {
        throw std::runtime_error(vsArguments[0] + ": " + result.sOutput);
    }
}

}  // namespace

ServerNode::ServerNode(int iNumber) : m_iNumber(iNumber) {
    // "ready" comes out of the new network, so the interface has where to go.
    m_pConsole = std::make_unique<ChildProcess>(
        std::vector<std::string>{"unshare", "--net", "sh", "-c", "ip link set lo up && echo ready && exec \"$@\"", "sh",
                                 ConsoleProcess::ProgramPath(), "-md", "int", "-id", "node" + std::to_string(iNumber)});
    if (!m_pConsole->WaitFor("ready\n")) {
        throw std::runtime_error("unshare: " + m_pConsole->Output());
    }
    const std::string sPid = std::to_string(m_pConsole->GetPid());
    RunOrThrow({"ip", "link", "add", Interface(), "type", "veth", "peer", "name", "eth0", "netns", sPid});
    RunOrThrow({"ip", "address", "add", Address(1) + "/24", "dev", Interface()});
    RunOrThrow({"ip", "address", "add", Address(3) + "/24", "dev", Interface()});
    RunOrThrow({"ip", "link", "set", Interface(), "up"});
    RunInside({"ip", "address", "add", Address(2) + "/24", "dev", "eth0"});
    RunInside({"ip", "link", "set", "eth0", "up"});
    m_pConsole->Send("debug\n");
    EXPECT_NE(Type("start").find("Start NFS success"), std::string::npos) << m_pConsole->Output();
}

ServerNode::~ServerNode() {
    // The kernel takes its time with a network that is left; the name is free at once this way.
    RunProgram({"ip", "link", "delete", Interface()});
    RunProgram({"nft", "delete", "table", "ip", "lossy" + std::to_string(m_iNumber)});
}

void ServerNode::Export(const std::string& sFolder, const std::string& sName) {
    EXPECT_EQ(Type("mount " + sFolder + "=" + sName).find("Fail"), std::string::npos) << m_pConsole->Output();
}

void ServerNode::Withdraw(const std::string& sFolder) {
    Type("umount " + sFolder);
}

void ServerNode::Worsen(int nLostOfThousand) {
    const std::string sTable = "lossy" + std::to_string(m_iNumber);
    const auto worsen = [&](const std::string& sInterface, const Run& run) {
        const std::string sRule =
            "iifname " + sInterface + " numgen random mod 1000 < " + std::to_string(nLostOfThousand) + " counter drop";
        run({"ip", "link", "set", sInterface, "mtu", "600", "gso_max_segs", "1"});
        run({"nft", "add table ip " + sTable});
        run({"nft", "add chain ip " + sTable + " input { type filter hook input priority 0; }"});
        run({"nft", "add rule ip " + sTable + " input " + sRule});
    };
    OnBothSides(worsen);
}

void ServerNode::OnBothSides(const std::function<void(const std::string&, const Run&)>& change) const {
    change(Interface(), RunOrThrow);
    change("eth0", [this](const std::vector<std::string>& vsArguments) { RunInside(vsArguments); });
}

void ServerNode::LoseFirstEnds() const {
    RunInside({"nft", "add table ip ends"});
    RunInside({"nft", "add chain ip ends input { type filter hook input priority 0; }"});
    RunInside({"nft", "add rule ip ends input iifname eth0 tcp flags & fin == fin ct mark 0 ct mark set 1 drop"});
}

void ServerNode::CutOff(bool bCut) const {
    // The interfaces stay up, and so nobody is told.
    const std::string sTable = "ip cut" + std::to_string(m_iNumber);
    const auto cut = [&](const std::string& sInterface, const Run& run) {
        if (!bCut) {
            run({"nft", "delete table " + sTable});
            return;
        }
        run({"nft", "add table " + sTable});
        run({"nft", "add chain " + sTable + " input { type filter hook input priority 0; }"});
        run({"nft", "add rule " + sTable + " input iifname " + sInterface + " drop"});
    };
    OnBothSides(cut);
}

int ServerNode::CountLost() const {
    const std::string sRules = RunProgram({"nft", "list", "table", "ip", "lossy" + std::to_string(m_iNumber)}).sOutput;
    const std::string_view sCounter = "counter packets ";
    const std::size_t iCounter = sRules.find(sCounter);
    return iCounter == std::string::npos ? 0 : std::atoi(sRules.c_str() + iCounter + sCounter.size());
}

void ServerNode::RunInside(std::vector<std::string> vsArguments) const {
    const std::string sNetwork = "--net=/proc/" + std::to_string(m_pConsole->GetPid()) + "/ns/net";
    vsArguments.insert(vsArguments.begin(), {"nsenter", sNetwork});
    RunOrThrow(vsArguments);
}

void ServerNode::Fail() {
    m_pConsole->Signal(SIGKILL);
    EXPECT_EQ(m_pConsole->Wait(), 128 + SIGKILL);
    RunProgram({"ip", "link", "delete", Interface()});
}

NfsClient ServerNode::ClientAt(int iHost) const {
    return NfsClient(Transport::kTcp, Address(iHost), 2049, 1058, Address(2));
}

std::string ServerNode::Address(int iHost) const {
    return "10.99." + std::to_string(m_iNumber) + "." + std::to_string(iHost);
}

std::string ServerNode::Type(const std::string& sLine) {
    const std::size_t iBefore = m_pConsole->Output().size();
    const std::string sMark = "line " + std::to_string(++m_nLines) + " carried out";
    m_pConsole->Send(sLine + "\nprint " + sMark + "\n");
    EXPECT_TRUE(m_pConsole->WaitFor(sMark)) << m_pConsole->Output();
    return m_pConsole->Output().substr(iBefore);
}
