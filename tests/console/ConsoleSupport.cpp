// What the tests of console processes share.
#include "ConsoleSupport.h"

#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

std::string Banner(const std::string& sVersion, const std::string& sDescription) {
    return std::string(kRule) + "Execute Version: 1.4\nServer Version: " + sVersion +
           "\nServer Description: " + sDescription + "\n" + kRule;
}

std::string EmptyStatus(const std::string& sState) {
    return "Server Status: " + sState + "\n" + kRule + "Number of Mount Point: 0\n" + kRule + "Number of Session: 0\n" +
           kRule + "Number of mounted NFS datastore: 0\n" + kRule + "Number of Net Device info: 0\n" + kRule;
}

bool Exists(const std::string& sPath) {
    return ::access(sPath.c_str(), F_OK) == 0;
}

CDescriptor TakeUdpPort(std::uint16_t iPort) {
    CDescriptor taken = CDescriptor::OpenSocket(SOCK_DGRAM);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(iPort);
    if (::bind(taken.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("the port cannot be taken");
    }
    return taken;
}

RunResult RunConsole(const std::vector<std::string>& vsOptions) {
    std::vector<std::string> vsArguments{ConsoleProcess::ProgramPath()};
    vsArguments.insert(vsArguments.end(), vsOptions.begin(), vsOptions.end());
    ChildOptions options;
    options.bClosedInput = true;
    return RunProgram(vsArguments, options);
}

TerminalOf::TerminalOf(pid_t iPid)
    : m_Terminal(::open(("/proc/" + std::to_string(iPid) + "/fd/0").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (!m_Terminal.IsOpen()) {
        throw std::runtime_error("the process has no terminal as standard input");
    }
}

termios TerminalOf::Get() const {
    termios attributes{};
    if (::tcgetattr(m_Terminal.Get(), &attributes) != 0) {
        throw std::runtime_error("no terminal attributes");
    }
    return attributes;
}

void TerminalOf::Set(const termios& attributes) const {
    if (::tcsetattr(m_Terminal.Get(), TCSANOW, &attributes) != 0) {
        throw std::runtime_error("terminal attributes cannot be set");
    }
}

std::string Describe(const termios& attributes) {
    std::string sText = std::to_string(attributes.c_iflag) + " " + std::to_string(attributes.c_oflag) + " " +
                        std::to_string(attributes.c_cflag) + " " + std::to_string(attributes.c_lflag);
    for (const cc_t c : attributes.c_cc) {
        sText += " " + std::to_string(c);
    }
    return sText;
}
